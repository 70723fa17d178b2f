# Run by CPack between installing and packing: does to the tree of each package what Debian
# wants beyond its layout.

set(DATA ${CPACK_TESSERA_SOURCES}/cmake/debian)
set(ENV{SOURCE_DATE_EPOCH} ${CPACK_TESSERA_DATE})  # for CPack, which packs next

function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

function(add_documents TREE NAME)
  set(DOCUMENTS ${TREE}/share/doc/${NAME})
  configure_file(${DATA}/copyright ${DOCUMENTS}/copyright COPYONLY)
  configure_file(${CPACK_TESSERA_SOURCES}/CHANGELOG.md ${DOCUMENTS}/NEWS.md COPYONLY)
  configure_file(${CPACK_TESSERA_CHANGELOG} ${DOCUMENTS}/changelog COPYONLY)
endfunction()

# Debian's zsh has a directory of its own for the completions of packages.
function(move_zsh_completion TREE)
  if(EXISTS ${TREE}/share/zsh/site-functions)
    file(RENAME ${TREE}/share/zsh/site-functions ${TREE}/share/zsh/vendor-completions)
  endif()
endfunction()

function(compress TREE NAME)
  file(GLOB FILES ${TREE}/share/man/man*/* ${TREE}/share/doc/${NAME}/changelog
       ${TREE}/share/doc/${NAME}/NEWS.md)
  run(gzip --best --no-name --force ${FILES})
endfunction()

function(strip TREE)
  set(STRIP ${CPACK_TESSERA_STRIP} --remove-section=.comment --remove-section=.note)
  file(GLOB PROGRAMS ${TREE}/bin/* ${TREE}/libexec/*/* ${TREE}/lib/*/lib*.so.*.*.*)
  foreach(FILE IN LISTS PROGRAMS)
    run(${STRIP} --strip-unneeded ${FILE})
  endforeach()
  file(GLOB ARCHIVES ${TREE}/lib/*/lib*.a)
  foreach(FILE IN LISTS ARCHIVES)
    run(${STRIP} --strip-debug --enable-deterministic-archives ${FILE})
  endforeach()
endfunction()

foreach(COMPONENT IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${COMPONENT} VARIABLE)
  set(NAME ${CPACK_DEBIAN_${VARIABLE}_PACKAGE_NAME})
  set(TREE ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${COMPONENT}/usr)
  add_documents(${TREE} ${NAME})
  move_zsh_completion(${TREE})
  compress(${TREE} ${NAME})
  strip(${TREE})
  run(chmod -R u=rwX,go=rX ${TREE})  # whatever the sources have
endforeach()
