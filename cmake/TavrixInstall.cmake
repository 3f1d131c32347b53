# What `cmake --install` puts where.

install(TARGETS tavrix EXPORT tavrix LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavrix FILES_MATCHING PATTERN "*.h")
