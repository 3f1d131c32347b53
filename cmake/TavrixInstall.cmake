# What `cmake --install` puts where.

install(TARGETS tavrix EXPORT tavrix LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavrix FILES_MATCHING PATTERN "*.h")
install(FILES samba.pb-c.h audit_events.pb-c.h samba.proto audit_events.proto
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavrix)
