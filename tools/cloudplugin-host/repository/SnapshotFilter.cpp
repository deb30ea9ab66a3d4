#include "repository/SnapshotFilter.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "util/Error.h"
#include "util/Text.h"

namespace qvhost::repo {

namespace {

bool Contains(const std::vector<std::string>& items, const std::string& item) {
    return std::find(items.begin(), items.end(), item) != items.end();
}

}  // namespace

bool SnapshotFilter::Matches(const SnapshotInfo& snapshot) const {
    if (!hosts.empty() && !Contains(hosts, snapshot.host)) return false;
    if (!std::all_of(paths.begin(), paths.end(), [&](const std::string& path) { return Contains(snapshot.paths, path); })) {
        return false;
    }
    if (tagSets.empty()) return true;
    return std::any_of(tagSets.begin(), tagSets.end(), [&](const std::vector<std::string>& set) {
        return std::all_of(set.begin(), set.end(), [&](const std::string& tag) { return Contains(snapshot.tags, tag); });
    });
}

unsigned ParseGroupBy(const std::string& text) {
    unsigned groupBy = 0;
    if (text.empty()) return groupBy;
    for (const std::string& word : Split(text, ',')) {
        if (word == "host") groupBy |= kGroupByHost;
        else if (word == "paths" || word == "path") groupBy |= kGroupByPaths;
        else if (word == "tags" || word == "tag") groupBy |= kGroupByTags;
        else throw Error(ErrorKind::Usage, "--group-by takes host, paths and tags (or none of them), not " + word);
    }
    return groupBy;
}

bool SnapshotGroup::operator<(const SnapshotGroup& other) const {
    return std::tie(host, paths, tags) < std::tie(other.host, other.paths, other.tags);
}

SnapshotGroup GroupOf(const SnapshotInfo& snapshot, unsigned groupBy) {
    SnapshotGroup group;
    if (groupBy & kGroupByHost) group.host = snapshot.host;
    if (groupBy & kGroupByPaths) group.paths = snapshot.paths;
    if (groupBy & kGroupByTags) {
        group.tags = snapshot.tags;
        std::sort(group.tags.begin(), group.tags.end());
        group.tags.erase(std::unique(group.tags.begin(), group.tags.end()), group.tags.end());
    }
    return group;
}

std::vector<SnapshotInfo> NewestOfEachGroup(const std::vector<SnapshotInfo>& snapshots, size_t count,
                                            unsigned groupBy) {
    std::map<SnapshotGroup, size_t> taken;
    std::vector<bool> kept(snapshots.size(), false);
    for (size_t i = snapshots.size(); i-- > 0;) {
        size_t& already = taken[GroupOf(snapshots[i], groupBy)];
        if (already < count) kept[i] = true, ++already;
    }
    std::vector<SnapshotInfo> newest;
    for (size_t i = 0; i < snapshots.size(); ++i) {
        if (kept[i]) newest.push_back(snapshots[i]);
    }
    return newest;
}

}  // namespace qvhost::repo
