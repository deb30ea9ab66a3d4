// The host tool's pieces that need no JVM: JSON output, the manifest, sizes,
// object names, the class path, local files and the parallel runner.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "Commands.h"
#include "HostRuntime.h"
#include "Json.h"
#include "LocalFiles.h"
#include "Manifest.h"
#include "Progress.h"
#include "ToolError.h"
#include "support/TempFolder.h"

using namespace qvhost;

namespace {

ManifestFile FileEntry(uint32_t index, std::string path, uint64_t size, size_t parts) {
    ManifestFile file;
    file.index = index;
    file.relativePath = std::move(path);
    file.size = size;
    file.modifiedNs = -1234567890123;  // before 1970: signed times survive
    file.sha256 = std::string(64, 'a');
    for (size_t i = 0; i < parts; ++i) file.partSha256.push_back(std::string(63, 'b') + char('0' + i));
    return file;
}

Manifest SampleManifest() {
    Manifest manifest;
    manifest.backupId = "20261122-101500-abcd";
    manifest.source = "/data/the source\twith a tab";
    manifest.created = "2026-11-22T10:15:00Z";
    manifest.partSize = 10;
    manifest.files = {FileEntry(0, "empty", 0, 0), FileEntry(1, "dir/ünïcödé 文件.txt", 10, 1),
                      FileEntry(2, "odd%name\nwith\rcontrol", 25, 3)};
    return manifest;
}

void WriteText(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::u8path(path).parent_path());
    std::ofstream(std::filesystem::u8path(path), std::ios::binary) << text;
}

int ExitStatusOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const ToolError& error) {
        return error.exitStatus();
    }
    return kExitOk;
}

}  // namespace

TEST(JsonOutput, ObjectsKeepTheirMemberOrderAndEscapeText) {
    Json json = Json::Object({{"b", 1}, {"a", "x\"y\\z\n\x01"}});
    json.Add("list", Json::Array().Push(true).Push(Json()).Push(2.5));
    EXPECT_EQ(json.Text(), "{\"b\":1,\"a\":\"x\\\"y\\\\z\\n\\u0001\",\"list\":[true,null,2.500]}");
}

TEST(JsonOutput, NonAsciiTextPassesThroughAsUtf8) {
    EXPECT_EQ(Json("Grüße 文件").Text(), "\"Grüße 文件\"");
}

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
    }
    EXPECT_EQ(decoded.TotalBytes(), 35u);
    EXPECT_EQ(decoded.ObjectCount(), 4u);
}

TEST(Manifest, ControlCharactersInPathsNeverBreakTheLineFormat) {
    const std::string text = EncodeManifest(SampleManifest());
    // Header, four settings, three files: eight lines, each ending in LF.
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 8);
    EXPECT_NE(text.find("odd%25name%0Awith%0Dcontrol"), std::string::npos);
}

TEST(Manifest, DamagedTextIsRefusedAsDamaged) {
    const std::string good = EncodeManifest(SampleManifest());
    const std::vector<std::string> damaged = {
        "",
        "not a manifest\n",
        good.substr(0, good.size() - 5),                                  // cut off
        good + "file\t9\tx\t5\t0\t" + std::string(64, 'a') + "\t\n",      // 5 bytes need one part
        good + "file\t9\tx\t-5\t0\t" + std::string(64, 'a') + "\t\n",     // negative size
        good + "mystery\tvalue\n",                                        // unknown record
        good + "file\t9\tx%zz\t0\t0\t" + std::string(64, 'a') + "\t\n",  // bad escape
        good + "file\t9\tx\t0\t0\t" + std::string(64, 'g') + "\t\n",      // not a hash
    };
    for (const std::string& text : damaged) {
        EXPECT_EQ(ExitStatusOf([&] { DecodeManifest(text); }), kExitDamaged) << text;
    }
}

TEST(BackupLayout, NamesPartsAndManifestsUnderTheRoot) {
    BackupLayout layout;
    EXPECT_EQ(layout.ManifestName("b1"), "cloudplugin-host/manifests/b1");
    EXPECT_EQ(layout.DataPrefix("b1"), "cloudplugin-host/backups/b1/");
    EXPECT_EQ(layout.PartName("b1", 12, 3), "cloudplugin-host/backups/b1/000012.0003");
    layout.root = "team/x";
    EXPECT_EQ(layout.PartName("b1", 0, 0), "team/x/backups/b1/000000.0000");
}

TEST(BackupLayout, BackupIdsAreSafeObjectNameParts) {
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

TEST(ParseSize, AcceptsBinaryUnitsAndRefusesTheRest) {
    EXPECT_EQ(ParseSize("4096"), 4096u);
    EXPECT_EQ(ParseSize("512K"), 512u << 10);
    EXPECT_EQ(ParseSize("64M"), 64u << 20);
    EXPECT_EQ(ParseSize("64MiB"), 64u << 20);
    EXPECT_EQ(ParseSize("2G"), 2ull << 30);
    EXPECT_EQ(ParseSize(""), 0u);
    EXPECT_EQ(ParseSize("M"), 0u);
    EXPECT_EQ(ParseSize("-1"), 0u);
    EXPECT_EQ(ParseSize("12X"), 0u);
    EXPECT_EQ(ParseSize("99999999999999999999G"), 0u);
}

TEST(Progress, FormatsSizesAndDurations) {
    EXPECT_EQ(FormatBytes(0), "0 B");
    EXPECT_EQ(FormatBytes(1536), "1.5 KiB");
    EXPECT_EQ(FormatBytes(300.0 * 1048576), "300.0 MiB");
    EXPECT_EQ(FormatDuration(65), "1:05");
    EXPECT_EQ(FormatDuration(3725), "1:02:05");
    EXPECT_EQ(FormatDuration(-1), "--:--");
}

TEST(ClassPath, PutsTheStorageLibraryFirstAndTakesOnlyJars) {
    testsupport::TempFolder folder;
    const std::string root = folder.PathUtf8();
    for (const char* name : {"b.jar", "XNAzurePlugIn.jar", "a.jar", "notes.txt"}) WriteText(root + "/" + name, "x");
    EXPECT_EQ(ClassPathOf(root), root + "/XNAzurePlugIn.jar:" + root + "/a.jar:" + root + "/b.jar");
    EXPECT_EQ(ClassPathOf(root + "/missing"), "");
}

TEST(JavaHome, AJavaHomeWithoutAJvmLibraryIsNotUsed) {
    testsupport::TempFolder folder;
    EXPECT_EQ(JvmLibraryIn(folder.PathUtf8()), "");
    EXPECT_EQ(JvmLibraryIn(""), "");
}

TEST(LocalFiles, ListsRegularFilesOfNestedFoldersSortedWithSlashes) {
    testsupport::TempFolder folder;
    const std::string root = folder.PathUtf8();
    WriteText(root + "/z.txt", "zz");
    WriteText(root + "/a/b/deep.bin", "");
    WriteText(root + "/ünï/文件.txt", "12345");
    std::filesystem::create_directories(std::filesystem::u8path(root + "/empty-folder"));
    std::filesystem::create_symlink(std::filesystem::u8path(root + "/z.txt"), std::filesystem::u8path(root + "/link"));
    const std::vector<SourceFile> files = ListTree(root);
    ASSERT_EQ(files.size(), 3u);
    EXPECT_EQ(files[0].relativePath, "a/b/deep.bin");
    EXPECT_EQ(files[0].size, 0u);
    EXPECT_EQ(files[1].relativePath, "z.txt");
    EXPECT_EQ(files[2].relativePath, "ünï/文件.txt");
    EXPECT_EQ(files[2].size, 5u);
}

TEST(LocalFiles, ListingAMissingFolderIsALocalFileError) {
    testsupport::TempFolder folder;
    EXPECT_EQ(ExitStatusOf([&] { ListTree(folder.PathUtf8() + "/missing"); }), kExitLocalFile);
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

TEST(LocalFiles, OutputFileRefusesToReplaceUnlessTold) {
    testsupport::TempFolder folder;
    const std::string path = folder.PathUtf8() + "/new/sub/f";
    {
        OutputFile output(path, false);  // makes the folders
        output.Write("abc", 3);
        output.Close();
    }
    EXPECT_EQ(ExitStatusOf([&] { OutputFile again(path, false); }), kExitLocalFile);
    OutputFile replaced(path, true);
    replaced.Close();
    EXPECT_EQ(std::filesystem::file_size(std::filesystem::u8path(path)), 0u);
}

TEST(RunInParallel, RunsEveryIndexOnceOnTheGivenThreads) {
    std::mutex mutex;
    std::multiset<size_t> seen;
    std::set<unsigned> workers;
    RunInParallel(3, 1000, [&](size_t index, unsigned worker) {
        std::lock_guard<std::mutex> lock(mutex);
        seen.insert(index);
        workers.insert(worker);
    });
    ASSERT_EQ(seen.size(), 1000u);
    for (size_t i = 0; i < 1000; ++i) EXPECT_EQ(seen.count(i), 1u);
    for (unsigned worker : workers) EXPECT_LT(worker, 3u);
}

TEST(RunInParallel, TheFirstFailureStopsTheRestAndIsRethrown) {
    std::atomic<size_t> done{0};
    const int status = ExitStatusOf([&] {
        RunInParallel(2, 100000, [&](size_t index, unsigned) {
            if (index == 10) throw PluginError("WriteObject", "x", 7);
            ++done;
        });
    });
    EXPECT_EQ(status, kExitPluginFailed);
    EXPECT_LT(done.load(), 100000u - 1);
}

TEST(PluginError, NamesTheOperationTheObjectAndTheCode) {
    const PluginError error("ReadObjectByName", "cloudplugin-host/backups/b/000001.0000", 7);
    EXPECT_STREQ(error.what(),
                 "the plug-in's ReadObjectByName of object 'cloudplugin-host/backups/b/000001.0000' failed with "
                 "result code 7");
    EXPECT_EQ(error.ToJson().Text(),
              "{\"status\":3,\"message\":\"the plug-in's ReadObjectByName of object "
              "'cloudplugin-host/backups/b/000001.0000' failed with result code 7\",\"operation\":"
              "\"ReadObjectByName\",\"object\":\"cloudplugin-host/backups/b/000001.0000\",\"code\":7}");
}
