// Packs: blobs sealed one by one, the header at the end, and every way a pack
// from storage can lie.
#include <ctime>

#include "repository/RepositoryFixture.h"
#include "repository/Binary.h"
#include "repository/Pack.h"

namespace repotest {
namespace {

TEST(Pack, BlobsRoundTripThroughTheHeaderAtTheEnd) {
    const MasterKeys keys = MasterKeys::Random();
    PackBuilder builder;
    std::vector<Bytes> chunks = {RandomBytes(1000, 1), Bytes(50000, 'a'), Bytes()};
    for (const Bytes& chunk : chunks) {
        builder.Add(SealBlob(keys, KeyedHash(keys.mac, chunk.data(), chunk.size()), chunk.data(), chunk.size()));
    }
    const PackBuilder::Finished pack = builder.Finish(keys);
    EXPECT_EQ(pack.id, Sha256Id(pack.bytes.data(), pack.bytes.size()));
    const uint32_t length = PackHeaderLength(pack.bytes.data() + pack.bytes.size() - 4, pack.bytes.size(), "p");
    const std::vector<PackEntry> entries =
        DecodePackHeader(keys, pack.bytes.data() + pack.bytes.size() - 4 - length, length, pack.bytes.size(), "p");
    ASSERT_EQ(entries.size(), chunks.size());
    EXPECT_FALSE(entries[0].compressed);  // random bytes are stored as they are
    EXPECT_TRUE(entries[1].compressed);
    for (size_t i = 0; i < chunks.size(); ++i) {
        Bytes plain;
        std::string why;
        ASSERT_TRUE(OpenBlob(keys, entries[i], pack.bytes.data() + entries[i].offset, entries[i].length, plain, why))
            << why;
        EXPECT_EQ(plain, chunks[i]);
    }
}

TEST(Pack, AChangedBitInABlobOrTheHeaderIsDamage) {
    const MasterKeys keys = MasterKeys::Random();
    PackBuilder builder;
    const Bytes chunk = RandomBytes(5000, 2);
    builder.Add(SealBlob(keys, KeyedHash(keys.mac, chunk.data(), chunk.size()), chunk.data(), chunk.size()));
    PackBuilder::Finished pack = builder.Finish(keys);
    const uint32_t length = PackHeaderLength(pack.bytes.data() + pack.bytes.size() - 4, pack.bytes.size(), "p");
    const size_t headerAt = pack.bytes.size() - 4 - length;
    const PackEntry entry = DecodePackHeader(keys, pack.bytes.data() + headerAt, length, pack.bytes.size(), "p")[0];
    Bytes changed = pack.bytes;
    changed[entry.offset + 100] ^= 0x10;
    Bytes plain;
    std::string why;
    EXPECT_FALSE(OpenBlob(keys, entry, changed.data() + entry.offset, entry.length, plain, why));
    EXPECT_NE(why.find("does not open"), std::string::npos);
    changed = pack.bytes;
    changed[headerAt + 20] ^= 0x01;
    EXPECT_EQ(KindOf([&] { DecodePackHeader(keys, changed.data() + headerAt, length, changed.size(), "p"); }),
              ErrorKind::Damaged);
}

TEST(Pack, ABlobUnderAnotherIdDoesNotOpen) {
    const MasterKeys keys = MasterKeys::Random();
    const Bytes chunk = RandomBytes(300, 3);
    SealedBlob blob = SealBlob(keys, KeyedHash(keys.mac, chunk.data(), chunk.size()), chunk.data(), chunk.size());
    PackEntry entry;
    entry.id = KeyedHash(keys.mac, reinterpret_cast<const uint8_t*>("other"), 5);
    entry.length = static_cast<uint32_t>(blob.bytes.size());
    entry.plainLength = blob.plainLength;
    Bytes plain;
    std::string why;
    EXPECT_FALSE(OpenBlob(keys, entry, blob.bytes.data(), blob.bytes.size(), plain, why));
}

TEST(Pack, AHeaderLengthThatDoesNotFitThePackIsDamage) {
    uint8_t lastFour[4] = {0xFF, 0xFF, 0xFF, 0x7F};
    EXPECT_EQ(KindOf([&] { PackHeaderLength(lastFour, 1000, "p"); }), ErrorKind::Damaged);
    uint8_t tiny[4] = {3, 0, 0, 0};
    EXPECT_EQ(KindOf([&] { PackHeaderLength(tiny, 1000, "p"); }), ErrorKind::Damaged);
}

}  // namespace
}  // namespace repotest
