// The few <dlfcn.h> calls of the interface tests, on Windows' loader, so that
// the same test source loads ostrel_alg.dll at run time as it loads the
// shared library on Linux. Only on the include path of the Windows build.
#pragma once

#include <windows.h>

#define RTLD_NOW 0
#define RTLD_LOCAL 0

inline void *dlopen(const char *file, int) { return reinterpret_cast<void *>(LoadLibraryA(file)); }

inline void *dlsym(void *library, const char *name) {
    return reinterpret_cast<void *>(GetProcAddress(static_cast<HMODULE>(library), name));
}

inline int dlclose(void *library) { return FreeLibrary(static_cast<HMODULE>(library)) ? 0 : 1; }

inline const char *dlerror() { return "LoadLibraryA failed"; }
