# The packages, all by CPack: of a native build three of Debian's, of one for Windows a zip.
#
#   libtessera1      the shared library
#   libtessera-dev   what a host is built with
#   tessera-tools    the command
#
# `make packages` makes them of builds of their own; the tests make them of the builds that
# are there (tests/packages). What CPack does not know of Debian's customs is done between
# installing and packing by debian/finish.cmake; the zip is packed by windows/pack.cmake.
# The one time in them is that of the configuration, or the environment's SOURCE_DATE_EPOCH.

set(CPACK_PACKAGE_NAME tessera)
set(CPACK_PACKAGE_VENDOR Tessera)
set(CPACK_PACKAGE_CONTACT "Tessera maintainers <maintainers@tessera.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_TESSERA_SOURCES ${PROJECT_SOURCE_DIR})  # for the two scripts
set(CPACK_TESSERA_STRIP ${CMAKE_STRIP})
string(TIMESTAMP CPACK_TESSERA_DATE %s UTC)

if(WIN32)
  set(CPACK_GENERATOR External)
  set(CPACK_MONOLITHIC_INSTALL ON)
  set(CPACK_EXTERNAL_ENABLE_STAGING ON)
  set(CPACK_EXTERNAL_PACKAGE_SCRIPT ${PROJECT_SOURCE_DIR}/cmake/windows/pack.cmake)
  set(CPACK_PACKAGE_FILE_NAME tessera-${PROJECT_VERSION}-windows-x64)
  include(CPack)
  return()
endif()

if(NOT TARGET tessera_command OR NOT CMAKE_LIBRARY_ARCHITECTURE)
  return()  # not everything is built, or this is no Debian
endif()

# The same library as below any prefix, in the place that Debian has for this architecture.
tessera_install_library(lib/${CMAKE_LIBRARY_ARCHITECTURE} /usr debian_runtime debian_development
                        EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/finish.cmake)
set(CPACK_COMPONENTS_ALL debian_runtime debian_development tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(DEBIAN_DATA ${PROJECT_SOURCE_DIR}/cmake/debian)

# tessera_debian_package(COMPONENT NAME SECTION MULTI_ARCH DESCRIPTION)
macro(tessera_debian_package COMPONENT NAME SECTION MULTI_ARCH DESCRIPTION)
  string(TOUPPER ${COMPONENT} PACKAGE)
  set(CPACK_DEBIAN_${PACKAGE}_PACKAGE_NAME ${NAME})
  set(CPACK_DEBIAN_${PACKAGE}_PACKAGE_SECTION ${SECTION})
  set(CPACK_DEBIAN_${PACKAGE}_DESCRIPTION ${DESCRIPTION})
  # This CPack has no variable for Multi-Arch, so that field follows another one.
  set(CPACK_DEBIAN_${PACKAGE}_PACKAGE_SOURCE "tessera\nMulti-Arch: ${MULTI_ARCH}")
endmacro()

set(ABOUT "Tessera turns documents into short lists of signatures, keeps those of
confidential documents in an index on disk, and tells which of them an
outgoing document shares passages with.")

tessera_debian_package(debian_runtime libtessera1 libs same
"document fingerprints for data-loss prevention
${ABOUT}
.
This package holds the shared library.")
set(CPACK_DEBIAN_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# The trigger calls ldconfig. CPack would add scripts that do, too, had it not been given
# others by these names; there are none.
set(CPACK_DEBIAN_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${DEBIAN_DATA}/symbols ${DEBIAN_DATA}/triggers postinst postrm)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

tessera_debian_package(debian_development libtessera-dev libdevel same
"document fingerprints for data-loss prevention (development files)
${ABOUT}
.
This package holds the headers, the static library, and what CMake and
pkg-config need to find them.")
set(CPACK_DEBIAN_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libtessera1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "g++")  # the static one needs its runtime

# Without what is recommended the command works and says of each document that it could not
# open why; extractors are confined all the same, if less.
tessera_debian_package(tools tessera-tools utils foreign
"finds passages of confidential documents in others
${ABOUT}
.
This package holds the command tessera, which reads mail, office
documents, PDF, HTML and archives in confined processes.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "bubblewrap, catdoc, poppler-utils")

string(TIMESTAMP DEBIAN_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(CPACK_TESSERA_CHANGELOG ${TESSERA_PACKAGE_FILES}/changelog.Debian)
configure_file(${DEBIAN_DATA}/changelog.in ${CPACK_TESSERA_CHANGELOG} @ONLY)

include(CPack)
