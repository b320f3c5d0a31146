// The random draws of training: an additive-feedback generator that gives,
// for a seed, exactly the sequence the GNU C library's srand()/rand() give.
//
// Random background samples were first drawn with the C runtime's rand(),
// and seeded trainings (ostrel_alg_setRandomSeed) must keep giving the same
// models bit for bit. A generator of its own lets every engine draw on its
// own thread without touching the one generator of the process, and makes
// the draws the same on every platform (other C runtimes have other rand()s).
#pragma once

#include <cstdint>

namespace ostrel {

class additive_random {
public:
    // The largest value next() returns (RAND_MAX of the GNU C library).
    static constexpr int32_t kMax = 2147483647;

    additive_random() { seed(1); }
    explicit additive_random(uint32_t seed_value) { seed(seed_value); }

    // Restarts the sequence, like srand(seed_value); seed 0 acts as 1.
    void seed(uint32_t seed_value);
    // The next draw, 0 .. kMax, like rand().
    int32_t next();

private:
    static constexpr int kDegree = 31;        // length of the state (the library's "TYPE_3")
    static constexpr int kSeparation = 3;     // distance between the two taps
    static constexpr int kWarmUpDraws = 310;  // draws discarded after seeding: 10 x the degree

    int32_t state_[kDegree] = {};
    int front_ = kSeparation;  // index of the tap that is updated
    int rear_ = 0;             // index of the tap that is added to it
};

}  // namespace ostrel
