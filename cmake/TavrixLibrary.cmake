# The library: its objects are built once and feed both libtavrix.so and the unit tests.

find_package(PkgConfig REQUIRED)
pkg_check_modules(YAJL REQUIRED IMPORTED_TARGET yajl)
pkg_check_modules(PROTOBUF_C REQUIRED IMPORTED_TARGET libprotobuf-c)

set(TAVRIX_SOURCES
  audit_buffer.cpp
  audit_events.pb-c.c
  config_snapshot.cpp
  connection_hooks.cpp
  connection_identity.cpp
  deletable_patterns.cpp
  directory_hooks.cpp
  event_records.cpp
  file_hooks.cpp
  folder_markers.cpp
  operation_mapping.cpp
  permission_check.cpp
  permissions/acl.cpp
  permissions/caller.cpp
  permissions/change_id.cpp
  permissions/data_pass.cpp
  permissions/decision.cpp
  permissions/group_list_map.cpp
  permissions/image_dump.cpp
  permissions/image_lookup.cpp
  permissions/image_records.cpp
  permissions/import_driver.cpp
  permissions/import_report.cpp
  permissions/json_parse.cpp
  permissions/name_traces.cpp
  permissions/parse_stack.cpp
  permissions/path_elements.cpp
  permissions/perm_map.cpp
  permissions/rules.cpp
  permissions/size_pass.cpp
  permissions/special_files.cpp
  regex_parser/regex_parser.cpp
  rename_hook.cpp
  samba.pb-c.c
  stat_hooks.cpp
  sweeper/sweeper_log.cpp
  utils/dump_file.cpp
  utils/dump_in_flight.cpp
  utils/event_markers.cpp
  utils/name_compare.cpp
  utils/parameter_block.cpp
  utils/path_names.cpp
  utils/privilege.cpp
  utils/samba_compare.cpp
  utils/staging_buffer.cpp
  utils/staging_flush.cpp
  utils/staging_semaphore.cpp
  verdict_cache.cpp
)

# What the protobuf compiler made of the two .proto files is kept beside them; it knows no visibility.
set_source_files_properties(samba.pb-c.c audit_events.pb-c.c PROPERTIES COMPILE_OPTIONS
  "-fvisibility=default;-Wno-conversion;-Wno-pedantic")


add_library(tavrix_objects OBJECT ${TAVRIX_SOURCES})
set_target_properties(tavrix_objects PROPERTIES
  POSITION_INDEPENDENT_CODE ON
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_include_directories(tavrix_objects
  PUBLIC ${CMAKE_SOURCE_DIR}/include ${CMAKE_SOURCE_DIR})
# Nothing may unwind into C, and nothing here throws.
target_compile_options(tavrix_objects PRIVATE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions>
  $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>
  $<$<COMPILE_LANGUAGE:CXX>:-fno-threadsafe-statics>
  $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>
  -fno-semantic-interposition
  # Keeps malloc() and memset() two calls: the compiler would make them one calloc(), which does not
  # use the C library's per-thread cache.
  -fno-builtin-malloc)
target_link_libraries(tavrix_objects PRIVATE tavrix_settings PUBLIC PkgConfig::YAJL
  PkgConfig::PROTOBUF_C)

add_library(tavrix SHARED $<TARGET_OBJECTS:tavrix_objects>)
set_target_properties(tavrix PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}
  # C++ inside, but no C++ runtime: programs in C load it with yajl and libc alone.
  LINKER_LANGUAGE C
  LINK_DEPENDS ${CMAKE_SOURCE_DIR}/cmake/libtavrix.map)
target_include_directories(tavrix INTERFACE
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/include>
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tavrix>)
target_link_options(tavrix PRIVATE
  LINKER:--version-script=${CMAKE_SOURCE_DIR}/cmake/libtavrix.map
  LINKER:--as-needed
  # Calls inside the library stay inside: nothing may stand in front of a decision.
  LINKER:-Bsymbolic-functions)
if(NOT TAVRIX_SANITIZED)
  target_link_options(tavrix PRIVATE LINKER:--no-undefined)
endif()
target_link_libraries(tavrix PRIVATE PkgConfig::YAJL ${CMAKE_DL_LIBS} PUBLIC PkgConfig::PROTOBUF_C)
add_library(tavrix::tavrix ALIAS tavrix)
