// The command line as a user meets it: options belong to their commands,
// help describes one command, a dry run stores nothing, filters filter,
// short options work, and nothing guesses which layout an argument means.
#include <algorithm>

#include "HostToolFixture.h"

namespace e2e {
namespace {

class CommandLineTest : public RepositoryHostToolTest {
protected:
    void SetUp() override {
        RepositoryHostToolTest::SetUp();
        source_ = Folder("source");
        WriteFile(source_ + "/a.txt", "alpha");
        WriteFile(source_ + "/b.bin", Bytes(300000, 7));
    }

    std::vector<std::string> SnapshotIds(const std::vector<std::string>& filter = {}) {
        std::vector<std::string> arguments = {"snapshots"};
        arguments.insert(arguments.end(), filter.begin(), filter.end());
        const ToolRun run = Repo(arguments);
        EXPECT_EQ(run.status, 0) << run.err;
        std::vector<std::string> ids;
        const std::string key = "\"snapshot\":\"";
        for (size_t at = run.out.find(key); at != std::string::npos; at = run.out.find(key, at + 1)) {
            ids.push_back(run.out.substr(at + key.size(), 64));
        }
        return ids;
    }

    std::string BackupAs(const std::string& host, const std::string& tag) {
        return BackupSnapshot(source_, {"--host", host, "--tag", tag});
    }

    std::string source_;
};

TEST_F(CommandLineTest, AnOptionTheCommandDoesNotTakeIsRefusedInOneLineBeforeAnythingRuns) {
    const ToolRun run = Repo({"backup", source_, "--keep-daily", "7"});
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_EQ(LineCount(run.err), 1u) << run.err;
    EXPECT_NE(run.err.find("backup does not take the option --keep-daily"), std::string::npos) << run.err;
    EXPECT_TRUE(SnapshotIds().empty());
    // Options of other commands, before the command word too.
    EXPECT_EQ(Repo({"--overwrite", "restore", "latest", Folder("dest")}).status, 2);
    EXPECT_EQ(Repo({"snapshots", "--read-data"}).status, 2);
}

TEST_F(CommandLineTest, ADryRunReadsEverythingAndStoresNothing) {
    const ToolRun listing = Tool({"object", "list", "cloudplugin-host/"});
    const ToolRun dry = Repo({"-v", "backup", "-n", source_});
    ASSERT_EQ(dry.status, 0) << dry.err;
    EXPECT_EQ(Member(dry.out, "dry_run"), "true");
    EXPECT_EQ(Member(dry.out, "files_new"), "2");
    EXPECT_NE(dry.out.find("\"would_read\":[\"a.txt\",\"b.bin\"]"), std::string::npos) << dry.out;
    EXPECT_TRUE(SnapshotIds().empty());
    EXPECT_EQ(Tool({"object", "list", "cloudplugin-host/"}).out, listing.out) << "not an object more";
    // Without --json, -v names what would be read.
    const ToolRun text = RunTool({"--connection", Azurite::Shared().ConnectionString(container_), "--log-folder", logs_,
                                  "--password-file", passwordFile_, "backup", "--dry-run", "-v", source_});
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("would read b.bin"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("dry run, nothing stored"), std::string::npos) << text.out;
}

TEST_F(CommandLineTest, SnapshotsAndRestoreLatestFollowTheHostTagAndPathFilters) {
    const std::string alpha = BackupAs("alpha", "daily");
    const std::string beta = BackupAs("beta", "weekly");
    EXPECT_EQ(SnapshotIds({"--host", "alpha"}), std::vector<std::string>{alpha});
    EXPECT_EQ(SnapshotIds({"--tag", "weekly"}), std::vector<std::string>{beta});
    EXPECT_EQ(SnapshotIds({"--tag", "daily,weekly"}), std::vector<std::string>{});
    EXPECT_EQ(SnapshotIds({"--tag", "daily", "--tag", "weekly"}).size(), 2u);
    EXPECT_EQ(SnapshotIds({"--path", "/elsewhere"}), std::vector<std::string>{});
    EXPECT_EQ(SnapshotIds({"--path", qvhost::AbsolutePath(source_)}).size(), 2u);
    const ToolRun restore = Repo({"restore", "latest", Folder("restored"), "--host", "alpha"});
    ASSERT_EQ(restore.status, 0) << restore.err;
    EXPECT_EQ(Member(restore.out, "snapshot"), "\"" + alpha + "\"");
    EXPECT_EQ(Repo({"restore", "latest", Folder("none"), "--host", "gamma"}).status, 6);
}

TEST_F(CommandLineTest, ForgetWithAHostFilterLeavesTheOtherHostsAlone) {
    BackupAs("alpha", "t");
    const std::string alphaNewest = BackupAs("alpha", "t");
    BackupAs("beta", "t");
    BackupAs("beta", "t");
    const ToolRun forget = Repo({"forget", "--host", "alpha", "--keep-last", "1"});
    ASSERT_EQ(forget.status, 0) << forget.err;
    EXPECT_EQ(SnapshotIds({"--host", "alpha"}), std::vector<std::string>{alphaNewest});
    EXPECT_EQ(SnapshotIds({"--host", "beta"}).size(), 2u);
    // Grouped by nothing, one policy over every host.
    ASSERT_EQ(Repo({"forget", "--keep-last", "1", "--group-by", ""}).status, 0);
    EXPECT_EQ(SnapshotIds().size(), 1u);
}

TEST_F(CommandLineTest, ARestoreNeverTakesAVersion2BackupForASnapshot) {
    const ToolRun legacy = Writer({"backup", source_, "--name", "cafe1234"});
    ASSERT_EQ(legacy.status, 0) << legacy.err;
    const ToolRun restore = Repo({"restore", "cafe1234", Folder("restored")});
    EXPECT_EQ(restore.status, 6) << restore.err;  // no snapshot of that name; the backup is 'legacy restore''s
    EXPECT_FALSE(fs::exists(Folder("restored")));
    EXPECT_EQ(Tool({"legacy", "restore", "cafe1234", Folder("restored")}).status, 0);
}

TEST_F(CommandLineTest, TheShortOptionsUsersExpectWork) {
    const ToolRun quiet = RunTool({"--connection", Azurite::Shared().ConnectionString(container_), "--log-folder",
                                   logs_, "--password-file", passwordFile_, "-q", "backup", source_});
    ASSERT_EQ(quiet.status, 0) << quiet.err;
    EXPECT_EQ(quiet.out, "");
    const ToolRun other = Tool({"-r", "elsewhere", "snapshots"});
    EXPECT_EQ(other.status, 10) << other.err;  // no repository under that prefix (restic's 10)
    EXPECT_NE(other.err.find("make one with 'cloudplugin-host init'"), std::string::npos) << other.err;
    EXPECT_EQ(Repo({"-j", "2", "backup", "-n", source_}).status, 0);
}

TEST_F(CommandLineTest, AllNoLongerMeansTwoThings) {
    EXPECT_EQ(Repo({"unlock", "--all"}).status, 2);
    EXPECT_EQ(Tool({"legacy", "list", "--all"}).status, 2);
    EXPECT_EQ(Repo({"unlock", "--remove-all"}).status, 0);
    EXPECT_EQ(Tool({"legacy", "list", "--incomplete"}).status, 0);
}

// Help and the version need no storage and no JVM.
TEST(CommandLineHelp, EachCommandsHelpDescribesThatCommandAlone) {
    const ToolRun backup = RunTool({"backup", "--help"});
    EXPECT_EQ(backup.status, 0) << backup.err;
    EXPECT_EQ(backup.out.rfind("usage: cloudplugin-host backup [options] [PATH...]", 0), 0u) << backup.out;
    EXPECT_NE(backup.out.find("--dry-run"), std::string::npos);
    EXPECT_EQ(backup.out.find("--keep-daily"), std::string::npos);
    EXPECT_EQ(RunTool({"help", "backup"}).out, backup.out);
    EXPECT_EQ(RunTool({"-h", "legacy", "restore"}).out, RunTool({"legacy", "restore", "--help"}).out);
    const ToolRun overview = RunTool({"--help"});
    EXPECT_NE(overview.out.find("legacy restore"), std::string::npos);
    EXPECT_NE(overview.out.find("exit status:"), std::string::npos);
    EXPECT_NE(overview.out.size(), backup.out.size());
}

TEST(CommandLineHelp, VersionNamesTheToolTheLibrariesAndTheRepositoryFormat) {
    const ToolRun version = RunTool({"--version"});
    EXPECT_EQ(version.status, 0) << version.err;
    EXPECT_EQ(version.out.rfind("cloudplugin-host 1.", 0), 0u) << version.out;
    EXPECT_NE(version.out.find("repository format 1"), std::string::npos) << version.out;
    EXPECT_NE(version.out.find("Java storage library"), std::string::npos) << version.out;
}

TEST(CommandLineHelp, GenerateWritesTheManPageAndTheCompletions) {
    testsupport::TempFolder work;
    const std::string man = work.PathUtf8() + "/cloudplugin-host.1";
    const std::string bash = work.PathUtf8() + "/cloudplugin-host.bash";
    const ToolRun run = RunTool({"generate", "--man", man, "--bash-completion", bash});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(ReadFile(man).find(".SS \"backup\""), std::string::npos);
    EXPECT_NE(ReadFile(bash).find("complete -F _cloudplugin_host cloudplugin-host"), std::string::npos);
}

}  // namespace
}  // namespace e2e
