// Test data shared by the data-path suites.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

namespace jnitest {

// `size` bytes of a pattern that differs between positions and seeds
// (xorshift64, eight bytes at a time), so that a misplaced or lost byte shows.
inline std::string Pattern(size_t size, uint64_t seed) {
    std::string bytes(size, '\0');
    uint64_t state = seed * 0x9E3779B97F4A7C15ull + 1;
    size_t i = 0;
    for (; i + 8 <= size; i += 8) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        std::memcpy(&bytes[i], &state, 8);
    }
    for (; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + seed);
    return bytes;
}

}  // namespace jnitest
