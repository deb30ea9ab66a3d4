// Snapshots: the object that names a tree, names that are not UTF-8,
// snapshots of format version 1 read as trees, and decoding whose memory
// follows what is used, not what is stored.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>

#include "repository/Binary.h"
#include "repository/Compression.h"
#include "repository/Keys.h"
#include "repository/RepositoryFixture.h"
#include "repository/Snapshot.h"

namespace repotest {
namespace {

Snapshot SampleSnapshot() {
    Snapshot snapshot;
    snapshot.time = "2026-11-25T01:02:03Z";
    snapshot.timeNs = 1795568523000000123;
    snapshot.host = "host";
    snapshot.paths = {"/data/a", "/data/b \xff not utf-8"};
    snapshot.tags = {"nightly"};
    snapshot.parent = std::string(64, 'a');
    snapshot.tree = {KeyedHash(Key256{}, reinterpret_cast<const uint8_t*>("t"), 1)};
    snapshot.summary = Json{{"files", 3}, {"bytes", 12}};
    return snapshot;
}

// The sealed object of a snapshot whose JSON is `text`, compressed or not.
Bytes SealedSnapshot(const MasterKeys& keys, const std::string& text, bool compress = true) {
    Bytes plain;
    ByteWriter(plain).U64(text.size());
    Bytes frame;
    if (compress && Compress(reinterpret_cast<const uint8_t*>(text.data()), text.size(), frame)) {
        plain.insert(plain.end(), frame.begin(), frame.end());
    } else {
        plain[7] |= 0x80;
        plain.insert(plain.end(), text.begin(), text.end());
    }
    return SealObject(keys, "snapshot", plain);
}

std::string ChunkHex(const MasterKeys& keys, const std::string& content) {
    return IdHex(KeyedHash(keys.mac, reinterpret_cast<const uint8_t*>(content.data()), content.size()));
}

// A snapshot of format version 1, as earlier versions of the tool wrote it.
std::string VersionOneJson(const MasterKeys& keys, const std::string& firstPath = "a/b/file.txt") {
    return "{\"version\":1,\"time\":\"2025-01-02T03:04:05Z\",\"time_ns\":1735787045000000000,\"host\":\"h\","
           "\"source\":\"/src\",\"tags\":[],\"parent\":\"\",\"files\":[{\"path\":\"" + firstPath +
           "\",\"size\":5,\"mtime_ns\":7,\"mode\":420,\"file_id\":12,\"chunks\":[\"" + ChunkHex(keys, "hello") +
           "\"]}],\"folders\":[{\"path\":\"empty\",\"mtime_ns\":8,\"mode\":448}],"
           "\"links\":[{\"path\":\"a/link\",\"target\":\"b/file.txt\",\"mtime_ns\":9}],\"summary\":{\"seconds\":1.5}}";
}

std::string WithJunk(const std::string& json, const std::string& junk) {
    return json.substr(0, json.size() - 1) + ",\"unused\":" + junk + "}";
}

TEST(Snapshot, RoundTripsPathsThatAreNotUtf8AndTheTree) {
    const MasterKeys keys = MasterKeys::Random();
    const Snapshot snapshot = SampleSnapshot();
    const Snapshot decoded = DecodeSnapshot(keys, EncodeSnapshot(keys, snapshot), "abcdef01").snapshot;
    EXPECT_EQ(decoded.version, 2u);
    EXPECT_EQ(decoded.paths, snapshot.paths);
    EXPECT_EQ(decoded.tree, snapshot.tree);
    EXPECT_EQ(decoded.tags, snapshot.tags);
    EXPECT_EQ(decoded.Files(), 3u);
    EXPECT_EQ(decoded.TotalBytes(), 12u);
    EXPECT_EQ(decoded.timeNs, snapshot.timeNs);
}

TEST(Snapshot, TheRootFolderKeepsItsModeTimesOwnerAndAttributes) {
    const MasterKeys keys = MasterKeys::Random();
    Snapshot snapshot = SampleSnapshot();
    EXPECT_FALSE(DecodeSnapshot(keys, EncodeSnapshot(keys, snapshot), "abcdef01").snapshot.root.has_value())
        << "several paths: no root folder of their own";
    Node root;
    root.name = kRootFolderName;
    root.type = NodeType::Folder;
    root.mode = 0700;
    root.modifiedNs = 978307200123456789;
    root.hasOwner = true;
    root.uid = 1234;
    root.user = "someone";
    root.xattrs = {{"user.note", std::string("a\0b", 3)}};
    snapshot.root = root;
    const std::optional<Node> decoded = DecodeSnapshot(keys, EncodeSnapshot(keys, snapshot), "abcdef01").snapshot.root;
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(decoded->mode, 0700u);
    EXPECT_EQ(decoded->modifiedNs, root.modifiedNs);
    EXPECT_EQ(decoded->uid, 1234u);
    EXPECT_EQ(decoded->user, "someone");
    EXPECT_EQ(decoded->xattrs.size(), 1u);
}

TEST(Snapshot, ARootThatIsNotOneFoldersMetadataIsDamage) {
    const MasterKeys keys = MasterKeys::Random();
    Node file;
    file.name = kRootFolderName;
    file.type = NodeType::File;
    const Bytes plain = EncodeTree({file}).at(0);
    for (const std::string& root : {std::string("not base64!"), Base64(plain.data(), plain.size())}) {
        Json json = Json::parse(R"({"version":2,"time":"2026-11-25T01:02:03Z","time_ns":1,"host":"h","paths":["/a"],)"
                                R"("tags":[],"parent":"","tree":[],"summary":{}})");
        json["root"] = root;
        try {
            DecodeSnapshot(keys, SealedSnapshot(keys, json.dump()), "abcdef01");
            ADD_FAILURE() << "accepted the root " << root;
        } catch (const Error& error) {
            EXPECT_EQ(error.kind(), ErrorKind::Damaged) << error.what();
        }
    }
}

TEST(Snapshot, TheListingInfoKeepsEveryPath) {
    const MasterKeys keys = MasterKeys::Random();
    Snapshot snapshot = SampleSnapshot();
    snapshot.id = std::string(64, 'c');
    const std::optional<SnapshotInfo> info =
        DecodeSnapshotInfo(keys, EncodeSnapshotInfo(keys, InfoOf(snapshot)), snapshot.id);
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->paths, snapshot.paths);
    EXPECT_EQ(info->files, 3u);
    EXPECT_FALSE(DecodeSnapshotInfo(keys, EncodeSnapshotInfo(keys, InfoOf(snapshot)), std::string(64, 'd')));
}

TEST(Snapshot, AVersionOneSnapshotIsReadAsTrees) {
    const MasterKeys keys = MasterKeys::Random();
    const DecodedSnapshot decoded = DecodeSnapshot(keys, SealedSnapshot(keys, VersionOneJson(keys)), "abcdef01");
    const Snapshot& snapshot = decoded.snapshot;
    EXPECT_EQ(snapshot.version, 1u);
    EXPECT_EQ(snapshot.paths, std::vector<std::string>{"/src"});
    EXPECT_EQ(snapshot.Files(), 1u);
    EXPECT_EQ(snapshot.TotalBytes(), 5u);
    ASSERT_EQ(snapshot.tree.size(), 1u);
    auto tree = [&](const Id& id) {
        const Bytes& plain = decoded.trees.at(id);
        return DecodeTree(plain.data(), plain.size(), "t");
    };
    const std::vector<Node> root = tree(snapshot.tree[0]);
    ASSERT_EQ(root.size(), 2u);  // a (implicit) and empty
    EXPECT_EQ(root[0].name, "a");
    EXPECT_TRUE(root[0].implicit);
    EXPECT_EQ(root[1].name, "empty");
    EXPECT_EQ(root[1].mode, 0700u);
    EXPECT_FALSE(root[1].implicit);
    const std::vector<Node> a = tree(root[0].subtree.at(0));
    ASSERT_EQ(a.size(), 2u);  // b, link
    EXPECT_EQ(a[1].linkTarget, "b/file.txt");
    const std::vector<Node> b = tree(a[0].subtree.at(0));
    ASSERT_EQ(b.size(), 1u);
    EXPECT_EQ(b[0].size, 5u);
    EXPECT_EQ(b[0].inode, 12u);
    EXPECT_FALSE(b[0].hasOwner);
    EXPECT_EQ(IdHex(b[0].content.at(0)), ChunkHex(keys, "hello"));
}

TEST(Snapshot, AVersionOnePathThatLeavesTheDestinationIsDamage) {
    const MasterKeys keys = MasterKeys::Random();
    for (const char* path : {"../escape", "/absolute", "a/../../b", "a\\\\b", "a/link/beneath"}) {
        const Bytes sealed = SealedSnapshot(keys, VersionOneJson(keys, path));
        EXPECT_EQ(KindOf([&] { DecodeSnapshot(keys, sealed, "abcdef01"); }), ErrorKind::Damaged) << path;
    }
}

TEST(Snapshot, ALongerTextThanAnySnapshotHasIsDamage) {
    const MasterKeys keys = MasterKeys::Random();
    for (const bool compress : {true, false}) {
        const Bytes sealed = SealedSnapshot(keys, WithJunk(VersionOneJson(keys), "\"" + std::string(2u << 20, 'x') + "\""), compress);
        EXPECT_EQ(KindOf([&] { DecodeSnapshot(keys, sealed, "abcdef01"); }), ErrorKind::Damaged) << compress;
    }
}

// Decodes in a child process; answers the child's peak resident memory
// (KiB) beyond a child that decodes nothing.
long PeakKiBOfDecoding(const MasterKeys& keys, const Bytes& sealed) {
    auto peak = [&](bool decode) {
        const pid_t child = fork();
        if (child == 0) {
            try {
                if (decode) DecodeSnapshot(keys, sealed, "abcdef01");
            } catch (...) {
            }
            _exit(0);
        }
        int status = 0;
        rusage usage{};
        wait4(child, &status, 0, &usage);
        return usage.ru_maxrss;
    };
    return peak(true) - peak(false);
}


TEST(Snapshot, MembersNothingReadsAreSkippedUnbuiltWhateverTheyHold) {
    const MasterKeys keys = MasterKeys::Random();
    const std::string json = VersionOneJson(keys);
    // 16 MiB of JSON in a member nothing reads, in a few KiB of zstd: once as
    // an array of 250,000 small objects, once as one long text.
    std::string many = "[";
    for (int i = 0; i < 250000; ++i) many += i ? ",{\"x\":[1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20]}" : "{}";
    many += "]";
    const std::string text = "\"" + std::string(16u << 20, 'j') + "\"";
    for (const std::string& junk : {many, text}) {
        const Bytes sealed = SealedSnapshot(keys, WithJunk(json, junk));
        EXPECT_LT(sealed.size(), 1u << 20);
        if (junk == text) {  // no snapshot holds a text of more than 1 MiB
            EXPECT_EQ(KindOf([&] { DecodeSnapshot(keys, sealed, "abcdef01"); }), ErrorKind::Damaged);
        } else {
            EXPECT_EQ(DecodeSnapshot(keys, sealed, "abcdef01").snapshot.Files(), 1u);
        }
        const long peak = PeakKiBOfDecoding(keys, sealed);
        // A DOM of it would take some 28 bytes per byte of JSON (450 MiB).
        std::printf("peak beyond a child that decodes nothing: %ld KiB for %zu bytes of JSON\n", peak, junk.size());
#if defined(__SANITIZE_ADDRESS__)
        // AddressSanitizer keeps freed memory in quarantine: the peak is then
        // what was allocated in all, not what was held at once.
        EXPECT_LT(peak, 64L * 1024);
#else
        EXPECT_LT(peak, 8L * 1024);
#endif
    }
}

TEST(Snapshot, AFrameThatInflatesPastItsDeclaredLengthIsDamage) {
    const MasterKeys keys = MasterKeys::Random();
    const std::string json = VersionOneJson(keys);
    Bytes sealed = SealedSnapshot(keys, json);
    Bytes plain = OpenObject(keys, "snapshot", sealed, "t");
    const uint64_t shorter = json.size() / 2;  // the frame holds twice what the header says
    for (int i = 0; i < 8; ++i) plain[static_cast<size_t>(i)] = static_cast<uint8_t>(shorter >> (8 * i));
    EXPECT_EQ(KindOf([&] { DecodeSnapshot(keys, SealObject(keys, "snapshot", plain), "abcdef01"); }), ErrorKind::Damaged);
}

}  // namespace
}  // namespace repotest
