// Which snapshots a command means, and how `forget` groups them: by the
// host, the source paths and the tags they were made with.
#pragma once

#include <string>
#include <vector>

#include "repository/Snapshot.h"

namespace qvhost::repo {

// Snapshots of any of `hosts`, carrying every tag of any one of `tagSets`,
// and holding every one of `paths`; an empty list does not narrow.
struct SnapshotFilter {
    std::vector<std::string> hosts;
    std::vector<std::vector<std::string>> tagSets;  // each set from one --tag a,b: all of its tags
    std::vector<std::string> paths;

    bool Matches(const SnapshotInfo& snapshot) const;
    bool Empty() const { return hosts.empty() && tagSets.empty() && paths.empty(); }
};

// What snapshots are grouped by (bits; none: one group of all).
enum GroupBy : unsigned { kGroupByHost = 1, kGroupByPaths = 2, kGroupByTags = 4 };
// "host,paths,tags" or any subset, or "" for none. Throws Error (usage) for
// another word.
unsigned ParseGroupBy(const std::string& text);

// The group of a snapshot: only the members grouped by are filled in.
struct SnapshotGroup {
    std::string host;
    std::vector<std::string> paths;
    std::vector<std::string> tags;  // sorted

    bool operator<(const SnapshotGroup& other) const;
};
SnapshotGroup GroupOf(const SnapshotInfo& snapshot, unsigned groupBy);

// The `count` newest snapshots of each group, of snapshots sorted oldest
// first; answered in the same order.
std::vector<SnapshotInfo> NewestOfEachGroup(const std::vector<SnapshotInfo>& snapshots, size_t count,
                                            unsigned groupBy);

}  // namespace qvhost::repo
