// The version 2 layout's plan of work: every part of every file an item.
#include <gtest/gtest.h>

#include "legacy/PartPlan.h"

using namespace qvhost::legacy;

namespace {

TEST(PartPlan, GivesEveryPartOnceFilesOfMostPartsFirstAndEachFilesPartsTogether) {
    PartPlan plan({1, 0, 3, 2});
    std::vector<std::pair<size_t, uint64_t>> items;
    for (size_t i = 0; i < plan.size(); ++i) {
        items.push_back({plan[i].file, plan[i].hasPart ? plan[i].part : UINT64_MAX});
    }
    const std::vector<std::pair<size_t, uint64_t>> expected = {{2, 0}, {2, 1}, {2, 2}, {3, 0}, {3, 1}, {0, 0},
                                                               {1, UINT64_MAX}};  // the empty file: no part
    EXPECT_EQ(items, expected);
}

TEST(PartPlan, OnlyTheLastItemOfAFileFinishesIt) {
    PartPlan plan({3, 0});
    EXPECT_FALSE(plan.Done(0));
    EXPECT_FALSE(plan.Done(0));
    EXPECT_TRUE(plan.Done(0));
    EXPECT_TRUE(plan.Done(1));  // an empty file's one item
}

}  // namespace
