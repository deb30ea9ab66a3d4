#include "repository/Tree.h"

#include <algorithm>

#include "repository/Binary.h"
#include "repository/Pack.h"
#include "util/Entry.h"

namespace qvhost::repo {

namespace {

constexpr uint8_t kTreeVersion = 1;
// The smallest record a node can have (its name field alone).
constexpr size_t kSmallestNode = 3;

// The fields of a node's record.
enum Tag : uint64_t {
    kName = 1,
    kType = 2,
    kMode = 3,
    kModified = 4,
    kAccessed = 5,
    kChanged = 6,
    kUid = 7,
    kGid = 8,
    kUser = 9,
    kGroup = 10,
    kSize = 11,
    kInode = 12,
    kDevice = 13,
    kLinks = 14,
    kDeviceNumber = 15,
    kLinkTarget = 16,
    kContent = 17,
    kSubtree = 18,
    kXattr = 19,  // repeated: name, NUL, value
    kSparse = 20,
    kImplicit = 21,
};

class RecordWriter {
public:
    void Number(Tag tag, uint64_t value) {
        Bytes field;
        ByteWriter(field).Varint(value);
        Field(tag, field.data(), field.size());
    }
    void SignedNumber(Tag tag, int64_t value) {
        Bytes field;
        ByteWriter(field).Signed(value);
        Field(tag, field.data(), field.size());
    }
    void Text(Tag tag, const std::string& text) {
        Field(tag, reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }
    void Ids(Tag tag, const std::vector<Id>& ids) {
        Bytes field;
        for (const Id& id : ids) field.insert(field.end(), id.begin(), id.end());
        Field(tag, field.data(), field.size());
    }
    void Field(Tag tag, const uint8_t* data, size_t size) {
        ByteWriter writer(record_);
        writer.Varint(tag);
        writer.Varint(size);
        writer.Raw(data, size);
    }
    const Bytes& record() const { return record_; }

private:
    Bytes record_;
};

Bytes EncodeNode(const Node& node) {
    RecordWriter w;
    w.Text(kName, node.name);
    w.Number(kType, static_cast<uint8_t>(node.type));
    w.Number(kMode, node.mode & kModeBits);
    w.SignedNumber(kModified, node.modifiedNs);
    if (node.accessedNs) w.SignedNumber(kAccessed, node.accessedNs);
    if (node.changedNs) w.SignedNumber(kChanged, node.changedNs);
    if (node.hasOwner) {
        w.Number(kUid, node.uid);
        w.Number(kGid, node.gid);
    }
    if (!node.user.empty()) w.Text(kUser, node.user);
    if (!node.group.empty()) w.Text(kGroup, node.group);
    if (node.size) w.Number(kSize, node.size);
    if (node.inode) w.Number(kInode, node.inode);
    if (node.device) w.Number(kDevice, node.device);
    if (node.links != 1) w.Number(kLinks, node.links);
    if (node.deviceNumber) w.Number(kDeviceNumber, node.deviceNumber);
    if (!node.linkTarget.empty()) w.Text(kLinkTarget, node.linkTarget);
    if (!node.content.empty()) w.Ids(kContent, node.content);
    if (!node.subtree.empty()) w.Ids(kSubtree, node.subtree);
    for (const Xattr& xattr : node.xattrs) w.Text(kXattr, xattr.name + std::string(1, '\0') + xattr.value);
    if (node.sparse) w.Number(kSparse, 1);
    if (node.implicit) w.Number(kImplicit, 1);
    return w.record();
}

Bytes EncodeRun(const std::vector<Bytes>& records, size_t begin, size_t end) {
    Bytes plain;
    ByteWriter writer(plain);
    writer.U8(kTreeVersion);
    writer.Varint(end - begin);
    for (size_t i = begin; i < end; ++i) {
        writer.Varint(records[i].size());
        writer.Raw(records[i].data(), records[i].size());
    }
    return plain;
}

std::vector<Id> IdsOf(ByteReader& field, size_t size) {
    if (size % sizeof(Id) != 0) field.Fail("holds a list of ids of " + std::to_string(size) + " bytes");
    std::vector<Id> ids(size / sizeof(Id));
    for (Id& id : ids) id = field.Id();
    return ids;
}

std::string TextOf(ByteReader& field, size_t size) {
    const uint8_t* data = field.Raw(size);
    return std::string(reinterpret_cast<const char*>(data), size);
}

void DecodeField(Node& node, uint64_t tag, ByteReader& field, size_t size, size_t& xattrBytes) {
    switch (tag) {
    case kName: node.name = TextOf(field, size); break;
    case kType: node.type = static_cast<NodeType>(field.Varint()); break;
    case kMode: node.mode = static_cast<uint32_t>(field.Varint() & kModeBits); break;
    case kModified: node.modifiedNs = field.Signed(); break;
    case kAccessed: node.accessedNs = field.Signed(); break;
    case kChanged: node.changedNs = field.Signed(); break;
    case kUid: node.uid = static_cast<uint32_t>(field.Varint()), node.hasOwner = true; break;
    case kGid: node.gid = static_cast<uint32_t>(field.Varint()), node.hasOwner = true; break;
    case kUser: node.user = TextOf(field, size); break;
    case kGroup: node.group = TextOf(field, size); break;
    case kSize: node.size = field.Varint(); break;
    case kInode: node.inode = field.Varint(); break;
    case kDevice: node.device = field.Varint(); break;
    case kLinks: node.links = field.Varint(); break;
    case kDeviceNumber: node.deviceNumber = field.Varint(); break;
    case kLinkTarget: node.linkTarget = TextOf(field, size); break;
    case kContent: node.content = IdsOf(field, size); break;
    case kSubtree: node.subtree = IdsOf(field, size); break;
    case kSparse: node.sparse = field.Varint() != 0; break;
    case kImplicit: node.implicit = field.Varint() != 0; break;
    case kXattr: {
        xattrBytes += size;
        if (xattrBytes > kMaximumXattrBytes) field.Fail("holds more extended attributes than a file keeps");
        const std::string text = TextOf(field, size);
        const size_t nul = text.find('\0');
        if (nul == std::string::npos || nul == 0) field.Fail("holds an extended attribute without a name");
        node.xattrs.push_back({text.substr(0, nul), text.substr(nul + 1)});
        break;
    }
    default: field.Raw(size); break;  // a field of a later version
    }
}

Node DecodeNode(const uint8_t* data, size_t size, const std::string& what) {
    ByteReader record(data, size, what);
    Node node;
    size_t xattrBytes = 0;
    while (record.Left() > 0) {
        const uint64_t tag = record.Varint();
        const uint64_t length = record.Varint();
        if (length > record.Left()) record.Fail("has a field longer than its node");
        ByteReader field(record.Raw(static_cast<size_t>(length)), static_cast<size_t>(length), what);
        DecodeField(node, tag, field, static_cast<size_t>(length), xattrBytes);
        if (tag != kName && tag != kLinkTarget && tag != kUser && tag != kGroup && tag != kContent &&
            tag != kSubtree && tag != kXattr && tag <= kImplicit) {
            field.ExpectEnd();
        }
    }
    return node;
}

bool Sorted(const std::vector<Xattr>& xattrs) {
    for (size_t i = 1; i < xattrs.size(); ++i) {
        if (!(xattrs[i - 1].name < xattrs[i].name)) return false;
    }
    return true;
}

}  // namespace

std::string WhyNodeIsRefused(const Node& node, PathRules rules) {
    if (node.name.empty() || node.name.find('/') != std::string::npos) return "has no usable name";
    const std::string why = WhyPathIsRefused(node.name, rules);
    if (!why.empty()) return why;
    if (node.type < NodeType::File || node.type > NodeType::Socket) return "is of an unknown kind";
    if (node.type != NodeType::File && !node.content.empty()) return "holds chunks but is no file";
    if (node.type != NodeType::Folder && !node.subtree.empty()) return "holds entries but is no folder";
    if (node.type == NodeType::Link) {
        const std::string target = WhyLinkTargetIsRefused(node.linkTarget);
        if (!target.empty()) return "is a link that " + target;
    }
    // Every chunk holds 1 to kMaximumBlobPlainSize bytes.
    if (node.type == NodeType::File &&
        ((node.size == 0) != node.content.empty() || node.content.size() > node.size ||
         node.size / kMaximumBlobPlainSize > node.content.size())) {
        return "has " + std::to_string(node.content.size()) + " chunks for " + std::to_string(node.size) + " bytes";
    }
    if (!Sorted(node.xattrs)) return "has extended attributes out of order or twice";
    return "";
}

std::vector<Bytes> EncodeTree(const std::vector<Node>& nodes) {
    std::vector<Bytes> records;
    records.reserve(nodes.size());
    for (const Node& node : nodes) records.push_back(EncodeNode(node));
    std::vector<Bytes> runs;
    size_t begin = 0;
    size_t bytes = 0;
    for (size_t i = 0; i < records.size(); ++i) {
        if (i > begin && bytes + records[i].size() > kTreeRunBytes) {
            runs.push_back(EncodeRun(records, begin, i));
            begin = i;
            bytes = 0;
        }
        bytes += records[i].size() + 10;
    }
    if (begin < records.size() || runs.empty()) runs.push_back(EncodeRun(records, begin, records.size()));
    return runs;
}

std::vector<Node> DecodeTree(const uint8_t* data, size_t size, const std::string& what, PathRules rules) {
    ByteReader reader(data, size, what);
    if (reader.U8() != kTreeVersion) reader.Fail("is of a tree version this tool does not read");
    const uint64_t count = reader.Varint();
    if (count > reader.Left() / kSmallestNode) reader.Fail("claims " + std::to_string(count) + " entries");
    std::vector<Node> nodes;
    nodes.reserve(static_cast<size_t>(count));
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t length = reader.Varint();
        if (length > reader.Left()) reader.Fail("has an entry longer than the tree");
        nodes.push_back(DecodeNode(reader.Raw(static_cast<size_t>(length)), static_cast<size_t>(length), what));
        const Node& node = nodes.back();
        const std::string why = WhyNodeIsRefused(node, rules);
        if (!why.empty()) reader.Fail("has an entry that " + why);
        if (i > 0 && !(nodes[i - 1].name < node.name)) reader.Fail("has entries out of order or named twice");
    }
    reader.ExpectEnd();
    return nodes;
}

}  // namespace qvhost::repo
