// The content-defined chunker: chunk sizes, coverage, independence from how
// the input is read, and cuts that survive an edit.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "repository/Chunker.h"

using qvhost::repo::Chunker;
using qvhost::repo::ChunkerParameters;
using qvhost::repo::GearTable;

namespace {

constexpr size_t kMiB = 1024 * 1024;

// Small chunks, so that a few MiB hold hundreds of them.
constexpr ChunkerParameters kSmall{1024, 4096, 16384};

// The repository derives its table from its key; any well-mixed table will do here.
GearTable MakeGear(uint64_t seed) {
    std::mt19937_64 random(seed);
    GearTable gear{};
    for (auto& entry : gear) {
        entry = random();
    }
    return gear;
}

std::vector<uint8_t> RandomBytes(size_t size, uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<uint8_t> bytes(size);
    for (size_t offset = 0; offset < size; offset += 8) {
        const uint64_t word = random();
        std::memcpy(bytes.data() + offset, &word, std::min<size_t>(8, size - offset));
    }
    return bytes;
}

// 64 MiB of random bytes, made once for the tests that need that much.
const std::vector<uint8_t>& SixtyFourMiB() {
    static const std::vector<uint8_t> bytes = RandomBytes(64 * kMiB, 20240601);
    return bytes;
}

// Cuts `data` as a reader does that gets `nextRead()` more bytes at a time:
// it asks with everything it has from the chunk's start, and reads more while
// the answer is 0.
template <typename NextRead>
std::vector<size_t> ChunkAsRead(const Chunker& chunker, const std::vector<uint8_t>& data, NextRead nextRead) {
    std::vector<size_t> lengths;
    size_t start = 0;
    size_t read = 0;
    for (;;) {
        const bool last = read == data.size();
        const size_t length = chunker.NextBoundary(data.data() + start, read - start, last);
        if (length == 0) {
            if (last) {
                break;
            }
            read = std::min(data.size(), read + nextRead());
            continue;
        }
        if (length > read - start) {
            ADD_FAILURE() << "a chunk of " << length << " bytes where only " << (read - start) << " were given";
            break;
        }
        lengths.push_back(length);
        start += length;
    }
    return lengths;
}

std::vector<size_t> ChunkAll(const Chunker& chunker, const std::vector<uint8_t>& data) {
    return ChunkAsRead(chunker, data, [&] { return data.size(); });
}

// Where each chunk ends, from the start of the input.
std::vector<size_t> CutOffsets(const std::vector<size_t>& lengths) {
    std::vector<size_t> offsets;
    size_t offset = 0;
    for (const size_t length : lengths) {
        offset += length;
        offsets.push_back(offset);
    }
    return offsets;
}

size_t Sum(const std::vector<size_t>& lengths) {
    size_t sum = 0;
    for (const size_t length : lengths) {
        sum += length;
    }
    return sum;
}

TEST(Chunker, ChunkSizesStayBetweenMinimumAndMaximum) {
    const std::vector<uint8_t> data = RandomBytes(4 * kMiB + 123, 1);
    for (const ChunkerParameters& parameters : {kSmall, ChunkerParameters{64, 128, 256}, ChunkerParameters{}}) {
        SCOPED_TRACE(parameters.average);
        const Chunker chunker(MakeGear(7), parameters);
        const std::vector<size_t> lengths = ChunkAll(chunker, data);
        ASSERT_FALSE(lengths.empty());
        for (size_t i = 0; i + 1 < lengths.size(); ++i) {
            ASSERT_GE(lengths[i], parameters.minimum) << "chunk " << i;
            ASSERT_LE(lengths[i], parameters.maximum) << "chunk " << i;
        }
        EXPECT_GE(lengths.back(), 1u);
        EXPECT_LE(lengths.back(), parameters.maximum);
    }
}

TEST(Chunker, ChunksCoverTheInputExactly) {
    const Chunker chunker(MakeGear(7), kSmall);
    // Lengths around the sizes where the chunker changes what it does.
    for (const size_t size : {size_t{0}, size_t{1}, kSmall.minimum - 1, kSmall.minimum, kSmall.minimum + 1,
                              kSmall.average, kSmall.maximum - 1, kSmall.maximum, kSmall.maximum + 1,
                              size_t{3 * kMiB + 17}}) {
        SCOPED_TRACE(size);
        const std::vector<uint8_t> data = RandomBytes(size, size + 3);
        const std::vector<size_t> lengths = ChunkAll(chunker, data);
        EXPECT_EQ(Sum(lengths), size);
        EXPECT_EQ(lengths.empty(), size == 0);
        if (size > 0 && size <= kSmall.minimum) {
            EXPECT_EQ(lengths, std::vector<size_t>{size}) << "too short to be cut: one chunk";
        }
    }
}

TEST(Chunker, ReadsOfAnySizeGiveTheSameChunks) {
    const std::vector<uint8_t> data = RandomBytes(2 * kMiB + 5, 2);
    const Chunker chunker(MakeGear(11), kSmall);
    const std::vector<size_t> whole = ChunkAll(chunker, data);
    ASSERT_GT(whole.size(), 100u);

    for (const size_t readSize : {size_t{4096}, size_t{10000}, size_t{65536}, size_t{1000003}}) {
        EXPECT_EQ(ChunkAsRead(chunker, data, [&] { return readSize; }), whole) << "reads of " << readSize;
    }
    std::mt19937_64 random(3);
    std::uniform_int_distribution<size_t> uneven(1, 3 * kSmall.maximum);
    EXPECT_EQ(ChunkAsRead(chunker, data, [&] { return uneven(random); }), whole) << "reads of uneven sizes";

    // Reads of a few bytes, with chunks small enough to keep the asking cheap.
    const std::vector<uint8_t> few = RandomBytes(256 * 1024, 4);
    const Chunker tiny(MakeGear(11), ChunkerParameters{64, 128, 512});
    const std::vector<size_t> fewWhole = ChunkAll(tiny, few);
    std::uniform_int_distribution<size_t> small(1, 16);
    EXPECT_EQ(ChunkAsRead(tiny, few, [&] { return small(random); }), fewWhole) << "reads of 1 to 16 bytes";
    EXPECT_EQ(ChunkAsRead(tiny, few, [] { return size_t{1}; }), fewWhole) << "reads of single bytes";
}

TEST(Chunker, AnswersZeroUntilItCanTell) {
    const std::vector<uint8_t> data = RandomBytes(kSmall.maximum * 2, 5);
    const Chunker chunker(MakeGear(13), kSmall);
    const size_t cut = chunker.NextBoundary(data.data(), data.size(), false);
    ASSERT_GT(cut, kSmall.minimum);
    ASSERT_LT(cut, kSmall.maximum) << "this data should hold a cut before the maximum";

    for (const size_t available : {size_t{0}, size_t{1}, kSmall.minimum - 1, kSmall.minimum, cut - 1}) {
        EXPECT_EQ(chunker.NextBoundary(data.data(), available, false), 0u) << available << " bytes";
        EXPECT_EQ(chunker.NextBoundary(data.data(), available, true), available) << available << " bytes, the last";
    }
    EXPECT_EQ(chunker.NextBoundary(data.data(), cut, false), cut);
    EXPECT_EQ(chunker.NextBoundary(data.data(), cut + 1, true), cut);
}

TEST(Chunker, AverageChunkSizeOf64MiBIsWithinHalfAndTwiceTheTarget) {
    const std::vector<uint8_t>& data = SixtyFourMiB();
    const Chunker chunker(MakeGear(17));
    const ChunkerParameters& parameters = chunker.parameters();

    const auto started = std::chrono::steady_clock::now();
    std::vector<size_t> lengths;
    for (size_t start = 0; start < data.size();) {
        const size_t length = chunker.NextBoundary(data.data() + start, data.size() - start, true);
        ASSERT_GT(length, 0u);
        lengths.push_back(length);
        start += length;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    ASSERT_EQ(Sum(lengths), data.size());
    const double mean = static_cast<double>(data.size()) / static_cast<double>(lengths.size());
    double squares = 0;
    for (const size_t length : lengths) {
        squares += (static_cast<double>(length) - mean) * (static_cast<double>(length) - mean);
    }
    const auto [smallest, largest] = std::minmax_element(lengths.begin(), lengths.end() - 1);
    std::cout << "[ stats    ] " << lengths.size() << " chunks, mean " << mean / 1024 << " KiB, deviation "
              << std::sqrt(squares / static_cast<double>(lengths.size())) / 1024 << " KiB, smallest "
              << static_cast<double>(*smallest) / 1024 << " KiB, largest " << static_cast<double>(*largest) / 1024
              << " KiB (last one left out), " << static_cast<double>(data.size()) / kMiB / seconds << " MiB/s\n";

    EXPECT_GE(mean, 0.5 * static_cast<double>(parameters.average));
    EXPECT_LE(mean, 2.0 * static_cast<double>(parameters.average));
}

TEST(Chunker, NormalisedCutsKeepMostChunksWithinHalfAndTwiceTheAverage) {
    // A minimum far below the average, so that the sizes show the cut
    // probabilities: with one mask throughout about half the chunks would fall
    // outside [average / 2, 2 * average]; the harder mask before the average
    // and the easier one after it bring nearly nine in ten inside.
    const ChunkerParameters parameters{64, 8192, 65536};
    const std::vector<uint8_t> data = RandomBytes(8 * kMiB, 8);
    const std::vector<size_t> lengths = ChunkAll(Chunker(MakeGear(31), parameters), data);
    ASSERT_GT(lengths.size(), 500u);
    const auto inside = std::count_if(lengths.begin(), lengths.end(), [&](size_t length) {
        return length >= parameters.average / 2 && length <= parameters.average * 2;
    });
    EXPECT_GE(static_cast<double>(inside), 0.8 * static_cast<double>(lengths.size()))
        << inside << " of " << lengths.size() << " chunks";
}

TEST(Chunker, ACutDependsOnTheLast64BytesBeforeIt) {
    // Changing the 33rd byte before a cut changes the hash bits that decide
    // it, so the cut moves; changing the 65th leaves them as they were, so the
    // cut stays unless the change made a new one in between.
    const std::vector<uint8_t> data = RandomBytes(2 * kMiB, 9);
    const Chunker chunker(MakeGear(37), kSmall);
    size_t cuts = 0;
    size_t movedBy33rd = 0;
    size_t keptBy65th = 0;
    size_t start = 0;
    for (const size_t length : ChunkAll(chunker, data)) {
        if (length < kSmall.maximum && length >= kSmall.minimum + 65 && start + kSmall.maximum <= data.size()) {
            ++cuts;
            std::vector<uint8_t> window(data.begin() + static_cast<std::ptrdiff_t>(start),
                                        data.begin() + static_cast<std::ptrdiff_t>(start + kSmall.maximum));
            window[length - 33] ^= 1;
            if (chunker.NextBoundary(window.data(), window.size(), false) != length) {
                ++movedBy33rd;
            }
            window[length - 33] ^= 1;
            window[length - 65] ^= 1;
            if (chunker.NextBoundary(window.data(), window.size(), false) == length) {
                ++keptBy65th;
            }
        }
        start += length;
    }
    ASSERT_GT(cuts, 100u);
    EXPECT_GE(static_cast<double>(movedBy33rd), 0.95 * static_cast<double>(cuts)) << movedBy33rd << " of " << cuts;
    EXPECT_GE(static_cast<double>(keptBy65th), 0.8 * static_cast<double>(cuts)) << keptBy65th << " of " << cuts;
}

TEST(Chunker, DifferentGearTablesCutDifferently) {
    const std::vector<uint8_t> data = RandomBytes(4 * kMiB, 6);
    const std::vector<size_t> one = CutOffsets(ChunkAll(Chunker(MakeGear(1), kSmall), data));
    const std::vector<size_t> other = CutOffsets(ChunkAll(Chunker(MakeGear(2), kSmall), data));
    ASSERT_GT(one.size(), 100u);
    ASSERT_GT(other.size(), 100u);

    std::vector<size_t> shared;
    std::set_intersection(one.begin(), one.end(), other.begin(), other.end(), std::back_inserter(shared));
    // Both end at the end of the input; beyond that a shared cut is a coincidence.
    EXPECT_LT(shared.size(), std::min(one.size(), other.size()) / 10)
        << shared.size() << " of " << one.size() << " and " << other.size() << " cuts are shared";
}

TEST(Chunker, InsertingOneByteAtTheStartReusesAtLeast90PercentOfChunks) {
    const std::vector<uint8_t>& original = SixtyFourMiB();
    std::vector<uint8_t> edited;
    edited.reserve(original.size() + 1);
    edited.push_back(0x5a);
    edited.insert(edited.end(), original.begin(), original.end());

    const Chunker chunker(MakeGear(19));
    const auto chunksOf = [&](const std::vector<uint8_t>& data) {
        std::vector<std::string_view> chunks;
        size_t start = 0;
        for (const size_t length : ChunkAll(chunker, data)) {
            chunks.emplace_back(reinterpret_cast<const char*>(data.data() + start), length);
            start += length;
        }
        return chunks;
    };
    const std::vector<std::string_view> before = chunksOf(original);
    const std::vector<std::string_view> after = chunksOf(edited);
    ASSERT_GT(after.size(), 20u);

    const std::unordered_set<std::string_view> stored(before.begin(), before.end());
    const size_t reused = static_cast<size_t>(
        std::count_if(after.begin(), after.end(), [&](std::string_view chunk) { return stored.count(chunk) > 0; }));
    std::cout << "[ reuse    ] " << reused << " of " << after.size() << " chunks of the edited file were stored\n";
    EXPECT_GE(static_cast<double>(reused), 0.9 * static_cast<double>(after.size()));
    EXPECT_LT(reused, after.size()) << "the first chunk holds the new byte, so it cannot be an old one";
}

TEST(Chunker, AllZeroInputIsStillCutAtTheMaximum) {
    const Chunker chunker(MakeGear(23));
    const ChunkerParameters& parameters = chunker.parameters();
    const std::vector<uint8_t> zeros(2 * parameters.maximum + 1000, 0);
    const std::vector<size_t> lengths = ChunkAll(chunker, zeros);
    EXPECT_EQ(lengths, (std::vector<size_t>{parameters.maximum, parameters.maximum, 1000}));
    // Given no more than the maximum, with more to come, it cuts rather than asking for more.
    EXPECT_EQ(chunker.NextBoundary(zeros.data(), parameters.maximum, false), parameters.maximum);
}

TEST(Chunker, BadParametersAreRefused) {
    const GearTable gear = MakeGear(29);
    const ChunkerParameters refused[] = {
        {63, 128, 256},                          // minimum below 64
        {0, 128, 256},                           // no minimum
        {128, 128, 256},                         // minimum not below the average
        {200, 128, 256},                         // minimum above the average
        {64, 256, 256},                          // average not below the maximum
        {64, 256, 200},                          // maximum below the average
        {64, 192, 1024},                         // average not a power of two
        {64, 1000, 2048},                        // average not a power of two
        {1024, Chunker::kLargestAverage * 2, Chunker::kLargestAverage * 4},  // average above 1 GiB
    };
    for (const ChunkerParameters& parameters : refused) {
        EXPECT_THROW(Chunker(gear, parameters), std::invalid_argument)
            << parameters.minimum << ", " << parameters.average << ", " << parameters.maximum;
    }
    const Chunker smallest(gear, ChunkerParameters{64, 128, 129});
    EXPECT_EQ(smallest.parameters().minimum, 64u);
    EXPECT_EQ(smallest.parameters().average, 128u);
    EXPECT_EQ(smallest.parameters().maximum, 129u);
    EXPECT_NO_THROW(Chunker(gear, ChunkerParameters{1024, Chunker::kLargestAverage, Chunker::kLargestAverage + 1}));
}

}  // namespace
