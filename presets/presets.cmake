# The presets are JSON files like those that users of the tool write. Those that even out the treble
# (*.json.in) take the bands of `flat`. Sets SE_PRESETS, the names as they are listed, whose order
# plugin hosts store: new ones go last; SE_PRESET_<name>, the texts, which it also leaves in the
# build's folder presets/; SE_DEFAULT_PRESET, taken where none is asked for; and SE_OLD_PRESETS, what
# presets were called before, as old=new. docs/presets.md says how they were chosen.
set(SE_PRESETS plain recording flat call natural steady recognition)
set(SE_DEFAULT_PRESET recording)
set(SE_OLD_PRESETS voice=recording)
list(FIND SE_PRESETS ${SE_DEFAULT_PRESET} SE_DEFAULT_PRESET_NUMBER)
file(READ ${CMAKE_CURRENT_LIST_DIR}/flat.json SE_FLAT_PEAKS)
string(REGEX MATCH "\\[.*\\]" SE_FLAT_PEAKS "${SE_FLAT_PEAKS}")
# As initialisers of C: {"old", "new"}, ...
set(SE_OLD_PRESET_ENTRIES)
foreach(pair ${SE_OLD_PRESETS})
  string(REPLACE "=" "\", \"" names ${pair})
  string(APPEND SE_OLD_PRESET_ENTRIES "    {\"${names}\"},\n")
endforeach()
file(REMOVE_RECURSE ${PROJECT_BINARY_DIR}/presets)
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
