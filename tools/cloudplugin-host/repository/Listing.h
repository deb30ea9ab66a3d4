// Looking into snapshots without restoring them: the entries of a snapshot
// (or of a folder in it) as `ls` shows them, and the entries whose names or
// paths match patterns as `find` searches them.
//
// Paths are the entry's place below the snapshot's root, with a leading
// '/' ("/docs/a.txt"): the form `restore --path`-style arguments and `dump`
// take back.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "repository/TreeReader.h"
#include "util/Pattern.h"

namespace qvhost::repo {

struct ListedEntry {
    std::string path;
    Node node;
};
using EntryVisitor = std::function<void(const ListedEntry& entry)>;

// "drwxr-x---", "-rwsr-xr-x", "lrwxrwxrwx": the type and the permission,
// set-ID and sticky bits as ls -l shows them.
std::string ModeText(const Node& node);

// "file", "dir", "symlink", "fifo", "chardev", "dev", "socket" (restic's words).
std::string NodeTypeName(NodeType type);

// The absolute form of a path below the root: "a/b" and "/a/b/" are "/a/b",
// "" and "/" are "/".
std::string RootedPath(const std::string& path);

// Every entry below `path` ("/" or empty: the whole snapshot), depth first
// in name order, the entry at `path` itself first. Throws Error (not found)
// when nothing lies at `path`.
void ListSnapshot(TreeReader& reader, const Snapshot& snapshot, const std::string& path, const EntryVisitor& visit);

// What `find` looks for: entries a pattern matches (by name, or by path for
// a pattern with a '/', as PathPattern::MatchesWhole), modified within
// [oldestNs, newestNs].
struct FindQuery {
    std::vector<PathPattern> patterns;
    int64_t oldestNs = std::numeric_limits<int64_t>::min();
    int64_t newestNs = std::numeric_limits<int64_t>::max();

    bool Matches(const std::string& path, const Node& node) const;
};

// The entries of the snapshot the query matches, in walk order.
std::vector<ListedEntry> FindInSnapshot(TreeReader& reader, const Snapshot& snapshot, const FindQuery& query);

}  // namespace qvhost::repo
