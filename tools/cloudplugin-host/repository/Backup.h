// A backup into a repository: the source tree walked folder by folder
// beside the parent snapshot's trees (the newest of the same host and
// paths), every file that changed since cut into chunks while the walk goes
// on, only chunks the repository lacks sealed into packs and uploaded, each
// folder's tree as soon as its files and subfolders are done (a folder that
// did not change is the blob it was), then the index of the new packs, then
// the snapshot. Memory holds the folders being worked on, not the tree.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "util/Progress.h"
#include "repository/Repository.h"
#include "repository/Source.h"

namespace qvhost::repo {

struct BackupOptions {
    unsigned jobs = 4;
    std::string host;
    std::vector<std::string> tags;
    bool ignoreParent = false;  // read every file, as if there were no parent
    bool dryRun = false;        // read and chunk, store nothing: the report says what would be added
    bool listReads = false;     // the report names every file read (toRead)
    int64_t timeNs = 0;         // the snapshot's time (ns since 1970); 0: now
    ProgressSink* progress = nullptr;  // none: nothing is shown
};

struct BackupReport {
    Snapshot snapshot;      // as stored, with its id
    size_t filesNew = 0;    // not in the parent
    size_t filesChanged = 0;
    size_t filesUnmodified = 0;  // size, times and inode as in the parent: not read
    size_t treesNew = 0;         // tree blobs stored (folders new or changed)
    uint64_t bytesProcessed = 0;  // bytes read and cut into chunks
    uint64_t bytesAdded = 0;      // bytes stored: packs, index and snapshot
    uint64_t blobsNew = 0;
    uint64_t blobBytesNew = 0;  // plain bytes of the new blobs
    size_t packsWritten = 0;
    size_t packsAdopted = 0;  // packs of an interrupted backup, indexed now
    size_t packsRefused = 0;  // packs no index names that did not verify: not adopted
    size_t foldersHeldAtMost = 0;  // folders in memory at once (listed, tree not yet stored)
    std::vector<SkippedEntry> skipped;  // by design or unreadable, sorted by path
    std::vector<std::string> toRead;    // with listReads: the files read (new or changed), in the order found
    size_t Unreadable() const;
};

// The caller holds a shared lock (none needed for a dry run). Throws
// Error; what was stored until then is garbage that the next backup adopts
// or `prune` removes.
BackupReport RunBackup(Repository& repository, Source& source, const BackupOptions& options);

}  // namespace qvhost::repo
