// How big snapshots are: what a restore of them would write (restore-size),
// and what the repository stores for them (raw-data: the unique blobs they
// reference, as stored and as they open, and how much deduplication saves).
#pragma once

#include <cstdint>
#include <set>
#include <vector>

#include "repository/TreeReader.h"

namespace qvhost::repo {

// What a restore of the snapshots writes, every snapshot counted in full.
struct RestoreSizeStats {
    uint64_t snapshots = 0;
    uint64_t files = 0;
    uint64_t folders = 0;
    uint64_t links = 0;
    uint64_t others = 0;  // FIFOs, devices, sockets
    uint64_t bytes = 0;   // the files' sizes
};

// The unique blobs the snapshots reference (their trees and file chunks),
// each counted once however many files and snapshots share it.
struct RawDataStats {
    uint64_t snapshots = 0;
    uint64_t blobs = 0;
    uint64_t treeBlobs = 0;
    uint64_t storedBytes = 0;        // sealed, as they lie in the packs
    uint64_t uncompressedBytes = 0;  // their plain bytes
    uint64_t dataBytes = 0;          // the plain bytes of the file chunks alone
    uint64_t restoreBytes = 0;       // the files' sizes, every reference counted
    uint64_t missing = 0;            // referenced blobs no index names

    // restoreBytes / the plain bytes of the file chunks: 2 means each
    // stored chunk serves two in the restored files. 0 when nothing is stored.
    double DeduplicationRatio() const;
    // uncompressedBytes / storedBytes (0 when nothing is stored).
    double CompressionRatio() const;
};

RestoreSizeStats CountRestoreSize(TreeReader& reader, const std::vector<Snapshot>& snapshots);
RawDataStats CountRawData(TreeReader& reader, const MasterIndex& index, const std::vector<Snapshot>& snapshots);

}  // namespace qvhost::repo
