// Locks: shared and exclusive, stale ones, and ones that do not open.
#include <ctime>

#include "repository/RepositoryFixture.h"
#include "repository/Locks.h"

namespace repotest {
namespace {

TEST_F(RepositoryTest, AnExclusiveLockWaitsForNoOneButIsRefusedWhileOthersWork) {
    auto alive = [](int64_t) { return true; };
    {
        RepositoryLock shared(*repository_, "backup", false, 0, alive);
        RepositoryLock another(*repository_, "backup", false, 0, alive);  // shared locks share
        EXPECT_EQ(KindOf([&] { RepositoryLock(*repository_, "prune", true, 0, alive); }), ErrorKind::Locked);
        EXPECT_EQ(ListLocks(*repository_, std::time(nullptr), alive).size(), 2u);
    }
    EXPECT_TRUE(Names("repo/locks/").empty()) << "locks are removed when released";
    RepositoryLock exclusive(*repository_, "prune", true, 0, alive);
    EXPECT_EQ(KindOf([&] { RepositoryLock(*repository_, "backup", false, 0, alive); }), ErrorKind::Locked);
}

TEST_F(RepositoryTest, ALockOfADeadProcessOrTooOldIsStaleAndCountsForNobody) {
    {
        RepositoryLock held(*repository_, "backup", false, 0, [](int64_t) { return true; });
        // The same lock seen by a process that finds its holder gone.
        const std::vector<LockInfo> locks = ListLocks(*repository_, std::time(nullptr), [](int64_t) { return false; });
        ASSERT_EQ(locks.size(), 1u);
        EXPECT_TRUE(locks[0].stale);
        EXPECT_NO_THROW(RepositoryLock(*repository_, "prune", true, 0, [](int64_t) { return false; }));
        // Seen from the future, past the time a holder refreshes its lock.
        const std::vector<LockInfo> later =
            ListLocks(*repository_, std::time(nullptr) + kLockStaleSeconds + 1, [](int64_t) { return true; });
        EXPECT_TRUE(later[0].stale);
        const std::vector<LockInfo> now = ListLocks(*repository_, std::time(nullptr), [](int64_t) { return true; });
        EXPECT_FALSE(now[0].stale);
    }
}

TEST_F(RepositoryTest, ALockThatDoesNotOpenCountsAsHeld) {
    store_.Write("repo/locks/" + std::string(32, 'a'), reinterpret_cast<const uint8_t*>("garbage"), 7);
    EXPECT_EQ(KindOf([&] { RepositoryLock(*repository_, "backup", false, 0); }), ErrorKind::Locked);
}

}  // namespace
}  // namespace repotest
