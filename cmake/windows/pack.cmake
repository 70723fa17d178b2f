# Run by CPack on the installed tree: adds to it what only the zip has, the examples, a
# README and checksums, and packs it. CPack's own zip has its files in the order of the
# directory, and their owners; this one is the same wherever it is made.

set(TREE ${CPACK_TEMPORARY_DIRECTORY})
set(NAME ${CPACK_PACKAGE_FILE_NAME})

# CPack lets it write the time into the DLL.
execute_process(COMMAND ${CPACK_TESSERA_STRIP} --preserve-dates ${TREE}/bin/tessera.dll
                COMMAND_ERROR_IS_FATAL ANY)

foreach(FILE README.txt LICENSES.txt)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${FILE}.in ${TREE}/${FILE} @ONLY NEWLINE_STYLE WIN32)
endforeach()

# copy_sources(FROM TO pattern...): files of these names, tests and what was built left out.
function(copy_sources FROM TO)
  list(TRANSFORM ARGN PREPEND ${FROM}/)
  file(GLOB_RECURSE FILES RELATIVE ${FROM} ${ARGN})
  list(FILTER FILES EXCLUDE REGEX "(^|/)(bin|obj|tests|build)/")
  foreach(FILE IN LISTS FILES)
    configure_file(${FROM}/${FILE} ${TREE}/${TO}/${FILE} COPYONLY)
  endforeach()
endfunction()
copy_sources(${CPACK_TESSERA_SOURCES}/examples examples *.c *.h *.cs *.csproj)
copy_sources(${CPACK_TESSERA_SOURCES}/bindings/csharp examples/csharp *.cs *.csproj README.md)

file(GLOB_RECURSE FILES RELATIVE ${TREE} ${TREE}/*)
list(SORT FILES)
set(SUMS "")
foreach(FILE IN LISTS FILES)
  file(SHA256 ${TREE}/${FILE} SUM)
  string(APPEND SUMS "${SUM}  ${FILE}\n")
endforeach()
file(WRITE ${TREE}/SHA256SUMS "${SUMS}")

list(APPEND FILES SHA256SUMS)
list(TRANSFORM FILES PREPEND ${NAME}/)
string(REPLACE ";" "\n" LIST "${FILES}\n")
file(WRITE ${TREE}.list "${LIST}")
set(PACKING ${CPACK_TOPLEVEL_DIRECTORY}/packing)  # where the tree has the zip's name
file(REMOVE_RECURSE ${PACKING})
file(MAKE_DIRECTORY ${PACKING})
file(RENAME ${TREE} ${PACKING}/${NAME})
set(ENV{TZ} UTC)
execute_process(COMMAND chmod -R u=rwX,go=rX ${NAME}
                WORKING_DIRECTORY ${PACKING} COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND xargs -d "\\n" touch --date=@${CPACK_TESSERA_DATE} INPUT_FILE ${TREE}.list
                WORKING_DIRECTORY ${PACKING} COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND zip -q -9 -X -D -@ ${NAME}.zip INPUT_FILE ${TREE}.list
                WORKING_DIRECTORY ${PACKING} COMMAND_ERROR_IS_FATAL ANY)
set(CPACK_EXTERNAL_BUILT_PACKAGES ${PACKING}/${NAME}.zip)
