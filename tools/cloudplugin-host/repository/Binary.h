// Little-endian records: a writer that appends, and a reader that checks
// every length against what is left before it reads, so that a record from
// storage can never make it read out of bounds or allocate what a count
// claims. A reader that runs short throws Damaged naming what it read.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "util/Error.h"
#include "repository/Crypto.h"

namespace qvhost::repo {


class ByteWriter {
public:
    explicit ByteWriter(Bytes& out) : out_(out) {}
    void U8(uint8_t value) { out_.push_back(value); }
    void U32(uint32_t value) {
        for (int i = 0; i < 4; ++i) out_.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
    void U64(uint64_t value) {
        for (int i = 0; i < 8; ++i) out_.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
    void Raw(const uint8_t* data, size_t size) { out_.insert(out_.end(), data, data + size); }
    void Id(const repo::Id& id) { Raw(id.data(), id.size()); }
    // Seven bits a byte, low first, the high bit saying more follow.
    void Varint(uint64_t value) {
        while (value >= 0x80) {
            out_.push_back(static_cast<uint8_t>(value | 0x80));
            value >>= 7;
        }
        out_.push_back(static_cast<uint8_t>(value));
    }
    // Signed values as zigzag varints: small magnitudes stay short.
    void Signed(int64_t value) {
        Varint((static_cast<uint64_t>(value) << 1) ^ static_cast<uint64_t>(value >> 63));
    }

private:
    Bytes& out_;
};

class ByteReader {
public:
    // `what` names the record in messages ("the index abc...").
    ByteReader(const uint8_t* data, size_t size, std::string what) : data_(data), size_(size), what_(std::move(what)) {}

    uint8_t U8() { return *Take(1); }
    uint32_t U32() {
        const uint8_t* p = Take(4);
        return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
               static_cast<uint32_t>(p[3]) << 24;
    }
    uint64_t U64() {
        const uint8_t* p = Take(8);
        uint64_t value = 0;
        for (int i = 7; i >= 0; --i) value = value << 8 | p[i];
        return value;
    }
    repo::Id Id() {
        repo::Id id;
        std::memcpy(id.data(), Take(id.size()), id.size());
        return id;
    }
    const uint8_t* Raw(size_t size) { return Take(size); }
    uint64_t Varint() {
        uint64_t value = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            const uint8_t byte = U8();
            if (shift == 63 && byte > 1) break;
            value |= static_cast<uint64_t>(byte & 0x7F) << shift;
            if ((byte & 0x80) == 0) return value;
        }
        Fail("holds a number of more than 64 bits");
    }
    int64_t Signed() {
        const uint64_t value = Varint();
        return static_cast<int64_t>((value >> 1) ^ (~(value & 1) + 1));
    }
    // A count of records of at least `recordSize` bytes each: refused when
    // the bytes left could not hold that many.
    uint32_t Count(size_t recordSize) {
        const uint32_t count = U32();
        if (recordSize && count > Left() / recordSize) Fail("claims " + std::to_string(count) + " records");
        return count;
    }
    size_t Left() const { return size_ - at_; }
    void ExpectEnd() {
        if (at_ != size_) Fail("has " + std::to_string(size_ - at_) + " bytes after its end");
    }
    [[noreturn]] void Fail(const std::string& why) const { Damaged(what_ + " is damaged: it " + why); }

private:
    const uint8_t* Take(size_t size) {
        if (size > size_ - at_) Fail("ends early");
        const uint8_t* p = data_ + at_;
        at_ += size;
        return p;
    }

    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
    std::string what_;
};

}  // namespace qvhost::repo
