// The index: which pack holds each blob, at which offset, how long.
//
// An index object `<root>/index/<SHA-256 of its stored bytes>` is
// Seal(encryption key, records, aad "cloudplugin-host index"), records
// being, little-endian:
//   "CPHIDX01", u32 pack count, per pack: 32-byte pack id, u32 blob count,
//   per blob: 32-byte id, u8 flags (1: compressed, 2: a tree), u32 offset,
//   u32 sealed length, u32 plain length.
// A backup writes its index only after every pack it names is stored, and
// its snapshot only after its index: whatever an index or a snapshot names
// exists. Several index objects may name the same blob (concurrent backups,
// an interrupted prune); any of them will do.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "repository/Pack.h"

namespace qvhost::repo {

// The largest index object read: some 2.5 million blobs (several TiB of data).
constexpr uint64_t kMaximumIndexSize = 128ull << 20;
// Blobs per index object written (some 4.5 MB): a backup, a prune or a
// repair writes larger indexes in parts, so that no more than one part's
// encoding is in memory at once.
constexpr size_t kBlobsPerIndexObject = 100000;

struct IdHash {
    size_t operator()(const Id& id) const {
        size_t value;
        std::memcpy(&value, id.data(), sizeof value);  // ids are keyed hashes: any bytes are spread well
        return value;
    }
};

struct IndexedPack {
    Id pack{};
    std::vector<PackEntry> blobs;
};

Bytes EncodeIndex(const MasterKeys& keys, const IndexedPack* packs, size_t count);
inline Bytes EncodeIndex(const MasterKeys& keys, const std::vector<IndexedPack>& packs) {
    return EncodeIndex(keys, packs.data(), packs.size());
}
// Throws Damaged naming the object.
std::vector<IndexedPack> DecodeIndex(const MasterKeys& keys, const Bytes& sealed, const std::string& objectName);

struct BlobLocation {
    Id pack{};
    PackEntry entry;
};

// Every index object of the repository, merged. The packs' entries are
// held once, as the indexes list them (about 48 bytes a blob); finding a
// blob goes through an open-addressing table of 8-byte references into
// them (pack, entry), kept at most half full: some 64 bytes a blob in all,
// where a map of locations took three times as much.
class MasterIndex {
public:
    void Add(const IndexedPack& pack);
    // None when no index names the blob; the first pack added that holds it otherwise.
    std::optional<BlobLocation> Find(const Id& blob) const;
    bool Has(const Id& blob) const { return Slot(blob) != kEmpty; }
    bool HasPack(const Id& pack) const { return packs_.count(pack) != 0; }
    const std::set<Id>& packs() const { return packs_; }
    size_t BlobCount() const { return blobs_; }
    // Every blob of every pack, as the indexes list them (duplicates included).
    const std::vector<IndexedPack>& all() const { return all_; }
    // The index objects merged in.
    std::vector<std::string> objects;

private:
    static constexpr uint64_t kEmpty = ~uint64_t{0};
    // The reference held for a blob's slot, or kEmpty.
    uint64_t Slot(const Id& blob) const;
    const PackEntry& EntryOf(uint64_t reference) const {
        return all_[reference >> 32].blobs[reference & 0xffffffffu];
    }
    void Insert(uint64_t reference);

    std::vector<uint64_t> table_;  // (pack index << 32) | entry index; a power of two long
    size_t blobs_ = 0;             // distinct blobs
    std::set<Id> packs_;
    std::vector<IndexedPack> all_;
};

}  // namespace qvhost::repo
