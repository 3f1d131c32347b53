# What `cmake --install` puts where.

install(TARGETS tavrix EXPORT tavrix LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavrix FILES_MATCHING PATTERN "*.h")
install(FILES samba.pb-c.h audit_events.pb-c.h samba.proto audit_events.proto
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavrix)
install(FILES docs/man/tavrixctl.8 docs/man/tavrix-sweeper.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES packaging/tavrix.conf DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/tavrix)
install(FILES packaging/tavrix-sweeper.service DESTINATION lib/systemd/system)
install(FILES packaging/tavrix.tmpfiles DESTINATION lib/tmpfiles.d RENAME tavrix.conf)
