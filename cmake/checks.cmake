# Targets that look at the source and build nothing: format, tidy, headers.
find_package(Python3 COMPONENTS Interpreter)
file(GLOB_RECURSE ZOL_FORMATTED CONFIGURE_DEPENDS
  include/*.h lib/*.h lib/*.cpp src/*.h src/*.cpp tools/*.h tools/*.cpp tests/*.h tests/*.cpp
  bench/*.h bench/*.cpp fuzz/*.h fuzz/*.cpp)

add_custom_target(format COMMAND clang-format -i ${ZOL_FORMATTED} VERBATIM)
add_custom_target(format-check COMMAND clang-format --dry-run -Werror ${ZOL_FORMATTED} VERBATIM)
add_custom_target(tidy
  COMMAND run-clang-tidy -quiet -extra-arg=-Wno-unknown-warning-option -p ${CMAKE_BINARY_DIR} "${CMAKE_SOURCE_DIR}/(src|lib|tools)/.*"
  VERBATIM)
add_custom_target(header-circles
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/tests/checks/header_circles.py ${CMAKE_SOURCE_DIR}
  VERBATIM)
