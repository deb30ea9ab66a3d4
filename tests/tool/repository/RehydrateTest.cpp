// Rehydration: archived objects asked back once, the ones on their way and
// online counted; a snapshot's packs are exactly those its files need.
#include "repository/Rehydrate.h"
#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

TEST(Rehydrate, AsksForArchivedObjectsAndCountsTheRest) {
    MemoryStore store;
    for (const char* name : {"a", "b", "c"}) store.Write(name, reinterpret_cast<const uint8_t*>("x"), 1);
    store.tiers()["a"] = "Archive";
    store.tiers()["b"] = "Hot";
    std::vector<StoredObject> objects = store.List("");
    objects[2].tier = "Archive";
    objects[2].archiveStatus = "rehydrate-pending-to-hot";  // as Azure lists one on its way
    Rehydration state;
    RehydrateObjects(store, objects, {"Cool", "High"}, state);
    EXPECT_EQ(state.requested, (std::vector<std::string>{"a"}));
    EXPECT_EQ(state.pending, (std::vector<std::string>{"c"}));
    EXPECT_EQ(state.online, 1u);
    EXPECT_FALSE(state.Ready());
    EXPECT_EQ(store.tiers()["a"], "Cool");
    EXPECT_EQ(store.rehydrations(), (std::vector<std::string>{"a High"}));
}

TEST_F(RepositoryTest, ASnapshotsPacksAreOnlyThoseItsTreesAndFilesNeed) {
    WriteFile(Folder("one") + "/a.bin", RandomBytes(300000, 40));
    WriteFile(Folder("two") + "/b.bin", RandomBytes(300000, 41));
    const BackupReport first = Backup(Folder("one"));
    const BackupReport second = Backup(Folder("two"));
    // Each snapshot: the pack of its file's chunks and the pack of its trees.
    const std::vector<StoredObject> packs =
        PacksOf(*repository_, repository_->LoadSnapshot(first.snapshot.id), repository_->LoadIndex());
    ASSERT_EQ(packs.size(), 2u);
    const std::vector<StoredObject> others =
        PacksOf(*repository_, repository_->LoadSnapshot(second.snapshot.id), repository_->LoadIndex());
    ASSERT_EQ(others.size(), 2u);
    for (const StoredObject& pack : packs) {
        for (const StoredObject& other : others) EXPECT_NE(pack.name, other.name);
    }
    EXPECT_EQ(TreePacks(*repository_, repository_->LoadIndex()).size(), 2u);
    for (const StoredObject& object : OwnObjects(store_, repository_->layout())) {
        EXPECT_EQ(object.name.find("repo/data/"), std::string::npos) << object.name;
    }
}

TEST_F(RepositoryTest, AnArchivedPackStopsARestoreWithItsOwnFailure) {
    WriteFile(Folder("source") + "/a.bin", RandomBytes(200000, 42));
    const BackupReport backup = Backup(Folder("source"));
    for (const std::string& pack : Names("repo/data/")) store_.tiers()[pack] = "Archive";
    EXPECT_EQ(KindOf([&] { Restore(backup.snapshot.id, Folder("restored")); }), ErrorKind::Archived);
}

}  // namespace
}  // namespace repotest
