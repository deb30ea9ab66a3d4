#include "util/Sha256.h"

#include <stdexcept>

#ifdef _WIN32
#include <windows.h>
#include <bcrypt.h>
#else
#include <openssl/evp.h>
#endif

namespace qvhost {

#ifdef _WIN32

namespace {

// One provider for the process; hash objects made from it are reusable
// (BCRYPT_HASH_REUSABLE_FLAG): finishing one starts it over.
BCRYPT_ALG_HANDLE Provider() {
    static const BCRYPT_ALG_HANDLE provider = [] {
        BCRYPT_ALG_HANDLE handle = nullptr;
        if (!BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&handle, BCRYPT_SHA256_ALGORITHM, nullptr,
                                                        BCRYPT_HASH_REUSABLE_FLAG))) {
            throw std::runtime_error("SHA-256 is not available from Windows CNG");
        }
        return handle;
    }();
    return provider;
}

}  // namespace

struct Sha256::State {
    BCRYPT_HASH_HANDLE hash = nullptr;
};

Sha256::Sha256() : state_(std::make_unique<State>()) {
    if (!BCRYPT_SUCCESS(BCryptCreateHash(Provider(), &state_->hash, nullptr, 0, nullptr, 0,
                                         BCRYPT_HASH_REUSABLE_FLAG))) {
        throw std::runtime_error("cannot start a SHA-256 hash");
    }
}

Sha256::~Sha256() { BCryptDestroyHash(state_->hash); }

void Sha256::Update(const void* data, size_t size) {
    auto* bytes = static_cast<UCHAR*>(const_cast<void*>(data));
    while (size > 0) {
        const ULONG piece = static_cast<ULONG>(size > 0x40000000 ? 0x40000000 : size);
        if (!BCRYPT_SUCCESS(BCryptHashData(state_->hash, bytes, piece, 0))) {
            throw std::runtime_error("SHA-256 failed");
        }
        bytes += piece, size -= piece;
    }
}

Sha256Digest Sha256::Final() {
    Sha256Digest digest;
    if (!BCRYPT_SUCCESS(BCryptFinishHash(state_->hash, digest.data(), static_cast<ULONG>(digest.size()), 0))) {
        throw std::runtime_error("SHA-256 failed");
    }
    return digest;
}

#else

struct Sha256::State {
    EVP_MD_CTX* context = nullptr;
};

Sha256::Sha256() : state_(std::make_unique<State>()) {
    state_->context = EVP_MD_CTX_new();
    if (!state_->context || EVP_DigestInit_ex(state_->context, EVP_sha256(), nullptr) != 1) {
        EVP_MD_CTX_free(state_->context);
        throw std::runtime_error("cannot start a SHA-256 hash");
    }
}

Sha256::~Sha256() { EVP_MD_CTX_free(state_->context); }

void Sha256::Update(const void* data, size_t size) {
    if (size && EVP_DigestUpdate(state_->context, data, size) != 1) throw std::runtime_error("SHA-256 failed");
}

Sha256Digest Sha256::Final() {
    Sha256Digest digest;
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(state_->context, digest.data(), &length) != 1 || length != digest.size() ||
        EVP_DigestInit_ex(state_->context, EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("SHA-256 failed");
    }
    return digest;
}

#endif

std::string ToHex(const Sha256Digest& digest) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(64);
    for (uint8_t byte : digest) {
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 15]);
    }
    return text;
}

Sha256Digest Sha256Of(const void* data, size_t size) {
    Sha256 hash;
    hash.Update(data, size);
    return hash.Final();
}

}  // namespace qvhost
