// What a backup that did not finish leaves behind, and how the tool fails
// when the storage service goes away: a version 2 backup killed with kill -9
// leaves parts without a manifest, which `legacy list --incomplete` shows
// and `legacy prune` removes; a stopped service ends a backup with exit 8
// and a few clear lines, not a flood.
#include <signal.h>

#include <chrono>
#include <thread>

#include "HostToolFixture.h"

using namespace e2e;

namespace {

size_t Count(const std::string& text, const std::string& what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
    return count;
}

}  // namespace

TEST_F(HostToolTest, AKilledBackupIsListedByListAllAndRemovedByPrune) {
    const std::string root = Folder("many-files");
    for (int i = 0; i < 400; ++i) WriteFile(root + "/f" + std::to_string(i), Bytes(64 << 10, i));
    const std::string progress = Folder("progress.txt");
    const pid_t tool = StartWriter({"--connection", Azurite::Shared().ConnectionString(container_), "--log-folder",
                                    logs_, "--jobs", "1", "backup", root, "--name", "killed"},
                                   progress);
    ASSERT_TRUE(WaitFor([&] { return ReadFile(progress).find("backup f12") != std::string::npos; }))
        << ReadFile(progress);
    kill(tool, SIGKILL);
    EXPECT_EQ(WaitTool(tool), 128 + SIGKILL);

    // Not a backup for `list`, an incomplete one for `list --all`.
    EXPECT_EQ(WithoutTraffic(Tool({"legacy", "list"}).out), "{\"command\":\"legacy list\",\"ok\":true,\"backups\":[]}\n");
    const ToolRun all = Tool({"legacy", "list", "--incomplete"});
    ASSERT_EQ(all.status, 0) << all.err;
    const size_t at = all.out.find("\"incomplete\":[{\"backup\":\"killed\"");
    ASSERT_NE(at, std::string::npos) << all.out;
    const int parts = std::stoi(Member(all.out.substr(at), "parts"));
    EXPECT_GE(parts, 12);
    EXPECT_EQ(Member(all.out.substr(at), "bytes"), std::to_string(uint64_t(parts) * (64 << 10)));
    EXPECT_EQ(Member(all.out.substr(at), "newest_part").size(), 22u) << all.out;  // "YYYY-MM-DDTHH:MM:SSZ"

    // Younger than the default 24 hours: a backup that may still be running
    // elsewhere is left alone.
    const ToolRun young = Tool({"legacy", "prune"});
    ASSERT_EQ(young.status, 0) << young.err;
    EXPECT_EQ(Member(young.out, "removed"), "[");
    EXPECT_NE(young.out.find("\"kept\":[{\"backup\":\"killed\""), std::string::npos) << young.out;

    const ToolRun pruned = Tool({"legacy", "prune", "--older-than", "0"});
    ASSERT_EQ(pruned.status, 0) << pruned.err;
    EXPECT_NE(pruned.out.find("\"removed\":[{\"backup\":\"killed\",\"parts\":" + std::to_string(parts)),
              std::string::npos) << pruned.out;
    EXPECT_EQ(Member(pruned.out, "objects"), std::to_string(parts));
    EXPECT_EQ(WithoutTraffic(Tool({"object", "list", "cloudplugin-host/"}).out),
              "{\"command\":\"object list\",\"ok\":true,\"objects\":[]}\n");
}

TEST_F(HostToolTest, PruneLeavesCompleteBackupsAlone) {
    WriteFile(Folder("source/file"), "kept");
    const std::string id = Backup(Folder("source"));
    const ToolRun pruned = Tool({"legacy", "prune", "--older-than", "0"});
    ASSERT_EQ(pruned.status, 0) << pruned.err;
    EXPECT_EQ(Member(pruned.out, "objects"), "0");
    EXPECT_EQ(Tool({"legacy", "verify", id}).status, 0);
}

TEST_F(HostToolTest, AStoppedStorageServiceEndsABackupWithStatusEightAndFewLines) {
    Azurite own;  // this test stops it
    const std::string root = Folder("source");
    for (int i = 0; i < 200; ++i) WriteFile(root + "/f" + std::to_string(i), Bytes(1 << 20, i));
    WriteFile(Folder("password"), "a test's secret\n");
    auto with = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--connection", own.ConnectionString(container_), "--log-folder", logs_,
                                             "--no-cache", "--password-file", Folder("password")});
        return arguments;
    };
    const ToolRun init = RunTool(with({"init", "--kdf-memory", "1M", "--pack-size", "1M"}));
    ASSERT_EQ(init.status, 0) << init.err;
    const std::string errors = Folder("stderr.txt");
    const pid_t tool = StartTool(with({"--quiet", "--jobs", "2", "backup", root}), errors);
    // Stop the service once packs are being stored.
    ASSERT_TRUE(WaitFor([&] {
        const ToolRun list = ToolOn(own, {"object", "list", "cloudplugin-host/data/"});
        return Count(list.out, "\"name\"") >= 8;
    }));
    own.Kill();
    EXPECT_EQ(WaitTool(tool), 8);
    const std::string err = ReadFile(errors);
    EXPECT_LE(LineCount(err), 10u) << err;
    EXPECT_EQ(Count(err, "java.util.logging"), 0u) << err;
    EXPECT_EQ(Count(err, "WARNING:"), 0u) << err;
    // The last line names the operation, the object and the code.
    const std::string last = err.substr(err.rfind('\n', err.size() - 2) + 1);
    EXPECT_NE(last.find("cloudplugin-host backup: the plug-in's "), std::string::npos) << err;
    EXPECT_NE(last.find("of object 'cloudplugin-host/"), std::string::npos) << err;
    EXPECT_NE(last.find("failed with result code"), std::string::npos) << err;
    // The Java library's log went to its file in the log folder.
    EXPECT_TRUE(fs::exists(logs_ + "/XNAzurePlugIn.log"));
}
