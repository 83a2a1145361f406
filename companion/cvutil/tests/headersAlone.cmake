# SPDX-License-Identifier: BSD-3-Clause
# Compiles every public header by itself, as each standard we promise, with one compiler:
#     cmake -DCOMPILER=g++ -DDIRECTORY=<where the headers are> -P headersAlone.cmake
file(GLOB headers RELATIVE ${DIRECTORY} ${DIRECTORY}/*.h)
if(NOT headers)
    message(FATAL_ERROR "no headers in ${DIRECTORY}")
endif()
foreach(header IN LISTS headers)
    foreach(standard 11 17 20)
        execute_process(
            COMMAND ${COMPILER} -std=c++${standard} -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Werror -fsyntax-only
                    -I${DIRECTORY}/.. -include cvutil/${header} -x c++ /dev/null
            RESULT_VARIABLE status ERROR_VARIABLE text)
        if(NOT status EQUAL 0)
            message(SEND_ERROR "${header} as C++${standard} with ${COMPILER}:\n${text}")
        endif()
    endforeach()
endforeach()
