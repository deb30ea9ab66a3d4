// The local side: what a scan of a source tree keeps and skips, times and
// modes, and the destination of a restore, which never writes through a
// symbolic link.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>

#include "util/AlignedBuffer.h"
#include "local/Destination.h"
#include "local/LocalFiles.h"
#include "util/Error.h"
#include "local/SourceEntries.h"
#include "support/TempFolder.h"

using namespace qvhost;
namespace fs = std::filesystem;

namespace {

using testsupport::WriteText;

std::string ReadText(const std::string& path) {
    std::ifstream in(fs::u8path(path), std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::pair<std::optional<ErrorKind>, std::string> Outcome(const std::function<void()>& action) {
    try {
        action();
    } catch (const Error& error) {
        return {error.kind(), error.what()};
    }
    return {std::nullopt, ""};
}

using localtest::PathsOf;

uint32_t ModeOf(const std::string& path) {
    struct stat info;
    lstat(path.c_str(), &info);
    return info.st_mode & 07777;
}

}  // namespace

TEST(ScanTree, KeepsFilesEmptyFoldersAndLinksSortedWithSlashes) {
    testsupport::TempFolder folder;
    const std::string root = folder.PathUtf8();
    WriteText(root + "/z.txt", "zz");
    WriteText(root + "/a/b/deep.bin", "");
    WriteText(root + "/ünï/文件.txt", "12345");
    fs::create_directories(root + "/empty-folder/empty-inside");
    fs::create_symlink("z.txt", root + "/link");
    fs::create_symlink("/nowhere/at/all", root + "/a/dangling");
    const SourceTree tree = ScanTree(root);
    EXPECT_EQ(PathsOf(tree.files), (std::vector<std::string>{"a/b/deep.bin", "z.txt", "ünï/文件.txt"}));
    EXPECT_EQ(tree.files[2].size, 5u);
    // Only folders in which nothing is kept: a/b holds a file, empty-folder a folder.
    EXPECT_EQ(PathsOf(tree.folders), (std::vector<std::string>{"empty-folder/empty-inside"}));
    EXPECT_EQ(PathsOf(tree.links), (std::vector<std::string>{"a/dangling", "link"}));
    EXPECT_EQ(tree.links[0].linkTarget, "/nowhere/at/all");
    EXPECT_EQ(tree.links[1].linkTarget, "z.txt");
    EXPECT_TRUE(tree.skipped.empty());
}

TEST(ScanTree, RecordsModeBitsAndTheLinksOwnTime) {
    testsupport::TempFolder folder;
    const std::string root = folder.PathUtf8();
    WriteText(root + "/script", "#!/bin/sh\n");
    chmod((root + "/script").c_str(), 04750);
    fs::create_directories(root + "/private");
    chmod((root + "/private").c_str(), 0700);
    fs::create_symlink("script", root + "/link");
    SetModifiedNs(root + "/link", 1000000000123);  // the link's time, the target keeps its own
    const SourceTree tree = ScanTree(root);
    ASSERT_EQ(tree.files.size(), 1u);
    EXPECT_EQ(tree.files[0].mode, 04750u);
    ASSERT_EQ(tree.folders.size(), 1u);
    EXPECT_EQ(tree.folders[0].mode, 0700u);
    ASSERT_EQ(tree.links.size(), 1u);
    EXPECT_EQ(tree.links[0].modifiedNs, 1000000000123);
    EXPECT_NE(tree.files[0].modifiedNs, 1000000000123);
}

TEST(ScanTree, SkipsFifosAndReportsNamesARestoreWouldRefuse) {
    testsupport::TempFolder folder;
    const std::string root = folder.PathUtf8();
    WriteText(root + "/kept", "x");
    ASSERT_EQ(mkfifo((root + "/pipe").c_str(), 0600), 0);
    WriteText(root + "/with:colon", "x");
    WriteText(root + "/with\\backslash", "x");
    WriteText(root + "/line\nbreak", "x");
    const SourceTree tree = ScanTree(root);
    EXPECT_EQ(PathsOf(tree.files), (std::vector<std::string>{"kept"}));
    ASSERT_EQ(tree.skipped.size(), 4u);
    for (const SkippedEntry& entry : tree.skipped) {
        EXPECT_EQ(entry.unreadable, entry.relativePath != "pipe") << entry.relativePath;
    }
    const auto pipe = std::find_if(tree.skipped.begin(), tree.skipped.end(),
                                   [](const SkippedEntry& entry) { return entry.relativePath == "pipe"; });
    ASSERT_NE(pipe, tree.skipped.end());
    EXPECT_EQ(pipe->reason, "is a FIFO");
}

TEST(ScanTree, AMissingFolderIsALocalFileError) {
    testsupport::TempFolder folder;
    EXPECT_EQ(Outcome([&] { ScanTree(folder.PathUtf8() + "/missing"); }).first, ErrorKind::LocalFile);
}

TEST(LocalFiles, ModificationTimesRoundTripToTheNanosecond) {
    testsupport::TempFolder folder;
    const std::string path = folder.PathUtf8() + "/f";
    WriteText(path, "x");
    for (int64_t time : {int64_t(1700000000123456789), int64_t(0), int64_t(-86400000000001)}) {
        SetModifiedNs(path, time);
        EXPECT_EQ(ModifiedNs(path), time);
    }
}

TEST(LocalFiles, AUserFileIsReadWholeUpToItsLimitAndRefusedBeyondIt) {
    testsupport::TempFolder folder;
    const std::string path = folder.PathUtf8() + "/list";
    const std::string text(70000, 'x');  // more than one read of the helper's buffer
    WriteText(path, text);
    EXPECT_EQ(ReadUserFile(path, "list", text.size()), text);
    const auto [kind, message] = Outcome([&] { ReadUserFile(path, "list", text.size() - 1); });
    EXPECT_EQ(kind, ErrorKind::LocalFile);
    EXPECT_NE(message.find("the list " + path + " is over 69999 bytes"), std::string::npos) << message;
    const auto missing = Outcome([&] { ReadUserFile(path + ".missing", "price table", 100); });
    EXPECT_EQ(missing.first, ErrorKind::LocalFile);
    EXPECT_NE(missing.second.find("cannot read the price table " + path + ".missing"), std::string::npos);
}

TEST(LocalFiles, InputFileDoesNotFollowALink) {
    testsupport::TempFolder folder;
    WriteText(folder.PathUtf8() + "/target", "secret");
    fs::create_symlink(folder.PathUtf8() + "/target", folder.PathUtf8() + "/link");
    EXPECT_EQ(Outcome([&] { InputFile input(folder.PathUtf8() + "/link"); }).first, ErrorKind::LocalFile);
}

TEST(LocalFiles, OutputFileRefusesToReplaceUnlessTold) {
    testsupport::TempFolder folder;
    const std::string path = folder.PathUtf8() + "/new/sub/f";
    {
        OutputFile output(path, false);  // makes the folders
        output.Write("abc", 3);
        output.Close();
    }
    EXPECT_EQ(Outcome([&] { OutputFile again(path, false); }).first, ErrorKind::LocalFile);
    OutputFile replaced(path, true);
    replaced.Close();
    EXPECT_EQ(fs::file_size(fs::u8path(path)), 0u);
}

// A node of the given kind with a mode and a modification time.
repo::Node NodeOf(repo::NodeType type, uint32_t mode, int64_t modifiedNs, const std::string& target = "") {
    repo::Node node;
    node.type = type;
    node.mode = mode;
    node.modifiedNs = modifiedNs;
    node.linkTarget = target;
    return node;
}

repo::Node FileNode(uint32_t mode, int64_t modifiedNs) { return NodeOf(repo::NodeType::File, mode, modifiedNs); }
repo::Node FolderNode(uint32_t mode, int64_t modifiedNs) { return NodeOf(repo::NodeType::Folder, mode, modifiedNs); }
repo::Node LinkNode(const std::string& target, int64_t modifiedNs) {
    return NodeOf(repo::NodeType::Link, 0777, modifiedNs, target);
}

class DestinationTest : public ::testing::Test {
protected:
    std::string Root() const { return work_.PathUtf8() + "/dest"; }
    std::string Outside() const { return work_.PathUtf8() + "/outside"; }

    void Restore(Destination& destination, const std::string& path, const std::string& text, uint32_t mode = 0644) {
        std::unique_ptr<repo::RestoredFile> file = destination.MakeFile(path, FileNode(mode, 0));
        file->WriteAt(0, text.data(), text.size());
        file->Commit(FileNode(mode, 1234567890000000000));
    }

    testsupport::TempFolder work_;
};

TEST_F(DestinationTest, WritesFilesWithTheirModeAndTimeAndNoTemporaryLeft) {
    Destination destination(Root(), DestinationOptions{false, false});
    Restore(destination, "a/b/file", "content", 0751);
    EXPECT_EQ(ReadText(Root() + "/a/b/file"), "content");
    EXPECT_EQ(ModeOf(Root() + "/a/b/file"), 0751u);
    EXPECT_EQ(ModifiedNs(Root() + "/a/b/file"), 1234567890000000000);
    EXPECT_EQ(std::distance(fs::directory_iterator(Root() + "/a/b"), fs::directory_iterator()), 1);
}

TEST_F(DestinationTest, PartsMayArriveInAnyOrder) {
    Destination destination(Root(), DestinationOptions{false, false});
    std::unique_ptr<repo::RestoredFile> file = destination.MakeFile("f", FileNode(0644, 0));
    file->WriteAt(3, "def", 3);
    file->WriteAt(0, "abc", 3);
    file->Commit(FileNode(0644, 0));
    EXPECT_EQ(ReadText(Root() + "/f"), "abcdef");
}

TEST_F(DestinationTest, WholeBlocksAndAnUnalignedTailMakeOneFile) {
    // Two 8 KiB parts from page-aligned buffers (direct I/O where the file
    // system has it), then a 5-byte tail, which the cache takes.
    AlignedBuffer buffer;
    buffer.Reserve(8192);
    Destination destination(Root(), DestinationOptions{false, false});
    std::unique_ptr<repo::RestoredFile> file = destination.MakeFile("big", FileNode(0640, 0));
    std::string expected;
    for (const char fill : {'b', 'a'}) {
        std::memset(buffer.data(), fill, 8192);
        file->WriteAt(fill == 'a' ? 0 : 8192, buffer.data(), 8192);
    }
    std::memcpy(buffer.data(), "tail!", 5);
    file->WriteAt(16384, buffer.data(), 5);
    file->Commit(FileNode(0640, 0));
    EXPECT_EQ(ReadText(Root() + "/big"), std::string(8192, 'a') + std::string(8192, 'b') + "tail!");
    EXPECT_EQ(ModeOf(Root() + "/big"), 0640u);
}

TEST_F(DestinationTest, SetIdBitsAreNeverRestored) {
    Destination destination(Root(), DestinationOptions{false, false});
    Restore(destination, "tool", "#!/bin/sh\n", 06755);
    EXPECT_EQ(ModeOf(Root() + "/tool"), 0755u);
}

TEST_F(DestinationTest, AFileThatIsNotCommittedLeavesNothing) {
    Destination destination(Root(), DestinationOptions{false, false});
    {
        std::unique_ptr<repo::RestoredFile> file = destination.MakeFile("dir/abandoned", FileNode(0644, 0));
        file->WriteAt(0, "x", 1);
    }
    EXPECT_TRUE(fs::is_empty(Root() + "/dir"));
}

TEST_F(DestinationTest, ALinkOnTheWayIsRefusedAndNothingIsWrittenThroughIt) {
    fs::create_directories(Outside());
    fs::create_directories(Root());
    fs::create_directory_symlink(Outside(), Root() + "/sub");
    for (const bool overwrite : {false, true}) {
        Destination destination(Root(), DestinationOptions{overwrite, false});
        const auto [status, message] = Outcome([&] { destination.Check("sub/x", EntryKind::File); });
        EXPECT_EQ(status, ErrorKind::LocalFile);
        EXPECT_NE(message.find("symbolic link"), std::string::npos) << message;
        EXPECT_EQ(Outcome([&] { Restore(destination, "sub/x", "x"); }).first, ErrorKind::LocalFile);
        EXPECT_EQ(Outcome([&] { destination.MakeFolder("sub/folder", FolderNode(0755, 0)); }).first, ErrorKind::LocalFile);
        EXPECT_EQ(Outcome([&] { destination.MakeLink("sub/link", LinkNode("t", 0)); }).first, ErrorKind::LocalFile);
    }
    EXPECT_TRUE(fs::is_empty(Outside()));
}

TEST_F(DestinationTest, AnExistingEntryIsRefusedUnlessOverwriting) {
    WriteText(Root() + "/f", "keep me");
    Destination destination(Root(), DestinationOptions{false, false});
    EXPECT_EQ(Outcome([&] { destination.Check("f", EntryKind::File); }).first, ErrorKind::LocalFile);
    EXPECT_EQ(Outcome([&] { Restore(destination, "f", "new"); }).first, ErrorKind::LocalFile);
    EXPECT_EQ(ReadText(Root() + "/f"), "keep me");
    EXPECT_EQ(Outcome([&] { destination.MakeLink("f", LinkNode("t", 0)); }).first, ErrorKind::LocalFile);
}

TEST_F(DestinationTest, OverwriteReplacesALinkItselfNeverItsTarget) {
    WriteText(Outside() + "/target", "outside stays");
    fs::create_directories(Root());
    fs::create_symlink(Outside() + "/target", Root() + "/f");
    Destination destination(Root(), DestinationOptions{true, false});
    destination.Check("f", EntryKind::File);
    Restore(destination, "f", "restored");
    EXPECT_FALSE(fs::is_symlink(Root() + "/f"));
    EXPECT_EQ(ReadText(Root() + "/f"), "restored");
    EXPECT_EQ(ReadText(Outside() + "/target"), "outside stays");
}

TEST_F(DestinationTest, AFolderIsNeverReplaced) {
    fs::create_directories(Root() + "/d/inner");
    Destination destination(Root(), DestinationOptions{true, false});
    EXPECT_EQ(Outcome([&] { destination.Check("d", EntryKind::File); }).first, ErrorKind::LocalFile);
    EXPECT_EQ(Outcome([&] { destination.Check("d", EntryKind::Link); }).first, ErrorKind::LocalFile);
    EXPECT_EQ(Outcome([&] { destination.Check("d", EntryKind::Folder); }).first, std::nullopt);
    EXPECT_EQ(Outcome([&] { Restore(destination, "d", "x"); }).first, ErrorKind::LocalFile);
    EXPECT_TRUE(fs::is_directory(Root() + "/d/inner"));
}

TEST_F(DestinationTest, LinksAndEmptyFoldersAreMadeAsTheBackupHasThem) {
    Destination destination(Root(), DestinationOptions{false, false});
    destination.MakeLink("a/link", LinkNode("../../elsewhere", 5000000000));
    destination.MakeFolder("a/empty", FolderNode(0710, 6000000000));
    EXPECT_EQ(fs::read_symlink(Root() + "/a/link").string(), "../../elsewhere");
    EXPECT_EQ(ModifiedNs(Root() + "/a/link"), 5000000000);
    EXPECT_EQ(ModeOf(Root() + "/a/empty"), 0710u);
    EXPECT_EQ(ModifiedNs(Root() + "/a/empty"), 6000000000);
}
