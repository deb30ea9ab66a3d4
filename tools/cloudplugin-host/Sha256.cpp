#include "Sha256.h"

#include <algorithm>
#include <cstring>

// The SHA extensions engine exists on x86-64 builds only. GCC and Clang
// compile its functions for the extensions with a per-function target
// attribute; MSVC accepts the intrinsics anywhere.
#if (defined(__x86_64__) || defined(_M_X64)) && !defined(_M_ARM64EC)
#define QVHOST_SHA256_X86 1
#include <immintrin.h>
#if defined(__GNUC__) || defined(__clang__)
#include <cpuid.h>
#define QVHOST_SHA_TARGET __attribute__((target("sha,sse4.1")))
#else
#include <intrin.h>
#define QVHOST_SHA_TARGET
#endif
#else
#define QVHOST_SHA256_X86 0
#endif

namespace qvhost {

namespace {

// The first 32 bits of the fractional part of the cube root of each of the first
// 64 primes (FIPS 180-4, 4.2.2).
alignas(16) constexpr uint32_t kRoundConstants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

// FIPS 180-4, 5.3.3.
constexpr uint32_t kInitialState[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                       0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

// ---- Portable engine -------------------------------------------------------

inline uint32_t RotateRight(uint32_t value, int bits) { return (value >> bits) | (value << (32 - bits)); }

inline uint32_t LoadBigEndian(const uint8_t* bytes) {
    return (uint32_t(bytes[0]) << 24) | (uint32_t(bytes[1]) << 16) | (uint32_t(bytes[2]) << 8) | uint32_t(bytes[3]);
}

inline uint32_t BigSigma0(uint32_t x) { return RotateRight(x, 2) ^ RotateRight(x, 13) ^ RotateRight(x, 22); }
inline uint32_t BigSigma1(uint32_t x) { return RotateRight(x, 6) ^ RotateRight(x, 11) ^ RotateRight(x, 25); }
inline uint32_t SmallSigma0(uint32_t x) { return RotateRight(x, 7) ^ RotateRight(x, 18) ^ (x >> 3); }
inline uint32_t SmallSigma1(uint32_t x) { return RotateRight(x, 17) ^ RotateRight(x, 19) ^ (x >> 10); }
// Ch and Maj in forms with one operation fewer than the textbook ones.
inline uint32_t Choose(uint32_t e, uint32_t f, uint32_t g) { return g ^ (e & (f ^ g)); }
inline uint32_t Majority(uint32_t a, uint32_t b, uint32_t c) { return (a & b) | (c & (a | b)); }

// One round without moving the eight working variables: the caller rotates
// their roles instead, so only d and h change (d becomes the new e, h the
// new a).
inline void Round(uint32_t a, uint32_t b, uint32_t c, uint32_t& d, uint32_t e, uint32_t f, uint32_t g,
                  uint32_t& h, uint32_t constantPlusWord) {
    const uint32_t t1 = h + BigSigma1(e) + Choose(e, f, g) + constantPlusWord;
    const uint32_t t2 = BigSigma0(a) + Majority(a, b, c);
    d += t1;
    h = t1 + t2;
}

void CompressPortable(uint32_t* state, const uint8_t* blocks, size_t count) {
    for (; count > 0; --count, blocks += 64) {
        // The message schedule as a ring of its last 16 words.
        uint32_t w[16];
        for (int i = 0; i < 16; ++i) w[i] = LoadBigEndian(blocks + 4 * i);

        uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
        uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
        for (int t = 0; t < 64; t += 16) {
            if (t > 0) {
                // W[t+i] = s1(W[t+i-2]) + W[t+i-7] + s0(W[t+i-15]) + W[t+i-16], in
                // place: the slots already rewritten hold this group's words,
                // the later ones still the previous group's. Written out so
                // that every index is a constant and w can live in registers.
                w[0] += SmallSigma1(w[14]) + w[9] + SmallSigma0(w[1]);
                w[1] += SmallSigma1(w[15]) + w[10] + SmallSigma0(w[2]);
                w[2] += SmallSigma1(w[0]) + w[11] + SmallSigma0(w[3]);
                w[3] += SmallSigma1(w[1]) + w[12] + SmallSigma0(w[4]);
                w[4] += SmallSigma1(w[2]) + w[13] + SmallSigma0(w[5]);
                w[5] += SmallSigma1(w[3]) + w[14] + SmallSigma0(w[6]);
                w[6] += SmallSigma1(w[4]) + w[15] + SmallSigma0(w[7]);
                w[7] += SmallSigma1(w[5]) + w[0] + SmallSigma0(w[8]);
                w[8] += SmallSigma1(w[6]) + w[1] + SmallSigma0(w[9]);
                w[9] += SmallSigma1(w[7]) + w[2] + SmallSigma0(w[10]);
                w[10] += SmallSigma1(w[8]) + w[3] + SmallSigma0(w[11]);
                w[11] += SmallSigma1(w[9]) + w[4] + SmallSigma0(w[12]);
                w[12] += SmallSigma1(w[10]) + w[5] + SmallSigma0(w[13]);
                w[13] += SmallSigma1(w[11]) + w[6] + SmallSigma0(w[14]);
                w[14] += SmallSigma1(w[12]) + w[7] + SmallSigma0(w[15]);
                w[15] += SmallSigma1(w[13]) + w[8] + SmallSigma0(w[0]);
            }
            const uint32_t* k = kRoundConstants + t;
            Round(a, b, c, d, e, f, g, h, k[0] + w[0]);
            Round(h, a, b, c, d, e, f, g, k[1] + w[1]);
            Round(g, h, a, b, c, d, e, f, k[2] + w[2]);
            Round(f, g, h, a, b, c, d, e, k[3] + w[3]);
            Round(e, f, g, h, a, b, c, d, k[4] + w[4]);
            Round(d, e, f, g, h, a, b, c, k[5] + w[5]);
            Round(c, d, e, f, g, h, a, b, k[6] + w[6]);
            Round(b, c, d, e, f, g, h, a, k[7] + w[7]);
            Round(a, b, c, d, e, f, g, h, k[8] + w[8]);
            Round(h, a, b, c, d, e, f, g, k[9] + w[9]);
            Round(g, h, a, b, c, d, e, f, k[10] + w[10]);
            Round(f, g, h, a, b, c, d, e, k[11] + w[11]);
            Round(e, f, g, h, a, b, c, d, k[12] + w[12]);
            Round(d, e, f, g, h, a, b, c, k[13] + w[13]);
            Round(c, d, e, f, g, h, a, b, k[14] + w[14]);
            Round(b, c, d, e, f, g, h, a, k[15] + w[15]);
        }
        state[0] += a, state[1] += b, state[2] += c, state[3] += d;
        state[4] += e, state[5] += f, state[6] += g, state[7] += h;
    }
}

// ---- SHA extensions engine -------------------------------------------------

#if QVHOST_SHA256_X86

// The instructions keep the state as two vectors, ABEF and CDGH (A in the
// highest lane), and take the message words with W[t] in the lowest lane.

// Four rounds: the sums of constants and words go in two at a time (the
// instruction reads the low two lanes), and each call swaps the roles of
// the two state vectors, so after two calls they are back in place.
QVHOST_SHA_TARGET inline void FourRounds(__m128i& abef, __m128i& cdgh, __m128i words, int t) {
    __m128i sums = _mm_add_epi32(words, _mm_load_si128(reinterpret_cast<const __m128i*>(kRoundConstants + t)));
    cdgh = _mm_sha256rnds2_epu32(cdgh, abef, sums);
    sums = _mm_shuffle_epi32(sums, 0x0E);  // lanes 2 and 3 down to 0 and 1
    abef = _mm_sha256rnds2_epu32(abef, cdgh, sums);
}

// W[t..t+3] from the four groups of words before it, oldest first.
QVHOST_SHA_TARGET inline __m128i NextWords(__m128i minus16, __m128i minus12, __m128i minus8, __m128i minus4) {
    // W[t-16] + s0(W[t-15]), then + W[t-7], then + s1(W[t-2]).
    __m128i sum = _mm_sha256msg1_epu32(minus16, minus12);
    sum = _mm_add_epi32(sum, _mm_alignr_epi8(minus4, minus8, 4));
    return _mm_sha256msg2_epu32(sum, minus4);
}

QVHOST_SHA_TARGET void CompressHardware(uint32_t* state, const uint8_t* blocks, size_t count) {
    // Byte order: big-endian words in, one 32-bit lane each.
    const __m128i byteSwap = _mm_set_epi64x(0x0c0d0e0f08090a0bLL, 0x0405060700010203LL);

    // {A,B,C,D},{E,F,G,H} as stored -> ABEF, CDGH.
    __m128i abcd = _mm_loadu_si128(reinterpret_cast<const __m128i*>(state));
    __m128i efgh = _mm_loadu_si128(reinterpret_cast<const __m128i*>(state + 4));
    abcd = _mm_shuffle_epi32(abcd, 0xB1);                 // lanes B A D C
    efgh = _mm_shuffle_epi32(efgh, 0x1B);                 // lanes H G F E
    __m128i abef = _mm_alignr_epi8(abcd, efgh, 8);        // lanes F E B A
    __m128i cdgh = _mm_blend_epi16(efgh, abcd, 0xF0);     // lanes H G D C

    for (; count > 0; --count, blocks += 64) {
        const __m128i savedAbef = abef;
        const __m128i savedCdgh = cdgh;

        __m128i w0 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(blocks)), byteSwap);
        __m128i w1 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(blocks + 16)), byteSwap);
        __m128i w2 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(blocks + 32)), byteSwap);
        __m128i w3 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(blocks + 48)), byteSwap);
        FourRounds(abef, cdgh, w0, 0);
        FourRounds(abef, cdgh, w1, 4);
        FourRounds(abef, cdgh, w2, 8);
        FourRounds(abef, cdgh, w3, 12);
        for (int t = 16; t < 64; t += 16) {
            w0 = NextWords(w0, w1, w2, w3);
            FourRounds(abef, cdgh, w0, t);
            w1 = NextWords(w1, w2, w3, w0);
            FourRounds(abef, cdgh, w1, t + 4);
            w2 = NextWords(w2, w3, w0, w1);
            FourRounds(abef, cdgh, w2, t + 8);
            w3 = NextWords(w3, w0, w1, w2);
            FourRounds(abef, cdgh, w3, t + 12);
        }

        abef = _mm_add_epi32(abef, savedAbef);
        cdgh = _mm_add_epi32(cdgh, savedCdgh);
    }

    // ABEF, CDGH -> {A,B,C,D},{E,F,G,H}.
    const __m128i feba = _mm_shuffle_epi32(abef, 0x1B);   // lanes A B E F
    const __m128i dchg = _mm_shuffle_epi32(cdgh, 0xB1);   // lanes G H C D
    abcd = _mm_blend_epi16(feba, dchg, 0xF0);             // lanes A B C D
    efgh = _mm_alignr_epi8(dchg, feba, 8);                // lanes E F G H
    _mm_storeu_si128(reinterpret_cast<__m128i*>(state), abcd);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(state + 4), efgh);
}

bool DetectHardware() {
    // CPUID leaf 1: ECX bit 9 SSSE3, bit 19 SSE4.1; leaf 7 subleaf 0: EBX bit 29 SHA.
    constexpr unsigned kSsse3 = 1u << 9, kSse41 = 1u << 19, kSha = 1u << 29;
#if defined(__GNUC__) || defined(__clang__)
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return false;
    const unsigned leaf1Ecx = ecx;
    if (!__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) return false;  // false when leaf 7 is missing
    const unsigned leaf7Ebx = ebx;
#else
    int registers[4] = {0, 0, 0, 0};
    __cpuid(registers, 0);
    if (registers[0] < 7) return false;
    __cpuidex(registers, 1, 0);
    const unsigned leaf1Ecx = static_cast<unsigned>(registers[2]);
    __cpuidex(registers, 7, 0);
    const unsigned leaf7Ebx = static_cast<unsigned>(registers[1]);
#endif
    return (leaf1Ecx & kSsse3) && (leaf1Ecx & kSse41) && (leaf7Ebx & kSha);
}

#endif  // QVHOST_SHA256_X86

}  // namespace

bool Sha256::HardwareAvailable() {
#if QVHOST_SHA256_X86
    static const bool available = DetectHardware();
    return available;
#else
    return false;
#endif
}

Sha256::Sha256(Engine engine) : compress_(CompressPortable), usesHardware_(false) {
#if QVHOST_SHA256_X86
    if (engine == Engine::Best && HardwareAvailable()) {
        compress_ = CompressHardware;
        usesHardware_ = true;
    }
#else
    (void)engine;
#endif
    Reset();
}

void Sha256::Reset() {
    std::memcpy(state_, kInitialState, sizeof state_);
    pendingSize_ = 0;
    totalBytes_ = 0;
}

void Sha256::Update(const void* data, size_t size) {
    if (size == 0) return;  // data may be null then
    const auto* bytes = static_cast<const uint8_t*>(data);
    totalBytes_ += size;
    if (pendingSize_ > 0) {
        const size_t take = std::min(size, sizeof pending_ - pendingSize_);
        std::memcpy(pending_ + pendingSize_, bytes, take);
        pendingSize_ += take, bytes += take, size -= take;
        if (pendingSize_ < sizeof pending_) return;
        compress_(state_, pending_, 1);
        pendingSize_ = 0;
    }
    // Whole blocks straight from the input, in one call so the engine can
    // keep its state in registers between them.
    const size_t blocks = size / 64;
    if (blocks > 0) compress_(state_, bytes, blocks);
    bytes += blocks * 64, size -= blocks * 64;
    if (size > 0) std::memcpy(pending_, bytes, size);
    pendingSize_ = size;
}

Sha256Digest Sha256::Final() {
    // Padding: 0x80, zeros up to 56 bytes into a block, then the message
    // length in bits as a big-endian 64-bit number (modulo 2^64).
    const uint64_t bitLength = totalBytes_ * 8;
    uint8_t tail[128] = {};
    std::memcpy(tail, pending_, pendingSize_);
    tail[pendingSize_] = 0x80;
    const size_t tailSize = pendingSize_ < 56 ? 64 : 128;
    for (int i = 0; i < 8; ++i) tail[tailSize - 1 - i] = static_cast<uint8_t>(bitLength >> (8 * i));
    compress_(state_, tail, tailSize / 64);

    Sha256Digest digest;
    for (int i = 0; i < 8; ++i) {
        digest[4 * i] = static_cast<uint8_t>(state_[i] >> 24);
        digest[4 * i + 1] = static_cast<uint8_t>(state_[i] >> 16);
        digest[4 * i + 2] = static_cast<uint8_t>(state_[i] >> 8);
        digest[4 * i + 3] = static_cast<uint8_t>(state_[i]);
    }
    Reset();
    return digest;
}

std::string ToHex(const Sha256Digest& digest) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * digest.size());
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
