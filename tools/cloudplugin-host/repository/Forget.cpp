#include "repository/Forget.h"

#include <algorithm>
#include <map>

#include "util/Error.h"

namespace qvhost::repo {

namespace {

std::string GroupName(const SnapshotGroup& group) {
    std::string text;
    if (!group.host.empty()) text += "host " + group.host;
    if (!group.paths.empty()) text += (text.empty() ? "" : ", ") + std::string("paths ") + PathsText(group.paths);
    std::string tags;
    for (const std::string& tag : group.tags) tags += (tags.empty() ? "" : ",") + tag;
    if (!tags.empty()) text += (text.empty() ? "tags " : ", tags ") + tags;
    return text.empty() ? "all snapshots" : text;
}

}  // namespace

ForgetPlan PlanForget(const std::vector<SnapshotInfo>& snapshots, const RetentionPolicy& policy,
                      const SnapshotFilter& filter, unsigned groupBy, const RetentionClock& clock) {
    std::map<SnapshotGroup, std::vector<DatedSnapshot>> byGroup;
    for (const SnapshotInfo& snapshot : snapshots) {
        if (filter.Matches(snapshot)) {
            byGroup[GroupOf(snapshot, groupBy)].push_back({snapshot.id, snapshot.timeNs / 1000000000, snapshot.tags, snapshot.timeNs});
        }
    }
    ForgetPlan plan;
    for (auto& [group, dated] : byGroup) {
        ForgetGroup entry{group, ApplyRetention(std::move(dated), policy, clock)};
        if (entry.decision.keep.empty() && !entry.decision.forget.empty()) {
            throw Error(ErrorKind::Usage, "the policy would forget every snapshot of " + GroupName(group) + " (" +
                                              std::to_string(entry.decision.forget.size()) +
                                              "; none carries the tags of --keep-tag): nothing was forgotten");
        }
        plan.forget.insert(plan.forget.end(), entry.decision.forget.begin(), entry.decision.forget.end());
        plan.groups.push_back(std::move(entry));
    }
    return plan;
}

std::map<std::string, int64_t> HeldSnapshots(Repository& repository, const std::vector<std::string>& snapshots,
                                             int64_t now) {
    std::map<std::string, int64_t> listed;
    for (const NamedObject& object : repository.ListIds(repository.layout().SnapshotsPrefix())) {
        if (object.heldUntil > now) listed.emplace(IdHex(object.id), object.heldUntil);
    }
    std::map<std::string, int64_t> held;
    for (const std::string& id : snapshots) {
        const auto found = listed.find(id);
        if (found != listed.end()) held.insert(*found);
    }
    return held;
}

std::vector<std::string> ApplyForget(Repository& repository, const std::vector<std::string>& snapshots) {
    std::vector<std::string> refused;
    for (const std::string& id : snapshots) {
        try {
            repository.store().Delete(repository.layout().SnapshotsPrefix() + id);
        } catch (const ObjectHeld&) {
            refused.push_back(id);
        }
    }
    return refused;
}

ForgetOutcome ForgetUnlessHeld(Repository& repository, std::vector<std::string> snapshots, int64_t now, bool dryRun) {
    ForgetOutcome outcome;
    outcome.held = HeldSnapshots(repository, snapshots, now);
    snapshots.erase(std::remove_if(snapshots.begin(), snapshots.end(),
                                   [&](const std::string& id) { return outcome.held.count(id) != 0; }),
                    snapshots.end());
    if (!dryRun) {
        for (const std::string& id : ApplyForget(repository, snapshots)) {
            outcome.held.emplace(id, kHeldIndefinitely);
            snapshots.erase(std::find(snapshots.begin(), snapshots.end(), id));
        }
    }
    outcome.forgotten = std::move(snapshots);
    return outcome;
}

}  // namespace qvhost::repo
