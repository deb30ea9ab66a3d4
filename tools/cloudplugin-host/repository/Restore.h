// Restoring a snapshot (or a sub-path of it) into a destination folder, and
// reading one back without writing (the same work, no destination).
//
// Each pack is read once, in spans of neighbouring blobs (up to
// kRestoreRangeBytes a request) whatever files share it, every blob opened,
// decompressed and checked against its id, and written at its offset into
// every file that holds it. A file any of whose blobs is missing or damaged is named and
// never left in place as if good; the others are restored all the same.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "repository/RestoreSink.h"
#include "repository/TreeReader.h"
#include "util/Pattern.h"
#include "util/Progress.h"
#include "repository/Repository.h"

namespace qvhost::repo {

// The most one span carries: one request, which the tool reads in slices of
// kReadSlice (the Java library serves them from that one answer), so a job
// holds a span and a blob natively and a slice in the JVM.
constexpr uint64_t kRestoreRangeBytes = 4u << 20;

// Which entries a restore takes, by their path in the snapshot ("/docs/a.txt",
// as ls and find show it). An excluded folder takes its whole subtree with
// it; with includes, only what an include matches (a folder matched takes
// its subtree), and the folders on the way to it.
struct RestoreSelection {
    PatternList includes;  // empty: everything
    PatternList excludes;
};

// What a restore does with an entry that exists where it restores one.
enum class OverwriteMode {
    Always,     // replaces it
    IfChanged,  // skips a file of the same size and modification time, without reading its chunks
    IfNewer,    // replaces it only when the snapshot's modification time is newer
    Never,      // leaves it alone
};

struct RestoreOptions {
    unsigned jobs = 4;
    std::string subPath;  // empty: the whole snapshot
    ProgressSink* progress = nullptr;  // none: nothing is shown
    RestoreSelection selection;
    OverwriteMode overwrite = OverwriteMode::IfChanged;
    bool verify = false;        // reads back every file written (and every file skipped as unchanged)
    bool deleteOthers = false;  // removes from the target what the restore does not hold
};

struct RestoreReport {
    size_t files = 0;
    uint64_t bytes = 0;
    size_t folders = 0;
    size_t links = 0;
    double seconds = 0;
    std::vector<RestoreProblem> damaged;  // sorted by file
    std::vector<std::string> setIdDropped;
    std::vector<std::string> notes;  // what the target could not keep
    size_t skipped = 0;  // existing entries left as they were
    std::vector<RestoreProblem> mismatched;  // read back unlike their chunks (--verify)
    std::vector<std::string> removed;  // what deleteOthers removed
    std::vector<RestoreProblem> refused;  // names this system cannot have, not restored
};

// What a restore of `subPath` (empty: the whole snapshot) makes: a folder's
// entries relative to it, a file under its own name. Other names of the
// same file (hard links with the same content) become links to its first
// name. Throws Error (not found) when nothing lies at `subPath`. An entry
// whose name `rules` refuse (a folder with what lies beneath it) is left
// out and named in the plan's `refused`.
RestorePlan PlanRestore(TreeReader& reader, const Snapshot& snapshot, const std::string& subPath,
                        const RestoreSelection& selection = {}, PathRules rules = kNativePathRules);

// With a target, a restore; without, a read-back. Throws Error for
// what stops the whole restore (a plug-in failure other than a missing
// object, an interrupt, a destination that cannot be written).
RestoreReport RunRestore(Repository& repository, const MasterIndex& index, const Snapshot& snapshot,
                         RestoreTarget* target, const RestoreOptions& options);

}  // namespace qvhost::repo
