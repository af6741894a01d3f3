# GoogleTest is built from sources with this project's own compiler and flags, so that the
# same tests run natively, under sanitizers and, cross-compiled, under an emulator.
set(INSTALL_GTEST OFF)
add_subdirectory(${SE_GOOGLETEST} googletest EXCLUDE_FROM_ALL)
include(GoogleTest)


# A program of GoogleTests and its test, both called `name`. What the tests of several packages share is
# in tests/; from another package's tests a helper is named by its path from the top.
function(se_test_program name library)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE ${library} GTest::gtest_main se_options)
  target_include_directories(${name} PRIVATE
    ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${name} PRIVATE -Wno-psabi)
  endif()
  add_test(NAME ${name} COMMAND ${name})
endfunction()
