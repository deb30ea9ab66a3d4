// How big snapshots are: restore-size counts every snapshot in full,
// raw-data every unique blob once.
#include "repository/RepositoryFixture.h"
#include "repository/Stats.h"

namespace repotest {
namespace {

class StatsTest : public RepositoryTest {
protected:
    std::vector<Snapshot> Load(const std::vector<std::string>& ids) {
        std::vector<Snapshot> snapshots;
        for (const std::string& id : ids) snapshots.push_back(repository_->LoadSnapshot(id));
        return snapshots;
    }
};

TEST_F(StatsTest, RestoreSizeCountsEverySnapshotInFull) {
    WriteFile(Folder("source/a.bin"), RandomBytes(300000, 31));
    WriteFile(Folder("source/b/c.bin"), RandomBytes(1000, 32));
    fs::create_symlink("a.bin", fs::u8path(Folder("source/link")));
    const std::string first = Backup(Folder("source")).snapshot.id;
    const std::string second = Backup(Folder("source")).snapshot.id;
    const MasterIndex index = repository_->LoadIndex();
    TreeReader reader(*repository_, index);
    const RestoreSizeStats one = CountRestoreSize(reader, Load({first}));
    EXPECT_EQ(one.snapshots, 1u);
    EXPECT_EQ(one.files, 2u);
    EXPECT_EQ(one.folders, 1u);
    EXPECT_EQ(one.links, 1u);
    EXPECT_EQ(one.bytes, 301000u);
    const RestoreSizeStats both = CountRestoreSize(reader, Load({first, second}));
    EXPECT_EQ(both.files, 4u);
    EXPECT_EQ(both.bytes, 602000u);
}

TEST_F(StatsTest, RawDataCountsEachBlobOnceAndTheDeduplication) {
    const Bytes content = RandomBytes(400000, 33);
    WriteFile(Folder("source/a.bin"), content);
    WriteFile(Folder("source/copy.bin"), content);
    const std::string first = Backup(Folder("source")).snapshot.id;
    const std::string second = Backup(Folder("source")).snapshot.id;
    const MasterIndex index = repository_->LoadIndex();
    TreeReader reader(*repository_, index);
    const RawDataStats stats = CountRawData(reader, index, Load({first, second}));
    EXPECT_EQ(stats.snapshots, 2u);
    EXPECT_EQ(stats.dataBytes, content.size()) << "one copy of the chunks";
    EXPECT_EQ(stats.restoreBytes, 4 * content.size());
    EXPECT_DOUBLE_EQ(stats.DeduplicationRatio(), 4.0);
    EXPECT_EQ(stats.treeBlobs, 1u) << "the same root tree in both";
    EXPECT_GT(stats.storedBytes, content.size()) << "random bytes do not compress; sealing adds";
    EXPECT_GT(stats.uncompressedBytes, stats.dataBytes);
    EXPECT_EQ(stats.missing, 0u);
}

TEST_F(StatsTest, RawDataCountsBlobsNoIndexNamesAsMissing) {
    WriteFile(Folder("source/a.bin"), RandomBytes(100000, 34));
    const std::string id = Backup(Folder("source")).snapshot.id;
    const MasterIndex full = repository_->LoadIndex();
    MasterIndex treesOnly;
    for (const IndexedPack& pack : full.all()) {
        if (!pack.blobs.empty() && pack.blobs[0].type == BlobType::Tree) treesOnly.Add(pack);
    }
    TreeReader reader(*repository_, full);
    const RawDataStats stats = CountRawData(reader, treesOnly, Load({id}));
    EXPECT_GT(stats.missing, 0u);
    EXPECT_EQ(stats.dataBytes, 0u);
    EXPECT_EQ(stats.DeduplicationRatio(), 0.0);
}

}  // namespace
}  // namespace repotest
