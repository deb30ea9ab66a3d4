#include "repository/Snapshot.h"

#include <algorithm>
#include <istream>
#include <set>
#include <sstream>

#include "repository/Binary.h"
#include "repository/BoundedJson.h"
#include "repository/Compression.h"
#include "repository/Keys.h"
#include "repository/Pack.h"
#include "util/Entry.h"
#include "util/PathRules.h"
#include "util/Text.h"

namespace qvhost::repo {

namespace {

// Names are bytes on POSIX, not always UTF-8, and JSON holds only UTF-8:
// paths, link targets and the source are stored %-escaped ('%' and control
// characters, and every byte from 0x80 on when the name is not UTF-8), so
// that a restore gives back the very same bytes.
std::string Stored(const std::string& name) { return PercentEscape(name, !IsUtf8(name)); }

std::string NameMember(const Json& json, const char* member, const std::string& what) {
    std::string name;
    if (!PercentUnescape(StringMember(json, member, what), name)) Damaged(what + " is damaged: a bad %-escape");
    return name;
}

Json StoredList(const std::vector<std::string>& names) {
    Json list = Json::array();
    for (const std::string& name : names) list.push_back(Stored(name));
    return list;
}

std::vector<std::string> NameList(const Json& json, const char* member, const std::string& what) {
    std::vector<std::string> names;
    for (const Json& item : ArrayMember(json, member, what)) {
        std::string name;
        if (!item.is_string() || !PercentUnescape(item.get<std::string>(), name)) {
            Damaged(what + " is damaged: " + member + " holds something other than a name");
        }
        names.push_back(std::move(name));
    }
    return names;
}

constexpr size_t kMaximumInfoText = 4096;

std::string InfoAad(const std::string& id) { return "cloudplugin-host snapshot info " + id; }

// ---- decoding: the members used, everything else skipped unbuilt

const std::set<std::string> kTopMembers = {"version", "time",  "time_ns", "host",  "source",  "paths", "tags",
                                           "parent",  "tree",  "files",   "folders", "links", "summary",
                                           "original", "root"};
const std::set<std::string> kFileMembers = {"path", "size", "mtime_ns", "mode", "file_id", "chunks"};
const std::set<std::string> kFolderMembers = {"path", "mtime_ns", "mode"};
const std::set<std::string> kLinkMembers = {"path", "target", "mtime_ns"};

// Which member of which level is kept: the levels of the document are the
// snapshot object (keys at depth 1), its lists (entries at depth 2, their
// keys at depth 3) and the summary's scalars (keys at depth 2).
class MemberFilter {
public:
    bool operator()(int depth, Json::parse_event_t event, Json& parsed) {
        if (event == Json::parse_event_t::key) {
            const std::string key = parsed.get<std::string>();
            if (depth == 1) return top_ = key, kTopMembers.count(key) != 0;
            if (depth == 2) return top_ == "summary";
            if (depth == 3) return EntryMembers().count(key) != 0;
            return false;
        }
        if (event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start) {
            // Lists of entries, and the chunk lists inside file entries.
            if (depth <= 1) return true;
            if (depth == 2) return top_ == "files" || top_ == "folders" || top_ == "links";
            return depth == 3 && top_ == "files" && event == Json::parse_event_t::array_start;
        }
        return true;
    }

private:
    const std::set<std::string>& EntryMembers() const {
        static const std::set<std::string> none;
        if (top_ == "files") return kFileMembers;
        if (top_ == "folders") return kFolderMembers;
        if (top_ == "links") return kLinkMembers;
        return none;
    }

    std::string top_;
};

Json ParseSnapshotJson(std::istream& in, const std::string& what) {
    MemberFilter filter;
    Json json;
    try {
        json = Json::parse(in, std::ref(filter));
    } catch (const std::exception& failure) {
        Damaged(what + " is damaged: not JSON (" + failure.what() + ")");
    }
    if (!json.is_object()) Damaged(what + " is damaged: not a JSON object");
    return json;
}

// No text of a snapshot is longer than this (a path takes at most 32 KiB,
// escaped three times that): a longer one is damage, refused before the
// parser holds it.
constexpr size_t kMaximumText = 1u << 20;

// Passes JSON on from another buffer, ending it (failed) at a text longer
// than kMaximumText.
class TextBoundingBuffer : public std::streambuf {
public:
    explicit TextBoundingBuffer(std::streambuf& source) : source_(source) {}
    bool failed() const { return failed_; }

protected:
    int_type underflow() override {
        if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
        const std::streamsize got = failed_ ? 0 : source_.sgetn(buffer_, sizeof buffer_);
        for (std::streamsize i = 0; i < got; ++i) Track(buffer_[i]);
        if (got <= 0 || failed_) return traits_type::eof();
        setg(buffer_, buffer_, buffer_ + got);
        return traits_type::to_int_type(*gptr());
    }

private:
    void Track(char c) {
        if (!inText_) {
            if (c == '"') inText_ = true, length_ = 0;
            return;
        }
        if (escaped_) {
            escaped_ = false;
        } else if (c == '\\') {
            escaped_ = true;
        } else if (c == '"') {
            inText_ = false;
        }
        if (++length_ > kMaximumText) failed_ = true;
    }

    std::streambuf& source_;
    char buffer_[64 * 1024];
    bool inText_ = false;
    bool escaped_ = false;
    size_t length_ = 0;
    bool failed_ = false;
};

Json ParseSnapshotJson(std::streambuf& source, const std::string& what) {
    TextBoundingBuffer bounded(source);
    std::istream in(&bounded);
    Json json;
    try {
        json = ParseSnapshotJson(in, what);
    } catch (const Error&) {
        if (bounded.failed()) Damaged(what + " is damaged: it holds a text longer than any snapshot has");
        throw;
    }
    return json;
}

// The snapshot's JSON, decompressed as it is parsed.
Json ReadSnapshotJson(const Bytes& plain, const std::string& what) {
    ByteReader reader(plain.data(), plain.size(), what);
    const uint64_t header = reader.U64();
    const bool stored = (header >> 63) != 0;
    const uint64_t length = header & ~(1ull << 63);
    if (length > kMaximumSnapshotPlainSize) reader.Fail("claims " + std::to_string(length) + " bytes");
    const size_t left = reader.Left();
    const uint8_t* data = reader.Raw(left);
    if (stored) {
        if (length != left) reader.Fail("does not hold its length");
        std::stringbuf text(std::string(reinterpret_cast<const char*>(data), left));
        return ParseSnapshotJson(text, what);
    }
    DecompressingBuffer buffer(data, left, length);
    Json json = ParseSnapshotJson(buffer, what);
    if (buffer.failed() || buffer.produced() != length) reader.Fail("does not decompress to its length");
    return json;
}

std::vector<Id> IdList(const Json& json, const char* member, const std::string& what) {
    const Json& list = ArrayMember(json, member, what);
    std::vector<Id> ids(list.size());
    for (size_t i = 0; i < list.size(); ++i) {
        if (!list[i].is_string() || !IdFromHex(list[i].get<std::string>(), ids[i])) {
            Damaged(what + " is damaged: an id in " + member + " is not 64 hex digits");
        }
    }
    return ids;
}

// ---- format version 1: the lists become trees

struct Placed {
    std::string folder;  // the entry's folder, "" for the root
    Node node;
    std::string path;  // as the snapshot names it (checked before anything is built of it)
};

Node FileNodeV1(const Json& json, const std::string& path, const std::string& what) {
    const std::string entry = what + " (file '" + Printable(path) + "')";
    Node node;
    node.type = NodeType::File;
    node.size = NumberMember(json, "size", entry);
    node.modifiedNs = SignedMember(json, "mtime_ns", entry);
    node.mode = static_cast<uint32_t>(NumberMember(json, "mode", entry) & kModeBits);
    node.inode = NumberMember(json, "file_id", entry);
    node.content = IdList(json, "chunks", entry);
    return node;
}

std::vector<Placed> EntriesV1(const Json& json, const std::string& what) {
    std::vector<Placed> entries;
    for (const Json& file : ArrayMember(json, "files", what)) {
        if (!file.is_object()) Damaged(what + " is damaged: a file is not a JSON object");
        const std::string path = NameMember(file, "path", what);
        entries.push_back({FolderOf(path), FileNodeV1(file, path, what), path});
        entries.back().node.name = NameOf(path);
    }
    for (const Json& folder : ArrayMember(json, "folders", what)) {
        if (!folder.is_object()) Damaged(what + " is damaged: a folder is not a JSON object");
        const std::string path = NameMember(folder, "path", what);
        Node node;
        node.name = NameOf(path);
        node.type = NodeType::Folder;
        node.modifiedNs = SignedMember(folder, "mtime_ns", what);
        node.mode = static_cast<uint32_t>(NumberMember(folder, "mode", what) & kModeBits);
        entries.push_back({FolderOf(path), std::move(node), path});
    }
    for (const Json& link : ArrayMember(json, "links", what)) {
        if (!link.is_object()) Damaged(what + " is damaged: a link is not a JSON object");
        const std::string path = NameMember(link, "path", what);
        Node node;
        node.name = NameOf(path);
        node.type = NodeType::Link;
        node.linkTarget = NameMember(link, "target", what);
        node.modifiedNs = SignedMember(link, "mtime_ns", what);
        entries.push_back({FolderOf(path), std::move(node), path});
    }
    return entries;
}

// Version 1 lists every file, link and empty folder by its path; the
// folders on the way are implicit. Each folder's entries become its tree,
// deepest first, so that a folder's node names its entries' trees.
std::vector<Id> TreesOfV1(const MasterKeys& keys, std::vector<Placed> entries, std::map<Id, Bytes>& trees,
                          const std::string& what, PathRules rules) {
    std::vector<TreePath> paths;
    for (const Placed& entry : entries) paths.push_back({entry.path, entry.node.IsFolder()});
    const auto [path, why] = FirstTreeProblem(paths, rules);
    if (!why.empty()) Damaged(what + " is damaged: the entry '" + Printable(path) + "' " + why);
    std::map<std::string, std::vector<Node>> folders;  // folder path -> its entries
    folders[""];
    // By index: the folders on the way are appended to the list as they are
    // found, which moves its elements.
    for (size_t i = 0; i < entries.size(); ++i) {
        const std::string entryFolder = entries[i].folder;
        for (std::string folder = entryFolder; !folders.count(folder); folder = FolderOf(folder)) {
            folders[folder];
            Node implicit;
            implicit.name = NameOf(folder);
            implicit.type = NodeType::Folder;
            implicit.mode = 0755;
            implicit.implicit = true;
            entries.push_back({FolderOf(folder), implicit, folder});
        }
        const Placed& entry = entries[i];
        if (entry.node.IsFolder()) folders[(entry.folder.empty() ? "" : entry.folder + "/") + entry.node.name];
    }
    for (Placed& entry : entries) folders[entry.folder].push_back(std::move(entry.node));
    std::vector<std::string> order;
    for (const auto& [folder, nodes] : folders) order.push_back(folder);
    std::sort(order.begin(), order.end(), [](const std::string& a, const std::string& b) {
        return std::count(a.begin(), a.end(), '/') + !a.empty() > std::count(b.begin(), b.end(), '/') + !b.empty();
    });
    std::map<std::string, std::vector<Id>> subtrees;
    for (const std::string& folder : order) {
        std::vector<Node>& nodes = folders[folder];
        std::sort(nodes.begin(), nodes.end(), [](const Node& a, const Node& b) { return a.name < b.name; });
        for (Node& node : nodes) {
            if (node.IsFolder()) node.subtree = subtrees[(folder.empty() ? "" : folder + "/") + node.name];
        }
        for (const Bytes& plain : EncodeTree(nodes)) {
            const Id id = KeyedHash(keys.mac, plain.data(), plain.size());
            trees.emplace(id, plain);
            subtrees[folder].push_back(id);
        }
    }
    return subtrees[""];
}

}  // namespace

uint64_t Snapshot::Files() const { return summary.value("files", uint64_t{0}); }
uint64_t Snapshot::TotalBytes() const { return summary.value("bytes", uint64_t{0}); }
int64_t Snapshot::Seconds() const { return ParseUtcTime(time); }

std::string PathsText(const std::vector<std::string>& paths) {
    std::string text;
    for (const std::string& path : paths) text += (text.empty() ? "" : ", ") + Printable(path);
    return text;
}

SnapshotInfo InfoOf(const Snapshot& snapshot) {
    return {snapshot.id,   snapshot.time,   snapshot.timeNs,  snapshot.host,  snapshot.paths,
            snapshot.tags, snapshot.parent, snapshot.Files(), snapshot.TotalBytes()};
}

std::string EncodeSnapshotInfo(const MasterKeys& keys, const SnapshotInfo& info) {
    const Json json = {{"time", info.time},     {"time_ns", info.timeNs}, {"host", info.host},
                       {"paths", StoredList(info.paths)}, {"tags", info.tags}, {"parent", info.parent},
                       {"files", info.files},   {"bytes", info.bytes}};
    const std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
    const std::string aad = InfoAad(info.id);
    const Bytes sealed = Seal(keys.encryption, reinterpret_cast<const uint8_t*>(text.data()), text.size(),
                              reinterpret_cast<const uint8_t*>(aad.data()), aad.size());
    std::string encoded = Base64(sealed.data(), sealed.size());
    return encoded.size() <= kMaximumInfoText ? encoded : std::string();
}

std::optional<SnapshotInfo> DecodeSnapshotInfo(const MasterKeys& keys, const std::string& text, const std::string& id) {
    Bytes sealed;
    Bytes plain;
    const std::string aad = InfoAad(id);
    if (text.size() > kMaximumInfoText || !FromBase64(text, sealed) ||
        !Open(keys.encryption, sealed.data(), sealed.size(), reinterpret_cast<const uint8_t*>(aad.data()), aad.size(),
              plain)) {
        return std::nullopt;
    }
    try {
        const std::string what = "the listing of the snapshot " + id.substr(0, 8);
        const Json json = ParseBoundedJson(std::string(plain.begin(), plain.end()), what);
        SnapshotInfo info;
        info.id = id;
        info.time = StringMember(json, "time", what);
        info.timeNs = SignedMember(json, "time_ns", what);
        info.host = StringMember(json, "host", what);
        // Listings written before snapshots had several paths name one source.
        info.paths = json.contains("paths") ? NameList(json, "paths", what)
                                            : std::vector<std::string>{NameMember(json, "source", what)};
        info.parent = StringMember(json, "parent", what);
        info.files = NumberMember(json, "files", what);
        info.bytes = NumberMember(json, "bytes", what);
        for (const Json& tag : ArrayMember(json, "tags", what)) {
            if (!tag.is_string()) return std::nullopt;
            info.tags.push_back(tag.get<std::string>());
        }
        return info;
    } catch (const Error&) {
        return std::nullopt;
    }
}

namespace {

// The root folder's own node: one node of a tree blob, in base64.
Node RootFolderOf(const Json& json, const std::string& what, PathRules rules) {
    Bytes plain;
    if (!FromBase64(StringMember(json, "root", what), plain)) Damaged(what + " is damaged: its root is not base64");
    std::vector<Node> nodes = DecodeTree(plain.data(), plain.size(), what + " (its root folder)", rules);
    if (nodes.size() != 1 || nodes[0].type != NodeType::Folder || nodes[0].name != kRootFolderName ||
        !nodes[0].subtree.empty()) {
        Damaged(what + " is damaged: its root is not one folder's metadata");
    }
    return std::move(nodes[0]);
}

}  // namespace

Bytes EncodeSnapshot(const MasterKeys& keys, const Snapshot& snapshot) {
    Json tree = Json::array();
    for (const Id& id : snapshot.tree) tree.push_back(IdHex(id));
    Json json = {{"version", kSnapshotVersion}, {"time", snapshot.time},     {"time_ns", snapshot.timeNs},
                       {"host", snapshot.host},       {"paths", StoredList(snapshot.paths)},
                       {"tags", snapshot.tags},       {"parent", snapshot.parent}, {"tree", std::move(tree)},
                       {"summary", snapshot.summary}};
    if (!snapshot.original.empty()) json["original"] = snapshot.original;
    if (snapshot.root) {
        const Bytes root = EncodeTree({*snapshot.root}).at(0);
        json["root"] = Base64(root.data(), root.size());
    }
    // Host and tags are the user's text; anything in them that is not UTF-8 is replaced.
    const std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
    Bytes plain;
    ByteWriter(plain).U64(text.size());
    Bytes frame;
    if (Compress(reinterpret_cast<const uint8_t*>(text.data()), text.size(), frame)) {
        plain.insert(plain.end(), frame.begin(), frame.end());
    } else {
        plain[7] |= 0x80;  // stored as it is: the top bit of the length says so
        plain.insert(plain.end(), text.begin(), text.end());
    }
    return SealObject(keys, "snapshot", plain);
}

DecodedSnapshot DecodeSnapshot(const MasterKeys& keys, const Bytes& sealed, const std::string& id,
                               PathRules rules) {
    const std::string what = "the snapshot " + id.substr(0, 8);
    const Json json = ReadSnapshotJson(OpenObject(keys, "snapshot", sealed, id.substr(0, 8)), what);
    DecodedSnapshot decoded;
    Snapshot& snapshot = decoded.snapshot;
    snapshot.id = id;
    snapshot.version = NumberMember(json, "version", what);
    if (snapshot.version != 1 && snapshot.version != kSnapshotVersion) Damaged(what + " is of an unknown version");
    snapshot.time = StringMember(json, "time", what);
    if (ParseUtcTime(snapshot.time) < 0) Damaged(what + " is damaged: its time is not a UTC time");
    snapshot.timeNs = SignedMember(json, "time_ns", what);
    snapshot.host = StringMember(json, "host", what);
    snapshot.parent = StringMember(json, "parent", what);
    for (const Json& tag : ArrayMember(json, "tags", what)) {
        if (!tag.is_string()) Damaged(what + " is damaged: a tag is not text");
        snapshot.tags.push_back(tag.get<std::string>());
    }
    const auto summary = json.find("summary");
    if (summary != json.end() && summary->is_object()) snapshot.summary = *summary;
    if (json.contains("original")) {
        snapshot.original = StringMember(json, "original", what);
        Id original;
        if (!IdFromHex(snapshot.original, original)) Damaged(what + " is damaged: its original is not a snapshot id");
    }
    if (snapshot.version == 1) {
        snapshot.paths = {NameMember(json, "source", what)};
        std::vector<Placed> entries = EntriesV1(json, what);
        uint64_t bytes = 0, files = 0;
        for (const Placed& entry : entries) {
            if (entry.node.type == NodeType::File) bytes += entry.node.size, ++files;
        }
        snapshot.summary["files"] = files;
        snapshot.summary["bytes"] = bytes;
        snapshot.tree = TreesOfV1(keys, std::move(entries), decoded.trees, what, rules);
    } else {
        snapshot.paths = NameList(json, "paths", what);
        snapshot.tree = IdList(json, "tree", what);
        if (json.contains("root")) snapshot.root = RootFolderOf(json, what, rules);
    }
    if (snapshot.paths.empty()) Damaged(what + " is damaged: it names no path");
    return decoded;
}

}  // namespace qvhost::repo
