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

// Append-only: a credential that may create and write but not delete.
TEST_F(RepositoryTest, ABackupWithACredentialThatMayNotDeleteLeavesItsLockToGoStaleAndSaysSo) {
    const std::string source = Folder("src");
    WriteFile(source + "/a", RandomBytes(70000, 1));
    store_.refuseDeletes = true;
    const BackupReport first = Backup(source);
    {
        RepositoryLock held(*repository_, "backup", false, 0);
    }
    WriteFile(source + "/b", RandomBytes(70000, 2));
    const BackupReport second = Backup(source);
    EXPECT_EQ(second.snapshot.parent, first.snapshot.id);
    EXPECT_EQ(Names("repo/snapshots/").size(), 2u);
    ASSERT_EQ(Names("repo/locks/").size(), 1u) << "the lock that could not be removed";
    const std::vector<std::string> warnings = repository_->warnings();
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("may not delete"), std::string::npos) << warnings[0];
    // Once its holder is gone the lock counts for nobody: maintenance goes on.
    store_.refuseDeletes = false;
    EXPECT_NO_THROW(RepositoryLock(*repository_, "prune", true, 0, [](int64_t) { return false; }));
}

TEST_F(RepositoryTest, ForgetAndPruneWithACredentialThatMayNotDeleteStopAtOnceInOneLine) {
    store_.refuseDeletes = true;
    const size_t writes = store_.writes();
    try {
        repository_->CheckMayDelete("prune");
        FAIL() << "no refusal";
    } catch (const Error& failure) {
        EXPECT_EQ(failure.kind(), ErrorKind::Storage);
        const std::string text = failure.what();
        EXPECT_EQ(text.find('\n'), std::string::npos) << text;
        EXPECT_EQ(text.rfind("prune removes objects", 0), 0u) << text;
        EXPECT_NE(text.find("'d' permission"), std::string::npos) << text;
    }
    EXPECT_EQ(store_.writes(), writes) << "nothing written before the refusal";
    store_.refuseDeletes = false;
    EXPECT_NO_THROW(repository_->CheckMayDelete("prune"));
    EXPECT_TRUE(Names("repo/locks/").empty()) << "the question leaves nothing behind";
}

}  // namespace
}  // namespace repotest
