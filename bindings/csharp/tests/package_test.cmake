# The zip as its user takes it: unpacked, a program compiled against it and run with the
# library that is in it. Packed again, it has the same bytes.
#
# Takes the variables of pack.cmake, MCS and MONO, the TOUR and a DIRECTORY to work in.
function(run)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${DIRECTORY} OUTPUT_VARIABLE PRINTED
                  COMMAND_ERROR_IS_FATAL ANY)
  set(PRINTED "${PRINTED}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${DIRECTORY})
file(MAKE_DIRECTORY ${DIRECTORY})
file(SHA256 ${ZIP} FIRST)
run(${CMAKE_COMMAND} -DSOURCE=${SOURCE} -DBUILT=${BUILT} -DWINDOWS_LIBRARY=${WINDOWS_LIBRARY}
    -DZIP=${DIRECTORY}/again.zip -P ${SOURCE}/pack.cmake)
file(SHA256 ${DIRECTORY}/again.zip SECOND)
if(NOT FIRST STREQUAL SECOND)
  message(FATAL_ERROR "packed again, the zip differs")
endif()

run(${CMAKE_COMMAND} -E tar xf ${ZIP})
file(GLOB FILES ${DIRECTORY}/lib/* ${DIRECTORY}/native/linux-x64/*)
file(COPY ${FILES} DESTINATION ${DIRECTORY}/program)
run(${MCS} ${TOUR} -r:program/Tessera.Net.dll -out:program/Tour.exe)
run(${MONO} program/Tour.exe)
if(NOT PRINTED STREQUAL "document 4711: Strong\n")
  message(FATAL_ERROR "the tour printed \"${PRINTED}\"")
endif()
file(REMOVE_RECURSE ${DIRECTORY})
