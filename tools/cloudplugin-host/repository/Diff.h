// What differs between two snapshots, by path, walking both trees side by
// side: a folder whose tree blobs are the same in both is the same and is
// not read at all.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "repository/TreeReader.h"

namespace qvhost::repo {

// '+' only in the second, '-' only in the first, 'M' a file whose content
// (or a link whose target) differs, 'T' an entry of another kind, 'U' the
// same content with other metadata (mode, times, owner, extended
// attributes).
struct TreeChange {
    char kind = 'M';
    std::string path;
    int64_t bytes = 0;  // the size added (+), removed (-) or the change (M)
};

// Sorted by path.
std::vector<TreeChange> DiffSnapshots(TreeReader& reader, const Snapshot& first, const Snapshot& second);

}  // namespace qvhost::repo
