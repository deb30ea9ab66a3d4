// Throughput of the host tool's SHA-256 engines: each hashes the same 64 MiB
// of pseudo-random bytes several times in one Update; the best run counts.
// Prints MB/s (10^6 bytes per second) and the digest, which must be the same
// for both engines.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "Sha256.h"

namespace {

constexpr size_t kBufferSize = size_t(64) << 20;
constexpr int kRuns = 5;

double BestMegabytesPerSecond(qvhost::Sha256::Engine engine, const std::vector<uint8_t>& buffer,
                              std::string& digest) {
    double bestSeconds = 0;
    for (int run = 0; run <= kRuns; ++run) {  // run 0 warms up and is not counted
        qvhost::Sha256 hash(engine);
        const auto start = std::chrono::steady_clock::now();
        hash.Update(buffer.data(), buffer.size());
        const qvhost::Sha256Digest result = hash.Final();
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        digest = qvhost::ToHex(result);
        if (run > 0 && (bestSeconds == 0 || elapsed.count() < bestSeconds)) bestSeconds = elapsed.count();
    }
    return static_cast<double>(buffer.size()) / bestSeconds / 1e6;
}

}  // namespace

int main() {
    std::vector<uint8_t> buffer(kBufferSize);
    std::mt19937_64 random(1);
    for (uint8_t& byte : buffer) byte = static_cast<uint8_t>(random() >> 56);

    std::printf("SHA-256 over %zu MiB, best of %d runs\n", kBufferSize >> 20, kRuns);
    std::string portableDigest;
    const double portable = BestMegabytesPerSecond(qvhost::Sha256::Engine::Portable, buffer, portableDigest);
    std::printf("  portable:       %8.1f MB/s  %s\n", portable, portableDigest.c_str());

    if (!qvhost::Sha256::HardwareAvailable()) {
        std::printf("  SHA extensions: not available on this processor or in this build\n");
        return 0;
    }
    std::string hardwareDigest;
    const double hardware = BestMegabytesPerSecond(qvhost::Sha256::Engine::Best, buffer, hardwareDigest);
    std::printf("  SHA extensions: %8.1f MB/s  %s\n", hardware, hardwareDigest.c_str());
    std::printf("  speed-up:       %8.2fx\n", hardware / portable);
    if (hardwareDigest != portableDigest) {
        std::fprintf(stderr, "the engines' digests differ\n");
        return 1;
    }
    return 0;
}
