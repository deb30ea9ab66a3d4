// Repairing snapshots that name data the repository no longer holds: each
// snapshot's trees are walked, and where a file's chunk is in no index (or
// only in packs that are gone) the file is dropped, and where a folder's
// tree cannot be read the folder keeps what can be read of it (an empty
// folder when nothing can). Changed folders get new trees, written in new
// packs, then an index naming them, then a new snapshot: the same time,
// host, paths and tags, the tag "repaired" added and `original` naming the
// snapshot repaired. The original stays unless `forget` is asked for, and
// then goes only after its repaired snapshot is stored. Runs with the
// repository locked (exclusive) by the caller.
#pragma once

#include <string>
#include <vector>

#include "repository/Repository.h"

namespace qvhost::repo {

constexpr const char* kRepairedTag = "repaired";

struct RepairSnapshotsOptions {
    bool dryRun = false;  // find what is lost, write nothing
    bool forget = false;  // remove each original once its repaired snapshot is stored
};

struct SnapshotRepair {
    std::string original;
    bool damaged = false;   // something of it is lost: it is (or would be) repaired
    std::string repaired;   // the new snapshot's id; empty when undamaged or a dry run
    std::vector<std::string> dropped;  // files left out (relative paths)
    std::vector<std::string> emptied;  // folders whose trees (or some of them) could not be read
    bool forgotten = false;
    // Repaired by an earlier run: `repaired` is that snapshot, nothing is
    // written again (with `forget`, the original goes now).
    bool repairedBefore = false;
};

// The snapshots `ids` (every snapshot when empty), in the order given
// (oldest first for all). Throws Error (not found) for an id that names
// no snapshot, before anything is written.
std::vector<SnapshotRepair> RepairSnapshots(Repository& repository, const std::vector<std::string>& ids,
                                            const RepairSnapshotsOptions& options);

}  // namespace qvhost::repo
