# SPDX-License-Identifier: LGPL-3.0-or-later
# The library. Its objects are built once; libtavrix.so and the unit tests both link them.

find_package(PkgConfig REQUIRED)
pkg_check_modules(YAJL REQUIRED IMPORTED_TARGET yajl)
pkg_check_modules(PROTOBUF_C REQUIRED IMPORTED_TARGET libprotobuf-c)

set(TAVRIX_SOURCES
  connection/check_perms.cpp
  connection/deletable_patterns.cpp
  connection/entries.cpp
  connection/group_list_map.cpp
  connection/identity.cpp
  connection/operation_mapping.cpp
  connection/settings_snapshot.cpp
  connection/verdict_cache.cpp
  events/audit_buffer.cpp
  events/generated/audit_events.pb-c.c
  events/generated/samba.pb-c.c
  events/records.cpp
  events/stamps.cpp
  hooks/connection.cpp
  hooks/file.cpp
  hooks/fixed_folders.cpp
  hooks/folder.cpp
  hooks/rename.cpp
  hooks/status.cpp
  permissions/decision/caller.cpp
  permissions/decision/decision.cpp
  permissions/decision/protected_folders.cpp
  permissions/decision/rules.cpp
  permissions/decision/special_files.cpp
  permissions/import/data_pass.cpp
  permissions/import/document.cpp
  permissions/import/driver.cpp
  permissions/import/json_parse.cpp
  permissions/import/local_copy.cpp
  permissions/import/parse_stack.cpp
  permissions/import/report.cpp
  permissions/import/size_pass.cpp
  permissions/map/acl.cpp
  permissions/map/held_table.cpp
  permissions/map/image_dump.cpp
  permissions/map/image_layout.cpp
  permissions/map/image_lookup.cpp
  permissions/map/image_records.cpp
  permissions/map/name_traces.cpp
  permissions/map/path_elements.cpp
  permissions/map/tables.cpp
  regex_parser/regex_parser.cpp
  sessions/session.cpp
  sweeper/sweeper_log.cpp
  utils/change_id.cpp
  utils/name_compare.cpp
  utils/parameter_block.cpp
  utils/path_match.cpp
  utils/path_names.cpp
  utils/privilege.cpp
  utils/random_string.cpp
  utils/reserved_user.cpp
  utils/samba_compare.cpp
  utils/staging/alarms.cpp
  utils/staging/append.cpp
  utils/staging/dump_file.cpp
  utils/staging/dump_in_flight.cpp
  utils/staging/flush.cpp
  utils/staging/held_buffer.cpp
  utils/staging/history_link.cpp
  utils/staging/segment.cpp
  utils/staging/semaphore.cpp
)

# The protobuf compiler (scripts/generate.sh) marks no function of its code for export.
set_source_files_properties(events/generated/audit_events.pb-c.c events/generated/samba.pb-c.c
  PROPERTIES COMPILE_OPTIONS "-fvisibility=default;-Wno-conversion;-Wno-pedantic")

add_library(tavrix_objects OBJECT ${TAVRIX_SOURCES})
set_target_properties(tavrix_objects PROPERTIES
  POSITION_INDEPENDENT_CODE ON
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
# No exception may unwind into the C programs that load the library.
target_compile_options(tavrix_objects PRIVATE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions>
  $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>
  $<$<COMPILE_LANGUAGE:CXX>:-fno-threadsafe-statics>
  $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>
  -fno-semantic-interposition
  # The compiler would turn malloc() and memset() into calloc(), which bypasses the C library's
  # per-thread cache.
  -fno-builtin-malloc)
target_link_libraries(tavrix_objects PUBLIC tavrix_settings PkgConfig::YAJL PkgConfig::PROTOBUF_C)

add_library(tavrix SHARED $<TARGET_OBJECTS:tavrix_objects>)
set_target_properties(tavrix PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}
  # The C linker adds no C++ runtime, so programs in C need only yajl, protobuf-c and libc.
  LINKER_LANGUAGE C
  LINK_DEPENDS ${CMAKE_SOURCE_DIR}/cmake/libtavrix.map)
target_include_directories(tavrix INTERFACE
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/include>
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/events/generated>
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tavrix>)
target_link_options(tavrix PRIVATE
  LINKER:--version-script=${CMAKE_SOURCE_DIR}/cmake/libtavrix.map
  LINKER:--as-needed
  # Calls inside the library cannot be interposed: no other object may answer for a decision.
  LINKER:-Bsymbolic-functions)
if(NOT TAVRIX_SANITIZED)
  target_link_options(tavrix PRIVATE LINKER:--no-undefined)
endif()
target_link_libraries(tavrix PRIVATE PkgConfig::YAJL ${CMAKE_DL_LIBS} PUBLIC PkgConfig::PROTOBUF_C)
add_library(tavrix::tavrix ALIAS tavrix)
