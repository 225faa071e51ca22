# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT

# What `cmake --install` lays out: the library, its headers, a CMake package (frwk::frwk) and frwk.pc. device/ adds its
# programs where they are built.

include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/frwk)

install(TARGETS frwk EXPORT frwk
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT frwk NAMESPACE frwk:: FILE frwk-config.cmake DESTINATION ${package_dir} COMPONENT development)

write_basic_package_version_file(${PROJECT_BINARY_DIR}/frwk-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/frwk-config-version.cmake DESTINATION ${package_dir} COMPONENT development)

# Written as it is installed, when the prefix is known for good.
cmake_path(IS_ABSOLUTE CMAKE_INSTALL_LIBDIR absolute_libdir)
cmake_path(IS_ABSOLUTE CMAKE_INSTALL_INCLUDEDIR absolute_includedir)
if(NOT absolute_libdir)
    set(pc_libdir "\${prefix}/")
endif()
if(NOT absolute_includedir)
    set(pc_includedir "\${prefix}/")
endif()
string(APPEND pc_libdir ${CMAKE_INSTALL_LIBDIR})
string(APPEND pc_includedir ${CMAKE_INSTALL_INCLUDEDIR})
set(pc_prefix @CMAKE_INSTALL_PREFIX@)
configure_file(cmake/frwk.pc.in ${PROJECT_BINARY_DIR}/frwk.pc.in @ONLY)
install(CODE "configure_file(\"${PROJECT_BINARY_DIR}/frwk.pc.in\" \"${PROJECT_BINARY_DIR}/frwk.pc\" @ONLY)"
    COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/frwk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# A page of each header, with the names of what it declares.
if(FRWK_BUILD_MAN)
    find_program(doxygen doxygen REQUIRED)
    set(pages ${PROJECT_BINARY_DIR}/man3)
    add_custom_command(OUTPUT ${pages}/frwk.h.3.gz COMMAND ${PROJECT_SOURCE_DIR}/tools/man library ${pages}
        DEPENDS ${frwk_headers} ${PROJECT_SOURCE_DIR}/tools/man ${PROJECT_SOURCE_DIR}/docs/Doxyfile VERBATIM)
    add_custom_target(frwk_man_library ALL DEPENDS ${pages}/frwk.h.3.gz)
    install(DIRECTORY ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development)
endif()
