// Content-defined chunking with a gear hash and normalised cut probabilities
// (FastCDC, level 2).
#include "repository/Chunker.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace qvhost::repo {

namespace {

unsigned Log2(size_t powerOfTwo) {
    unsigned log = 0;
    while ((size_t{1} << log) < powerOfTwo) {
        ++log;
    }
    return log;
}

// `bits` one-bits spread evenly over the 32 high bits. After `h = (h << 1) + g`
// bit k of the hash depends on the last k + 1 bytes only: the high half is
// where every bit reaches back at least 33 bytes, and spreading the bits (as
// FastCDC does) makes the tested bits reach back over lengths from 33 to 64.
uint64_t SpreadMask(unsigned bits) {
    uint64_t mask = 0;
    for (unsigned i = 0; i < bits; ++i) {
        mask |= uint64_t{1} << (63 - i * 32 / bits);
    }
    return mask;
}

}  // namespace

Chunker::Chunker(const GearTable& gear, ChunkerParameters parameters) : gear_(gear), parameters_(parameters) {
    const auto describe = [&] {
        return " (minimum " + std::to_string(parameters.minimum) + ", average " + std::to_string(parameters.average) +
               ", maximum " + std::to_string(parameters.maximum) + ")";
    };
    if (parameters.minimum < 64) {
        throw std::invalid_argument("the minimum chunk size must be at least 64 bytes" + describe());
    }
    if (!(parameters.minimum < parameters.average && parameters.average < parameters.maximum)) {
        throw std::invalid_argument("chunk sizes must grow from minimum to average to maximum" + describe());
    }
    if ((parameters.average & (parameters.average - 1)) != 0) {
        throw std::invalid_argument("the average chunk size must be a power of two" + describe());
    }
    if (parameters.average > kLargestAverage) {
        throw std::invalid_argument("the average chunk size must be at most 1 GiB" + describe());
    }
    // Two bits more than the average asks for before it, two fewer after:
    // chunk sizes gather around the average instead of spreading out
    // geometrically.
    const unsigned bits = Log2(parameters.average);
    hardMask_ = SpreadMask(bits + 2);
    easyMask_ = SpreadMask(bits - 2);
}

size_t Chunker::NextBoundary(const uint8_t* data, size_t size, bool last) const {
    const size_t end = std::min(size, parameters_.maximum);
    if (end <= parameters_.minimum) {
        // Too short to hold a cut; minimum < maximum, so end == size here.
        return last ? end : 0;
    }
    // The first `minimum` bytes cannot hold a cut, so they are not hashed at
    // all; the hash starts over at every chunk, which keeps the cuts
    // independent of how the input was read.
    uint64_t hash = 0;
    size_t i = parameters_.minimum;
    const size_t normal = std::min(end, parameters_.average);
    const uint64_t* const gear = gear_.data();
    for (const uint64_t mask = hardMask_; i < normal; ++i) {
        hash = (hash << 1) + gear[data[i]];
        if ((hash & mask) == 0) {
            return i + 1;
        }
    }
    for (const uint64_t mask = easyMask_; i < end; ++i) {
        hash = (hash << 1) + gear[data[i]];
        if ((hash & mask) == 0) {
            return i + 1;
        }
    }
    if (end == parameters_.maximum || last) {
        return end;
    }
    return 0;
}

}  // namespace qvhost::repo
