// Which entries a restore takes (--include, --exclude), what it does with
// those that exist (--overwrite), what it removes (--delete) and how it
// reads files back (--verify).
#include <gtest/gtest.h>

#include <chrono>

#include "repository/Crypto.h"
#include "repository/RestoreChoices.h"
#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

class RestoreChoicesTest : public RepositoryTest {
protected:
    void SetUp() override {
        RepositoryTest::SetUp();
        WriteFile(Folder("source/docs/a.txt"), Bytes(70000, 'a'));
        WriteFile(Folder("source/docs/b.log"), RandomBytes(30000, 1));
        WriteFile(Folder("source/src/x/y.txt"), RandomBytes(90000, 2));
        WriteFile(Folder("source/cache/z.txt"), RandomBytes(1000, 3));
        id_ = Backup(Folder("source")).snapshot.id;
    }

    RestoreReport RestoreWith(const std::string& destination, const RestoreOptions& options, bool replace = true) {
        Destination target(destination, DestinationOptions{replace, false});
        return RunRestore(*repository_, repository_->LoadIndex(), repository_->LoadSnapshot(id_), &target, options);
    }

    static RestoreOptions With(OverwriteMode mode, bool verify = false, bool deleteOthers = false) {
        RestoreOptions options;
        options.jobs = 2;
        options.overwrite = mode;
        options.verify = verify;
        options.deleteOthers = deleteOthers;
        return options;
    }

    // Rewrites the file with other bytes of the same size, its time kept.
    void ReplaceKeepingSizeAndTime(const std::string& path) {
        const auto time = fs::last_write_time(fs::u8path(path));
        WriteFile(path, Bytes(fs::file_size(fs::u8path(path)), 'Z'));
        fs::last_write_time(fs::u8path(path), time);
    }

    std::string id_;
};

TEST_F(RestoreChoicesTest, IncludeTakesMatchesAndTheFoldersOnTheWayExcludeDropsASubtree) {
    RestoreOptions options = With(OverwriteMode::IfChanged);
    options.selection.includes.Add(PathPattern("*.txt"));
    options.selection.excludes.Add(PathPattern("/cache"));
    const RestoreReport report = RestoreWith(Folder("dest"), options);
    EXPECT_EQ(report.files, 2u);
    EXPECT_EQ(ReadFile(Folder("dest/docs/a.txt")), Bytes(70000, 'a'));
    EXPECT_EQ(ReadFile(Folder("dest/src/x/y.txt")), RandomBytes(90000, 2));
    EXPECT_FALSE(fs::exists(Folder("dest/docs/b.log")));
    EXPECT_FALSE(fs::exists(Folder("dest/cache")));
}

TEST_F(RestoreChoicesTest, PatternsMatchThePathInTheSnapshotBelowASubPath) {
    RestoreOptions options = With(OverwriteMode::IfChanged);
    options.subPath = "docs";
    options.selection.includes.Add(PathPattern("/docs/b.log"));
    RestoreWith(Folder("dest"), options);
    EXPECT_TRUE(fs::exists(Folder("dest/b.log")));
    EXPECT_FALSE(fs::exists(Folder("dest/a.txt")));
    options.selection = {};
    options.selection.excludes.Add(PathPattern("/a.txt"));  // anchored at the snapshot's root: no match
    RestoreWith(Folder("other"), options);
    EXPECT_TRUE(fs::exists(Folder("other/a.txt")));
}

TEST_F(RestoreChoicesTest, IfChangedLeavesAnUnchangedFileWithoutReadingItsChunks) {
    ASSERT_TRUE(RestoreWith(Folder("dest"), With(OverwriteMode::Always)).damaged.empty());
    for (const std::string& pack : DataPacks()) store_.Delete(pack);
    const RestoreReport again = RestoreWith(Folder("dest"), With(OverwriteMode::IfChanged));
    EXPECT_TRUE(again.damaged.empty());
    EXPECT_EQ(again.files, 0u);
    EXPECT_EQ(again.skipped, 4u);
}

TEST_F(RestoreChoicesTest, IfChangedReplacesAFileOfAnotherSizeOrTime) {
    RestoreWith(Folder("dest"), With(OverwriteMode::Always));
    WriteFile(Folder("dest/docs/a.txt"), Bytes(10, 'x'));
    const RestoreReport report = RestoreWith(Folder("dest"), With(OverwriteMode::IfChanged));
    EXPECT_EQ(report.files, 1u);
    EXPECT_EQ(ReadFile(Folder("dest/docs/a.txt")), Bytes(70000, 'a'));
}

TEST_F(RestoreChoicesTest, VerifyRestoresAnUnchangedLookingFileWhoseBytesDiffer) {
    RestoreWith(Folder("dest"), With(OverwriteMode::Always));
    ReplaceKeepingSizeAndTime(Folder("dest/src/x/y.txt"));
    EXPECT_EQ(RestoreWith(Folder("dest"), With(OverwriteMode::IfChanged)).files, 0u);
    EXPECT_NE(ReadFile(Folder("dest/src/x/y.txt")), RandomBytes(90000, 2));  // left: same size and time
    const RestoreReport verified = RestoreWith(Folder("dest"), With(OverwriteMode::IfChanged, true));
    EXPECT_EQ(verified.files, 1u);
    EXPECT_EQ(verified.skipped, 3u);
    EXPECT_TRUE(verified.mismatched.empty());
    EXPECT_EQ(ReadFile(Folder("dest/src/x/y.txt")), RandomBytes(90000, 2));
}

TEST_F(RestoreChoicesTest, IfNewerReplacesOnlyOlderFilesAndNeverLeavesEverything) {
    RestoreWith(Folder("dest"), With(OverwriteMode::Always));
    WriteFile(Folder("dest/docs/a.txt"), Bytes(5, 'n'));  // newer than the snapshot's
    WriteFile(Folder("dest/docs/b.log"), Bytes(5, 'o'));
    fs::last_write_time(fs::u8path(Folder("dest/docs/b.log")), fs::file_time_type::clock::now() - std::chrono::hours(24 * 400));
    EXPECT_EQ(RestoreWith(Folder("dest"), With(OverwriteMode::IfNewer)).files, 1u);
    EXPECT_EQ(ReadFile(Folder("dest/docs/a.txt")), Bytes(5, 'n'));
    EXPECT_EQ(ReadFile(Folder("dest/docs/b.log")), RandomBytes(30000, 1));
    const RestoreReport never = RestoreWith(Folder("dest"), With(OverwriteMode::Never), false);
    EXPECT_EQ(never.files, 0u);
    EXPECT_EQ(ReadFile(Folder("dest/docs/a.txt")), Bytes(5, 'n'));
    EXPECT_EQ(RestoreWith(Folder("dest"), With(OverwriteMode::Always)).files, 4u);
    EXPECT_EQ(ReadFile(Folder("dest/docs/a.txt")), Bytes(70000, 'a'));
}

TEST_F(RestoreChoicesTest, DeleteRemovesWhatTheChosenSnapshotDoesNotHoldNeverFollowingALink) {
    WriteFile(Folder("outside/keep"), Bytes(3, 'k'));
    WriteFile(Folder("dest/extra"), Bytes(3, 'e'));
    WriteFile(Folder("dest/docs/old/deep"), Bytes(3, 'e'));
    fs::create_directory_symlink(fs::u8path(Folder("outside")), fs::u8path(Folder("dest/to-outside")));
    RestoreOptions options = With(OverwriteMode::IfChanged, false, true);
    options.selection.excludes.Add(PathPattern("*.log"));
    const RestoreReport report = RestoreWith(Folder("dest"), options);
    EXPECT_EQ(report.removed, (std::vector<std::string>{"docs/old", "extra", "to-outside"}));
    EXPECT_FALSE(fs::exists(fs::symlink_status(fs::u8path(Folder("dest/to-outside")))));
    EXPECT_EQ(ReadFile(Folder("outside/keep")), Bytes(3, 'k'));
    EXPECT_TRUE(fs::exists(Folder("dest/docs/a.txt")));
    EXPECT_TRUE(fs::exists(Folder("dest/cache/z.txt")));
    EXPECT_FALSE(fs::exists(Folder("dest/docs/b.log")));
}

// A file in memory, as a target gives one back.
struct BytesFile : ExistingFile {
    explicit BytesFile(Bytes bytes) : bytes(std::move(bytes)) {}
    size_t ReadAt(uint64_t offset, void* data, size_t size) override {
        if (offset >= bytes.size()) return 0;
        const size_t count = std::min<size_t>(size, bytes.size() - offset);
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), count, static_cast<uint8_t*>(data));
        return count;
    }
    Bytes bytes;
};

TEST_F(RestoreChoicesTest, ReadingBackNamesAnyByteThatDiffersFromItsChunks) {
    const MasterIndex index = repository_->LoadIndex();
    Node node;
    for (const auto& [path, file] : Files(id_)) {
        if (path == "src/x/y.txt") node = file;
    }
    ASSERT_EQ(node.size, 90000u);
    const Key256& mac = repository_->keys().mac;
    BytesFile good(RandomBytes(90000, 2));
    EXPECT_EQ(CompareWithChunks(good, node.content, index, mac), "");
    BytesFile changed(RandomBytes(90000, 2));
    changed.bytes[89999] ^= 1;
    EXPECT_NE(CompareWithChunks(changed, node.content, index, mac).find("differ from its chunk"), std::string::npos);
    BytesFile longer(RandomBytes(90000, 2));
    longer.bytes.push_back(0);
    EXPECT_NE(CompareWithChunks(longer, node.content, index, mac).find("longer"), std::string::npos);
    BytesFile shorter(Bytes(100, 0));
    EXPECT_NE(CompareWithChunks(shorter, node.content, index, mac), "");
}

}  // namespace
}  // namespace repotest
