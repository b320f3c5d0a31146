# Installed use beyond the library's own files: the shipped pictures the
# tool's demo and studio open, the Python package, the tool's manual page,
# the documentation files of a Debian package, and the package itself
# (`cpack -G DEB` in the build folder, or the `package` target).
#
# The files made by build steps of their own (Python package, manual page,
# change logs) are installed when they were built: a build of only the
# library and the tool (scripts/test-python.sh) still installs. The package
# test checks that the Debian package holds every one.
#
# Every installed program finds its libraries relative to itself
# ($ORIGIN/../lib...), so a tree installed with --prefix anywhere runs
# without LD_LIBRARY_PATH, and a moved tree still does.

# ---------------------------------------------------------------------------
# Run-time search path of the installed tool: the library beside it in the
# same prefix. The build tree keeps CMake's absolute build paths.
file(RELATIVE_PATH OSTREL_BIN_TO_LIB "/prefix/${CMAKE_INSTALL_BINDIR}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
set(OSTREL_TOOL_INSTALL_RPATH "$ORIGIN/${OSTREL_BIN_TO_LIB}")
if(TARGET ostrel)
  set_target_properties(ostrel PROPERTIES INSTALL_RPATH "${OSTREL_TOOL_INSTALL_RPATH}")
endif()
# Relocations made read-only once loaded, as Debian builds its own programs.
if(UNIX AND NOT APPLE AND NOT WIN32)
  foreach(target ostrel_alg ostrel)
    if(TARGET ${target})
      target_link_options(${target} PRIVATE "LINKER:-z,relro,-z,now")
    endif()
  endforeach()
endif()

# The pictures `ostrel demo` and `ostrel studio` start from, with their
# licence; the tool looks for them in <prefix>/share/ostrel/data.
install(DIRECTORY data/bccd DESTINATION ${CMAKE_INSTALL_DATADIR}/ostrel/data)

# ---------------------------------------------------------------------------
# The Python package, as the system's Python finds it. It is laid out by the
# package's own setup.py (which writes the values it takes from the C
# sources), told that the library comes from the system: the package then
# loads it by its soname.
set(OSTREL_INSTALL_PYTHONDIR "lib/python3/dist-packages" CACHE STRING
    "Where the Python package is installed, relative to the prefix")
# The system's Python (the one Debian's python3 packages serve), not one a
# version manager puts first on PATH.
if(NOT DEFINED Python3_EXECUTABLE AND EXISTS /usr/bin/python3)
  set(Python3_EXECUTABLE /usr/bin/python3)
endif()
find_package(Python3 COMPONENTS Interpreter)
if(Python3_Interpreter_FOUND AND NOT CMAKE_CROSSCOMPILING)  # not for the Windows build
  set(OSTREL_PYTHON_STAGE ${CMAKE_CURRENT_BINARY_DIR}/python-package)
  file(GLOB_RECURSE OSTREL_PYTHON_SOURCES CONFIGURE_DEPENDS
       ${CMAKE_CURRENT_SOURCE_DIR}/python/ostrel/*.py)
  add_custom_command(
    OUTPUT ${OSTREL_PYTHON_STAGE}/ostrel/_header_values.py
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${OSTREL_PYTHON_STAGE}
    COMMAND ${CMAKE_COMMAND} -E env OSTREL_PACKAGE_LIBRARY=system PYTHONDONTWRITEBYTECODE=1
            ${Python3_EXECUTABLE} setup.py --quiet build --build-base ${CMAKE_CURRENT_BINARY_DIR}/python-build
            build_py --build-lib ${OSTREL_PYTHON_STAGE}
    WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/python
    DEPENDS ${OSTREL_PYTHON_SOURCES} ${CMAKE_CURRENT_SOURCE_DIR}/python/setup.py
            ${CMAKE_CURRENT_SOURCE_DIR}/python/pyproject.toml ${CMAKE_CURRENT_SOURCE_DIR}/include/ostrel_alg.h
    COMMENT "Laying out the Python package"
    VERBATIM)
  add_custom_target(ostrel_python_package ALL DEPENDS ${OSTREL_PYTHON_STAGE}/ostrel/_header_values.py)
  install(DIRECTORY ${OSTREL_PYTHON_STAGE}/ostrel DESTINATION ${OSTREL_INSTALL_PYTHONDIR}
          OPTIONAL PATTERN __pycache__ EXCLUDE)
elseif(NOT CMAKE_CROSSCOMPILING)
  message(STATUS "no Python 3: the Python package is not installed with the library")
endif()

# ---------------------------------------------------------------------------
# The tool's manual page, written from its own --help by help2man.
set(OSTREL_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/ostrel)
find_program(HELP2MAN help2man)
# help2man runs the tool: a cross-built one (the Windows build) is not.
if(TARGET ostrel AND HELP2MAN AND NOT CMAKE_CROSSCOMPILING)
  set(OSTREL_MAN_PAGE ${CMAKE_CURRENT_BINARY_DIR}/man/ostrel.1.gz)
  add_custom_command(
    OUTPUT ${OSTREL_MAN_PAGE}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/man
    COMMAND ${HELP2MAN} --no-info --no-discard-stderr
            --name "train a single-class object detector from a few marked boxes and run it"
            --version-string ${PROJECT_VERSION}
            --output ${CMAKE_CURRENT_BINARY_DIR}/man/ostrel.1 $<TARGET_FILE:ostrel>
    COMMAND gzip -9nf ${CMAKE_CURRENT_BINARY_DIR}/man/ostrel.1
    DEPENDS ostrel
    COMMENT "Writing the manual page of ostrel"
    VERBATIM)
  add_custom_target(ostrel_man_page ALL DEPENDS ${OSTREL_MAN_PAGE})
  install(FILES ${OSTREL_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 OPTIONAL)
elseif(TARGET ostrel AND NOT CMAKE_CROSSCOMPILING)
  message(STATUS "help2man not found: the ostrel tool is installed without its manual page")
endif()

# ---------------------------------------------------------------------------
# Documentation files: the copyright file in Debian's format (the project's
# licence from LICENSE, the pictures' notices from data/), the change log
# (CHANGELOG.md in Debian's format).
set(OSTREL_MAINTAINER "ostrel_alg developers <ostrel-maintainers@example.org>")
set(OSTREL_LICENSE_FILE ${CMAKE_CURRENT_SOURCE_DIR}/LICENSE)
function(ostrel_debian_license_text file out)
  # A licence text as a Debian copyright field's continuation lines: every
  # line indented by one space, an empty line written " .".
  set(text "")
  if(EXISTS ${file})
    file(STRINGS ${file} lines)
    foreach(line IN LISTS lines)
      if(line STREQUAL "")
        string(APPEND text " .\n")
      else()
        string(APPEND text " ${line}\n")
      endif()
    endforeach()
  else()
    message(WARNING "${file} is missing: the package's copyright file lacks its text")
  endif()
  string(REGEX REPLACE "\n$" "" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()
ostrel_debian_license_text(${OSTREL_LICENSE_FILE} OSTREL_LICENSE_TEXT)
ostrel_debian_license_text(${CMAKE_CURRENT_SOURCE_DIR}/data/bccd/LICENSE OSTREL_BCCD_LICENSE_TEXT)
set(OSTREL_COPYRIGHT_FILE ${CMAKE_CURRENT_BINARY_DIR}/packaging/copyright)
configure_file(packaging/copyright.in ${OSTREL_COPYRIGHT_FILE} @ONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${CMAKE_CURRENT_SOURCE_DIR}/data/bccd/LICENSE ${CMAKE_CURRENT_SOURCE_DIR}/CHANGELOG.md)
if(EXISTS ${OSTREL_LICENSE_FILE})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${OSTREL_LICENSE_FILE})
endif()

# CHANGELOG.md's newest heading ("## 0.1.0 - 2026-11-26") must name this
# version; the package's change log is written from it.
file(STRINGS CHANGELOG.md OSTREL_RELEASE_HEADINGS REGEX "^## [0-9]+\\.[0-9]+\\.[0-9]+ - [0-9-]+$")
list(GET OSTREL_RELEASE_HEADINGS 0 OSTREL_NEWEST_RELEASE)
if(NOT OSTREL_NEWEST_RELEASE MATCHES "^## ${PROJECT_VERSION} - ")
  message(FATAL_ERROR "CHANGELOG.md's newest entry '${OSTREL_NEWEST_RELEASE}' is not version ${PROJECT_VERSION}")
endif()
set(OSTREL_CHANGELOG ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog)
add_custom_command(
  OUTPUT ${OSTREL_CHANGELOG}.gz
  COMMAND ${CMAKE_COMMAND} -DCHANGELOG=${CMAKE_CURRENT_SOURCE_DIR}/CHANGELOG.md -DOUTPUT=${OSTREL_CHANGELOG}
          -DPACKAGE=ostrel "-DMAINTAINER=${OSTREL_MAINTAINER}"
          -P ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian_changelog.cmake
  COMMAND gzip -9nf ${OSTREL_CHANGELOG}
  DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/CHANGELOG.md ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian_changelog.cmake
  COMMENT "Writing the package's change log"
  VERBATIM)
add_custom_target(ostrel_changelogs ALL DEPENDS ${OSTREL_CHANGELOG}.gz)
install(FILES ${OSTREL_COPYRIGHT_FILE} DESTINATION ${OSTREL_DOC_DIR})
install(FILES ${OSTREL_CHANGELOG}.gz DESTINATION ${OSTREL_DOC_DIR} OPTIONAL)

# ---------------------------------------------------------------------------
# The Debian package: one package with the library, its header and CMake /
# pkg-config files, the tool, the studio's page, the Python package and the
# shipped pictures. Its Depends come from the libraries actually linked
# (dpkg-shlibdeps).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ostrel)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "ostrel_alg developers")
set(CPACK_PACKAGE_CONTACT "${OSTREL_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "trainable single-class object detector")
# CPack writes the description's quotes and apostrophes as XML entities:
# the file has none.
set(CPACK_PACKAGE_DESCRIPTION_FILE ${CMAKE_CURRENT_SOURCE_DIR}/packaging/description.txt)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The Python package needs the system's Python and numpy; the rest of its
# needs come with the library.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "python3, python3-numpy")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3-opencv, pkg-config")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The loader's cache is refreshed by libc's ldconfig trigger (the triggers
# file), not by the maintainer scripts: with a postrm of its own, CPack
# writes none that calls ldconfig.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/postinst ${CMAKE_CURRENT_SOURCE_DIR}/packaging/prerm
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/postrm ${CMAKE_CURRENT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
