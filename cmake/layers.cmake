# One object library per stage. A layer sees the headers of its own directory
# and of the layers it DEPENDS on, and no others: a wrong include fails to
# build.

set(TESSERA_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Werror)
set(TESSERA_C_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Werror)

function(tessera_warnings TARGET)
  target_compile_options(${TARGET} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:${TESSERA_WARNINGS}> $<$<COMPILE_LANGUAGE:C>:${TESSERA_C_WARNINGS}>)
endfunction()

# tessera_layer(NAME source... DEPENDS layer...)
function(tessera_layer NAME)
  cmake_parse_arguments(PARSE_ARGV 1 LAYER "" "" "DEPENDS")
  add_library(${NAME} OBJECT ${LAYER_UNPARSED_ARGUMENTS})
  target_include_directories(${NAME} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${NAME} PUBLIC ${LAYER_DEPENDS} Threads::Threads)
  tessera_warnings(${NAME})
  set_property(GLOBAL APPEND PROPERTY TESSERA_LAYERS ${NAME})
endfunction()
