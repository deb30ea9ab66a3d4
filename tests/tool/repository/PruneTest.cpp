// Prune: what no snapshot needs goes, the rest stays restorable, and nothing
// is deleted when a snapshot names missing data.
#include <ctime>

#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

TEST_F(RepositoryTest, PruneRemovesWhatNoSnapshotNeedsAndKeepsTheRestRestorable) {
    const std::string source = Folder("source");
    WriteFile(source + "/kept.bin", RandomBytes(600000, 30));
    WriteFile(source + "/dropped.bin", RandomBytes(600000, 31));
    const BackupReport first = Backup(source);
    fs::remove(source + "/dropped.bin");
    const BackupReport second = Backup(source);
    // A pack no index names, as a killed backup leaves.
    store_.Write("repo/data/" + std::string(64, 'e'), reinterpret_cast<const uint8_t*>("junk"), 4);
    store_.Delete("repo/snapshots/" + first.snapshot.id);
    const PruneReport report = Prune(*repository_);
    EXPECT_GT(report.blobsRemoved, 0u);
    EXPECT_EQ(report.packsUnindexed, 1u);
    EXPECT_GT(report.packsDeleted + report.packsRewritten, 0u);
    const CheckReport check = RunCheck(*repository_, CheckOptions{true, 2, nullptr});
    EXPECT_TRUE(check.errors.empty()) << check.errors[0];
    EXPECT_TRUE(check.warnings.empty());
    uint64_t stored = 0;
    for (const StoredObject& pack : store_.List("repo/data/")) stored += pack.size;
    EXPECT_LT(stored, 600000u + 60000u) << "one file's data remains";
    Restore(second.snapshot.id, Folder("restored"));
    EXPECT_EQ(ReadFile(Folder("restored") + "/kept.bin"), ReadFile(source + "/kept.bin"));
}

TEST_F(RepositoryTest, PruneDeletesNothingWhenASnapshotNamesMissingData) {
    const std::string source = Folder("source");
    WriteFile(source + "/a.bin", RandomBytes(100000, 32));
    Backup(source);
    // The pack of the file's chunks, then also the pack of the trees.
    const std::vector<std::string> data = DataPacks();
    std::vector<std::string> packs = Names("repo/data/");
    ASSERT_EQ(data.size(), 1u);
    store_.Delete(data[0]);
    size_t objects = store_.objects().size();
    EXPECT_EQ(KindOf([&] { Prune(*repository_); }), ErrorKind::Damaged);
    EXPECT_EQ(store_.objects().size(), objects);
    for (const std::string& pack : packs) store_.Delete(pack);
    objects = store_.objects().size();
    EXPECT_EQ(KindOf([&] { Prune(*repository_); }), ErrorKind::Damaged);
    EXPECT_EQ(store_.objects().size(), objects);
}

}  // namespace
}  // namespace repotest
