#include "repository/Tags.h"

#include <algorithm>

#include "util/Error.h"

namespace qvhost::repo {

namespace {

bool Holds(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

}  // namespace

std::vector<std::string> ChangedTags(const std::vector<std::string>& tags, const TagChange& change) {
    std::vector<std::string> changed;
    for (const std::string& tag : change.replace ? change.set : tags) {
        if (!tag.empty() && !Holds(change.remove, tag) && !Holds(changed, tag)) changed.push_back(tag);
    }
    for (const std::string& tag : change.add) {
        if (!tag.empty() && !Holds(changed, tag)) changed.push_back(tag);
    }
    return changed;
}

std::string ChangeTags(Repository& repository, const std::string& id, const TagChange& change) {
    Snapshot snapshot = repository.LoadSnapshot(id);
    if (snapshot.version != kSnapshotVersion) {
        // Its trees live only in memory, made from its lists as it is read.
        throw Error(ErrorKind::Unsupported, "the snapshot " + id.substr(0, 8) + " is of format version " +
                                                std::to_string(snapshot.version) + ", whose tags are not changed");
    }
    const std::vector<std::string> tags = ChangedTags(snapshot.tags, change);
    if (tags == snapshot.tags) return id;
    snapshot.tags = tags;
    if (snapshot.original.empty()) snapshot.original = id;
    snapshot.id.clear();
    const std::string written = repository.SaveSnapshot(snapshot);
    repository.store().Delete(repository.layout().SnapshotsPrefix() + id);
    return written;
}

}  // namespace qvhost::repo
