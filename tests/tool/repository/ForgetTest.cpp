// Forgetting by a policy: each group of snapshots on its own, only the
// snapshots the filter selects, grouped by what --group-by names; and the
// snapshot filter itself.
#include <gtest/gtest.h>

#include <algorithm>

#include "repository/Forget.h"
#include "util/Error.h"
#include "util/Text.h"

using namespace qvhost;
using namespace qvhost::repo;

namespace {

SnapshotInfo Info(const std::string& id, const std::string& host, const std::string& source, int64_t day,
                  std::vector<std::string> tags = {}) {
    SnapshotInfo info;
    info.id = id;
    info.host = host;
    info.paths = {source};
    info.timeNs = (day * 86400 + 43200) * 1000000000;
    info.tags = std::move(tags);
    return info;
}

// UTC, and a "now" after every snapshot of these tests.
RetentionClock Utc() {
    RetentionClock clock;
    clock.now = 400 * 86400;
    clock.civil = qvhost::UtcCivil;
    clock.moment = qvhost::UtcMoment;
    return clock;
}

std::vector<SnapshotInfo> TwoHostsThreeDays() {
    return {Info("a1", "alpha", "/data", 1), Info("a2", "alpha", "/data", 2), Info("a3", "alpha", "/data", 3),
            Info("b1", "beta", "/data", 1),  Info("b2", "beta", "/data", 2),  Info("b3", "beta", "/data", 3)};
}

RetentionPolicy KeepLast(unsigned last) {
    RetentionPolicy policy;
    policy.keepLast = last;
    return policy;
}

std::vector<std::string> Sorted(std::vector<std::string> ids) {
    std::sort(ids.begin(), ids.end());
    return ids;
}

TEST(Forget, APolicyAppliesToEachHostOnItsOwn) {
    const ForgetPlan plan = PlanForget(TwoHostsThreeDays(), KeepLast(1), {}, kGroupByHost | kGroupByPaths, Utc());
    ASSERT_EQ(plan.groups.size(), 2u);
    EXPECT_EQ(Sorted(plan.forget), (std::vector<std::string>{"a1", "a2", "b1", "b2"}));
}

TEST(Forget, AHostFilterLeavesTheOtherHostsSnapshotsAlone) {
    SnapshotFilter filter;
    filter.hosts = {"alpha"};
    const ForgetPlan plan = PlanForget(TwoHostsThreeDays(), KeepLast(1), filter, kGroupByHost | kGroupByPaths, Utc());
    ASSERT_EQ(plan.groups.size(), 1u);
    EXPECT_EQ(plan.groups[0].group.host, "alpha");
    EXPECT_EQ(Sorted(plan.forget), (std::vector<std::string>{"a1", "a2"}));
}

TEST(Forget, GroupingByNothingMakesOneGroupOfAll) {
    const ForgetPlan plan = PlanForget(TwoHostsThreeDays(), KeepLast(2), {}, 0, Utc());
    ASSERT_EQ(plan.groups.size(), 1u);
    EXPECT_EQ(plan.forget.size(), 4u);
}

TEST(Forget, GroupingByTagsKeepsEachTagSetApart) {
    const std::vector<SnapshotInfo> snapshots = {Info("d1", "h", "/p", 1, {"daily"}), Info("d2", "h", "/p", 2, {"daily"}),
                                                 Info("w1", "h", "/p", 1, {"weekly"})};
    const ForgetPlan plan = PlanForget(snapshots, KeepLast(1), {}, kGroupByTags, Utc());
    ASSERT_EQ(plan.groups.size(), 2u);
    EXPECT_EQ(plan.forget, (std::vector<std::string>{"d1"}));
}

TEST(Forget, KeepTagKeepsTaggedSnapshotsOfEachGroup) {
    const std::vector<SnapshotInfo> snapshots = {Info("a1", "alpha", "/data", 1, {"keep"}), Info("a2", "alpha", "/data", 2),
                                                 Info("a3", "alpha", "/data", 3), Info("b1", "beta", "/data", 1),
                                                 Info("b2", "beta", "/data", 2, {"keep", "x"})};
    RetentionPolicy policy = KeepLast(1);
    policy.keepTags = {{"keep"}};
    const ForgetPlan plan = PlanForget(snapshots, policy, {}, kGroupByHost | kGroupByPaths, Utc());
    EXPECT_EQ(Sorted(plan.forget), (std::vector<std::string>{"a2", "b1"}));
}

// restic's manual: forget fails when all snapshots of a group would be
// removed because none has the tags of --keep-tag.
TEST(Forget, APolicyThatWouldForgetAWholeGroupIsRefusedAndForgetsNothing) {
    RetentionPolicy policy;
    policy.keepTags = {{"keep"}};
    std::vector<SnapshotInfo> snapshots = TwoHostsThreeDays();
    snapshots[0].tags = {"keep"};  // alpha keeps one; beta none
    try {
        PlanForget(snapshots, policy, {}, kGroupByHost | kGroupByPaths, Utc());
        FAIL() << "planned";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind(), ErrorKind::Usage);
        EXPECT_NE(std::string(error.what()).find("host beta, paths /data"), std::string::npos) << error.what();
    }
    SnapshotFilter alphaOnly;
    alphaOnly.hosts = {"alpha"};
    EXPECT_EQ(Sorted(PlanForget(snapshots, policy, alphaOnly, kGroupByHost | kGroupByPaths, Utc()).forget),
              (std::vector<std::string>{"a2", "a3"}));
}

TEST(SnapshotFilter, TagsOfOneOptionAllMatchAndOptionsEither) {
    SnapshotFilter filter;
    filter.tagSets = {{"a", "b"}, {"c"}};
    EXPECT_TRUE(filter.Matches(Info("1", "h", "/p", 1, {"b", "a"})));
    EXPECT_TRUE(filter.Matches(Info("2", "h", "/p", 1, {"c"})));
    EXPECT_FALSE(filter.Matches(Info("3", "h", "/p", 1, {"a"})));
    filter = {};
    filter.paths = {"/p"};
    filter.hosts = {"h", "g"};
    EXPECT_TRUE(filter.Matches(Info("4", "g", "/p", 1)));
    EXPECT_FALSE(filter.Matches(Info("5", "g", "/q", 1)));
    EXPECT_TRUE(SnapshotFilter{}.Matches(Info("6", "x", "/y", 1)));
}

TEST(SnapshotFilter, GroupByTakesItsThreeWordsAndRefusesOthers) {
    EXPECT_EQ(ParseGroupBy("host,paths"), kGroupByHost | kGroupByPaths);
    EXPECT_EQ(ParseGroupBy("tags"), kGroupByTags);
    EXPECT_EQ(ParseGroupBy(""), 0u);
    try {
        ParseGroupBy("hosts,colour");
        FAIL() << "accepted";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind(), ErrorKind::Usage);
    }
}

}  // namespace

namespace {

std::vector<std::string> Ids(const std::vector<SnapshotInfo>& infos) {
    std::vector<std::string> ids;
    for (const SnapshotInfo& info : infos) ids.push_back(info.id);
    return ids;
}

TEST(NewestOfEachGroup, KeepsTheNewestOfEachGroupInTheirOrder) {
    const std::vector<SnapshotInfo> snapshots = {Info("a1", "a", "/x", 1), Info("b1", "b", "/x", 2),
                                                 Info("a2", "a", "/x", 3), Info("a3", "a", "/y", 4),
                                                 Info("a4", "a", "/x", 5), Info("b2", "b", "/x", 6)};
    EXPECT_EQ(Ids(NewestOfEachGroup(snapshots, 1, kGroupByHost | kGroupByPaths)),
              (std::vector<std::string>{"a3", "a4", "b2"}));
    EXPECT_EQ(Ids(NewestOfEachGroup(snapshots, 2, kGroupByHost)), (std::vector<std::string>{"b1", "a3", "a4", "b2"}));
    EXPECT_EQ(Ids(NewestOfEachGroup(snapshots, 2, 0)), (std::vector<std::string>{"a4", "b2"}));
    EXPECT_EQ(NewestOfEachGroup(snapshots, 10, 0).size(), snapshots.size());
}

}  // namespace
