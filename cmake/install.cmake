# Installation: the tool, the library with its headers, a CMake package (Sorvexa::core),
# a pkg-config file, the man page, and a Debian package through CPack.
include(CMakePackageConfigHelpers)

set(SORVEXA_PUBLIC_HEADERS
    src/ace.h src/binary_file.h src/contig.h src/process_exit.h src/sff.h src/text_file.h)
set(SORVEXA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Sorvexa)

install(TARGETS Sorvexa RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS sorvexa_core EXPORT SorvexaTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${SORVEXA_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sorvexa)
install(EXPORT SorvexaTargets NAMESPACE Sorvexa:: DESTINATION ${SORVEXA_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/SorvexaConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/SorvexaConfig.cmake
                              INSTALL_DESTINATION ${SORVEXA_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/SorvexaConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/SorvexaConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/SorvexaConfigVersion.cmake
        DESTINATION ${SORVEXA_CMAKE_DIR})

# The .pc file finds its prefix from where it lies, so one file serves every install prefix.
file(RELATIVE_PATH SORVEXA_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" SORVEXA_PC_TO_PREFIX "${SORVEXA_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/sorvexa.pc.in ${CMAKE_CURRENT_BINARY_DIR}/sorvexa.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sorvexa.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES ${PROJECT_SOURCE_DIR}/man/Sorvexa.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

set(CPACK_PACKAGE_NAME sorvexa)
set(CPACK_PACKAGE_VENDOR "Sorvexa developers")
set(CPACK_PACKAGE_CONTACT "Sorvexa developers <sorvexa@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
    "Sorvexa reads one ACE assembly and one or more 454 SFF flowgram files and writes, contig by\n"
    "contig, the quality scores (and optionally the flow indexes and flowgrams) of every read\n"
    "the assembly places, with a location index for viewers. It also ships a C++ library for\n"
    "contig layout, flow-space consensus, flow alignment and text/HTML alignment maps.")
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6, libgcc-s1")
set(CPACK_GENERATOR DEB)
# The sorvexa package holds the tool and the library only; sorvexa-browse (install component
# "browse") is left out of it.
set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};${PROJECT_NAME};Unspecified;/")
include(CPack)
