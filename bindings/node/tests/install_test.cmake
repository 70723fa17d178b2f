# The tarball as its user takes it: installed into a fresh directory, where the other tests then
# use it. Nothing is compiled and nothing run for that. Packed again, it has the same bytes.
#
# Takes the variables of pack.cmake, NODE, and the DIRECTORY to install into.
file(SHA256 ${TARBALL} FIRST)
get_filename_component(NAME ${TARBALL} NAME)
file(REMOVE_RECURSE ${DIRECTORY})
file(MAKE_DIRECTORY ${DIRECTORY}/again)
set(MADE ${TARBALL})
set(TARBALL ${DIRECTORY}/again/${NAME})
set(PACKAGE ${DIRECTORY}/again/package)
include(${SOURCE}/pack.cmake)
file(SHA256 ${TARBALL} SECOND)
if(NOT FIRST STREQUAL SECOND)
  message(FATAL_ERROR "packed again, ${NAME} differs")
endif()

file(COPY ${SOURCE}/tests DESTINATION ${DIRECTORY})
file(WRITE ${DIRECTORY}/package.json "{ \"private\": true }\n")
# No compiler is found.
set(ENV{CC} /nonexistent)
set(ENV{CXX} /nonexistent)
execute_process(
  COMMAND ${NPM} install --ignore-scripts --prefer-offline --no-audit --no-fund --silent ${MADE}
  WORKING_DIRECTORY ${DIRECTORY} COMMAND_ERROR_IS_FATAL ANY)
execute_process(
  COMMAND ${NODE} -p "require('tessera/package.json').version + ' ' + require('tessera').signatures('').length"
  WORKING_DIRECTORY ${DIRECTORY} OUTPUT_VARIABLE PRINTED COMMAND_ERROR_IS_FATAL ANY)
if(NOT PRINTED STREQUAL "${VERSION} 0\n")
  message(FATAL_ERROR "the installed package printed \"${PRINTED}\"")
endif()
