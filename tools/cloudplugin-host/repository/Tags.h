// Changing a snapshot's tags. A snapshot object is named by the hash of its
// sealed bytes, so a change writes a new snapshot (the same tree, time,
// host and paths, the new tags, and in `original` the id of the snapshot
// first written) and then removes the old object: the snapshot is never
// absent, and for a moment it is there twice.
#pragma once

#include <string>
#include <vector>

#include "repository/Repository.h"

namespace qvhost::repo {

struct TagChange {
    std::vector<std::string> add;
    std::vector<std::string> remove;
    std::vector<std::string> set;
    bool replace = false;  // `set` replaces every tag (with none, when it is empty)

    bool Empty() const { return add.empty() && remove.empty() && !replace; }
};

// The tags after the change: `set` (or the old ones) without `remove`, with
// `add`, each once, in the order first given.
std::vector<std::string> ChangedTags(const std::vector<std::string>& tags, const TagChange& change);

// Rewrites the snapshot with the changed tags; answers the new id, or the
// old one when the tags do not change (nothing is written then). The
// caller holds the exclusive lock.
std::string ChangeTags(Repository& repository, const std::string& id, const TagChange& change);

}  // namespace qvhost::repo
