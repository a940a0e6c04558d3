# Installation: the tools Sorvexa and sorvexa-flowcheck with their man pages, the library with its headers, a CMake package
# (Sorvexa::core) and a pkg-config file. The Debian packages are built from this by debian/
# (dpkg-buildpackage); see the README.
#
# Installed headers lie under <prefix>/include/sorvexa/, and consumers put <prefix>/include on
# the include path and write #include <sorvexa/contig.h>. The public headers are the ones
# below; the headers they include, directly or through each other, go to sorvexa/detail/ with
# a note that they are internal. Their list is found by following the #include "..." lines,
# so a new internal header is installed without a change here. The installed copies are
# written at configure time into the build tree's include/sorvexa/, their #include "x.h" lines
# turned into #include <sorvexa/x.h> or <sorvexa/detail/x.h>, so that they need nothing but
# the include root (the header check in tests/ compiles each one alone that way).
include(CMakePackageConfigHelpers)

set(SORVEXA_PUBLIC_HEADERS ace.h contig.h sff.h flowcheck.h process_exit.h)
set(SORVEXA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Sorvexa)
set(SORVEXA_HEADER_SOURCE ${PROJECT_SOURCE_DIR}/src)
set(SORVEXA_HEADER_STAGE ${PROJECT_BINARY_DIR}/include)

# The quoted includes of src/<header>, in the order they appear.
function(sorvexa_quoted_includes header out)
  file(STRINGS ${SORVEXA_HEADER_SOURCE}/${header} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  set(names)
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]+)\".*" "\\1" name "${line}")
    list(APPEND names ${name})
  endforeach()
  set(${out} ${names} PARENT_SCOPE)
endfunction()

# Internal headers: everything the public headers reach through quoted includes.
set(SORVEXA_INTERNAL_HEADERS)
set(todo ${SORVEXA_PUBLIC_HEADERS})
while(todo)
  list(POP_FRONT todo header)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${SORVEXA_HEADER_SOURCE}/${header})
  sorvexa_quoted_includes(${header} included)
  foreach(name IN LISTS included)
    if(NOT name IN_LIST SORVEXA_PUBLIC_HEADERS AND NOT name IN_LIST SORVEXA_INTERNAL_HEADERS)
      if(NOT EXISTS ${SORVEXA_HEADER_SOURCE}/${name})
        message(FATAL_ERROR "${header} includes \"${name}\", which is not in src/")
      endif()
      list(APPEND SORVEXA_INTERNAL_HEADERS ${name})
      list(APPEND todo ${name})
    endif()
  endforeach()
endwhile()

string(CONCAT SORVEXA_INTERNAL_NOTE
       "// Internal header of the Sorvexa library, installed only because a public header\n"
       "// (<sorvexa/ace.h>, <sorvexa/contig.h>, <sorvexa/sff.h>, <sorvexa/flowcheck.h>,\n"
       "// <sorvexa/process_exit.h>) includes it. It is not part of the library's interface\n"
       "// and may change in any release: include the public headers instead.\n"
       "//\n")

set(SORVEXA_INSTALLED_HEADERS)
foreach(header IN LISTS SORVEXA_PUBLIC_HEADERS SORVEXA_INTERNAL_HEADERS)
  file(READ ${SORVEXA_HEADER_SOURCE}/${header} text)
  sorvexa_quoted_includes(${header} included)
  foreach(name IN LISTS included)
    if(name IN_LIST SORVEXA_PUBLIC_HEADERS)
      set(target "sorvexa/${name}")
    else()
      set(target "sorvexa/detail/${name}")
    endif()
    string(REGEX REPLACE "([][+.*()^$?|\\\\])" "\\\\\\1" pattern "${name}")
    string(REGEX REPLACE "#([ \t]*)include([ \t]*)\"${pattern}\"" "#\\1include\\2<${target}>"
           text "${text}")
  endforeach()
  if(header IN_LIST SORVEXA_PUBLIC_HEADERS)
    set(staged ${SORVEXA_HEADER_STAGE}/sorvexa/${header})
  else()
    set(staged ${SORVEXA_HEADER_STAGE}/sorvexa/detail/${header})
    string(PREPEND text "${SORVEXA_INTERNAL_NOTE}")
  endif()
  # Rewritten only when the text changed, so that a reconfigure leaves their times alone.
  set(old "")
  if(EXISTS ${staged})
    file(READ ${staged} old)
  endif()
  if(NOT old STREQUAL text)
    file(WRITE ${staged} "${text}")
  endif()
  list(APPEND SORVEXA_INSTALLED_HEADERS ${staged})
endforeach()
list(TRANSFORM SORVEXA_PUBLIC_HEADERS PREPEND ${SORVEXA_HEADER_STAGE}/sorvexa/
     OUTPUT_VARIABLE staged_public)
list(TRANSFORM SORVEXA_INTERNAL_HEADERS PREPEND ${SORVEXA_HEADER_STAGE}/sorvexa/detail/
     OUTPUT_VARIABLE staged_internal)

install(TARGETS Sorvexa RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/man/Sorvexa.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
# This file is read before the subdirectory that defines sorvexa-flowcheck, so its rule is
# added once the whole tree has been read. Same component as Sorvexa: the Debian package
# sorvexa ships both.
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL
               install TARGETS sorvexa-flowcheck RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/man/sorvexa-flowcheck.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

install(TARGETS sorvexa_core EXPORT SorvexaTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${staged_public} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sorvexa)
install(FILES ${staged_internal} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sorvexa/detail)
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
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sorvexa.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

