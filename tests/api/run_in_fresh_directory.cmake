# cmake -DPROGRAM=... -DDIRECTORY=... [-DEMULATOR=...] [-DOUTPUT=text] -P this
# Runs a program in a directory made for it, which must end with 0, and must
# print OUTPUT when that is given.
file(REMOVE_RECURSE ${DIRECTORY})
file(MAKE_DIRECTORY ${DIRECTORY})
execute_process(COMMAND ${EMULATOR} ${PROGRAM} WORKING_DIRECTORY ${DIRECTORY}
                RESULT_VARIABLE RESULT OUTPUT_VARIABLE PRINTED ERROR_VARIABLE COMPLAINT)
string(STRIP "${PRINTED}" PRINTED)
if(NOT RESULT STREQUAL 0)
  message(FATAL_ERROR "${PROGRAM} ended with ${RESULT}: ${COMPLAINT}")
endif()
if(OUTPUT AND NOT PRINTED STREQUAL OUTPUT)
  message(FATAL_ERROR "${PROGRAM} printed \"${PRINTED}\", not \"${OUTPUT}\"")
endif()
file(REMOVE_RECURSE ${DIRECTORY})
