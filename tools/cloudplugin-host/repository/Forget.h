// Forgetting snapshots: a plan (which snapshots each group keeps, by which
// rules, and which go), then its application (the snapshot objects
// removed). The data they alone used stays until `prune`.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "repository/Repository.h"
#include "repository/Retention.h"
#include "repository/SnapshotFilter.h"

namespace qvhost::repo {

struct ForgetGroup {
    SnapshotGroup group;
    RetentionDecision decision;
};

struct ForgetPlan {
    std::vector<ForgetGroup> groups;  // in group order
    std::vector<std::string> forget;  // every snapshot that goes
};

// The policy applied to each group of the snapshots the filter selects
// (the others are neither kept nor forgotten: they are not considered).
// Throws Error (usage) when the policy would forget every snapshot of a
// group (a --keep-tag that no snapshot of it carries): nothing is planned.
ForgetPlan PlanForget(const std::vector<SnapshotInfo>& snapshots, const RetentionPolicy& policy,
                      const SnapshotFilter& filter, unsigned groupBy, const RetentionClock& clock = LocalClock());

// Of `snapshots`, those the storage holds at `now` (seconds since 1970):
// their ids and the end of each hold (kHeldIndefinitely: a legal hold).
// A forget leaves them; a later one, once the hold is over, takes them.
std::map<std::string, int64_t> HeldSnapshots(Repository& repository, const std::vector<std::string>& snapshots,
                                             int64_t now);

// Removes the snapshot objects of the plan; answers those the storage
// refused to delete as held (a hold the listing did not show). The caller
// holds the exclusive lock.
std::vector<std::string> ApplyForget(Repository& repository, const std::vector<std::string>& snapshots);

// What a forget did: the snapshots removed (or, in a dry run, those it
// would remove), and those it left because the storage holds them, with
// the end of each hold.
struct ForgetOutcome {
    std::vector<std::string> forgotten;
    std::map<std::string, int64_t> held;
};
// Removes `snapshots` but those the storage holds at `now`, as listed or as
// a refused delete shows (then held indefinitely, as far as we know).
ForgetOutcome ForgetUnlessHeld(Repository& repository, std::vector<std::string> snapshots, int64_t now, bool dryRun);

}  // namespace qvhost::repo
