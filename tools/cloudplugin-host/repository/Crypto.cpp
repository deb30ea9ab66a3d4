// The repository's cryptography on OpenSSL 3's libcrypto, through EVP only (the provider API: nothing that
// OpenSSL 3 deprecates). Algorithms are fetched once per process; contexts are made per call or per thread.
#include "repository/Crypto.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <utility>

#include "util/Buffers.h"

namespace qvhost::repo {

namespace {

// OpenSSL's update calls take int lengths: longer inputs go in pieces of this size.
constexpr size_t kPiece = size_t{1} << 30;

// NIST SP 800-38D: at most 2^39 - 256 bits of plaintext under one GCM invocation.
constexpr uint64_t kGcmMaximumPlain = (uint64_t{1} << 36) - 32;

struct CipherContextFree {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
struct MacContextFree {
    void operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }
};
struct KdfContextFree {
    void operator()(EVP_KDF_CTX* context) const { EVP_KDF_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextFree>;
using MacContext = std::unique_ptr<EVP_MAC_CTX, MacContextFree>;
using KdfContext = std::unique_ptr<EVP_KDF_CTX, KdfContextFree>;

// Fetched once: an implicit fetch per call (EVP_aes_256_gcm() and the like) costs a provider lookup each time.
// The objects live for the whole process on purpose.
const EVP_CIPHER* Aes256Gcm() {
    static EVP_CIPHER* const cipher = [] {
        EVP_CIPHER* fetched = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
        if (!fetched) throw std::runtime_error("AES-256-GCM is not available from OpenSSL");
        return fetched;
    }();
    return cipher;
}

EVP_MAC* Hmac() {
    static EVP_MAC* const mac = [] {
        EVP_MAC* fetched = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
        if (!fetched) throw std::runtime_error("HMAC is not available from OpenSSL");
        return fetched;
    }();
    return mac;
}

const EVP_MD* Sha256() {
    static EVP_MD* const md = [] {
        EVP_MD* fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
        if (!fetched) throw std::runtime_error("SHA-256 is not available from OpenSSL");
        return fetched;
    }();
    return md;
}

EVP_KDF* Scrypt() {
    static EVP_KDF* const kdf = [] {
        EVP_KDF* fetched = EVP_KDF_fetch(nullptr, "SCRYPT", nullptr);
        if (!fetched) throw std::runtime_error("scrypt is not available from OpenSSL");
        return fetched;
    }();
    return kdf;
}

void RequireBuffer(const void* data, size_t size, const char* what) {
    if (!data && size > 0) throw std::invalid_argument(std::string(what) + " is null but its size is not 0");
}

CipherContext NewCipherContext() {
    CipherContext context(EVP_CIPHER_CTX_new());
    if (!context) throw std::runtime_error("cannot allocate a cipher context");
    return context;
}

// EVP_EncryptUpdate or EVP_DecryptUpdate.
using CipherUpdate = int (*)(EVP_CIPHER_CTX*, unsigned char*, int*, const unsigned char*, int);

void AddAad(EVP_CIPHER_CTX* context, const uint8_t* aad, size_t aadSize, CipherUpdate update) {
    while (aadSize > 0) {
        const size_t piece = aadSize < kPiece ? aadSize : kPiece;
        int written = 0;
        if (update(context, nullptr, &written, aad, static_cast<int>(piece)) != 1) {
            throw std::runtime_error("AES-GCM failed on the additional data");
        }
        aad += piece, aadSize -= piece;
    }
}

// Runs `update` over the whole input in int-sized pieces; GCM writes exactly as much as it reads.
void Transform(EVP_CIPHER_CTX* context, const uint8_t* in, size_t size, uint8_t* out, CipherUpdate update) {
    while (size > 0) {
        const size_t piece = size < kPiece ? size : kPiece;
        int written = 0;
        if (update(context, out, &written, in, static_cast<int>(piece)) != 1 ||
            written != static_cast<int>(piece)) {
            throw std::runtime_error("AES-GCM failed");
        }
        in += piece, out += piece, size -= piece;
    }
}

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

void RandomBytes(uint8_t* out, size_t size) {
    RequireBuffer(out, size, "the output");
    while (size > 0) {
        const size_t piece = size < kPiece ? size : kPiece;
        if (RAND_bytes(out, static_cast<int>(piece)) != 1) throw std::runtime_error("the random generator failed");
        out += piece, size -= piece;
    }
}

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
        CipherContext context = NewCipherContext();
        if (EVP_EncryptInit_ex2(context.get(), Aes256Gcm(), key.data(), nonce, nullptr) != 1) {
            throw std::runtime_error("cannot start AES-GCM");
        }
        AddAad(context.get(), aad, aadSize, EVP_EncryptUpdate);
        Transform(context.get(), plain, size, cipherText, EVP_EncryptUpdate);
        int written = 0;
        if (EVP_EncryptFinal_ex(context.get(), tag, &written) != 1 || written != 0 ||
            EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(kTagSize), tag) != 1) {
            throw std::runtime_error("AES-GCM failed to finish");
        }
    } catch (...) {
        out.resize(start);
        throw;
    }
}

Bytes Seal(const Key256& key, const uint8_t* plain, size_t size, const uint8_t* aad, size_t aadSize) {
    Bytes out;
    out.reserve(size + kSealOverhead);
    Seal(key, plain, size, aad, aadSize, out);
    return out;
}

bool Open(const Key256& key, const uint8_t* sealed, size_t size, const uint8_t* aad, size_t aadSize, Bytes& plain) {
    RequireBuffer(sealed, size, "the sealed message");
    RequireBuffer(aad, aadSize, "the additional data");
    if (size < kSealOverhead || size - kSealOverhead > kGcmMaximumPlain) {
        OPENSSL_cleanse(plain.data(), plain.size());
        plain.clear();
        return false;
    }
    const uint8_t* const nonce = sealed;
    const uint8_t* const cipherText = sealed + kNonceSize;
    const size_t plainSize = size - kSealOverhead;
    uint8_t tag[kTagSize];
    std::memcpy(tag, cipherText + plainSize, kTagSize);  // the ctrl call wants a writable pointer

    // Decrypting over its own input would need the exact same pointers; a separate buffer is simpler.
    Bytes separate;
    const bool inPlace = Overlaps(sealed, size, plain.data(), plain.capacity());
    Bytes& target = inPlace ? separate : plain;
    target.resize(plainSize);

    // Unauthenticated plaintext must not reach anyone, whatever stops us.
    const auto discard = [&] {
        OPENSSL_cleanse(target.data(), target.size());
        target.clear();
        if (inPlace) plain.clear();  // it held the sealed message, which is not the answer either
    };
    bool authentic = false;
    try {
        CipherContext context = NewCipherContext();
        if (EVP_DecryptInit_ex2(context.get(), Aes256Gcm(), key.data(), nonce, nullptr) != 1) {
            throw std::runtime_error("cannot start AES-GCM");
        }
        AddAad(context.get(), aad, aadSize, EVP_DecryptUpdate);
        Transform(context.get(), cipherText, plainSize, target.data(), EVP_DecryptUpdate);
        if (EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(kTagSize), tag) != 1) {
            throw std::runtime_error("AES-GCM refused the tag");
        }
        int written = 0;
        uint8_t none[16];  // GCM writes nothing at the end
        authentic = EVP_DecryptFinal_ex(context.get(), none, &written) == 1;
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

Id KeyedHash(const Key256& key, const uint8_t* data, size_t size) { return KeyedHasher(key).Hash(data, size); }

struct KeyedHasher::Context {
    MacContext mac;
};

KeyedHasher::KeyedHasher(const Key256& key) {
    MacContext mac(EVP_MAC_CTX_new(Hmac()));
    if (!mac) throw std::runtime_error("cannot allocate an HMAC context");
    char digest[] = "SHA256";
    const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                     OSSL_PARAM_construct_end()};
    if (EVP_MAC_init(mac.get(), key.data(), key.size(), parameters) != 1) {
        throw std::runtime_error("cannot key HMAC-SHA-256");
    }
    keyed_ = new Context{std::move(mac)};
}

KeyedHasher::~KeyedHasher() { delete keyed_; }

KeyedHasher::KeyedHasher(KeyedHasher&& other) noexcept : keyed_(std::exchange(other.keyed_, nullptr)) {}

KeyedHasher& KeyedHasher::operator=(KeyedHasher&& other) noexcept {
    if (this != &other) {
        delete keyed_;
        keyed_ = std::exchange(other.keyed_, nullptr);
    }
    return *this;
}

Id KeyedHasher::Hash(const uint8_t* data, size_t size) const {
    RequireBuffer(data, size, "the data");
    if (!keyed_) throw std::logic_error("KeyedHasher used after being moved from");
    // A copy of the keyed state: the inner and outer pads are already absorbed, and the original stays
    // ready for the next message whatever happens to this one.
    MacContext mac(EVP_MAC_CTX_dup(keyed_->mac.get()));
    if (!mac) throw std::runtime_error("cannot copy an HMAC context");
    Id id;
    size_t written = 0;
    if (EVP_MAC_update(mac.get(), data, size) != 1 || EVP_MAC_final(mac.get(), id.data(), &written, id.size()) != 1 ||
        written != id.size()) {
        throw std::runtime_error("HMAC-SHA-256 failed");
    }
    return id;
}

Id Sha256Id(const uint8_t* data, size_t size) {
    RequireBuffer(data, size, "the data");
    Id id;
    unsigned int written = 0;
    if (EVP_Digest(data, size, id.data(), &written, Sha256(), nullptr) != 1 || written != id.size()) {
        throw std::runtime_error("SHA-256 failed");
    }
    return id;
}

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
    OPENSSL_cleanse(derived.data(), derived.size());
    return key;
}

namespace detail {

Bytes ScryptUnbounded(const std::string& password, const uint8_t* salt, size_t saltSize, uint64_t n, uint32_t r,
                      uint32_t p, size_t outputSize) {
    RequireBuffer(salt, saltSize, "the salt");
    if (n < 2 || !IsPowerOfTwo(n)) throw std::invalid_argument("scrypt's n must be a power of two above 1");
    if (r == 0 || p == 0 || uint64_t{r} * p >= (uint64_t{1} << 30)) {
        throw std::invalid_argument("scrypt's r and p must be positive with r·p below 2^30");
    }
    if (16 * uint64_t{r} < 64 && n >= (uint64_t{1} << (16 * r))) {
        throw std::invalid_argument("scrypt's n must be below 2^(16r)");
    }
    if (outputSize == 0) throw std::invalid_argument("scrypt's output must not be empty");

    KdfContext context(EVP_KDF_CTX_new(Scrypt()));
    if (!context) throw std::runtime_error("cannot allocate a scrypt context");
    // OpenSSL refuses anything above its maxmem (32 MiB unless told): tell it exactly what these parameters take.
    uint64_t maxmem = KdfParameters{n, r, p, {}}.MemoryBytes();
    // OpenSSL wants a pointer even for an empty salt (a string's data() is never null).
    static uint8_t nothing = 0;
    void* passwordData = const_cast<char*>(password.data());
    void* saltData = saltSize == 0 ? &nothing : const_cast<uint8_t*>(salt);
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, passwordData, password.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, saltData, saltSize),
        OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_N, &n),
        OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_R, &r),
        OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_P, &p),
        OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_MAXMEM, &maxmem),
        OSSL_PARAM_construct_end()};
    Bytes out(outputSize);
    if (EVP_KDF_derive(context.get(), out.data(), out.size(), parameters) != 1) {
        throw std::runtime_error("scrypt failed (out of memory?)");
    }
    return out;
}

}  // namespace detail

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
    if (groups > (std::string().max_size() - 1) / 4) throw std::invalid_argument("too much data for base64");
    // EVP_EncodeBlock takes an int and writes a terminating NUL: whole groups of 3 bytes per call.
    constexpr size_t kChunk = 3 * (size_t{1} << 28);
    std::string text(groups * 4 + 1, '\0');
    size_t at = 0;
    while (size > 0) {
        const size_t piece = size < kChunk ? size : kChunk;
        const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[at]), data, static_cast<int>(piece));
        if (written < 0) throw std::runtime_error("base64 encoding failed");
        at += static_cast<size_t>(written), data += piece, size -= piece;
    }
    text.resize(at);
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

    Bytes decoded(length / 4 * 3);
    constexpr size_t kChunk = 4 * (size_t{1} << 28);
    size_t at = 0;
    for (size_t from = 0; from < length;) {
        const size_t piece = length - from < kChunk ? length - from : kChunk;
        const int written = EVP_DecodeBlock(decoded.data() + at, reinterpret_cast<const unsigned char*>(&text[from]),
                                            static_cast<int>(piece));
        if (written < 0 || static_cast<size_t>(written) != piece / 4 * 3) return false;
        at += static_cast<size_t>(written), from += piece;
    }
    decoded.resize(decoded.size() - padding);  // EVP_DecodeBlock writes the padding as zero bytes
    out = std::move(decoded);
    return true;
}

}  // namespace qvhost::repo
