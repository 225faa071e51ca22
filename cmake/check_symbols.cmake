# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT

# Fails unless the library exports exactly the names of the list and needs the C library alone.
#   cmake -D LIBRARY=.. -D NAMES=.. -D NM=.. -D READELF=.. [-D NEEDED=libc.so.6] -P check_symbols.cmake

execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^ \n]+\n" exported "${output}")
list(TRANSFORM exported STRIP)
file(STRINGS ${NAMES} wanted)

set(missing ${wanted})
list(REMOVE_ITEM missing ${exported})
set(surplus ${exported})
list(REMOVE_ITEM surplus ${wanted})
foreach(name IN LISTS missing)
    message(SEND_ERROR "not exported: ${name}")
endforeach()
foreach(name IN LISTS surplus)
    message(SEND_ERROR "exported, but not in ${NAMES}: ${name}")
endforeach()

set(sorted ${wanted})
list(SORT sorted)
if(NOT sorted STREQUAL wanted)
    message(SEND_ERROR "not sorted: ${NAMES}")
endif()

if(NEEDED)
    execute_process(COMMAND ${READELF} -dW ${LIBRARY} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*" entries "${output}")
    list(TRANSFORM entries REPLACE ".*\\[(.*)\\]" "\\1")
    if(NOT entries STREQUAL NEEDED)
        message(SEND_ERROR "needs ${entries}, but should need ${NEEDED} alone")
    endif()
endif()
