// The repository's cryptographic primitives on OpenSSL 3's libcrypto, through EVP only (the provider API:
// nothing that OpenSSL 3 deprecates). Algorithms are fetched once per process; contexts are made per call or
// per thread. The Windows build has the same on libgcrypt (CryptoGcrypt.cpp).
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "repository/Crypto.h"
#include "repository/CryptoBackend.h"

namespace qvhost::repo {

namespace detail {
const char* const kCryptoLibrary = "OpenSSL";
}  // namespace detail

using detail::RequireBuffer;

namespace {

// OpenSSL's update calls take int lengths: longer inputs go in pieces of this size.
constexpr size_t kPiece = size_t{1} << 30;

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

}  // namespace

void RandomBytes(uint8_t* out, size_t size) {
    RequireBuffer(out, size, "the output");
    while (size > 0) {
        const size_t piece = size < kPiece ? size : kPiece;
        if (RAND_bytes(out, static_cast<int>(piece)) != 1) throw std::runtime_error("the random generator failed");
        out += piece, size -= piece;
    }
}

namespace detail {

void GcmEncrypt(const Key256& key, const uint8_t* nonce, const uint8_t* aad, size_t aadSize, const uint8_t* plain,
                size_t size, uint8_t* cipherText, uint8_t* tag) {
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
}

bool GcmDecrypt(const Key256& key, const uint8_t* nonce, const uint8_t* aad, size_t aadSize,
                const uint8_t* cipherText, size_t size, const uint8_t* tag, uint8_t* plain) {
    CipherContext context = NewCipherContext();
    if (EVP_DecryptInit_ex2(context.get(), Aes256Gcm(), key.data(), nonce, nullptr) != 1) {
        throw std::runtime_error("cannot start AES-GCM");
    }
    AddAad(context.get(), aad, aadSize, EVP_DecryptUpdate);
    Transform(context.get(), cipherText, size, plain, EVP_DecryptUpdate);
    uint8_t expected[kTagSize];
    std::memcpy(expected, tag, kTagSize);  // the ctrl call wants a writable pointer
    if (EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(kTagSize), expected) != 1) {
        throw std::runtime_error("AES-GCM refused the tag");
    }
    int written = 0;
    uint8_t none[16];  // GCM writes nothing at the end
    return EVP_DecryptFinal_ex(context.get(), none, &written) == 1;
}

}  // namespace detail

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

void KeyedHasher::Free(Context* context) { delete context; }

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

namespace detail {

Bytes ScryptUnbounded(const std::string& password, const uint8_t* salt, size_t saltSize, uint64_t n, uint32_t r,
                      uint32_t p, size_t outputSize) {
    RequireBuffer(salt, saltSize, "the salt");
    detail::CheckScryptArguments(n, r, p, outputSize);

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

}  // namespace qvhost::repo
