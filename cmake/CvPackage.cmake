# SPDX-License-Identifier: BSD-3-Clause
# Packages: `cpack` in a build tree writes a .tar.gz and, where dpkg is, a .deb.
set(CPACK_PACKAGE_NAME cvnetworkcompatibility)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The cvNetworkCompatibility developers <maintainers@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_CURRENT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR TGZ)
find_program(DPKG_EXECUTABLE dpkg)
mark_as_advanced(DPKG_EXECUTABLE)
if(DPKG_EXECUTABLE)
    list(APPEND CPACK_GENERATOR DEB)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
        ${CMAKE_BINARY_DIR}/companion/cvutil ${CMAKE_BINARY_DIR}/libsrc/cvNetworkCompatibility)
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
endif()
include(CPack)
