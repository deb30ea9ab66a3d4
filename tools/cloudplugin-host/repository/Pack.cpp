#include "repository/Pack.h"

#include "repository/Binary.h"
#include "repository/Compression.h"
#include "repository/Keys.h"
#include "util/Reusable.h"

namespace qvhost::repo {

namespace {

constexpr char kHeaderAad[] = "cloudplugin-host pack header";
constexpr size_t kEntrySize = 1 + 1 + 4 + 4 + 32;
constexpr uint8_t kCompressedFlag = 1;

// The buffers a blob passes through between its plain and sealed forms,
// kept for the next blob (util/Reusable.h).
Reusable<Bytes>::Lease TakeBuffer() {
    static Reusable<Bytes> buffers([] { return std::make_unique<Bytes>(); });
    return buffers.Take();
}

}  // namespace

SealedBlob SealBlob(const MasterKeys& keys, const Id& id, const uint8_t* plain, size_t size, BlobType type) {
    SealedBlob blob;
    blob.id = id;
    blob.type = type;
    blob.plainLength = static_cast<uint32_t>(size);
    const Reusable<Bytes>::Lease lease = TakeBuffer();
    Bytes& compressed = *lease;
    blob.compressed = Compress(plain, size, compressed);
    const uint8_t* payload = blob.compressed ? compressed.data() : plain;
    const size_t payloadSize = blob.compressed ? compressed.size() : size;
    blob.bytes.reserve(payloadSize + kSealOverhead);
    Seal(keys.encryption, payload, payloadSize, id.data(), id.size(), blob.bytes);
    return blob;
}

bool OpenBlob(const MasterKeys& keys, const PackEntry& entry, const uint8_t* sealed, size_t size, Bytes& plain,
              std::string& why) {
    const Reusable<Bytes>::Lease lease = TakeBuffer();
    Bytes& payload = *lease;
    if (!Open(keys.encryption, sealed, size, entry.id.data(), entry.id.size(), payload)) {
        why = "does not open (changed, or not the blob its index names)";
        return false;
    }
    if (entry.compressed) {
        if (!Decompress(payload.data(), payload.size(), entry.plainLength, kMaximumBlobPlainSize, plain)) {
            why = "does not decompress to its " + std::to_string(entry.plainLength) + " bytes";
            return false;
        }
    } else {
        if (payload.size() != entry.plainLength) {
            why = "holds " + std::to_string(payload.size()) + " bytes, not " + std::to_string(entry.plainLength);
            return false;
        }
        plain.swap(payload);
    }
    if (KeyedHash(keys.mac, plain.data(), plain.size()) != entry.id) {
        why = "does not match its id";
        return false;
    }
    return true;
}

void PackBuilder::Add(SealedBlob&& blob) {
    PackEntry entry;
    entry.id = blob.id;
    entry.type = blob.type;
    entry.compressed = blob.compressed;
    entry.offset = static_cast<uint32_t>(bytes_.size());
    entry.length = static_cast<uint32_t>(blob.bytes.size());
    entry.plainLength = blob.plainLength;
    entries_.push_back(entry);
    bytes_.insert(bytes_.end(), blob.bytes.begin(), blob.bytes.end());
}

PackBuilder::Finished PackBuilder::Finish(const MasterKeys& keys) {
    Bytes header;
    header.reserve(entries_.size() * kEntrySize);
    ByteWriter writer(header);
    for (const PackEntry& entry : entries_) {
        writer.U8(static_cast<uint8_t>(entry.type));
        writer.U8(entry.compressed ? kCompressedFlag : 0);
        writer.U32(entry.length);
        writer.U32(entry.plainLength);
        writer.Id(entry.id);
    }
    const size_t sealedStart = bytes_.size();
    Seal(keys.encryption, header.data(), header.size(), reinterpret_cast<const uint8_t*>(kHeaderAad),
         sizeof kHeaderAad - 1, bytes_);
    ByteWriter(bytes_).U32(static_cast<uint32_t>(bytes_.size() - sealedStart));
    Finished finished;
    finished.id = Sha256Id(bytes_.data(), bytes_.size());
    finished.bytes.swap(bytes_);
    finished.entries.swap(entries_);
    return finished;
}

uint32_t PackHeaderLength(const uint8_t* lastFour, uint64_t packSize, const std::string& packName) {
    const uint32_t length = ByteReader(lastFour, 4, "the pack " + packName).U32();
    if (length < kSealOverhead || length > kMaximumPackHeaderSize || length > packSize - 4) {
        Damaged("the pack " + packName + " is damaged: its header length " + std::to_string(length) +
                " does not fit a pack of " + std::to_string(packSize) + " bytes");
    }
    return length;
}

std::vector<PackEntry> DecodePackHeader(const MasterKeys& keys, const uint8_t* sealed, size_t size,
                                        uint64_t packSize, const std::string& packName) {
    const std::string what = "the header of the pack " + packName;
    Bytes header;
    if (!Open(keys.encryption, sealed, size, reinterpret_cast<const uint8_t*>(kHeaderAad), sizeof kHeaderAad - 1,
              header)) {
        Damaged(what + " does not open: the pack was changed");
    }
    if (header.size() % kEntrySize != 0) Damaged(what + " is damaged: " + std::to_string(header.size()) + " bytes");
    ByteReader reader(header.data(), header.size(), what);
    std::vector<PackEntry> entries(header.size() / kEntrySize);
    const uint64_t blobsEnd = packSize - 4 - size;
    uint64_t offset = 0;
    for (PackEntry& entry : entries) {
        const uint8_t type = reader.U8();
        const uint8_t flags = reader.U8();
        entry.length = reader.U32();
        entry.plainLength = reader.U32();
        entry.id = reader.Id();
        if (type > static_cast<uint8_t>(BlobType::Tree) || (flags & ~kCompressedFlag) != 0) {
            reader.Fail("names a blob of an unknown kind");
        }
        entry.type = static_cast<BlobType>(type);
        entry.compressed = (flags & kCompressedFlag) != 0;
        if (entry.length < kSealOverhead || entry.length > kMaximumBlobSealedSize ||
            entry.plainLength > kMaximumBlobPlainSize || offset + entry.length > blobsEnd) {
            reader.Fail("names a blob that does not fit the pack");
        }
        entry.offset = static_cast<uint32_t>(offset);
        offset += entry.length;
    }
    if (offset != blobsEnd) reader.Fail("leaves " + std::to_string(blobsEnd - offset) + " bytes of the pack unnamed");
    return entries;
}

}  // namespace qvhost::repo
