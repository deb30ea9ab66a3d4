// Content-defined chunking: where a stream of bytes is cut into the chunks
// that the repository stores once each.
//
// A cut depends only on the bytes just before it (a gear hash in the FastCDC
// style), so an insertion or deletion moves the cuts near it and leaves the
// others where they were: the unchanged chunks of an edited file are found
// again. The gear table comes from the repository key, so that the chunk
// sizes do not tell an observer which known file was stored.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace qvhost::repo {

using GearTable = std::array<uint64_t, 256>;

struct ChunkerParameters {
    size_t minimum = 512 * 1024;
    size_t average = 1024 * 1024;  // a power of two
    size_t maximum = 8 * 1024 * 1024;
};

class Chunker {
public:
    // The largest average taken: its harder mask needs log2(average) + 2 bits
    // from the 32 high bits of the hash.
    static constexpr size_t kLargestAverage = size_t{1} << 30;

    // Throws std::invalid_argument unless 64 <= minimum < average < maximum
    // and average is a power of two no larger than kLargestAverage.
    explicit Chunker(const GearTable& gear, ChunkerParameters parameters = {});

    // The length of the chunk that starts at data[0]. `size` bytes are
    // available; `last` says the input ends after them.
    //
    // Answers 0 when it cannot tell yet (no cut found, size < maximum and not
    // last): the caller reads more and asks again with the same start; the
    // answer never depends on how much was available beyond the cut.
    // Otherwise answers a length in [1, maximum], never below minimum unless
    // `last` and fewer bytes remain (then the rest of the input, and 0 for no
    // input at all).
    size_t NextBoundary(const uint8_t* data, size_t size, bool last) const;

    const ChunkerParameters& parameters() const { return parameters_; }

private:
    GearTable gear_;
    ChunkerParameters parameters_;
    uint64_t hardMask_;  // before `average`: cuts are rarer there
    uint64_t easyMask_;  // after it: cuts come sooner
};

}  // namespace qvhost::repo
