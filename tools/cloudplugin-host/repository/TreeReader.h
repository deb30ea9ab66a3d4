// Reading trees: each tree blob found through the index, opened and checked
// like any blob, and the most recent ones kept, so that walking a snapshot
// reads every tree once. Tree blobs come from packs of their own, which are
// read whole (from the local cache when there is one) and the last few held:
// a walk of thousands of folders costs a request per pack, not per folder. Trees of snapshots of format
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
    TreeReader(Repository& repository, const MasterIndex& index, size_t cachedTrees = 512, size_t heldPacks = 4);

    // The nodes of one tree blob. Throws Damaged (a tree no index names, or
    // one that does not open), ObjectMissing or ObjectArchived (its pack).
    Nodes Load(const Id& id);
    // The entries of a folder (or a root): the nodes of each of its tree
    // blobs, in order.
    std::vector<Node> Entries(const std::vector<Id>& trees);

private:
    // The sealed blob, from its pack held whole, else by its range.
    Bytes SealedBlob(const BlobLocation& location);
    // The pack held whole; null when it cannot be had whole (its blobs are read by range).
    std::shared_ptr<const Bytes> HeldPack(const Id& pack);

    Repository& repository_;
    const MasterIndex& index_;
    const size_t capacity_;
    const size_t heldPacks_;
    std::mutex packMutex_;  // one pack read at a time: a walk's next trees are in the same pack
    std::list<std::pair<Id, std::shared_ptr<const Bytes>>> packs_;  // most recent first
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
