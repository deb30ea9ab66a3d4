// Trees: every field of every kind of entry round trips, fields of later
// versions are skipped, a large folder spreads over several blobs, and
// every way a tree from storage can lie is damage.
#include "repository/Binary.h"
#include "repository/RepositoryFixture.h"
#include "repository/Tree.h"

namespace repotest {
namespace {

Node Entry(const std::string& name, NodeType type) {
    Node node;
    node.name = name;
    node.type = type;
    node.mode = 0640;
    node.modifiedNs = -1234567890123;  // before 1970 too
    node.accessedNs = 1700000000000000001;
    node.changedNs = 1700000000000000002;
    node.hasOwner = true;
    node.uid = 1000;
    node.gid = 100;
    node.user = "alice";
    node.group = "users";
    node.inode = 99;
    node.device = 2049;
    return node;
}

std::vector<Node> EveryKind() {
    const Key256 key{};
    std::vector<Node> nodes;
    Node file = Entry("a file", NodeType::File);
    file.size = 5;
    file.content = {KeyedHash(key, reinterpret_cast<const uint8_t*>("hello"), 5)};
    file.links = 2;
    file.sparse = true;
    file.xattrs = {{"system.posix_acl_access", std::string("\x02\x00\x00\x00", 4)}, {"user.tag", "x"}};
    nodes.push_back(file);
    Node link = Entry("b link", NodeType::Link);
    link.linkTarget = "../elsewhere";
    nodes.push_back(link);
    Node device = Entry("c device", NodeType::CharDevice);
    device.deviceNumber = 0x0103;
    nodes.push_back(device);
    nodes.push_back(Entry("d fifo", NodeType::Fifo));
    Node folder = Entry("e folder", NodeType::Folder);
    folder.subtree = {KeyedHash(key, reinterpret_cast<const uint8_t*>("t"), 1)};
    nodes.push_back(folder);
    Node implicit = Entry("f \xff not utf-8", NodeType::Folder);
    implicit.hasOwner = false;
    implicit.implicit = true;
    nodes.push_back(implicit);
    return nodes;
}

void ExpectSame(const Node& a, const Node& b) {
    EXPECT_EQ(a.name, b.name);
    EXPECT_EQ(a.type, b.type);
    EXPECT_EQ(a.mode, b.mode);
    EXPECT_EQ(a.modifiedNs, b.modifiedNs);
    EXPECT_EQ(a.accessedNs, b.accessedNs);
    EXPECT_EQ(a.changedNs, b.changedNs);
    EXPECT_EQ(a.hasOwner, b.hasOwner);
    EXPECT_EQ(a.uid, a.hasOwner ? b.uid : a.uid);
    EXPECT_EQ(a.user, b.user);
    EXPECT_EQ(a.group, b.group);
    EXPECT_EQ(a.size, b.size);
    EXPECT_EQ(a.inode, b.inode);
    EXPECT_EQ(a.device, b.device);
    EXPECT_EQ(a.links, b.links);
    EXPECT_EQ(a.deviceNumber, b.deviceNumber);
    EXPECT_EQ(a.linkTarget, b.linkTarget);
    EXPECT_EQ(a.sparse, b.sparse);
    EXPECT_EQ(a.implicit, b.implicit);
    EXPECT_TRUE(a.xattrs == b.xattrs);
    EXPECT_EQ(a.content, b.content);
    EXPECT_EQ(a.subtree, b.subtree);
}

TEST(Tree, EveryFieldOfEveryKindRoundTrips) {
    const std::vector<Node> nodes = EveryKind();
    const std::vector<Bytes> runs = EncodeTree(nodes);
    ASSERT_EQ(runs.size(), 1u);
    // Under POSIX rules, which take every name EveryKind() has (Windows refuses the one that is not UTF-8:
    // NamesARestoreWouldRefuseAreDamage).
    const std::vector<Node> decoded = DecodeTree(runs[0].data(), runs[0].size(), "t", PathRules::Posix);
    ASSERT_EQ(decoded.size(), nodes.size());
    for (size_t i = 0; i < nodes.size(); ++i) ExpectSame(nodes[i], decoded[i]);
}

TEST(Tree, AnEmptyFolderIsOneBlobOfNoEntries) {
    const std::vector<Bytes> runs = EncodeTree({});
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_TRUE(DecodeTree(runs[0].data(), runs[0].size(), "t").empty());
}

TEST(Tree, AFolderOfManyEntriesSpreadsOverSeveralBlobsInOrder) {
    std::vector<Node> nodes;
    for (int i = 0; i < 60000; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "f%07d", i);
        Node node = Entry(name, NodeType::File);
        node.size = 1;
        node.content = {Id{}};
        nodes.push_back(node);
    }
    const std::vector<Bytes> runs = EncodeTree(nodes);
    ASSERT_GT(runs.size(), 1u);
    std::vector<Node> all;
    for (const Bytes& run : runs) {
        EXPECT_LE(run.size(), kTreeRunBytes + 1024);
        for (Node& node : DecodeTree(run.data(), run.size(), "t")) all.push_back(std::move(node));
    }
    ASSERT_EQ(all.size(), nodes.size());
    EXPECT_EQ(all.back().name, nodes.back().name);
}

TEST(Tree, FieldsOfALaterVersionAreSkipped) {
    Bytes record;
    ByteWriter writer(record);
    const std::string name = "later";
    writer.Varint(1), writer.Varint(name.size()), writer.Raw(reinterpret_cast<const uint8_t*>(name.data()), name.size());
    writer.Varint(2), writer.Varint(1), writer.U8(3);   // a link
    writer.Varint(16), writer.Varint(1), writer.U8('t');  // its target
    writer.Varint(999), writer.Varint(3), writer.Raw(reinterpret_cast<const uint8_t*>("new"), 3);
    Bytes tree;
    ByteWriter(tree).U8(1);
    ByteWriter(tree).Varint(1);
    ByteWriter(tree).Varint(record.size());
    tree.insert(tree.end(), record.begin(), record.end());
    const std::vector<Node> nodes = DecodeTree(tree.data(), tree.size(), "t");
    ASSERT_EQ(nodes.size(), 1u);
    EXPECT_EQ(nodes[0].linkTarget, "t");
}

TEST(Tree, EntriesOutOfOrderOrNamedTwiceAreDamage) {
    std::vector<Node> nodes = EveryKind();
    std::swap(nodes[0], nodes[1]);
    for (const std::vector<Node>& bad : {nodes, std::vector<Node>{EveryKind()[0], EveryKind()[0]}}) {
        const Bytes run = EncodeTree(bad)[0];
        EXPECT_EQ(KindOf([&] { DecodeTree(run.data(), run.size(), "t"); }), ErrorKind::Damaged);
    }
}

TEST(Tree, NamesARestoreWouldRefuseAreDamage) {
    for (const char* name : {"..", ".", "a/b", "", "nul\x01"}) {
        std::vector<Node> nodes = {Entry(name, NodeType::Fifo)};
        const Bytes run = EncodeTree(nodes)[0];
        EXPECT_EQ(KindOf([&] { DecodeTree(run.data(), run.size(), "t"); }), ErrorKind::Damaged) << name;
    }
}

TEST(Tree, ChunkCountsThatDoNotFitTheSizeAreDamage) {
    Node file = EveryKind()[0];
    for (const uint64_t size : {uint64_t{0}, uint64_t{100} << 30}) {
        file.size = size;
        const Bytes run = EncodeTree({file})[0];
        EXPECT_EQ(KindOf([&] { DecodeTree(run.data(), run.size(), "t"); }), ErrorKind::Damaged) << size;
    }
    Node folder = EveryKind()[4];
    folder.content = file.content;  // chunks on a folder
    const Bytes run = EncodeTree({folder})[0];
    EXPECT_EQ(KindOf([&] { DecodeTree(run.data(), run.size(), "t"); }), ErrorKind::Damaged);
}

TEST(Tree, CountsAndLengthsLargerThanTheBlobAreDamageNotAllocations) {
    const Bytes good = EncodeTree(EveryKind())[0];
    Bytes claims;
    ByteWriter(claims).U8(1);
    ByteWriter(claims).Varint(uint64_t{1} << 40);  // a trillion entries in a few bytes
    EXPECT_EQ(KindOf([&] { DecodeTree(claims.data(), claims.size(), "t"); }), ErrorKind::Damaged);
    for (size_t cut = 1; cut < good.size(); cut += 7) {
        EXPECT_EQ(KindOf([&] { DecodeTree(good.data(), cut, "t"); }), ErrorKind::Damaged) << cut;
    }
    Bytes version = good;
    version[0] = 9;
    EXPECT_EQ(KindOf([&] { DecodeTree(version.data(), version.size(), "t"); }), ErrorKind::Damaged);
}

TEST(Tree, ExtendedAttributesBeyondTheirBoundAreDamage) {
    Node file = EveryKind()[0];
    file.xattrs = {{"user.big", std::string(kMaximumXattrBytes, 'x')}};
    const Bytes run = EncodeTree({file})[0];
    EXPECT_EQ(KindOf([&] { DecodeTree(run.data(), run.size(), "t"); }), ErrorKind::Damaged);
}

}  // namespace
}  // namespace repotest
