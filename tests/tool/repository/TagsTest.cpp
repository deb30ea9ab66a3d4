// Changing tags: a new snapshot object with the same tree and the original
// id kept in it, the old object removed; no change, nothing written.
#include "repository/RepositoryFixture.h"
#include "repository/Tags.h"

namespace repotest {
namespace {

TEST(ChangedTags, AddsRemovesAndReplaces) {
    const std::vector<std::string> tags = {"daily", "home"};
    TagChange change;
    change.add = {"keep", "daily"};
    change.remove = {"home"};
    EXPECT_EQ(ChangedTags(tags, change), (std::vector<std::string>{"daily", "keep"}));
    TagChange set;
    set.replace = true;
    set.set = {"x", "x", "y"};
    EXPECT_EQ(ChangedTags(tags, set), (std::vector<std::string>{"x", "y"}));
    TagChange clear;
    clear.replace = true;
    EXPECT_TRUE(ChangedTags(tags, clear).empty());
    EXPECT_FALSE(clear.Empty());
    EXPECT_TRUE(TagChange{}.Empty());
}

TEST_F(RepositoryTest, ChangingTagsWritesANewSnapshotThatKeepsTheOriginalId) {
    WriteFile(Folder("source/a.txt"), Bytes(10, 'a'));
    const Snapshot old = Backup(Folder("source")).snapshot;
    TagChange change;
    change.add = {"keep"};
    const std::string changed = ChangeTags(*repository_, old.id, change);
    ASSERT_NE(changed, old.id);
    EXPECT_EQ(Names("repo/snapshots/"), (std::vector<std::string>{"repo/snapshots/" + changed}));
    const Snapshot loaded = repository_->LoadSnapshot(changed);
    EXPECT_EQ(loaded.tags, (std::vector<std::string>{"keep"}));
    EXPECT_EQ(loaded.original, old.id);
    EXPECT_EQ(loaded.tree, old.tree);
    EXPECT_EQ(loaded.timeNs, old.timeNs);
    EXPECT_EQ(repository_->ListSnapshotInfos().front().tags, loaded.tags) << "the listing's info follows";

    change.add = {"more"};
    const Snapshot again = repository_->LoadSnapshot(ChangeTags(*repository_, changed, change));
    EXPECT_EQ(again.original, old.id) << "the first id stays";
    EXPECT_EQ(again.tags, (std::vector<std::string>{"keep", "more"}));
}

TEST_F(RepositoryTest, TagsThatDoNotChangeWriteNothing) {
    WriteFile(Folder("source/a.txt"), Bytes(10, 'a'));
    const Snapshot old = Backup(Folder("source")).snapshot;
    const size_t writes = store_.writes();
    TagChange change;
    change.remove = {"absent"};
    EXPECT_EQ(ChangeTags(*repository_, old.id, change), old.id);
    EXPECT_EQ(store_.writes(), writes);
    EXPECT_TRUE(repository_->LoadSnapshot(old.id).original.empty());
}

}  // namespace
}  // namespace repotest
