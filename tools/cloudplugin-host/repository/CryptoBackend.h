// What the two builds of the repository's cryptography share: Crypto.cpp
// holds everything that is not a primitive (parameter checks, scrypt's
// bounds, the gear table, hex and base64); the primitives come from one
// library per build, OpenSSL's libcrypto on Linux (CryptoOpenSsl.cpp) and
// libgcrypt in the Windows build (CryptoGcrypt.cpp). Both write the same
// bytes: the repository format does not depend on the platform.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "repository/Crypto.h"

namespace qvhost::repo::detail {

// The library the primitives come from, for messages and --version.
extern const char* const kCryptoLibrary;

// NIST SP 800-38D: at most 2^39 - 256 bits of plaintext under one GCM invocation.
constexpr uint64_t kGcmMaximumPlain = (uint64_t{1} << 36) - 32;

// AES-256-GCM over one message, the library's part of Seal and Open (which
// check the buffers, draw the nonce and keep unauthenticated plaintext from
// anyone): writes `size` bytes of cipher text and the kTagSize-byte tag;
// GcmDecrypt writes `size` bytes of plaintext and answers whether the tag
// matched. std::runtime_error when the library fails.
void GcmEncrypt(const Key256& key, const uint8_t* nonce, const uint8_t* aad, size_t aadSize, const uint8_t* plain,
                size_t size, uint8_t* cipherText, uint8_t* tag);
bool GcmDecrypt(const Key256& key, const uint8_t* nonce, const uint8_t* aad, size_t aadSize,
                const uint8_t* cipherText, size_t size, const uint8_t* tag, uint8_t* plain);

// std::invalid_argument when `data` is null with a size.
void RequireBuffer(const void* data, size_t size, const char* what);

// Overwrites secrets in a way the compiler may not remove.
void Wipe(void* data, size_t size);

// std::invalid_argument unless scrypt can take these at all (n a power of two above 1 and below 2^(16r),
// r and p positive with r·p below 2^30, some output).
void CheckScryptArguments(uint64_t n, uint32_t r, uint32_t p, size_t outputSize);

}  // namespace qvhost::repo::detail
