// The repository itself: keys, the password, bounded key derivation, object
// names that reveal nothing, listings from sealed info.
#include <cstring>
#include <ctime>
#include <set>

#include "repository/RepositoryFixture.h"
#include "repository/Keys.h"
#include "repository/Repository.h"

namespace repotest {
namespace {

TEST_F(RepositoryTest, AWrongPasswordOpensNothing) {
    EXPECT_EQ(KindOf([&] { Repository(store_, "repo", "wrong"); }), ErrorKind::WrongPassword);
    EXPECT_EQ(KindOf([&] { Repository(store_, "repo", ""); }), ErrorKind::WrongPassword);
    EXPECT_EQ(KindOf([&] { Repository(store_, "elsewhere", kPassword); }), ErrorKind::NoRepository);
    EXPECT_EQ(KindOf([&] { Repository::Init(store_, "repo", kPassword, SmallRepository(), "h"); }), ErrorKind::Exists);
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
    } catch (const Error& failure) {
        EXPECT_EQ(failure.kind(), ErrorKind::Unsupported);
        EXPECT_NE(std::string(failure.what()).find("format 2"), std::string::npos) << failure.what();
    }
}

TEST_F(RepositoryTest, KeyDerivationParametersFromStorageAreBounded) {
    const std::string key = Names("repo/keys/").at(0);
    Json json = Json::parse(store_.objects()[key].begin(), store_.objects()[key].end());
    json["n"] = 1ull << 40;  // would take petabytes
    const std::string text = json.dump();
    store_.objects()[key].assign(text.begin(), text.end());
    EXPECT_EQ(KindOf([&] { Repository(store_, "repo", kPassword); }), ErrorKind::Damaged);
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

TEST_F(RepositoryTest, ALargeIndexIsWrittenInPartsThatNeverSplitAPackAndReadBackWhole) {
    // 250 packs of 1,000 blobs: three objects of at most kBlobsPerIndexObject.
    std::vector<IndexedPack> packs(250);
    uint32_t n = 0;
    for (IndexedPack& pack : packs) {
        pack.pack[0] = static_cast<uint8_t>(n >> 8), pack.pack[1] = static_cast<uint8_t>(n), pack.pack[2] = 0xA5;
        pack.blobs.resize(1000);
        for (PackEntry& blob : pack.blobs) {
            std::memcpy(blob.id.data(), &n, sizeof n);
            blob.id[31] = 0x5A;
            blob.offset = n;
            blob.length = blob.plainLength = 100;
            ++n;
        }
    }
    uint64_t written = 0;
    const std::set<std::string> names = repository_->SaveIndexParts(packs, &written);
    EXPECT_EQ(names.size(), 3u);
    EXPECT_GT(written, 250000u * 45);
    const MasterIndex index = repository_->LoadIndex();
    EXPECT_EQ(index.BlobCount(), 250000u);
    EXPECT_EQ(index.packs().size(), 250u) << "no pack split between two objects";
    for (const std::string& name : names) {
        EXPECT_LE(DecodeIndex(repository_->keys(), store_.objects().at(name), name).size() * 1000, kBlobsPerIndexObject);
    }
    EXPECT_EQ(index.Find(packs[249].blobs[999].id)->entry.offset, 249999u);
}

}  // namespace
}  // namespace repotest
