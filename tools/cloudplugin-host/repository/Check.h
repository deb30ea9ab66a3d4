// Checking a repository: its structure (every index and snapshot opens,
// every chunk a snapshot names is indexed, every indexed pack exists) and,
// with read-data, every byte of every pack. Runs with the repository
// locked (shared) by the caller.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "util/Progress.h"
#include "repository/Repository.h"

namespace qvhost::repo {

struct CheckOptions {
    bool readData = false;  // read every pack whole, open every blob
    unsigned jobs = 4;
    ProgressSink* progress = nullptr;  // none: nothing is shown
};

struct CheckReport {
    size_t snapshots = 0;
    size_t indexObjects = 0;
    size_t packs = 0;
    size_t blobs = 0;
    uint64_t bytesRead = 0;
    size_t packsArchived = 0;  // read-data: packs in the Archive tier, not read
    std::vector<std::string> errors;    // damage: the repository does not hold what it names
    std::vector<std::string> warnings;  // garbage: packs no index names, objects of unknown names
    std::vector<std::string> affected;  // "<snapshot> <path>" of files whose data is damaged or missing
    // read-data: damaged packs whose every blob has a good copy in another
    // pack (nothing lost), and blobs of damaged packs with no good copy.
    std::vector<std::string> damagedCopies;
    size_t blobsLost = 0;
    // What repairs what was found, each naming its command, in the order to run them.
    std::vector<std::string> repairs;
};

CheckReport RunCheck(Repository& repository, const CheckOptions& options);

}  // namespace qvhost::repo
