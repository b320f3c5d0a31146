#include "common/additive_random.h"

namespace ostrel {

void additive_random::seed(uint32_t seed_value) {
    if (seed_value == 0) {
        seed_value = 1;
    }
    // The state starts as a Lehmer sequence, x' = 16807 x mod (2^31 - 1),
    // computed with Schrage's split into 32-bit signed words, as the C
    // library does. A seed above 2^31 - 1 becomes a negative word and the
    // split then leaves the mathematical residue; the library's words are
    // kept exactly, wrap-around of the 32-bit store included.
    int32_t word = static_cast<int32_t>(seed_value);
    state_[0] = word;
    for (int i = 1; i < kDegree; ++i) {
        const int64_t hi = word / 127773;
        const int64_t lo = word % 127773;
        word = static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(16807 * lo - 2836 * hi)));
        if (word < 0) {
            word = static_cast<int32_t>(static_cast<uint32_t>(word) + 2147483647u);
        }
        state_[i] = word;
    }
    front_ = kSeparation;
    rear_ = 0;
    for (int i = 0; i < kWarmUpDraws; ++i) {
        next();
    }
}

int32_t additive_random::next() {
    // Words add modulo 2^32; the lowest bit, the least random one, is dropped.
    const uint32_t sum = static_cast<uint32_t>(state_[front_]) + static_cast<uint32_t>(state_[rear_]);
    state_[front_] = static_cast<int32_t>(sum);
    front_ = front_ + 1 == kDegree ? 0 : front_ + 1;
    rear_ = rear_ + 1 == kDegree ? 0 : rear_ + 1;
    return static_cast<int32_t>(sum >> 1);
}

}  // namespace ostrel
