# Cross build for 64-bit Windows with Debian's MinGW-w64 (posix thread model,
# packages g++-mingw-w64-x86-64-posix and libz-mingw-w64-dev).
#
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
#         -DOSTREL_WINDOWS_DEPS=<prefix of the cross-built OpenCV> ...
#
# Everything is linked statically except Windows' own DLLs: a DLL or program
# built here runs without libstdc++-6.dll, libgcc_s_seh-1.dll,
# libwinpthread-1.dll or zlib1.dll beside it.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(OSTREL_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${OSTREL_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${OSTREL_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${OSTREL_MINGW_TRIPLET}-windres)

# Libraries, headers and packages come only from the MinGW tree and the
# cross-built dependencies, never from the Linux system.
set(CMAKE_FIND_ROOT_PATH /usr/${OSTREL_MINGW_TRIPLET})
if(OSTREL_WINDOWS_DEPS)
  list(APPEND CMAKE_FIND_ROOT_PATH ${OSTREL_WINDOWS_DEPS})
endif()
# try_compile projects read this file again: hand the prefix on to them.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES OSTREL_WINDOWS_DEPS)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -static makes the linker take libstdc++, libgcc, winpthread and zlib from
# their archives; only import libraries of system DLLs remain.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")
