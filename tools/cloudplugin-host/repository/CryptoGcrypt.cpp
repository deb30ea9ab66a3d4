// The repository's cryptographic primitives on libgcrypt: the Windows build's (Debian ships libgcrypt built
// for MinGW-w64, not OpenSSL), and a second Linux build that the crypto tests run against too, so that both
// are held to the same published vectors. The bytes written are the same as with OpenSSL (CryptoOpenSsl.cpp).
//
// The random source is the system's (Windows CNG's BCryptGenRandom; getrandom on Linux), not libgcrypt's
// generator: once that generator has started, libgcrypt polls the system for entropy on every hash or cipher
// it opens, which on Windows (and far more under Wine) costs milliseconds each.
//
// One limit of libgcrypt's scrypt: its block size r is fixed at 8. Every key this tool writes has r = 8; a
// key object with another r (made by hand) is refused by name rather than derived wrongly.
#include <gcrypt.h>

#ifdef _WIN32
#include <windows.h>
#include <bcrypt.h>
#else
#include <sys/random.h>

#include <cerrno>
#endif

#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "repository/Crypto.h"
#include "repository/CryptoBackend.h"

namespace qvhost::repo {

namespace detail {
const char* const kCryptoLibrary = "libgcrypt";
}  // namespace detail

using detail::RequireBuffer;

namespace {

// libgcrypt wants its version checked before any other call, once per process; no secure memory (the keys
// live in ordinary memory elsewhere anyway, and the pool would only limit how many contexts we may hold).
void Initialise() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (!gcry_check_version(GCRYPT_VERSION)) throw std::runtime_error("libgcrypt is older than this build's");
        gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
        gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    });
}

std::string Why(gcry_error_t error) { return gcry_strerror(error); }

struct CipherClose {
    void operator()(gcry_cipher_hd_t handle) const { gcry_cipher_close(handle); }
};
using Cipher = std::unique_ptr<gcry_cipher_handle, CipherClose>;

struct DigestClose {
    void operator()(gcry_md_hd_t handle) const { gcry_md_close(handle); }
};
using Digest = std::unique_ptr<gcry_md_handle, DigestClose>;

// AES-256 in GCM mode, keyed, with `nonce` set and `aad` authenticated.
Cipher StartGcm(const Key256& key, const uint8_t* nonce, const uint8_t* aad, size_t aadSize) {
    Initialise();
    gcry_cipher_hd_t raw = nullptr;
    gcry_error_t error = gcry_cipher_open(&raw, GCRY_CIPHER_AES256, GCRY_CIPHER_MODE_GCM, 0);
    if (error) throw std::runtime_error("cannot start AES-GCM: " + Why(error));
    Cipher cipher(raw);
    if ((error = gcry_cipher_setkey(raw, key.data(), key.size())) ||
        (error = gcry_cipher_setiv(raw, nonce, kNonceSize)) ||
        (aadSize > 0 && (error = gcry_cipher_authenticate(raw, aad, aadSize)))) {
        throw std::runtime_error("cannot start AES-GCM: " + Why(error));
    }
    return cipher;
}

}  // namespace

void RandomBytes(uint8_t* out, size_t size) {
    RequireBuffer(out, size, "the output");
    while (size > 0) {
#ifdef _WIN32
        const ULONG piece = static_cast<ULONG>(size < (1u << 30) ? size : (1u << 30));
        if (!BCRYPT_SUCCESS(BCryptGenRandom(nullptr, out, piece, BCRYPT_USE_SYSTEM_PREFERRED_RNG))) {
            throw std::runtime_error("the random generator failed");
        }
#else
        const ssize_t piece = getrandom(out, size, 0);
        if (piece < 0 && errno == EINTR) continue;
        if (piece <= 0) throw std::runtime_error("the random generator failed");
#endif
        out += piece, size -= static_cast<size_t>(piece);
    }
}

namespace detail {

void GcmEncrypt(const Key256& key, const uint8_t* nonce, const uint8_t* aad, size_t aadSize, const uint8_t* plain,
                size_t size, uint8_t* cipherText, uint8_t* tag) {
    Cipher cipher = StartGcm(key, nonce, aad, aadSize);
    gcry_error_t error = 0;
    if (size > 0) error = gcry_cipher_encrypt(cipher.get(), cipherText, size, plain, size);
    if (!error) error = gcry_cipher_gettag(cipher.get(), tag, kTagSize);
    if (error) throw std::runtime_error("AES-GCM failed: " + Why(error));
}

bool GcmDecrypt(const Key256& key, const uint8_t* nonce, const uint8_t* aad, size_t aadSize,
                const uint8_t* cipherText, size_t size, const uint8_t* tag, uint8_t* plain) {
    Cipher cipher = StartGcm(key, nonce, aad, aadSize);
    if (size > 0) {
        const gcry_error_t error = gcry_cipher_decrypt(cipher.get(), plain, size, cipherText, size);
        if (error) throw std::runtime_error("AES-GCM failed: " + Why(error));
    }
    const gcry_error_t check = gcry_cipher_checktag(cipher.get(), tag, kTagSize);
    if (check && gcry_err_code(check) != GPG_ERR_CHECKSUM) {
        throw std::runtime_error("AES-GCM failed on the tag: " + Why(check));
    }
    return !check;
}

}  // namespace detail

struct KeyedHasher::Context {
    Digest keyed;
};

KeyedHasher::KeyedHasher(const Key256& key) {
    Initialise();
    gcry_md_hd_t raw = nullptr;
    gcry_error_t error = gcry_md_open(&raw, GCRY_MD_SHA256, GCRY_MD_FLAG_HMAC);
    if (error) throw std::runtime_error("cannot start HMAC-SHA-256: " + Why(error));
    Digest keyed(raw);
    if ((error = gcry_md_setkey(raw, key.data(), key.size()))) {
        throw std::runtime_error("cannot key HMAC-SHA-256: " + Why(error));
    }
    keyed_ = new Context{std::move(keyed)};
}

void KeyedHasher::Free(Context* context) { delete context; }

Id KeyedHasher::Hash(const uint8_t* data, size_t size) const {
    RequireBuffer(data, size, "the data");
    if (!keyed_) throw std::logic_error("KeyedHasher used after being moved from");
    // A copy of the keyed state: the pads are already absorbed, and the original stays ready for the next message.
    gcry_md_hd_t raw = nullptr;
    const gcry_error_t error = gcry_md_copy(&raw, keyed_->keyed.get());
    if (error) throw std::runtime_error("cannot copy an HMAC context: " + Why(error));
    Digest mac(raw);
    if (size > 0) gcry_md_write(raw, data, size);
    const unsigned char* digest = gcry_md_read(raw, GCRY_MD_SHA256);
    if (!digest) throw std::runtime_error("HMAC-SHA-256 failed");
    Id id;
    std::memcpy(id.data(), digest, id.size());
    return id;
}

Id Sha256Id(const uint8_t* data, size_t size) {
    RequireBuffer(data, size, "the data");
    Initialise();
    Id id;
    gcry_md_hash_buffer(GCRY_MD_SHA256, id.data(), size > 0 ? data : id.data(), size);
    return id;
}

namespace detail {

Bytes ScryptUnbounded(const std::string& password, const uint8_t* salt, size_t saltSize, uint64_t n, uint32_t r,
                      uint32_t p, size_t outputSize) {
    RequireBuffer(salt, saltSize, "the salt");
    CheckScryptArguments(n, r, p, outputSize);
    if (r != 8) {
        throw std::invalid_argument("this build's scrypt (libgcrypt) takes r = 8 only, not r = " + std::to_string(r));
    }
    if (n > static_cast<uint64_t>(INT32_MAX)) throw std::invalid_argument("scrypt's n is too large for libgcrypt");
    Initialise();
    static const uint8_t nothing = 0;  // libgcrypt wants a pointer even for an empty password or salt
    Bytes out(outputSize);
    const gcry_error_t error =
        gcry_kdf_derive(password.empty() ? &nothing : static_cast<const void*>(password.data()), password.size(),
                        GCRY_KDF_SCRYPT, static_cast<int>(n), saltSize == 0 ? &nothing : salt, saltSize, p,
                        out.size(), out.data());
    if (error) throw std::runtime_error("scrypt failed (out of memory?): " + Why(error));
    return out;
}

}  // namespace detail

}  // namespace qvhost::repo
