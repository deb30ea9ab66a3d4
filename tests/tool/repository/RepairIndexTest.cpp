// repair index: the index made again from the packs, every pack verified
// first; a damaged pack is left out (and left in place), and the old index
// objects go only after the new ones are stored.
#include "repository/RepairIndex.h"
#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

class RepairIndexTest : public RepositoryTest {
protected:
    void SetUp() override {
        RepositoryTest::SetUp();
        WriteFile(Folder("source") + "/a.bin", RandomBytes(300000, 80));
        WriteFile(Folder("source") + "/sub/b.txt", Bytes{'b'});
        first_ = Backup(Folder("source")).snapshot.id;
        WriteFile(Folder("source") + "/c.bin", RandomBytes(200000, 81));
        second_ = Backup(Folder("source")).snapshot.id;
    }

    RepairIndexReport Repair() { return RepairIndex(*repository_, RepairIndexOptions{2, nullptr}); }

    void ExpectRestores(const std::string& snapshot, const std::vector<std::string>& files) {
        const std::string target = Folder("restored-" + std::to_string(++restores_));
        const RestoreReport report = Restore(snapshot, target);
        EXPECT_TRUE(report.damaged.empty());
        for (const std::string& file : files) {
            EXPECT_EQ(ReadFile(target + "/" + file), ReadFile(Folder("source") + "/" + file)) << file;
        }
    }

    void ExpectWhole() {
        const CheckReport check = RunCheck(*repository_, CheckOptions{true, 2, nullptr});
        EXPECT_TRUE(check.errors.empty()) << check.errors[0];
        EXPECT_TRUE(check.repairs.empty());
    }

    std::string first_, second_;
    int restores_ = 0;
};

TEST_F(RepairIndexTest, RebuildsTheIndexAfterEveryIndexObjectIsDeleted) {
    const size_t blobs = repository_->LoadIndex().BlobCount();
    for (const std::string& name : Names("repo/index/")) store_.Delete(name);
    const RepairIndexReport report = Repair();
    EXPECT_EQ(report.packsIndexed, Names("repo/data/").size());
    EXPECT_TRUE(report.packsRefused.empty());
    EXPECT_EQ(report.indexObjectsWritten, 1u);
    EXPECT_EQ(report.indexObjectsRemoved, 0u);
    EXPECT_EQ(repository_->LoadIndex().BlobCount(), blobs);
    ExpectWhole();
    ExpectRestores(first_, {"a.bin", "sub/b.txt"});
    ExpectRestores(second_, {"a.bin", "sub/b.txt", "c.bin"});
}

TEST_F(RepairIndexTest, ReplacesADamagedIndexObjectAndNamesItselfWhenLoadingFails) {
    const std::vector<std::string> old = Names("repo/index/");
    ASSERT_EQ(old.size(), 2u);
    store_.objects()[old[0]][40] ^= 0x08;
    try {
        repository_->LoadIndex();
        ADD_FAILURE() << "a damaged index object loaded";
    } catch (const Error& failure) {
        EXPECT_EQ(failure.kind(), ErrorKind::Damaged);
        EXPECT_NE(std::string(failure.what()).find("'cloudplugin-host repair index'"), std::string::npos)
            << failure.what();
    }
    const RepairIndexReport report = Repair();
    EXPECT_EQ(report.indexObjectsRemoved, 2u);
    EXPECT_EQ(report.indexObjectsWritten, 1u);
    for (const std::string& name : old) EXPECT_EQ(store_.objects().count(name), 0u) << name;
    ExpectWhole();
    ExpectRestores(second_, {"a.bin", "sub/b.txt", "c.bin"});
}

TEST_F(RepairIndexTest, LeavesOutAPackWithAFlippedBitAndABackupThenStoresItsDataAgain) {
    const std::vector<std::string> data = DataPacks();
    ASSERT_EQ(data.size(), 2u);
    const std::string damaged = data[0];
    store_.objects()[damaged][100] ^= 0x01;
    const RepairIndexReport report = Repair();
    ASSERT_EQ(report.packsRefused.size(), 1u);
    EXPECT_EQ(report.packsRefused[0].name, damaged);
    EXPECT_NE(report.packsRefused[0].why.find("does not match its name"), std::string::npos) << report.packsRefused[0].why;
    EXPECT_EQ(report.packsIndexed, Names("repo/data/").size() - 1);
    EXPECT_EQ(store_.objects().count(damaged), 1u) << "left for prune";
    Id id;
    ASSERT_TRUE(IdFromHex(damaged.substr(std::string("repo/data/").size()), id));
    EXPECT_FALSE(repository_->LoadIndex().HasPack(id));
    // The check sees the loss and what to run for it.
    const CheckReport check = RunCheck(*repository_, CheckOptions{false, 2, nullptr});
    EXPECT_FALSE(check.affected.empty());
    ASSERT_FALSE(check.repairs.empty());
    EXPECT_NE(check.repairs.back().find("repair snapshots"), std::string::npos) << check.repairs.back();

    const BackupReport again = Backup(Folder("source"), true);
    EXPECT_EQ(again.packsRefused, 1u);
    ExpectRestores(again.snapshot.id, {"a.bin", "sub/b.txt", "c.bin"});
}

TEST_F(RepairIndexTest, LeavesOutACopyNamedByItsOwnHashWhoseBlobsDoNotOpen) {
    const std::string intact = DataPacks()[0];
    Bytes bytes = store_.objects().at(intact);
    bytes.at(25) ^= 0x10;
    const std::string copy = "repo/data/" + IdHex(Sha256Id(bytes.data(), bytes.size()));
    store_.Write(copy, bytes.data(), bytes.size());
    const RepairIndexReport report = Repair();
    ASSERT_EQ(report.packsRefused.size(), 1u);
    EXPECT_EQ(report.packsRefused[0].name, copy);
    EXPECT_NE(report.packsRefused[0].why.find("the blob"), std::string::npos) << report.packsRefused[0].why;
    ExpectRestores(second_, {"a.bin", "sub/b.txt", "c.bin"});
}

TEST_F(RepairIndexTest, CheckNamesRepairIndexForADamagedIndexObject) {
    store_.objects()[Names("repo/index/")[1]][40] ^= 0x02;
    const CheckReport check = RunCheck(*repository_, CheckOptions{false, 2, nullptr});
    ASSERT_FALSE(check.repairs.empty());
    EXPECT_NE(check.repairs[0].find("'cloudplugin-host repair index'"), std::string::npos) << check.repairs[0];
    Repair();
    ExpectWhole();
}

}  // namespace
}  // namespace repotest
