# Fails unless LIBRARY exports exactly one symbol, CreateInstance.
# LISTER is nm (FORMAT elf: the dynamic symbols defined in the library) or
# objdump (FORMAT pe: the DLL's export name table).
if(FORMAT STREQUAL "elf")
  execute_process(COMMAND ${LISTER} -D --defined-only ${LIBRARY}
                  OUTPUT_VARIABLE listing RESULT_VARIABLE failed)
  # "<address> <type> <name>" per line
  string(REGEX MATCHALL "[0-9a-fA-F]+ [A-Za-z] [^\n]+" entries "${listing}")
  set(names "")
  foreach(entry IN LISTS entries)
    string(REGEX REPLACE "^[0-9a-fA-F]+ [A-Za-z] " "" name "${entry}")
    list(APPEND names "${name}")
  endforeach()
else()
  execute_process(COMMAND ${LISTER} -p ${LIBRARY} OUTPUT_VARIABLE listing RESULT_VARIABLE failed)
  # The name table: "\t[   0] CreateInstance" per export.
  string(REGEX MATCH "\\[Ordinal/Name Pointer\\] Table[^\n]*\n(([ \t]*\\[[ 0-9]+\\][^\n]*\n)*)" table "${listing}")
  string(REGEX MATCHALL "\\[[ 0-9]+\\] [^\n]+" entries "${CMAKE_MATCH_1}")
  set(names "")
  foreach(entry IN LISTS entries)
    string(REGEX REPLACE "^\\[[ 0-9]+\\] " "" name "${entry}")
    list(APPEND names "${name}")
  endforeach()
endif()
if(failed)
  message(FATAL_ERROR "${LISTER} failed on ${LIBRARY}")
endif()
if(NOT names STREQUAL "CreateInstance")
  message(FATAL_ERROR "exported: '${names}', expected only CreateInstance")
endif()
message(STATUS "exports of ${LIBRARY}: ${names}")
