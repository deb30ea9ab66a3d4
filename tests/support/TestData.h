// Test data shared by the data-path suites.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace jnitest {

constexpr size_t kMiB = size_t{1} << 20;

// Equal bytes, or where they first differ (never prints the data itself).
inline ::testing::AssertionResult SameBytes(const std::string& expected, const std::string& actual) {
    if (expected.size() != actual.size()) {
        return ::testing::AssertionFailure()
               << "sizes differ: expected " << expected.size() << ", got " << actual.size();
    }
    if (std::memcmp(expected.data(), actual.data(), expected.size()) == 0) return ::testing::AssertionSuccess();
    size_t at = 0;
    while (expected[at] == actual[at]) ++at;
    return ::testing::AssertionFailure() << "first difference at byte " << at << " of " << expected.size();
}

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
