// SHA-256 of the data the tool stores and reads back, from the platform's
// well-kept implementation: OpenSSL's libcrypto (EVP) on Linux, Windows CNG
// (BCrypt) on Windows. Both use the processor's SHA extensions when it has
// them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace qvhost {

using Sha256Digest = std::array<uint8_t, 32>;

class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    // Any split of the message into Update calls gives the same digest.
    void Update(const void* data, size_t size);
    // The digest of everything given since the start; the object then
    // starts over, ready for a new message.
    Sha256Digest Final();

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Lower-case hexadecimal, 64 characters.
std::string ToHex(const Sha256Digest& digest);
// The digest of one whole message.
Sha256Digest Sha256Of(const void* data, size_t size);

}  // namespace qvhost
