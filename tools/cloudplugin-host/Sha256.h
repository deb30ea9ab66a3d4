// SHA-256 (FIPS 180-4) of the data the tool stores and reads back.
//
// Two engines compute the same function: a portable one in plain C++, and
// one on the x86 SHA extensions, chosen at run time when the processor has
// them (the rest of the build needs no extra compiler flags).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace qvhost {

using Sha256Digest = std::array<uint8_t, 32>;

class Sha256 {
public:
    // Best: the SHA extensions when the processor has them, else portable.
    enum class Engine { Best, Portable };

    explicit Sha256(Engine engine = Engine::Best);

    // Any split of the message into Update calls gives the same digest.
    void Update(const void* data, size_t size);
    // The digest of everything given since the start; the object then
    // starts over, ready for a new message.
    Sha256Digest Final();

    // Whether this build has the SHA extensions engine and the processor
    // it runs on supports it.
    static bool HardwareAvailable();
    bool UsesHardware() const { return usesHardware_; }

private:
    // Compresses `count` consecutive 64-byte blocks into `state`.
    using CompressFunction = void (*)(uint32_t* state, const uint8_t* blocks, size_t count);

    void Reset();

    CompressFunction compress_;
    bool usesHardware_;
    uint32_t state_[8];
    uint8_t pending_[64];
    size_t pendingSize_ = 0;
    uint64_t totalBytes_ = 0;
};

// Lower-case hexadecimal, 64 characters.
std::string ToHex(const Sha256Digest& digest);
// The digest of one whole message, with Engine::Best.
Sha256Digest Sha256Of(const void* data, size_t size);

}  // namespace qvhost
