// fixed_point_factor: the single-precision factors of the resampling and
// byte-conversion kernels turned into their fixed-point forms.
#pragma once

#include <cstdint>

namespace ostrel {
namespace acf_helper {

// Truncation toward zero of a single-precision value, saturated to the
// int32 range (NaN gives 0), so that no factor a caller passes is undefined
// behaviour.
int32_t truncate_saturated(float v);

// Resampling factor in Q13: r13 = trunc(r * 8192) in single precision, then
// trunc(r13 / 1.000001f). 8191 for 1.0, 45 for 0.005667.
int32_t resample_factor_q13(float r);

// Byte-conversion factor in Q14: trunc(r * 16384) in single precision.
// 16384 for 1.0, 92 for 0.005667.
int32_t convert_factor_q14(float r);

}  // namespace acf_helper
}  // namespace ostrel
