# Reads the export and import tables of ostrel_alg.dll (objdump -p) and
# checks that
#   - it exports exactly the functions the public header declares, by their
#     plain C names, and nothing else;
#   - it imports only Windows' own DLLs: the C++ runtime, winpthread and zlib
#     are linked in, so the DLL stands alone.
# Usage: cmake -DOBJDUMP=... -DLIBRARY=ostrel_alg.dll -DHEADER=ostrel_alg.h -P check_dll_exports.cmake
cmake_minimum_required(VERSION 3.16)
file(READ ${HEADER} header_text)
string(REGEX MATCHALL "OSTREL_ALG_API[ \t\n]+int32_t[ \t\n]+ostrel_alg_[A-Za-z0-9_]+" declared "${header_text}")
set(declared_names "")
foreach(d IN LISTS declared)
  string(REGEX REPLACE ".*(ostrel_alg_[A-Za-z0-9_]+)$" "\\1" name "${d}")
  list(APPEND declared_names ${name})
endforeach()
list(REMOVE_DUPLICATES declared_names)
list(SORT declared_names)

execute_process(COMMAND ${OBJDUMP} -p ${LIBRARY} OUTPUT_VARIABLE dump RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${OBJDUMP} -p failed on ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${dump}")

set(exported_names "")
set(imported_dlls "")
set(in_names OFF)
foreach(line IN LISTS lines)
  if(line MATCHES "\\[Ordinal/Name Pointer\\] Table")
    set(in_names ON)
  elseif(in_names AND line MATCHES "^[ \t]*\\[ *[0-9]+\\] (.+)$")
    list(APPEND exported_names ${CMAKE_MATCH_1})
  elseif(in_names)
    set(in_names OFF)
  endif()
  if(line MATCHES "^[ \t]*DLL Name: (.+)$")
    list(APPEND imported_dlls ${CMAKE_MATCH_1})
  endif()
endforeach()
list(SORT exported_names)

list(LENGTH declared_names n_declared)
if(NOT declared_names STREQUAL exported_names)
  message(FATAL_ERROR "exports differ from the header\n declared: ${declared_names}\n exported: ${exported_names}")
endif()
message(STATUS "ostrel_alg.dll exports exactly the ${n_declared} declared functions")

# Windows' own DLLs; anything else would have to ship beside ostrel_alg.dll.
set(system_dlls KERNEL32.dll msvcrt.dll ADVAPI32.dll USER32.dll GDI32.dll ole32.dll OLEAUT32.dll SHELL32.dll
    WS2_32.dll bcrypt.dll)
string(TOLOWER "${system_dlls}" system_dlls)
foreach(dll IN LISTS imported_dlls)
  string(TOLOWER ${dll} lower)
  if(NOT lower IN_LIST system_dlls AND NOT lower MATCHES "^api-ms-win-")
    message(FATAL_ERROR "ostrel_alg.dll imports ${dll}, which is not part of Windows (imports: ${imported_dlls})")
  endif()
endforeach()
message(STATUS "ostrel_alg.dll imports only Windows' own DLLs: ${imported_dlls}")
