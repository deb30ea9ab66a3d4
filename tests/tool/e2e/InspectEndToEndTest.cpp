// Looking into a repository on Azurite without restoring it: ls, find,
// dump (a file, a damaged file, a folder as tar extracted by tar itself),
// stats, tag and snapshots --latest.
#include <cstdlib>

#include "HostToolFixture.h"

namespace e2e {

namespace {

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

size_t Count(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

}  // namespace

class InspectToolTest : public RepositoryHostToolTest {};

TEST_F(InspectToolTest, LsListsEveryEntryLongAndAsJsonLines) {
    const std::string source = MakeTree();
    const std::string id = BackupSnapshot(source);
    const ToolRun json = Repo({"ls", id.substr(0, 8)});
    ASSERT_EQ(json.status, 0) << json.err;
    const std::vector<std::string> lines = Lines(json.out);
    ASSERT_GT(lines.size(), 30u);
    EXPECT_NE(lines[0].find("\"struct_type\":\"snapshot\""), std::string::npos) << lines[0];
    for (size_t i = 1; i < lines.size(); ++i) EXPECT_EQ(lines[i].rfind("{\"struct_type\":\"node\"", 0), 0u) << lines[i];
    EXPECT_NE(json.out.find("\"path\":\"/a/b/c/deep.bin\",\"mode\":420,\"permissions\":\"-rw-r--r--\""),
              std::string::npos);
    EXPECT_NE(json.out.find("\"mtime\":\"2009-02-13T23:31:30.123456789Z\""), std::string::npos) << "deep.bin's time";
    EXPECT_NE(json.out.find("\"link_target\":\"../a/b/c/deep.bin\""), std::string::npos);

    const ToolRun folder = RepoText({"ls", "latest", "/empty folder", "-l"});
    ASSERT_EQ(folder.status, 0) << folder.err;
    const std::vector<std::string> entries = Lines(folder.out);
    ASSERT_EQ(entries.size(), 2u) << folder.out;
    EXPECT_EQ(entries[1].rfind("drwx------ ", 0), 0u) << entries[1];
    EXPECT_NE(entries[1].find(" /empty folder/private"), std::string::npos) << entries[1];
    const ToolRun links = RepoText({"ls", "latest", "links", "--long"});
    EXPECT_NE(links.out.find("/links/to-deep -> ../a/b/c/deep.bin"), std::string::npos) << links.out;
    EXPECT_EQ(RepoText({"ls", "latest", "/no such thing"}).status, 6);
}

TEST_F(InspectToolTest, FindNamesTheSnapshotsThatHoldAFile) {
    const std::string source = MakeTree();
    const std::string first = BackupSnapshot(source);
    fs::remove(source + "/many/file7");
    const std::string second = BackupSnapshot(source);
    const ToolRun both = Repo({"find", "file7", "deep.*"});
    ASSERT_EQ(both.status, 0) << both.err;
    EXPECT_EQ(Member(both.out, "hits"), "3");
    EXPECT_EQ(Count(both.out, "\"path\":\"/many/file7\""), 1u);
    EXPECT_EQ(Count(both.out, "\"path\":\"/a/b/c/deep.bin\""), 2u);
    EXPECT_LT(both.out.find(first), both.out.find(second)) << "oldest snapshot first";
    const ToolRun named = Repo({"find", "*.bin", "--snapshot", second.substr(0, 8), "--newest", "2010-01-01"});
    ASSERT_EQ(named.status, 0) << named.err;
    EXPECT_EQ(Member(named.out, "hits"), "1") << "only deep.bin is older: " << named.out;
    EXPECT_EQ(named.out.find(first), std::string::npos);
    const ToolRun text = RepoText({"find", "file7"});
    EXPECT_NE(text.out.find("snapshot " + first.substr(0, 8)), std::string::npos) << text.out;
    EXPECT_EQ(text.out.find("snapshot " + second.substr(0, 8)), std::string::npos) << text.out;
}

TEST_F(InspectToolTest, DumpWritesAFileAndAFolderAsATarThatTarExtracts) {
    const std::string source = MakeTree();
    BackupSnapshot(source);
    const ToolRun file = RepoText({"dump", "latest", "/big/several-parts.bin"});
    ASSERT_EQ(file.status, 0) << file.err;
    EXPECT_TRUE(file.out == ReadFile(source + "/big/several-parts.bin"));

    const ToolRun tar = RepoText({"dump", "latest", "/"});
    ASSERT_EQ(tar.status, 0) << tar.err;
    WriteFile(Folder("all.tar"), tar.out);
    fs::create_directories(Folder("extracted"));
    const std::string command = "tar -x -p -f '" + Folder("all.tar") + "' -C '" + Folder("extracted") + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    ExpectSameTree(source, Folder("extracted"));

    const ToolRun sub = Repo({"dump", "latest", "many", "--output", Folder("many.tar")});
    ASSERT_EQ(sub.status, 0) << sub.err;
    EXPECT_EQ(Member(sub.out, "files"), "20");
    EXPECT_EQ(Member(sub.out, "tar"), "true");
}

TEST_F(InspectToolTest, DumpOfADamagedFileStopsWithStatusOne) {
    WriteFile(Folder("source/noise.bin"), Bytes(600000, 5));
    BackupSnapshot(Folder("source"));
    std::vector<std::string> packs;
    const std::string listing = Tool({"object", "list", "cloudplugin-host/data/"}).out;
    for (size_t at = listing.find("\"name\":\""); at != std::string::npos; at = listing.find("\"name\":\"", at + 1)) {
        packs.push_back(listing.substr(at + 8, listing.find('"', at + 8) - at - 8));
    }
    bool damaged = false;
    for (const std::string& pack : packs) {
        ASSERT_EQ(Tool({"object", "get", pack, Folder("pack")}).status, 0);
        std::string bytes = ReadFile(Folder("pack"));
        if (bytes.size() < 500000) continue;  // the trees' pack
        bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 0x20);
        WriteFile(Folder("pack"), bytes);
        ASSERT_EQ(Tool({"object", "put", pack, Folder("pack")}).status, 0);
        damaged = true;
    }
    ASSERT_TRUE(damaged);
    const ToolRun dump = RepoText({"dump", "latest", "noise.bin"});
    EXPECT_EQ(dump.status, 1) << dump.err;
    EXPECT_LT(dump.out.size(), 600000u);
    EXPECT_TRUE(dump.out == Bytes(600000, 5).substr(0, dump.out.size())) << "only good bytes before the failure";
    EXPECT_NE(dump.err.find("noise.bin"), std::string::npos) << dump.err;
    EXPECT_EQ(LineCount(dump.err), 1u) << dump.err;
}

TEST_F(InspectToolTest, StatsCountRestoreSizeAndDeduplication) {
    WriteFile(Folder("source/a.bin"), Bytes(500000, 6));
    WriteFile(Folder("source/b/copy.bin"), Bytes(500000, 6));
    BackupSnapshot(Folder("source"));
    BackupSnapshot(Folder("source"));
    const ToolRun restore = Repo({"stats"});
    ASSERT_EQ(restore.status, 0) << restore.err;
    EXPECT_EQ(Member(restore.out, "mode"), "\"restore-size\"");
    EXPECT_EQ(Member(restore.out, "files"), "4");
    EXPECT_EQ(Member(restore.out, "bytes"), "2000000");
    const ToolRun latest = Repo({"stats", "latest", "--mode", "raw-data"});
    ASSERT_EQ(latest.status, 0) << latest.err;
    EXPECT_EQ(Member(latest.out, "data_bytes"), "500000");
    EXPECT_EQ(Member(latest.out, "deduplication_ratio"), "2.0");
    const ToolRun all = Repo({"stats", "--mode", "raw-data"});
    EXPECT_EQ(Member(all.out, "deduplication_ratio"), "4.0");
    EXPECT_EQ(Repo({"stats", "--mode", "sizes"}).status, 2);
}

TEST_F(InspectToolTest, TagRewritesSnapshotsAndSnapshotsShowsTheLatestOfEachGroup) {
    WriteFile(Folder("one/a.txt"), "a");
    WriteFile(Folder("two/b.txt"), "b");
    const std::string first = BackupSnapshot(Folder("one"));
    BackupSnapshot(Folder("two"));
    const std::string third = BackupSnapshot(Folder("one"));
    const ToolRun tag = Repo({"tag", first.substr(0, 8), "--add", "keep,old", "--add", "x"});
    ASSERT_EQ(tag.status, 0) << tag.err;
    const std::string changed = Unquoted(Member(tag.out, "new"));
    EXPECT_EQ(Unquoted(Member(tag.out, "old")), first);
    const ToolRun kept = Repo({"snapshots", "--tag", "keep"});
    EXPECT_NE(kept.out.find("\"snapshot\":\"" + changed + "\""), std::string::npos) << kept.out;
    EXPECT_NE(kept.out.find("\"tags\":[\"keep\",\"old\",\"x\"]"), std::string::npos) << kept.out;
    EXPECT_EQ(kept.out.find(first), std::string::npos) << "the old object is gone";
    const ToolRun removed = Repo({"tag", changed.substr(0, 8), "--remove", "old", "--remove", "x"});
    ASSERT_EQ(removed.status, 0) << removed.err;
    EXPECT_NE(Repo({"snapshots"}).out.find("\"tags\":[\"keep\"]"), std::string::npos);
    EXPECT_EQ(Repo({"tag", "latest", "--set", "a", "--add", "b"}).status, 2);

    const ToolRun latest = Repo({"snapshots", "--latest", "1"});
    ASSERT_EQ(latest.status, 0) << latest.err;
    EXPECT_EQ(Count(latest.out, "\"short_id\""), 2u) << latest.out;
    EXPECT_NE(latest.out.find(third), std::string::npos);
    const ToolRun one = Repo({"snapshots", "--latest", "1", "--group-by", ""});
    EXPECT_EQ(Count(one.out, "\"short_id\""), 1u) << one.out;
    EXPECT_NE(one.out.find(third), std::string::npos);
}

}  // namespace e2e
