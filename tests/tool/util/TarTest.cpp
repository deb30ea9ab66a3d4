// Tar headers: ustar fields where they fit, a pax header where they do not,
// checksums, padding, and content held to the size announced.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "util/Tar.h"

using namespace qvhost;

namespace {

std::string Written(const std::function<void(TarWriter&)>& write) {
    std::string out;
    TarWriter tar([&out](const uint8_t* data, size_t size) { out.append(reinterpret_cast<const char*>(data), size); });
    write(tar);
    return out;
}

std::string Field(const std::string& block, size_t offset, size_t width) {
    const std::string field = block.substr(offset, width);
    return field.substr(0, field.find('\0'));
}

uint64_t OctalField(const std::string& block, size_t offset, size_t width) {
    return std::strtoull(Field(block, offset, width).c_str(), nullptr, 8);
}

bool ChecksumHolds(const std::string& block) {
    unsigned sum = 0;
    for (size_t i = 0; i < 512; ++i) sum += (i >= 148 && i < 156) ? ' ' : static_cast<unsigned char>(block[i]);
    return OctalField(block, 148, 8) == sum;
}

TarEntry FileEntry(const std::string& path, uint64_t size) {
    TarEntry entry;
    entry.path = path;
    entry.mode = 0640;
    entry.uid = 1000;
    entry.gid = 100;
    entry.user = "alice";
    entry.group = "users";
    entry.size = size;
    entry.modifiedNs = 1700000000ll * 1000000000;
    return entry;
}

TEST(PaxRecord, ItsLengthCountsItself) {
    EXPECT_EQ(PaxRecord("path", "a"), "9 path=a\n");
    EXPECT_EQ(PaxRecord("path", std::string(90, 'x')), "99 path=" + std::string(90, 'x') + "\n");
    // 98 bytes after the length: two digits would make 100, which takes three.
    EXPECT_EQ(PaxRecord("k", std::string(94, 'y')).size(), 101u);
    EXPECT_EQ(PaxRecord("k", std::string(94, 'y')).substr(0, 4), "101 ");
}

TEST(TarWriter, AFileIsAUstarHeaderItsContentAndPadding) {
    const std::string out = Written([](TarWriter& tar) {
        tar.Add(FileEntry("dir/a.txt", 5));
        tar.Content(reinterpret_cast<const uint8_t*>("hello"), 5);
        tar.Finish();
    });
    ASSERT_EQ(out.size(), 512u * 4);
    const std::string header = out.substr(0, 512);
    EXPECT_EQ(Field(header, 0, 100), "dir/a.txt");
    EXPECT_EQ(OctalField(header, 100, 8), 0640u);
    EXPECT_EQ(OctalField(header, 108, 8), 1000u);
    EXPECT_EQ(OctalField(header, 124, 12), 5u);
    EXPECT_EQ(OctalField(header, 136, 12), 1700000000u);
    EXPECT_EQ(header[156], '0');
    EXPECT_EQ(header.substr(257, 8), std::string("ustar\0" "00", 8));
    EXPECT_EQ(Field(header, 265, 32), "alice");
    EXPECT_EQ(Field(header, 297, 32), "users");
    EXPECT_TRUE(ChecksumHolds(header));
    EXPECT_EQ(out.substr(512, 5), "hello");
    EXPECT_EQ(out.substr(517), std::string(512 * 3 - 5, '\0'));
}

TEST(TarWriter, WhatUstarCannotHoldGoesInAPaxHeader) {
    TarEntry entry = FileEntry(std::string(150, 'p'), 0);
    entry.modifiedNs += 250000000;
    entry.user = std::string(40, 'u');
    entry.xattrs = {{"user.note", "v"}};
    const std::string out = Written([&](TarWriter& tar) {
        tar.Add(entry);
        tar.Finish();
    });
    const std::string pax = out.substr(0, 512);
    EXPECT_EQ(pax[156], 'x');
    EXPECT_TRUE(ChecksumHolds(pax));
    const std::string records = out.substr(512, OctalField(pax, 124, 12));
    EXPECT_NE(records.find(PaxRecord("path", std::string(150, 'p'))), std::string::npos);
    EXPECT_NE(records.find(PaxRecord("mtime", "1700000000.25")), std::string::npos);
    EXPECT_NE(records.find(PaxRecord("uname", std::string(40, 'u'))), std::string::npos);
    EXPECT_NE(records.find(PaxRecord("SCHILY.xattr.user.note", "v")), std::string::npos);
    const std::string header = out.substr(1024, 512);
    EXPECT_EQ(header[156], '0');
    EXPECT_TRUE(ChecksumHolds(header));
}

TEST(TarWriter, AFolderGetsItsSlashAndALinkItsTarget) {
    TarEntry folder = FileEntry("dir", 0);
    folder.type = TarType::Folder;
    TarEntry link = FileEntry("dir/l", 0);
    link.type = TarType::Symlink;
    link.linkTarget = "../x";
    const std::string out = Written([&](TarWriter& tar) {
        tar.Add(folder);
        tar.Add(link);
        tar.Finish();
    });
    ASSERT_EQ(out.size(), 512u * 4);
    EXPECT_EQ(Field(out, 0, 100), "dir/");
    EXPECT_EQ(out[156], '5');
    EXPECT_EQ(Field(out, 512 + 157, 100), "../x");
    EXPECT_EQ(out[512 + 156], '2');
}

TEST(TarWriter, ContentMustMatchTheSizeAnnounced) {
    EXPECT_THROW(Written([](TarWriter& tar) {
                     tar.Add(FileEntry("a", 4));
                     tar.Content(reinterpret_cast<const uint8_t*>("ab"), 2);
                     tar.Finish();
                 }),
                 std::logic_error);
    EXPECT_THROW(Written([](TarWriter& tar) {
                     tar.Add(FileEntry("a", 1));
                     tar.Content(reinterpret_cast<const uint8_t*>("ab"), 2);
                 }),
                 std::logic_error);
}

}  // namespace
