// Removing what no snapshot needs: packs nothing uses are deleted, partly
// used ones rewritten. First a plan (what goes, what is rewritten, what it
// frees), then its execution with the repository locked (exclusive) by the
// caller; a dry run shows the plan and executes nothing.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "repository/Repository.h"
#include "util/Progress.h"

namespace qvhost::repo {

struct PruneOptions {
    unsigned jobs = 4;
    ProgressSink* progress = nullptr;  // none: nothing is shown
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
    size_t packsArchivedKept = 0;  // partly used but archived: kept whole, as they cannot be read to rewrite
    // Packs to delete or rewrite that the storage holds (a retention or a
    // legal hold): kept whole, every blob indexed, for a later prune.
    size_t packsHeld = 0;
    int64_t heldUntil = 0;         // the latest end of those holds (kHeldIndefinitely: a legal hold)
    size_t indexObjectsHeld = 0;   // old index objects the storage refused to delete (then no pack went)
    // Packs deleted (or rewritten) from a tier that charges for deleting
    // early (Cool 30 days, Cold 90, Archive 180) before their days there
    // are over, by tier (a pack whose time in the tier is not listed
    // counts as just moved there) ...
    std::map<std::string, size_t> earlyDeletionTiers;
    // ... and what Azure charges for them: their GiB times the months
    // left of their days there, by tier.
    std::map<std::string, double> earlyDeletionGiBMonths;
};

// What prune will do: the figures of its report (before any pack is
// written) and the work itself.
struct PrunePlan {
    PruneReport report;
    std::vector<IndexedPack> kept;    // packs kept whole, with the blobs the index keeps of them
    std::vector<Id> rewrite;          // partly used packs
    std::vector<Id> remove;           // unused or unindexed packs
    std::vector<Id> archivedKept;     // partly used but archived: kept whole (PruneReport::packsArchivedKept)
    std::map<Id, uint64_t> stored;    // every stored pack and its size
    std::map<Id, std::string> tiers;  // the stored packs not in the Hot tier (or of no tier listed)
    std::map<Id, int64_t> held;       // the stored packs the storage holds, and until when
    std::map<Id, int64_t> tierSince;  // when each stored pack's tier was set, where listed
    int64_t now = 0;                  // what holds and days in a tier are measured at
    std::map<Id, std::vector<PackEntry>> packBlobs;  // every blob the index names, by pack
    // For each used blob, the one copy kept: its pack and entry.
    std::unordered_map<Id, std::pair<Id, PackEntry>, IdHash> keeper;
    // Packs holding a copy of a used blob none of whose several copies
    // verified: kept as they are, every copy with them.
    std::set<Id> keepWhole;
    std::vector<std::string> indexObjects;  // the index objects the plan replaces

    bool Empty() const { return rewrite.empty() && remove.empty(); }
};

// Throws Error (damaged), and plans nothing, when a snapshot or an index
// does not open or a snapshot names data that is nowhere.
// `now`: seconds since 1970, what a pack's hold is compared with.
PrunePlan PlanPrune(Repository& repository, int64_t now = static_cast<int64_t>(std::time(nullptr)));
// Rewrites, writes the new index, then deletes: a prune that stops anywhere
// leaves every used blob named by some index. Answers the plan's report
// with the packs written and the bytes really freed.
PruneReport ExecutePrune(Repository& repository, const PrunePlan& plan, const PruneOptions& options);

}  // namespace qvhost::repo
