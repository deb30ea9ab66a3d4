// The repository's cryptography apart from its primitives: the checks on what callers and storage hand in,
// scrypt's bounds, the chunker's gear table, and hex and base64. The primitives (AES-256-GCM, HMAC-SHA-256,
// SHA-256, scrypt, the random source) come from CryptoOpenSsl.cpp or, in the Windows build, CryptoGcrypt.cpp.
#include "repository/Crypto.h"

#include <cstring>
#include <limits>
#include <utility>
#include <stdexcept>

#include "repository/CryptoBackend.h"
#include "util/Buffers.h"

namespace qvhost::repo {

namespace detail {

void RequireBuffer(const void* data, size_t size, const char* what) {
    if (!data && size > 0) throw std::invalid_argument(std::string(what) + " is null but its size is not 0");
}

void Wipe(void* data, size_t size) {
    volatile uint8_t* bytes = static_cast<volatile uint8_t*>(data);
    for (size_t i = 0; i < size; ++i) bytes[i] = 0;
}

}  // namespace detail

using detail::kGcmMaximumPlain;
using detail::RequireBuffer;

namespace {

uint64_t SaturatingMultiply(uint64_t a, uint64_t b) {
    if (a != 0 && b > std::numeric_limits<uint64_t>::max() / a) return std::numeric_limits<uint64_t>::max();
    return a * b;
}

uint64_t SaturatingAdd(uint64_t a, uint64_t b) {
    return b > std::numeric_limits<uint64_t>::max() - a ? std::numeric_limits<uint64_t>::max() : a + b;
}

bool IsPowerOfTwo(uint64_t value) { return value != 0 && (value & (value - 1)) == 0; }

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

int Base64Digit(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

namespace detail {

void CheckScryptArguments(uint64_t n, uint32_t r, uint32_t p, size_t outputSize) {
    if (n < 2 || !IsPowerOfTwo(n)) throw std::invalid_argument("scrypt's n must be a power of two above 1");
    if (r == 0 || p == 0 || uint64_t{r} * p >= (uint64_t{1} << 30)) {
        throw std::invalid_argument("scrypt's r and p must be positive with r·p below 2^30");
    }
    if (16 * uint64_t{r} < 64 && n >= (uint64_t{1} << (16 * r))) {
        throw std::invalid_argument("scrypt's n must be below 2^(16r)");
    }
    if (outputSize == 0) throw std::invalid_argument("scrypt's output must not be empty");
}

}  // namespace detail

Key256 RandomKey() {
    Key256 key;
    RandomBytes(key.data(), key.size());
    return key;
}

void Seal(const Key256& key, const uint8_t* plain, size_t size, const uint8_t* aad, size_t aadSize, Bytes& out) {
    RequireBuffer(plain, size, "the plaintext");
    RequireBuffer(aad, aadSize, "the additional data");
    if (size > kGcmMaximumPlain) throw std::invalid_argument("too much plaintext for one AES-GCM message");
    // Growing `out` may move its storage, and a plaintext inside it with it.
    if (Overlaps(plain, size, out.data(), out.capacity())) {
        throw std::invalid_argument("the plaintext lies inside the output buffer");
    }
    const size_t start = out.size();
    if (size > out.max_size() - start - kSealOverhead) throw std::invalid_argument("the sealed message is too large");
    out.resize(start + kSealOverhead + size);
    try {
        uint8_t* const nonce = out.data() + start;
        uint8_t* const cipherText = nonce + kNonceSize;
        uint8_t* const tag = cipherText + size;
        // Random nonces: no counter to keep consistent between machines sharing a key. NIST bounds random 96-bit
        // nonces to 2^32 messages per key: 4 PiB of 1 MiB chunks.
        RandomBytes(nonce, kNonceSize);
        detail::GcmEncrypt(key, nonce, aad, aadSize, plain, size, cipherText, tag);
    } catch (...) {
        out.resize(start);
        throw;
    }
}

bool Open(const Key256& key, const uint8_t* sealed, size_t size, const uint8_t* aad, size_t aadSize, Bytes& plain) {
    RequireBuffer(sealed, size, "the sealed message");
    RequireBuffer(aad, aadSize, "the additional data");
    if (size < kSealOverhead || size - kSealOverhead > kGcmMaximumPlain) {
        detail::Wipe(plain.data(), plain.size());
        plain.clear();
        return false;
    }
    const uint8_t* const nonce = sealed;
    const uint8_t* const cipherText = sealed + kNonceSize;
    const size_t plainSize = size - kSealOverhead;
    const uint8_t* const tag = cipherText + plainSize;

    // Decrypting over its own input would need the exact same pointers; a separate buffer is simpler.
    Bytes separate;
    const bool inPlace = Overlaps(sealed, size, plain.data(), plain.capacity());
    Bytes& target = inPlace ? separate : plain;
    target.resize(plainSize);

    // Unauthenticated plaintext must not reach anyone, whatever stops us.
    const auto discard = [&] {
        detail::Wipe(target.data(), target.size());
        target.clear();
        if (inPlace) plain.clear();  // it held the sealed message, which is not the answer either
    };
    bool authentic = false;
    try {
        authentic = detail::GcmDecrypt(key, nonce, aad, aadSize, cipherText, plainSize, tag, target.data());
    } catch (...) {
        discard();
        throw;
    }
    if (!authentic) {
        discard();
        return false;
    }
    if (inPlace) plain = std::move(separate);
    return true;
}

Bytes Seal(const Key256& key, const uint8_t* plain, size_t size, const uint8_t* aad, size_t aadSize) {
    Bytes out;
    out.reserve(size + kSealOverhead);
    Seal(key, plain, size, aad, aadSize, out);
    return out;
}

KeyedHasher::~KeyedHasher() { Free(keyed_); }

KeyedHasher::KeyedHasher(KeyedHasher&& other) noexcept : keyed_(std::exchange(other.keyed_, nullptr)) {}

KeyedHasher& KeyedHasher::operator=(KeyedHasher&& other) noexcept {
    if (this != &other) {
        Free(keyed_);
        keyed_ = std::exchange(other.keyed_, nullptr);
    }
    return *this;
}

Id KeyedHash(const Key256& key, const uint8_t* data, size_t size) { return KeyedHasher(key).Hash(data, size); }

uint64_t KdfParameters::MemoryBytes() const {
    // OpenSSL's account: B (128·r·p) plus V and the two scratch blocks X, T (32·r·(N + 2) 32-bit words).
    const uint64_t blocks = SaturatingMultiply(128, r);
    return SaturatingAdd(SaturatingMultiply(blocks, p), SaturatingMultiply(blocks, SaturatingAdd(n, 2)));
}

std::string WhyKdfParametersAreRefused(const KdfParameters& parameters) {
    const uint64_t n = parameters.n;
    if (!IsPowerOfTwo(n)) return "scrypt's n must be a power of two, not " + std::to_string(n);
    if (n < kKdfMinimumN || n > kKdfMaximumN) {
        return "scrypt's n must lie in 2^10..2^22, not " + std::to_string(n);
    }
    if (parameters.r < 1 || parameters.r > kKdfMaximumR) {
        return "scrypt's r must lie in 1.." + std::to_string(kKdfMaximumR) + ", not " + std::to_string(parameters.r);
    }
    if (parameters.p < 1 || parameters.p > kKdfMaximumP) {
        return "scrypt's p must lie in 1.." + std::to_string(kKdfMaximumP) + ", not " + std::to_string(parameters.p);
    }
    // RFC 7914: N < 2^(128·r/8). Only r = 1 meets it within our range of n (r = 1 allows up to 2^15).
    if (16 * uint64_t{parameters.r} < 64 && n >= (uint64_t{1} << (16 * parameters.r))) {
        return "scrypt's n must be below 2^(16r): " + std::to_string(n) + " with r = " + std::to_string(parameters.r);
    }
    const uint64_t memory = parameters.MemoryBytes();
    if (memory > kKdfMaximumMemory) {
        return "scrypt would need " + std::to_string(memory) + " bytes, more than the 1 GiB allowed";
    }
    const size_t salt = parameters.salt.size();
    if (salt < kKdfMinimumSalt || salt > kKdfMaximumSalt) {
        return "the salt must have 16..64 bytes, not " + std::to_string(salt);
    }
    return {};
}

KdfParameters NewKdfParameters(uint64_t memoryBytes) {
    KdfParameters parameters;
    parameters.r = 8;
    parameters.p = 1;
    // Never more than DeriveKey takes: with r = 8 that makes 2^19 the largest n (2^20 is 1 GiB and 3 KiB).
    const uint64_t budget = memoryBytes < kKdfMaximumMemory ? memoryBytes : kKdfMaximumMemory;
    parameters.n = kKdfMaximumN;
    while (parameters.n > kKdfMinimumN && parameters.MemoryBytes() > budget) parameters.n /= 2;
    parameters.salt.resize(32);
    RandomBytes(parameters.salt.data(), parameters.salt.size());
    return parameters;
}

Key256 DeriveKey(const std::string& password, const KdfParameters& parameters) {
    const std::string refusal = WhyKdfParametersAreRefused(parameters);
    if (!refusal.empty()) throw std::invalid_argument(refusal);
    Bytes derived = detail::ScryptUnbounded(password, parameters.salt.data(), parameters.salt.size(), parameters.n,
                                            parameters.r, parameters.p, Key256().size());
    Key256 key;
    std::memcpy(key.data(), derived.data(), key.size());
    detail::Wipe(derived.data(), derived.size());
    return key;
}

std::array<uint64_t, 256> GearTableFor(const Key256& chunkerKey) {
    KeyedHasher hasher(chunkerKey);
    std::array<uint64_t, 256> table{};
    uint8_t message[5] = {'g', 'e', 'a', 'r', 0};
    for (size_t i = 0; i < table.size(); ++i) {
        message[4] = static_cast<uint8_t>(i);
        const Id digest = hasher.Hash(message, sizeof message);
        uint64_t entry = 0;
        for (size_t byte = 0; byte < 8; ++byte) entry |= uint64_t{digest[byte]} << (8 * byte);
        table[i] = entry;
    }
    return table;
}

std::string ToHex(const uint8_t* data, size_t size) {
    RequireBuffer(data, size, "the data");
    static const char kDigits[] = "0123456789abcdef";
    std::string text(2 * size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[2 * i] = kDigits[data[i] >> 4];
        text[2 * i + 1] = kDigits[data[i] & 0xf];
    }
    return text;
}

bool FromHex(const std::string& text, uint8_t* out, size_t size) {
    RequireBuffer(out, size, "the output");
    if (size > text.max_size() / 2 || text.size() != 2 * size) return false;
    for (char c : text) {
        if (HexDigit(c) < 0) return false;
    }
    for (size_t i = 0; i < size; ++i) {
        out[i] = static_cast<uint8_t>(HexDigit(text[2 * i]) << 4 | HexDigit(text[2 * i + 1]));
    }
    return true;
}

std::string IdHex(const Id& id) { return ToHex(id.data(), id.size()); }

bool IdFromHex(const std::string& text, Id& id) { return FromHex(text, id.data(), id.size()); }

std::string Base64(const uint8_t* data, size_t size) {
    RequireBuffer(data, size, "the data");
    const size_t groups = size / 3 + (size % 3 != 0);
    if (groups > std::string().max_size() / 4) throw std::invalid_argument("too much data for base64");
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text(groups * 4, '=');
    char* out = text.data();
    for (size_t i = 0; i < size; i += 3, out += 4) {
        const size_t left = size - i;
        const uint32_t group = uint32_t{data[i]} << 16 | (left > 1 ? uint32_t{data[i + 1]} << 8 : 0) |
                               (left > 2 ? uint32_t{data[i + 2]} : 0);
        out[0] = kAlphabet[group >> 18];
        out[1] = kAlphabet[group >> 12 & 0x3f];
        if (left > 1) out[2] = kAlphabet[group >> 6 & 0x3f];
        if (left > 2) out[3] = kAlphabet[group & 0x3f];
    }
    return text;
}

bool FromBase64(const std::string& text, Bytes& out) {
    const size_t length = text.size();
    if (length % 4 != 0) return false;
    size_t padding = 0;
    while (padding < 2 && padding < length && text[length - 1 - padding] == '=') ++padding;
    for (size_t i = 0; i < length - padding; ++i) {
        if (Base64Digit(text[i]) < 0) return false;  // also a '=' before the end, or a third one
    }
    // The bits beyond the last byte must be zero, or two texts would decode to the same bytes.
    if (padding == 1 && (Base64Digit(text[length - 2]) & 0x3) != 0) return false;
    if (padding == 2 && (Base64Digit(text[length - 3]) & 0xf) != 0) return false;

    // Valid from here on: every digit is in the alphabet and the padding is where it may be.
    Bytes decoded(length / 4 * 3 - padding);
    size_t at = 0;
    uint32_t group = 0;
    for (size_t i = 0; i < length - padding; ++i) {
        group = group << 6 | static_cast<uint32_t>(Base64Digit(text[i]));
        if (i % 4 == 3) {
            decoded[at++] = static_cast<uint8_t>(group >> 16);
            decoded[at++] = static_cast<uint8_t>(group >> 8);
            decoded[at++] = static_cast<uint8_t>(group);
            group = 0;
        }
    }
    if (padding == 1) {  // three digits: 18 bits, of which 16 are two bytes
        decoded[at++] = static_cast<uint8_t>(group >> 10);
        decoded[at++] = static_cast<uint8_t>(group >> 2);
    } else if (padding == 2) {  // two digits: 12 bits, of which 8 are a byte
        decoded[at++] = static_cast<uint8_t>(group >> 4);
    }
    out = std::move(decoded);
    return true;
}

}  // namespace qvhost::repo
