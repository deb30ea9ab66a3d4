// A repository in a local folder: objects written whole with their
// properties, read by range, listed by prefix, deleted; names that would
// leave the folder refused; no tiers and no retentions; and a whole
// repository backed up and restored through it.
#include <filesystem>

#include "local/FolderObjectStore.h"
#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

namespace fs = std::filesystem;
using qvhost::repo::FolderObjectStore;

class FolderObjectStoreTest : public RepositoryTest {
protected:
    std::string StoreFolder() const { return Folder("store"); }
};

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

TEST_F(FolderObjectStoreTest, AnObjectComesBackWholeAndByRangeWithItsProperties) {
    FolderObjectStore store(StoreFolder());
    const Bytes content = RandomBytes(100000, 7);
    store.Write("repo/data/ab/abcdef", content.data(), content.size(), {{"kind", "pack"}});
    EXPECT_TRUE(store.ReadAll("repo/data/ab/abcdef", content.size()) == content);
    Bytes part;
    store.ReadRange("repo/data/ab/abcdef", 99990, 100, part);
    EXPECT_TRUE(part == Bytes(content.end() - 10, content.end())) << "a range past the end ends with the object";
    store.ReadRange("repo/data/ab/abcdef", 200000, 10, part);
    EXPECT_TRUE(part.empty());
    const std::vector<StoredObject> listed = store.List("repo/data/");
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].name, "repo/data/ab/abcdef");
    EXPECT_EQ(listed[0].size, content.size());
    EXPECT_EQ(listed[0].properties, (qvhost::repo::Properties{{"kind", "pack"}}));
}

TEST_F(FolderObjectStoreTest, AListingTakesAnyPrefixAndIsSortedAndLeavesWritesInProgressOut) {
    FolderObjectStore store(StoreFolder());
    for (const char* name : {"repo/snapshots/b2", "repo/snapshots/a1", "repo/snapshots/a2", "repo/keys/k", "other/x"}) {
        const Bytes content = Text(name);
        store.Write(name, content.data(), content.size());
    }
    // A write another process has not renamed into place yet.
    std::ofstream(StoreFolder() + "/objects/repo/snapshots/a3.tmp-123") << "partial";
    std::vector<std::string> names;
    for (const StoredObject& object : store.List("repo/snapshots/a")) names.push_back(object.name);
    EXPECT_EQ(names, (std::vector<std::string>{"repo/snapshots/a1", "repo/snapshots/a2"}));
    EXPECT_EQ(store.List("repo/").size(), 4u);
    EXPECT_TRUE(store.List("nothing/").empty());
}

TEST_F(FolderObjectStoreTest, AMissingObjectIsObjectMissingAndItsDeleteIsNoFailure) {
    FolderObjectStore store(StoreFolder());
    Bytes out;
    EXPECT_THROW(store.ReadAll("repo/config", 1000), ObjectMissing);
    EXPECT_THROW(store.ReadRange("repo/config", 0, 10, out), ObjectMissing);
    EXPECT_NO_THROW(store.Delete("repo/config"));
    const Bytes content = Text("x");
    store.Write("repo/config", content.data(), content.size(), {{"a", "b"}});
    store.Delete("repo/config");
    EXPECT_THROW(store.ReadAll("repo/config", 1000), ObjectMissing);
    EXPECT_FALSE(fs::exists(StoreFolder() + "/properties/repo/config")) << "its properties go with it";
}

TEST_F(FolderObjectStoreTest, AnObjectLargerThanTheLimitIsDamagedNotRead) {
    FolderObjectStore store(StoreFolder());
    const Bytes content = RandomBytes(5000, 3);
    store.Write("repo/index/i", content.data(), content.size());
    try {
        store.ReadAll("repo/index/i", 4999);
        FAIL() << "read past its limit";
    } catch (const qvhost::Error& error) {
        EXPECT_EQ(error.kind(), qvhost::ErrorKind::Damaged);
    }
}

TEST_F(FolderObjectStoreTest, NamesThatWouldLeaveTheFolderAreRefused) {
    FolderObjectStore store(StoreFolder());
    const Bytes content = Text("x");
    for (const char* name : {"../escape", "repo/../../escape", "/absolute", "repo//empty", "repo\\back", ""}) {
        SCOPED_TRACE(name);
        EXPECT_THROW(store.Write(name, content.data(), content.size()), qvhost::Error);
    }
    EXPECT_FALSE(fs::exists(Folder("escape")));
}

TEST_F(FolderObjectStoreTest, TiersAndRetentionsAreRefusedByName) {
    FolderObjectStore store(StoreFolder());
    EXPECT_THROW(store.SetTier("repo/data/x", "Archive", "Standard"), qvhost::Error);
    EXPECT_THROW(store.SetRetention("repo/data/x", 1), qvhost::Error);
}

TEST_F(FolderObjectStoreTest, ARepositoryInAFolderBacksUpAndRestoresAndReopens) {
    WriteFile(Folder("source/a.txt"), Text("alpha"));
    WriteFile(Folder("source/sub/big.bin"), RandomBytes(3000000, 11));
    std::string snapshot;
    {
        FolderObjectStore store(StoreFolder());
        Repository::Init(store, "repo", kPassword, SmallRepository(), "test-host");
        Repository repository(store, "repo", kPassword);
        BackupOptions options;
        snapshot = BackupFolder(repository, Folder("source"), options).snapshot.id;
    }
    // Another process, as the next command would be.
    FolderObjectStore store(StoreFolder());
    Repository repository(store, "repo", kPassword);
    EXPECT_EQ(repository.ListSnapshots().size(), 1u);
    repository_ = std::make_unique<Repository>(store, "repo", kPassword);
    const RestoreReport restored = Restore(snapshot, Folder("restored"));
    EXPECT_TRUE(restored.damaged.empty());
    EXPECT_TRUE(ReadFile(Folder("restored/sub/big.bin")) == ReadFile(Folder("source/sub/big.bin")));
    EXPECT_TRUE(ReadFile(Folder("restored/a.txt")) == Text("alpha"));
}

}  // namespace
}  // namespace repotest
