// What the Windows build reads of an entry (run under Wine): kind, size,
// times, the file id that tells hard links, the attributes kept as an
// extended attribute, a long path, and the change state that tells an
// unchanged file.
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <string>

#include "local/LocalEntry.h"
#include "util/Error.h"
#include "support/TempFolder.h"

namespace {

using namespace qvhost;

std::wstring Wide(const std::string& path) { return std::wstring(path.begin(), path.end()); }

const repo::Xattr* Find(const repo::Node& node, const std::string& name) {
    const auto found = std::find_if(node.xattrs.begin(), node.xattrs.end(),
                                    [&](const repo::Xattr& xattr) { return xattr.name == name; });
    return found == node.xattrs.end() ? nullptr : &*found;
}

TEST(LocalEntryWin32, AFileIsReadWithItsSizeTimesAttributesAndId) {
    testsupport::TempFolder folder;
    const std::string root = folder.PathUtf8();
    testsupport::WriteText(root + "\\a.txt", "hello");
    ASSERT_TRUE(SetFileAttributesW(Wide(root + "\\a.txt").c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE));
    localentry::EntryReader reader;
    repo::Node node;
    node.name = "a.txt";
    repo::Listing listing;
    ASSERT_TRUE(reader.Read(root + "\\a.txt", "a.txt", node, listing));
    EXPECT_TRUE(listing.skipped.empty());
    EXPECT_EQ(node.type, repo::NodeType::File);
    EXPECT_EQ(node.size, 5u);
    EXPECT_EQ(node.mode, 0644u);
    EXPECT_GT(node.modifiedNs, 0);
    EXPECT_NE(node.changedNs, 0);
    EXPECT_EQ(node.accessedNs, 0) << "access times are not kept";
    EXPECT_NE(node.inode, 0u);
    const repo::Xattr* attributes = Find(node, localentry::kWindowsAttributesXattr);
    ASSERT_NE(attributes, nullptr);
    const unsigned long bits = std::stoul(attributes->value, nullptr, 16);
    EXPECT_TRUE(bits & FILE_ATTRIBUTE_HIDDEN) << attributes->value;
    EXPECT_TRUE(std::is_sorted(node.xattrs.begin(), node.xattrs.end(),
                               [](const repo::Xattr& a, const repo::Xattr& b) { return a.name < b.name; }));
}

TEST(LocalEntryWin32, AReadOnlyFileIsMode0444AndAFolderIsAFolder) {
    testsupport::TempFolder folder;
    const std::string root = folder.PathUtf8();
    testsupport::WriteText(root + "\\sub\\locked.txt", "x");
    ASSERT_TRUE(SetFileAttributesW(Wide(root + "\\sub\\locked.txt").c_str(), FILE_ATTRIBUTE_READONLY));
    localentry::EntryReader reader;
    repo::Listing listing;
    repo::Node file;
    ASSERT_TRUE(reader.Read(root + "\\sub\\locked.txt", "sub/locked.txt", file, listing));
    EXPECT_EQ(file.mode, 0444u);
    repo::Node sub;
    ASSERT_TRUE(reader.Read(root + "\\sub", "sub", sub, listing));
    EXPECT_EQ(sub.type, repo::NodeType::Folder);
    std::string error;
    EXPECT_EQ(localentry::FolderNames(root + "\\sub", error), std::vector<std::string>{"locked.txt"});
    EXPECT_EQ(error, "");
    SetFileAttributesW(Wide(root + "\\sub\\locked.txt").c_str(), FILE_ATTRIBUTE_NORMAL);  // so that it can go
}

TEST(LocalEntryWin32, TwoNamesOfOneFileShareItsIdAndCountTwoLinks) {
    testsupport::TempFolder folder;
    const std::string root = folder.PathUtf8();
    testsupport::WriteText(root + "\\first.bin", "same content");
    ASSERT_TRUE(CreateHardLinkW(Wide(root + "\\second.bin").c_str(), Wide(root + "\\first.bin").c_str(), nullptr));
    localentry::EntryReader reader;
    repo::Listing listing;
    repo::Node first, second;
    ASSERT_TRUE(reader.Read(root + "\\first.bin", "first.bin", first, listing));
    ASSERT_TRUE(reader.Read(root + "\\second.bin", "second.bin", second, listing));
    EXPECT_EQ(first.inode, second.inode);
    EXPECT_EQ(first.device, second.device);
    EXPECT_EQ(first.links, 2u);
}

TEST(LocalEntryWin32, AnUnchangedFileKeepsItsStateAndAWriteChangesIt) {
    testsupport::TempFolder folder;
    const std::string root = folder.PathUtf8();
    const std::string path = root + "\\state.txt";
    testsupport::WriteText(path, "one");
    localentry::EntryReader reader;
    repo::Listing listing;
    repo::Node node;
    ASSERT_TRUE(reader.Read(path, "state.txt", node, listing));
    EXPECT_TRUE(localentry::SameState(localentry::StateOf(path), node));
    Sleep(20);
    testsupport::WriteText(path, "three");
    EXPECT_FALSE(localentry::SameState(localentry::StateOf(path), node));
}

TEST(LocalEntryWin32, APathLongerThanMaxPathIsRead) {
    testsupport::TempFolder folder;
    std::string path = folder.PathUtf8();
    std::wstring wide = L"\\\\?\\" + Wide(path);
    for (int i = 0; i < 12; ++i) {
        const std::string component = "a-rather-long-folder-name-" + std::to_string(i);
        path += "\\" + component;
        wide += L"\\" + Wide(component);
        ASSERT_TRUE(CreateDirectoryW(wide.c_str(), nullptr)) << GetLastError();
    }
    ASSERT_GT(path.size(), static_cast<size_t>(MAX_PATH));
    localentry::EntryStatus status;
    std::string error;
    ASSERT_TRUE(localentry::StatusOf(path, status, error)) << error;
    EXPECT_TRUE(status.isFolder);
    // Remove the deep folders through the long form: the test folder's own clean-up does not take them.
    for (int i = 11; i >= 0; --i) {
        RemoveDirectoryW(wide.c_str());
        wide.resize(wide.rfind(L'\\'));
    }
}

TEST(LocalEntryWin32, AMissingEntryIsAnErrorNotAnEntry) {
    testsupport::TempFolder folder;
    localentry::EntryStatus status;
    std::string error;
    EXPECT_FALSE(localentry::StatusOf(folder.PathUtf8() + "\\missing", status, error));
    EXPECT_FALSE(error.empty());
    EXPECT_THROW(localentry::StateOf(folder.PathUtf8() + "\\missing"), Error);
}

}  // namespace
