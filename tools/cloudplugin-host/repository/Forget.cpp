#include "repository/Forget.h"

#include <map>

namespace qvhost::repo {

ForgetPlan PlanForget(const std::vector<SnapshotInfo>& snapshots, const RetentionPolicy& policy,
                      const SnapshotFilter& filter, unsigned groupBy, const CivilTime& civil) {
    std::map<SnapshotGroup, std::vector<DatedSnapshot>> byGroup;
    for (const SnapshotInfo& snapshot : snapshots) {
        if (filter.Matches(snapshot)) {
            byGroup[GroupOf(snapshot, groupBy)].push_back({snapshot.id, snapshot.timeNs / 1000000000});
        }
    }
    ForgetPlan plan;
    for (auto& [group, dated] : byGroup) {
        ForgetGroup entry{group, ApplyRetention(std::move(dated), policy, civil)};
        plan.forget.insert(plan.forget.end(), entry.decision.forget.begin(), entry.decision.forget.end());
        plan.groups.push_back(std::move(entry));
    }
    return plan;
}

void ApplyForget(Repository& repository, const std::vector<std::string>& snapshots) {
    for (const std::string& id : snapshots) repository.store().Delete(repository.layout().SnapshotsPrefix() + id);
}

}  // namespace qvhost::repo
