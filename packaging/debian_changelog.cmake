# Writes the package's change log in Debian's format from CHANGELOG.md, so
# that the release notes are written once. A native package (its version is
# the project's) has one change log, /usr/share/doc/ostrel/changelog.gz.
#   cmake -DCHANGELOG=CHANGELOG.md -DOUTPUT=changelog -DPACKAGE=ostrel -DMAINTAINER="..." -P debian_changelog.cmake
#
# "## 0.1.0 - 2026-11-26" opens a release's entry, "### Title" a group of
# it ("[ Title ]"); a list item or a paragraph becomes one "*" item, its
# further lines kept beneath it. Text above the first release is left out.
file(STRINGS ${CHANGELOG} lines ENCODING UTF-8)
set(text "")
set(release "")
set(date "")
set(in_item FALSE)

function(close_release)
  if(release)
    execute_process(COMMAND date -u -R -d "${date} 12:00:00" OUTPUT_VARIABLE stamp
                    OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "${CHANGELOG}: '${date}' of release ${release} is not a date")
    endif()
    set(text "${text}\n -- ${MAINTAINER}  ${stamp}\n\n" PARENT_SCOPE)
  endif()
endfunction()

foreach(line IN LISTS lines)
  if(line MATCHES "^## ([0-9]+\\.[0-9]+\\.[0-9]+) - ([0-9]+-[0-9]+-[0-9]+)$")
    close_release()
    set(release ${CMAKE_MATCH_1})
    set(date ${CMAKE_MATCH_2})
    string(APPEND text "${PACKAGE} (${release}) unstable; urgency=medium\n")
    set(in_item FALSE)
  elseif(NOT release)
    # the file's own introduction
  elseif(line MATCHES "^### (.+)$")
    string(APPEND text "\n  [ ${CMAKE_MATCH_1} ]\n")
    set(in_item FALSE)
  elseif(line STREQUAL "")
    set(in_item FALSE)
  elseif(line MATCHES "^- (.*)$")
    string(APPEND text "  * ${CMAKE_MATCH_1}\n")
    set(in_item TRUE)
  elseif(in_item)
    string(STRIP "${line}" continued)
    string(APPEND text "    ${continued}\n")
  else()
    string(APPEND text "\n  * ${line}\n")
    set(in_item TRUE)
  endif()
endforeach()
close_release()
if(NOT text)
  message(FATAL_ERROR "${CHANGELOG} has no release entry (\"## X.Y.Z - YYYY-MM-DD\")")
endif()
string(REGEX REPLACE "\n+$" "\n" text "${text}")
# The first line of each release's items follows its heading directly.
string(REGEX REPLACE "urgency=medium\n\n*" "urgency=medium\n\n" text "${text}")
file(WRITE ${OUTPUT} "${text}")
