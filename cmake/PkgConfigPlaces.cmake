# A pkg-config file finds the rest of the tree from where it lies itself: sets the variables that the
# templates in packaging/ take.
macro(se_pkgconfig_places)
  foreach(place PREFIX FULL_LIBDIR FULL_INCLUDEDIR)
    file(RELATIVE_PATH SE_PKGCONFIG_TO_${place}
      ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_${place}})
  endforeach()
endmacro()
