# Fails when an include runs up the layers. Run by the build (see the top CMakeLists.txt):
#   cmake -DSOURCE_DIR=... -DLAYERS=marl,base,... -DSTAMP=file -P CheckLayers.cmake
#
# A file in a layer's folder, or in the tests of that layer (tests/<layer>/), may include headers
# of its own layer and of the layers below it, and the public headers in include/ferritcore/
# (all but marl, which stands on its own). The top layers are embed/ (the C interface of the
# shared library), then bridge/ (the Node host). Only bridge/ may include the Node-API header.
# Tools, benchmarks, fuzz targets and top-level test helpers stand above every layer.
cmake_minimum_required(VERSION 3.25)
string(REPLACE "," ";" LAYERS "${LAYERS}")

file(GLOB_RECURSE candidates RELATIVE ${SOURCE_DIR}
  ${SOURCE_DIR}/*.h ${SOURCE_DIR}/*.hpp ${SOURCE_DIR}/*.cc ${SOURCE_DIR}/*.c ${SOURCE_DIR}/*.cpp)
set(violations "")
foreach(file ${candidates})
  if(file MATCHES "^(build[^/]*|\\.git|node_modules|.*/node_modules)/")
    continue()
  endif()
  string(REGEX MATCH "^[^/]+" top "${file}")
  set(layer "")
  if(top STREQUAL "tests" AND file MATCHES "^tests/([^/]+)/")
    set(layer "${CMAKE_MATCH_1}")
  else()
    set(layer "${top}")
  endif()
  list(FIND LAYERS "${layer}" rank)
  file(STRINGS ${SOURCE_DIR}/${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]")
  foreach(line ${lines})
    if(line MATCHES "node_api\\.h" AND NOT top STREQUAL "bridge")
      list(APPEND violations "${file}: ${line} (only bridge/ talks to Node-API)")
    endif()
    if(rank LESS 0 OR NOT line MATCHES "#[ \t]*include[ \t]*\"([^/\"]+)/")
      continue()
    endif()
    set(target "${CMAKE_MATCH_1}")
    if(target STREQUAL "ferritcore")
      if(layer STREQUAL "marl")
        list(APPEND violations "${file}: ${line} (marl stands on its own)")
      endif()
      continue()
    endif()
    list(FIND LAYERS "${target}" target_rank)
    if(target_rank GREATER rank)
      list(APPEND violations "${file}: ${line} (${layer} is below ${target})")
    elseif(target_rank LESS 0 AND NOT target STREQUAL "tests" AND NOT top STREQUAL "tests")
      list(APPEND violations "${file}: ${line} (${target}/ is not a layer)")
    endif()
  endforeach()
endforeach()

if(violations)
  list(JOIN violations "\n  " text)
  message(FATAL_ERROR "Includes that run up the layers (${LAYERS}, bottom first):\n  ${text}")
endif()
file(TOUCH ${STAMP})
