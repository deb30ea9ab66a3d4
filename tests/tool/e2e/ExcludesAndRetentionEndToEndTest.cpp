// What a nightly job leaves out and keeps, end to end on Azurite: a home
// folder with a cache, build output, a virtual machine's disk and a large
// download, backed up with an exclude file and the other exclude options;
// the snapshot holds what the excludes let through and nothing was read
// that they left out. Then forget's --keep-tag and --keep-within on real
// snapshots, restic's exit status 3 for a backup that could not read
// everything, and the other sources of a backup: lists of paths, standard
// input and a command's output.
#include <algorithm>
#include <cstdlib>

#include "HostToolFixture.h"

namespace e2e {
namespace {

std::vector<std::string> Strings(const std::string& json, const std::string& member) {
    std::vector<std::string> items;
    const std::string key = "\"" + member + "\":[";
    const size_t start = json.find(key);
    if (start == std::string::npos) return {"<missing " + member + ">"};
    const size_t end = json.find(']', start);
    for (size_t at = json.find('"', start + key.size()); at < end; at = json.find('"', at + 1)) {
        const size_t close = json.find('"', at + 1);
        items.push_back(json.substr(at + 1, close - at - 1));
        at = close;
    }
    std::sort(items.begin(), items.end());
    return items;
}

std::vector<std::string> Sorted(std::vector<std::string> items) {
    std::sort(items.begin(), items.end());
    return items;
}

class NightlyJobTest : public RepositoryHostToolTest {
protected:
    // A developer's home folder; answers the files a backup with the
    // excludes of Options() keeps.
    std::vector<std::string> MakeHome() {
        home_ = Folder("home");
        WriteFile(home_ + "/Documents/report.odt", Bytes(20000, 1));
        WriteFile(home_ + "/Documents/notes.txt", "call the plumber");
        WriteFile(home_ + "/Documents/draft.TMP", "a word processor's leftovers");
        WriteFile(home_ + "/code/app/src/main.c", "int main(void) { return 0; }\n");
        WriteFile(home_ + "/code/app/build/main.o", Bytes(5000, 2));
        WriteFile(home_ + "/code/app/node_modules/left-pad/index.js", "module.exports = pad;\n");
        WriteFile(home_ + "/.cache/CACHEDIR.TAG", "Signature: 8a477f597d28d172789f06886806bc55\n# a browser's cache\n");
        WriteFile(home_ + "/.cache/thumbnails/large/1.png", Bytes(8000, 3));
        WriteFile(home_ + "/.cache/pip/wheel.whl", Bytes(9000, 4));
        WriteFile(home_ + "/vm/.nobackup", "");
        WriteFile(home_ + "/vm/disk.qcow2", Bytes(7000, 5));
        WriteFile(home_ + "/Downloads/debian.iso", Bytes(3u << 20, 6));  // larger than 2M
        WriteFile(home_ + "/Downloads/song.ogg.part", Bytes(1000, 7));
        WriteFile(home_ + "/Downloads/recipe.pdf", Bytes(30000, 8));
        setenv("CLOUDPLUGIN_E2E_HOME", home_.c_str(), 1);
        excludeFile_ = Folder("excludes.txt");
        WriteFile(excludeFile_,
                  "# build output and dependencies\n*.o\nnode_modules\n\n"
                  "# partial downloads, anchored in this home folder\n$CLOUDPLUGIN_E2E_HOME/Downloads/*.part\n");
        return {".cache/CACHEDIR.TAG", "Documents/notes.txt", "Documents/report.odt", "Downloads/recipe.pdf",
                "code/app/src/main.c", "vm/.nobackup"};
    }

    std::vector<std::string> Options() const {
        return {"--exclude-file", excludeFile_, "--exclude-caches", "--exclude-if-present", ".nobackup",
                "--exclude-larger-than", "2M", "--iexclude", "*.tmp", "-x"};
    }

    std::string home_;
    std::string excludeFile_;
};

TEST_F(NightlyJobTest, ExcludesLeaveOutCachesBuildOutputAndLargeFilesAndNothingTheyLeaveOutIsRead) {
    const std::vector<std::string> kept = MakeHome();
    std::vector<std::string> backup = {"backup", home_};
    const std::vector<std::string> options = Options();
    backup.insert(backup.end(), options.begin(), options.end());

    // A dry run names what would be read: only what the excludes let through.
    std::vector<std::string> dry = backup;
    dry.push_back("--dry-run");
    const ToolRun plan = Repo(dry);
    ASSERT_EQ(plan.status, 0) << plan.err;
    EXPECT_EQ(Strings(plan.out, "would_read"), kept);
    EXPECT_EQ(Member(plan.out, "excluded"), "8") << plan.out;
    dry.insert(dry.begin(), "-v");
    const ToolRun text = RepoText(dry);
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("would read Documents/notes.txt"), std::string::npos) << text.out;
    EXPECT_EQ(text.out.find("would read Downloads/debian.iso"), std::string::npos) << text.out;
    for (const char* line : {"excluded code/app/node_modules (matches --exclude node_modules)",
                             "excluded code/app/build/main.o (matches --exclude *.o)",
                             "excluded .cache/pip (in a folder holding CACHEDIR.TAG)",
                             "excluded vm/disk.qcow2 (in a folder holding .nobackup)",
                             "excluded Downloads/debian.iso (larger than 2.0 MiB)",
                             "excluded Documents/draft.TMP (matches --iexclude *.tmp)"}) {
        EXPECT_NE(text.out.find(line), std::string::npos) << line << "\n" << text.out;
    }
    EXPECT_NE(text.out.find("/Downloads/*.part)"), std::string::npos) << "the exclude file's $NAME was expanded";

    // The parent holds everything; the excluded files are simply not in the
    // next snapshot, and what is left is unchanged: nothing is read.
    const ToolRun everything = Repo({"backup", home_});
    ASSERT_EQ(everything.status, 0) << everything.err;
    EXPECT_EQ(Member(everything.out, "files"), "14");
    const ToolRun nightly = Repo(backup);
    ASSERT_EQ(nightly.status, 0) << nightly.err;
    EXPECT_EQ(Member(nightly.out, "parent"), Member(everything.out, "snapshot"));
    EXPECT_EQ(Member(nightly.out, "files"), std::to_string(kept.size()));
    EXPECT_EQ(Member(nightly.out, "files_unmodified"), std::to_string(kept.size()));
    EXPECT_EQ(Member(nightly.out, "bytes_processed"), "0");

    // What went in, restored.
    const ToolRun restore = Repo({"restore", "latest", Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    const qvhost::SourceTree restored = qvhost::ScanTree(Folder("restored"));
    std::vector<std::string> files;
    for (const qvhost::SourceEntry& file : restored.files) files.push_back(file.relativePath);
    EXPECT_EQ(Sorted(files), kept);
    for (const std::string& path : kept) EXPECT_TRUE(ReadFile(Folder("restored/" + path)) == ReadFile(home_ + "/" + path));
    std::vector<std::string> folders;
    for (const qvhost::SourceEntry& folder : restored.folders) folders.push_back(folder.relativePath);
    EXPECT_EQ(Sorted(folders), (std::vector<std::string>{"code/app/build"})) << "a folder emptied by excludes stays";
}

TEST_F(NightlyJobTest, ABadPatternOrAMissingExcludeFileStopsTheBackupBeforeAnythingIsStored) {
    MakeHome();
    const ToolRun bad = RepoText({"backup", home_, "--exclude", "[unclosed"});
    EXPECT_EQ(bad.status, 2) << bad.err;
    EXPECT_EQ(LineCount(bad.err), 1u) << bad.err;
    EXPECT_NE(bad.err.find("the pattern '[unclosed' has a '[' without its ']'"), std::string::npos) << bad.err;
    const ToolRun missing = Repo({"backup", home_, "--exclude-file", Folder("no such file")});
    EXPECT_EQ(missing.status, 4) << missing.err;
    EXPECT_EQ(Repo({"backup", home_, "--exclude-larger-than", "lots"}).status, 2);
    const ToolRun snapshots = Repo({"snapshots"});
    EXPECT_EQ(snapshots.out.find("\"snapshot\""), std::string::npos) << snapshots.out;
}

TEST_F(NightlyJobTest, ForgetKeepsTaggedSnapshotsAndThoseWithinASpanOfTheNewest) {
    const std::string source = Folder("source");
    WriteFile(source + "/a.txt", "alpha");
    auto backup = [&](std::vector<std::string> extra) {
        std::vector<std::string> arguments = {"backup", source};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        const ToolRun run = Repo(arguments);
        EXPECT_EQ(run.status, 0) << run.err;
        return Unquoted(Member(run.out, "snapshot"));
    };
    const std::string monthly = backup({"--tag", "monthly"});
    const std::string middle = backup({});
    const std::string newest = backup({});

    // All three were made within the hour.
    const ToolRun within = Repo({"forget", "--keep-within", "1h", "--dry-run"});
    ASSERT_EQ(within.status, 0) << within.err;
    EXPECT_TRUE(Strings(within.out, "forgotten").empty()) << within.out;
    EXPECT_NE(within.out.find("\"" + monthly + "\":[\"within\"]"), std::string::npos) << within.out;

    const ToolRun weeks = Repo({"forget", "--keep-within", "1w"});
    EXPECT_EQ(weeks.status, 2) << weeks.err;
    EXPECT_NE(weeks.err.find("such as 1y5m7d2h or 7d"), std::string::npos) << weeks.err;

    // A tag no snapshot carries would forget the whole group: refused.
    const ToolRun nothing = Repo({"forget", "--keep-tag", "yearly"});
    EXPECT_EQ(nothing.status, 2) << nothing.err;
    EXPECT_NE(nothing.err.find("nothing was forgotten"), std::string::npos) << nothing.err;

    const ToolRun forget = Repo({"forget", "--keep-last", "1", "--keep-tag", "monthly"});
    ASSERT_EQ(forget.status, 0) << forget.err;
    EXPECT_EQ(Strings(forget.out, "forgotten"), (std::vector<std::string>{middle}));
    const ToolRun left = Repo({"snapshots"});
    EXPECT_NE(left.out.find("\"snapshot\":\"" + monthly), std::string::npos) << left.out;
    EXPECT_NE(left.out.find("\"snapshot\":\"" + newest), std::string::npos) << left.out;
    EXPECT_EQ(left.out.find("\"snapshot\":\"" + middle), std::string::npos) << left.out;
}

TEST_F(NightlyJobTest, ABackupThatCouldNotReadAFileSavesItsSnapshotAndEndsWithResticsStatusThree) {
    const std::string source = Folder("source");
    WriteFile(source + "/kept.txt", "kept");
    WriteFile(source + "/secret.txt", "cannot be read");
    fs::permissions(source + "/secret.txt", fs::perms::none);
    // As root every file is readable: the tool then runs without the
    // capabilities that let root ignore file permissions.
    const std::vector<std::string> asUser =
        geteuid() == 0 ? std::vector<std::string>{"setpriv", "--bounding-set=-dac_override,-dac_read_search"}
                       : std::vector<std::string>{};
    const std::vector<std::string> common = {"--connection", Azurite::Shared().ConnectionString(container_),
                                             "--log-folder", logs_, "--password-file", passwordFile_, "--json"};
    std::vector<std::string> arguments = common;
    arguments.insert(arguments.end(), {"backup", source});
    const ToolRun partial = RunToolUnder(asUser, arguments);
    EXPECT_EQ(partial.status, 3) << partial.err;
    EXPECT_EQ(Member(partial.out, "files"), "1");
    EXPECT_NE(partial.out.find("\"unreadable\":1"), std::string::npos) << partial.out;
    const ToolRun snapshots = Repo({"snapshots"});
    EXPECT_NE(snapshots.out.find(Unquoted(Member(partial.out, "snapshot"))), std::string::npos) << "it was saved";

    arguments.push_back("--skip-unreadable");
    EXPECT_EQ(RunToolUnder(asUser, arguments).status, 0);
}

TEST_F(NightlyJobTest, FilesFromListsPathsBesidePathArgumentsAndTheSnapshotHoldsThemAll) {
    MakeHome();
    const std::string lines = Folder("list.txt");
    WriteFile(lines, "# what the nightly job keeps\n" + home_ + "/Documents/*.txt\n\n  " + home_ + "/code/app/src  \n");
    const std::string raw = Folder("list.raw");
    WriteFile(raw, std::string(home_ + "/Downloads/recipe.pdf") + '\0');
    const ToolRun run = Repo({"backup", home_ + "/vm", "--files-from", lines, "--files-from-raw", raw});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(Strings(run.out, "paths"), (std::vector<std::string>{home_ + "/Documents/notes.txt", home_ + "/Downloads/recipe.pdf",
                                                                    home_ + "/code/app/src", home_ + "/vm"}));
    EXPECT_EQ(Member(run.out, "files"), "5") << run.out;  // notes.txt, recipe.pdf, main.c, .nobackup, disk.qcow2

    // A list that names nothing, or cannot be read, stops before anything runs.
    const std::string empty = Folder("empty.txt");
    WriteFile(empty, "# nothing tonight\n");
    EXPECT_EQ(Repo({"backup", "--files-from", empty}).status, 2);
    EXPECT_EQ(Repo({"backup", "--files-from", Folder("no such list")}).status, 4);
    EXPECT_EQ(Repo({"backup"}).status, 2) << "no PATH, no list, no stream";
}

TEST_F(NightlyJobTest, StandardInputIsBackedUpAsOneFileThatDumpGivesBack) {
    const std::string dump = Folder("database.sql");
    std::string bytes;
    for (int row = 0; row < 20000; ++row) bytes += "INSERT INTO t VALUES (" + std::to_string(row) + ");\n";
    WriteFile(dump, bytes);
    // The tool's standard input is the file.
    const std::vector<std::string> fromFile = {"sh", "-c", "exec \"$@\" < '" + dump + "'", "sh"};
    std::vector<std::string> arguments = PlainArguments({"--json", "backup", "--stdin", "--stdin-filename", "db/all.sql"});
    const ToolRun run = RunToolUnder(fromFile, arguments);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(Strings(run.out, "paths"), (std::vector<std::string>{"/db/all.sql"}));
    EXPECT_EQ(Member(run.out, "bytes"), std::to_string(bytes.size()));
    const ToolRun back = RepoText({"dump", "latest", "/db/all.sql"});
    ASSERT_EQ(back.status, 0) << back.err;
    EXPECT_TRUE(back.out == bytes) << back.out.size() << " bytes came back of " << bytes.size();

    // The next one has it as parent, and reads it all again: a stream has
    // nothing to compare.
    const ToolRun again = RunToolUnder(fromFile, arguments);
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(Member(again.out, "parent"), Member(run.out, "snapshot"));
    EXPECT_EQ(Member(again.out, "bytes_processed"), std::to_string(bytes.size()));
    EXPECT_EQ(Member(again.out, "blobs_new"), "0") << "the same bytes are the same chunks";
    EXPECT_EQ(RepoText({"backup", "--stdin", home_}).status, 2) << "--stdin takes no PATH";
}

TEST_F(NightlyJobTest, ACommandsOutputIsBackedUpAndACommandThatFailsStoresNothing) {
    const ToolRun before = Tool({"object", "list", "cloudplugin-host/"});
    const ToolRun failed =
        RepoText({"backup", "--stdin-from-command", "--", "sh", "-c", "echo half a dump; echo lost the database >&2; exit 2"});
    EXPECT_EQ(failed.status, 1) << failed.err;
    EXPECT_NE(failed.err.find("exited with status 2: no snapshot was made"), std::string::npos) << failed.err;
    EXPECT_NE(failed.err.find("lost the database"), std::string::npos) << "the command's own message is shown";
    EXPECT_EQ(Tool({"object", "list", "cloudplugin-host/"}).out, before.out) << "not an object more";
    EXPECT_EQ(RepoText({"backup", "--stdin-from-command", "--", "no-such-command-anywhere"}).status, 1);

    const ToolRun made = Repo({"backup", "--stdin-from-command", "--stdin-filename", "hello.txt", "--", "printf",
                               "%s-%s", "hello", "world"});
    ASSERT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(Strings(made.out, "paths"), (std::vector<std::string>{"/hello.txt"}));
    EXPECT_EQ(RepoText({"dump", "latest", "/hello.txt"}).out, "hello-world");
}

}  // namespace
}  // namespace e2e
