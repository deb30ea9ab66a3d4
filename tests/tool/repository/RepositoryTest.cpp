// The repository's pieces over an object store in memory: packs, the index,
// snapshots, keys, the repository itself, backups and restores, locks and
// prune. Storage is untrusted in all of them: every test that damages an
// object checks that the damage is named, not followed.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "util/Json.h"
#include "local/LocalFiles.h"
#include "util/ToolError.h"
#include "repository/Backup.h"
#include "repository/Binary.h"
#include "repository/Locks.h"
#include "repository/Maintenance.h"
#include "repository/MemoryStore.h"
#include "repository/Restore.h"
#include "support/TempFolder.h"

namespace {

using namespace qvhost;
using namespace qvhost::repo;
namespace fs = std::filesystem;

constexpr char kPassword[] = "correct horse";

Bytes RandomBytes(size_t size, uint64_t seed) {
    std::mt19937_64 random(seed);
    Bytes bytes(size);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    return bytes;
}

void WriteFile(const std::string& path, const Bytes& bytes) {
    fs::create_directories(fs::u8path(path).parent_path());
    std::ofstream(fs::u8path(path), std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                             static_cast<std::streamsize>(bytes.size()));
}

Bytes ReadFile(const std::string& path) {
    std::ifstream in(fs::u8path(path), std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

int ExitStatusOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const ToolError& failure) {
        return failure.exitStatus();
    }
    return 0;
}

// Small chunks and packs, a cheap key derivation: the tests stay quick.
InitOptions SmallRepository() {
    InitOptions options;
    options.kdfMemory = 1u << 20;
    options.packSize = 1u << 20;
    options.chunker = {16 * 1024, 64 * 1024, 256 * 1024};
    return options;
}

class RepositoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        Repository::Init(store_, "repo", kPassword, SmallRepository(), "test-host");
        repository_ = std::make_unique<Repository>(store_, "repo", kPassword);
    }

    std::string Folder(const std::string& name) const { return work_.PathUtf8() + "/" + name; }

    BackupReport Backup(const std::string& source, bool ignoreParent = false) {
        BackupOptions options;
        options.jobs = 2;
        options.host = "test-host";
        options.ignoreParent = ignoreParent;
        return RunBackup(*repository_, source, options);
    }

    RestoreReport Restore(const std::string& id, const std::string& destination, const std::string& subPath = "") {
        const Snapshot snapshot = SelectSubPath(repository_->LoadSnapshot(id), subPath);
        Destination target(destination, false);
        return RunRestore(*repository_, repository_->LoadIndex(), snapshot, &target, RestoreOptions{2, "", ProgressStyle::Silent});
    }

    std::vector<std::string> Names(const std::string& prefix) {
        std::vector<std::string> names;
        for (const StoredObject& object : store_.List(prefix)) names.push_back(object.name);
        return names;
    }

    repotest::MemoryStore store_;
    std::unique_ptr<Repository> repository_;
    testsupport::TempFolder work_;
};

// ---- packs

TEST(Pack, BlobsRoundTripThroughTheHeaderAtTheEnd) {
    const MasterKeys keys = MasterKeys::Random();
    PackBuilder builder;
    std::vector<Bytes> chunks = {RandomBytes(1000, 1), Bytes(50000, 'a'), Bytes()};
    for (const Bytes& chunk : chunks) {
        builder.Add(SealBlob(keys, KeyedHash(keys.mac, chunk.data(), chunk.size()), chunk.data(), chunk.size()));
    }
    const PackBuilder::Finished pack = builder.Finish(keys);
    EXPECT_EQ(pack.id, Sha256Id(pack.bytes.data(), pack.bytes.size()));
    const uint32_t length = PackHeaderLength(pack.bytes.data() + pack.bytes.size() - 4, pack.bytes.size(), "p");
    const std::vector<PackEntry> entries =
        DecodePackHeader(keys, pack.bytes.data() + pack.bytes.size() - 4 - length, length, pack.bytes.size(), "p");
    ASSERT_EQ(entries.size(), chunks.size());
    EXPECT_FALSE(entries[0].compressed);  // random bytes are stored as they are
    EXPECT_TRUE(entries[1].compressed);
    for (size_t i = 0; i < chunks.size(); ++i) {
        Bytes plain;
        std::string why;
        ASSERT_TRUE(OpenBlob(keys, entries[i], pack.bytes.data() + entries[i].offset, entries[i].length, plain, why))
            << why;
        EXPECT_EQ(plain, chunks[i]);
    }
}

TEST(Pack, AChangedBitInABlobOrTheHeaderIsDamage) {
    const MasterKeys keys = MasterKeys::Random();
    PackBuilder builder;
    const Bytes chunk = RandomBytes(5000, 2);
    builder.Add(SealBlob(keys, KeyedHash(keys.mac, chunk.data(), chunk.size()), chunk.data(), chunk.size()));
    PackBuilder::Finished pack = builder.Finish(keys);
    const uint32_t length = PackHeaderLength(pack.bytes.data() + pack.bytes.size() - 4, pack.bytes.size(), "p");
    const size_t headerAt = pack.bytes.size() - 4 - length;
    const PackEntry entry = DecodePackHeader(keys, pack.bytes.data() + headerAt, length, pack.bytes.size(), "p")[0];
    Bytes changed = pack.bytes;
    changed[entry.offset + 100] ^= 0x10;
    Bytes plain;
    std::string why;
    EXPECT_FALSE(OpenBlob(keys, entry, changed.data() + entry.offset, entry.length, plain, why));
    EXPECT_NE(why.find("does not open"), std::string::npos);
    changed = pack.bytes;
    changed[headerAt + 20] ^= 0x01;
    EXPECT_EQ(ExitStatusOf([&] { DecodePackHeader(keys, changed.data() + headerAt, length, changed.size(), "p"); }),
              kExitDamaged);
}

TEST(Pack, ABlobUnderAnotherIdDoesNotOpen) {
    const MasterKeys keys = MasterKeys::Random();
    const Bytes chunk = RandomBytes(300, 3);
    SealedBlob blob = SealBlob(keys, KeyedHash(keys.mac, chunk.data(), chunk.size()), chunk.data(), chunk.size());
    PackEntry entry;
    entry.id = KeyedHash(keys.mac, reinterpret_cast<const uint8_t*>("other"), 5);
    entry.length = static_cast<uint32_t>(blob.bytes.size());
    entry.plainLength = blob.plainLength;
    Bytes plain;
    std::string why;
    EXPECT_FALSE(OpenBlob(keys, entry, blob.bytes.data(), blob.bytes.size(), plain, why));
}

TEST(Pack, AHeaderLengthThatDoesNotFitThePackIsDamage) {
    uint8_t lastFour[4] = {0xFF, 0xFF, 0xFF, 0x7F};
    EXPECT_EQ(ExitStatusOf([&] { PackHeaderLength(lastFour, 1000, "p"); }), kExitDamaged);
    uint8_t tiny[4] = {3, 0, 0, 0};
    EXPECT_EQ(ExitStatusOf([&] { PackHeaderLength(tiny, 1000, "p"); }), kExitDamaged);
}

// ---- the index

TEST(Index, RoundTripsAndMerges) {
    const MasterKeys keys = MasterKeys::Random();
    IndexedPack pack;
    pack.pack = KeyedHash(keys.mac, reinterpret_cast<const uint8_t*>("pack"), 4);
    for (uint32_t i = 0; i < 3; ++i) {
        PackEntry entry;
        entry.id = KeyedHash(keys.mac, reinterpret_cast<const uint8_t*>(&i), sizeof i);
        entry.offset = i * 100;
        entry.length = 100;
        entry.plainLength = 72 + i;
        entry.compressed = i == 1;
        pack.blobs.push_back(entry);
    }
    const std::vector<IndexedPack> decoded = DecodeIndex(keys, EncodeIndex(keys, {pack}), "i");
    ASSERT_EQ(decoded.size(), 1u);
    MasterIndex index;
    index.Add(decoded[0]);
    for (const PackEntry& entry : pack.blobs) {
        const BlobLocation* found = index.Find(entry.id);
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(found->pack, pack.pack);
        EXPECT_EQ(found->entry.offset, entry.offset);
        EXPECT_EQ(found->entry.plainLength, entry.plainLength);
        EXPECT_EQ(found->entry.compressed, entry.compressed);
    }
    EXPECT_TRUE(index.HasPack(pack.pack));
}

TEST(Index, ACountLargerThanTheObjectIsDamageNotAnAllocation) {
    const MasterKeys keys = MasterKeys::Random();
    Bytes plain;
    ByteWriter writer(plain);
    writer.Raw(reinterpret_cast<const uint8_t*>("CPHIDX01"), 8);
    writer.U32(0xFFFFFFFFu);
    const Bytes sealed = SealObject(keys, "index", plain);
    EXPECT_EQ(ExitStatusOf([&] { DecodeIndex(keys, sealed, "i"); }), kExitDamaged);
}

TEST(Index, AnObjectOfAnotherKindDoesNotPassForAnIndex) {
    const MasterKeys keys = MasterKeys::Random();
    const Bytes plain = {'C', 'P', 'H', 'I', 'D', 'X', '0', '1', 0, 0, 0, 0};
    EXPECT_EQ(ExitStatusOf([&] { DecodeIndex(keys, SealObject(keys, "snapshot", plain), "i"); }), kExitDamaged);
    EXPECT_NO_THROW(DecodeIndex(keys, SealObject(keys, "index", plain), "i"));
}

// ---- snapshots

Snapshot SampleSnapshot(const MasterKeys& keys) {
    Snapshot snapshot;
    snapshot.time = "2026-11-25T01:02:03Z";
    snapshot.timeNs = 1795568523000000123;
    snapshot.host = "host";
    snapshot.source = "/data/\xff\xfe not utf-8";
    snapshot.tags = {"nightly"};
    SnapshotFile file;
    file.path = "a/b\xe9.bin";  // not UTF-8: kept byte for byte
    file.size = 10;
    file.modifiedNs = -5;
    file.mode = 0640;
    file.fileId = 77;
    file.chunks = {KeyedHash(keys.mac, reinterpret_cast<const uint8_t*>("x"), 1)};
    snapshot.files.push_back(file);
    snapshot.folders.push_back({"empty 100%", 12, 0700});
    snapshot.links.push_back({"link", "../a/b", 13});
    return snapshot;
}

TEST(Snapshot, RoundTripsNamesThatAreNotUtf8) {
    const MasterKeys keys = MasterKeys::Random();
    const Snapshot snapshot = SampleSnapshot(keys);
    const Snapshot decoded = DecodeSnapshot(keys, EncodeSnapshot(keys, snapshot), "abcdef0123");
    EXPECT_EQ(decoded.source, snapshot.source);
    EXPECT_EQ(decoded.timeNs, snapshot.timeNs);
    ASSERT_EQ(decoded.files.size(), 1u);
    EXPECT_EQ(decoded.files[0].path, snapshot.files[0].path);
    EXPECT_EQ(decoded.files[0].chunks, snapshot.files[0].chunks);
    EXPECT_EQ(decoded.files[0].mode, 0640u);
    EXPECT_EQ(decoded.files[0].fileId, 77u);
    EXPECT_EQ(decoded.folders[0].relativePath, "empty 100%");
    EXPECT_EQ(decoded.links[0].target, "../a/b");
    EXPECT_EQ(decoded.tags, snapshot.tags);
}

TEST(Snapshot, APathThatLeavesTheDestinationIsDamage) {
    const MasterKeys keys = MasterKeys::Random();
    for (const char* path : {"../escape", "/absolute", "a/../../b", "a\\b"}) {
        Snapshot snapshot = SampleSnapshot(keys);
        snapshot.files[0].path = path;
        EXPECT_EQ(ExitStatusOf([&] { DecodeSnapshot(keys, EncodeSnapshot(keys, snapshot), "abcdef01"); }), kExitDamaged)
            << path;
    }
    Snapshot beneath = SampleSnapshot(keys);
    beneath.links.push_back({"link/inside", "x", 0});
    EXPECT_EQ(ExitStatusOf([&] { DecodeSnapshot(keys, EncodeSnapshot(keys, beneath), "abcdef01"); }), kExitDamaged);
}

TEST(Snapshot, ChunkCountsMustFitTheSize) {
    const MasterKeys keys = MasterKeys::Random();
    Snapshot snapshot = SampleSnapshot(keys);
    snapshot.files[0].size = 0;  // an empty file has no chunks
    EXPECT_EQ(ExitStatusOf([&] { DecodeSnapshot(keys, EncodeSnapshot(keys, snapshot), "abcdef01"); }), kExitDamaged);
    snapshot.files[0].size = 100ull << 30;  // 100 GiB in one chunk
    EXPECT_EQ(ExitStatusOf([&] { DecodeSnapshot(keys, EncodeSnapshot(keys, snapshot), "abcdef01"); }), kExitDamaged);
}

TEST(Snapshot, DiffNamesAddedRemovedModifiedAndMetadataChanges) {
    const MasterKeys keys = MasterKeys::Random();
    const Snapshot first = SampleSnapshot(keys);
    Snapshot second = first;
    second.files[0].chunks = {KeyedHash(keys.mac, reinterpret_cast<const uint8_t*>("y"), 1)};
    second.folders.clear();
    second.links[0].modifiedNs = 99;
    second.files.push_back({"new.txt", 4, 0, 0644, 0, {KeyedHash(keys.mac, reinterpret_cast<const uint8_t*>("z"), 1)}});
    const std::vector<TreeChange> changes = DiffSnapshots(first, second);
    ASSERT_EQ(changes.size(), 4u);
    EXPECT_EQ(changes[0].kind, 'M');  // a/b..
    EXPECT_EQ(changes[1].kind, '-');  // empty 100%
    EXPECT_EQ(changes[2].kind, 'U');  // link
    EXPECT_EQ(changes[3].kind, '+');  // new.txt
    EXPECT_EQ(changes[3].bytes, 4);
}

// ---- keys and the repository

TEST_F(RepositoryTest, AWrongPasswordOpensNothing) {
    EXPECT_EQ(ExitStatusOf([&] { Repository(store_, "repo", "wrong"); }), kExitWrongPassword);
    EXPECT_EQ(ExitStatusOf([&] { Repository(store_, "repo", ""); }), kExitWrongPassword);
    EXPECT_EQ(ExitStatusOf([&] { Repository(store_, "elsewhere", kPassword); }), kExitUnsupported);
    EXPECT_EQ(ExitStatusOf([&] { Repository::Init(store_, "repo", kPassword, SmallRepository(), "h"); }), kExitUsage);
}

TEST_F(RepositoryTest, AKeyOfAnUnknownFormatIsRefusedInOneLine) {
    const std::string key = Names("repo/keys/").at(0);
    Json json = Json::parse(store_.objects()[key].begin(), store_.objects()[key].end());
    json["format"] = 2;
    const std::string text = json.dump();
    store_.objects()[key].assign(text.begin(), text.end());
    try {
        Repository(store_, "repo", kPassword);
        FAIL() << "opened";
    } catch (const ToolError& failure) {
        EXPECT_EQ(failure.exitStatus(), kExitUnsupported);
        EXPECT_NE(std::string(failure.what()).find("format 2"), std::string::npos) << failure.what();
    }
}

TEST_F(RepositoryTest, KeyDerivationParametersFromStorageAreBounded) {
    const std::string key = Names("repo/keys/").at(0);
    Json json = Json::parse(store_.objects()[key].begin(), store_.objects()[key].end());
    json["n"] = 1ull << 40;  // would take petabytes
    const std::string text = json.dump();
    store_.objects()[key].assign(text.begin(), text.end());
    EXPECT_EQ(ExitStatusOf([&] { Repository(store_, "repo", kPassword); }), kExitDamaged);
}

TEST_F(RepositoryTest, ObjectNamesRevealNoFileNames) {
    const std::string source = Folder("source");
    WriteFile(source + "/secret-plans.txt", Bytes(1000, 'p'));
    Backup(source);
    for (const auto& [name, bytes] : store_.objects()) {
        EXPECT_EQ(name.find("secret"), std::string::npos) << name;
        const std::string content(bytes.begin(), bytes.end());
        EXPECT_EQ(content.find("secret-plans"), std::string::npos) << name;
        EXPECT_EQ(content.find("pppppppppppppppp"), std::string::npos) << name;
    }
}

TEST_F(RepositoryTest, SnapshotsAreListedFromTheirSealedInfoWithoutBeingRead) {
    const std::string source = Folder("source");
    WriteFile(source + "/a.txt", Bytes(1000, 'a'));
    const BackupReport first = Backup(source);
    const BackupReport second = Backup(source);
    const size_t reads = store_.reads();
    const std::vector<SnapshotInfo> listed = repository_->ListSnapshotInfos();
    EXPECT_EQ(store_.reads(), reads);
    ASSERT_EQ(listed.size(), 2u);
    EXPECT_EQ(listed[0].id, first.snapshot.id);
    EXPECT_EQ(listed[1].id, second.snapshot.id);
    EXPECT_EQ(listed[1].parent, first.snapshot.id);
    EXPECT_EQ(listed[1].files, 1u);
    EXPECT_EQ(listed[1].bytes, 1000u);
    EXPECT_EQ(listed[1].host, "test-host");
    EXPECT_EQ(repository_->FindSnapshot("latest"), second.snapshot.id);
    // An info moved onto another snapshot does not open there: the snapshot
    // itself is read instead, and it says what it is.
    const std::string firstName = "repo/snapshots/" + first.snapshot.id;
    const std::string secondName = "repo/snapshots/" + second.snapshot.id;
    store_.properties()[firstName] = store_.properties()[secondName];
    const std::vector<SnapshotInfo> again = repository_->ListSnapshotInfos();
    EXPECT_GT(store_.reads(), reads);
    ASSERT_EQ(again.size(), 2u);
    EXPECT_EQ(again[0].id, first.snapshot.id);
    EXPECT_EQ(again[0].parent, "");
}

// ---- backups and restores

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
    EXPECT_EQ(ExitStatusOf([&] { SelectSubPath(repository_->LoadSnapshot(report.snapshot.id), "nothing/here"); }),
              kExitNoSuchBackup);
}

TEST_F(RepositoryTest, ADamagedPackNamesEveryAffectedFileAndWritesNoneOfThem) {
    const std::string source = Folder("source");
    WriteFile(source + "/hit-1.bin", RandomBytes(200000, 9));
    WriteFile(source + "/hit-2.bin", RandomBytes(200000, 10));
    const BackupReport report = Backup(source);
    // One bit of one chunk of each file, in storage.
    const MasterIndex index = repository_->LoadIndex();
    for (const SnapshotFile& file : report.snapshot.files) {
        const BlobLocation* location = index.Find(file.chunks.back());
        store_.objects()[repository_->layout().Pack(location->pack)][location->entry.offset + 40] ^= 0x04;
    }
    const RestoreReport restore = Restore(report.snapshot.id, Folder("restored"));
    ASSERT_EQ(restore.damaged.size(), 2u);
    EXPECT_EQ(restore.damaged[0].file, "hit-1.bin");
    EXPECT_EQ(restore.damaged[1].file, "hit-2.bin");
    EXPECT_FALSE(fs::exists(Folder("restored") + "/hit-1.bin"));
    EXPECT_FALSE(fs::exists(Folder("restored") + "/hit-2.bin"));
    const CheckReport check = RunCheck(*repository_, CheckOptions{true, 2, ProgressStyle::Silent});
    EXPECT_FALSE(check.errors.empty());
    EXPECT_EQ(check.affected.size(), 2u);
    const CheckReport structure = RunCheck(*repository_, CheckOptions{false, 2, ProgressStyle::Silent});
    EXPECT_TRUE(structure.errors.empty()) << "the structure itself is whole";
}

TEST_F(RepositoryTest, AMissingPackIsNamedByCheckAndRestore) {
    const std::string source = Folder("source");
    WriteFile(source + "/lost.bin", RandomBytes(100000, 11));
    const BackupReport report = Backup(source);
    for (const std::string& pack : Names("repo/data/")) store_.Delete(pack);
    const RestoreReport restore = Restore(report.snapshot.id, Folder("restored"));
    ASSERT_EQ(restore.damaged.size(), 1u);
    EXPECT_NE(restore.damaged[0].what.find("missing"), std::string::npos);
    const CheckReport check = RunCheck(*repository_, CheckOptions{false, 2, ProgressStyle::Silent});
    ASSERT_FALSE(check.errors.empty());
    EXPECT_NE(check.errors[0].find("missing"), std::string::npos);
}

// A store that fails after a number of writes, as a process that dies would.
class FailingStore : public repotest::MemoryStore {
public:
    size_t writesLeft = SIZE_MAX;
    using MemoryStore::Write;
    void Write(const std::string& name, const uint8_t* data, size_t size, const Properties& properties) override {
        if (writesLeft-- == 0) throw ToolError(kExitPluginFailed, "the storage went away");
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
            RunBackup(repository, source, options);
        } catch (const ToolError&) {
        }
        store.writesLeft = SIZE_MAX;
        // Whatever an index or a snapshot names exists.
        const CheckReport check = RunCheck(repository, CheckOptions{true, 1, ProgressStyle::Silent});
        EXPECT_TRUE(check.errors.empty()) << "stopped after " << stopAfter << " writes: " << check.errors[0];
        // The next backup reuses the packs already stored, and completes.
        const MasterIndex index = repository.LoadIndex();
        size_t packsBefore = 0;
        for (const StoredObject& pack : store.List("repo/data/")) {
            Id id;
            ASSERT_TRUE(IdFromHex(pack.name.substr(10), id));
            packsBefore += index.HasPack(id) ? 0 : 1;
        }
        const BackupReport next = RunBackup(repository, source, options);
        EXPECT_EQ(next.packsAdopted, packsBefore) << stopAfter;
        const CheckReport after = RunCheck(repository, CheckOptions{true, 1, ProgressStyle::Silent});
        EXPECT_TRUE(after.errors.empty()) << stopAfter;
        EXPECT_TRUE(after.warnings.empty()) << stopAfter;
    }
}

// ---- prune

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
    const PruneReport report = RunPrune(*repository_, PruneOptions{2, false, ProgressStyle::Silent});
    EXPECT_GT(report.blobsRemoved, 0u);
    EXPECT_EQ(report.packsUnindexed, 1u);
    EXPECT_GT(report.packsDeleted + report.packsRewritten, 0u);
    const CheckReport check = RunCheck(*repository_, CheckOptions{true, 2, ProgressStyle::Silent});
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
    const std::vector<std::string> packs = Names("repo/data/");
    store_.Delete(packs[0]);
    const size_t objects = store_.objects().size();
    EXPECT_EQ(ExitStatusOf([&] { RunPrune(*repository_, PruneOptions{}); }), kExitDamaged);
    EXPECT_EQ(store_.objects().size(), objects);
}

// ---- locks

TEST_F(RepositoryTest, AnExclusiveLockWaitsForNoOneButIsRefusedWhileOthersWork) {
    auto alive = [](int64_t) { return true; };
    {
        RepositoryLock shared(*repository_, "backup", false, 0, alive);
        RepositoryLock another(*repository_, "backup", false, 0, alive);  // shared locks share
        EXPECT_EQ(ExitStatusOf([&] { RepositoryLock(*repository_, "prune", true, 0, alive); }), kExitLocked);
        EXPECT_EQ(ListLocks(*repository_, std::time(nullptr), alive).size(), 2u);
    }
    EXPECT_TRUE(Names("repo/locks/").empty()) << "locks are removed when released";
    RepositoryLock exclusive(*repository_, "prune", true, 0, alive);
    EXPECT_EQ(ExitStatusOf([&] { RepositoryLock(*repository_, "backup", false, 0, alive); }), kExitLocked);
}

TEST_F(RepositoryTest, ALockOfADeadProcessOrTooOldIsStaleAndCountsForNobody) {
    {
        RepositoryLock held(*repository_, "backup", false, 0, [](int64_t) { return true; });
        // The same lock seen by a process that finds its holder gone.
        const std::vector<LockInfo> locks = ListLocks(*repository_, std::time(nullptr), [](int64_t) { return false; });
        ASSERT_EQ(locks.size(), 1u);
        EXPECT_TRUE(locks[0].stale);
        EXPECT_NO_THROW(RepositoryLock(*repository_, "prune", true, 0, [](int64_t) { return false; }));
        // Seen from the future, past the time a holder refreshes its lock.
        const std::vector<LockInfo> later =
            ListLocks(*repository_, std::time(nullptr) + kLockStaleSeconds + 1, [](int64_t) { return true; });
        EXPECT_TRUE(later[0].stale);
        const std::vector<LockInfo> now = ListLocks(*repository_, std::time(nullptr), [](int64_t) { return true; });
        EXPECT_FALSE(now[0].stale);
    }
}

TEST_F(RepositoryTest, ALockThatDoesNotOpenCountsAsHeld) {
    store_.Write("repo/locks/" + std::string(32, 'a'), reinterpret_cast<const uint8_t*>("garbage"), 7);
    EXPECT_EQ(ExitStatusOf([&] { RepositoryLock(*repository_, "backup", false, 0); }), kExitLocked);
}

}  // namespace
