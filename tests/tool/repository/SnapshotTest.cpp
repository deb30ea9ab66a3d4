// Snapshots: the tree as stored, names that are not UTF-8, paths a restore
// would refuse, and diffs.
#include <ctime>

#include "repository/RepositoryFixture.h"
#include "repository/Snapshot.h"

namespace repotest {
namespace {

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
        EXPECT_EQ(KindOf([&] { DecodeSnapshot(keys, EncodeSnapshot(keys, snapshot), "abcdef01"); }), ErrorKind::Damaged)
            << path;
    }
    Snapshot beneath = SampleSnapshot(keys);
    beneath.links.push_back({"link/inside", "x", 0});
    EXPECT_EQ(KindOf([&] { DecodeSnapshot(keys, EncodeSnapshot(keys, beneath), "abcdef01"); }), ErrorKind::Damaged);
}

TEST(Snapshot, ChunkCountsMustFitTheSize) {
    const MasterKeys keys = MasterKeys::Random();
    Snapshot snapshot = SampleSnapshot(keys);
    snapshot.files[0].size = 0;  // an empty file has no chunks
    EXPECT_EQ(KindOf([&] { DecodeSnapshot(keys, EncodeSnapshot(keys, snapshot), "abcdef01"); }), ErrorKind::Damaged);
    snapshot.files[0].size = 100ull << 30;  // 100 GiB in one chunk
    EXPECT_EQ(KindOf([&] { DecodeSnapshot(keys, EncodeSnapshot(keys, snapshot), "abcdef01"); }), ErrorKind::Damaged);
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

}  // namespace
}  // namespace repotest
