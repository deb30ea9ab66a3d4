// Reading trees: each tree blob found through the index, read by its range,
// opened and checked like any blob, and the most recent ones kept, so that
// walking a snapshot reads every tree once. Trees of snapshots of format
// version 1 come from the repository's memory (Repository::LoadTree).
#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "repository/Repository.h"
#include "repository/Tree.h"

namespace qvhost::repo {

using Nodes = std::shared_ptr<const std::vector<Node>>;

class TreeReader {
public:
    TreeReader(Repository& repository, const MasterIndex& index, size_t cachedTrees = 512);

    // The nodes of one tree blob. Throws Damaged (a tree no index names, or
    // one that does not open), ObjectMissing or ObjectArchived (its pack).
    Nodes Load(const Id& id);
    // The entries of a folder (or a root): the nodes of each of its tree
    // blobs, in order.
    std::vector<Node> Entries(const std::vector<Id>& trees);

private:
    Repository& repository_;
    const MasterIndex& index_;
    const size_t capacity_;
    std::mutex mutex_;
    std::list<Id> recent_;  // most recent first
    std::map<Id, std::pair<Nodes, std::list<Id>::iterator>> cache_;
};

// Visits every entry below a root, depth first in name order, with its path
// relative to the root ('/'-separated). `visit` answers false to leave a
// folder's entries out.
using TreeVisitor = std::function<bool(const std::string& path, const Node& node)>;
void WalkTree(TreeReader& reader, const std::vector<Id>& root, const TreeVisitor& visit);

// The node at a relative path below a root; none when nothing is there.
std::optional<Node> FindNode(TreeReader& reader, const std::vector<Id>& root, const std::string& path);

}  // namespace qvhost::repo
