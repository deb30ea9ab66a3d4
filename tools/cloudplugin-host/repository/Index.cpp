#include "repository/Index.h"

#include <algorithm>

#include "repository/Binary.h"
#include "repository/Keys.h"

namespace qvhost::repo {

namespace {

constexpr char kMagic[] = "CPHIDX01";
constexpr size_t kPackRecord = 32 + 4;
constexpr size_t kBlobRecord = 32 + 1 + 4 + 4 + 4;
// The flags of a blob record.
constexpr uint8_t kCompressed = 1;
constexpr uint8_t kTree = 2;

}  // namespace

Bytes EncodeIndex(const MasterKeys& keys, const IndexedPack* packs, size_t count) {
    const IndexedPack* const end = packs + count;
    Bytes plain;
    // Its size exactly: a vector grown by doubling would hold up to twice
    // the index while it is written.
    size_t size = 12;
    for (const IndexedPack* pack = packs; pack != end; ++pack) size += kPackRecord + kBlobRecord * pack->blobs.size();
    plain.reserve(size);
    ByteWriter writer(plain);
    writer.Raw(reinterpret_cast<const uint8_t*>(kMagic), 8);
    writer.U32(static_cast<uint32_t>(count));
    for (const IndexedPack* it = packs; it != end; ++it) {
        const IndexedPack& pack = *it;
        writer.Id(pack.pack);
        writer.U32(static_cast<uint32_t>(pack.blobs.size()));
        for (const PackEntry& blob : pack.blobs) {
            writer.Id(blob.id);
            writer.U8(static_cast<uint8_t>((blob.compressed ? kCompressed : 0) |
                                           (blob.type == BlobType::Tree ? kTree : 0)));
            writer.U32(blob.offset);
            writer.U32(blob.length);
            writer.U32(blob.plainLength);
        }
    }
    return SealObject(keys, "index", plain);
}

std::vector<IndexedPack> DecodeIndex(const MasterKeys& keys, const Bytes& sealed, const std::string& objectName) {
    const Bytes plain = OpenObject(keys, "index", sealed, objectName);
    ByteReader reader(plain.data(), plain.size(), "the index " + objectName);
    if (std::memcmp(reader.Raw(8), kMagic, 8) != 0) reader.Fail("does not start as an index");
    std::vector<IndexedPack> packs(reader.Count(kPackRecord));
    for (IndexedPack& pack : packs) {
        pack.pack = reader.Id();
        pack.blobs.resize(reader.Count(kBlobRecord));
        for (PackEntry& blob : pack.blobs) {
            blob.id = reader.Id();
            const uint8_t flags = reader.U8();
            blob.offset = reader.U32();
            blob.length = reader.U32();
            blob.plainLength = reader.U32();
            if ((flags & ~(kCompressed | kTree)) != 0 || blob.length < kSealOverhead || blob.length > kMaximumBlobSealedSize ||
                blob.plainLength > kMaximumBlobPlainSize || uint64_t{blob.offset} + blob.length > kMaximumPackSize) {
                reader.Fail("names a blob that no pack could hold");
            }
            blob.compressed = (flags & kCompressed) != 0;
            blob.type = (flags & kTree) != 0 ? BlobType::Tree : BlobType::Data;
        }
    }
    reader.ExpectEnd();
    return packs;
}

void MasterIndex::Add(const IndexedPack& pack) {
    packs_.insert(pack.pack);
    const uint64_t packIndex = all_.size();
    all_.push_back(pack);
    for (uint64_t entry = 0; entry < pack.blobs.size(); ++entry) {
        if (Slot(pack.blobs[entry].id) != kEmpty) continue;  // the first pack named keeps it
        if ((blobs_ + 1) * 2 > table_.size()) {
            // Twice as large, and every reference in it again.
            std::vector<uint64_t> old(std::max<size_t>(1024, table_.size() * 2), kEmpty);
            old.swap(table_);
            for (const uint64_t reference : old) {
                if (reference != kEmpty) Insert(reference);
            }
        }
        Insert(packIndex << 32 | entry);
        ++blobs_;
    }
}

void MasterIndex::Insert(uint64_t reference) {
    const size_t mask = table_.size() - 1;
    for (size_t slot = IdHash()(EntryOf(reference).id) & mask;; slot = (slot + 1) & mask) {
        if (table_[slot] == kEmpty) {
            table_[slot] = reference;
            return;
        }
    }
}

uint64_t MasterIndex::Slot(const Id& blob) const {
    if (table_.empty()) return kEmpty;
    const size_t mask = table_.size() - 1;
    for (size_t slot = IdHash()(blob) & mask;; slot = (slot + 1) & mask) {
        const uint64_t reference = table_[slot];
        if (reference == kEmpty || EntryOf(reference).id == blob) return reference;
    }
}

std::optional<BlobLocation> MasterIndex::Find(const Id& blob) const {
    const uint64_t reference = Slot(blob);
    if (reference == kEmpty) return std::nullopt;
    return BlobLocation{all_[reference >> 32].pack, EntryOf(reference)};
}

}  // namespace qvhost::repo
