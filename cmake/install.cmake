# What `cmake --install` lays out: the library, its headers, a CMake package (frwk::frwk) and frwk.pc.

include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/frwk)

install(TARGETS frwk EXPORT frwk
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT frwk NAMESPACE frwk:: FILE frwk-config.cmake DESTINATION ${package_dir} COMPONENT development)

write_basic_package_version_file(${PROJECT_BINARY_DIR}/frwk-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/frwk-config-version.cmake DESTINATION ${package_dir} COMPONENT development)

# The prefix is told from the place of frwk.pc, so that an installation can be moved or staged.
cmake_path(SET pc_dir NORMALIZE ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${pc_dir} OUTPUT_VARIABLE pc_prefix)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE pc_libdir)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE pc_includedir)
configure_file(cmake/frwk.pc.in ${PROJECT_BINARY_DIR}/frwk.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/frwk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
