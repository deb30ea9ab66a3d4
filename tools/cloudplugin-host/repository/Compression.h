// Compression of chunks before they are sealed, with zstd: fast at low levels, and one frame carries its content
// size, so a damaged or forged frame is caught before we allocate for it.
//
// Frames are read back from untrusted storage: the decompressor takes exactly one frame of the size the caller
// expects (from the authenticated index) and answers false for anything else instead of throwing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <streambuf>

#include "repository/Crypto.h"

namespace qvhost::repo {

// Compresses `size` bytes into `out` (replacing its content) with zstd at `level` (default 3: fast, most of the
// gain). Answers false, with `out` cleared, when it does not pay: the result would not be smaller than 15/16 of
// the input (random or already compressed data is stored as it is). Reuses one compression context per thread.
// Throws std::invalid_argument for a level zstd does not have or `data` inside `out`. Reuse `out` on hot paths:
// zstd is given 15/16 of the input as room, which a fresh vector must first allocate and zero.
bool Compress(const uint8_t* data, size_t size, Bytes& out, int level = 3);

// Decompresses one frame of exactly `expectedSize` bytes (<= `limit`) into `out`; false (out cleared) for
// anything else: an empty input, a damaged frame, a frame whose declared content size differs, a size over the
// limit (checked before allocating), trailing bytes. `data` may lie inside `out`.
bool Decompress(const uint8_t* data, size_t size, size_t expectedSize, size_t limit, Bytes& out);

// One frame decompressed as it is read, for a reader that parses as it
// goes (a snapshot's JSON): at most a buffer of the frame is ever held,
// whatever the frame inflates to. Reading past `limit` bytes, a damaged
// frame or bytes after the frame end the stream with the stream's failure
// (failed() then says so).
class DecompressingBuffer : public std::streambuf {
public:
    DecompressingBuffer(const uint8_t* data, size_t size, uint64_t limit);
    ~DecompressingBuffer() override;
    DecompressingBuffer(const DecompressingBuffer&) = delete;
    DecompressingBuffer& operator=(const DecompressingBuffer&) = delete;

    bool failed() const { return failed_; }
    uint64_t produced() const { return produced_; }

protected:
    int_type underflow() override;

private:
    struct Context;
    std::unique_ptr<Context> context_;
    const uint8_t* data_;
    size_t size_;
    size_t consumed_ = 0;
    uint64_t limit_;
    uint64_t produced_ = 0;
    bool failed_ = false;
    bool ended_ = false;
    char buffer_[64 * 1024];
};

}  // namespace qvhost::repo
