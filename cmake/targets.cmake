# One shape for every piece: a static library a folder, a test program a subsystem.

# zol_library(<name> SOURCES ... [DEPS ...]): a static library that sees include/ and src/.
function(zol_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR}/include ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
endfunction()

# zol_closed_library(<name> OPTION <cmake variable> SOURCES ... [DEPS ...]): a library that a node's
# own build may replace. The code sees include/ only, never src/. Setting the option to the path of a
# shared or static library links that file and leaves the folder's code out.
function(zol_closed_library name)
  cmake_parse_arguments(ARG "" "OPTION" "SOURCES;DEPS" ${ARGN})
  set(${ARG_OPTION} "" CACHE FILEPATH "A node's own build that takes the place of ${name}")
  if(${ARG_OPTION})
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${CMAKE_SOURCE_DIR}/include)
    target_link_libraries(${name} INTERFACE ${${ARG_OPTION}} ${ARG_DEPS})
  else()
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR}/include)
    target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/lib)
    target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  endif()
endfunction()

# zol_unit_test(<name> SOURCES ... [DEPS ...]): one GoogleTest program, bin/unit/<name>.
function(zol_unit_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(unit_${name} ${ARG_SOURCES})
  set_target_properties(unit_${name} PROPERTIES
    OUTPUT_NAME ${name} RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin/unit)
  target_include_directories(unit_${name} PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/src
    ${CMAKE_SOURCE_DIR}/include)
  target_compile_definitions(unit_${name} PRIVATE
    ZOL_TEST_DATA="${CMAKE_SOURCE_DIR}/tests/data" ZOL_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  # What is measured and shipped is the libraries' code; a test's own is built often and run once.
  target_compile_options(unit_${name} PRIVATE -O0)
  target_link_libraries(unit_${name} PRIVATE ${ARG_DEPS} zol_test_support GTest::gmock GTest::gtest_main)
  add_test(NAME unit_${name} COMMAND unit_${name})
endfunction()
