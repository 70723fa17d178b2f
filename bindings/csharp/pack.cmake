# cmake -DSOURCE=... -DBUILT=... -DZIP=... -DWINDOWS_LIBRARY=... -P this
# Packs the assembly, the libraries and the sources. The same files give the same bytes.
set(STAGE ${ZIP}.stage)
file(REMOVE_RECURSE ${STAGE})
file(COPY ${BUILT}/Tessera.Net.dll ${BUILT}/Tessera.Net.xml ${BUILT}/Tessera.Net.dll.config
     DESTINATION ${STAGE}/lib)
file(COPY ${BUILT}/libtessera.so.1 DESTINATION ${STAGE}/native/linux-x64)
if(WINDOWS_LIBRARY)
  file(COPY ${WINDOWS_LIBRARY} DESTINATION ${STAGE}/native/win-x64)
endif()
file(COPY ${SOURCE}/src ${SOURCE}/example ${SOURCE}/README.md ${SOURCE}/Tessera.Net.csproj
     ${SOURCE}/Tessera.Net.dll.config DESTINATION ${STAGE})

file(GLOB_RECURSE FILES RELATIVE ${STAGE} ${STAGE}/*)
list(SORT FILES)
file(CHMOD_RECURSE ${STAGE} FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
     DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                           WORLD_READ WORLD_EXECUTE)
# One time for all files, and no other times beside it, which CMake's own zip would write.
set(ENV{TZ} UTC)
file(REMOVE ${ZIP})
foreach(COMMAND "touch;-d;2000-01-01" "zip;-q;-X;${ZIP}")
  execute_process(COMMAND ${COMMAND} ${FILES} WORKING_DIRECTORY ${STAGE}
                  COMMAND_ERROR_IS_FATAL ANY)
endforeach()
file(REMOVE_RECURSE ${STAGE})
