// The job information, connectivity and size operations of the bridge
// against the Java test double: AddJobInfo, CheckConnectivity,
// GetDefaultObjectSizeRange and GetPluginCapabilities.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "bridge/BridgeLog.h"
#include "OperationPaths.h"
#include "bridge/JNIBridge.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;
using jnitest::OperationPaths;
using jnitest::OperationPathsTest;
using jnitest::PathOutcome;
using jnitest::Shown;
using jnitest::StartedBridgeFixture;
using jnitest::TestDouble;

namespace {

constexpr const char16_t* kJavaEndedLine = u"AddJobInfo::Java ended ...";
constexpr const char16_t* kAddJobInfoMissingLine = u"AddJobInfo::method is not found...";


JobInfoRecord Job(int64_t a, int64_t b, int64_t c, int64_t d, int64_t e, int64_t f) {
    JobInfoRecord job;
    const int64_t values[6] = {a, b, c, d, e, f};
    for (int i = 0; i < 6; ++i) job.values[i] = values[i];
    return job;
}

}  // namespace

class JobAndSizesTest : public StartedBridgeFixture {};

// ---------------------------------------------------------------- AddJobInfo

constexpr const char* kAddJobInfoSignature = "(JJJJJJ)Lcom/qv/QVCloudPluginInterface/CErrorValue;";

TEST_F(JobAndSizesTest, AddJobInfoWithTheRecord123456CallsJavaWith341265) {
    const JobInfoRecord job = Job(1, 2, 3, 4, 5, 6);
    EXPECT_EQ(m_bridge->AddJobInfo(&job), 0u);
    ASSERT_EQ(TestDouble::CallCount("addJobInfo"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("addJobInfo", 0), "addJobInfo(3, 4, 1, 2, 6, 5)");
    EXPECT_EQ(NewLines(), std::vector<WideString>{kJavaEndedLine});
}

TEST_F(JobAndSizesTest, AddJobInfoPassesLargeAndNegativeValuesUnchanged) {
    const JobInfoRecord job = Job(-1, INT64_MAX, INT64_MIN, 0, 1LL << 40, -42);
    EXPECT_EQ(m_bridge->AddJobInfo(&job), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("addJobInfo", 0),
              "addJobInfo(" + std::to_string(INT64_MIN) + ", 0, -1, " + std::to_string(INT64_MAX) + ", -42, " +
                  std::to_string(1LL << 40) + ")");
}

TEST_F(JobAndSizesTest, AddJobInfoWritesTheJavaEndedLineAlsoWhenJavaReportsAnError) {
    const JobInfoRecord job = Job(1, 2, 3, 4, 5, 6);
    TestDouble::ReturnErrorOrdinal("addJobInfo", 3);
    EXPECT_EQ(m_bridge->AddJobInfo(&job), 7u);
    EXPECT_EQ(NewLines(), std::vector<WideString>{kJavaEndedLine});
}

TEST_F(JobAndSizesTest, AddJobInfoWithAnOrdinalOutsideTheTableGives23) {
    const JobInfoRecord job;
    TestDouble::ReturnErrorValue("addJobInfo", 22, 49);
    EXPECT_EQ(m_bridge->AddJobInfo(&job), 23u);
}





TEST_F(JobAndSizesTest, AddJobInfoWithoutARecordFailsLikeAnExceptionWithoutCallingJava) {
    EXPECT_EQ(m_bridge->AddJobInfo(nullptr), 40u);
    EXPECT_EQ(TestDouble::CallCount("addJobInfo"), 0u);
    EXPECT_EQ(NewLines(), std::vector<WideString>{u"AddJobInfo::Exception is occured..."});
}

// ---------------------------------------------------------------- CheckConnectivity

constexpr const char* kCheckConnectivitySignature = "()Lcom/qv/QVCloudPluginInterface/CErrorValue;";

TEST_F(JobAndSizesTest, CheckConnectivityCarriesJavasAnswer) {
    EXPECT_EQ(m_bridge->CheckConnectivity(), 0u);
    ASSERT_EQ(TestDouble::CallCount("CheckConnectivity"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("CheckConnectivity", 0), "CheckConnectivity()");
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(JobAndSizesTest, CheckConnectivityMapsTheJavaError) {
    TestDouble::ReturnErrorOrdinal("CheckConnectivity", 48);
    EXPECT_EQ(m_bridge->CheckConnectivity(), 46u);
    TestDouble::ReturnErrorOrdinal("CheckConnectivity", 40);
    EXPECT_EQ(m_bridge->CheckConnectivity(), 47u);
}






TEST_F(JobAndSizesTest, CheckConnectivityOnAFreshThreadAttachesAndDetachesIt) {
    uint32_t code = 99;
    std::thread([&] { code = m_bridge->CheckConnectivity(); }).join();
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(TestDouble::CallCount("CheckConnectivity"), 1u);
    EXPECT_EQ(Interposer().Attaches(), 1);
    EXPECT_EQ(Interposer().Detaches(), 1);
}

// ---------------------------------------------------------------- GetDefaultObjectSizeRange

constexpr const char* kSizeRangeSignature = "()Lcom/qv/AzureLibrary/CGDefaultObjSizeRangeValue;";

TEST_F(JobAndSizesTest, GetDefaultObjectSizeRangeGivesMinimumDefaultAndMaximum) {
    int64_t minimum = -1, defaultSize = -1, maximum = -1;
    TestDouble::SetLong("GetDefaultObjectSizeRange", "minValue", 11);
    TestDouble::SetLong("GetDefaultObjectSizeRange", "defaultValue", 22);
    TestDouble::SetLong("GetDefaultObjectSizeRange", "maxValue", 33);
    EXPECT_EQ(m_bridge->GetDefaultObjectSizeRange(&minimum, &defaultSize, &maximum), 0u);
    EXPECT_EQ(minimum, 11);
    EXPECT_EQ(defaultSize, 22);
    EXPECT_EQ(maximum, 33);
    ASSERT_EQ(TestDouble::CallCount("GetDefaultObjectSizeRange"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetDefaultObjectSizeRange", 0), "GetDefaultObjectSizeRange()");
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(JobAndSizesTest, GetDefaultObjectSizeRangeMapsTheJavaErrorAndStillGivesTheSizes) {
    int64_t minimum = -1, defaultSize = -1, maximum = -1;
    TestDouble::ReturnErrorOrdinal("GetDefaultObjectSizeRange", 38);
    TestDouble::SetLong("GetDefaultObjectSizeRange", "maxValue", 77);
    EXPECT_EQ(m_bridge->GetDefaultObjectSizeRange(&minimum, &defaultSize, &maximum), 1u);
    EXPECT_EQ(maximum, 77);
    EXPECT_EQ(minimum, int64_t{1} << 20);
    EXPECT_EQ(defaultSize, int64_t{32} << 20);
}

TEST_F(JobAndSizesTest, GetDefaultObjectSizeRangeWithANullErrorValueGives47) {
    int64_t minimum = -1, defaultSize = -1, maximum = -1;
    TestDouble::ReturnNullErrorValue("GetDefaultObjectSizeRange");
    EXPECT_EQ(m_bridge->GetDefaultObjectSizeRange(&minimum, &defaultSize, &maximum), 47u);
    EXPECT_EQ(maximum, int64_t{256} << 20);
}





TEST_F(JobAndSizesTest, GetDefaultObjectSizeRangeWritesOnlyTheOutputsItIsGiven) {
    int64_t maximum = -1;
    EXPECT_EQ(m_bridge->GetDefaultObjectSizeRange(nullptr, nullptr, &maximum), 0u);
    EXPECT_EQ(maximum, int64_t{256} << 20);
    EXPECT_EQ(m_bridge->GetDefaultObjectSizeRange(nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(TestDouble::CallCount("GetDefaultObjectSizeRange"), 2u);
}

// ---------------------------------------------------------------- GetPluginCapabilities

constexpr const char* kCapabilitiesSignature = "()Lcom/qv/QVCloudPluginInterface/CloudPluginCapabilities;";

TEST_F(JobAndSizesTest, GetPluginCapabilitiesSetsTheMarkerAndFillsTheMap) {
    CapabilitiesRecord record;
    record.capabilities[u"stale"] = u"value";
    TestDouble::SetCapabilities({{u"MaxObjectSize", u"1024"}, {u"Tiering", u"hot,cool"}});
    EXPECT_EQ(m_bridge->GetPluginCapabilities(&record), 0u);
    EXPECT_EQ(record.marker, 1u);
    EXPECT_EQ(record.capabilities, (CapabilityMap{{u"MaxObjectSize", u"1024"}, {u"Tiering", u"hot,cool"}}));
    ASSERT_EQ(TestDouble::CallCount("GetCloudPluginCapabilities"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetCloudPluginCapabilities", 0), "GetCloudPluginCapabilities()");
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(JobAndSizesTest, GetPluginCapabilitiesGivesTheDoublesDefaultMap) {
    CapabilitiesRecord record;
    EXPECT_EQ(m_bridge->GetPluginCapabilities(&record), 0u);
    EXPECT_EQ(record.capabilities.at(u"SupportsMetadata"), u"true");
    EXPECT_EQ(record.capabilities.size(), 3u);
}

TEST_F(JobAndSizesTest, GetPluginCapabilitiesDropsEntriesThatAreNotTexts) {
    CapabilitiesRecord record;
    TestDouble::SetCapabilities({{u"Name", u"azure"}, {u"Count", u"3"}, {std::nullopt, u"x"}, {u"Empty", std::nullopt}},
                                {u"Count"});
    EXPECT_EQ(m_bridge->GetPluginCapabilities(&record), 0u);
    EXPECT_EQ(record.capabilities, (CapabilityMap{{u"Name", u"azure"}}));
}






TEST_F(JobAndSizesTest, GetPluginCapabilitiesWithANullMapEmptiesTheHostsMapAndGives0) {
    CapabilitiesRecord record;
    record.capabilities[u"old"] = u"entry";
    TestDouble::SetNullField("GetCloudPluginCapabilities", "pluginCapabilities");
    EXPECT_EQ(m_bridge->GetPluginCapabilities(&record), 0u);
    EXPECT_EQ(record.marker, 1u);
    EXPECT_TRUE(record.capabilities.empty());
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(JobAndSizesTest, GetPluginCapabilitiesWithoutARecordStillCallsJava) {
    EXPECT_EQ(m_bridge->GetPluginCapabilities(nullptr), 0u);
    EXPECT_EQ(TestDouble::CallCount("GetCloudPluginCapabilities"), 1u);
}

// ---------------------------------------------------------------- the whole family


TEST_F(JobAndSizesTest, RepeatedCallsLeaveNoLocalReferenceBehind) {
    const JobInfoRecord job = Job(1, 2, 3, 4, 5, 6);
    int64_t minimum = 0, defaultSize = 0, maximum = 0;
    CapabilitiesRecord record;
    for (int i = 0; i < 3; ++i) {
        m_bridge->AddJobInfo(&job);
        m_bridge->CheckConnectivity();
        m_bridge->GetDefaultObjectSizeRange(&minimum, &defaultSize, &maximum);
        m_bridge->GetPluginCapabilities(&record);
        EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    }
    EXPECT_GT(Interposer().LocalRefsMade(), 0);
}

// ---------------------------------------------------------------- the paths every operation shares

namespace {

std::vector<OperationPaths> JobAndSizesPaths() {
    const auto sizes = [](int64_t minimum, int64_t defaultSize, int64_t maximum) {
        return Shown("minimum", minimum) + " " + Shown("default", defaultSize) + " " + Shown("maximum", maximum);
    };
    // The marker is set before anything else, whatever follows.
    const auto capabilities = [](const CapabilitiesRecord& record) {
        std::string text = Shown("marker", record.marker) + " {";
        for (const auto& [key, value] : record.capabilities) text += Shown(key) + "=" + Shown(value) + " ";
        return text + "}";
    };
    CapabilitiesRecord keptCapabilities;
    keptCapabilities.marker = 1;
    keptCapabilities.capabilities[u"kept"] = u"yes";
    return {
        // A missing method writes its line first; the ended line follows every result.
        OperationPaths(
            "AddJobInfo", "addJobInfo", kAddJobInfoSignature,
            [](JNIBridge& bridge) {
                const JobInfoRecord job = Job(1, 2, 3, 4, 5, 6);
                return PathOutcome{bridge.AddJobInfo(&job), ""};
            },
            "", u"AddJobInfo::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult, kAddJobInfoMissingLine)
            .OnNullResult(40, {kJavaEndedLine}),
        // A missing class gives 40 without a line.
        OperationPaths(
            "CheckConnectivity", "CheckConnectivity", kCheckConnectivitySignature,
            [](JNIBridge& bridge) { return PathOutcome{bridge.CheckConnectivity(), ""}; }, "",
            u"CheckConnectivity::Exception is occured...")
            .WithoutClass(MissingClassRule::Fail)
            .OnMissingMethod(MissingMethodRule::ReturnSuccess)
            .OnNullResult(40, {}),
        // The three sizes read 0 from just before the call on.
        OperationPaths(
            "GetDefaultObjectSizeRange", "GetDefaultObjectSizeRange", kSizeRangeSignature,
            [sizes](JNIBridge& bridge) {
                int64_t minimum = -1, defaultSize = -1, maximum = -1;
                const uint32_t code = bridge.GetDefaultObjectSizeRange(&minimum, &defaultSize, &maximum);
                return PathOutcome{code, sizes(minimum, defaultSize, maximum)};
            },
            sizes(-1, -1, -1), u"GetDefaultObjectSizeRange::Exception is occured...")
            .WithoutClass(MissingClassRule::Fail)
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .BeforeCall({}, sizes(0, 0, 0))
            .OnNullResult(40, {}, sizes(0, 0, 0)),
        // Java reports no error here: a null result gives 0 and leaves the map.
        OperationPaths(
            "GetPluginCapabilities", "GetCloudPluginCapabilities", kCapabilitiesSignature,
            [capabilities](JNIBridge& bridge) {
                CapabilitiesRecord record;
                record.capabilities[u"kept"] = u"yes";
                const uint32_t code = bridge.GetPluginCapabilities(&record);
                return PathOutcome{code, capabilities(record)};
            },
            capabilities(keptCapabilities), u"GetPluginCapabilities::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::ReturnSuccess)
            .OnNullResult(0, {}),
    };
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(JobAndSizes, OperationPathsTest, ::testing::ValuesIn(JobAndSizesPaths()),
                         jnitest::OperationName);
