# Installs the library into a scratch prefix and builds the C example against
# it twice, as a host would: with CMake's find_package and with pkg-config.
# Both programs must run and succeed. Nothing here sets LD_LIBRARY_PATH: the
# installed tool finds the library by its relative run-time path, and the
# hosts by the run-time path their build gives them (CMake's own, or the
# library folder pkg-config names).
#   -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -DLIBDIR=...
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

function(run_step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
endfunction()

run_step(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} --component Unspecified)
unset(ENV{LD_LIBRARY_PATH})
foreach(installed include/ostrel_alg.h ${LIBDIR}/libostrel_alg.so ${LIBDIR}/pkgconfig/ostrel_alg.pc
        ${LIBDIR}/cmake/ostrel_alg/ostrel_algConfig.cmake)
  if(NOT EXISTS ${prefix}/${installed})
    message(FATAL_ERROR "not installed: ${installed}")
  endif()
endforeach()

# 1. CMake package.
run_step(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/cmake-host
         -DCMAKE_PREFIX_PATH=${prefix} -DEXAMPLE_SOURCE=${SOURCE_DIR}/examples/minimal.c)
run_step(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-host)
run_step(${WORK_DIR}/cmake-host/consumer ${WORK_DIR}/cmake.model)

# 2. pkg-config.
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs ostrel_alg RESULT_VARIABLE rc OUTPUT_VARIABLE flags
                OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know ostrel_alg")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
execute_process(COMMAND pkg-config --variable=libdir ostrel_alg OUTPUT_VARIABLE libdir OUTPUT_STRIP_TRAILING_WHITESPACE)
run_step(cc -std=c11 ${SOURCE_DIR}/examples/minimal.c ${flags} -Wl,-rpath,${libdir} -o ${WORK_DIR}/pkg-host)
run_step(${WORK_DIR}/pkg-host ${WORK_DIR}/pkg.model)

# 3. The installed tool (when the build has one), moved to another prefix:
# it runs from there with the library beside it, and its demo finds the
# pictures installed with it.
if(EXISTS ${prefix}/bin/ostrel)
  set(moved ${WORK_DIR}/moved)
  file(RENAME ${prefix} ${moved})
  execute_process(COMMAND ${moved}/bin/ostrel --version RESULT_VARIABLE rc OUTPUT_VARIABLE version
                  ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT rc EQUAL 0 OR NOT version MATCHES "^ostrel [0-9]+\\.[0-9]+\\.[0-9]+$")
    message(FATAL_ERROR "the installed tool does not run from a moved prefix (${rc}): ${version}\n${err}")
  endif()
  if(NOT EXISTS ${moved}/share/ostrel/data/bccd/annotations/BloodImage_00000.xml)
    message(FATAL_ERROR "the demo's pictures are not installed")
  endif()
  file(RENAME ${moved} ${prefix})
  message(STATUS "installed tool runs from a moved prefix: ${version}")
endif()
message(STATUS "installed package works through find_package and pkg-config")
