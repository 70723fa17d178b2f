# cmake -DSOURCE=... -DPACKAGE=... -DVERSION=... -DLIBRARY=... -DWINDOWS_LIBRARY=...
#       -DNPM=... -DTARBALL=... -P this
# Puts the package together in PACKAGE, with the libraries and the version that it is made of,
# and packs it. The same files give the same bytes.
foreach(PART index.js index.d.ts lib example tests prebuilt README.md)
  file(REMOVE_RECURSE ${PACKAGE}/${PART})
endforeach()
file(COPY ${SOURCE}/index.js ${SOURCE}/index.d.ts ${SOURCE}/lib ${SOURCE}/example ${SOURCE}/tests
     ${SOURCE}/README.md DESTINATION ${PACKAGE})
file(READ ${SOURCE}/package.json DESCRIPTION)
string(JSON DESCRIPTION SET "${DESCRIPTION}" version "\"${VERSION}\"")
file(WRITE ${PACKAGE}/package.json "${DESCRIPTION}\n")

file(MAKE_DIRECTORY ${PACKAGE}/prebuilt/linux-x64)
file(COPY_FILE ${LIBRARY} ${PACKAGE}/prebuilt/linux-x64/libtessera.so.1)
if(WINDOWS_LIBRARY)
  file(COPY ${WINDOWS_LIBRARY} DESTINATION ${PACKAGE}/prebuilt/win32-x64)
endif()
# What the tarball keeps of permissions is no matter of the machine's umask.
file(CHMOD_RECURSE ${PACKAGE}/lib ${PACKAGE}/example ${PACKAGE}/prebuilt ${PACKAGE}/index.js
     ${PACKAGE}/index.d.ts ${PACKAGE}/package.json ${PACKAGE}/README.md
     FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
     DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                           WORLD_READ WORLD_EXECUTE)

get_filename_component(DESTINATION ${TARBALL} DIRECTORY)
file(MAKE_DIRECTORY ${DESTINATION})
execute_process(
  COMMAND ${NPM} pack --ignore-scripts --silent --pack-destination ${DESTINATION}
  WORKING_DIRECTORY ${PACKAGE} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
