# SPDX-License-Identifier: BSD-3-Clause
# The shared library shows names that begin with Nw (and the tables of such classes), and nothing else:
#     cmake -DNM=nm -DLIBRARY=libcvutil.so -P exports.cmake
execute_process(COMMAND ${NM} -D -C --defined-only ${LIBRARY} OUTPUT_VARIABLE text RESULT_VARIABLE status)
if(NOT status EQUAL 0 OR NOT text MATCHES "NwWarnPerror")
    message(FATAL_ERROR "cannot read the names of ${LIBRARY}:\n${text}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${text}")
foreach(line IN LISTS lines)
    if(NOT line MATCHES "^[0-9a-f]+ [A-Za-z] (vtable for |VTT for |typeinfo for |typeinfo name for |virtual thunk to )?Nw")
        message(SEND_ERROR "not ours to show: ${line}")
    endif()
endforeach()
