// The process-wide arctangent table of the gradient orientation.
#include <cmath>
#include <vector>

#include "acf/acf_helper.h"
#include "acf/orient_table_compact.h"

namespace ostrel {
namespace acf_helper {

namespace {

constexpr int32_t kDiffRange = 255;  // a and b run over -255..255
constexpr int32_t kTableSide = 511;  // 2 * 255 + 1
constexpr double kPi = 3.14159265358979323846;

// Entry (a + 255) * 511 + (b + 255): trunc(10000 * atan2(a, b)), with a
// negative angle raised by pi, so that every value lies in 0..31415 and
// opposite gradients share one orientation. atan2(0, -1) is pi itself and is
// kept as 31415, not folded to 0.
//
// Note: the tables that older models were trained with differ from this
// rule in 118 of the 261121 entries, each one unit higher than computed
// here; for example (a, b) = (-255, -215) holds 8703 there against 8702 here,
// and (-250, -153) 10216, (-249, 243) 23440, (-245, -202) 8813. Orientations
// computed here can therefore differ by one unit from such models' features
// at those differences.
std::vector<int32_t> build_orient_table() {
    std::vector<int32_t> table(static_cast<size_t>(kOrientTableSize));
    for (int32_t a = -kDiffRange; a <= kDiffRange; ++a) {
        for (int32_t b = -kDiffRange; b <= kDiffRange; ++b) {
            double theta = std::atan2(static_cast<double>(a), static_cast<double>(b));
            if (theta < 0.0) {
                theta += kPi;
            }
            table[static_cast<size_t>((a + kDiffRange) * kTableSide + (b + kDiffRange))] =
                static_cast<int32_t>(10000.0 * theta);
        }
    }
    return table;
}

}  // namespace

const int32_t *orient_table() {
    // A function-local static is initialised exactly once, and concurrent
    // first callers wait for it, so any thread may be the first user.
    static const std::vector<int32_t> table = build_orient_table();
    return table.data();
}

const int16_t *orient_table_compact() {
    static const std::vector<int16_t> table = [] {
        const int32_t *wide = orient_table();
        return std::vector<int16_t>(wide, wide + kOrientTableSize);
    }();
    return table.data();
}

}  // namespace acf_helper
}  // namespace ostrel
