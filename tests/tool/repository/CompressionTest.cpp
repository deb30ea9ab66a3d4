// Compression of chunks: text shrinks and comes back, data that would not shrink by a sixteenth is refused, and
// every frame that is not exactly what the index promised (damaged, forged, oversized, followed by more bytes)
// answers false. Frames are built by hand where the format (RFC 8878) says what must fail.
#include <gtest/gtest.h>

#include <zstd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "repository/Compression.h"
#include "support/TempFolder.h"

namespace repo = qvhost::repo;
using repo::Bytes;

namespace {

constexpr size_t kLimit = 16 << 20;

// A cheap deterministic generator (xorshift64*), fast enough at -O0 under the sanitizers.
class Generator {
public:
    explicit Generator(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ull + 1) {}
    uint64_t Next() {
        state_ ^= state_ >> 12, state_ ^= state_ << 25, state_ ^= state_ >> 27;
        return state_ * 0x2545F4914F6CDD1Dull;
    }

private:
    uint64_t state_;
};

// Text-like data: words of a made-up vocabulary, common ones far more often (as in prose or source code),
// with punctuation, numbers and line breaks.
Bytes TextLike(size_t size, uint64_t seed) {
    Generator generator(seed);
    std::vector<std::string> words(2000);
    for (auto& word : words) {
        const size_t length = 2 + generator.Next() % 9;
        for (size_t i = 0; i < length; ++i) word += static_cast<char>('a' + generator.Next() % 26);
    }
    Bytes text;
    text.reserve(size + 32);
    size_t onLine = 0;
    while (text.size() < size) {
        const uint64_t draw = generator.Next();
        const size_t index = static_cast<size_t>((draw % 2000) * ((draw >> 16) % 2000) / 2000);  // skewed low
        text.insert(text.end(), words[index].begin(), words[index].end());
        if ((draw >> 40) % 29 == 0) {
            const std::string number = std::to_string((draw >> 20) % 100000);
            text.push_back(' ');
            text.insert(text.end(), number.begin(), number.end());
        }
        if (++onLine == 12) {
            text.push_back('.'), text.push_back('\n'), onLine = 0;
        } else {
            text.push_back((draw >> 48) % 11 == 0 ? ',' : ' ');
        }
    }
    text.resize(size);
    return text;
}

Bytes NoiseBytes(size_t size, uint64_t seed) {
    Generator generator(seed);
    Bytes data(size);
    for (auto& byte : data) byte = static_cast<uint8_t>(generator.Next() >> 56);
    return data;
}

// Random symbols from an alphabet of `symbols` byte values: about log2(symbols)/8 of the input after entropy coding.
Bytes FromAlphabet(size_t size, unsigned symbols, uint64_t seed) {
    Generator generator(seed);
    Bytes data(size);
    for (auto& byte : data) byte = static_cast<uint8_t>((generator.Next() >> 32) % symbols);
    return data;
}

Bytes Compressed(const Bytes& data) {
    Bytes frame;
    if (!repo::Compress(data.data(), data.size(), frame)) throw std::runtime_error("test data did not compress");
    return frame;
}

// RFC 8878 §3.1.1.1: where the first block header starts, from the frame header descriptor.
size_t FrameHeaderSize(const Bytes& frame) {
    const uint8_t descriptor = frame.at(4);
    const unsigned sizeFlag = descriptor >> 6;
    const bool singleSegment = (descriptor >> 5) & 1;
    const size_t dictionaryBytes[] = {0, 1, 2, 4};
    const size_t contentSizeBytes[] = {singleSegment ? 1u : 0u, 2, 4, 8};
    return 4 + 1 + (singleSegment ? 0 : 1) + dictionaryBytes[descriptor & 3] + contentSizeBytes[sizeFlag];
}

}  // namespace

TEST(Compression, TextCompressesAndRoundTrips) {
    const Bytes text = TextLike(1 << 20, 1);
    Bytes frame = {1, 2, 3};
    ASSERT_TRUE(repo::Compress(text.data(), text.size(), frame));
    EXPECT_LT(frame.size(), text.size() / 2);
    Bytes back = {4, 5, 6};
    ASSERT_TRUE(repo::Decompress(frame.data(), frame.size(), text.size(), kLimit, back));
    EXPECT_TRUE(back == text);
}

TEST(Compression, EveryLevelRoundTripsAndUnknownLevelsAreRefused) {
    const Bytes text = TextLike(100000, 2);
    for (int level : {-5, 0, 1, 3, 9, 19}) {
        SCOPED_TRACE(level);
        Bytes frame;
        ASSERT_TRUE(repo::Compress(text.data(), text.size(), frame, level));
        Bytes back;
        ASSERT_TRUE(repo::Decompress(frame.data(), frame.size(), text.size(), kLimit, back));
        EXPECT_TRUE(back == text);
    }
    Bytes frame;
    EXPECT_NO_THROW(repo::Compress(text.data(), text.size(), frame, ZSTD_minCLevel()));  // too fast to pay here
    EXPECT_THROW(repo::Compress(text.data(), text.size(), frame, ZSTD_maxCLevel() + 1), std::invalid_argument);
    EXPECT_THROW(repo::Compress(text.data(), text.size(), frame, ZSTD_minCLevel() - 1), std::invalid_argument);
}

TEST(Compression, RandomDataIsRefused) {
    const Bytes data = NoiseBytes(1 << 20, 3);
    Bytes frame = {1, 2, 3};
    EXPECT_FALSE(repo::Compress(data.data(), data.size(), frame));
    EXPECT_TRUE(frame.empty());
}

// 240 equally likely byte values carry 7.9 bits a byte: zstd saves about 1%, less than a sixteenth.
// 128 values carry 7 bits: it saves about 12%, more than a sixteenth.
TEST(Compression, DataThatSavesLessThanASixteenthIsRefused) {
    const Bytes nearlyRandom = FromAlphabet(256 << 10, 240, 4);
    Bytes frame = {1};
    EXPECT_FALSE(repo::Compress(nearlyRandom.data(), nearlyRandom.size(), frame));
    EXPECT_TRUE(frame.empty());

    const Bytes sevenBits = FromAlphabet(256 << 10, 128, 5);
    ASSERT_TRUE(repo::Compress(sevenBits.data(), sevenBits.size(), frame));
    EXPECT_LT(frame.size() * 16, sevenBits.size() * 15);
    Bytes back;
    ASSERT_TRUE(repo::Decompress(frame.data(), frame.size(), sevenBits.size(), kLimit, back));
    EXPECT_TRUE(back == sevenBits);
}

TEST(Compression, TinyInputsAreNotWorthAFrame) {
    Bytes frame = {9};
    EXPECT_FALSE(repo::Compress(nullptr, 0, frame));
    EXPECT_TRUE(frame.empty());
    const Bytes zeros(8, 0);
    EXPECT_FALSE(repo::Compress(zeros.data(), zeros.size(), frame));  // a frame header alone is bigger
    EXPECT_TRUE(frame.empty());
}

TEST(Compression, RefusesDataInsideTheOutputBuffer) {
    Bytes buffer = TextLike(4096, 6);
    EXPECT_THROW(repo::Compress(buffer.data(), buffer.size(), buffer), std::invalid_argument);
    EXPECT_EQ(buffer.size(), 4096u);
}

TEST(Compression, DecompressesFromInsideItsOwnOutputBuffer) {
    const Bytes text = TextLike(50000, 7);
    Bytes buffer = Compressed(text);
    ASSERT_TRUE(repo::Decompress(buffer.data(), buffer.size(), text.size(), kLimit, buffer));
    EXPECT_TRUE(buffer == text);
}

TEST(Compression, EmptyInputAnswersFalse) {
    Bytes out = {1, 2};
    EXPECT_FALSE(repo::Decompress(nullptr, 0, 0, kLimit, out));
    EXPECT_TRUE(out.empty());
    const uint8_t three[3] = {0x28, 0xb5, 0x2f};
    EXPECT_FALSE(repo::Decompress(three, sizeof three, 0, kLimit, out));
}

// Each truncation sits in a buffer of exactly its size, so the sanitizer build catches any read past it.
TEST(Compression, TruncatedFramesAnswerFalse) {
    const Bytes text = TextLike(20000, 8);
    const Bytes frame = Compressed(text);
    for (size_t size = 1; size < frame.size(); ++size) {
        const std::unique_ptr<uint8_t[]> exact(new uint8_t[size]);
        std::memcpy(exact.get(), frame.data(), size);
        Bytes out = {1};
        EXPECT_FALSE(repo::Decompress(exact.get(), size, text.size(), kLimit, out)) << size;
        EXPECT_TRUE(out.empty()) << size;
    }
}

TEST(Compression, DamagedFramesAnswerFalse) {
    const Bytes text = TextLike(200000, 9);
    const Bytes frame = Compressed(text);
    Bytes out;

    Bytes badMagic = frame;
    badMagic[0] ^= 1;
    EXPECT_FALSE(repo::Decompress(badMagic.data(), badMagic.size(), text.size(), kLimit, out));

    // RFC 8878 §3.1.1.2.2: block type 3 is reserved, "corrupted" by definition.
    Bytes reservedBlock = frame;
    reservedBlock[FrameHeaderSize(frame)] |= 0x6;
    EXPECT_FALSE(repo::Decompress(reservedBlock.data(), reservedBlock.size(), text.size(), kLimit, out));

    // A block claiming more than the frame holds.
    Bytes longBlock = frame;
    longBlock[FrameHeaderSize(frame) + 2] = 0xff;
    EXPECT_FALSE(repo::Decompress(longBlock.data(), longBlock.size(), text.size(), kLimit, out));

    // Garbage over the middle of the compressed stream.
    Bytes scribbled = frame;
    std::memset(scribbled.data() + scribbled.size() / 2, 0xff, 64);
    EXPECT_FALSE(repo::Decompress(scribbled.data(), scribbled.size(), text.size(), kLimit, out));
    EXPECT_TRUE(out.empty());

    // Without a checksum a flipped literal can still decode; whatever a flip does, an answer of true is never
    // anything but the expected size (and the sanitizer build sees no stray read).
    for (size_t at = 0; at < frame.size(); at += 97) {
        Bytes flipped = frame;
        flipped[at] ^= 0x10;
        if (repo::Decompress(flipped.data(), flipped.size(), text.size(), kLimit, out)) {
            EXPECT_EQ(out.size(), text.size()) << at;
        } else {
            EXPECT_TRUE(out.empty()) << at;
        }
    }
}

TEST(Compression, AWrongExpectedSizeAnswersFalse) {
    const Bytes text = TextLike(30000, 10);
    const Bytes frame = Compressed(text);
    Bytes out;
    EXPECT_FALSE(repo::Decompress(frame.data(), frame.size(), text.size() - 1, kLimit, out));
    EXPECT_FALSE(repo::Decompress(frame.data(), frame.size(), text.size() + 1, kLimit, out));
    EXPECT_FALSE(repo::Decompress(frame.data(), frame.size(), 0, kLimit, out));
    EXPECT_TRUE(repo::Decompress(frame.data(), frame.size(), text.size(), kLimit, out));
}

TEST(Compression, ASizeOverTheLimitAnswersFalse) {
    const Bytes text = TextLike(30000, 11);
    const Bytes frame = Compressed(text);
    Bytes out;
    EXPECT_FALSE(repo::Decompress(frame.data(), frame.size(), text.size(), text.size() - 1, out));
    EXPECT_TRUE(repo::Decompress(frame.data(), frame.size(), text.size(), text.size(), out));

    // A forged frame declaring 1 TiB (8-byte content size, single segment) over one raw byte: refused by the
    // limit, or by the mismatch with what the index expects, before anything is allocated for it.
    Bytes forged = {0x28, 0xb5, 0x2f, 0xfd, 0xe0, 0, 0, 0, 0, 0, 1, 0, 0, 0x09, 0, 0, 'x'};
    EXPECT_FALSE(repo::Decompress(forged.data(), forged.size(), size_t{1} << 40, kLimit, out));
    EXPECT_FALSE(repo::Decompress(forged.data(), forged.size(), 1, kLimit, out));
    EXPECT_TRUE(out.empty());
    // The same frame declaring its true size is accepted: the refusals above were about the size alone.
    forged[5 + 5] = 0, forged[5] = 1;
    ASSERT_TRUE(repo::Decompress(forged.data(), forged.size(), 1, kLimit, out));
    EXPECT_EQ(out, Bytes{'x'});
}

TEST(Compression, AFrameWithoutItsContentSizeAnswersFalse) {
    const Bytes text = TextLike(30000, 12);
    std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx*)> context(ZSTD_createCCtx(), ZSTD_freeCCtx);
    ASSERT_TRUE(context);
    ASSERT_FALSE(ZSTD_isError(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_contentSizeFlag, 0)));
    Bytes frame(ZSTD_compressBound(text.size()));
    const size_t size = ZSTD_compress2(context.get(), frame.data(), frame.size(), text.data(), text.size());
    ASSERT_FALSE(ZSTD_isError(size));
    frame.resize(size);
    ASSERT_EQ(ZSTD_getFrameContentSize(frame.data(), frame.size()), ZSTD_CONTENTSIZE_UNKNOWN);
    Bytes out;
    EXPECT_FALSE(repo::Decompress(frame.data(), frame.size(), text.size(), kLimit, out));
}

TEST(Compression, TrailingBytesAnswerFalse) {
    const Bytes text = TextLike(30000, 13);
    const Bytes frame = Compressed(text);
    Bytes out;
    Bytes trailing = frame;
    trailing.push_back(0);
    EXPECT_FALSE(repo::Decompress(trailing.data(), trailing.size(), text.size(), kLimit, out));

    Bytes twoFrames = frame;
    twoFrames.insert(twoFrames.end(), frame.begin(), frame.end());
    EXPECT_FALSE(repo::Decompress(twoFrames.data(), twoFrames.size(), text.size(), kLimit, out));
    EXPECT_FALSE(repo::Decompress(twoFrames.data(), twoFrames.size(), 2 * text.size(), kLimit, out));

    // A skippable frame (RFC 8878 §3.1.2) after the data, and one alone.
    const Bytes skippable = {0x50, 0x2a, 0x4d, 0x18, 4, 0, 0, 0, 'm', 'o', 'r', 'e'};
    Bytes withSkippable = frame;
    withSkippable.insert(withSkippable.end(), skippable.begin(), skippable.end());
    EXPECT_FALSE(repo::Decompress(withSkippable.data(), withSkippable.size(), text.size(), kLimit, out));
    EXPECT_FALSE(repo::Decompress(skippable.data(), skippable.size(), 0, kLimit, out));
    EXPECT_TRUE(out.empty());
}

TEST(Compression, RoundTripsEightMebibytes) {
    const Bytes text = TextLike(8 << 20, 14);
    Bytes frame;
    ASSERT_TRUE(repo::Compress(text.data(), text.size(), frame));
    Bytes back;
    ASSERT_TRUE(repo::Decompress(frame.data(), frame.size(), text.size(), kLimit, back));
    EXPECT_TRUE(back == text);
    std::printf("8 MiB of text-like data: %.1f%% after zstd level 3\n", 100.0 * frame.size() / text.size());
}

// 64 MiB in 1 MiB pieces, as a backup compresses its chunks one by one into a buffer it reuses (and then seals
// the result elsewhere: here a copy).
TEST(Compression, ReportsThroughput) {
    constexpr size_t kPiece = 1 << 20, kPieces = 64;
    const Bytes text = TextLike(kPiece * kPieces, 15);
    std::vector<Bytes> frames(kPieces);
    Bytes buffer;
    auto start = std::chrono::steady_clock::now();
    size_t compressedBytes = 0, compressed = 0;
    for (size_t i = 0; i < kPieces; ++i) {
        compressed += repo::Compress(text.data() + i * kPiece, kPiece, buffer);
        frames[i] = buffer;
        compressedBytes += buffer.size();
    }
    const double compressSeconds = testsupport::SecondsSince(start);
    ASSERT_EQ(compressed, kPieces);
    Bytes back;
    size_t matching = 0;
    start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < kPieces; ++i) {
        matching += repo::Decompress(frames[i].data(), frames[i].size(), kPiece, kLimit, back) &&
                    std::memcmp(back.data(), text.data() + i * kPiece, kPiece) == 0;
    }
    const double decompressSeconds = testsupport::SecondsSince(start);
    EXPECT_EQ(matching, kPieces);
    std::printf("zstd level 3 on 64 MiB of text-like data (1 MiB chunks): compress %.0f MiB/s, decompress %.0f MiB/s, "
                "%.1f%% of the size\n",
                kPieces / compressSeconds, kPieces / decompressSeconds, 100.0 * compressedBytes / text.size());
}
