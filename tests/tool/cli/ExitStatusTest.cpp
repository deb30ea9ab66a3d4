// From a failure to an exit status, a hint and a --json document: one
// table, and the hints that name what to do.
#include <gtest/gtest.h>

#include <set>

#include "cli/ExitStatus.h"
#include "host/PluginSession.h"

using namespace qvhost;

namespace {

TEST(ExitStatus, EveryKindOfFailureHasItsStatus) {
    const std::pair<ErrorKind, int> expected[] = {
        {ErrorKind::Usage, 2},          {ErrorKind::Damaged, 1},     {ErrorKind::NotFound, 6},
        {ErrorKind::WrongPassword, 12}, {ErrorKind::Locked, 11},     {ErrorKind::NoRepository, 10},
        {ErrorKind::Unsupported, 9},    {ErrorKind::Exists, 2},      {ErrorKind::LocalFile, 4},
        {ErrorKind::Storage, 8},        {ErrorKind::ObjectMissing, 1}, {ErrorKind::Archived, 8},
        {ErrorKind::SetUp, 5},          {ErrorKind::Interrupted, 130}, {ErrorKind::SourceFailed, 1},
    };
    for (const auto& [kind, status] : expected) {
        EXPECT_EQ(ExitFor(Error(kind, "x")).status, status) << static_cast<int>(kind);
    }
}

// restic's documented table ("Exit codes" in its manual): 0 done, 1 the
// command failed, 3 a backup that could not read some source data, 10 no
// repository, 11 the lock failed, 12 a wrong password, 130 interrupted.
TEST(ExitStatus, TheNumbersResticDefinesMeanHereWhatTheyMeanForRestic) {
    EXPECT_EQ(kExitOk, 0);
    EXPECT_EQ(kExitFailed, 1);
    EXPECT_EQ(ExitFor(Error(ErrorKind::Damaged, "x")).status, 1);
    EXPECT_EQ(kExitIncomplete, 3);
    EXPECT_EQ(ExitFor(Error(ErrorKind::NoRepository, "x")).status, 10);
    EXPECT_EQ(ExitFor(Error(ErrorKind::Locked, "x")).status, 11);
    EXPECT_EQ(ExitFor(Error(ErrorKind::WrongPassword, "x")).status, 12);
    EXPECT_EQ(ExitFor(Error(ErrorKind::Interrupted, "x")).status, 130);
}

TEST(ExitStatus, NoFailureOfOurOwnTakesANumberResticGivesAnotherMeaning) {
    // restic's numbers other than 1, whose meaning ("failed") covers any failure.
    const std::set<int> restics = {0, 3, 10, 11, 12, 130};
    for (ErrorKind kind : {ErrorKind::Storage, ErrorKind::Archived, ErrorKind::LocalFile, ErrorKind::SetUp,
                           ErrorKind::NotFound, ErrorKind::Unsupported}) {
        const int status = ExitFor(Error(kind, "x")).status;
        EXPECT_EQ(restics.count(status), 0u) << static_cast<int>(kind) << " -> " << status;
        EXPECT_NE(status, 1) << "a failure of a kind of its own has a number of its own";
    }
    // A storage failure was 3 before restic's meaning took that number; and 7,
    // the old number of a wrong password, is not given a new meaning.
    EXPECT_EQ(ExitFor(Error(ErrorKind::Storage, "x")).status, kExitStorage);
    for (const auto& [status, meaning] : ExitStatusTable()) EXPECT_NE(status, 7) << meaning;
}

TEST(ExitStatus, TheTableNamesEveryStatusOnce) {
    std::set<int> seen;
    for (const auto& [status, meaning] : ExitStatusTable()) {
        EXPECT_TRUE(seen.insert(status).second) << status;
        EXPECT_FALSE(meaning.empty());
    }
    EXPECT_EQ(seen, (std::set<int>{0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 130}));
    // Every status a kind of failure maps to is in the table help prints.
    for (ErrorKind kind : {ErrorKind::Usage, ErrorKind::Damaged, ErrorKind::NotFound, ErrorKind::WrongPassword,
                           ErrorKind::Locked, ErrorKind::NoRepository, ErrorKind::Unsupported, ErrorKind::Exists,
                           ErrorKind::LocalFile, ErrorKind::Storage, ErrorKind::ObjectMissing, ErrorKind::Archived,
                           ErrorKind::SetUp, ErrorKind::Interrupted, ErrorKind::SourceFailed}) {
        EXPECT_EQ(seen.count(ExitFor(Error(kind, "x")).status), 1u) << static_cast<int>(kind);
    }
}

TEST(ExitStatus, HintsSayWhatToDoAndNameTheCommand) {
    EXPECT_NE(ExitFor(Error(ErrorKind::NoRepository, "no repository")).hint.find("cloudplugin-host init"),
              std::string::npos);
    EXPECT_NE(ExitFor(Error(ErrorKind::Locked, "locked")).hint.find("unlock"), std::string::npos);
    EXPECT_NE(ExitFor(Error(ErrorKind::Usage, "bad"), "backup").hint.find("'cloudplugin-host backup --help'"),
              std::string::npos);
    const std::string restore = ExitFor(Error(ErrorKind::Archived, "archived"), "restore", "latest:docs").hint;
    EXPECT_NE(restore.find("'cloudplugin-host rehydrate latest'"), std::string::npos) << restore;
    const std::string legacy = ExitFor(Error(ErrorKind::Archived, "archived"), "legacy restore", "nightly").hint;
    EXPECT_NE(legacy.find("'cloudplugin-host legacy rehydrate nightly'"), std::string::npos) << legacy;
    EXPECT_TRUE(ExitFor(Error(ErrorKind::Damaged, "damaged")).hint.empty());
}

TEST(ExitStatus, AnArchivedObjectIsAFailureOfItsOwnKind) {
    EXPECT_EQ(PluginError("ReadObjectByName", "o", 49).kind(), ErrorKind::Archived);
    EXPECT_EQ(PluginError("ReadObjectByName", "o", 7).kind(), ErrorKind::Storage);
}

TEST(ExitStatus, TheJsonOfAFailureNamesItsKindAndObject) {
    const Json json = ErrorJson(Error(ErrorKind::ObjectMissing, "gone", "repo/data/ab"), 1);
    EXPECT_EQ(JsonText(json), "{\"status\":1,\"message\":\"gone\",\"kind\":\"object_missing\",\"object\":\"repo/data/ab\"}");
}

}  // namespace
