// Bringing archived objects back to an online tier. Azure takes hours for
// it: each run asks for what is still archived and says what is on its
// way, until nothing is.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "repository/Repository.h"

namespace qvhost::repo {

struct RehydrateRequest {
    std::string tier = "Hot";           // Hot or Cool
    std::string priority = "Standard";  // Standard or High
};

// Where a rehydration stands.
struct Rehydration {
    std::vector<std::string> requested;  // asked to come back by this run
    std::vector<std::string> pending;    // on their way since an earlier run
    size_t online = 0;
    bool Ready() const { return requested.empty() && pending.empty(); }
};

// Asks for every archived object of the list to come back (objects on
// their way and online ones are counted, not asked again).
void RehydrateObjects(ObjectStore& store, const std::vector<StoredObject>& objects, const RehydrateRequest& request,
                      Rehydration& state);

// The repository's own objects (keys, config, index, snapshots): without
// them nothing says which packs a snapshot needs, so they come first.
std::vector<StoredObject> OwnObjects(ObjectStore& store, const RepositoryLayout& layout);
// The packs that hold trees: without them nothing says which packs a
// snapshot's files need, so they come next.
std::vector<StoredObject> TreePacks(Repository& repository, const MasterIndex& index);
// The packs a snapshot's trees and files need (its trees read on the way).
std::vector<StoredObject> PacksOf(Repository& repository, const Snapshot& snapshot, const MasterIndex& index);

}  // namespace qvhost::repo
