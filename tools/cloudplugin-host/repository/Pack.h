// Packs: the objects that hold the chunks ("blobs") of files.
//
// A pack is the blobs one after another, each sealed on its own (so that a
// restore can read and open one blob by its range), then the sealed header
// listing them, then the header's sealed length as 4 bytes little-endian:
//
//   blob 0 | blob 1 | ... | sealed header | u32 sealed header length
//
// A blob is Seal(encryption key, payload, aad = blob id): the payload is
// the chunk's bytes, zstd-compressed where that pays. The header is
// Seal(encryption key, entries, aad = "cloudplugin-host pack header"),
// entries being per blob: u8 type, u8 flags (1: compressed), u32 sealed
// length, u32 plain length, 32-byte id; offsets follow from the order.
// A pack's object name is the SHA-256 of its bytes, so `check --read-data`
// can tell a changed pack even before it opens it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "repository/Crypto.h"

namespace qvhost::repo {

struct MasterKeys;

// Data: a chunk of a file. Tree: the entries of a folder (Tree.h). Trees
// go into packs of their own, so that what a snapshot's structure needs
// is read without the data beside it.
enum class BlobType : uint8_t { Data = 0, Tree = 1 };

// The most bytes a chunk may have: the chunker's maximum is 8 MiB; anything
// larger in an index or a pack header is damage, not data.
constexpr uint32_t kMaximumBlobPlainSize = 16u << 20;
constexpr uint32_t kMaximumBlobSealedSize = kMaximumBlobPlainSize + 1024;
// A pack header of more than this is damage (256 KiB holds some 5000 blobs).
constexpr uint32_t kMaximumPackHeaderSize = 16u << 20;
// The largest pack any reader accepts.
constexpr uint64_t kMaximumPackSize = 1ull << 30;

struct PackEntry {
    Id id{};
    BlobType type = BlobType::Data;
    bool compressed = false;
    uint32_t offset = 0;       // of the sealed blob in the pack
    uint32_t length = 0;       // sealed bytes
    uint32_t plainLength = 0;  // the chunk's bytes
};

// A sealed blob and what its header entry says of it.
struct SealedBlob {
    Id id{};
    BlobType type = BlobType::Data;
    bool compressed = false;
    uint32_t plainLength = 0;
    Bytes bytes;
};

// Compresses (where it pays) and seals one chunk (or tree) whose id is `id`.
SealedBlob SealBlob(const MasterKeys& keys, const Id& id, const uint8_t* plain, size_t size,
                    BlobType type = BlobType::Data);

// Opens, decompresses and checks one blob against its entry: the content's
// keyed hash must be the entry's id and its length the plain length.
// Answers false with the reason otherwise.
bool OpenBlob(const MasterKeys& keys, const PackEntry& entry, const uint8_t* sealed, size_t size, Bytes& plain,
              std::string& why);

class PackBuilder {
public:
    // Room for `bytes` without moving what is added (a pack is finished
    // once it passes its size, which would otherwise double its buffer).
    void Reserve(size_t bytes) { bytes_.reserve(bytes); }
    void Add(SealedBlob&& blob);
    size_t size() const { return bytes_.size(); }
    size_t count() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    // Appends the sealed header; the pack's bytes, entries and id (the
    // SHA-256 of the bytes) are then ready. The builder starts over.
    struct Finished {
        Id id{};
        Bytes bytes;
        std::vector<PackEntry> entries;
    };
    Finished Finish(const MasterKeys& keys);

private:
    Bytes bytes_;
    std::vector<PackEntry> entries_;
};

// The header at the end of a pack of `packSize` bytes: `tail` holds the
// pack's last `tail.size()` bytes (at least 4). Answers the header's sealed
// length to read when `tail` does not hold all of it yet. Throws Damaged.
uint32_t PackHeaderLength(const uint8_t* lastFour, uint64_t packSize, const std::string& packName);
// Opens and decodes a sealed header (without its 4 length bytes) and checks
// that its entries fit a pack of `packSize` bytes. Throws Damaged.
std::vector<PackEntry> DecodePackHeader(const MasterKeys& keys, const uint8_t* sealed, size_t size,
                                        uint64_t packSize, const std::string& packName);

}  // namespace qvhost::repo
