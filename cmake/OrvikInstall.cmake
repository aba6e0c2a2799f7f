# Install rules of the libraries, their public headers, the package files through
# which other projects find them (CMake config and pkg-config), and the programs.
#
# Public headers go to <prefix>/include/orvik/<module>/. Both <prefix>/include and
# <prefix>/include/orvik are on the interface include path, so that a consumer
# writes #include <orvik/identity/IdentityRepository.h> while the headers keep
# their own #include "store/Database.h". Headers named *Internal.h stay behind, and
# so does host/StoreSeeder.h (orvik_seed, for the demo, tests and benchmarks).

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ORVIK_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/OrvikIdentity)

# orvik_install_library(<target> <export name> <header folder>)
function(orvik_install_library target exportName folder)
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${exportName})
    add_library(Orvik::${exportName} ALIAS ${target})
    target_include_directories(${target} INTERFACE
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/orvik>)
    install(TARGETS ${target} EXPORT OrvikIdentityTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/${folder}/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvik/${folder}
        COMPONENT Development
        FILES_MATCHING PATTERN "*.h"
        PATTERN "*Internal.h" EXCLUDE
        PATTERN "StoreSeeder.h" EXCLUDE)
endfunction()

orvik_install_library(orvik_store Store store)
orvik_install_library(orvik_host Host host)
orvik_install_library(orvik_identity Identity identity)

install(EXPORT OrvikIdentityTargets
    NAMESPACE Orvik::
    DESTINATION ${ORVIK_INSTALL_CMAKEDIR}
    COMPONENT Development)

if(ORVIK_USE_SQLCIPHER)
    set(ORVIK_SQLITE_MODULE sqlcipher)
    set(ORVIK_PC_CFLAGS "-DORVIK_HAS_SQLCIPHER")
else()
    set(ORVIK_SQLITE_MODULE sqlite3)
    set(ORVIK_PC_CFLAGS "")
endif()

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/OrvikIdentityConfig.cmake.in
    ${PROJECT_BINARY_DIR}/OrvikIdentityConfig.cmake
    INSTALL_DESTINATION ${ORVIK_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/OrvikIdentityConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/OrvikIdentityConfig.cmake
    ${PROJECT_BINARY_DIR}/OrvikIdentityConfigVersion.cmake
    DESTINATION ${ORVIK_INSTALL_CMAKEDIR}
    COMPONENT Development)

# The .pc file finds its prefix relative to where it is installed, so that an
# installed tree can be moved (and installed with --prefix at install time).
set(ORVIK_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH ORVIK_PC_TO_PREFIX /${ORVIK_PC_DIR} /)
string(REGEX REPLACE "/$" "" ORVIK_PC_TO_PREFIX "${ORVIK_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/orvik-identity.pc.in
    ${PROJECT_BINARY_DIR}/orvik-identity.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orvik-identity.pc
    DESTINATION ${ORVIK_PC_DIR}
    COMPONENT Development)
