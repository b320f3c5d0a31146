# The README shows examples/minimal.c; this check keeps the two identical.
# The README holds the file between the lines "<!-- minimal.c -->" and the
# closing fence of the ```c block that follows.
file(READ ${README} readme)
file(READ ${EXAMPLE} example)
set(marker "<!-- minimal.c -->\n```c\n")
string(FIND "${readme}" "${marker}" start)
if(start EQUAL -1)
  message(FATAL_ERROR "README.md has no \"<!-- minimal.c -->\" block")
endif()
string(LENGTH "${marker}" marker_length)
math(EXPR start "${start} + ${marker_length}")
string(SUBSTRING "${readme}" ${start} -1 rest)
string(FIND "${rest}" "\n```\n" end)
math(EXPR end "${end} + 1")
string(SUBSTRING "${rest}" 0 ${end} shown)
if(NOT shown STREQUAL example)
  message(FATAL_ERROR "README.md's C example differs from examples/minimal.c")
endif()
