# Runs the ostrel binary once and checks what it did. Used by the CLI test
# cases of tests/CMakeLists.txt (cmake -P); every check that fails is
# reported, then the script fails.
#
#   OSTREL            the binary
#   ARGS              its arguments, separated by |
#   WORKDIR           working directory (default: the current one)
#   CLEAN             paths (|-separated) removed before the run
#   EXIT              expected exit code
#   STDOUT, STDOUT2   regular expressions standard output must match
#   STDERR            regular expression standard error must match
#   STDOUT_EMPTY      standard output must be empty
#   STDERR_EMPTY      standard error must be empty
#   STDERR_ONE_LINE   standard error must be exactly one line
#   JSON_LINES        every line of standard output is a JSON object with
#                     "file" and "boxes" (a list)
#   JSON_LINE_EXACT   standard output must be exactly this one line
#   FILES             paths (|-separated) that must exist afterwards
#   NO_FILES          paths (|-separated) that must not exist afterwards
#   NO_TEMP_IN        a folder that must hold no temporary output (".*.tmp-*")
#   FILE_SIZE         PATH=BYTES: the size a file must have
cmake_minimum_required(VERSION 3.19)

set(failures "")
macro(fail message)
  string(APPEND failures "  ${message}\n")
endmacro()

if(NOT DEFINED WORKDIR OR WORKDIR STREQUAL "")
  set(WORKDIR ${CMAKE_CURRENT_BINARY_DIR})
endif()
string(REPLACE "|" ";" args "${ARGS}")
if(DEFINED CLEAN)
  string(REPLACE "|" ";" clean "${CLEAN}")
  foreach(p IN LISTS clean)
    file(REMOVE_RECURSE "${p}")
  endforeach()
endif()

execute_process(COMMAND ${OSTREL} ${args}
                WORKING_DIRECTORY ${WORKDIR}
                RESULT_VARIABLE exit_code
                OUTPUT_VARIABLE out
                ERROR_VARIABLE err
                TIMEOUT 120)

if(DEFINED EXIT AND NOT "${exit_code}" STREQUAL "${EXIT}")
  fail("exit code ${exit_code}, expected ${EXIT}")
endif()
if(DEFINED STDOUT AND NOT out MATCHES "${STDOUT}")
  fail("standard output does not match: ${STDOUT}")
endif()
if(DEFINED STDOUT2 AND NOT out MATCHES "${STDOUT2}")
  fail("standard output does not match: ${STDOUT2}")
endif()
if(DEFINED STDERR AND NOT err MATCHES "${STDERR}")
  fail("standard error does not match: ${STDERR}")
endif()
if(STDOUT_EMPTY AND NOT out STREQUAL "")
  fail("standard output is not empty")
endif()
if(STDERR_EMPTY AND NOT err STREQUAL "")
  fail("standard error is not empty")
endif()
if(STDERR_ONE_LINE)
  string(REGEX MATCHALL "\n" newlines "${err}")
  list(LENGTH newlines n)
  if(NOT n EQUAL 1 OR NOT err MATCHES "\n$")
    fail("standard error is not exactly one line (${n} line ends)")
  endif()
endif()
if(DEFINED JSON_LINE_EXACT AND NOT out STREQUAL "${JSON_LINE_EXACT}\n")
  fail("standard output is not exactly: ${JSON_LINE_EXACT}")
endif()
if(JSON_LINES)
  string(REGEX REPLACE "\n$" "" body "${out}")
  if(body STREQUAL "")
    fail("no JSON line on standard output")
  endif()
  # One line per list element; a line holds no ';' in our JSON output.
  string(REPLACE "\n" ";" lines "${body}")
  foreach(line IN LISTS lines)
    string(JSON file_value ERROR_VARIABLE json_error GET "${line}" file)
    if(json_error)
      fail("not a JSON line with \"file\": ${line}")
      continue()
    endif()
    string(JSON boxes_type ERROR_VARIABLE json_error TYPE "${line}" boxes)
    if(json_error OR NOT boxes_type STREQUAL "ARRAY")
      fail("JSON line without a \"boxes\" list: ${line}")
    endif()
  endforeach()
endif()
if(DEFINED FILES)
  string(REPLACE "|" ";" files "${FILES}")
  foreach(p IN LISTS files)
    if(NOT EXISTS "${p}")
      fail("missing output: ${p}")
    endif()
  endforeach()
endif()
if(DEFINED NO_FILES)
  string(REPLACE "|" ";" files "${NO_FILES}")
  foreach(p IN LISTS files)
    if(EXISTS "${p}")
      fail("should not exist: ${p}")
    endif()
  endforeach()
endif()
if(DEFINED NO_TEMP_IN AND IS_DIRECTORY "${NO_TEMP_IN}")
  file(GLOB temporaries "${NO_TEMP_IN}/.*.tmp-*")
  if(temporaries)
    fail("temporary files left: ${temporaries}")
  endif()
endif()
if(DEFINED FILE_SIZE)
  string(REPLACE "=" ";" pair "${FILE_SIZE}")
  list(GET pair 0 path)
  list(GET pair 1 bytes)
  if(NOT EXISTS "${path}")
    fail("missing output: ${path}")
  else()
    file(SIZE "${path}" size)
    if(NOT size EQUAL bytes)
      fail("${path} has ${size} bytes, expected ${bytes}")
    endif()
  endif()
endif()

if(NOT failures STREQUAL "")
  string(REPLACE "|" " " shown "${ARGS}")
  message(FATAL_ERROR "ostrel ${shown}\n${failures}--- exit code: ${exit_code}\n--- standard output:\n${out}--- standard error:\n${err}")
endif()
