# What the station monitor makes of configuration and samples: a program of its own, beside the probes'.
zol_unit_test(station_monitor
  SOURCES
    ../dns/dns_fixture.cpp
    failing_calls.cpp
    probes_main.cpp
    station_monitor_entries_test.cpp
    station_monitor_fixture.cpp
    station_monitor_ping_test.cpp
    station_monitor_samples_test.cpp
    station_monitor_test.cpp
  DEPS zol_test_config zol_probes)
# Moves the folder of the installed versions, which only our own build of the library lets a test do.
if(NOT ZOL_LIBZOLUTILS)
  target_sources(unit_station_monitor PRIVATE station_monitor_version_test.cpp)
  target_include_directories(unit_station_monitor PRIVATE ${CMAKE_SOURCE_DIR}/lib)
endif()
