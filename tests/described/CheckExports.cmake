# Fails when a library exports anything but the symbols listed in a file.
execute_process(COMMAND "${NM}" -D --defined-only "${LIBRARY}"
  OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^ \n]+\n" names "${listing}\n")
list(TRANSFORM names STRIP)
list(REMOVE_ITEM names "")
list(SORT names)
file(STRINGS "${EXPECTED}" expected)
list(SORT expected)
if(NOT names STREQUAL expected)
  message(FATAL_ERROR "exported: ${names}\nexpected: ${expected}")
endif()
