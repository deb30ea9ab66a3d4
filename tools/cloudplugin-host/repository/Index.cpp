#include "repository/Index.h"

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

Bytes EncodeIndex(const MasterKeys& keys, const std::vector<IndexedPack>& packs) {
    Bytes plain;
    ByteWriter writer(plain);
    writer.Raw(reinterpret_cast<const uint8_t*>(kMagic), 8);
    writer.U32(static_cast<uint32_t>(packs.size()));
    for (const IndexedPack& pack : packs) {
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
    for (const PackEntry& blob : pack.blobs) blobs_.emplace(blob.id, BlobLocation{pack.pack, blob});
    all_.push_back(pack);
}

const BlobLocation* MasterIndex::Find(const Id& blob) const {
    const auto found = blobs_.find(blob);
    return found == blobs_.end() ? nullptr : &found->second;
}

}  // namespace qvhost::repo
