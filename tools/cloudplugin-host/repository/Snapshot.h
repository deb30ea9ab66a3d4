// A snapshot: one backup of one source folder, with its whole tree.
//
// A snapshot object `<root>/snapshots/<SHA-256 of its stored bytes>` is
// Seal(encryption key, u64 plain length + zstd frame of the JSON below,
// aad "cloudplugin-host snapshot"):
//   {"version":1, "time":"<UTC, ISO 8601>", "time_ns":..., "host":..., "source":"<absolute path>", "tags":[...],
//    "parent":"<snapshot id or empty>",
//    "files":[{"path":..., "size":..., "mtime_ns":..., "mode":..., "file_id":..., "chunks":["<hex id>", ...]}],
//    "folders":[{"path":..., "mtime_ns":..., "mode":...}],          (empty folders)
//    "links":[{"path":..., "target":..., "mtime_ns":...}],
//    "summary":{...the backup's figures...}}
// The tree is kept whole in the snapshot rather than as blobs: it is small
// beside the data (some 100 bytes a file plus 64 a chunk before
// compression) and one object is one request. Everything decoded is
// checked like a manifest: paths, links, no entry beneath a file or a link,
// chunk counts that fit the sizes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "util/Json.h"
#include "util/Entry.h"
#include "util/PathRules.h"
#include "repository/Crypto.h"

namespace qvhost::repo {

struct MasterKeys;

// The largest snapshot object read, and the most its JSON may inflate to.
constexpr uint64_t kMaximumSnapshotSize = 256ull << 20;
constexpr uint64_t kMaximumSnapshotPlainSize = 512ull << 20;

struct SnapshotFile {
    std::string path;
    uint64_t size = 0;
    int64_t modifiedNs = 0;
    uint32_t mode = 0644;
    uint64_t fileId = 0;  // inode (file index on Windows): with size and time, says a file is unchanged
    std::vector<Id> chunks;
};

struct Snapshot {
    std::string id;  // 64 hex digits; empty until stored
    std::string time;     // UTC, ISO 8601, to the second
    int64_t timeNs = 0;   // the same in nanoseconds since 1970: orders snapshots made within a second
    std::string host;
    std::string source;
    std::vector<std::string> tags;
    std::string parent;
    std::vector<SnapshotFile> files;
    std::vector<FolderRecord> folders;
    std::vector<LinkRecord> links;
    Json summary = Json::object();

    uint64_t TotalBytes() const;
    int64_t Seconds() const;  // of `time`
};

// What differs between two snapshots, by path: '+' only in the second, '-'
// only in the first, 'M' a file whose content differs, 'T' an entry of
// another kind, 'U' the same content with another mode or time. Sorted by
// path.
struct TreeChange {
    char kind = 'M';
    std::string path;
    int64_t bytes = 0;  // the size added (+), removed (-) or the change (M)
};
std::vector<TreeChange> DiffSnapshots(const Snapshot& first, const Snapshot& second);

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
    std::string source;
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
// Throws Damaged naming the snapshot.
Snapshot DecodeSnapshot(const MasterKeys& keys, const Bytes& sealed, const std::string& id,
                        PathRules rules = kNativePathRules);

}  // namespace qvhost::repo
