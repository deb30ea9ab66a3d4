// The manifest: every field round trips, version 1 manifests still decode,
// and every kind of damage a writer to the container could put in one is
// refused as damaged data naming the entry.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>

#include "legacy/Manifest.h"
#include "util/Sha256.h"
#include "util/Error.h"

using namespace qvhost;
using namespace qvhost::legacy;

namespace {

ManifestFile FileEntry(uint32_t index, std::string path, uint64_t size, size_t parts, uint32_t mode = 0640) {
    ManifestFile file;
    file.index = index;
    file.relativePath = std::move(path);
    file.size = size;
    file.modifiedNs = -1234567890123;  // before 1970: signed times survive
    for (size_t i = 0; i < parts; ++i) file.partSha256.push_back(std::string(63, 'b') + char('0' + i));
    file.sha256 = FileDigestOf(file.partSha256);
    file.mode = mode;
    return file;
}

Manifest SampleManifest() {
    Manifest manifest;
    manifest.backupId = "20261122-101500-abcd";
    manifest.source = "/data/the source\twith a tab";
    manifest.created = "2026-11-22T10:15:00Z";
    manifest.partSize = 10;
    manifest.files = {FileEntry(0, "empty", 0, 0), FileEntry(1, "dir/ünïcödé 文件.txt", 10, 1, 04755),
                      FileEntry(2, "odd%name", 25, 3)};
    manifest.folders = {{"dir/nothing here", 1700000000000000001, 0700}};
    manifest.links = {{"dir/to-empty", "../empty", 42}, {"outside", "/etc/passwd\twith a tab", -5}};
    return manifest;
}

// The exit status and message of decoding `text`.
std::pair<std::optional<ErrorKind>, std::string> Decode(const std::string& text) {
    try {
        DecodeManifest(text);
    } catch (const Error& error) {
        return {error.kind(), error.what()};
    }
    return {std::nullopt, ""};
}

// A file record of one part (5 bytes) whose digests fit.
std::string OnePartRecord() {
    const std::string part(64, 'c');
    return "\t5\t0\t" + FileDigestOf({part}) + "\t" + part + "\t0644";
}

std::string WithFile(const std::string& path, const std::string& rest = OnePartRecord()) {
    return EncodeManifest(SampleManifest()) + "file\t9\t" + path + rest + "\n";
}

}  // namespace

TEST(Manifest, EncodesAndDecodesEveryField) {
    const Manifest original = SampleManifest();
    const Manifest decoded = DecodeManifest(EncodeManifest(original));
    EXPECT_EQ(decoded.backupId, original.backupId);
    EXPECT_EQ(decoded.source, original.source);
    EXPECT_EQ(decoded.created, original.created);
    EXPECT_EQ(decoded.partSize, original.partSize);
    ASSERT_EQ(decoded.files.size(), original.files.size());
    for (size_t i = 0; i < original.files.size(); ++i) {
        EXPECT_EQ(decoded.files[i].index, original.files[i].index);
        EXPECT_EQ(decoded.files[i].relativePath, original.files[i].relativePath);
        EXPECT_EQ(decoded.files[i].size, original.files[i].size);
        EXPECT_EQ(decoded.files[i].modifiedNs, original.files[i].modifiedNs);
        EXPECT_EQ(decoded.files[i].sha256, original.files[i].sha256);
        EXPECT_EQ(decoded.files[i].partSha256, original.files[i].partSha256);
        EXPECT_EQ(decoded.files[i].mode, original.files[i].mode);
    }
    ASSERT_EQ(decoded.folders.size(), 1u);
    EXPECT_EQ(decoded.folders[0].relativePath, "dir/nothing here");
    EXPECT_EQ(decoded.folders[0].modifiedNs, 1700000000000000001);
    EXPECT_EQ(decoded.folders[0].mode, 0700u);
    ASSERT_EQ(decoded.links.size(), 2u);
    EXPECT_EQ(decoded.links[1].relativePath, "outside");
    EXPECT_EQ(decoded.links[1].target, "/etc/passwd\twith a tab");
    EXPECT_EQ(decoded.links[1].modifiedNs, -5);
    EXPECT_EQ(decoded.TotalBytes(), 35u);
    EXPECT_EQ(decoded.ObjectCount(), 4u);
    EXPECT_EQ(decoded.EntryCount(), 6u);
}

TEST(Manifest, ControlCharactersInTextsNeverBreakTheLineFormat) {
    const std::string text = EncodeManifest(SampleManifest());
    // Header, four settings, three files, a folder, two links: eleven lines.
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 11);
    EXPECT_NE(text.find("odd%25name"), std::string::npos);
    EXPECT_NE(text.find("/etc/passwd%09with a tab"), std::string::npos);
}

TEST(Manifest, AVersionOneManifestWithoutModesStillDecodes) {
    const std::string text = "cloudplugin-host-manifest 1\nbackup\tb1\nsource\t/s\ncreated\tnow\npart-size\t4\n"
                             "file\t0\ta/b.txt\t5\t7\t" + std::string(64, 'a') + "\t" + std::string(64, 'b') + "," +
                             std::string(64, 'c') + "\n";
    const Manifest manifest = DecodeManifest(text);
    ASSERT_EQ(manifest.files.size(), 1u);
    EXPECT_EQ(manifest.files[0].relativePath, "a/b.txt");
    EXPECT_FALSE(manifest.files[0].mode.has_value());
    EXPECT_TRUE(manifest.folders.empty());
    // Version 1 knew no folders or links.
    EXPECT_EQ(Decode(text + "folder\tx\t0\t0755\n").first, ErrorKind::Damaged);
}

TEST(Manifest, DamagedTextIsRefusedAsDamaged) {
    const std::string good = EncodeManifest(SampleManifest());
    const std::string hash = std::string(64, 'a');
    const std::vector<std::string> damaged = {
        "",
        "not a manifest\n",
        "cloudplugin-host-manifest 3\n",                                   // a version from the future
        good.substr(0, good.size() - 5),                                   // cut off
        good + "file\t9\tx\t5\t0\t" + hash + "\t\t0644\n",                 // 5 bytes need one part
        good + "file\t9\tx\t-5\t0\t" + hash + "\t\t0644\n",                // negative size
        good + "file\t9\tx\t0\t0\t" + hash + "\t\n",                       // no mode field
        good + "file\t9\tx\t0\t0\t" + hash + "\t\t9999\n",                 // not an octal mode
        good + "file\t9\tx\t0\t0\t" + hash + "\t\t17777\n",                // beyond the mode bits
        good + "file\t4294967296\tx\t0\t0\t" + hash + "\t\t0644\n",        // index out of range
        good + "mystery\tvalue\n",                                         // unknown record
        good + "file\t9\tx%zz\t0\t0\t" + hash + "\t\t0644\n",              // bad escape
        good + "file\t9\tx\t0\t0\t" + std::string(64, 'g') + "\t\t0644\n",  // not a hash
        good + "link\tl\t\t0\n",                                           // a link without a target
    };
    for (const std::string& text : damaged) {
        EXPECT_EQ(Decode(text).first, ErrorKind::Damaged) << text;
    }
}

// Each rule a restore relies on, refused with the entry named.
TEST(Manifest, PathsThatCouldLeaveTheDestinationAreDamage) {
    for (const std::string& path : std::vector<std::string>{"../x", "../../x", "/tmp/x", "sub/../../x", "a/./b", "a//b", "a%00b", "a%0Ab",
                                   "a\\b", "C:x", std::string(300, 'n')}) {
        const auto [status, message] = Decode(WithFile(path));
        EXPECT_EQ(status, ErrorKind::Damaged) << path;
        EXPECT_NE(message.find("entry '"), std::string::npos) << message;
    }
}

TEST(Manifest, APathNamedTwiceIsDamage) {
    const auto [status, message] = Decode(WithFile("empty", "\t0\t0\t" + FileDigestOf({}) + "\t\t0644"));
    EXPECT_EQ(status, ErrorKind::Damaged);
    EXPECT_NE(message.find("entry 'empty' is named twice"), std::string::npos) << message;
}

TEST(Manifest, AFileIndexUsedTwiceIsDamage) {
    Manifest manifest = SampleManifest();
    manifest.files.push_back(FileEntry(1, "another", 0, 0));
    const auto [status, message] = Decode(EncodeManifest(manifest));
    EXPECT_EQ(status, ErrorKind::Damaged);
    EXPECT_NE(message.find("entry 'another' reuses file index 1"), std::string::npos) << message;
}

TEST(Manifest, AFileDigestThatDoesNotFitThePartHashesIsDamage) {
    Manifest manifest = SampleManifest();
    manifest.files[1].sha256 = std::string(64, 'a');
    const auto [status, message] = Decode(EncodeManifest(manifest));
    EXPECT_EQ(status, ErrorKind::Damaged);
    EXPECT_NE(message.find("has a file digest that does not fit its part hashes"), std::string::npos) << message;
}

TEST(Manifest, AFileDigestIsTheHashOfThePartHashesInOrder) {
    const std::string a(64, 'a');
    const std::string b(64, 'b');
    EXPECT_EQ(FileDigestOf({}), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(FileDigestOf({a, b}), ToHex(Sha256Of((a + b).data(), 128)));
    EXPECT_NE(FileDigestOf({a, b}), FileDigestOf({b, a}));
}

TEST(Manifest, PartCountsThatDisagreeWithTheSizeAreDamage) {
    Manifest manifest = SampleManifest();
    manifest.files.push_back(FileEntry(7, "short", 21, 2));  // 21 bytes in parts of 10 take 3
    const auto [status, message] = Decode(EncodeManifest(manifest));
    EXPECT_EQ(status, ErrorKind::Damaged);
    EXPECT_NE(message.find("entry 'short' has 2 parts for 21 bytes"), std::string::npos) << message;
}

TEST(Manifest, APartSizeNoPlugInCallCarriesIsDamage) {
    for (const uint64_t partSize : {uint64_t(0), kMaximumPartSize + 1, uint64_t(1) << 62}) {
        Manifest manifest = SampleManifest();
        manifest.files.clear();
        manifest.partSize = partSize;
        EXPECT_EQ(Decode(EncodeManifest(manifest)).first, ErrorKind::Damaged) << partSize;
    }
}

TEST(Manifest, AnEntryBeneathAFileOrALinkIsDamage) {
    Manifest beneathLink = SampleManifest();
    beneathLink.files.push_back(FileEntry(8, "outside/passwd", 0, 0));
    const auto [status, message] = Decode(EncodeManifest(beneathLink));
    EXPECT_EQ(status, ErrorKind::Damaged);
    EXPECT_NE(message.find("lies beneath the file or link 'outside'"), std::string::npos) << message;

    Manifest beneathFile = SampleManifest();
    beneathFile.folders.push_back({"empty/inside", 0, 0755});
    EXPECT_EQ(Decode(EncodeManifest(beneathFile)).first, ErrorKind::Damaged);
}

TEST(Manifest, HugeSizesDoNotOverflowThePartCount) {
    EXPECT_EQ(PartCount(UINT64_MAX, 1ull << 30), (UINT64_MAX >> 30) + 1);
    EXPECT_EQ(PartBytes(25, 10, 2), 5u);
    EXPECT_EQ(PartBytes(25, 10, 3), 0u);
}

TEST(Layout, NamesPartsAndManifestsUnderTheRoot) {
    Layout layout;
    EXPECT_EQ(layout.ManifestName("b1"), "cloudplugin-host/manifests/b1");
    EXPECT_EQ(layout.DataPrefix("b1"), "cloudplugin-host/backups/b1/");
    EXPECT_EQ(layout.PartName("b1", 12, 3), "cloudplugin-host/backups/b1/000012.0003");
    EXPECT_EQ(layout.BackupOfPart("cloudplugin-host/backups/b1/000012.0003"), "b1");
    EXPECT_EQ(layout.BackupOfPart("cloudplugin-host/backups/b1"), "");
    EXPECT_EQ(layout.BackupOfPart("cloudplugin-host/backups/../x/1"), "");
    EXPECT_EQ(layout.BackupOfPart("cloudplugin-host/manifests/b1"), "");
    layout.root = "team/x";
    EXPECT_EQ(layout.PartName("b1", 0, 0), "team/x/backups/b1/000000.0000");
}

TEST(Layout, BackupIdsAreSafeObjectNameParts) {
    EXPECT_TRUE(IsValidBackupId("20261122-101500-abcd"));
    EXPECT_TRUE(IsValidBackupId("nightly_1.2"));
    EXPECT_FALSE(IsValidBackupId(""));
    EXPECT_FALSE(IsValidBackupId(".hidden"));
    EXPECT_FALSE(IsValidBackupId("a/b"));
    EXPECT_FALSE(IsValidBackupId("a b"));
    EXPECT_FALSE(IsValidBackupId(std::string(101, 'a')));
}

TEST(PartCount, CoversEveryByteWithWholeParts) {
    EXPECT_EQ(PartCount(0, 64), 0u);
    EXPECT_EQ(PartCount(1, 64), 1u);
    EXPECT_EQ(PartCount(64, 64), 1u);
    EXPECT_EQ(PartCount(65, 64), 2u);
}
