// Setting up a host: the class path, the JVM's options, the Java home, and
// how a refused plug-in operation is named.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "cli/ExitStatus.h"
#include "host/HostRuntime.h"
#include "host/PluginSession.h"
#include "support/TempFolder.h"

using namespace qvhost;

namespace {

void WriteText(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::u8path(path).parent_path());
    std::ofstream(std::filesystem::u8path(path), std::ios::binary) << text;
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

TEST(PluginError, NamesTheOperationTheObjectAndTheCode) {
    const PluginError error("ReadObjectByName", "cloudplugin-host/backups/b/000001.0000", 7);
    EXPECT_STREQ(error.what(),
                 "the plug-in's ReadObjectByName of object 'cloudplugin-host/backups/b/000001.0000' failed with "
                 "result code 7");
    EXPECT_EQ(ExitFor(error).status, kExitStorage);
    EXPECT_EQ(JsonText(ErrorJson(error, ExitFor(error).status)),
              "{\"status\":8,\"message\":\"the plug-in's ReadObjectByName of object "
              "'cloudplugin-host/backups/b/000001.0000' failed with result code 7\",\"kind\":\"storage\","
              "\"object\":\"cloudplugin-host/backups/b/000001.0000\",\"operation\":\"ReadObjectByName\",\"code\":7}");
}

}  // namespace
