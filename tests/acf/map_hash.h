// A fingerprint of a feature map for pinning tests: 32-bit FNV-1a over the
// three sizes (little-endian words) and then every byte of the map.
#pragma once

#include <cstddef>
#include <cstdint>

namespace acf_test {

inline uint32_t fnv1a_step(uint32_t hash, uint8_t byte) { return (hash ^ byte) * 16777619u; }

inline uint32_t map_hash(uint32_t channels, uint32_t columns, uint32_t rows, const uint8_t *data, size_t size) {
    uint32_t hash = 2166136261u;
    for (uint32_t word : {channels, columns, rows}) {
        for (int shift = 0; shift < 32; shift += 8) {
            hash = fnv1a_step(hash, static_cast<uint8_t>(word >> shift));
        }
    }
    for (size_t i = 0; i < size; ++i) {
        hash = fnv1a_step(hash, data[i]);
    }
    return hash;
}

}  // namespace acf_test
