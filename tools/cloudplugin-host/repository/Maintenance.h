// Checking a repository and removing what no snapshot needs. Both run with
// the repository locked by the caller: `check` shared, `prune` exclusive.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/Progress.h"
#include "repository/Repository.h"

namespace qvhost::repo {

struct CheckOptions {
    bool readData = false;  // read every pack whole, open every blob
    unsigned jobs = 4;
    ProgressStyle progress = ProgressStyle::Silent;
};

struct CheckReport {
    size_t snapshots = 0;
    size_t indexObjects = 0;
    size_t packs = 0;
    size_t blobs = 0;
    uint64_t bytesRead = 0;
    std::vector<std::string> errors;    // damage: the repository does not hold what it names
    std::vector<std::string> warnings;  // garbage: packs no index names, objects of unknown names
    std::vector<std::string> affected;  // "<snapshot> <path>" of files whose data is damaged or missing
};

CheckReport RunCheck(Repository& repository, const CheckOptions& options);

struct PruneOptions {
    unsigned jobs = 4;
    bool dryRun = false;
    ProgressStyle progress = ProgressStyle::Silent;
};

struct PruneReport {
    size_t packsKept = 0;
    size_t packsDeleted = 0;    // none of their blobs used
    size_t packsRewritten = 0;  // partly used: their used blobs copied into new packs
    size_t packsUnindexed = 0;  // of interrupted backups, deleted
    size_t packsWritten = 0;
    size_t blobsRemoved = 0;
    uint64_t bytesFreed = 0;    // stored bytes gone (deleted less written)
    uint64_t bytesRewritten = 0;
    size_t indexObjectsReplaced = 0;
};

// Throws ToolError (damaged) and deletes nothing when a snapshot or an index
// does not open or a snapshot names data that is nowhere.
PruneReport RunPrune(Repository& repository, const PruneOptions& options);

}  // namespace qvhost::repo
