#include "repository/Snapshot.h"

#include <algorithm>
#include <map>

#include "util/Text.h"
#include "repository/BoundedJson.h"
#include "repository/Compression.h"
#include "repository/Keys.h"
#include "repository/Pack.h"

namespace qvhost::repo {

namespace {

constexpr uint64_t kSnapshotVersion = 1;

// Names are bytes on POSIX, not always UTF-8, and JSON holds only UTF-8:
// paths, link targets and the source are stored %-escaped ('%' and control
// characters, and every byte from 0x80 on when the name is not UTF-8), so
// that a restore gives back the very same bytes.
std::string Stored(const std::string& name) {
    return PercentEscape(name, !IsUtf8(name));
}

std::string NameMember(const Json& json, const char* member, const std::string& what) {
    std::string name;
    if (!PercentUnescape(StringMember(json, member, what), name)) Damaged(what + " is damaged: a bad %-escape");
    return name;
}

Json ChunksJson(const std::vector<Id>& chunks) {
    Json list = Json::array();
    for (const Id& chunk : chunks) list.push_back(IdHex(chunk));
    return list;
}

SnapshotFile DecodeFile(const Json& json, const std::string& what) {
    if (!json.is_object()) Damaged(what + " is damaged: a file is not a JSON object");
    SnapshotFile file;
    file.path = NameMember(json, "path", what);
    const std::string entry = what + " (file '" + Printable(file.path) + "')";
    file.size = NumberMember(json, "size", entry);
    file.modifiedNs = SignedMember(json, "mtime_ns", entry);
    file.mode = static_cast<uint32_t>(NumberMember(json, "mode", entry) & kModeBits);
    file.fileId = NumberMember(json, "file_id", entry);
    const Json& chunks = ArrayMember(json, "chunks", entry);
    file.chunks.resize(chunks.size());
    for (size_t i = 0; i < chunks.size(); ++i) {
        if (!chunks[i].is_string() || !IdFromHex(chunks[i].get<std::string>(), file.chunks[i])) {
            Damaged(entry + " is damaged: a chunk id is not 64 hex digits");
        }
    }
    // Every chunk holds 1 to kMaximumBlobPlainSize bytes.
    if ((file.size == 0) != file.chunks.empty() || file.chunks.size() > file.size ||
        file.size / kMaximumBlobPlainSize > file.chunks.size()) {
        Damaged(entry + " is damaged: " + std::to_string(file.chunks.size()) + " chunks for " +
                std::to_string(file.size) + " bytes");
    }
    return file;
}

}  // namespace

uint64_t Snapshot::TotalBytes() const {
    uint64_t total = 0;
    for (const SnapshotFile& file : files) total += file.size;
    return total;
}

int64_t Snapshot::Seconds() const { return ParseUtcTime(time); }

namespace {

constexpr size_t kMaximumInfoText = 4096;

std::string InfoAad(const std::string& id) { return "cloudplugin-host snapshot info " + id; }

}  // namespace

SnapshotInfo InfoOf(const Snapshot& snapshot) {
    return {snapshot.id,     snapshot.time,   snapshot.timeNs,        snapshot.host,      snapshot.source,
            snapshot.tags,   snapshot.parent, snapshot.files.size(), snapshot.TotalBytes()};
}

std::string EncodeSnapshotInfo(const MasterKeys& keys, const SnapshotInfo& info) {
    const Json json = {{"time", info.time},     {"time_ns", info.timeNs}, {"host", info.host},
                       {"source", Stored(info.source)}, {"tags", info.tags}, {"parent", info.parent},
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
        info.source = NameMember(json, "source", what);
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

Bytes EncodeSnapshot(const MasterKeys& keys, const Snapshot& snapshot) {
    Json files = Json::array();
    for (const SnapshotFile& file : snapshot.files) {
        files.push_back(Json{{"path", Stored(file.path)},
                             {"size", file.size},
                             {"mtime_ns", file.modifiedNs},
                             {"mode", file.mode & kModeBits},
                             {"file_id", file.fileId},
                             {"chunks", ChunksJson(file.chunks)}});
    }
    Json folders = Json::array();
    for (const FolderRecord& folder : snapshot.folders) {
        folders.push_back(Json{{"path", Stored(folder.relativePath)}, {"mtime_ns", folder.modifiedNs}, {"mode", folder.mode}});
    }
    Json links = Json::array();
    for (const LinkRecord& link : snapshot.links) {
        links.push_back(Json{{"path", Stored(link.relativePath)}, {"target", Stored(link.target)}, {"mtime_ns", link.modifiedNs}});
    }
    const Json json = {{"version", kSnapshotVersion}, {"time", snapshot.time},     {"time_ns", snapshot.timeNs}, {"host", snapshot.host},
                       {"source", Stored(snapshot.source)},   {"tags", snapshot.tags},     {"parent", snapshot.parent},
                       {"files", std::move(files)},   {"folders", std::move(folders)}, {"links", std::move(links)},
                       {"summary", snapshot.summary}};
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

Snapshot DecodeSnapshot(const MasterKeys& keys, const Bytes& sealed, const std::string& id, PathRules rules) {
    const std::string what = "the snapshot " + id.substr(0, 8);
    const Bytes plain = OpenObject(keys, "snapshot", sealed, id.substr(0, 8));
    ByteReader reader(plain.data(), plain.size(), what);
    const uint64_t header = reader.U64();
    const bool stored = (header >> 63) != 0;
    const uint64_t length = header & ~(1ull << 63);
    if (length > kMaximumSnapshotPlainSize) reader.Fail("claims " + std::to_string(length) + " bytes");
    std::string text;
    if (stored) {
        if (length != reader.Left()) reader.Fail("does not hold its length");
        text.assign(reinterpret_cast<const char*>(reader.Raw(length)), length);
    } else {
        Bytes inflated;
        const size_t left = reader.Left();
        if (!Decompress(reader.Raw(left), left, static_cast<size_t>(length), kMaximumSnapshotPlainSize, inflated)) {
            reader.Fail("does not decompress");
        }
        text.assign(inflated.begin(), inflated.end());
    }
    const Json json = ParseBoundedJson(text, what);
    if (NumberMember(json, "version", what) != kSnapshotVersion) Damaged(what + " is of an unknown version");
    Snapshot snapshot;
    snapshot.id = id;
    snapshot.time = StringMember(json, "time", what);
    if (ParseUtcTime(snapshot.time) < 0) Damaged(what + " is damaged: its time is not a UTC time");
    snapshot.timeNs = SignedMember(json, "time_ns", what);
    snapshot.host = StringMember(json, "host", what);
    snapshot.source = NameMember(json, "source", what);
    snapshot.parent = StringMember(json, "parent", what);
    for (const Json& tag : ArrayMember(json, "tags", what)) {
        if (!tag.is_string()) Damaged(what + " is damaged: a tag is not text");
        snapshot.tags.push_back(tag.get<std::string>());
    }
    for (const Json& file : ArrayMember(json, "files", what)) snapshot.files.push_back(DecodeFile(file, what));
    for (const Json& folder : ArrayMember(json, "folders", what)) {
        if (!folder.is_object()) Damaged(what + " is damaged: a folder is not a JSON object");
        snapshot.folders.push_back({NameMember(folder, "path", what), SignedMember(folder, "mtime_ns", what),
                                    static_cast<uint32_t>(NumberMember(folder, "mode", what) & kModeBits)});
    }
    for (const Json& link : ArrayMember(json, "links", what)) {
        if (!link.is_object()) Damaged(what + " is damaged: a link is not a JSON object");
        LinkRecord entry{NameMember(link, "path", what), NameMember(link, "target", what),
                           SignedMember(link, "mtime_ns", what)};
        if (std::string why = WhyLinkTargetIsRefused(entry.target); !why.empty()) {
            Damaged(what + " is damaged: the link '" + Printable(entry.relativePath) + "' " + why);
        }
        snapshot.links.push_back(std::move(entry));
    }
    const auto summary = json.find("summary");
    if (summary != json.end() && summary->is_object()) snapshot.summary = *summary;
    std::vector<TreePath> paths;
    for (const SnapshotFile& file : snapshot.files) paths.push_back({file.path, false});
    for (const FolderRecord& folder : snapshot.folders) paths.push_back({folder.relativePath, true});
    for (const LinkRecord& link : snapshot.links) paths.push_back({link.relativePath, false});
    const auto [path, why] = FirstTreeProblem(paths, rules);
    if (!why.empty()) Damaged(what + " is damaged: the entry '" + Printable(path) + "' " + why);
    return snapshot;
}

std::vector<TreeChange> DiffSnapshots(const Snapshot& first, const Snapshot& second) {
    // Each entry as one comparable record: kind, content and metadata.
    struct Entry {
        char kind;
        const SnapshotFile* file = nullptr;
        std::string target;
        int64_t modifiedNs = 0;
        uint32_t mode = 0;
    };
    auto entries = [](const Snapshot& snapshot) {
        std::map<std::string, Entry> out;
        for (const SnapshotFile& file : snapshot.files) out[file.path] = {'f', &file, "", file.modifiedNs, file.mode};
        for (const FolderRecord& folder : snapshot.folders) {
            out[folder.relativePath] = {'d', nullptr, "", folder.modifiedNs, folder.mode};
        }
        for (const LinkRecord& link : snapshot.links) out[link.relativePath] = {'l', nullptr, link.target, link.modifiedNs, 0};
        return out;
    };
    const std::map<std::string, Entry> before = entries(first);
    const std::map<std::string, Entry> after = entries(second);
    auto size = [](const Entry& entry) { return entry.file ? static_cast<int64_t>(entry.file->size) : 0; };
    std::vector<TreeChange> changes;
    for (const auto& [path, was] : before) {
        const auto now = after.find(path);
        if (now == after.end()) {
            changes.push_back({'-', path, size(was)});
        } else if (now->second.kind != was.kind) {
            changes.push_back({'T', path, size(now->second) - size(was)});
        } else if ((was.file && was.file->chunks != now->second.file->chunks) || was.target != now->second.target) {
            changes.push_back({'M', path, size(now->second) - size(was)});
        } else if (was.modifiedNs != now->second.modifiedNs || was.mode != now->second.mode) {
            changes.push_back({'U', path, 0});
        }
    }
    for (const auto& [path, now] : after) {
        if (!before.count(path)) changes.push_back({'+', path, size(now)});
    }
    std::sort(changes.begin(), changes.end(), [](const TreeChange& a, const TreeChange& b) { return a.path < b.path; });
    return changes;
}

}  // namespace qvhost::repo
