# Layers that can't see upwards.
#
# vesk_layer(NAME SOURCES... BELOW layer...) makes the static library vesk_NAME
# of src/NAME. Its files are included as "NAME/file.h", and that works only in
# targets that link it: each layer has an include root of its own that holds one
# link, so a wrong include doesn't compile.
function(vesk_layer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;BELOW" ${ARGN})
  add_library(vesk_${name} STATIC ${ARG_SOURCES})
  set(root "${PROJECT_BINARY_DIR}/include-roots/${name}")
  file(MAKE_DIRECTORY "${root}")
  file(CREATE_LINK "${CMAKE_CURRENT_SOURCE_DIR}" "${root}/${name}" SYMBOLIC)
  target_include_directories(vesk_${name} PUBLIC "${root}")
  target_link_libraries(vesk_${name} PRIVATE vesk_connector)
  foreach(layer ${ARG_BELOW})
    target_link_libraries(vesk_${name} PUBLIC vesk_${layer})
  endforeach()
endfunction()
