// orient_table_compact: the orientation table in 16 bits (its values are
// 0..31415), half the cache footprint of the 32-bit table for the
// per-pixel lookups of the gradient kernel. Same entries, same indexing.
#pragma once

#include <cstdint>

namespace ostrel {
namespace acf_helper {

// Made ready once, thread-safely, on first use, from orient_table().
const int16_t *orient_table_compact();

}  // namespace acf_helper
}  // namespace ostrel
