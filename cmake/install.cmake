# Installation: the tools Sorvexa, sorvexa-flowcheck and sorvexa-sff2bam with their man pages, the
# library with its headers, a CMake package (Sorvexa::core, and Sorvexa::hts for the htslib side)
# and pkg-config files (sorvexa, sorvexa-hts). The Debian packages are built from this by debian/
# (dpkg-buildpackage); see the README.
#
# The headers are written as they are installed: include/sorvexa/ is copied as a folder, and
# every header includes the others as <sorvexa/x.h>, so consumers need only <prefix>/include on
# their include path. include/sorvexa/detail/ holds what the public headers need but is not
# part of the interface; each of its headers says so in its first line.
include(CMakePackageConfigHelpers)

set(SORVEXA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Sorvexa)
set(SORVEXA_HEADER_ROOT ${PROJECT_SOURCE_DIR}/include)
file(GLOB_RECURSE SORVEXA_INSTALLED_HEADERS CONFIGURE_DEPENDS ${SORVEXA_HEADER_ROOT}/sorvexa/*.h)

install(TARGETS Sorvexa RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/man/Sorvexa.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
# This file is read before the subdirectory that defines sorvexa-flowcheck, so its rule is
# added once the whole tree has been read. Same component as Sorvexa: the Debian package
# sorvexa ships both.
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL
               install TARGETS sorvexa-flowcheck RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/man/sorvexa-flowcheck.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
# sorvexa-sff2bam likewise (it links htslib, so the package sorvexa depends on its runtime).
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL
               install TARGETS sorvexa-sff2bam RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/man/sorvexa-sff2bam.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# Sorvexa::hts links htslib as the build found it (the imported target PkgConfig::HTSLIB), which
# SorvexaConfig.cmake finds again for consumers through pkg-config.
install(TARGETS sorvexa_core sorvexa_hts EXPORT SorvexaTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${SORVEXA_HEADER_ROOT}/sorvexa DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT SorvexaTargets NAMESPACE Sorvexa:: DESTINATION ${SORVEXA_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/SorvexaConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/SorvexaConfig.cmake
                              INSTALL_DESTINATION ${SORVEXA_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/SorvexaConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/SorvexaConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/SorvexaConfigVersion.cmake
        DESTINATION ${SORVEXA_CMAKE_DIR})

# The .pc file finds its prefix from where it lies, so one file serves every install prefix
# (and CMAKE_INSTALL_LIBDIR may be a multiarch directory such as lib/x86_64-linux-gnu).
file(RELATIVE_PATH SORVEXA_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" SORVEXA_PC_TO_PREFIX "${SORVEXA_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/sorvexa.pc.in ${CMAKE_CURRENT_BINARY_DIR}/sorvexa.pc @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/sorvexa-hts.pc.in ${CMAKE_CURRENT_BINARY_DIR}/sorvexa-hts.pc
               @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sorvexa.pc ${CMAKE_CURRENT_BINARY_DIR}/sorvexa-hts.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

