# SPDX-License-Identifier: LGPL-3.0-or-later
# Installs the library, its headers, the tools and their files. scripts/make-packages.sh makes a package
# of each component.

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

install(FILES docs/man/tavrixctl.8 docs/man/tavrix-loader.8 docs/man/tavrix-sweeper.8
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT tools)
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
install(FILES packaging/tavrix-loader.service packaging/tavrix-sweeper.service
    packaging/tavrix-metrics.service packaging/tavrix-metrics.timer
  DESTINATION lib/systemd/system COMPONENT tools)
install(FILES packaging/smbd.service.d/tavrix.conf DESTINATION lib/systemd/system/smbd.service.d
  COMPONENT tools)
install(FILES packaging/tavrix.tmpfiles DESTINATION lib/tmpfiles.d RENAME tavrix.conf
  COMPONENT tools)

# scripts/build-samba-module.sh builds the module; without it the package has the manual page alone.
install(FILES docs/man/vfs_tavrix.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT samba)
install(FILES ${CMAKE_BINARY_DIR}/samba/tavrix.so DESTINATION lib/x86_64-linux-gnu/samba/vfs
  COMPONENT samba OPTIONAL)

# The names of the packages. Each contains its licence in the place that Debian wants.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libtavrix${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtavrix-dev)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tavrix-tools)
set(CPACK_DEBIAN_SAMBA_PACKAGE_NAME samba-vfs-tavrix)
set(CPACK_COMPONENTS_ALL library dev tools samba)
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  install(FILES packaging/debian/copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
    COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavrix)
set(CPACK_PACKAGE_CONTACT "The libtavrix developers <root@localhost>")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/debian/triggers)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "Permission decisions and event records for a file server")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libtavrix${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libprotobuf-c-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Headers of libtavrix")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libtavrix${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/debian/conffiles)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "tavrixctl, the map loader and the event sweeper")
set(CPACK_DEBIAN_SAMBA_PACKAGE_SECTION net)
set(CPACK_DEBIAN_SAMBA_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_SAMBA_PACKAGE_DEPENDS
  "samba (= ${TAVRIX_SAMBA_VERSION}), libtavrix${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_SAMBA_DESCRIPTION "Samba module for permissions from a map")
include(CPack)
