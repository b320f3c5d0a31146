#include "accurate/cpu_features.h"

namespace ostrel {

#if defined(OSTREL_HAVE_X86_VECTOR_LOOPS)
bool cpu_has_avx2() {
    static const bool available = __builtin_cpu_supports("avx2");
    return available;
}

bool cpu_has_avx512_vnni() {
    static const bool available = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vnni");
    return available;
}
#else
bool cpu_has_avx2() { return false; }
bool cpu_has_avx512_vnni() { return false; }
#endif

}  // namespace ostrel
