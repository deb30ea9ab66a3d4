// SHA-256 (FIPS 180-4) of the data the tool stores and reads back.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace qvhost {

using Sha256Digest = std::array<uint8_t, 32>;

class Sha256 {
public:
    Sha256() { Reset(); }

    // Any split of the message into Update calls gives the same digest.
    void Update(const void* data, size_t size);
    // The digest of everything given since the start; the object then
    // starts over, ready for a new message.
    Sha256Digest Final();

private:
    void Reset();
    void Compress(const uint8_t* block);

    uint32_t state_[8];
    uint8_t pending_[64];
    size_t pendingSize_ = 0;
    uint64_t totalBytes_ = 0;
};

// Lower-case hexadecimal, 64 characters.
std::string ToHex(const Sha256Digest& digest);
Sha256Digest Sha256Of(const void* data, size_t size);

}  // namespace qvhost
