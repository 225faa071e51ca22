# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT

# The library: libfrwk.so.0.

set(sources
    frwk_common_module.cpp
    frwk_common_trace.cpp
    frwk_common_list.cpp
    frwk_common_thread.cpp
    frwk_common_time.cpp
    frwk_common_string.cpp
    frwk_common_timer.cpp
    frwk_common_submodule.cpp
    frwk_hash.cpp
    frwk_xml_model.cpp
    frwk_xml_steps.cpp
    frwk_xml_write.cpp
    frwk_xml_file.cpp
    frwk_xml.cpp
    frwk_common_ipc_transport.cpp
    frwk_common_ipc_service.cpp
    frwk_common_ipc_request.cpp
    frwk_common_system.cpp
    frwk_common_conf.cpp
    frwk_common_start_conf.cpp
    frwk_common_log_conf.cpp
    frwk_common_startup.cpp
    frwk_arm_unwind.cpp)
set(frwk_headers
    frwk.h
    frwk_defs.h
    frwk_hash.h
    frwk_ipc.h
    frwk_list.h
    frwk_module.h
    frwk_start_conf.h
    frwk_string.h
    frwk_submodule.h
    frwk_thread.h
    frwk_time.h
    frwk_timer.h
    frwk_trace.h
    frwk_xml.h)
list(TRANSFORM sources PREPEND ${PROJECT_SOURCE_DIR}/src/)
list(TRANSFORM frwk_headers PREPEND ${PROJECT_SOURCE_DIR}/include/)

# The linker script with the exported names. It is anonymous: with a named version, modules built against this library
# would refuse an unversioned one of the same soname.
set(names_file ${PROJECT_SOURCE_DIR}/src/frwk.symbols)
set(linker_script ${CMAKE_CURRENT_BINARY_DIR}/frwk.map)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${names_file})
file(STRINGS ${names_file} names)
list(JOIN names ";\n    " names)
file(CONFIGURE OUTPUT ${linker_script} CONTENT "{\nglobal:\n    @names@;\nlocal:\n    *;\n};\n" @ONLY)

add_library(frwk SHARED ${sources})
add_library(frwk::frwk ALIAS frwk)
target_sources(frwk PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR}/include FILES ${frwk_headers})
set_target_properties(frwk PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION 0
    CXX_STANDARD 17
    CXX_STANDARD_REQUIRED ON
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    LINKER_LANGUAGE C
    LINK_DEPENDS ${linker_script})

target_compile_options(frwk PRIVATE
    -fno-exceptions
    -fno-rtti
    -fno-threadsafe-statics # the guards would need the C++ library
    -funwind-tables # a cancelled thread unwinds through the library into its module
    -ftls-model=initial-exec # no call of __tls_get_addr, which would make the dynamic linker a dependency
    -ffunction-sections
    -fdata-sections
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
    -ffile-prefix-map=${PROJECT_BINARY_DIR}/=)

# Calls inside the library are bound at once. Not so -Bsymbolic itself: executables hold copies of the exported tables,
# and both sides must use the same one.
target_link_options(frwk PRIVATE
    LINKER:-Bsymbolic-functions
    LINKER:--version-script=${linker_script}
    LINKER:--gc-sections
    LINKER:--as-needed
    LINKER:-z,relro,-z,now
    LINKER:--hash-style=gnu
    LINKER:--build-id=sha1
    -static-libgcc)
if(NOT FRWK_SANITIZE)
    target_link_options(frwk PRIVATE LINKER:-z,defs)
endif()

find_package(Threads REQUIRED)
target_link_libraries(frwk PRIVATE Threads::Threads $<BUILD_INTERFACE:frwk_warnings>)
