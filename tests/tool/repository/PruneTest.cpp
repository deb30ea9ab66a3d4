// Prune: what no snapshot needs goes, the rest stays restorable, and nothing
// is deleted when a snapshot names missing data.
#include <ctime>

#include "repository/Forget.h"
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

// Folders unchanged between two snapshots share their trees; forgetting the
// first makes its tree pack partly used, and the rewrite must keep the
// shared trees as trees, in packs of their own.
TEST_F(RepositoryTest, TreesSharedWithAForgottenSnapshotSurvivePruneAsTrees) {
    const std::string source = Folder("source");
    for (const char* folder : {"a", "b", "c/d"}) {
        for (int i = 0; i < 3; ++i) {
            WriteFile(source + "/" + folder + "/f" + std::to_string(i), RandomBytes(3000 + i, 40 + i));
        }
    }
    const BackupReport first = Backup(source);
    WriteFile(source + "/c/d/f1", RandomBytes(5000, 50));
    const BackupReport second = Backup(source);
    ApplyForget(*repository_, {first.snapshot.id});
    const PruneReport report = Prune(*repository_);
    EXPECT_GT(report.packsRewritten, 0u) << "the first tree pack holds trees of both snapshots";

    const CheckReport check = RunCheck(*repository_, CheckOptions{true, 2, nullptr});
    EXPECT_TRUE(check.errors.empty()) << check.errors[0];
    EXPECT_EQ(Files(second.snapshot.id).size(), 9u);
    Restore(second.snapshot.id, Folder("restored"));
    EXPECT_EQ(ReadFile(Folder("restored") + "/a/f2"), ReadFile(source + "/a/f2"));
    EXPECT_EQ(ReadFile(Folder("restored") + "/c/d/f1"), ReadFile(source + "/c/d/f1"));
    const MasterIndex index = repository_->LoadIndex();
    for (const IndexedPack& pack : index.all()) {
        const bool trees = pack.blobs.front().type == BlobType::Tree;
        for (const PackEntry& blob : pack.blobs) EXPECT_EQ(blob.type == BlobType::Tree, trees) << "a pack of one kind";
    }
}

// A repository an earlier prune left with its kept trees indexed as data
// blobs: the snapshot names them trees and their ids prove their bytes.
TEST_F(RepositoryTest, TreesIndexedAsDataBlobsByAnEarlierPruneStillRead) {
    const std::string source = Folder("source");
    WriteFile(source + "/a/f", RandomBytes(3000, 60));
    WriteFile(source + "/b/f", RandomBytes(3000, 61));
    const BackupReport backup = Backup(source);
    std::vector<IndexedPack> packs = repository_->LoadIndex().all();
    size_t retyped = 0;
    for (IndexedPack& pack : packs) {
        for (PackEntry& blob : pack.blobs) {
            retyped += blob.type == BlobType::Tree;
            blob.type = BlobType::Data;
        }
    }
    ASSERT_GE(retyped, 3u);
    for (const std::string& name : Names("repo/index/")) store_.Delete(name);
    repository_->SaveIndex(packs);
    EXPECT_EQ(Files(backup.snapshot.id).size(), 2u);
    Restore(backup.snapshot.id, Folder("restored"));
    EXPECT_EQ(ReadFile(Folder("restored") + "/b/f"), ReadFile(source + "/b/f"));
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
