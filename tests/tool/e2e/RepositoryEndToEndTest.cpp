// The repository end to end: the tool as a user runs it, through the
// plug-in, the JVM, the Java storage library and Azurite. Incremental and
// deduplicated backups, the password, damaged and missing packs, several
// writers at once, prune beside a running backup, a backup killed outright.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include <nlohmann/json.hpp>

#include "HostToolFixture.h"

namespace e2e {

namespace {

// The names of the objects under a prefix, from `object list --json`.
std::vector<std::string> ObjectNames(const std::string& listing) {
    std::vector<std::string> names;
    const std::string key = "\"name\":\"";
    for (size_t at = listing.find(key); at != std::string::npos; at = listing.find(key, at + 1)) {
        const size_t start = at + key.size();
        names.push_back(listing.substr(start, listing.find('"', start) - start));
    }
    return names;
}

}  // namespace

class RepositoryToolTest : public RepositoryHostToolTest {
protected:
    // Backs up and answers the --json document.
    std::string BackupOk(const std::string& source) {
        const ToolRun run = Repo({"backup", source});
        EXPECT_EQ(run.status, 0) << run.err;
        return run.out;
    }

    std::vector<std::string> Packs() { return ObjectNames(Tool({"object", "list", "cloudplugin-host/data/"}).out); }

    // The packs that hold file contents. Packs are sealed, so they are told
    // from the packs of folder trees by size: every test's trees take a few
    // kilobytes, its files at least 300,000 bytes of noise.
    std::vector<std::string> DataPacks() {
        std::vector<std::string> data;
        for (const std::string& pack : Packs()) {
            EXPECT_EQ(Tool({"object", "get", pack, Folder("sized")}).status, 0);
            if (fs::file_size(Folder("sized")) > (64u << 10)) data.push_back(pack);
        }
        return data;
    }

    // Many files of random bytes: a backup that runs long enough to be
    // caught in the middle.
    std::string ManyFiles(const std::string& name, int files) {
        const std::string root = Folder(name);
        for (int i = 0; i < files; ++i) WriteFile(root + "/f" + std::to_string(i), Bytes(256 << 10, 1000 + i));
        return root;
    }

};

TEST_F(RepositoryToolTest, ASecondBackupUploadsOnlyWhatChanged) {
    const std::string source = MakeTree();
    const std::string first = BackupOk(source);
    const std::string files = Member(first, "files");
    EXPECT_EQ(Member(first, "files_new"), files);
    EXPECT_GT(std::stoull(Member(first, "bytes_added")), 3000000u);

    const std::string second = BackupOk(source);
    EXPECT_EQ(Member(second, "files_new"), "0");
    EXPECT_EQ(Member(second, "files_changed"), "0");
    EXPECT_EQ(Member(second, "files_unmodified"), files);
    EXPECT_EQ(Member(second, "bytes_processed"), "0");
    EXPECT_LT(std::stoull(Member(second, "bytes_added")), 16384u) << "a snapshot, no data";
    EXPECT_EQ(Member(second, "parent"), Member(first, "snapshot"));

    WriteFile(source + "/many/file7", "changed content");
    const std::string third = BackupOk(source);
    EXPECT_EQ(Member(third, "files_changed"), "1");
    EXPECT_EQ(std::stoi(Member(third, "files_unmodified")), std::stoi(files) - 1);
    EXPECT_EQ(Member(third, "bytes_processed"), "15");

    const ToolRun restore = Repo({"restore", "latest", Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(source, Folder("restored"));
    const ToolRun diff = Repo({"diff", Unquoted(Member(second, "snapshot")), Unquoted(Member(third, "snapshot"))});
    ASSERT_EQ(diff.status, 0) << diff.err;
    EXPECT_NE(diff.out.find("{\"change\":\"M\",\"path\":\"many/file7\""), std::string::npos) << diff.out;
    EXPECT_EQ(Member(diff.out, "modified"), "1");
}

TEST_F(RepositoryToolTest, TheSameFileUnderFourNamesIsStoredOnce) {
    const std::string content = Bytes(12 << 20, 77);
    for (const char* name : {"a.bin", "b.bin", "c/d.bin", "e.bin"}) WriteFile(Folder("source/") + name, content);
    const std::string backup = BackupOk(Folder("source"));
    EXPECT_EQ(Member(backup, "blob_bytes_new"), std::to_string(content.size()));
    EXPECT_LT(std::stoull(Member(backup, "bytes_added")), content.size() + (1u << 20));
    const ToolRun restore = Repo({"restore", Unquoted(Member(backup, "short_id")), Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    EXPECT_TRUE(ReadFile(Folder("restored/c/d.bin")) == content);
}

TEST_F(RepositoryToolTest, AWrongPasswordIsOneLineAndItsOwnExitStatus) {
    BackupOk(MakeTree());
    WriteFile(Folder("wrong"), "not the password\n");
    const ToolRun wrong = Tool({"--password-file", Folder("wrong"), "snapshots"});
    EXPECT_EQ(wrong.status, 12);
    EXPECT_EQ(LineCount(wrong.err), 1u) << wrong.err;
    EXPECT_NE(wrong.err.find("wrong password"), std::string::npos) << wrong.err;
    const ToolRun none = Tool({"restore", "latest", Folder("restored")});
    EXPECT_EQ(none.status, 12) << none.err;
    EXPECT_FALSE(fs::exists(Folder("restored")));
}

TEST_F(RepositoryToolTest, ARepositoryOfAnUnknownVersionIsRefusedInOneLine) {
    const std::vector<std::string> keys = ObjectNames(Tool({"object", "list", "cloudplugin-host/keys/"}).out);
    ASSERT_EQ(keys.size(), 1u);
    ASSERT_EQ(Tool({"object", "get", keys[0], Folder("key.json")}).status, 0);
    std::string key = ReadFile(Folder("key.json"));
    key.replace(key.find("\"format\": 1"), 11, "\"format\": 7");
    WriteFile(Folder("key.json"), key);
    ASSERT_EQ(Tool({"object", "put", keys[0], Folder("key.json")}).status, 0);
    const ToolRun refused = Repo({"snapshots"});
    EXPECT_EQ(refused.status, 9);
    EXPECT_EQ(LineCount(refused.err), 1u) << refused.err;
    EXPECT_NE(refused.err.find("format 7"), std::string::npos) << refused.err;
}

// The repository's folder in the test's cache (the one folder named by a repository id).
static std::vector<fs::path> CachedFilesUnder(const std::string& cacheRoot) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(cacheRoot)) {
        const std::string kind = entry.path().parent_path().filename().string();
        if (entry.is_regular_file() && (kind == "index" || kind == "snapshots" || kind == "trees")) {
            files.push_back(entry.path());
        }
    }
    return files;
}

TEST_F(RepositoryToolTest, TheLocalCacheIsUsedButADamagedOrForeignOneIsNeverTrusted) {
    const std::string source = MakeTree();
    BackupOk(source);
    const std::vector<fs::path> cached = CachedFilesUnder(CacheFolder());
    ASSERT_GE(cached.size(), 3u) << "the backup kept its index, snapshot and tree pack";

    // Damaged: every file changed in one byte, one cut short.
    for (const fs::path& file : cached) {
        std::string bytes = ReadFile(file.string());
        bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 0x01);
        WriteFile(file.string(), bytes);
    }
    fs::resize_file(cached.front(), 7);
    ToolRun restore = Repo({"restore", "latest", Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(source, Folder("restored"));

    // Foreign: another repository's cache put in this one's place.
    const std::string otherCache = Folder("other-cache");
    WriteFile(Folder("other/file"), Bytes(5000, 9));
    const auto onOther = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--connection", Azurite::Shared().ConnectionString(container_),
                                             "--log-folder", logs_, "--password-file", passwordFile_, "--repo",
                                             "other", "--cache-dir", otherCache});
        return RunTool(arguments).status;
    };
    ASSERT_EQ(onOther({"init", "--kdf-memory", "1M"}), 0);
    ASSERT_EQ(onOther({"backup", Folder("other")}), 0);
    for (const fs::path& file : CachedFilesUnder(otherCache)) {
        const fs::path mine = fs::path(cached.front()).parent_path().parent_path() /
                              file.parent_path().filename() / file.filename();
        fs::copy_file(file, mine, fs::copy_options::overwrite_existing);
    }
    restore = Repo({"restore", "latest", Folder("restored-again")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(source, Folder("restored-again"));
    EXPECT_EQ(CachedFilesUnder(CacheFolder()).size(), cached.size()) << "the foreign files were removed";

    // Listed, removed, and not made again under --no-cache.
    const ToolRun list = Repo({"cache"});
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(Member(list.out, "removed_caches"), "0");
    EXPECT_NE(list.out.find("\"repository\":"), std::string::npos) << list.out;
    const ToolRun removed = Repo({"cache", "--remove-all"});
    ASSERT_EQ(removed.status, 0) << removed.err;
    EXPECT_EQ(Member(removed.out, "removed_caches"), "1");
    ASSERT_EQ(Repo({"--no-cache", "ls", "latest"}).status, 0);
    EXPECT_TRUE(CachedFilesUnder(CacheFolder()).empty());
    EXPECT_EQ(Repo({"check", "--read-data"}).status, 0);
}

// The append-only set-up: backup hosts hold a SAS that may create and
// write but not delete; one maintenance host holds the full credential.
TEST_F(RepositoryToolTest, BackupsUnderASasWithoutDeleteAndMaintenanceWithTheFullCredential) {
    const std::string appendOnly = Azurite::Shared().SasConnectionString(container_, "rwlacup");
    const auto backupHost = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--connection", appendOnly, "--log-folder", logs_, "--cache-dir",
                                             Folder("backup-host-cache"), "--password-file", passwordFile_});
        return RunTool(arguments);
    };
    const std::string source = MakeTree();
    ToolRun backup = backupHost({"backup", source});
    ASSERT_EQ(backup.status, 0) << backup.err;
    EXPECT_NE(backup.err.find("may not delete"), std::string::npos) << "the lock it leaves is named: " << backup.err;
    WriteFile(source + "/many/file7", "changed content");
    backup = backupHost({"backup", source});
    ASSERT_EQ(backup.status, 0) << backup.err;
    const size_t objects = ObjectNames(Tool({"object", "list", "cloudplugin-host/"}).out).size();

    for (const std::vector<std::string>& maintenance :
         {std::vector<std::string>{"forget", "--keep-last", "1", "--prune"}, std::vector<std::string>{"prune"}}) {
        const ToolRun refused = backupHost(maintenance);
        EXPECT_EQ(refused.status, 8) << refused.err;
        EXPECT_EQ(LineCount(refused.err), 1u) << refused.err;
        EXPECT_NE(refused.err.find("'d' permission"), std::string::npos) << refused.err;
    }
    EXPECT_EQ(ObjectNames(Tool({"object", "list", "cloudplugin-host/"}).out).size(), objects)
        << "the refused commands changed nothing";

    const ToolRun forget = Repo({"forget", "--keep-last", "1", "--prune"});
    ASSERT_EQ(forget.status, 0) << forget.err;
    EXPECT_EQ(ObjectNames(Tool({"object", "list", "cloudplugin-host/snapshots/"}).out).size(), 1u);
    const ToolRun check = Repo({"check", "--read-data"});
    EXPECT_EQ(check.status, 0) << check.out << check.err;
    const ToolRun restore = backupHost({"restore", "latest", Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(source, Folder("restored"));
}

TEST_F(RepositoryToolTest, AnArchivedSnapshotIsRestoredAfterRehydratingOnlyItsOwnPacks) {
    const ToolRun set = Repo({"data-tier", "Archive"});
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(Member(set.out, "data_tier"), "\"Archive\"");
    const auto archived = [&](const std::string& pack) {
        return Tool({"object", "list", pack}).out.find("\"x-ms-access-tier\":\"Archive\"") != std::string::npos;
    };
    WriteFile(Folder("one/a.bin"), Bytes(400000, 31));
    WriteFile(Folder("one/sub/b.bin"), Bytes(300000, 32));
    const std::string first = BackupSnapshot(Folder("one"));
    const std::vector<std::string> firstPacks = Packs();
    WriteFile(Folder("two/c.bin"), Bytes(500000, 33));
    const std::string second = BackupSnapshot(Folder("two"));
    std::vector<std::string> firstData, secondData;
    size_t online = 0;
    for (const std::string& pack : Packs()) {
        const bool ofFirst = std::find(firstPacks.begin(), firstPacks.end(), pack) != firstPacks.end();
        if (!archived(pack)) ++online;
        else (ofFirst ? firstData : secondData).push_back(pack);
    }
    ASSERT_FALSE(firstData.empty());
    ASSERT_FALSE(secondData.empty());
    EXPECT_GE(online, 2u) << "each backup's tree pack stays online";
    for (const char* prefix : {"cloudplugin-host/index/", "cloudplugin-host/snapshots/", "cloudplugin-host/keys/"}) {
        for (const std::string& name : ObjectNames(Tool({"object", "list", prefix}).out)) {
            EXPECT_FALSE(archived(name)) << name;
        }
    }
    EXPECT_FALSE(archived("cloudplugin-host/config"));

    const ToolRun refused = Repo({"restore", first, Folder("refused")});
    EXPECT_EQ(refused.status, 8) << refused.err;
    EXPECT_NE(refused.err.find("rehydrate " + first), std::string::npos) << refused.err;
    const ToolRun check = Repo({"check", "--read-data"});
    EXPECT_EQ(check.status, 0) << check.out << check.err;
    EXPECT_EQ(Member(check.out, "packs_archived"), std::to_string(firstData.size() + secondData.size()));

    const ToolRun asked = Repo({"rehydrate", first});
    ASSERT_EQ(asked.status, 0) << asked.err;
    for (const std::string& pack : firstData) EXPECT_NE(asked.out.find(pack), std::string::npos) << pack;
    for (const std::string& pack : secondData) {
        EXPECT_EQ(asked.out.find(pack), std::string::npos) << "not needed by the snapshot: " << pack;
        EXPECT_TRUE(archived(pack)) << pack;
    }
    const ToolRun restore = Repo({"restore", first, Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(Folder("one"), Folder("restored"));

    // In one command: asked for, then (the emulator brings blobs back at
    // once) restored after waiting.
    const ToolRun asking = Repo({"restore", "--rehydrate", second, Folder("restored-two")});
    EXPECT_EQ(asking.status, 8) << asking.err;
    EXPECT_EQ(Member(asking.out, "rehydrating"), "true") << asking.out;
    EXPECT_NE(Member(asking.out, "next").find("or add --wait"), std::string::npos) << asking.out;
    const ToolRun waited = Repo({"restore", "--rehydrate", "--wait", "--wait-interval", "1s", second, Folder("restored-two")});
    ASSERT_EQ(waited.status, 0) << waited.err;
    ExpectSameTree(Folder("two"), Folder("restored-two"));
}

TEST_F(RepositoryToolTest, CheckAndPruneAskForTheArchivedPacksTheyMustReadAndWaitForThemWhenTold) {
    ASSERT_EQ(Repo({"data-tier", "Archive"}).status, 0);
    // Two files in one pack; the second goes with the first snapshot, so
    // that its pack is left partly used.
    WriteFile(Folder("src/keep.bin"), Bytes(300000, 51));
    WriteFile(Folder("src/drop.bin"), Bytes(300000, 52));
    BackupSnapshot(Folder("src"));
    fs::remove(Folder("src/drop.bin"));
    BackupSnapshot(Folder("src"));
    ASSERT_EQ(Repo({"forget", "--keep-last", "1"}).status, 0);

    const ToolRun skipped = Repo({"check", "--read-data"});
    ASSERT_EQ(skipped.status, 0) << skipped.err;
    const std::string archived = Member(skipped.out, "packs_archived");
    EXPECT_NE(archived, "0");
    EXPECT_NE(skipped.out.find("'check --read-data --rehydrate' all of them"), std::string::npos) << skipped.out;
    EXPECT_EQ(Repo({"check", "--rehydrate"}).status, 2) << "--rehydrate goes with --read-data";
    EXPECT_EQ(Repo({"prune", "--dry-run", "--rehydrate"}).status, 2) << "a dry run asks for nothing";

    // Not asked for: the prune keeps the pack whole.
    const ToolRun kept = Repo({"prune"});
    ASSERT_EQ(kept.status, 0) << kept.err;
    EXPECT_EQ(Member(kept.out, "packs_archived_kept"), "1") << kept.out;
    EXPECT_EQ(Member(kept.out, "packs_rewritten"), "0");
    // Asked for and waited for (the emulator brings a blob back at once:
    // the second asking finds it online), then read and rewritten; forget
    // --prune asks as prune does.
    EXPECT_EQ(Repo({"forget", "--keep-last", "1", "--rehydrate"}).status, 2) << "--rehydrate goes with --prune";
    EXPECT_EQ(Repo({"forget", "--keep-last", "1", "--prune", "--dry-run", "--rehydrate"}).status, 2);
    const ToolRun rewritten =
        Repo({"forget", "--keep-last", "1", "--prune", "--rehydrate", "--wait", "--wait-interval", "1s"});
    ASSERT_EQ(rewritten.status, 0) << rewritten.err;
    EXPECT_EQ(Member(rewritten.out, "packs_archived_kept"), "0") << rewritten.out;
    EXPECT_EQ(Member(rewritten.out, "packs_rewritten"), "1") << rewritten.out;

    // check: asks for every archived pack, waits, then reads them all.
    WriteFile(Folder("src/more.bin"), Bytes(300000, 53));
    BackupSnapshot(Folder("src"));
    const ToolRun read = Repo({"check", "--read-data", "--rehydrate", "--wait", "--wait-interval", "1s"});
    ASSERT_EQ(read.status, 0) << read.err;
    EXPECT_EQ(Member(read.out, "packs_archived"), "0") << read.out;
    EXPECT_GE(std::stoull(Member(read.out, "bytes_read")), 600000u);
    const ToolRun restore = Repo({"restore", "latest", Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(Folder("src"), Folder("restored"));

    // The packs written so far follow a change of the data tier when told.
    const ToolRun moved = Repo({"data-tier", "Cool", "--move"});
    ASSERT_EQ(moved.status, 0) << moved.err;
    size_t cool = 0;
    for (const std::string& pack : Packs()) {
        cool += Tool({"object", "list", pack}).out.find("\"x-ms-access-tier\":\"Cool\"") != std::string::npos;
    }
    EXPECT_GE(cool, 2u);
    EXPECT_EQ(Member(moved.out, "moved").find("{\"moved\":" + std::to_string(cool)), 0u) << moved.out;
    EXPECT_EQ(Repo({"data-tier", "--none", "--move"}).status, 2);
}

TEST_F(RepositoryToolTest, TheRehydrationRequestsAsSentNameOnlyTheSnapshotsArchivedPacksWithTheTierAndPriorityAsked) {
    ASSERT_EQ(Repo({"data-tier", "Archive"}).status, 0);
    WriteFile(Folder("one/a.bin"), Bytes(400000, 61));
    const std::string first = BackupSnapshot(Folder("one"));
    const std::vector<std::string> firstPacks = Packs();
    WriteFile(Folder("two/b.bin"), Bytes(400000, 62));
    BackupSnapshot(Folder("two"));
    std::vector<std::string> archivedOfFirst;
    for (const std::string& pack : firstPacks) {
        if (Tool({"object", "list", pack}).out.find("\"x-ms-access-tier\":\"Archive\"") != std::string::npos) {
            archivedOfFirst.push_back(pack);
        }
    }
    ASSERT_FALSE(archivedOfFirst.empty());

    FaultProxy proxy(Azurite::Shared(), {});
    const ToolRun asked = RunTool({"--connection", proxy.ConnectionString(container_), "--log-folder", logs_,
                                   "--cache-dir", CacheFolder(), "--password-file", passwordFile_, "--json",
                                   "rehydrate", first, "--tier", "Cool", "--priority", "High"});
    ASSERT_EQ(asked.status, 0) << asked.err;
    size_t tierRequests = 0;
    for (const std::string& line : proxy.Requests()) {
        if (line.rfind("PUT ", 0) != 0 || line.find("comp=tier") == std::string::npos) continue;
        ++tierRequests;
        EXPECT_NE(line.find(" tier=Cool priority=High"), std::string::npos) << line;
        EXPECT_TRUE(std::any_of(archivedOfFirst.begin(), archivedOfFirst.end(), [&](const std::string& pack) {
            return line.find("/" + pack + "?") != std::string::npos;
        })) << "not a pack of the snapshot's: " << line;
    }
    EXPECT_EQ(tierRequests, archivedOfFirst.size());
}

TEST_F(RepositoryToolTest, AnImmutableRepositoryAsksARetentionForEachPackAndSnapshotAndForgetAndPruneLeaveThem) {
    // Azurite does not model immutability: the proxy does, in front of it.
    FaultProxy proxy(Azurite::Shared(), {"immutability"});
    const auto held = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--connection", proxy.ConnectionString(container_), "--log-folder", logs_,
                                             "--cache-dir", CacheFolder(), "--password-file", passwordFile_, "--json",
                                             "-r", "held"});
        return RunTool(arguments);
    };
    // Straight to Azurite, which keeps nothing immutable: init says so at
    // once and leaves nothing that would make the next init refuse.
    const ToolRun unkept = Tool({"--password-file", passwordFile_, "-r", "held", "init", "--kdf-memory", "1M",
                                 "--immutable-days", "3"});
    EXPECT_NE(unkept.status, 0);
    EXPECT_NE(unkept.err.find("version-level immutability"), std::string::npos) << unkept.err;
    EXPECT_TRUE(ObjectNames(Tool({"object", "list", "held/"}).out).empty());
    const ToolRun init = held({"init", "--kdf-memory", "1M", "--immutable-days", "3"});
    ASSERT_EQ(init.status, 0) << init.err;
    EXPECT_EQ(nlohmann::json::parse(init.out).at("immutable_days"), 3);
    WriteFile(Folder("src/kept.bin"), Bytes(400000, 71));
    WriteFile(Folder("src/gone.bin"), Bytes(400000, 72));
    const ToolRun first = held({"backup", Folder("src")});
    ASSERT_EQ(first.status, 0) << first.err;
    const std::string firstId = Unquoted(Member(first.out, "snapshot"));
    fs::remove(Folder("src/gone.bin"));
    ASSERT_EQ(held({"backup", Folder("src")}).status, 0);

    // One retention asked for each pack, snapshot and the key object, none
    // for index objects, each three days on and unlocked.
    const auto listed = [&](const std::string& prefix) {
        return ObjectNames(Tool({"object", "list", prefix}).out);
    };
    std::vector<std::string> retained;
    for (const std::string& line : proxy.Requests()) {
        if (line.rfind("PUT ", 0) != 0 || line.find("comp=immutabilityPolicies") == std::string::npos) continue;
        EXPECT_NE(line.find(" mode=Unlocked"), std::string::npos) << line;
        EXPECT_NE(line.find(" until="), std::string::npos) << line;
        const size_t name = line.find("/held/");
        retained.push_back(line.substr(name + 1, line.find('?') - name - 1));
    }
    std::vector<std::string> expected;
    for (const char* prefix : {"held/data/", "held/snapshots/", "held/keys/"}) {
        for (const std::string& object : listed(prefix)) expected.push_back(object);
    }
    std::sort(retained.begin(), retained.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(retained, expected);
    EXPECT_FALSE(listed("held/index/").empty());

    // forget leaves the held snapshot and says until when.
    const ToolRun forget = held({"forget", firstId});
    ASSERT_EQ(forget.status, 0) << forget.err;
    const nlohmann::json forgot = nlohmann::json::parse(forget.out);
    EXPECT_TRUE(forgot.at("forgotten").empty());
    ASSERT_EQ(forgot.at("held").size(), 1u);
    EXPECT_EQ(forgot["held"][0]["id"], firstId);
    EXPECT_TRUE(forgot["held"][0]["until"].is_string());
    EXPECT_EQ(listed("held/snapshots/").size(), 2u);

    // With the snapshot gone by other means, prune finds the packs only it
    // used held too: it keeps them whole, deletes nothing and says so.
    ASSERT_EQ(Tool({"object", "delete", "held/snapshots/" + firstId}).status, 0);
    const std::vector<std::string> packs = listed("held/data/");
    const ToolRun prune = held({"prune"});
    ASSERT_EQ(prune.status, 0) << prune.err;
    const nlohmann::json pruned = nlohmann::json::parse(prune.out);
    EXPECT_GE(pruned.at("packs_held").get<int>(), 1);
    EXPECT_TRUE(pruned.at("held_until").is_string());
    EXPECT_EQ(pruned.at("packs_deleted"), 0);
    EXPECT_EQ(listed("held/data/"), packs);
    EXPECT_EQ(proxy.Count({"DELETE ", "/held/data/"}), 0u) << "no delete of a held pack even tried";
    // A delete of a held pack is refused as the service refuses it.
    const ToolRun refused = RunTool({"--connection", proxy.ConnectionString(container_), "--log-folder", logs_,
                                     "object", "delete", packs.front()});
    EXPECT_NE(refused.status, 0);
    EXPECT_EQ(proxy.Count({"DELETE ", "/held/data/", "fault=STATUS"}), 1u);
    EXPECT_NE(refused.err.find("retention"), std::string::npos) << refused.err;
    EXPECT_EQ(held({"check"}).status, 0);
}

TEST_F(RepositoryToolTest, CommandsCountTheirStorageRequestsAndStatsCostPricesEveryObjectByTier) {
    // Priced so that an estimate is a count: one unit a write request, a
    // hundred a GiB received; a GiB-month of Cool costs 2, of Hot 1.
    const std::string prices = Folder("prices.json");
    WriteFile(prices, R"({"currency": "XTS", "source": "a test's table",
        "per_10000_requests": {"write": 10000, "read": 0, "list": 0, "other": 0}, "per_gib_received": 100,
        "per_gib_month": {"Hot": 1, "Cool": 2, "Cold": 3, "Archive": 4}})");
    ASSERT_EQ(Repo({"data-tier", "Cool"}).status, 0);
    WriteFile(Folder("src/a.bin"), Bytes(400000, 41));
    WriteFile(Folder("src/b.bin"), Bytes(300000, 42));

    const ToolRun backup = Repo({"--prices", prices, "backup", Folder("src")});
    ASSERT_EQ(backup.status, 0) << backup.err;
    const nlohmann::json sent = nlohmann::json::parse(backup.out).at("storage_traffic");
    const uint64_t writes = sent["requests"]["write"];
    EXPECT_GE(writes, 4u) << "a data pack, a tree pack, an index, a snapshot (and a lock)";
    EXPECT_GE(sent["bytes_sent"].get<uint64_t>(), 700000u);
    EXPECT_GE(sent["requests"]["list"].get<uint64_t>(), 1u);
    EXPECT_EQ(sent["currency"], "XTS");
    EXPECT_NEAR(sent["estimated_cost"].get<double>(), static_cast<double>(writes) +
                    sent["bytes_received"].get<double>() / (1 << 30) * 100, 1e-9);

    const ToolRun restore = Repo({"restore", "latest", Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    const nlohmann::json read = nlohmann::json::parse(restore.out).at("storage_traffic");
    EXPECT_GE(read["requests"]["read"].get<uint64_t>(), 2u);
    EXPECT_GE(read["bytes_received"].get<uint64_t>(), 700000u);
    EXPECT_EQ(read["currency"], "USD") << "the default table without --prices";

    const ToolRun text = RepoText({"--prices", prices, "check"});
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("storage requests: 1 write, "), std::string::npos) << "its lock: " << text.out;
    EXPECT_NE(text.out.find("about 1.00 XTS"), std::string::npos) << text.out;
    const ToolRun listing = RepoText({"snapshots"});
    EXPECT_EQ(listing.out.find("storage requests"), std::string::npos) << "only after a summary: " << listing.out;

    const ToolRun stats = Repo({"--prices", prices, "stats", "--cost"});
    ASSERT_EQ(stats.status, 0) << stats.err;
    const nlohmann::json cost = nlohmann::json::parse(stats.out);
    const std::vector<std::string> packs = Packs();
    const size_t cool = std::count_if(packs.begin(), packs.end(), [&](const std::string& pack) {
        return Tool({"object", "list", pack}).out.find("\"x-ms-access-tier\":\"Cool\"") != std::string::npos;
    });
    ASSERT_GE(cool, 1u);
    uint64_t objects = 0;
    double total = 0;
    bool sawCool = false;
    for (const nlohmann::json& tier : cost.at("storage_by_tier")) {
        objects += tier["objects"].get<uint64_t>();
        total += tier["monthly_cost"].get<double>();
        const double perGiB = tier["tier"] == "Cool" ? 2 : 1;
        EXPECT_NEAR(tier["monthly_cost"].get<double>(), tier["bytes"].get<double>() / (1 << 30) * perGiB, 1e-12);
        if (tier["tier"] != "Cool") continue;
        sawCool = true;
        EXPECT_EQ(tier["objects"].get<size_t>(), cool);
        EXPECT_GE(tier["bytes"].get<uint64_t>(), 700000u);
    }
    EXPECT_TRUE(sawCool) << stats.out;
    EXPECT_EQ(objects, ObjectNames(Tool({"object", "list", "cloudplugin-host/"}).out).size()) << "locks left out";
    EXPECT_NEAR(cost["monthly_cost"].get<double>(), total, 1e-12);
    EXPECT_EQ(cost["prices"], "a test's table");

    // --prices replaces the variable's table unread: a broken one named there does not matter.
    const std::vector<std::string> brokenVariable = {"env", "CLOUDPLUGIN_PRICES=" + Folder("no-such-table.json")};
    const ToolRun overridden = RunToolUnder(brokenVariable, PlainArguments({"--prices", prices, "snapshots"}));
    EXPECT_EQ(overridden.status, 0) << overridden.err;
    const ToolRun fromVariable = RunToolUnder(brokenVariable, PlainArguments({"snapshots"}));
    EXPECT_NE(fromVariable.status, 0);
    EXPECT_NE(fromVariable.err.find("cannot read the price table"), std::string::npos) << fromVariable.err;

    WriteFile(prices, R"({"currency": "XTS"})");
    const ToolRun refused = Repo({"--prices", prices, "snapshots"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.err.find("per_10000_requests"), std::string::npos) << refused.err;
}

TEST_F(RepositoryToolTest, AConnectionStringThatArchivesEveryObjectIsRefusedForARepository) {
    std::vector<std::string> arguments = PlainArguments({"snapshots"});
    arguments[1] += ";AccessTier=Archive";
    const ToolRun refused = RunTool(arguments);
    EXPECT_EQ(refused.status, 2) << refused.err;
    EXPECT_EQ(LineCount(refused.err), 1u) << refused.err;
    EXPECT_NE(refused.err.find("--data-tier Archive"), std::string::npos) << refused.err;
}

TEST_F(RepositoryToolTest, AChangedBitInAPackIsFoundByCheckAndRestore) {
    WriteFile(Folder("source/victim.bin"), Bytes(300000, 5));
    const std::string backup = BackupOk(Folder("source"));
    const std::vector<std::string> packs = DataPacks();
    ASSERT_EQ(packs.size(), 1u);
    ASSERT_EQ(Tool({"object", "get", packs[0], Folder("pack")}).status, 0);
    std::string bytes = ReadFile(Folder("pack"));
    bytes[1000] = static_cast<char>(bytes[1000] ^ 0x20);
    WriteFile(Folder("pack"), bytes);
    ASSERT_EQ(Tool({"object", "put", packs[0], Folder("pack")}).status, 0);

    EXPECT_EQ(Repo({"check"}).status, 0) << "the structure is whole";
    const ToolRun check = Repo({"check", "--read-data"});
    EXPECT_EQ(check.status, 1) << check.err;
    EXPECT_NE(check.out.find("victim.bin"), std::string::npos) << check.out;
    const ToolRun restore = Repo({"restore", "latest", Folder("restored")});
    EXPECT_EQ(restore.status, 1) << restore.err;
    EXPECT_NE(restore.out.find("\"damaged\":[{\"file\":\"victim.bin\""), std::string::npos) << restore.out;
    EXPECT_FALSE(fs::exists(Folder("restored/victim.bin")));
}

TEST_F(RepositoryToolTest, ADamagedCopyOfAPackIsNotAdoptedAndPruneKeepsTheIntactOne) {
    WriteFile(Folder("source/victim.bin"), Bytes(300000, 7));
    BackupOk(Folder("source"));
    const std::vector<std::string> packs = DataPacks();
    ASSERT_EQ(packs.size(), 1u);
    ASSERT_EQ(Tool({"object", "get", packs[0], Folder("pack")}).status, 0);
    std::string bytes = ReadFile(Folder("pack"));
    bytes[1000] = static_cast<char>(bytes[1000] ^ 0x04);
    WriteFile(Folder("pack"), bytes);
    // Named by the SHA-256 of its own bytes: its name checks out.
    const std::string copy = "cloudplugin-host/data/" + qvhost::ToHex(qvhost::Sha256Of(bytes.data(), bytes.size()));
    ASSERT_EQ(Tool({"object", "put", copy, Folder("pack")}).status, 0);
    for (const std::string& index : ObjectNames(Tool({"object", "list", "cloudplugin-host/index/"}).out)) {
        ASSERT_EQ(Tool({"object", "delete", index}).status, 0);
    }

    const std::string next = BackupOk(Folder("source"));
    EXPECT_EQ(Member(next, "packs_refused"), "1") << next;
    EXPECT_EQ(Member(next, "blobs_new"), "0") << next;
    const ToolRun restore = Repo({"restore", "latest", Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(Folder("source"), Folder("restored"));
    const ToolRun prune = Repo({"prune"});
    ASSERT_EQ(prune.status, 0) << prune.err;
    const std::vector<std::string> left = Packs();
    EXPECT_NE(std::find(left.begin(), left.end(), packs[0]), left.end()) << "the intact pack stays";
    EXPECT_EQ(std::find(left.begin(), left.end(), copy), left.end()) << "the damaged copy goes";
    const ToolRun check = Repo({"check", "--read-data"});
    EXPECT_EQ(check.status, 0) << check.out;
}

TEST_F(RepositoryToolTest, PasswordsAreAddedChangedAndRemovedWithTheKeyCommands) {
    BackupOk(MakeTree());
    WriteFile(Folder("second"), "second secret\n");
    const ToolRun add = Repo({"key", "add", "--new-password-file", Folder("second"), "--kdf-memory", "2M"});
    ASSERT_EQ(add.status, 0) << add.err;
    const std::string second = Unquoted(Member(add.out, "id"));
    const ToolRun list = Repo({"key", "list"});
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(ObjectNames(Tool({"object", "list", "cloudplugin-host/keys/"}).out).size(), 2u);
    EXPECT_NE(list.out.find("\"id\":\"" + second + "\""), std::string::npos) << list.out;
    EXPECT_NE(list.out.find("\"current\":true"), std::string::npos) << list.out;
    EXPECT_EQ(Tool({"--password-file", Folder("second"), "snapshots"}).status, 0);

    WriteFile(Folder("third"), "third secret\n");
    const ToolRun passwd = Repo({"key", "passwd", "--new-password-file", Folder("third")});
    ASSERT_EQ(passwd.status, 0) << passwd.err;
    EXPECT_EQ(Unquoted(Member(passwd.out, "removed")).size(), 32u) << "the key in use was replaced";
    EXPECT_EQ(Repo({"snapshots"}).status, 12) << "the old password no longer opens";
    auto As = [&](const std::string& password, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--password-file", Folder(password)});
        return Tool(std::move(arguments));
    };
    EXPECT_EQ(As("third", {"snapshots"}).status, 0);
    const ToolRun inUse = As("second", {"key", "remove", second});
    EXPECT_NE(inUse.status, 0);
    EXPECT_NE(inUse.err.find("--force"), std::string::npos) << inUse.err;
    const ToolRun removed = As("second", {"key", "remove", second, "--force"});
    ASSERT_EQ(removed.status, 0) << removed.err;
    EXPECT_EQ(As("second", {"snapshots"}).status, 12);
    const std::vector<std::string> keys = ObjectNames(Tool({"object", "list", "cloudplugin-host/keys/"}).out);
    ASSERT_EQ(keys.size(), 1u);
    const std::string last = keys[0].substr(keys[0].rfind('/') + 1);
    const ToolRun refused = As("third", {"key", "remove", last, "--force"});
    EXPECT_NE(refused.status, 0);
    EXPECT_NE(refused.err.find("last"), std::string::npos) << refused.err;
    EXPECT_EQ(As("third", {"snapshots"}).status, 0);
    const ToolRun help = Tool({"key", "add", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("--new-password-file"), std::string::npos) << help.out;
}

TEST_F(RepositoryToolTest, AMissingPackIsFoundByCheckAndRestore) {
    WriteFile(Folder("source/lost.bin"), Bytes(300000, 6));
    WriteFile(Folder("source/kept.txt"), "");
    BackupOk(Folder("source"));
    const std::vector<std::string> packs = DataPacks();
    ASSERT_EQ(packs.size(), 1u);
    ASSERT_EQ(Tool({"object", "delete", packs[0]}).status, 0);
    const ToolRun check = Repo({"check"});
    EXPECT_EQ(check.status, 1);
    EXPECT_NE(check.out.find("missing"), std::string::npos) << check.out;
    const ToolRun restore = Repo({"restore", "latest", Folder("restored")});
    EXPECT_EQ(restore.status, 1) << restore.err;
    EXPECT_NE(restore.out.find("\"damaged\":[{\"file\":\"lost.bin\""), std::string::npos) << restore.out;
    EXPECT_FALSE(fs::exists(Folder("restored/lost.bin")));
    EXPECT_TRUE(fs::exists(Folder("restored/kept.txt")));
}

TEST_F(RepositoryToolTest, TwoBackupsAtOnceBothSucceedAndBothRestore) {
    const std::string one = ManyFiles("one", 40);
    const std::string two = ManyFiles("two", 40);
    WriteFile(two + "/shared", Bytes(2 << 20, 1));  // the same content in both
    WriteFile(one + "/shared", Bytes(2 << 20, 1));
    const pid_t first = StartTool(PlainArguments({"backup", one}), Folder("first.txt"));
    const pid_t second = StartTool(PlainArguments({"backup", two}), Folder("second.txt"));
    EXPECT_EQ(WaitTool(first), 0) << ReadFile(Folder("first.txt"));
    EXPECT_EQ(WaitTool(second), 0) << ReadFile(Folder("second.txt"));
    const ToolRun check = Repo({"check", "--read-data"});
    EXPECT_EQ(check.status, 0) << check.out;
    const ToolRun snapshots = Repo({"snapshots"});
    ASSERT_EQ(snapshots.status, 0);
    for (const std::string& source : {one, two}) {
        const size_t at = snapshots.out.find("\"source\":\"" + source + "\"");
        ASSERT_NE(at, std::string::npos) << snapshots.out;
        const size_t id = snapshots.out.rfind("\"short_id\":\"", at);
        const std::string shortId = snapshots.out.substr(id + 12, 8);
        const ToolRun restore = Repo({"restore", shortId, Folder("restored-" + shortId)});
        ASSERT_EQ(restore.status, 0) << restore.err;
        ExpectSameTree(source, Folder("restored-" + shortId));
    }
}

TEST_F(RepositoryToolTest, PruneWhileABackupRunsDeletesNothingItNeeds) {
    const std::string source = ManyFiles("source", 300);
    const pid_t backup = StartTool(PlainArguments({"--jobs", "1", "backup", source}), Folder("progress.txt"));
    ASSERT_TRUE(WaitFor([&] { return ReadFile(Folder("progress.txt")).find("backup f2") != std::string::npos; }))
        << ReadFile(Folder("progress.txt"));
    const ToolRun prune = Repo({"prune"});
    EXPECT_EQ(prune.status, 11) << prune.err;
    EXPECT_NE(prune.err.find("locked"), std::string::npos) << prune.err;
    EXPECT_EQ(WaitTool(backup), 0) << ReadFile(Folder("progress.txt"));
    // Once the backup is done, prune runs and leaves it whole.
    const ToolRun after = Repo({"prune"});
    EXPECT_EQ(after.status, 0) << after.err;
    EXPECT_EQ(Repo({"check", "--read-data"}).status, 0);
    const ToolRun restore = Repo({"restore", "latest", Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(source, Folder("restored"));
}

TEST_F(RepositoryToolTest, ABackupKilledOutrightLeavesGarbageThatTheNextBackupReusesAndPruneRemoves) {
    const std::string source = ManyFiles("source", 300);
    const pid_t backup = StartTool(PlainArguments({"--jobs", "1", "backup", source}), Folder("progress.txt"));
    ASSERT_TRUE(WaitFor([&] { return ReadFile(Folder("progress.txt")).find("backup f20") != std::string::npos; }))
        << ReadFile(Folder("progress.txt"));
    kill(backup, SIGKILL);
    EXPECT_EQ(WaitTool(backup), 128 + SIGKILL);
    const size_t leftover = Packs().size();
    EXPECT_GT(leftover, 0u);
    // The dead process's lock stands in nobody's way, and nothing names
    // missing data.
    const ToolRun locks = Repo({"locks"});
    EXPECT_NE(locks.out.find("\"stale\":true"), std::string::npos) << locks.out;
    const ToolRun check = Repo({"check"});
    EXPECT_EQ(check.status, 0) << check.out;

    const std::string next = BackupOk(source);
    EXPECT_EQ(Member(next, "packs_adopted"), std::to_string(leftover));
    const ToolRun prune = Repo({"prune"});
    ASSERT_EQ(prune.status, 0) << prune.err;
    EXPECT_EQ(Repo({"unlock"}).status, 0);
    const ToolRun none = Repo({"locks"});
    EXPECT_NE(none.out.find("\"locks\":[]"), std::string::npos) << none.out;
    const ToolRun full = Repo({"check", "--read-data"});
    EXPECT_EQ(full.status, 0) << full.out;
    EXPECT_NE(full.out.find("\"warnings\":[]"), std::string::npos) << full.out;
    const ToolRun restore = Repo({"restore", "latest", Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(source, Folder("restored"));
}

TEST_F(RepositoryToolTest, ForgetByPolicyThenPruneFreesTheSpaceOfForgottenSnapshots) {
    WriteFile(Folder("source/a.bin"), Bytes(3 << 20, 8));
    BackupOk(Folder("source"));
    WriteFile(Folder("source/a.bin"), Bytes(3 << 20, 9));
    const std::string kept = BackupOk(Folder("source"));
    const ToolRun forget = Repo({"forget", "--keep-last", "1", "--prune"});
    ASSERT_EQ(forget.status, 0) << forget.err;
    EXPECT_EQ(Member(forget.out, "forgotten").size(), 67u) << forget.out;  // one id in a list
    EXPECT_GT(std::stoull(Member(forget.out, "bytes_freed")), 3000000u) << forget.out;
    const ToolRun snapshots = Repo({"snapshots"});
    EXPECT_NE(snapshots.out.find(Unquoted(Member(kept, "snapshot"))), std::string::npos);
    EXPECT_EQ(Repo({"check", "--read-data"}).status, 0);
    ASSERT_EQ(Repo({"restore", "latest", Folder("restored")}).status, 0);
    EXPECT_TRUE(ReadFile(Folder("restored/a.bin")) == Bytes(3 << 20, 9));
}

TEST_F(RepositoryToolTest, BackupsOfTheVersion2LayoutAreStillListedAndRestorable) {
    const std::string source = MakeTree();
    const std::string legacy = Backup(source);  // written by version2-writer
    const ToolRun snapshots = Repo({"snapshots"});
    ASSERT_EQ(snapshots.status, 0) << snapshots.err;
    EXPECT_NE(snapshots.out.find("\"legacy_backups\":1"), std::string::npos) << snapshots.out;
    const ToolRun list = Repo({"legacy", "list"});
    EXPECT_NE(list.out.find("\"backups\":[{\"backup\":\"" + legacy + "\""), std::string::npos) << list.out;
    const ToolRun restore = Repo({"legacy", "restore", legacy, Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(source, Folder("restored"));
}

// A version 2 backup becomes a snapshot with the backup's time and source
// folder; a part that does not match its hash keeps its file out (exit 3),
// never in the snapshot.
TEST_F(RepositoryToolTest, AVersion2BackupIsMigratedIntoASnapshotAndADamagedPartKeepsItsFileOut) {
    const std::string source = MakeTree();
    const std::string legacy = Backup(source);
    const ToolRun list = Repo({"legacy", "list"});
    const std::string created = Member(list.out, "created");
    ASSERT_FALSE(created.empty()) << list.out;

    const ToolRun migrated = Repo({"legacy", "migrate", legacy, "--tag", "from-v2"});
    ASSERT_EQ(migrated.status, 0) << migrated.err;
    EXPECT_EQ(Member(migrated.out, "time"), created) << "the snapshot keeps the backup's time";
    const ToolRun snapshots = Repo({"snapshots", "--tag", "from-v2"});
    EXPECT_NE(snapshots.out.find(Unquoted(Member(migrated.out, "snapshot"))), std::string::npos) << snapshots.out;
    ASSERT_EQ(Repo({"restore", "latest", Folder("restored")}).status, 0);
    ExpectSameTree(source, Folder("restored"));
    EXPECT_EQ(Repo({"check", "--read-data"}).status, 0);

    // The second part of the large file, replaced by other bytes of its size.
    const std::string object = "cloudplugin-host/backups/" + legacy + "/000003.0001";
    WriteFile(Folder("other"), Bytes(1u << 20, 99));
    ASSERT_EQ(Tool({"object", "put", object, Folder("other")}).status, 0);
    const ToolRun damaged = Repo({"legacy", "migrate", legacy});
    EXPECT_EQ(damaged.status, 3) << damaged.err;
    EXPECT_EQ(Member(damaged.out, "unreadable"), "1") << damaged.out;
    EXPECT_NE(damaged.out.find("big/several-parts.bin"), std::string::npos) << damaged.out;
    // Both snapshots carry the backup's time: name the second one.
    const std::string second = Unquoted(Member(damaged.out, "snapshot"));
    ASSERT_EQ(Repo({"restore", second, Folder("restored-damaged")}).status, 0);
    EXPECT_FALSE(fs::exists(fs::u8path(Folder("restored-damaged/big/several-parts.bin"))));
    EXPECT_EQ(ReadFile(Folder("restored-damaged/exactly-one-part.bin")), Bytes(1u << 20, 3));
}

}  // namespace e2e

namespace e2e {

TEST_F(RepositoryToolTest, ARestoreOfArchivedDataIsRefusedInOneLineAndRehydrateBringsItBack) {
    const std::string source = MakeTree();
    BackupOk(source);
    const std::vector<std::string> packs = Packs();
    const std::vector<std::string> data = DataPacks();
    ASSERT_FALSE(data.empty());
    for (const std::string& pack : packs) ASSERT_EQ(Tool({"object", "tier", pack, "Archive"}).status, 0);

    const ToolRun refused = Repo({"restore", "latest", Folder("restored")});
    EXPECT_EQ(refused.status, 8);
    EXPECT_EQ(LineCount(refused.err), 1u) << refused.err;
    EXPECT_NE(refused.err.find("'cloudplugin-host rehydrate latest'"), std::string::npos) << refused.err;
    EXPECT_TRUE(!fs::exists(Folder("restored")) || qvhost::ScanTree(Folder("restored")).files.empty());

    // The folder trees come back first: only they name the packs of the
    // files. Azurite brings an object back at once; Azure takes hours, during
    // which the same command reports the packs as pending.
    const ToolRun trees = Repo({"rehydrate", "latest", "--priority", "High"});
    ASSERT_EQ(trees.status, 0) << trees.err;
    EXPECT_EQ(Member(trees.out, "stage"), "\"trees\"");
    EXPECT_EQ(Member(trees.out, "priority"), "\"High\"");
    EXPECT_EQ(Member(trees.out, "ready"), "false");
    for (const std::string& pack : data) EXPECT_EQ(trees.out.find(pack), std::string::npos) << trees.out;
    const ToolRun asked = Repo({"rehydrate", "latest", "--priority", "High"});
    ASSERT_EQ(asked.status, 0) << asked.err;
    EXPECT_EQ(Member(asked.out, "stage"), "\"packs\"");
    for (const std::string& pack : data) EXPECT_NE(asked.out.find(pack), std::string::npos) << asked.out;
    EXPECT_EQ(Member(asked.out, "ready"), "false");
    const ToolRun again = Repo({"rehydrate", "latest"});
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(Member(again.out, "ready"), "true") << again.out;
    EXPECT_EQ(Member(again.out, "online"), std::to_string(packs.size())) << "every pack the snapshot needs";
    const ToolRun restore = Repo({"restore", "latest", Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(source, Folder("restored"));
}

TEST_F(RepositoryToolTest, AnArchivedVersion2BackupIsRefusedInOneLineAndRehydrateBringsItBack) {
    const std::string source = MakeTree();
    const std::string legacy = Backup(source);
    for (const std::string& part : ObjectNames(Tool({"object", "list", "cloudplugin-host/backups/"}).out)) {
        ASSERT_EQ(Tool({"object", "tier", part, "Archive"}).status, 0);
    }
    const ToolRun refused = Tool({"legacy", "restore", legacy, Folder("restored")});
    EXPECT_EQ(refused.status, 8);
    EXPECT_EQ(LineCount(refused.err), 1u) << refused.err;
    EXPECT_NE(refused.err.find("'cloudplugin-host legacy rehydrate " + legacy + "'"), std::string::npos) << refused.err;
    const ToolRun asked = Tool({"legacy", "rehydrate", legacy});
    ASSERT_EQ(asked.status, 0) << asked.err;
    EXPECT_EQ(Member(asked.out, "stage"), "\"backup\"");
    EXPECT_NE(Member(asked.out, "requested"), "[") << asked.out;
    const ToolRun restore = Tool({"legacy", "restore", legacy, Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(source, Folder("restored"));
}

TEST_F(RepositoryToolTest, ADamagedIndexAndALostPackAreRepaired) {
    WriteFile(Folder("source/kept.bin"), Bytes(400000, 8));
    BackupOk(Folder("source"));
    const std::vector<std::string> keptPacks = DataPacks();
    WriteFile(Folder("source/sub/lost.bin"), Bytes(300000, 9));
    BackupOk(Folder("source"));
    std::vector<std::string> indexes = ObjectNames(Tool({"object", "list", "cloudplugin-host/index/"}).out);
    ASSERT_EQ(indexes.size(), 2u);
    ASSERT_EQ(Tool({"object", "get", indexes[1], Folder("index")}).status, 0);
    std::string bytes = ReadFile(Folder("index"));
    bytes[40] = static_cast<char>(bytes[40] ^ 0x01);
    WriteFile(Folder("index"), bytes);
    ASSERT_EQ(Tool({"object", "put", indexes[1], Folder("index")}).status, 0);

    EXPECT_EQ(Repo({"snapshots"}).status, 0) << "a listing reads no index";
    // This machine's cache holds the index as it was written; another
    // machine (no cache) reads the damaged one.
    const ToolRun refused = Repo({"--no-cache", "restore", "latest", Folder("refused")});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("'cloudplugin-host repair index'"), std::string::npos) << refused.err;
    EXPECT_NE(Repo({"check"}).out.find("\"repairs\":[\"'cloudplugin-host repair index'"), std::string::npos);
    const ToolRun index = Repo({"repair", "index"});
    ASSERT_EQ(index.status, 0) << index.err;
    EXPECT_EQ(Member(index.out, "packs_indexed"), "4") << index.out;  // two of data, two of trees
    EXPECT_NE(index.out.find("\"packs_refused\":[]"), std::string::npos) << index.out;
    EXPECT_EQ(Member(index.out, "index_objects_written"), "1");
    EXPECT_EQ(Member(index.out, "index_objects_removed"), "2");
    const ToolRun restore = Repo({"restore", "latest", Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ExpectSameTree(Folder("source"), Folder("restored"));

    std::vector<std::string> lost;
    for (const std::string& pack : DataPacks()) {
        if (std::find(keptPacks.begin(), keptPacks.end(), pack) == keptPacks.end()) lost.push_back(pack);
    }
    ASSERT_EQ(lost.size(), 1u);
    ASSERT_EQ(Tool({"object", "delete", lost[0]}).status, 0);
    const ToolRun check = Repo({"check"});
    EXPECT_EQ(check.status, 1);
    EXPECT_NE(check.out.find("'cloudplugin-host repair snapshots'"), std::string::npos) << check.out;
    const ToolRun repair = Repo({"repair", "snapshots", "latest"});
    ASSERT_EQ(repair.status, 0) << repair.err;
    EXPECT_NE(repair.out.find("\"dropped\":[\"sub/lost.bin\"]"), std::string::npos) << repair.out;
    const std::string repaired = Unquoted(Member(repair.out, "new"));
    ASSERT_EQ(repaired.size(), 64u) << repair.out;
    const ToolRun after = Repo({"restore", repaired, Folder("after")});
    EXPECT_EQ(after.status, 0) << after.err;
    EXPECT_EQ(ReadFile(Folder("after/kept.bin")), ReadFile(Folder("source/kept.bin")));
    EXPECT_TRUE(fs::is_directory(Folder("after/sub")));
    EXPECT_FALSE(fs::exists(Folder("after/sub/lost.bin")));
}

TEST_F(RepositoryToolTest, ARestoreIntoTheExistingFolderLeavesWhatIsUnchangedAndRemovesTheRest) {
    WriteFile(Folder("source/docs/a.txt"), Bytes(300000, 11));
    WriteFile(Folder("source/docs/b.log"), Bytes(300000, 12));
    WriteFile(Folder("source/keep/c.txt"), Bytes(300000, 13));
    BackupOk(Folder("source"));
    ASSERT_EQ(Repo({"restore", "latest", Folder("dest"), "--include", "/docs"}).status, 0);
    EXPECT_FALSE(fs::exists(Folder("dest/keep")));

    WriteFile(Folder("dest/docs/a.txt"), "edited");
    WriteFile(Folder("dest/stray/file"), "not in the snapshot");
    const ToolRun again = Repo({"restore", "latest", Folder("dest"), "--exclude", "*.log", "--overwrite",
                                "if-changed", "--delete", "--verify"});
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(Member(again.out, "files"), "2") << again.out;  // a.txt edited, keep/c.txt new
    EXPECT_NE(again.out.find("\"removed\":[\"docs/b.log\",\"stray\"]"), std::string::npos) << again.out;
    EXPECT_EQ(ReadFile(Folder("dest/docs/a.txt")), Bytes(300000, 11));
    EXPECT_EQ(ReadFile(Folder("dest/keep/c.txt")), Bytes(300000, 13));
    EXPECT_FALSE(fs::exists(Folder("dest/stray")));

    const ToolRun unchanged = Repo({"restore", "latest", Folder("dest"), "--exclude", "*.log", "--verify"});
    ASSERT_EQ(unchanged.status, 0) << unchanged.err;
    EXPECT_EQ(Member(unchanged.out, "files"), "0") << unchanged.out;
    EXPECT_EQ(Member(unchanged.out, "skipped"), "2") << unchanged.out;
    // A bare --overwrite (last, or before another option) is always, as before.
    const ToolRun bare = Repo({"restore", "latest", Folder("dest"), "--exclude", "*.log", "--overwrite"});
    ASSERT_EQ(bare.status, 0) << bare.err;
    EXPECT_EQ(Member(bare.out, "files"), "2") << bare.out;
}

}  // namespace e2e
