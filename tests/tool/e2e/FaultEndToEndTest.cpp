// The storage library's defences seen from the command line: the tool runs
// against Azurite through the library's fault proxy (a process of its own)
// that cuts answers short, answers 503 ServerBusy, refuses the key, damages
// a byte, or holds a read while the test replaces the object. What counts
// is what a user sees: the exit status, the plug-in's result code in
// --json, the message, and the file `object get` leaves behind.
#include <ifaddrs.h>
#include <netinet/in.h>
#include <arpa/inet.h>

#include <chrono>
#include <functional>
#include <thread>

#include <nlohmann/json.hpp>

#include "HostToolFixture.h"

namespace e2e {
namespace {

// The plug-in's result codes (docs/java-library.md, the error map).
constexpr int kResultInvalidArgument = 2;
constexpr int kResultChecksumMismatch = 23;
constexpr int kResultConditionNotMet = 24;
constexpr int kResultNetworkError = 32;
constexpr int kResultInvalidCredentials = 38;

// An IPv4 address of this machine that is not loopback, or "" without one.
std::string NonLoopbackAddress() {
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) return "";
    std::string found;
    for (ifaddrs* a = all; a && found.empty(); a = a->ifa_next) {
        if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET) continue;
        const in_addr address = reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr;
        if ((ntohl(address.s_addr) >> 24) == 127) continue;
        char text[INET_ADDRSTRLEN];
        if (inet_ntop(AF_INET, &address, text, sizeof text)) found = text;
    }
    freeifaddrs(all);
    return found;
}

class FaultTest : public HostToolTest {
protected:
    // The tool with this test's container through the proxy, the
    // connection string ending in `extra`, and --json.
    ToolRun Through(const FaultProxy& proxy, const std::string& extra, std::vector<std::string> arguments) {
        std::vector<std::string> all = {"--connection", proxy.ConnectionString(container_, extra), "--log-folder", logs_,
                                        "--json"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return RunTool(all);
    }

    // Stores `bytes` as object `name` straight into Azurite.
    void Stored(const std::string& name, const std::string& bytes) {
        const std::string file = Folder("stored-" + std::to_string(++stored_));
        WriteFile(file, bytes);
        const ToolRun put = Tool({"object", "put", name, file});
        ASSERT_EQ(put.status, 0) << put.err;
    }

    // The --json error's result code of a failed run.
    static std::string Code(const ToolRun& run) { return Member(run.out, "code"); }

    int stored_ = 0;
};

TEST_F(FaultTest, AReadCutOffCleanlyMidBodyIsResumedAndTheObjectComesBackWhole) {
    const std::string data = Bytes(3000000, 41);
    Stored("cut/whole", data);
    FaultProxy proxy(Azurite::Shared(), {"cut-body:1000000"});
    const ToolRun get = Through(proxy, "", {"object", "get", "cut/whole", Folder("back")});
    ASSERT_EQ(get.status, 0) << get.err;
    EXPECT_EQ(Member(get.out, "bytes"), "3000000");
    EXPECT_TRUE(ReadFile(Folder("back")) == data) << "the bytes differ";
    // The cut answer, then one going on from its millionth byte on the same version.
    EXPECT_EQ(proxy.Count({"GET ", "/cut/whole", "fault=CUT_BODY"}), 1u);
    EXPECT_EQ(proxy.Count({"GET ", "/cut/whole", "range=bytes=1000000-", "if-match=\""}), 1u);
    // Both sends are counted, as the service bills them, and every byte that came.
    const nlohmann::json traffic = nlohmann::json::parse(get.out).at("storage_traffic");
    EXPECT_EQ(traffic["requests"]["read"].get<size_t>(), proxy.Count({"GET ", "/cut/whole"}));
    EXPECT_GE(traffic["bytes_received"].get<uint64_t>(), 3000000u);
}

TEST_F(FaultTest, AReadCutOffWithoutRetriesExitsNonZeroAndLeavesNoHalfObject) {
    Stored("cut/no-retry", Bytes(3000000, 42));
    FaultProxy proxy(Azurite::Shared(), {"cut-body:1000000"});
    const std::string file = Folder("kept");
    WriteFile(file, "what was there before");
    const ToolRun get = Through(proxy, "RetryMaxAttempts=1", {"object", "get", "cut/no-retry", file});
    EXPECT_EQ(get.status, 8) << get.err;
    EXPECT_EQ(Code(get), std::to_string(kResultNetworkError)) << get.out;
    EXPECT_EQ(proxy.Count({"GET ", "/cut/no-retry", "fault=CUT_BODY"}), 1u);
    EXPECT_EQ(proxy.Count({"GET ", "/cut/no-retry"}), 1u) << "not sent again";
    EXPECT_EQ(ReadFile(file), "what was there before");
    // No temporary file left beside it.
    size_t entries = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(work_.PathUtf8())) ++entries;
    EXPECT_EQ(entries, 3u) << "kept, logs and the stored file";
}

class BusyTest : public FaultTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(BusyTest, FifteenSecondsOfServerBusyAreRiddenOut) {
    const std::string data = Bytes(200000, 43);
    WriteFile(Folder("busy.bin"), data);
    std::vector<std::string> fault = {"busy:15"};
    if (!GetParam().empty()) fault[0] += ":" + GetParam();
    FaultProxy proxy(Azurite::Shared(), fault);
    const auto start = std::chrono::steady_clock::now();
    const ToolRun put = Through(proxy, "", {"object", "put", "busy/object", Folder("busy.bin")});
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_EQ(put.status, 0) << put.err;
    EXPECT_GE(seconds, 15.0);
    const size_t busy = proxy.Count({"fault=STATUS"});
    EXPECT_GE(busy, 3u);
    EXPECT_LE(busy, 14u) << "within the default 15 sends";
    EXPECT_GE(proxy.Count({"reply=HTTP/1.1_201"}), 1u) << "then forwarded";
    // Stored whole: read back past the proxy.
    ASSERT_EQ(Tool({"object", "get", "busy/object", Folder("back")}).status, 0);
    EXPECT_TRUE(ReadFile(Folder("back")) == data);
    std::printf("[ figures ] %s: %zu answers of 503 ServerBusy, put done in %.1f s\n",
                GetParam().empty() ? "no Retry-After" : ("Retry-After " + GetParam()).c_str(), busy, seconds);
}

INSTANTIATE_TEST_SUITE_P(RetryAfter, BusyTest, ::testing::Values("", "2"),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             return info.param.empty() ? std::string("WithoutRetryAfter")
                                                       : "WithRetryAfter" + info.param + "s";
                         });

TEST_F(FaultTest, MetadataNamesA1AndA_1TogetherAreAccepted) {
    WriteFile(Folder("meta.txt"), "metadata names");
    const ToolRun put = Tool({"object", "put", "meta/object", Folder("meta.txt"), "--metadata", "a1=one", "--metadata",
                              "a_1=two", "--metadata", "qv2=three", "--metadata", "qv_x=four"});
    ASSERT_EQ(put.status, 0) << put.err;
    const ToolRun list = Tool({"object", "list", "meta/"});
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(Member(list.out, "a1"), "\"one\"") << list.out;
    EXPECT_EQ(Member(list.out, "a_1"), "\"two\"") << list.out;
    EXPECT_EQ(Member(list.out, "qv2"), "\"three\"") << list.out;
    EXPECT_EQ(Member(list.out, "qv_x"), "\"four\"") << list.out;
    ASSERT_EQ(Tool({"object", "get", "meta/object", Folder("back")}).status, 0);
    EXPECT_EQ(ReadFile(Folder("back")), "metadata names");
}

TEST_F(FaultTest, AnAccountThatRefusesSharedKeyGivesInvalidCredentialsNamingSharedKey) {
    FaultProxy proxy(Azurite::Shared(), {"status:403:KeyBasedAuthenticationNotPermitted"});
    WriteFile(Folder("file"), "refused");
    const ToolRun put = Through(proxy, "", {"object", "put", "refused", Folder("file")});
    EXPECT_EQ(put.status, 8) << put.err;
    EXPECT_EQ(Code(put), std::to_string(kResultInvalidCredentials)) << put.out;
    EXPECT_EQ(Member(put.out, "operation"), "\"Init\"") << put.out;
    EXPECT_NE(put.err.find("does not permit Shared Key authorization"), std::string::npos) << put.err;
    EXPECT_NE(put.err.find("Entra ID"), std::string::npos) << put.err;
    EXPECT_EQ(LineCount(put.err), 1u) << put.err;
    EXPECT_EQ(proxy.Count({"fault=STATUS"}), 1u) << "refused at once, not retried";
}

TEST_F(FaultTest, AnObjectReplacedBetweenTwoRangeReadsIsItsOwnErrorNeverMixedBytes) {
    // 12 MiB: the library reads ahead 8 MiB, so the tool's third 4 MiB
    // slice is a second range read, which the proxy holds.
    Stored("replaced/object", Bytes(12u << 20, 44));
    const std::string hold = Folder("hold");
    FaultProxy proxy(Azurite::Shared(), {"hold-get:2:" + hold});
    const std::string file = Folder("replaced.bin");
    const pid_t get = StartTool({"--connection", proxy.ConnectionString(container_), "--log-folder", logs_,
                                 "object", "get", "replaced/object", file},
                                Folder("get.err"));
    ASSERT_TRUE(WaitFor([&] { return fs::exists(hold + "/held"); })) << ReadFile(Folder("get.err"));
    Stored("replaced/object", Bytes(12u << 20, 45));
    WriteFile(hold + "/release", "");
    EXPECT_EQ(WaitTool(get), 8) << ReadFile(Folder("get.err"));
    EXPECT_NE(ReadFile(Folder("get.err")).find("result code " + std::to_string(kResultConditionNotMet)),
              std::string::npos)
        << ReadFile(Folder("get.err"));
    EXPECT_NE(ReadFile(Folder("get.err")).find("replaced while it was being read"), std::string::npos)
        << ReadFile(Folder("get.err"));
    EXPECT_EQ(proxy.Count({"GET ", "/replaced/object", "if-match=\"", "reply=HTTP/1.1_412"}), 1u);
    EXPECT_FALSE(fs::exists(file)) << "no half of the old object left under the name";
}

TEST_F(FaultTest, ACorruptedByteInAWholeDownloadIsReportedNotReturned) {
    Stored("damaged/object", Bytes(100000, 46));
    FaultProxy proxy(Azurite::Shared(), {"corrupt-get"});
    const std::string file = Folder("damaged.bin");
    const ToolRun get = Through(proxy, "", {"object", "get", "damaged/object", file});
    EXPECT_EQ(get.status, 8) << get.err;
    EXPECT_EQ(Code(get), std::to_string(kResultChecksumMismatch)) << get.out;
    EXPECT_GE(proxy.Count({"GET ", "/damaged/object", "fault=CORRUPT_REPLY"}), 1u);
    EXPECT_FALSE(fs::exists(file)) << "the damaged bytes were not handed over";
}

TEST_F(FaultTest, AKeyOverPlainHttpToAnotherMachineIsRefusedUnlessAllowed) {
    const std::string address = NonLoopbackAddress();
    if (address.empty()) GTEST_SKIP() << "this machine has no IPv4 address but loopback";
    FaultProxy proxy(Azurite::Shared(), {}, address);
    WriteFile(Folder("file"), "over plain http");
    const ToolRun refused = Through(proxy, "", {"object", "put", "http/object", Folder("file")});
    EXPECT_EQ(refused.status, 8) << refused.err;
    EXPECT_EQ(Code(refused), std::to_string(kResultInvalidArgument)) << refused.out;
    EXPECT_NE(refused.err.find("AllowInsecureHttp"), std::string::npos) << refused.err;
    EXPECT_EQ(proxy.Requests().size(), 0u) << "nothing was sent";
    const ToolRun allowed = Through(proxy, "AllowInsecureHttp=true", {"object", "put", "http/object", Folder("file")});
    ASSERT_EQ(allowed.status, 0) << allowed.err;
    EXPECT_GE(proxy.Count({"PUT ", "/http/object", "reply=HTTP/1.1_201"}), 1u);
}

TEST_F(FaultTest, ARepositoryRestoreThroughCutOffReadsGivesBackTheSameFiles) {
    const std::string passwordFile = Folder("password");
    WriteFile(passwordFile, "a password\n");
    const std::string source = Folder("source");
    WriteFile(source + "/small.txt", "small");
    WriteFile(source + "/big.bin", Bytes(3u << 20, 47));
    for (int i = 0; i < 10; ++i) WriteFile(source + "/many/f" + std::to_string(i), Bytes(50000 + i, 48 + i));
    ASSERT_EQ(Tool({"--password-file", passwordFile, "init", "--kdf-memory", "1M", "--pack-size", "1M"}).status, 0);
    const ToolRun backup = Tool({"--password-file", passwordFile, "backup", source});
    ASSERT_EQ(backup.status, 0) << backup.err;
    // The cuts fall on the packs' reads (not, say, six times on the small key
    // object that is read first): the restore's own reads are what is tested.
    FaultProxy proxy(Azurite::Shared(), {"cut-body:100000:6:/cloudplugin-host/data/"});
    const ToolRun restore =
        Through(proxy, "", {"--password-file", passwordFile, "restore", "latest", Folder("restored")});
    ASSERT_EQ(restore.status, 0) << restore.err << proxy.Diagnostics();
    EXPECT_EQ(proxy.Count({"fault=CUT_BODY"}), 6u);
    ExpectSameTree(source, Folder("restored"));
}

}  // namespace
}  // namespace e2e
