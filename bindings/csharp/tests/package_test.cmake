# The zip as its user takes it: unpacked, a program compiled against it and run with the
# library that is in it. Packed twice, it has the same bytes.
function(run)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${DIRECTORY} OUTPUT_VARIABLE PRINTED
                  COMMAND_ERROR_IS_FATAL ANY)
  set(PRINTED "${PRINTED}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${DIRECTORY})
file(MAKE_DIRECTORY ${DIRECTORY})
foreach(ATTEMPT first second)
  run(${CMAKE_COMMAND} -DSOURCE=${SOURCE} -DBUILT=${BUILT} -DZIP=${DIRECTORY}/${ATTEMPT}.zip
      -DWINDOWS_LIBRARY=${WINDOWS_LIBRARY} -P ${SOURCE}/pack.cmake)
  file(SHA256 ${DIRECTORY}/${ATTEMPT}.zip ${ATTEMPT})
  run(${CMAKE_COMMAND} -E sleep 2)  # the unit of time in a zip
endforeach()
if(NOT first STREQUAL second)
  message(FATAL_ERROR "the second package differs from the first")
endif()

run(${CMAKE_COMMAND} -E tar xf first.zip)
file(GLOB FILES ${DIRECTORY}/lib/* ${DIRECTORY}/native/linux-x64/*)
file(COPY ${FILES} DESTINATION ${DIRECTORY}/program)
run(${MCS} ${TOUR} -r:program/Tessera.Net.dll -out:program/Tour.exe)
run(${MONO} program/Tour.exe)
if(NOT PRINTED STREQUAL "document 4711: Strong\n")
  message(FATAL_ERROR "the tour printed \"${PRINTED}\"")
endif()
file(REMOVE_RECURSE ${DIRECTORY})
