// Rebuilding the index from the packs themselves: every pack is read whole
// and verified (PackVerify.h), the header of each one that passes lists its
// blobs, and new index objects name every verified pack. Only then are the
// old index objects deleted, so that a rebuild stopped at any point leaves
// an index that names at least what it named before. Packs that fail are
// named with why and left where they are (prune, or the user, deals with
// them); their blobs are in no index afterwards. Runs with the repository
// locked (exclusive) by the caller.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "repository/Repository.h"
#include "util/Progress.h"

namespace qvhost::repo {

struct RepairIndexOptions {
    unsigned jobs = 4;
    ProgressSink* progress = nullptr;  // none: nothing is shown
};

struct RefusedPack {
    std::string name;
    std::string why;
};

struct RepairIndexReport {
    size_t packsIndexed = 0;
    size_t blobsIndexed = 0;
    uint64_t bytesRead = 0;
    std::vector<RefusedPack> packsRefused;  // sorted by name
    size_t indexObjectsWritten = 0;
    size_t indexObjectsRemoved = 0;
};

RepairIndexReport RepairIndex(Repository& repository, const RepairIndexOptions& options);

}  // namespace qvhost::repo
