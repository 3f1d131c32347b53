# SPDX-License-Identifier: LGPL-3.0-or-later
# Installs the library, its headers, the tools and their files. Each component is a Debian package
# (debian/rules).

include(CMakePackageConfigHelpers)

set(TAVRIX_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tavrix)

install(TARGETS tavrix EXPORT tavrix-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT dev)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavrix COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
install(FILES events/generated/samba.pb-c.h events/generated/audit_events.pb-c.h
    events/samba.proto events/audit_events.proto
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavrix COMPONENT dev)

configure_file(cmake/tavrix.pc.in ${CMAKE_BINARY_DIR}/tavrix.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tavrix.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)
configure_package_config_file(cmake/tavrix-config.cmake.in ${CMAKE_BINARY_DIR}/tavrix-config.cmake
  INSTALL_DESTINATION ${TAVRIX_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/tavrix-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/tavrix-config.cmake ${CMAKE_BINARY_DIR}/tavrix-config-version.cmake
  DESTINATION ${TAVRIX_PACKAGE_DIR} COMPONENT dev)
install(EXPORT tavrix-targets NAMESPACE tavrix:: DESTINATION ${TAVRIX_PACKAGE_DIR} COMPONENT dev)

# Every page but the module's, the historian's and the cluster's belongs to the tools.
foreach(section 1 5 7 8)
  file(GLOB pages CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/man/*.${section})
  list(FILTER pages EXCLUDE REGEX "/(vfs_tavrix|tavrix-historian|tavrix-clusterd)\\.8$")
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT tools)
endforeach()
install(FILES tools/shells/tavrixctl.bash
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tavrixctl COMPONENT tools)
install(FILES tools/shells/_tavrixctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tools)
install(FILES tools/shells/tavrixctl.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tools)
install(DIRECTORY docs/json DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tavrix-tools COMPONENT tools)
install(FILES packaging/examples/tavrix-alerts.yml
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tavrix-tools/examples COMPONENT tools)
# Settings go to /etc when the prefix is /usr. Any other prefix keeps everything below it.
set(TAVRIX_SYSCONFDIR ${CMAKE_INSTALL_SYSCONFDIR})
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(TAVRIX_SYSCONFDIR ${CMAKE_INSTALL_FULL_SYSCONFDIR})
endif()
install(FILES packaging/tavrix.conf packaging/exception_patterns
  DESTINATION ${TAVRIX_SYSCONFDIR}/tavrix COMPONENT tools)
install(FILES packaging/tavrix.logrotate DESTINATION ${TAVRIX_SYSCONFDIR}/logrotate.d RENAME tavrix
  COMPONENT tools)
# Debian 12 wants the units of a package outside /usr.
set(TAVRIX_UNIT_DIR lib/systemd/system CACHE STRING "Folder of the systemd units")
install(FILES packaging/tavrix-loader.service packaging/tavrix-sweeper.service
    packaging/tavrix-metrics.service packaging/tavrix-metrics.timer
  DESTINATION ${TAVRIX_UNIT_DIR} COMPONENT tools)
install(FILES packaging/smbd.service.d/tavrix.conf DESTINATION ${TAVRIX_UNIT_DIR}/smbd.service.d
  COMPONENT tools)
install(PROGRAMS packaging/sessions.sh DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/tavrix RENAME sessions
  COMPONENT tools)
install(FILES packaging/tavrix.tmpfiles DESTINATION lib/tmpfiles.d RENAME tavrix.conf
  COMPONENT tools)

install(FILES docs/man/tavrix-historian.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT historian)
install(FILES packaging/tavrix-historian.service DESTINATION ${TAVRIX_UNIT_DIR} COMPONENT historian)
install(FILES docs/history.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tavrix-historian
  COMPONENT historian)

install(PROGRAMS cluster/events/45.tavrix.script cluster/events/60.tavrix.script
  DESTINATION ${CMAKE_INSTALL_DATADIR}/ctdb/events/legacy COMPONENT cluster)
install(FILES cluster/ctdb.service.d/tavrix.conf DESTINATION ${TAVRIX_UNIT_DIR}/ctdb.service.d
  COMPONENT cluster)
foreach(service sweeper loader historian clusterd)
  install(FILES cluster/services.d/cluster.conf
    DESTINATION ${TAVRIX_UNIT_DIR}/tavrix-${service}.service.d COMPONENT cluster)
endforeach()
install(FILES docs/cluster.md docs/cluster-maps.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tavrix-cluster
  COMPONENT cluster)
install(FILES packaging/tavrix-clusterd.service DESTINATION ${TAVRIX_UNIT_DIR} COMPONENT cluster)
install(FILES docs/man/tavrix-clusterd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT cluster)

# scripts/build-samba-module.sh builds the module; without it the package has the manual page alone.
install(FILES docs/man/vfs_tavrix.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT samba)
install(FILES ${CMAKE_BINARY_DIR}/samba/tavrix.so DESTINATION lib/x86_64-linux-gnu/samba/vfs
  COMPONENT samba OPTIONAL)

# Each package has the licences in the place that Debian wants.
foreach(package library:libtavrix${PROJECT_VERSION_MAJOR} dev:libtavrix-dev tools:tavrix-tools
    historian:tavrix-historian samba:samba-vfs-tavrix cluster:tavrix-cluster)
  string(REPLACE : ";" package ${package})
  list(POP_FRONT package component)
  install(FILES debian/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
    COMPONENT ${component})
endforeach()
