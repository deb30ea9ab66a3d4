// Restore and verify against manifests crafted by someone who can write to
// the container (a leaked SAS token, a compromised host): each is written
// through the plug-in with a consistent hash, so only the tool's own checks
// stand between it and the file system. Every such manifest is refused as
// damaged data (exit 1) naming the entry, before anything is written; and a
// symbolic link inside the destination is never written through.
#include <functional>

#include "HostToolFixture.h"

using namespace e2e;

namespace {

// The payload file's name: unique, so that a file of that name appearing
// anywhere outside the destination can only come from the restore.
std::string PayloadName() { return "payload-" + std::to_string(getpid()); }

std::vector<std::string> Fields(const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream in(line);
    for (std::string field; std::getline(in, field, '\t');) fields.push_back(field);
    return fields;
}

std::string Joined(const std::vector<std::string>& fields) {
    std::string line;
    for (size_t i = 0; i < fields.size(); ++i) line += (i ? "\t" : "") + fields[i];
    return line;
}

// The manifest of a one-file backup, split at its one file record.
struct ManifestText {
    std::string head;                // every line before the file record
    std::vector<std::string> file;   // the file record's fields
};

ManifestText Split(const std::string& text) {
    ManifestText parts;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 5, "file\t") == 0) parts.file = Fields(line);
        else parts.head += line + "\n";
    }
    return parts;
}

std::string WithFileRecords(const ManifestText& manifest, const std::vector<std::vector<std::string>>& records,
                            const std::string& extra = "") {
    std::string text = manifest.head;
    for (const auto& record : records) text += Joined(record) + "\n";
    return text + extra;
}

std::vector<std::string> WithPath(std::vector<std::string> record, const std::string& path) {
    record[2] = path;
    return record;
}

struct Crafted {
    const char* name;
    // The crafted text from the real manifest; `outside` is a folder beside
    // the destination.
    std::function<std::string(const ManifestText& real, const std::string& outside)> craft;
};

const Crafted kCrafted[] = {
    {"ParentComponent", [](const ManifestText& m, const std::string&) {
         return WithFileRecords(m, {WithPath(m.file, "../" + PayloadName())}); }},
    {"TwoParentComponents", [](const ManifestText& m, const std::string&) {
         return WithFileRecords(m, {WithPath(m.file, "../../" + PayloadName())}); }},
    {"ParentInsideThePath", [](const ManifestText& m, const std::string&) {
         return WithFileRecords(m, {WithPath(m.file, "sub/../../" + PayloadName())}); }},
    {"AbsolutePath", [](const ManifestText& m, const std::string& outside) {
         return WithFileRecords(m, {WithPath(m.file, outside + "/" + PayloadName())}); }},
    {"DotComponent", [](const ManifestText& m, const std::string&) {
         return WithFileRecords(m, {WithPath(m.file, "./" + PayloadName())}); }},
    {"EmptyComponent", [](const ManifestText& m, const std::string&) {
         return WithFileRecords(m, {WithPath(m.file, "sub//" + PayloadName())}); }},
    {"NulInThePath", [](const ManifestText& m, const std::string&) {
         return WithFileRecords(m, {WithPath(m.file, "../" + PayloadName() + "%00ignored")}); }},
    {"ControlCharacter", [](const ManifestText& m, const std::string&) {
         return WithFileRecords(m, {WithPath(m.file, "a%0A" + PayloadName())}); }},
    {"Backslash", [](const ManifestText& m, const std::string&) {
         return WithFileRecords(m, {WithPath(m.file, "..\\" + PayloadName())}); }},
    {"DriveLetter", [](const ManifestText& m, const std::string&) {
         return WithFileRecords(m, {WithPath(m.file, "C:" + PayloadName())}); }},
    {"ComponentTooLong", [](const ManifestText& m, const std::string&) {
         return WithFileRecords(m, {WithPath(m.file, std::string(256, 'n'))}); }},
    {"DuplicatePath", [](const ManifestText& m, const std::string&) {
         std::vector<std::string> second = m.file;
         second[1] = "1";
         return WithFileRecords(m, {m.file, second}); }},
    {"FileIndexUsedTwice", [](const ManifestText& m, const std::string&) {
         return WithFileRecords(m, {m.file, WithPath(m.file, "other")}); }},
    {"SizeDisagreesWithThePartCount", [](const ManifestText& m, const std::string&) {
         std::vector<std::string> record = m.file;
         record[3] = std::to_string(3u << 20);  // three parts' worth, one part hash
         return WithFileRecords(m, {record}); }},
    {"FileBeneathALink", [](const ManifestText& m, const std::string& outside) {
         return WithFileRecords(m, {WithPath(m.file, "evil/" + PayloadName())}, "link\tevil\t" + outside + "\t0\n"); }},
};

class CraftedManifestTest : public HostToolTest, public ::testing::WithParamInterface<Crafted> {};

TEST_P(CraftedManifestTest, IsRefusedAsDamagedBeforeAnythingIsWritten) {
    WriteFile(Folder("source/" + PayloadName()), "payload");
    const std::string id = Backup(Folder("source"));
    const std::string manifest = "cloudplugin-host/manifests/" + id;
    ASSERT_EQ(Tool({"object", "get", manifest, Folder("real")}).status, 0);
    fs::create_directories(Folder("outside"));
    WriteFile(Folder("crafted"), GetParam().craft(Split(ReadFile(Folder("real"))), Folder("outside")));
    ASSERT_EQ(PutManifest(manifest, Folder("crafted")), 0);

    for (const bool overwrite : {false, true}) {
        std::vector<std::string> arguments = {"legacy", "restore", id, Folder("work/dest")};
        if (overwrite) arguments.push_back("--overwrite");
        const ToolRun restore = Tool(arguments);
        EXPECT_EQ(restore.status, 1) << restore.err;
        EXPECT_NE(restore.err.find("the manifest is damaged: entry '"), std::string::npos) << restore.err;
    }
    const ToolRun verify = Tool({"legacy", "verify", id});
    EXPECT_EQ(verify.status, 1) << verify.err;
    EXPECT_NE(verify.err.find("the manifest is damaged: entry '"), std::string::npos) << verify.err;

    // Nothing anywhere: not the destination, not beside it, not above it.
    EXPECT_FALSE(fs::exists(Folder("work/dest")));
    EXPECT_FALSE(fs::exists(Folder("work/" + PayloadName())));
    EXPECT_FALSE(fs::exists(Folder(PayloadName())));
    EXPECT_FALSE(fs::exists(fs::path(work_.PathUtf8()).parent_path() / PayloadName()));
    EXPECT_TRUE(fs::is_empty(Folder("outside")));
}

INSTANTIATE_TEST_SUITE_P(Restore, CraftedManifestTest, ::testing::ValuesIn(kCrafted),
                         [](const ::testing::TestParamInfo<Crafted>& info) { return std::string(info.param.name); });

}  // namespace

TEST_F(HostToolTest, ARestoreNeverWritesThroughALinkInsideTheDestination) {
    WriteFile(Folder("source/sub/file"), "payload");
    const std::string id = Backup(Folder("source"));
    fs::create_directories(Folder("outside"));
    fs::create_directories(Folder("dest"));
    fs::create_directory_symlink(Folder("outside"), Folder("dest/sub"));
    for (const bool overwrite : {false, true}) {
        std::vector<std::string> arguments = {"legacy", "restore", id, Folder("dest")};
        if (overwrite) arguments.push_back("--overwrite");
        const ToolRun restore = Tool(arguments);
        EXPECT_EQ(restore.status, 4) << restore.err;
        EXPECT_NE(restore.err.find("refusing to restore " + Folder("dest/sub") + ": it is a symbolic link"),
                  std::string::npos)
            << restore.err;
    }
    EXPECT_TRUE(fs::is_empty(Folder("outside")));
    EXPECT_TRUE(fs::is_symlink(Folder("dest/sub")));
}

TEST_F(HostToolTest, OverwriteReplacesALinkInsideTheDestinationNeverItsTarget) {
    WriteFile(Folder("source/file"), "payload");
    const std::string id = Backup(Folder("source"));
    WriteFile(Folder("outside/target"), "precious");
    fs::create_directories(Folder("dest"));
    fs::create_symlink(Folder("outside/target"), Folder("dest/file"));

    const ToolRun refused = Tool({"legacy", "restore", id, Folder("dest")});
    EXPECT_EQ(refused.status, 4) << refused.err;
    EXPECT_EQ(ReadFile(Folder("outside/target")), "precious");

    const ToolRun replaced = Tool({"legacy", "restore", id, Folder("dest"), "--overwrite"});
    ASSERT_EQ(replaced.status, 0) << replaced.err;
    EXPECT_FALSE(fs::is_symlink(Folder("dest/file")));
    EXPECT_EQ(ReadFile(Folder("dest/file")), "payload");
    EXPECT_EQ(ReadFile(Folder("outside/target")), "precious");
}
