// window_weights: the sizes a detector's window may have, in weights, as the
// public header states them for every model file and for training; and their
// text for messages, spelt from the same macros so that a message cannot
// drift from the check it explains.
#pragma once

#include <cstdint>

#include "ostrel_alg.h"

namespace ostrel {

inline constexpr int32_t kMinWindowWeights = OSTREL_ALG_MIN_WINDOW_WEIGHTS;
inline constexpr int32_t kMaxWindowWeights = OSTREL_ALG_MAX_WINDOW_WEIGHTS;

}  // namespace ostrel

#define OSTREL_WINDOW_WEIGHTS_TEXT_(number) #number
#define OSTREL_WINDOW_WEIGHTS_TEXT(number) OSTREL_WINDOW_WEIGHTS_TEXT_(number)
// String literals of the bounds ("201", "5999") and of the range
// ("201..5999"), for messages that are plain literals.
#define OSTREL_MIN_WINDOW_WEIGHTS_TEXT OSTREL_WINDOW_WEIGHTS_TEXT(OSTREL_ALG_MIN_WINDOW_WEIGHTS)
#define OSTREL_MAX_WINDOW_WEIGHTS_TEXT OSTREL_WINDOW_WEIGHTS_TEXT(OSTREL_ALG_MAX_WINDOW_WEIGHTS)
#define OSTREL_WINDOW_WEIGHTS_RANGE_TEXT OSTREL_MIN_WINDOW_WEIGHTS_TEXT ".." OSTREL_MAX_WINDOW_WEIGHTS_TEXT
