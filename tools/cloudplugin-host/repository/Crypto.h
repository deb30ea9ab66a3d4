// The repository's cryptography: authenticated encryption of every object it
// stores, keyed hashes that name chunks, the password-based key derivation
// that protects the master keys, and the text forms of binary values.
//
// Everything rests on OpenSSL's libcrypto (EVP): no primitive of our own.
// Anything read back from storage is untrusted, so openers answer false on
// damage instead of throwing, and parameters read from storage are bounded
// before they can make us allocate.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qvhost::repo {

using Bytes = std::vector<uint8_t>;
using Key256 = std::array<uint8_t, 32>;
using Id = std::array<uint8_t, 32>;  // a keyed hash: a chunk's id

constexpr size_t kNonceSize = 12, kTagSize = 16, kSealOverhead = kNonceSize + kTagSize;

// Cryptographically strong random bytes (RAND_bytes); throws std::runtime_error if the generator fails.
void RandomBytes(uint8_t* out, size_t size);
Key256 RandomKey();

// AES-256-GCM with a fresh random 96-bit nonce per call. Sealed form: nonce || ciphertext || tag.
// `aad` is authenticated, not stored (callers bind an object's kind or id to it). Appends to `out`;
// `plain` must not lie inside `out` (std::invalid_argument).
void Seal(const Key256& key, const uint8_t* plain, size_t size, const uint8_t* aad, size_t aadSize, Bytes& out);
Bytes Seal(const Key256& key, const uint8_t* plain, size_t size, const uint8_t* aad = nullptr, size_t aadSize = 0);
// Replaces `plain` with the opened content; false (plain cleared) when the input is shorter than the overhead
// or authentication fails (wrong key, any changed bit, other aad). `sealed` may lie inside `plain`.
bool Open(const Key256& key, const uint8_t* sealed, size_t size, const uint8_t* aad, size_t aadSize, Bytes& plain);

// HMAC-SHA-256.
Id KeyedHash(const Key256& key, const uint8_t* data, size_t size);

// A reusable HMAC-SHA-256 for hot paths (one per thread: not thread-safe). The key is set once; each message
// starts from a copy of the keyed state, so the key schedule is not redone per chunk.
class KeyedHasher {
public:
    explicit KeyedHasher(const Key256& key);
    ~KeyedHasher();
    KeyedHasher(const KeyedHasher&) = delete;
    KeyedHasher& operator=(const KeyedHasher&) = delete;
    KeyedHasher(KeyedHasher&& other) noexcept;
    KeyedHasher& operator=(KeyedHasher&& other) noexcept;

    Id Hash(const uint8_t* data, size_t size) const;

private:
    struct Context;  // the library's keyed state (CryptoOpenSsl.cpp, CryptoGcrypt.cpp), never updated itself
    static void Free(Context* context);
    Context* keyed_ = nullptr;
};

// Plain SHA-256, used for the object names of packs (anyone may check a name against the content).
Id Sha256Id(const uint8_t* data, size_t size);

// Password-based key derivation: scrypt (RFC 7914) through EVP_KDF.
struct KdfParameters {
    uint64_t n = 1u << 16;  // CPU/memory cost, a power of two
    uint32_t r = 8;
    uint32_t p = 1;
    Bytes salt;  // 16..64 bytes

    // What OpenSSL's scrypt allocates, 128·r·(N + 2) + 128·r·p bytes, and what it is told it may allocate.
    // Saturates at UINT64_MAX rather than wrapping for absurd values.
    uint64_t MemoryBytes() const;
};

// The bounds on what DeriveKey takes.
constexpr uint64_t kKdfMinimumN = uint64_t{1} << 10, kKdfMaximumN = uint64_t{1} << 22;
constexpr uint32_t kKdfMaximumR = 32, kKdfMaximumP = 16;
constexpr uint64_t kKdfMaximumMemory = uint64_t{1} << 30;
constexpr size_t kKdfMinimumSalt = 16, kKdfMaximumSalt = 64;

// Empty when acceptable, else why not: n a power of two in 2^10..2^22 and below 2^(16·r) (RFC 7914's bound),
// r 1..32, p 1..16, memory at most 1 GiB, salt 16..64 bytes. Parameters are read from storage, so this bounds
// what a forged key object could make us allocate.
std::string WhyKdfParametersAreRefused(const KdfParameters& parameters);
// A random 32-byte salt, r = 8, p = 1 and the largest n whose MemoryBytes() fits `memoryBytes` and the 1 GiB
// bound (at least 2^10, so at most 2^19). Note the few KiB beyond 128·N·r: 64 MiB gives n = 2^15; 65 MiB, 2^16.
KdfParameters NewKdfParameters(uint64_t memoryBytes);
// Throws std::invalid_argument for refused parameters, std::runtime_error if OpenSSL fails.
Key256 DeriveKey(const std::string& password, const KdfParameters& parameters);

namespace detail {
// scrypt without DeriveKey's bounds, for any output size: only for the published vectors, whose salts are
// shorter than DeriveKey accepts. Still refuses what OpenSSL refuses (std::invalid_argument).
Bytes ScryptUnbounded(const std::string& password, const uint8_t* salt, size_t saltSize, uint64_t n, uint32_t r,
                      uint32_t p, size_t outputSize);
}  // namespace detail

// The chunker's gear table from a secret: entry i = the first 8 bytes (little-endian) of
// HMAC-SHA-256(key, "gear" || byte i).
std::array<uint64_t, 256> GearTableFor(const Key256& chunkerKey);

std::string ToHex(const uint8_t* data, size_t size);  // lower-case
// Exactly 2·size hex digits, either case; `out` is written only when the whole text is valid.
bool FromHex(const std::string& text, uint8_t* out, size_t size);
std::string IdHex(const Id& id);
bool IdFromHex(const std::string& text, Id& id);
// Standard alphabet (RFC 4648 §4) with padding, no line breaks.
std::string Base64(const uint8_t* data, size_t size);
// Strict: length a multiple of 4, the standard alphabet, at most two '=' and only at the end, unused bits zero
// (so every value has one text). `out` is replaced only on success.
bool FromBase64(const std::string& text, Bytes& out);

}  // namespace qvhost::repo
