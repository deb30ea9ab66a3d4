// repair snapshots: files whose data is gone are dropped, folders whose
// trees are gone come back empty, everything else stays restorable; the
// original stays unless forgotten.
#include <algorithm>

#include "repository/RepairSnapshots.h"
#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

class RepairSnapshotsTest : public RepositoryTest {
protected:
    // A first backup of lost/lost.bin alone (its own data pack), then a
    // second one that adds kept.bin and sub/kept.txt (another pack); the
    // first pack is then deleted.
    void SetUp() override {
        RepositoryTest::SetUp();
        WriteFile(Folder("source") + "/lost/lost.bin", RandomBytes(300000, 90));
        first_ = Backup(Folder("source")).snapshot.id;
        lostPack_ = DataPacks().at(0);
        WriteFile(Folder("source") + "/kept.bin", RandomBytes(200000, 91));
        WriteFile(Folder("source") + "/sub/kept.txt", Bytes{'k', '\n'});
        second_ = Backup(Folder("source")).snapshot.id;
        ASSERT_EQ(DataPacks().size(), 2u);
        store_.Delete(lostPack_);
    }

    std::vector<SnapshotRepair> Repair(std::vector<std::string> ids = {}, bool dryRun = false, bool forget = false) {
        return RepairSnapshots(*repository_, ids, RepairSnapshotsOptions{dryRun, forget});
    }

    const SnapshotRepair& Of(const std::vector<SnapshotRepair>& repairs, const std::string& id) {
        const auto found = std::find_if(repairs.begin(), repairs.end(),
                                        [&](const SnapshotRepair& repair) { return repair.original == id; });
        EXPECT_NE(found, repairs.end());
        return *found;
    }

    std::vector<std::string> FilePaths(const std::string& snapshot) {
        std::vector<std::string> paths;
        for (const auto& [path, node] : Files(snapshot)) paths.push_back(path);
        return paths;
    }

    std::string first_, second_, lostPack_;
};

TEST_F(RepairSnapshotsTest, DropsExactlyTheFilesWhoseChunkPacksAreGoneAndKeepsTheRestRestorable) {
    const std::vector<SnapshotRepair> repairs = Repair();
    ASSERT_EQ(repairs.size(), 2u);
    const SnapshotRepair& second = Of(repairs, second_);
    EXPECT_TRUE(second.damaged);
    EXPECT_EQ(second.dropped, std::vector<std::string>{"lost/lost.bin"});
    EXPECT_TRUE(second.emptied.empty());
    ASSERT_FALSE(second.repaired.empty());
    EXPECT_EQ(Of(repairs, first_).dropped, std::vector<std::string>{"lost/lost.bin"});

    const Snapshot original = repository_->LoadSnapshot(second_);
    const Snapshot repaired = repository_->LoadSnapshot(second.repaired);
    EXPECT_EQ(repaired.original, second_);
    EXPECT_EQ(repaired.time, original.time);
    EXPECT_EQ(repaired.timeNs, original.timeNs);
    EXPECT_EQ(repaired.host, original.host);
    EXPECT_EQ(repaired.paths, original.paths);
    EXPECT_EQ(repaired.tags, std::vector<std::string>{kRepairedTag});
    EXPECT_EQ(repaired.Files(), original.Files() - 1);
    EXPECT_EQ(FilePaths(second.repaired), (std::vector<std::string>{"kept.bin", "sub/kept.txt"}));

    const RestoreReport restore = Restore(second.repaired, Folder("restored"));
    EXPECT_TRUE(restore.damaged.empty());
    EXPECT_EQ(ReadFile(Folder("restored") + "/kept.bin"), ReadFile(Folder("source") + "/kept.bin"));
    EXPECT_EQ(ReadFile(Folder("restored") + "/sub/kept.txt"), ReadFile(Folder("source") + "/sub/kept.txt"));
    EXPECT_TRUE(fs::is_directory(Folder("restored") + "/lost"));
    EXPECT_FALSE(fs::exists(Folder("restored") + "/lost/lost.bin"));
    EXPECT_EQ(store_.objects().count("repo/snapshots/" + second_), 1u) << "the original stays";
    EXPECT_EQ(store_.objects().count("repo/snapshots/" + first_), 1u);
}

TEST_F(RepairSnapshotsTest, ForgetRemovesTheOriginalOnceItsRepairIsStored) {
    const std::vector<SnapshotRepair> repairs = Repair({second_.substr(0, 8)}, false, true);
    ASSERT_EQ(repairs.size(), 1u);
    EXPECT_TRUE(repairs[0].forgotten);
    EXPECT_EQ(store_.objects().count("repo/snapshots/" + second_), 0u);
    EXPECT_EQ(store_.objects().count("repo/snapshots/" + repairs[0].repaired), 1u);
    EXPECT_EQ(store_.objects().count("repo/snapshots/" + first_), 1u) << "not named: not touched";
    // What remains of the repaired snapshot is whole.
    const CheckReport check = RunCheck(*repository_, CheckOptions{false, 2, nullptr});
    for (const std::string& affected : check.affected) EXPECT_EQ(affected.substr(0, 8), first_.substr(0, 8));
    EXPECT_FALSE(Repair({repairs[0].repaired})[0].damaged);
}

TEST_F(RepairSnapshotsTest, ADryRunWritesNothing) {
    const size_t objects = store_.objects().size();
    const size_t writes = store_.writes();
    const std::vector<SnapshotRepair> repairs = Repair({}, true, true);
    ASSERT_EQ(repairs.size(), 2u);
    for (const SnapshotRepair& repair : repairs) {
        EXPECT_TRUE(repair.damaged);
        EXPECT_TRUE(repair.repaired.empty());
        EXPECT_FALSE(repair.forgotten);
        EXPECT_EQ(repair.dropped, std::vector<std::string>{"lost/lost.bin"});
    }
    EXPECT_EQ(store_.objects().size(), objects);
    EXPECT_EQ(store_.writes(), writes);
}

TEST_F(RepairSnapshotsTest, ASecondRunWritesNothingNew) {
    const std::vector<SnapshotRepair> first = Repair({second_});
    const size_t objects = store_.objects().size();
    const std::vector<SnapshotRepair> again = Repair({second_});
    ASSERT_EQ(again.size(), 1u);
    EXPECT_TRUE(again[0].repairedBefore);
    EXPECT_EQ(again[0].repaired, first[0].repaired);
    EXPECT_EQ(store_.objects().size(), objects);
}

TEST_F(RepairSnapshotsTest, AFolderWhoseTreeIsGoneBecomesEmpty) {
    // Another source, whose sub/ tree is then left out of the index.
    WriteFile(Folder("other") + "/top.bin", RandomBytes(100000, 92));
    WriteFile(Folder("other") + "/sub/inner.txt", Bytes{'i'});
    const std::string id = Backup(Folder("other")).snapshot.id;
    const MasterIndex index = repository_->LoadIndex();
    TreeReader reader(*repository_, index);
    const std::optional<Node> sub = FindNode(reader, repository_->LoadSnapshot(id).tree, "sub");
    ASSERT_TRUE(sub && sub->subtree.size() == 1u);
    std::vector<IndexedPack> packs = index.all();
    for (IndexedPack& pack : packs) {
        pack.blobs.erase(std::remove_if(pack.blobs.begin(), pack.blobs.end(),
                                        [&](const PackEntry& blob) { return blob.id == sub->subtree[0]; }),
                         pack.blobs.end());
    }
    for (const std::string& name : Names("repo/index/")) store_.Delete(name);
    repository_->SaveIndex(packs);

    const std::vector<SnapshotRepair> repairs = Repair({id});
    ASSERT_EQ(repairs.size(), 1u);
    EXPECT_EQ(repairs[0].emptied, std::vector<std::string>{"sub"});
    EXPECT_TRUE(repairs[0].dropped.empty());
    const RestoreReport restore = Restore(repairs[0].repaired, Folder("restored"));
    EXPECT_TRUE(restore.damaged.empty());
    EXPECT_EQ(ReadFile(Folder("restored") + "/top.bin"), ReadFile(Folder("other") + "/top.bin"));
    EXPECT_TRUE(fs::is_directory(Folder("restored") + "/sub"));
    EXPECT_TRUE(fs::is_empty(Folder("restored") + "/sub"));
}

TEST_F(RepairSnapshotsTest, CheckNamesRepairSnapshotsForAMissingPackAndAnUnknownSnapshotIsRefused) {
    const CheckReport check = RunCheck(*repository_, CheckOptions{false, 2, nullptr});
    bool named = false;
    for (const std::string& repair : check.repairs) named |= repair.find("'cloudplugin-host repair snapshots'") == 0;
    EXPECT_TRUE(named) << (check.repairs.empty() ? "no repair named" : check.repairs[0]);
    EXPECT_EQ(KindOf([&] { Repair({"ffff"}); }), ErrorKind::NotFound);
}

}  // namespace
}  // namespace repotest
