// cloudplugin-host end to end: backup, list, verify, restore, delete, info
// and bench through the plug-in, the JVM, the Java library and Azurite.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "HostToolFixture.h"

using namespace e2e;

TEST_F(HostToolTest, BackupListVerifyAndRestoreReproduceTheTree) {
    const std::string source = MakeTree();
    const ToolRun backup = Writer({"backup", source, "--part-size", kPartSize});
    ASSERT_EQ(backup.status, 0) << backup.err;
    EXPECT_EQ(Member(backup.out, "files"), "26");
    // One object per started MiB of every non-empty file: 3 for the large
    // file, 1 each for the other 22 non-empty ones.
    EXPECT_EQ(Member(backup.out, "objects"), "25");
    EXPECT_EQ(Member(backup.out, "folders"), "1");
    EXPECT_EQ(Member(backup.out, "links"), "2");
    EXPECT_NE(backup.out.find("\"skipped\":[]"), std::string::npos) << backup.out;
    const std::string id = Unquoted(Member(backup.out, "backup"));

    const ToolRun list = Tool({"legacy", "list"});
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(Member(list.out, "backup"), "\"" + id + "\"");
    EXPECT_EQ(Member(list.out, "files"), "26");
    EXPECT_EQ(Member(list.out, "bytes"), Member(backup.out, "bytes"));

    const ToolRun verify = Tool({"legacy", "verify", id});
    EXPECT_EQ(verify.status, 0) << verify.err;
    EXPECT_EQ(Member(verify.out, "ok"), "true");

    const ToolRun restore = Tool({"legacy", "restore", id, Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    EXPECT_NE(restore.out.find("\"damaged\":[]"), std::string::npos) << restore.out;
    ExpectSameTree(source, Folder("restored"));
}

TEST_F(HostToolTest, OneJobAndManyJobsStoreTheSameTree) {
    const std::string source = MakeTree();
    for (const char* jobs : {"1", "8"}) {
        const ToolRun backup = Writer({"--jobs", jobs, "backup", source, "--part-size", kPartSize});
        ASSERT_EQ(backup.status, 0) << backup.err;
        const std::string id = Unquoted(Member(backup.out, "backup"));
        const std::string target = Folder(std::string("restored-") + jobs);
        const ToolRun restore = Tool({"--jobs", jobs, "legacy", "restore", id, target});
        ASSERT_EQ(restore.status, 0) << restore.err;
        ExpectSameTree(source, target);
    }
}

TEST_F(HostToolTest, ACorruptedObjectIsFoundByVerifyAndRestore) {
    const std::string source = MakeTree();
    const std::string id = Backup(source);
    // The second part of the large file (the fourth by name), replaced by
    // other bytes of the same size.
    const std::string object = "cloudplugin-host/backups/" + id + "/000003.0001";
    WriteFile(Folder("other"), Bytes(1u << 20, 99));
    const ToolRun put = Tool({"object", "put", object, Folder("other")});
    ASSERT_EQ(put.status, 0) << put.err;

    const ToolRun verify = Tool({"legacy", "verify", id});
    EXPECT_EQ(verify.status, 1) << verify.err;
    EXPECT_EQ(Member(verify.out, "ok"), "false");
    EXPECT_EQ(Member(verify.out, "file"), "\"big/several-parts.bin\"");
    EXPECT_EQ(Member(verify.out, "object"), "\"" + object + "\"");

    const ToolRun restore = Tool({"legacy", "restore", id, Folder("restored")});
    EXPECT_EQ(restore.status, 1) << restore.err;
    EXPECT_EQ(Member(restore.out, "file"), "\"big/several-parts.bin\"");
    // The damaged file is not restored; every other file is.
    EXPECT_FALSE(fs::exists(fs::u8path(Folder("restored/big/several-parts.bin"))));
    EXPECT_TRUE(fs::is_empty(fs::u8path(Folder("restored/big"))));  // no partial file left either
    EXPECT_EQ(ReadFile(Folder("restored/exactly-one-part.bin")), Bytes(1u << 20, 3));
}

TEST_F(HostToolTest, AMissingObjectIsReportedWithThePluginsResultCode) {
    const std::string id = Backup(MakeTree());
    const std::string object = "cloudplugin-host/backups/" + id + "/000003.0002";
    ASSERT_EQ(Tool({"object", "delete", object}).status, 0);

    const ToolRun restore = Tool({"legacy", "restore", id, Folder("restored")});
    EXPECT_EQ(restore.status, 8);
    EXPECT_EQ(Member(restore.out, "operation"), "\"ReadObjectByName\"");
    EXPECT_EQ(Member(restore.out, "object"), "\"" + object + "\"");
    EXPECT_EQ(Member(restore.out, "code"), "7");  // the plug-in's code for an object that does not exist
    EXPECT_NE(restore.err.find("ReadObjectByName of object '" + object + "' failed with result code 7"),
              std::string::npos)
        << restore.err;
}

TEST_F(HostToolTest, AnInterruptedBackupLeavesNoManifest) {
    const std::string root = Folder("many-files");
    for (int i = 0; i < 400; ++i) WriteFile(root + "/f" + std::to_string(i), Bytes(64 << 10, i));
    const std::string progress = Folder("progress.txt");
    const pid_t tool = StartWriter({"--connection", Azurite::Shared().ConnectionString(container_), "--log-folder",
                                    logs_, "--jobs", "1", "backup", root, "--name", "interrupted"},
                                   progress);
    // Interrupt once the first files are stored (the progress lines say so).
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (ReadFile(progress).find("backup f1") == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    kill(tool, SIGINT);
    EXPECT_EQ(WaitTool(tool), 130) << ReadFile(progress);
    EXPECT_NE(ReadFile(progress).find("no manifest written"), std::string::npos) << ReadFile(progress);

    const ToolRun list = Tool({"legacy", "list"});
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(WithoutTraffic(list.out), "{\"command\":\"legacy list\",\"ok\":true,\"backups\":[]}\n");
    const ToolRun verify = Tool({"legacy", "verify", "interrupted"});
    EXPECT_EQ(verify.status, 6) << verify.err;
    const ToolRun objects = Tool({"object", "list", "cloudplugin-host/"});
    EXPECT_EQ(WithoutTraffic(objects.out), "{\"command\":\"object list\",\"ok\":true,\"objects\":[]}\n");
}

TEST_F(HostToolTest, DeleteRemovesTheBackupAndAllItsObjects) {
    const std::string id = Backup(MakeTree());
    const ToolRun deleted = Tool({"legacy", "delete", id});
    ASSERT_EQ(deleted.status, 0) << deleted.err;
    EXPECT_EQ(Member(deleted.out, "objects"), "26");  // 25 parts and the manifest
    EXPECT_EQ(WithoutTraffic(Tool({"legacy", "list"}).out), "{\"command\":\"legacy list\",\"ok\":true,\"backups\":[]}\n");
    EXPECT_EQ(WithoutTraffic(Tool({"object", "list", "cloudplugin-host/"}).out),
              "{\"command\":\"object list\",\"ok\":true,\"objects\":[]}\n");
    EXPECT_EQ(Tool({"legacy", "delete", id}).status, 6);
}

TEST(HostToolCommandLine, AShadowCopyIsRefusedOutsideWindowsBeforeAnythingStarts) {
    const ToolRun run = RunTool({"--connection", "x", "backup", "--use-fs-snapshot", "."});
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_NE(run.err.find("cloudplugin-host backup: --use-fs-snapshot takes a Volume Shadow Copy, which only Windows has"),
              std::string::npos) << run.err;
}

TEST(HostToolCommandLine, TheToolWritesNoBackupOfTheVersion2Layout) {
    const ToolRun run = RunTool({"--connection", "x", "legacy", "backup", "."});
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_NE(run.err.find("cloudplugin-host legacy"), std::string::npos) << run.err;
    const ToolRun help = RunTool({"help", "legacy"});
    EXPECT_EQ(help.status, 0) << help.err;
    EXPECT_EQ(help.out.find("legacy backup"), std::string::npos) << help.out;
    EXPECT_NE(help.out.find("legacy migrate"), std::string::npos) << help.out;
}

TEST_F(HostToolTest, AWrongAccountKeyStopsAtInitWithThePluginsResultCode) {
    std::string connection = Azurite::Shared().ConnectionString(container_);
    const size_t key = connection.find("AccountKey=") + 11;
    connection.replace(key, 4, "AAAA");
    const ToolRun run = RunTool({"--connection", connection, "--log-folder", logs_, "--json", "legacy", "list"});
    EXPECT_EQ(run.status, 8) << run.err;
    EXPECT_EQ(Member(run.out, "operation"), "\"Init\"");
    EXPECT_NE(Member(run.out, "code"), "0");
}

TEST_F(HostToolTest, InfoReportsConnectivityAccountAndCapabilities) {
    const ToolRun info = Tool({"info"});
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(Member(info.out, "connectivity"), "true");
    EXPECT_EQ(Member(info.out, "account"), "\"devstoreaccount1\"");
    EXPECT_EQ(Member(info.out, "Provider"), "\"AzureBlob\"");
}

TEST_F(HostToolTest, BenchWritesAndReadsBackEveryObject) {
    const ToolRun bench = Tool({"bench", "--sizes", "64K,1M", "--threads", "1,2", "--bench-bytes", "2M"});
    ASSERT_EQ(bench.status, 0) << bench.err;
    size_t runs = 0;
    for (size_t at = bench.out.find("\"write_mib_per_s\""); at != std::string::npos;
         at = bench.out.find("\"write_mib_per_s\"", at + 1)) {
        ++runs;
    }
    EXPECT_EQ(runs, 4u);
    // The benchmark cleans up after itself.
    EXPECT_EQ(WithoutTraffic(Tool({"object", "list", "cloudplugin-host/"}).out),
              "{\"command\":\"object list\",\"ok\":true,\"objects\":[]}\n");
}

TEST_F(HostToolTest, RestoreRefusesToReplaceExistingFilesUnlessTold) {
    const std::string source = MakeTree();
    const std::string id = Backup(source);
    WriteFile(Folder("restored/empty.txt"), "keep me");
    const ToolRun refused = Tool({"legacy", "restore", id, Folder("restored")});
    EXPECT_EQ(refused.status, 4) << refused.err;
    EXPECT_EQ(ReadFile(Folder("restored/empty.txt")), "keep me");
    const ToolRun replaced = Tool({"legacy", "restore", id, Folder("restored"), "--overwrite"});
    ASSERT_EQ(replaced.status, 0) << replaced.err;
    ExpectSameTree(source, Folder("restored"));
}

TEST(HostToolCommandLine, BadCommandLinesEndWithStatusTwoBeforeAnyJvmStarts) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{}, {"frobnicate"}, {"--jobs", "0", "legacy", "list"},
                                               {"legacy", "restore", "only-one"}, {"--connection"},
                                               {"--connection", "x", "restore", "only-one"}}) {
        const ToolRun run = RunTool(arguments);
        EXPECT_EQ(run.status, 2) << run.err;
        EXPECT_NE(run.err.find("cloudplugin-host"), std::string::npos);
    }
}

TEST_F(HostToolTest, ABackupWithAnOlderManifestWithoutModesStillRestores) {
    const std::string root = Folder("source");
    WriteFile(root + "/a/old.txt", "from an older version");
    WriteFile(root + "/b.bin", Bytes(3u << 20, 5));
    const std::string id = Backup(root);
    // The manifest as the previous version wrote it: version 1, no modes.
    const std::string manifest = "cloudplugin-host/manifests/" + id;
    ASSERT_EQ(Tool({"object", "get", manifest, Folder("manifest")}).status, 0);
    std::istringstream lines(ReadFile(Folder("manifest")));
    std::string older;
    for (std::string line; std::getline(lines, line);) {
        if (line == "cloudplugin-host-manifest 2") line = "cloudplugin-host-manifest 1";
        if (line.compare(0, 5, "file\t") == 0) line = line.substr(0, line.rfind('\t'));
        older += line + "\n";
    }
    WriteFile(Folder("older"), older);
    ASSERT_EQ(PutManifest(manifest, Folder("older")), 0);

    const ToolRun restore = Tool({"legacy", "restore", id, Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    EXPECT_EQ(ReadFile(Folder("restored/a/old.txt")), "from an older version");
    EXPECT_EQ(ReadFile(Folder("restored/b.bin")), Bytes(3u << 20, 5));
}

TEST_F(HostToolTest, ARestoreOfAnArchivedBackupNamesTheArchivedObjectAndItsCode) {
    WriteFile(Folder("source/file"), "cold data");
    const std::string archive = Azurite::Shared().ConnectionString(container_) + ";AccessTier=Archive";
    auto tool = [&](std::vector<std::string> arguments) {
        std::vector<std::string> all = {"--connection", archive, "--log-folder", logs_, "--json"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return RunTool(all);
    };
    ASSERT_EQ(RunWriter({"--connection", archive, "--log-folder", logs_, "backup", Folder("source"), "--name", "cold"})
                  .status,
              0);
    const ToolRun restore = tool({"legacy", "restore", "cold", Folder("restored")});
    EXPECT_EQ(restore.status, 8) << restore.err;
    EXPECT_EQ(Member(restore.out, "operation"), "\"ReadObjectByName\"");
    EXPECT_EQ(Member(restore.out, "object"), "\"cloudplugin-host/manifests/cold\"");
    EXPECT_EQ(Member(restore.out, "code"), "49");  // the plug-in's code for an archived object
}

TEST_F(HostToolTest, ABackupOverTlsWithASasTokenRestoresTheTreeAndAnUntrustedCertificateIsRefused) {
    Azurite tls(QV_TOOL_TLS_DIR "/server.p12", QV_TOOL_TLS_PASSWORD);
    const std::string source = MakeTree();
    const std::string connection = tls.SasConnectionString(container_);
    // The JVM trusts the test certificate as an operator's would: a trust
    // store given by the standard JVM options.
    const std::vector<std::string> trusting = {
        "--jvm-option", std::string("-Djavax.net.ssl.trustStore=") + QV_TOOL_TLS_DIR + "/truststore.p12",
        "--jvm-option", std::string("-Djavax.net.ssl.trustStorePassword=") + QV_TOOL_TLS_PASSWORD,
        "--jvm-option", "-Djavax.net.ssl.trustStoreType=PKCS12"};
    auto with = [&](std::vector<std::string> arguments, bool trust) {
        std::vector<std::string> all = {"--connection", connection, "--log-folder", logs_, "--json"};
        if (trust) all.insert(all.end(), trusting.begin(), trusting.end());
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    };
    auto tool = [&](std::vector<std::string> arguments, bool trust) { return RunTool(with(arguments, trust)); };

    const ToolRun backup = RunWriter(with({"backup", source, "--part-size", kPartSize, "--name", "over-tls"}, true));
    ASSERT_EQ(backup.status, 0) << backup.err;
    const ToolRun restore = tool({"legacy", "restore", "over-tls", Folder("restored")}, true);
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(source, Folder("restored"));

    const ToolRun untrusted = tool({"legacy", "list"}, false);
    EXPECT_EQ(untrusted.status, 8) << untrusted.err;
    EXPECT_EQ(Member(untrusted.out, "operation"), "\"Init\"");
    EXPECT_EQ(Member(untrusted.out, "code"), "35");  // the plug-in's code for a refused TLS handshake
}

TEST_F(HostToolTest, ProgressLinesAdvancePerPartOfALargeFile) {
    const std::string source = MakeTree();
    const std::vector<std::string> common = {"--connection", Azurite::Shared().ConnectionString(container_),
                                             "--log-folder", logs_};
    auto with = [&](std::vector<std::string> command) {
        std::vector<std::string> all = common;
        all.insert(all.end(), command.begin(), command.end());
        return all;  // standard error is no terminal: a line per file and per part
    };
    const ToolRun backup = RunWriter(with({"backup", source, "--part-size", kPartSize, "--name", "lines"}));
    ASSERT_EQ(backup.status, 0) << backup.err;
    const ToolRun restore = RunTool(with({"legacy", "restore", "lines", Folder("restored")}));
    ASSERT_EQ(restore.status, 0) << restore.err;
    for (const auto& [verb, err] : {std::pair<std::string, std::string>{"backup", backup.err}, {"restore", restore.err}}) {
        for (int part = 1; part <= 3; ++part) {
            EXPECT_NE(err.find(verb + " big/several-parts.bin part " + std::to_string(part) + "/3 ("), std::string::npos)
                << err;
        }
        EXPECT_NE(err.find(verb + " big/several-parts.bin (2.5 MiB)"), std::string::npos) << err;
        EXPECT_EQ(err.find("exactly-one-part.bin part"), std::string::npos) << err;  // one part: no part lines
    }
}
