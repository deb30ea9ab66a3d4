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

using testsupport::WriteText;

TEST(ClassPath, PutsTheStorageLibraryFirstAndTakesOnlyJars) {
    testsupport::TempFolder folder;
    const std::string root = folder.PathUtf8();
    for (const char* name : {"b.jar", "XNAzurePlugIn.jar", "a.jar", "notes.txt"}) WriteText(root + "/" + name, "x");
#ifdef _WIN32
    const std::string separator = ";", slash = "\\";
#else
    const std::string separator = ":", slash = "/";
#endif
    EXPECT_EQ(ClassPathOf(root), root + slash + "XNAzurePlugIn.jar" + separator + root + slash + "a.jar" + separator +
                                     root + slash + "b.jar");
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

TEST(ConnectionDefault, IsAddedOnlyWhenTheUserDidNotNameTheKey) {
    EXPECT_EQ(WithConnectionDefault("AccountName=a;Container=c", "VerifyDownloadMd5", "false"),
              "AccountName=a;Container=c;VerifyDownloadMd5=false");
    EXPECT_EQ(WithConnectionDefault("AccountName=a;Container=c; ;", "VerifyDownloadMd5", "false"),
              "AccountName=a;Container=c;VerifyDownloadMd5=false");
    EXPECT_EQ(WithConnectionDefault("AccountName=a; verifydownloadMD5 =true;Container=c", "VerifyDownloadMd5", "false"),
              "AccountName=a; verifydownloadMD5 =true;Container=c");
    // A key only named in a value (a SAS, a path) is not the key.
    EXPECT_EQ(WithConnectionDefault("ClientCertificatePath=/VerifyDownloadMd5=x", "VerifyDownloadMd5", "false"),
              "ClientCertificatePath=/VerifyDownloadMd5=x;VerifyDownloadMd5=false");
}

TEST(ConnectionValue, IsTheTrimmedValueOfTheKeyNamedWithoutCase) {
    EXPECT_EQ(ConnectionValue("AccountName=a; accesstier = Archive ;Container=c", "AccessTier"), "Archive");
    EXPECT_EQ(ConnectionValue("AccountName=a;SharedAccessSignature=sv=1&sig=x=", "SharedAccessSignature"),
              "sv=1&sig=x=");
    EXPECT_EQ(ConnectionValue("AccountName=a;Container=c", "AccessTier"), std::nullopt);
    EXPECT_EQ(ConnectionValue("ClientCertificatePath=/AccessTier=Archive", "AccessTier"), std::nullopt);
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

TEST(JavaLog, TheLastFailureOfThisRunIsFoundAfterWhereTheRunBegan) {
    testsupport::TempFolder folder;
    const std::string log = folder.PathUtf8() + "/XNAzurePlugIn.log";
    EXPECT_EQ(JavaLogSize(log), 0u) << "no log yet";
    EXPECT_EQ(LastJavaFailure(log, 0), "");
    const std::string before = "2026-01-01T00:00:00Z WARNING [main] ReadObject: NOT_FOUND: of an earlier run\n";
    WriteText(log, before);
    const uint64_t start = JavaLogSize(log);
    EXPECT_EQ(start, before.size());
    EXPECT_EQ(LastJavaFailure(log, start), "") << "nothing of this run";
    std::ofstream(std::filesystem::u8path(log), std::ios::binary | std::ios::app)
        << "2026-01-01T00:00:01Z INFO [main] AzureInit: connected: somewhere\n"
        << "2026-01-01T00:00:02Z WARNING [main] AzureInit: INVALID_CREDENTIALS: no Shared Key here\r\n"
        << "2026-01-01T00:00:03Z FINE [main] a detail\n";
    EXPECT_EQ(LastJavaFailure(log, start), "AzureInit: INVALID_CREDENTIALS: no Shared Key here");
    std::ofstream(std::filesystem::u8path(log), std::ios::binary | std::ios::app)
        << "2026-01-01T00:00:04Z SEVERE [worker-2] WriteObject: unexpected failure | java.lang.IllegalStateException: x "
           "at A.b(A.java:1)\n";
    EXPECT_EQ(LastJavaFailure(log, start), "WriteObject: unexpected failure") << "the exception is left out";
    EXPECT_EQ(LastJavaFailure(log, 0), "WriteObject: unexpected failure");
}

}  // namespace
