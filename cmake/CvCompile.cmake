# SPDX-License-Identifier: BSD-3-Clause
# Compiler settings that every target of this tree shares.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Build paths stay out of binaries, so that two clones give the same files.
add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)

# Installed libraries and tools find each other wherever the tree lies. A program names only the libraries it calls
# itself: the companion is found by the library, not by the program.
file(RELATIVE_PATH cvBinToLib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set(CMAKE_INSTALL_RPATH "$ORIGIN" "$ORIGIN/${cvBinToLib}")

# For our own targets only: third-party headers are not ours to warn about.
function(cv_own_target target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor)
    if(CVNC_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()
