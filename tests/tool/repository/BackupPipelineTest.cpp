// The backup's walk, reads and trees overlapping: folders let go as soon as
// they are done, names of one file waiting for its one read, and a failure
// on either side ending the backup.
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

// The local tree, but files whose name holds `refused` cannot be opened, and
// listing the folder named `broken` fails the whole backup.
class FaultySource : public Source {
public:
    FaultySource(const std::string& root, std::string refused, std::string broken = "")
        : local_({root}), refused_(std::move(refused)), broken_(std::move(broken)) {}

    std::vector<std::string> Paths() const override { return local_.Paths(); }
    Listing List(const std::string& folder) override {
        if (!broken_.empty() && folder == broken_) throw Error(ErrorKind::Storage, "the source failed at " + folder);
        return local_.List(folder);
    }
    std::unique_ptr<SourceReader> Open(const std::string& path) override {
        if (!refused_.empty() && path.find(refused_) != std::string::npos) {
            std::lock_guard<std::mutex> lock(mutex_);
            opened_.insert(path);
            throw Error(ErrorKind::LocalFile, path + ": permission denied");
        }
        return local_.Open(path);
    }
    bool Unchanged(const std::string& path, const Node& file) override { return local_.Unchanged(path, file); }

    std::set<std::string> Refused() {
        std::lock_guard<std::mutex> lock(mutex_);
        return opened_;
    }

private:
    LocalSource local_;
    const std::string refused_, broken_;
    std::mutex mutex_;
    std::set<std::string> opened_;
};

BackupOptions Options() {
    BackupOptions options;
    options.jobs = 2;
    options.host = "test-host";
    return options;
}

// A tree of `width` folders on each of `depth` levels below the root, a
// small file in each.
size_t MakeTree(const std::string& root, int depth, int width, const std::string& under = "") {
    size_t folders = 0;
    for (int i = 0; i < width; ++i) {
        const std::string path = under + "/d" + std::to_string(i);
        WriteFile(root + path + "/file.txt", Bytes(100 + static_cast<size_t>(i), 'x'));
        ++folders;
        if (depth > 1) folders += MakeTree(root, depth - 1, width, path);
    }
    return folders;
}

TEST_F(RepositoryTest, AnUnchangedFolderIsLetGoAsSoonAsItIsWalked) {
    const std::string source = Folder("source");
    const size_t folders = MakeTree(source, 3, 6);  // 258 folders, 3 deep
    ASSERT_EQ(folders, 6u + 36u + 216u);
    const BackupReport first = Backup(source);
    EXPECT_EQ(first.filesNew, folders);
    const BackupReport second = Backup(source);
    EXPECT_EQ(second.filesUnmodified, folders);
    // The root and one folder on each level below it: never the whole tree.
    EXPECT_LE(second.foldersHeldAtMost, 4u);
    EXPECT_EQ(second.treesNew, 0u);
    EXPECT_EQ(second.snapshot.tree, first.snapshot.tree) << "the same trees, encoded as they finished";
    const RestoreReport restored = Restore(second.snapshot.id, Folder("restored"));
    EXPECT_EQ(restored.files, folders);
    EXPECT_TRUE(ReadFile(Folder("restored/d5/d5/d5/file.txt")) == Bytes(105, 'x'));
}

TEST_F(RepositoryTest, FoldersAreHeldOnlyWhileTheirFilesAreRead) {
    const std::string source = Folder("source");
    const size_t folders = MakeTree(source, 2, 40);  // 1,640 folders, 1,640 files to read
    const BackupReport first = Backup(source);
    EXPECT_EQ(first.filesNew, folders);
    // The queue holds at most 1,024 files; their folders and the walk's way
    // down are all that may be open.
    EXPECT_LE(first.foldersHeldAtMost, 1024u + 3u);
    EXPECT_LT(first.foldersHeldAtMost, folders);
    const RestoreReport restored = Restore(first.snapshot.id, Folder("restored"));
    EXPECT_EQ(restored.files, folders);
}

TEST_F(RepositoryTest, NamesOfOneFileInManyFoldersTakeTheChunksOfItsOneRead) {
    const std::string source = Folder("source");
    MakeTree(source, 2, 5);
    const Bytes content = RandomBytes(300000, 61);
    WriteFile(source + "/d0/shared.bin", content);
    for (const char* name : {"/d1/shared.bin", "/d1/d4/shared.bin", "/d4/d2/shared.bin", "/shared.bin"}) {
        ASSERT_EQ(link((source + "/d0/shared.bin").c_str(), (source + name).c_str()), 0);
    }
    const BackupReport first = Backup(source);
    EXPECT_EQ(first.Unreadable(), 0u);
    EXPECT_EQ(std::count_if(first.toRead.begin(), first.toRead.end(),
                            [](const std::string& path) { return path.find("shared.bin") != std::string::npos; }),
              1) << "one read for the five names";
    Restore(first.snapshot.id, Folder("restored"));
    struct stat a {}, b {};
    ASSERT_EQ(stat(Folder("restored/d0/shared.bin").c_str(), &a), 0);
    ASSERT_EQ(stat(Folder("restored/d4/d2/shared.bin").c_str(), &b), 0);
    EXPECT_EQ(a.st_ino, b.st_ino) << "still one file";
    EXPECT_TRUE(ReadFile(Folder("restored/shared.bin")) == content);
}

TEST_F(RepositoryTest, TheOtherNamesOfAFileThatCouldNotBeReadAreLeftOutToo) {
    const std::string source = Folder("source");
    MakeTree(source, 2, 3);
    WriteFile(source + "/d0/locked.bin", RandomBytes(5000, 62));
    ASSERT_EQ(link((source + "/d0/locked.bin").c_str(), (source + "/d2/d1/locked.bin").c_str()), 0);
    // A name the walk finds long after the read failed.
    MakeTree(source, 3, 4, "/z");
    ASSERT_EQ(link((source + "/d0/locked.bin").c_str(), (source + "/z/d3/d3/d3/locked.bin").c_str()), 0);
    FaultySource faulty(source, "locked");
    const BackupReport report = RunBackup(*repository_, faulty, Options());
    ASSERT_EQ(faulty.Refused().size(), 1u) << "the file is opened once, under its first name";
    EXPECT_EQ(report.Unreadable(), 3u) << "every name is reported";
    std::set<std::string> named;
    for (const SkippedEntry& entry : report.skipped) named.insert(entry.relativePath);
    EXPECT_EQ(named, (std::set<std::string>{"d0/locked.bin", "d2/d1/locked.bin", "z/d3/d3/d3/locked.bin"}));
    Restore(report.snapshot.id, Folder("restored"));
    EXPECT_FALSE(fs::exists(Folder("restored/d0/locked.bin")));
    EXPECT_FALSE(fs::exists(Folder("restored/d2/d1/locked.bin"))) << "not kept as an empty file";
    EXPECT_FALSE(fs::exists(Folder("restored/z/d3/d3/d3/locked.bin")));
    EXPECT_TRUE(fs::exists(Folder("restored/d2/d1/file.txt")));
}

TEST_F(RepositoryTest, ASourceThatFailsInTheMiddleOfTheWalkEndsTheBackupAndStoresNoSnapshot) {
    const std::string source = Folder("source");
    MakeTree(source, 2, 8);
    FaultySource faulty(source, "", "d5");
    EXPECT_EQ(KindOf([&] { RunBackup(*repository_, faulty, Options()); }), ErrorKind::Storage);
    EXPECT_TRUE(Names("repo/snapshots/").empty());
    // What was stored is adopted by the next backup, which completes.
    const BackupReport next = Backup(source);
    EXPECT_EQ(next.filesNew, 8u + 64u);
    EXPECT_TRUE(RunCheck(*repository_, CheckOptions{true, 1, nullptr}).errors.empty());
}

TEST_F(RepositoryTest, AChunkMetAgainInTheSameBackupIsStoredOnceWhetherItsPackIsFinishedOrStillFilling) {
    // The same 1.5 MB in five files (its chunks fill more than one 1 MiB
    // pack, so later copies meet both finished packs and the one filling),
    // and the same small file in twenty folders.
    const Bytes big = RandomBytes(1500000, 97);
    for (int i = 0; i < 5; ++i) WriteFile(Folder("source/big" + std::to_string(i) + ".bin"), big);
    for (int i = 0; i < 20; ++i) WriteFile(Folder("source/d" + std::to_string(i) + "/small.txt"), RandomBytes(3000, 98));
    const BackupReport report = Backup(Folder("source"));
    const MasterIndex index = repository_->LoadIndex();
    size_t entries = 0;
    for (const IndexedPack& pack : index.all()) entries += pack.blobs.size();
    EXPECT_EQ(entries, index.BlobCount()) << "no chunk stored twice";
    EXPECT_EQ(index.BlobCount(), report.blobsNew + report.treesNew);
    EXPECT_LT(report.blobBytesNew, big.size() + 3000 + 64 * 1024) << "one copy of each";
    const RestoreReport restored = Restore(report.snapshot.id, Folder("restored"));
    EXPECT_TRUE(restored.damaged.empty());
    EXPECT_TRUE(ReadFile(Folder("restored/big4.bin")) == big);
}

}  // namespace
}  // namespace repotest
