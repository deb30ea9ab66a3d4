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
// Every pack the index names: what check --read-data reads.
std::vector<StoredObject> IndexedPacks(Repository& repository, const MasterIndex& index);
// Moving the data packs already written to the data tier.
struct TierMove {
    size_t moved = 0;         // to the tier now
    size_t already = 0;       // there before
    size_t rehydrating = 0;   // out of the Archive tier: asked for, back in hours
    size_t pending = 0;       // on their way out of the Archive tier since before
    size_t treePacks = 0;     // hold trees: stay online
};
// Every indexed pack of file data not in `tier` is moved to it (from the
// Archive tier, at `priority`); packs that hold trees are left online.
TierMove MoveDataPacks(Repository& repository, const MasterIndex& index, const std::string& tier,
                       const std::string& priority);

// The packs named, as stored (each with its tier).
std::vector<StoredObject> StoredPacks(Repository& repository, const std::vector<Id>& packs);

}  // namespace qvhost::repo
