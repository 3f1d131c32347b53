# What `cmake --install` puts where.

include(CMakePackageConfigHelpers)

set(TAVRIX_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tavrix)

install(TARGETS tavrix EXPORT tavrix-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavrix FILES_MATCHING PATTERN "*.h")
install(FILES samba.pb-c.h audit_events.pb-c.h samba.proto audit_events.proto
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavrix)

configure_file(cmake/tavrix.pc.in ${CMAKE_BINARY_DIR}/tavrix.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tavrix.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
configure_package_config_file(cmake/tavrix-config.cmake.in ${CMAKE_BINARY_DIR}/tavrix-config.cmake
  INSTALL_DESTINATION ${TAVRIX_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/tavrix-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/tavrix-config.cmake ${CMAKE_BINARY_DIR}/tavrix-config-version.cmake
  DESTINATION ${TAVRIX_PACKAGE_DIR})
install(EXPORT tavrix-targets NAMESPACE tavrix:: DESTINATION ${TAVRIX_PACKAGE_DIR})

install(DIRECTORY docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 FILES_MATCHING PATTERN "*.8")
install(FILES packaging/tavrix.conf DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/tavrix)
install(FILES packaging/tavrix-loader.service packaging/tavrix-sweeper.service
  DESTINATION lib/systemd/system)
install(FILES packaging/tavrix.tmpfiles DESTINATION lib/tmpfiles.d RENAME tavrix.conf)
