# What is installed, and where. Three components:
#
#   runtime      the shared library
#   development  headers, static library, what CMake and pkg-config ask for, and for
#                Windows what other linkers need
#   tools        the command with its extractor, manual, completions and schema
#
# An installed tree may be moved as a whole: the files for CMake and pkg-config find the
# rest from where they lie themselves, and so does the command its extractor. Tested by
# tests/consumer and tests/packages.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TESSERA_PACKAGE_FILES ${CMAKE_BINARY_DIR}/package)  # generated, to be installed
file(GLOB TESSERA_HEADERS ${PROJECT_SOURCE_DIR}/include/tessera*.h)
set_target_properties(tessera_static PROPERTIES EXPORT_NAME static)
write_basic_package_version_file(${TESSERA_PACKAGE_FILES}/tesseraConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)

# tessera_install_library(LIBDIR PREFIX RUNTIME DEVELOPMENT [EXCLUDE_FROM_ALL]): the
# library as two components. LIBDIR is relative to the prefix. PREFIX is what pkg-config is
# told; where it is empty, the way there from its file.
function(tessera_install_library LIBDIR PREFIX RUNTIME DEVELOPMENT)
  set(EXCLUDED ${ARGN})
  set(FOR_DEVELOPMENT COMPONENT ${DEVELOPMENT} ${EXCLUDED})
  set(CMAKE_DIR ${LIBDIR}/cmake/tessera)
  set(FILES ${TESSERA_PACKAGE_FILES}/${DEVELOPMENT})
  if(NOT PREFIX)
    file(RELATIVE_PATH UP /${LIBDIR}/pkgconfig /)
    string(REGEX REPLACE "/$" "" PREFIX "\${pcfiledir}/${UP}")
  endif()

  # Two sets, because only programs of this compiler's family can use the static library.
  install(TARGETS tessera EXPORT ${DEVELOPMENT}_shared
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${RUNTIME} ${EXCLUDED}
    LIBRARY DESTINATION ${LIBDIR} COMPONENT ${RUNTIME} ${EXCLUDED}
            NAMELINK_COMPONENT ${DEVELOPMENT}
    ARCHIVE DESTINATION ${LIBDIR} ${FOR_DEVELOPMENT}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(TARGETS tessera_static EXPORT ${DEVELOPMENT}_static
    ARCHIVE DESTINATION ${LIBDIR} ${FOR_DEVELOPMENT}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  foreach(KIND shared static)
    install(EXPORT ${DEVELOPMENT}_${KIND} FILE tessera-${KIND}.cmake NAMESPACE tessera::
            DESTINATION ${CMAKE_DIR} ${FOR_DEVELOPMENT})
  endforeach()

  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tesseraConfig.cmake.in
    ${FILES}/tesseraConfig.cmake INSTALL_DESTINATION ${CMAKE_DIR} PATH_VARS LIBDIR
    NO_SET_AND_CHECK_MACRO)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/tessera.pc.in ${FILES}/tessera.pc @ONLY)
  install(FILES ${FILES}/tesseraConfig.cmake ${TESSERA_PACKAGE_FILES}/tesseraConfigVersion.cmake
          DESTINATION ${CMAKE_DIR} ${FOR_DEVELOPMENT})
  install(FILES ${FILES}/tessera.pc DESTINATION ${LIBDIR}/pkgconfig ${FOR_DEVELOPMENT})
  install(FILES ${TESSERA_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} ${FOR_DEVELOPMENT})
  if(WIN32)
    install(FILES ${CMAKE_BINARY_DIR}/tessera.def ${CMAKE_BINARY_DIR}/tessera.lib
            DESTINATION ${LIBDIR} ${FOR_DEVELOPMENT})
  endif()
endfunction()

tessera_install_library(${CMAKE_INSTALL_LIBDIR} "" runtime development)

if(TARGET tessera_command)
  # The directory of the extractor is the one that the command looks in.
  install(TARGETS tessera_command DESTINATION bin COMPONENT tools)
  install(TARGETS tessera_extract DESTINATION libexec/tessera COMPONENT tools)
  install(DIRECTORY ${CMAKE_BINARY_DIR}/share/ DESTINATION ${CMAKE_INSTALL_DATADIR}
          COMPONENT tools)
endif()
