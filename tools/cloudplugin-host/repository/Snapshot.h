// A snapshot: one backup of one or more source paths, naming the tree of
// its root (Tree.h).
//
// A snapshot object `<root>/snapshots/<SHA-256 of its stored bytes>` is
// Seal(encryption key, u64 plain length + zstd frame of the JSON below,
// aad "cloudplugin-host snapshot"):
//   {"version":2, "time":"<UTC, ISO 8601>", "time_ns":..., "host":..., "paths":["<absolute path>", ...],
//    "tags":[...], "parent":"<snapshot id or empty>", ["original":"<snapshot id>",] "tree":["<hex id of a tree blob>", ...],
//    "summary":{...the backup's figures, with "files" and "bytes"...}}
// Paths are %-escaped (names need not be UTF-8). With one path the root
// tree holds that folder's entries; with several, the root holds the
// folders on the way to each path (by its absolute components).
//
// Snapshots of format version 1 held the whole tree in the snapshot
// itself ("source", and "files", "folders" and "links" lists of relative
// paths). They are still read: decoding one turns its lists into trees,
// which the repository then serves from memory (Repository::LoadTree).
//
// Decoding is bounded by what is used, not by what is stored: the frame is
// decompressed as the JSON is parsed, and members this tool does not use
// are skipped without being built. Everything kept is checked: paths,
// links, no entry beneath a file or a link, chunk counts that fit the
// sizes.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "repository/Crypto.h"
#include "repository/Tree.h"
#include "util/Json.h"
#include "util/PathRules.h"

namespace qvhost::repo {

struct MasterKeys;

// The largest snapshot object read, and the most its JSON may inflate to.
constexpr uint64_t kMaximumSnapshotSize = 256ull << 20;
constexpr uint64_t kMaximumSnapshotPlainSize = 512ull << 20;
// The snapshot format this tool writes.
constexpr uint64_t kSnapshotVersion = 2;

struct Snapshot {
    std::string id;       // 64 hex digits; empty until stored
    uint64_t version = kSnapshotVersion;
    std::string time;     // UTC, ISO 8601, to the second
    int64_t timeNs = 0;   // the same in nanoseconds since 1970: orders snapshots made within a second
    std::string host;
    std::vector<std::string> paths;  // absolute
    std::vector<std::string> tags;
    std::string parent;
    std::string original;  // the snapshot this one rewrites (tags changed, or repaired); empty for one a backup wrote
    std::vector<Id> tree;  // the root's tree blobs
    // A snapshot of one folder: that folder's own metadata (the name is
    // kRootFolderName: DEST_DIR names it), given to DEST_DIR by a restore of
    // the whole snapshot. None for several paths, and in snapshots of
    // versions before it was kept.
    std::optional<Node> root;
    Json summary = Json::object();

    uint64_t Files() const;  // from the summary
    uint64_t TotalBytes() const;
    int64_t Seconds() const;  // of `time`
};

// The text that names a snapshot's paths in one line ("/a, /b").
std::string PathsText(const std::vector<std::string>& paths);

// What a listing of snapshots shows, without the tree: kept sealed in the
// snapshot object's `info` property (Seal(encryption key, JSON, aad
// "cloudplugin-host snapshot info " + id), base64), so that `snapshots`,
// `latest` and finding a backup's parent take one listing instead of a
// read of every snapshot. The snapshot itself stays the authority: a
// missing or unopened info falls back to reading it.
struct SnapshotInfo {
    std::string id;
    std::string time;
    int64_t timeNs = 0;
    std::string host;
    std::vector<std::string> paths;
    std::vector<std::string> tags;
    std::string parent;
    uint64_t files = 0;
    uint64_t bytes = 0;
};
constexpr const char* kSnapshotInfoProperty = "info";
SnapshotInfo InfoOf(const Snapshot& snapshot);
// Empty when the info would not fit an object property (a few KiB).
std::string EncodeSnapshotInfo(const MasterKeys& keys, const SnapshotInfo& info);
std::optional<SnapshotInfo> DecodeSnapshotInfo(const MasterKeys& keys, const std::string& text, const std::string& id);

Bytes EncodeSnapshot(const MasterKeys& keys, const Snapshot& snapshot);

// A decoded snapshot and, for one of format version 1, the plain bytes of
// the trees its lists became (by id).
struct DecodedSnapshot {
    Snapshot snapshot;
    std::map<Id, Bytes> trees;
};
// Throws Damaged naming the snapshot. Paths are checked by the POSIX rules
// on every system, as trees' names are (DecodeTree).
DecodedSnapshot DecodeSnapshot(const MasterKeys& keys, const Bytes& sealed, const std::string& id,
                               PathRules rules = PathRules::Posix);

}  // namespace qvhost::repo
