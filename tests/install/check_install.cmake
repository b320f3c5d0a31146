# Installs the library into a scratch prefix and builds the C example against
# it twice, as a host would: with CMake's find_package and with pkg-config.
# Both programs must run and succeed.
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
foreach(installed include/ostrel_alg.h ${LIBDIR}/libostrel_alg.so ${LIBDIR}/pkgconfig/ostrel_alg.pc
        ${LIBDIR}/cmake/ostrel_alg/ostrel_algConfig.cmake)
  if(NOT EXISTS ${prefix}/${installed})
    message(FATAL_ERROR "not installed: ${installed}")
  endif()
endforeach()

# 1. CMake package.
run_step(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/cmake-host
         -DCMAKE_PREFIX_PATH=${prefix} -DEXAMPLE_SOURCE=${SOURCE_DIR}/examples/minimal.c
         -DCMAKE_BUILD_RPATH=${prefix}/${LIBDIR})
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
run_step(cc -std=c11 ${SOURCE_DIR}/examples/minimal.c ${flags} -Wl,-rpath,${prefix}/${LIBDIR} -o ${WORK_DIR}/pkg-host)
run_step(${WORK_DIR}/pkg-host ${WORK_DIR}/pkg.model)
message(STATUS "installed package works through find_package and pkg-config")
