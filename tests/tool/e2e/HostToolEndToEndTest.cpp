// cloudplugin-host end to end: the tool as a separate process, its own JVM,
// the native plug-in, the Java storage library and Azurite. Each test uses
// a container of its own.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "LocalFiles.h"
#include "ToolRunner.h"
#include "support/TempFolder.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kPartSize = "1M";

std::string Bytes(size_t size, uint64_t seed) {
    std::mt19937_64 random(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    return bytes;
}

void WriteFile(const std::string& path, const std::string& bytes) {
    fs::create_directories(fs::u8path(path).parent_path());
    std::ofstream(fs::u8path(path), std::ios::binary) << bytes;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(fs::u8path(path), std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// The value of a JSON member in the tool's compact output ("name":value),
// up to the next ',' or '}' (strings keep their quotes).
std::string Member(const std::string& json, const std::string& name) {
    const std::string key = "\"" + name + "\":";
    const size_t at = json.find(key);
    if (at == std::string::npos) return "<missing " + name + ">";
    const size_t start = at + key.size();
    if (json[start] == '"') return json.substr(start, json.find('"', start + 1) - start + 1);
    return json.substr(start, json.find_first_of(",}]", start) - start);
}

std::string Unquoted(const std::string& text) { return text.size() >= 2 ? text.substr(1, text.size() - 2) : text; }

class HostToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        static int containers = 0;
        container_ = "e2e-" + std::to_string(getpid()) + "-" + std::to_string(++containers);
        logs_ = work_.PathUtf8() + "/logs";
    }

    // The tool with this test's container, logs and small parts, and --json.
    e2e::ToolRun Tool(std::vector<std::string> arguments) {
        std::vector<std::string> all = {"--connection", e2e::Azurite::Get().ConnectionString(container_),
                                        "--log-folder", logs_,
                                        "--part-size",  kPartSize,
                                        "--json"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return e2e::RunTool(all);
    }

    std::string Folder(const std::string& name) const { return work_.PathUtf8() + "/" + name; }

    // Empty files, nested folders, non-ASCII names, and a file of several parts.
    std::string MakeTree() {
        const std::string root = Folder("source");
        WriteFile(root + "/empty.txt", "");
        WriteFile(root + "/a/b/c/deep empty", "");
        WriteFile(root + "/a/b/c/deep.bin", Bytes(4096, 1));
        WriteFile(root + "/Grüße/文件 名.txt", "non-ASCII names survive");
        WriteFile(root + "/big/several-parts.bin", Bytes((5u << 20) / 2 + 17, 2));  // 2.5 MiB + 17: three parts
        WriteFile(root + "/exactly-one-part.bin", Bytes(1u << 20, 3));
        for (int i = 0; i < 20; ++i) WriteFile(root + "/many/file" + std::to_string(i), Bytes(100 * i, 10 + i));
        qvhost::SetModifiedNs(JoinPath(root, "a/b/c/deep.bin"), 1234567890123456789);
        return root;
    }

    std::string Backup(const std::string& source) {
        const e2e::ToolRun run = Tool({"backup", source});
        EXPECT_EQ(run.status, 0) << run.err;
        return Unquoted(Member(run.out, "backup"));
    }

    static std::string JoinPath(const std::string& root, const std::string& relative) {
        return qvhost::JoinPath(root, relative);
    }

    void ExpectSameTree(const std::string& expected, const std::string& actual) {
        const auto want = qvhost::ListTree(expected);
        const auto got = qvhost::ListTree(actual);
        ASSERT_EQ(got.size(), want.size());
        for (size_t i = 0; i < want.size(); ++i) {
            EXPECT_EQ(got[i].relativePath, want[i].relativePath);
            EXPECT_EQ(got[i].size, want[i].size) << want[i].relativePath;
            EXPECT_EQ(got[i].modifiedNs, want[i].modifiedNs) << want[i].relativePath;
            EXPECT_TRUE(ReadFile(JoinPath(actual, got[i].relativePath)) ==
                        ReadFile(JoinPath(expected, want[i].relativePath)))
                << want[i].relativePath;
        }
    }

    testsupport::TempFolder work_;
    std::string container_;
    std::string logs_;
};

}  // namespace

TEST_F(HostToolTest, BackupListVerifyAndRestoreReproduceTheTree) {
    const std::string source = MakeTree();
    const e2e::ToolRun backup = Tool({"backup", source});
    ASSERT_EQ(backup.status, 0) << backup.err;
    EXPECT_EQ(Member(backup.out, "files"), "26");
    // One object per started MiB of every non-empty file: 3 for the large
    // file, 1 each for the other 22 non-empty ones.
    EXPECT_EQ(Member(backup.out, "objects"), "25");
    const std::string id = Unquoted(Member(backup.out, "backup"));

    const e2e::ToolRun list = Tool({"list"});
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(Member(list.out, "backup"), "\"" + id + "\"");
    EXPECT_EQ(Member(list.out, "files"), "26");
    EXPECT_EQ(Member(list.out, "bytes"), Member(backup.out, "bytes"));

    const e2e::ToolRun verify = Tool({"verify", id});
    EXPECT_EQ(verify.status, 0) << verify.err;
    EXPECT_EQ(Member(verify.out, "ok"), "true");

    const e2e::ToolRun restore = Tool({"restore", id, Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    EXPECT_NE(restore.out.find("\"damaged\":[]"), std::string::npos) << restore.out;
    ExpectSameTree(source, Folder("restored"));
}

TEST_F(HostToolTest, OneJobAndManyJobsStoreTheSameTree) {
    const std::string source = MakeTree();
    for (const char* jobs : {"1", "8"}) {
        const e2e::ToolRun backup = Tool({"--jobs", jobs, "backup", source});
        ASSERT_EQ(backup.status, 0) << backup.err;
        const std::string id = Unquoted(Member(backup.out, "backup"));
        const std::string target = Folder(std::string("restored-") + jobs);
        const e2e::ToolRun restore = Tool({"--jobs", jobs, "restore", id, target});
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
    const e2e::ToolRun put = Tool({"object", "put", object, Folder("other")});
    ASSERT_EQ(put.status, 0) << put.err;

    const e2e::ToolRun verify = Tool({"verify", id});
    EXPECT_EQ(verify.status, 1) << verify.err;
    EXPECT_EQ(Member(verify.out, "ok"), "false");
    EXPECT_EQ(Member(verify.out, "file"), "\"big/several-parts.bin\"");
    EXPECT_EQ(Member(verify.out, "object"), "\"" + object + "\"");

    const e2e::ToolRun restore = Tool({"restore", id, Folder("restored")});
    EXPECT_EQ(restore.status, 1) << restore.err;
    EXPECT_EQ(Member(restore.out, "file"), "\"big/several-parts.bin\"");
    // The damaged file is not restored; every other file is.
    EXPECT_FALSE(fs::exists(fs::u8path(Folder("restored/big/several-parts.bin"))));
    EXPECT_FALSE(fs::exists(fs::u8path(Folder("restored/big/several-parts.bin.cloudplugin-partial"))));
    EXPECT_EQ(ReadFile(Folder("restored/exactly-one-part.bin")), Bytes(1u << 20, 3));
}

TEST_F(HostToolTest, AMissingObjectIsReportedWithThePluginsResultCode) {
    const std::string id = Backup(MakeTree());
    const std::string object = "cloudplugin-host/backups/" + id + "/000003.0002";
    ASSERT_EQ(Tool({"object", "delete", object}).status, 0);

    const e2e::ToolRun restore = Tool({"restore", id, Folder("restored")});
    EXPECT_EQ(restore.status, 3);
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
    const pid_t tool = e2e::StartTool({"--connection", e2e::Azurite::Get().ConnectionString(container_),
                                       "--log-folder", logs_, "--jobs", "1", "--name", "interrupted", "backup", root},
                                      progress);
    // Interrupt once the first files are stored (the progress lines say so).
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (ReadFile(progress).find("backup f1") == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    kill(tool, SIGINT);
    EXPECT_EQ(e2e::WaitTool(tool), 130) << ReadFile(progress);
    EXPECT_NE(ReadFile(progress).find("no manifest written"), std::string::npos) << ReadFile(progress);

    const e2e::ToolRun list = Tool({"list"});
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(list.out, "{\"command\":\"list\",\"ok\":true,\"backups\":[]}\n");
    const e2e::ToolRun verify = Tool({"verify", "interrupted"});
    EXPECT_EQ(verify.status, 6) << verify.err;
    const e2e::ToolRun objects = Tool({"object", "list", "cloudplugin-host/"});
    EXPECT_EQ(objects.out, "{\"command\":\"object list\",\"ok\":true,\"objects\":[]}\n");
}

TEST_F(HostToolTest, DeleteRemovesTheBackupAndAllItsObjects) {
    const std::string id = Backup(MakeTree());
    const e2e::ToolRun deleted = Tool({"delete", id});
    ASSERT_EQ(deleted.status, 0) << deleted.err;
    EXPECT_EQ(Member(deleted.out, "objects"), "26");  // 25 parts and the manifest
    EXPECT_EQ(Tool({"list"}).out, "{\"command\":\"list\",\"ok\":true,\"backups\":[]}\n");
    EXPECT_EQ(Tool({"object", "list", "cloudplugin-host/"}).out,
              "{\"command\":\"object list\",\"ok\":true,\"objects\":[]}\n");
    EXPECT_EQ(Tool({"delete", id}).status, 6);
}

TEST_F(HostToolTest, ABackupNameIsNotTakenTwice) {
    const std::string source = MakeTree();
    ASSERT_EQ(Tool({"--name", "nightly", "backup", source}).status, 0);
    const e2e::ToolRun again = Tool({"--name", "nightly", "backup", source});
    EXPECT_EQ(again.status, 2);
    EXPECT_NE(again.err.find("a backup named nightly exists already"), std::string::npos) << again.err;
}

TEST_F(HostToolTest, AWrongAccountKeyStopsAtInitWithThePluginsResultCode) {
    std::string connection = e2e::Azurite::Get().ConnectionString(container_);
    const size_t key = connection.find("AccountKey=") + 11;
    connection.replace(key, 4, "AAAA");
    const e2e::ToolRun run = e2e::RunTool({"--connection", connection, "--log-folder", logs_, "--json", "list"});
    EXPECT_EQ(run.status, 3) << run.err;
    EXPECT_EQ(Member(run.out, "operation"), "\"Init\"");
    EXPECT_NE(Member(run.out, "code"), "0");
}

TEST_F(HostToolTest, InfoReportsConnectivityAccountAndCapabilities) {
    const e2e::ToolRun info = Tool({"info"});
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(Member(info.out, "connectivity"), "true");
    EXPECT_EQ(Member(info.out, "account"), "\"devstoreaccount1\"");
    EXPECT_EQ(Member(info.out, "Provider"), "\"AzureBlob\"");
}

TEST_F(HostToolTest, BenchWritesAndReadsBackEveryObject) {
    const e2e::ToolRun bench = Tool({"bench", "--sizes", "64K,1M", "--threads", "1,2", "--bench-bytes", "2M"});
    ASSERT_EQ(bench.status, 0) << bench.err;
    size_t runs = 0;
    for (size_t at = bench.out.find("\"write_mib_per_s\""); at != std::string::npos;
         at = bench.out.find("\"write_mib_per_s\"", at + 1)) {
        ++runs;
    }
    EXPECT_EQ(runs, 4u);
    // The benchmark cleans up after itself.
    EXPECT_EQ(Tool({"object", "list", "cloudplugin-host/"}).out,
              "{\"command\":\"object list\",\"ok\":true,\"objects\":[]}\n");
}

TEST_F(HostToolTest, RestoreRefusesToReplaceExistingFilesUnlessTold) {
    const std::string source = MakeTree();
    const std::string id = Backup(source);
    WriteFile(Folder("restored/empty.txt"), "keep me");
    const e2e::ToolRun refused = Tool({"restore", id, Folder("restored")});
    EXPECT_EQ(refused.status, 4) << refused.err;
    EXPECT_EQ(ReadFile(Folder("restored/empty.txt")), "keep me");
    const e2e::ToolRun replaced = Tool({"--overwrite", "restore", id, Folder("restored")});
    ASSERT_EQ(replaced.status, 0) << replaced.err;
    ExpectSameTree(source, Folder("restored"));
}

TEST(HostToolCommandLine, BadCommandLinesEndWithStatusTwoBeforeAnyJvmStarts) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{}, {"frobnicate"}, {"--jobs", "0", "list"}, {"--part-size", "1X", "list"},
                                               {"--connection"}, {"--connection", "x", "restore", "only-one"}}) {
        const e2e::ToolRun run = e2e::RunTool(arguments);
        EXPECT_EQ(run.status, 2) << run.err;
        EXPECT_NE(run.err.find("cloudplugin-host"), std::string::npos);
    }
}
