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
        {ErrorKind::Usage, 2},       {ErrorKind::Damaged, 1},       {ErrorKind::NotFound, 6},
        {ErrorKind::WrongPassword, 7}, {ErrorKind::Locked, 8},      {ErrorKind::NoRepository, 9},
        {ErrorKind::Unsupported, 9}, {ErrorKind::Exists, 2},        {ErrorKind::LocalFile, 4},
        {ErrorKind::Storage, 3},     {ErrorKind::ObjectMissing, 1}, {ErrorKind::Archived, 3},
        {ErrorKind::SetUp, 5},       {ErrorKind::Interrupted, 130},
    };
    for (const auto& [kind, status] : expected) {
        EXPECT_EQ(ExitFor(Error(kind, "x")).status, status) << static_cast<int>(kind);
    }
}

TEST(ExitStatus, TheTableNamesEveryStatusOnce) {
    std::set<int> seen;
    for (const auto& [status, meaning] : ExitStatusTable()) {
        EXPECT_TRUE(seen.insert(status).second) << status;
        EXPECT_FALSE(meaning.empty());
    }
    for (int status : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 130}) EXPECT_EQ(seen.count(status), 1u) << status;
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
