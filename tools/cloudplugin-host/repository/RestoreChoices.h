// What a restore decides about the entries that exist where it restores
// (OverwriteMode), how it reads a file back against its chunks, and what
// it holds when it removes everything else.
#pragma once

#include <set>
#include <string>

#include "repository/Index.h"
#include "repository/Restore.h"

namespace qvhost::repo {

// Reads the file back chunk by chunk, each against its keyed hash: empty
// when it holds those chunks and no more, else what differs.
std::string CompareWithChunks(ExistingFile& file, const std::vector<Id>& content, const MasterIndex& index,
                              const Key256& mac);

// Leaves out of the plan the entries that stay as they are in the target;
// answers how many. With `verify`, a file skipped as unchanged is read
// back first, and restored when it differs.
size_t LeaveExisting(RestorePlan& plan, const RestoreTarget& target, const RestoreOptions& options,
                     const MasterIndex& index, const Key256& mac);

// Every path the plan holds, the folders on the way included.
std::set<std::string> PlannedPaths(const RestorePlan& plan);

}  // namespace qvhost::repo
