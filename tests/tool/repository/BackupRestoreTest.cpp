// Backups and restores over the store in memory: incremental reading,
// deduplication, sub-paths, damaged and missing packs, and a backup stopped at
// any write.
#include <ctime>
#include <map>
#include <set>

#include "repository/RepositoryFixture.h"

namespace repotest {
namespace {

TEST_F(RepositoryTest, ASecondBackupOfAnUnchangedTreeReadsAndStoresNoData) {
    const std::string source = Folder("source");
    WriteFile(source + "/a.bin", RandomBytes(300000, 4));
    WriteFile(source + "/b/c.txt", Bytes(5000, 'c'));
    const BackupReport first = Backup(source);
    EXPECT_EQ(first.filesNew, 2u);
    const size_t packs = Names("repo/data/").size();
    const BackupReport second = Backup(source);
    EXPECT_EQ(second.filesUnmodified, 2u);
    EXPECT_EQ(second.bytesProcessed, 0u);
    EXPECT_EQ(second.blobsNew, 0u);
    EXPECT_EQ(second.snapshot.parent, first.snapshot.id);
    EXPECT_EQ(Names("repo/data/").size(), packs);
    EXPECT_LT(second.bytesAdded, 4096u);  // the snapshot alone
}

TEST_F(RepositoryTest, AChangedFileIsReadAgainAndOnlyItsNewChunksStored) {
    const std::string source = Folder("source");
    Bytes big = RandomBytes(2000000, 5);
    WriteFile(source + "/big.bin", big);
    WriteFile(source + "/other.bin", RandomBytes(100000, 6));
    Backup(source);
    big[1000000] ^= 0xFF;
    WriteFile(source + "/big.bin", big);
    SetModifiedNs(JoinPath(source, "big.bin"), 1);
    const BackupReport second = Backup(source);
    EXPECT_EQ(second.filesChanged, 1u);
    EXPECT_EQ(second.filesUnmodified, 1u);
    EXPECT_EQ(second.bytesProcessed, big.size());
    EXPECT_GE(second.blobsNew, 1u);
    EXPECT_LE(second.blobBytesNew, 2u * 256 * 1024) << "at most the chunks around the change";
    Restore(second.snapshot.id, Folder("restored"));
    EXPECT_EQ(ReadFile(Folder("restored") + "/big.bin"), big);
}

TEST_F(RepositoryTest, TheSameContentUnderFourNamesIsStoredOnce) {
    const std::string source = Folder("source");
    const Bytes content = RandomBytes(1500000, 7);
    for (const char* name : {"one", "two", "sub/three", "four"}) WriteFile(source + "/" + name, content);
    const BackupReport report = Backup(source);
    EXPECT_EQ(report.blobBytesNew, content.size());
    uint64_t stored = 0;
    for (const StoredObject& pack : store_.List("repo/data/")) stored += pack.size;
    EXPECT_LT(stored, content.size() + content.size() / 20);
}

TEST_F(RepositoryTest, RestoreGivesBackTheTreeAndASubPath) {
    const std::string source = Folder("source");
    WriteFile(source + "/docs/a.txt", Bytes(70000, 'a'));
    WriteFile(source + "/docs/deep/b.bin", RandomBytes(400000, 8));
    WriteFile(source + "/empty.txt", Bytes());
    fs::create_directories(source + "/empty folder");
    fs::create_symlink("docs/a.txt", source + "/link");
    const BackupReport report = Backup(source);
    const RestoreReport all = Restore(report.snapshot.id, Folder("all"));
    EXPECT_TRUE(all.damaged.empty());
    EXPECT_EQ(ReadFile(Folder("all") + "/docs/deep/b.bin"), ReadFile(source + "/docs/deep/b.bin"));
    EXPECT_TRUE(fs::exists(Folder("all") + "/empty.txt"));
    EXPECT_TRUE(fs::is_directory(Folder("all") + "/empty folder"));
    EXPECT_EQ(fs::read_symlink(Folder("all") + "/link"), "docs/a.txt");
    Restore(report.snapshot.id, Folder("sub"), "docs");
    EXPECT_EQ(ReadFile(Folder("sub") + "/a.txt"), Bytes(70000, 'a'));
    EXPECT_TRUE(fs::exists(Folder("sub") + "/deep/b.bin"));
    EXPECT_FALSE(fs::exists(Folder("sub") + "/empty.txt"));
    EXPECT_EQ(KindOf([&] { Restore(report.snapshot.id, Folder("none"), "nothing/here"); }), ErrorKind::NotFound);
}

TEST_F(RepositoryTest, ThePrivateFolderBackedUpComesBackPrivateWithItsTime) {
    const std::string source = Folder("home");
    WriteFile(source + "/.ssh/id_ed25519", Bytes(400, 'k'));
    fs::permissions(source + "/.ssh", fs::perms::owner_all, fs::perm_options::replace);
    fs::permissions(source, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec,
                    fs::perm_options::replace);
    const int64_t old = 978307200123456789;  // 2001
    SetModifiedNs(source + "/.ssh", old);
    SetModifiedNs(source, old + 1);
    const BackupReport report = Backup(source);
    ASSERT_TRUE(report.snapshot.root.has_value());

    Restore(report.snapshot.id, Folder("restored"));
    EXPECT_EQ(fs::status(Folder("restored")).permissions(),
              fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec)
        << "DEST_DIR takes the mode of the folder backed up";
    EXPECT_EQ(ModifiedNs(Folder("restored")), old + 1);
    EXPECT_EQ(fs::status(Folder("restored/.ssh")).permissions(), fs::perms::owner_all);
    EXPECT_EQ(ModifiedNs(Folder("restored/.ssh")), old);

    // A sub-path: DEST_DIR takes that folder's own metadata.
    Restore(report.snapshot.id, Folder("ssh"), ".ssh");
    EXPECT_EQ(fs::status(Folder("ssh")).permissions(), fs::perms::owner_all);
    EXPECT_EQ(ModifiedNs(Folder("ssh")), old);
}

TEST_F(RepositoryTest, ADamagedPackNamesEveryAffectedFileAndWritesNoneOfThem) {
    const std::string source = Folder("source");
    WriteFile(source + "/hit-1.bin", RandomBytes(200000, 9));
    WriteFile(source + "/hit-2.bin", RandomBytes(200000, 10));
    const BackupReport report = Backup(source);
    // One bit of one chunk of each file, in storage.
    const MasterIndex index = repository_->LoadIndex();
    for (const auto& [path, file] : Files(report.snapshot.id)) {
        const std::optional<BlobLocation> location = index.Find(file.content.back());
        store_.objects()[repository_->layout().Pack(location->pack)][location->entry.offset + 40] ^= 0x04;
    }
    const RestoreReport restore = Restore(report.snapshot.id, Folder("restored"));
    ASSERT_EQ(restore.damaged.size(), 2u);
    EXPECT_EQ(restore.damaged[0].file, "hit-1.bin");
    EXPECT_EQ(restore.damaged[1].file, "hit-2.bin");
    EXPECT_FALSE(fs::exists(Folder("restored") + "/hit-1.bin"));
    EXPECT_FALSE(fs::exists(Folder("restored") + "/hit-2.bin"));
    const CheckReport check = RunCheck(*repository_, CheckOptions{true, 2, nullptr});
    EXPECT_FALSE(check.errors.empty());
    EXPECT_EQ(check.affected.size(), 2u);
    const CheckReport structure = RunCheck(*repository_, CheckOptions{false, 2, nullptr});
    EXPECT_TRUE(structure.errors.empty()) << "the structure itself is whole";
}

TEST_F(RepositoryTest, AMissingPackIsNamedByCheckAndRestore) {
    const std::string source = Folder("source");
    WriteFile(source + "/lost.bin", RandomBytes(100000, 11));
    const BackupReport report = Backup(source);
    for (const std::string& pack : DataPacks()) store_.Delete(pack);
    const RestoreReport restore = Restore(report.snapshot.id, Folder("restored"));
    ASSERT_EQ(restore.damaged.size(), 1u);
    EXPECT_NE(restore.damaged[0].what.find("missing"), std::string::npos);
    const CheckReport check = RunCheck(*repository_, CheckOptions{false, 2, nullptr});
    ASSERT_FALSE(check.errors.empty());
    EXPECT_NE(check.errors[0].find("missing"), std::string::npos);
}

// A store that fails after a number of writes, as a process that dies would.
class FailingStore : public MemoryStore {
public:
    size_t writesLeft = SIZE_MAX;
    using MemoryStore::Write;
    void Write(const std::string& name, const uint8_t* data, size_t size, const Properties& properties) override {
        if (writesLeft-- == 0) throw Error(ErrorKind::Storage, "the storage went away");
        MemoryStore::Write(name, data, size, properties);
    }
};

TEST(RepositoryCrash, ABackupStoppedAtAnyWriteLeavesNothingThatNamesMissingData) {
    testsupport::TempFolder work;
    const std::string source = work.PathUtf8() + "/source";
    for (int i = 0; i < 6; ++i) WriteFile(source + "/f" + std::to_string(i), RandomBytes(400000, 20 + i));
    for (size_t stopAfter = 0; stopAfter < 8; ++stopAfter) {
        FailingStore store;
        Repository::Init(store, "repo", kPassword, SmallRepository(), "h");
        Repository repository(store, "repo", kPassword);
        store.writesLeft = stopAfter;
        BackupOptions options;
        options.jobs = 1;
        try {
            BackupFolder(repository, source, options);
        } catch (const Error&) {
        }
        store.writesLeft = SIZE_MAX;
        // Whatever an index or a snapshot names exists.
        const CheckReport check = RunCheck(repository, CheckOptions{true, 1, nullptr});
        EXPECT_TRUE(check.errors.empty()) << "stopped after " << stopAfter << " writes: " << check.errors[0];
        // The next backup reuses the packs already stored, and completes.
        const MasterIndex index = repository.LoadIndex();
        size_t packsBefore = 0;
        for (const StoredObject& pack : store.List("repo/data/")) {
            Id id;
            ASSERT_TRUE(IdFromHex(pack.name.substr(10), id));
            packsBefore += index.HasPack(id) ? 0 : 1;
        }
        const BackupReport next = BackupFolder(repository, source, options);
        EXPECT_EQ(next.packsAdopted, packsBefore) << stopAfter;
        const CheckReport after = RunCheck(repository, CheckOptions{true, 1, nullptr});
        EXPECT_TRUE(after.errors.empty()) << stopAfter;
        EXPECT_TRUE(after.warnings.empty()) << stopAfter;
    }
}

TEST_F(RepositoryTest, ABlobUsedManyTimesInOneFileAndByOthersIsReadOnceAndWrittenEverywhere) {
    const std::string source = Folder("source");
    // Zeros cut into chunks of the maximum size: one blob, many times in each file.
    const Bytes zeros(3u << 20, 0);
    WriteFile(source + "/a.bin", zeros);
    WriteFile(source + "/b/b.bin", zeros);
    Bytes mixed = RandomBytes(200000, 70);
    mixed.insert(mixed.end(), zeros.begin(), zeros.end());
    WriteFile(source + "/c.bin", mixed);
    const BackupReport backup = Backup(source);
    store_.ForgetReads();
    const RestoreReport restored = Restore(backup.snapshot.id, Folder("restored"));
    EXPECT_TRUE(restored.damaged.empty());
    EXPECT_TRUE(ReadFile(Folder("restored/a.bin")) == zeros);
    EXPECT_TRUE(ReadFile(Folder("restored/b/b.bin")) == zeros);
    EXPECT_TRUE(ReadFile(Folder("restored/c.bin")) == mixed);
    // The packs hold a few hundred KiB: one span each.
    EXPECT_LE(store_.ReadsUnder("repo/data/"), Names("repo/data/").size());
}

TEST_F(RepositoryTest, ADryRunReadsAndChunksButStoresNothing) {
    const std::string source = Folder("source");
    WriteFile(source + "/a.bin", RandomBytes(500000, 50));
    WriteFile(source + "/b.bin", RandomBytes(20000, 51));
    const std::map<std::string, Bytes> before = store_.objects();
    BackupOptions options;
    options.jobs = 2;
    options.host = "test-host";
    options.dryRun = true;
    options.listReads = true;
    const BackupReport dry = BackupFolder(*repository_, source, options);
    EXPECT_EQ(store_.objects(), before) << "a dry run writes nothing, not even a lock";
    EXPECT_EQ(dry.filesNew, 2u);
    EXPECT_EQ(dry.bytesProcessed, 520000u);
    EXPECT_GT(dry.bytesAdded, 520000u);
    EXPECT_EQ(dry.toRead.size(), 2u);
    // What a real backup then adds is what the dry run said it would.
    const BackupReport real = Backup(source);
    EXPECT_EQ(real.blobsNew, dry.blobsNew);
    EXPECT_EQ(real.packsWritten, dry.packsWritten);
    EXPECT_NEAR(static_cast<double>(real.bytesAdded), static_cast<double>(dry.bytesAdded), 4096.0);
}

// Names that Windows cannot have, stored by a POSIX backup, are left out of
// a Windows restore one entry at a time (a folder with what lies beneath
// it), each named; the rest of the snapshot is planned as usual.
TEST_F(RepositoryTest, NamesThisSystemRefusesAreLeftOutOneByOneNotTheirFolder) {
    const auto Text = [](const std::string& text) { return Bytes(text.begin(), text.end()); };
    const std::string source = Folder("source");
    WriteFile(source + "/kept.txt", Text("kept"));
    WriteFile(source + "/CON", Text("a device name on Windows"));
    WriteFile(source + "/ends.", Text("a trailing dot"));
    WriteFile(source + "/aux/inside.txt", Text("beneath a refused folder"));
    WriteFile(source + "/docs/what?.txt", Text("a reserved character"));
    WriteFile(source + "/docs/fine.txt", Text("fine"));
    const BackupReport backup = Backup(source);
    const MasterIndex index = repository_->LoadIndex();
    TreeReader reader(*repository_, index);
    const Snapshot snapshot = repository_->LoadSnapshot(backup.snapshot.id);

    const RestorePlan posix = PlanRestore(reader, snapshot, "", {}, PathRules::Posix);
    EXPECT_TRUE(posix.refused.empty());
    EXPECT_EQ(posix.files.size(), 6u);

    const RestorePlan windows = PlanRestore(reader, snapshot, "", {}, PathRules::Windows);
    std::map<std::string, std::string> refused;
    for (const RestoreProblem& problem : windows.refused) refused[problem.file] = problem.what;
    std::set<std::string> files;
    for (const RestoreFile& file : windows.files) files.insert(file.relativePath);
    EXPECT_EQ(files, (std::set<std::string>{"docs/fine.txt", "kept.txt"}));
    ASSERT_EQ(refused.size(), 4u);
    EXPECT_EQ(refused["CON"], "this system refuses its name (it names a Windows device (CON))");
    EXPECT_NE(refused["aux"].find("names a Windows device"), std::string::npos);
    EXPECT_NE(refused["ends."].find("ending in a dot"), std::string::npos);
    EXPECT_NE(refused["docs/what?.txt"].find("reserves"), std::string::npos);
}

}  // namespace
}  // namespace repotest
