// The host tool's pieces that need no JVM: JSON output, sizes and ages,
// times, the class path, the parallel runner and error texts.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

#include "cli/Commands.h"
#include "host/HostRuntime.h"
#include "util/Json.h"
#include "util/ParallelRunner.h"
#include "cli/Progress.h"
#include "util/ToolError.h"
#include "support/TempFolder.h"

using namespace qvhost;

namespace {

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

TEST(JsonOutput, ObjectsKeepTheirMemberOrderAndEscapeControlCharacters) {
    Json json = Json{{"b", 1}, {"a", "x\"y\\z\n\x01"}};
    json["list"] = Json::array({true, nullptr, 2.5});
    EXPECT_EQ(JsonText(json), "{\"b\":1,\"a\":\"x\\\"y\\\\z\\n\\u0001\",\"list\":[true,null,2.5]}");
}

TEST(JsonOutput, NonAsciiTextPassesThroughAndBytesThatAreNotUtf8AreReplaced) {
    EXPECT_EQ(JsonText(Json("Grüße 文件")), "\"Grüße 文件\"");
    EXPECT_EQ(JsonText(Json("caf\xE9")), "\"caf\xEF\xBF\xBD\"");
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

TEST(ParseAge, AcceptsSecondsMinutesHoursAndDaysAndZero) {
    EXPECT_EQ(ParseAge("0"), 0);
    EXPECT_EQ(ParseAge("90s"), 90);
    EXPECT_EQ(ParseAge("30m"), 1800);
    EXPECT_EQ(ParseAge("24h"), 86400);
    EXPECT_EQ(ParseAge("7d"), 7 * 86400);
    for (const char* bad : {"", "5", "h", "-1h", "1.5h", "3w", "1h2", "99999999999d"}) EXPECT_EQ(ParseAge(bad), -1) << bad;
}

TEST(UtcTimes, ParseTheFormTheToolWrites) {
    EXPECT_EQ(ParseUtcTime("1970-01-01T00:00:00Z"), 0);
    EXPECT_EQ(ParseUtcTime("2026-11-23T10:15:30Z"), 1795428930);
    EXPECT_EQ(ParseUtcTime(UtcNow("%Y-%m-%dT%H:%M:%SZ")) / 60, std::time(nullptr) / 60);
    for (const char* bad : {"", "2026-11-23", "2026-11-23T10:15:30", "2026-11-23T10:15:30+01", "garbage-garbage-gar"}) {
        EXPECT_EQ(ParseUtcTime(bad), -1) << bad;
    }
}

TEST(Printable, ControlCharactersFromStorageNeverReachTheTerminal) {
    EXPECT_EQ(Printable("plain Grüße"), "plain Grüße");
    EXPECT_EQ(Printable("a\x1b[2Jb\nc\x7f"), "a\\x1B[2Jb\\x0Ac\\x7F");
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

TEST(JvmOptions, TheHeapFollowsTheCallsInFlightStartsSmallAndOnlyTheQuickCompilerRuns) {
    EXPECT_EQ(ToolJvmOptions(4, 8ull << 20),
              (std::vector<std::string>{"-Xmx224m", "-Xms16m", "-XX:GCTimeRatio=1", "-XX:TieredStopAtLevel=1",
                                        "-XX:-UsePerfData"}));
    EXPECT_EQ(ToolJvmOptions(8, 64ull << 20)[0], "-Xmx2144m");
    EXPECT_EQ(ToolJvmOptions(1, 1u << 20)[0], "-Xmx128m");      // never below 128 MiB
    EXPECT_EQ(ToolJvmOptions(1, (1u << 20) + 1)[0], "-Xmx128m");  // parts count in whole MiB, rounded up
    EXPECT_EQ(ToolJvmOptions(2, (8u << 20) + 1)[0], "-Xmx168m");
}

TEST(JavaHome, AJavaHomeWithoutAJvmLibraryIsNotUsed) {
    testsupport::TempFolder folder;
    EXPECT_EQ(JvmLibraryIn(folder.PathUtf8()), "");
    EXPECT_EQ(JvmLibraryIn(""), "");
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

TEST(PartPlan, GivesEveryPartOnceFilesOfMostPartsFirstAndEachFilesPartsTogether) {
    PartPlan plan({1, 0, 3, 2});
    std::vector<std::pair<size_t, uint64_t>> items;
    for (size_t i = 0; i < plan.size(); ++i) {
        items.push_back({plan[i].file, plan[i].hasPart ? plan[i].part : UINT64_MAX});
    }
    const std::vector<std::pair<size_t, uint64_t>> expected = {{2, 0}, {2, 1}, {2, 2}, {3, 0}, {3, 1}, {0, 0},
                                                               {1, UINT64_MAX}};  // the empty file: no part
    EXPECT_EQ(items, expected);
}

TEST(PartPlan, OnlyTheLastItemOfAFileFinishesIt) {
    PartPlan plan({3, 0});
    EXPECT_FALSE(plan.Done(0));
    EXPECT_FALSE(plan.Done(0));
    EXPECT_TRUE(plan.Done(0));
    EXPECT_TRUE(plan.Done(1));  // an empty file's one item
}

TEST(PluginError, NamesTheOperationTheObjectAndTheCode) {
    const PluginError error("ReadObjectByName", "cloudplugin-host/backups/b/000001.0000", 7);
    EXPECT_STREQ(error.what(),
                 "the plug-in's ReadObjectByName of object 'cloudplugin-host/backups/b/000001.0000' failed with "
                 "result code 7");
    EXPECT_EQ(JsonText(error.ToJson()),
              "{\"status\":3,\"message\":\"the plug-in's ReadObjectByName of object "
              "'cloudplugin-host/backups/b/000001.0000' failed with result code 7\",\"operation\":"
              "\"ReadObjectByName\",\"object\":\"cloudplugin-host/backups/b/000001.0000\",\"code\":7}");
}
