// The fixture of the tool's end-to-end suites: the tool as a separate
// process, its own JVM, the native plug-in, the Java storage library and
// Azurite. Each test uses a container of its own.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "local/LocalFiles.h"
#include "util/Sha256.h"
#include "ToolRunner.h"
#include "support/TempFolder.h"

namespace e2e {

namespace fs = std::filesystem;

constexpr const char* kPartSize = "1M";

// Waits until `done` answers true (asking every 50 ms) or `seconds` have
// passed; answers whether it did.
inline bool WaitFor(const std::function<bool()>& done, int seconds = 120) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

inline std::string Bytes(size_t size, uint64_t seed) {
    std::mt19937_64 random(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    return bytes;
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
    fs::create_directories(fs::u8path(path).parent_path());
    std::ofstream(fs::u8path(path), std::ios::binary) << bytes;
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(fs::u8path(path), std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// The value of a JSON member in the tool's compact output ("name":value),
// up to the next ',' or '}' (strings keep their quotes).
inline std::string Member(const std::string& json, const std::string& name) {
    const std::string key = "\"" + name + "\":";
    const size_t at = json.find(key);
    if (at == std::string::npos) return "<missing " + name + ">";
    const size_t start = at + key.size();
    if (json[start] == '"') return json.substr(start, json.find('"', start + 1) - start + 1);
    return json.substr(start, json.find_first_of(",}]", start) - start);
}

// The --json document without its "storage_traffic" member (what the
// command asked of the storage, which retries and the cache vary).
inline std::string WithoutTraffic(const std::string& json) {
    const std::string key = ",\"storage_traffic\":{";
    const size_t at = json.find(key);
    if (at == std::string::npos) return json;
    size_t depth = 0;
    for (size_t i = at + key.size() - 1; i < json.size(); ++i) {
        if (json[i] == '{') ++depth;
        if (json[i] == '}' && --depth == 0) return json.substr(0, at) + json.substr(i + 1);
    }
    return json;
}

inline std::string Unquoted(const std::string& text) {
    return text.size() >= 2 ? text.substr(1, text.size() - 2) : text;
}

inline size_t LineCount(const std::string& text) {
    size_t lines = 0;
    for (char c : text) lines += c == '\n' ? 1 : 0;
    return lines;
}

class HostToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The test run's Azurite outlives this process, and process ids come
        // round again within a run: a random part keeps each test's
        // container its own.
        static int containers = 0;
        static const unsigned salt = std::random_device{}();
        char random[9];
        std::snprintf(random, sizeof random, "%08x", salt);
        container_ = "e2e-" + std::to_string(getpid()) + "-" + std::to_string(++containers) + "-" + random;
        logs_ = work_.PathUtf8() + "/logs";
    }

    // The tool with this test's container and logs, and --json.
    ToolRun Tool(std::vector<std::string> arguments) { return ToolOn(Azurite::Shared(), std::move(arguments)); }
    ToolRun ToolOn(const Azurite& azurite, std::vector<std::string> arguments) {
        return RunTool(WithTestOptions(azurite, std::move(arguments)));
    }
    // version2-writer (a backup of the version 2 layout) the same way.
    ToolRun Writer(std::vector<std::string> arguments) {
        return RunWriter(WithTestOptions(Azurite::Shared(), std::move(arguments)));
    }
    std::vector<std::string> WithTestOptions(const Azurite& azurite, std::vector<std::string> arguments) const {
        std::vector<std::string> all = {"--connection", azurite.ConnectionString(container_), "--log-folder", logs_,
                                        "--cache-dir", CacheFolder(), "--json"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }

    std::string Folder(const std::string& name) const { return work_.PathUtf8() + "/" + name; }
    // The test's own local cache (a command given --no-cache uses none).
    std::string CacheFolder() const { return Folder("cache"); }

    // Writes the file as the manifest `name` through the plug-in, with the
    // metadata the tool checks it by (its SHA-256): what anyone who can
    // write to the container can do. Answers the tool's exit status.
    int PutManifest(const std::string& name, const std::string& file) {
        const std::string text = ReadFile(file);
        const std::string hash = qvhost::ToHex(qvhost::Sha256Of(text.data(), text.size()));
        const ToolRun put = Tool({"object", "put", name, file, "--metadata", "manifest_sha256=" + hash});
        EXPECT_EQ(put.status, 0) << put.err;
        return put.status;
    }

    // Empty files, nested folders, non-ASCII names, a file of several parts,
    // mode bits, an empty folder and links (inside and out of the tree).
    std::string MakeTree() {
        const std::string root = Folder("source");
        WriteFile(root + "/empty.txt", "");
        WriteFile(root + "/a/b/c/deep empty", "");
        WriteFile(root + "/a/b/c/deep.bin", Bytes(4096, 1));
        WriteFile(root + "/Grüße/文件 名.txt", "non-ASCII names survive");
        WriteFile(root + "/big/several-parts.bin", Bytes((5u << 20) / 2 + 17, 2));  // 2.5 MiB + 17: three parts
        WriteFile(root + "/exactly-one-part.bin", Bytes(1u << 20, 3));
        for (int i = 0; i < 20; ++i) WriteFile(root + "/many/file" + std::to_string(i), Bytes(100 * i, 10 + i));
        qvhost::SetModifiedNs(qvhost::JoinPath(root, "a/b/c/deep.bin"), 1234567890123456789);
        fs::permissions(root + "/many/file3", fs::perms(0750));
        fs::create_directories(root + "/empty folder/private");
        fs::permissions(root + "/empty folder/private", fs::perms(0700));
        fs::create_directories(root + "/links");
        fs::create_symlink("../a/b/c/deep.bin", root + "/links/to-deep");
        fs::create_symlink("/nowhere/outside the tree", root + "/links/outside");
        return root;
    }

    std::string Backup(const std::string& source) {
        const ToolRun run = Writer({"backup", source, "--part-size", kPartSize});
        EXPECT_EQ(run.status, 0) << run.err;
        return Unquoted(Member(run.out, "backup"));
    }

    // Same files (content, size, time, mode), empty folders (mode) and links
    // (target, time); nothing else, and no temporary file left behind.
    void ExpectSameTree(const std::string& expected, const std::string& actual) {
        const qvhost::SourceTree want = qvhost::ScanTree(expected);
        const qvhost::SourceTree got = qvhost::ScanTree(actual);
        ASSERT_EQ(got.files.size(), want.files.size());
        for (size_t i = 0; i < want.files.size(); ++i) {
            const std::string& path = want.files[i].relativePath;
            EXPECT_EQ(got.files[i].relativePath, path);
            EXPECT_EQ(got.files[i].size, want.files[i].size) << path;
            EXPECT_EQ(got.files[i].modifiedNs, want.files[i].modifiedNs) << path;
            EXPECT_EQ(got.files[i].mode, want.files[i].mode) << path;
            EXPECT_TRUE(ReadFile(qvhost::JoinPath(actual, path)) == ReadFile(qvhost::JoinPath(expected, path))) << path;
        }
        ASSERT_EQ(got.folders.size(), want.folders.size());
        for (size_t i = 0; i < want.folders.size(); ++i) {
            EXPECT_EQ(got.folders[i].relativePath, want.folders[i].relativePath);
            EXPECT_EQ(got.folders[i].mode, want.folders[i].mode) << want.folders[i].relativePath;
        }
        ASSERT_EQ(got.links.size(), want.links.size());
        for (size_t i = 0; i < want.links.size(); ++i) {
            EXPECT_EQ(got.links[i].relativePath, want.links[i].relativePath);
            EXPECT_EQ(got.links[i].linkTarget, want.links[i].linkTarget);
            EXPECT_EQ(got.links[i].modifiedNs, want.links[i].modifiedNs) << want.links[i].relativePath;
        }
        EXPECT_TRUE(got.skipped.empty());
    }

    testsupport::TempFolder work_;
    std::string container_;
    std::string logs_;
};

// A test with an encrypted repository of its own (small packs, a cheap key
// derivation) in its container.
class RepositoryHostToolTest : public HostToolTest {
protected:
    void SetUp() override {
        HostToolTest::SetUp();
        passwordFile_ = Folder("password");
        WriteFile(passwordFile_, "a test's secret\n");
        const ToolRun init = Repo({"init", "--kdf-memory", "1M", "--pack-size", "1M"});
        ASSERT_EQ(init.status, 0) << init.err;
    }

    // A repository command, with --json.
    ToolRun Repo(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--password-file", passwordFile_});
        return Tool(std::move(arguments));
    }

    // A repository command's whole command line without --json: what a
    // user reads, or the bytes dump writes.
    std::vector<std::string> PlainArguments(const std::vector<std::string>& arguments) const {
        std::vector<std::string> all = {"--connection", Azurite::Shared().ConnectionString(container_),
                                        "--log-folder", logs_, "--cache-dir", CacheFolder(),
                                        "--password-file", passwordFile_};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }
    ToolRun RepoText(const std::vector<std::string>& arguments) { return RunTool(PlainArguments(arguments)); }

    // Backs up and answers the new snapshot's id.
    std::string BackupSnapshot(const std::string& source, const std::vector<std::string>& extra = {}) {
        std::vector<std::string> arguments = {"backup", source};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        const ToolRun run = Repo(arguments);
        EXPECT_EQ(run.status, 0) << run.err;
        return Unquoted(Member(run.out, "snapshot"));
    }

    std::string passwordFile_;
};

}  // namespace e2e
