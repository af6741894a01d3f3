# The presets are JSON files like those that users of the tool write. Those that even out the treble
# (*.json.in) take the bands of `flat`. Sets SE_PRESETS, the names as they are listed, and
# SE_PRESET_<name>, the texts, which it also leaves in the build's folder presets/.
set(SE_PRESETS plain voice flat call natural steady)
file(READ ${CMAKE_CURRENT_LIST_DIR}/flat.json SE_FLAT_PEAKS)
string(REGEX MATCH "\\[.*\\]" SE_FLAT_PEAKS "${SE_FLAT_PEAKS}")
foreach(preset ${SE_PRESETS})
  set(file ${CMAKE_CURRENT_LIST_DIR}/${preset}.json)
  if(NOT EXISTS ${file})
    string(APPEND file .in)
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  file(READ ${file} SE_PRESET_${preset})
  string(CONFIGURE "${SE_PRESET_${preset}}" SE_PRESET_${preset} @ONLY)
  file(WRITE ${PROJECT_BINARY_DIR}/presets/${preset}.json "${SE_PRESET_${preset}}")
endforeach()
