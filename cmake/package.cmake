# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT

# Debian packages: `cpack` in a build tree configured with the prefix /usr (tools/package does both).

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME frwk)
set(CPACK_PACKAGE_VENDOR "the libfrwk authors")
set(CPACK_PACKAGE_CONTACT "the libfrwk authors <maintainers@libfrwk.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(long_description "libfrwk gives the daemons of an embedded device around a modem what they share:\n\
single-instance start-up, messages between daemons, trace, timers, settings\n\
that survive a power failure, a hash table and XML.\n.\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libfrwk0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_MULTIARCH same)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/debian/triggers CONTENT "activate-noawait ldconfig\n")
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/debian/shlibs CONTENT "libfrwk 0 libfrwk0 (>= ${PROJECT_VERSION})\n")
configure_file(packaging/debian/libfrwk0.symbols ${PROJECT_BINARY_DIR}/debian/symbols COPYONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_BINARY_DIR}/debian/triggers ${PROJECT_BINARY_DIR}/debian/shlibs ${PROJECT_BINARY_DIR}/debian/symbols)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "${long_description}This package holds the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libfrwk-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libfrwk0 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "${long_description}This package holds the headers, the CMake package, the pkg-config file, the\nguides and manual pages.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME frwk-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONFLICTS logtool) # another program of that name, at the same place
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/debian/conffiles CONTENT "/etc/lnav/formats/frwk/frwk_log.json\n")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/conffiles)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS python3) # for frwk-chart
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "bash-completion, lnav, tshark | wireshark")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "${long_description}This package holds the monitor, which starts and watches the daemons of a\ndevice, and the tools that look after them, monitor_tool and logtool, with\ntheir manual pages, completion for bash, a format for lnav and a dissector\nfor Wireshark, and frwk-chart, which pictures what was captured.")

set(CPACK_DEBIAN_EXAMPLES_PACKAGE_NAME frwk-examples)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SUGGESTS "libfrwk-dev, python3")
set(CPACK_DEBIAN_EXAMPLES_DESCRIPTION "${long_description}This package holds the daemons of a small device, as programs and as source.")
# Of the same version: the library and the programs agree on the table of modules.
set(tools_depends "libfrwk0 (= ${PROJECT_VERSION})")
set(examples_depends "${tools_depends}, frwk-tools (= ${PROJECT_VERSION})")

if(CMAKE_CROSSCOMPILING)
    # dpkg-shlibdeps knows only the packages of this machine. A check compares with what the binaries ask for.
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.34)")
    string(APPEND tools_depends ", libc6 (>= 2.34), libgcc-s1")
    string(APPEND examples_depends ", libc6 (>= 2.34), libgcc-s1")
else()
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
endif()
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ${tools_depends})
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_DEPENDS ${examples_depends})

# What a component's package has under /usr/share/doc, by Debian's rules.
configure_file(packaging/debian/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
execute_process(COMMAND gzip -9nc ${PROJECT_BINARY_DIR}/debian/changelog
                OUTPUT_FILE ${PROJECT_BINARY_DIR}/debian/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
function(install_package_papers component package)
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/copyright ${PROJECT_BINARY_DIR}/debian/changelog.gz
        DESTINATION share/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()
install_package_papers(runtime libfrwk0)
install_package_papers(development libfrwk-dev)
install(FILES README.md docs/mainpage.md docs/integration.md
    DESTINATION share/doc/libfrwk-dev COMPONENT development EXCLUDE_FROM_ALL)

if(FRWK_BUILD_DEVICE)
    list(APPEND CPACK_COMPONENTS_ALL tools)
    install_package_papers(tools frwk-tools)
    install(DIRECTORY packaging/systemd packaging/busybox
        DESTINATION share/doc/frwk-tools/examples COMPONENT tools EXCLUDE_FROM_ALL)
endif()
if(FRWK_BUILD_EXAMPLES)
    list(APPEND CPACK_COMPONENTS_ALL examples)
    install_package_papers(examples frwk-examples)
    get_property(programs DIRECTORY examples PROPERTY BUILDSYSTEM_TARGETS)
    list(REMOVE_ITEM programs demo)
    # Beside the monitor, which starts what lies beside itself. Nothing that a device should get unasked.
    install(TARGETS ${programs} RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/frwk
        COMPONENT examples EXCLUDE_FROM_ALL)
    install(PROGRAMS examples/peer.py DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/frwk
        COMPONENT examples EXCLUDE_FROM_ALL)
    file(GLOB example_sources CONFIGURE_DEPENDS examples/*.c examples/*.cpp examples/*.h examples/CMakeLists.txt
        examples/messages)
    install(FILES ${example_sources}
        DESTINATION share/doc/frwk-examples/examples COMPONENT examples EXCLUDE_FROM_ALL)
endif()

include(CPack)
