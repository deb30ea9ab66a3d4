// The container and region operations of the bridge (GetListContainers,
// GetArchiveSet, GetRegions, IsValidContainer, IsContainerExists,
// DeleteContainer, GetContainerName, GetBucketRegion) against the Java test
// double.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bridge/BridgeLog.h"
#include "bridge/JNIBridge.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;
using jnitest::StartedBridgeFixture;
using jnitest::TestDouble;

namespace {

constexpr const char* kListContainersSignature = "()Lcom/qv/AzureLibrary/QVListContainers;";
constexpr const char* kRegionsSignature = "()Lcom/qv/AzureLibrary/QVListRegions;";
constexpr const char* kIsValidSignature = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;";
constexpr const char* kIsExistsSignature = "(Ljava/lang/String;)Lcom/qv/AmazonLibrary/CIsObjectExistFnValue;";
constexpr const char* kDeleteSignature = "()Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kContainerNameSignature = "()Lcom/qv/AzureLibrary/CUniqueAccountValue;";
constexpr const char* kBucketRegionSignature = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CCreateFnValue;";

constexpr const char16_t* kDeleteCalled = u"DeleteContainerFromQVCloud::Java called ...";
constexpr const char16_t* kDeleteEnded = u"DeleteContainerFromQVCloud::Java ended ...";
constexpr const char16_t* kNameCalled = u"GetContainerName::Java called ...";
constexpr const char16_t* kNameEnded = u"GetContainerName::Java ended ...";
constexpr const char16_t* kRegionEnded = u"CreateObject::is ended...";

using Lines = std::vector<WideString>;

class ContainersTest : public StartedBridgeFixture {
protected:
    static Lines Plus(Lines lines, const WideString& line) {
        lines.push_back(line);
        return lines;
    }

};

// ---------------------------------------------------------------- GetListContainers

TEST_F(ContainersTest, GetListContainersAppendsTheContainerNamesWithoutLines) {
    StringList containers{u"already there"};
    EXPECT_EQ(m_bridge->GetListContainers(&containers), 0u);
    EXPECT_EQ(containers, (StringList{u"already there", u"qv-backup", u"qv-archive"}));
    ASSERT_EQ(TestDouble::CallCount("GetListContainers"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetListContainers", 0), "GetListContainers()");
    EXPECT_EQ(Interposer().CountOf("GetMethodID", kListContainersSignature), 1u);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ContainersTest, GetListContainersSkipsNullElementsAndNullNames) {
    TestDouble::SetContainers("GetListContainers", {u"a", std::nullopt, u"c", u"d"}, {3});
    StringList containers;
    EXPECT_EQ(m_bridge->GetListContainers(&containers), 0u);
    EXPECT_EQ(containers, (StringList{u"a", u"c"}));
}

TEST_F(ContainersTest, GetListContainersMapsTheJavaErrorOrdinal) {
    TestDouble::ReturnErrorOrdinal("GetListContainers", 3);
    StringList containers;
    EXPECT_EQ(m_bridge->GetListContainers(&containers), 7u);
    EXPECT_EQ(containers, (StringList{u"qv-backup", u"qv-archive"}));
}

TEST_F(ContainersTest, GetListContainersNullErrorValueGives0AndNoNames) {
    TestDouble::ReturnNullErrorValue("GetListContainers");
    StringList containers;
    EXPECT_EQ(m_bridge->GetListContainers(&containers), 0u);
    EXPECT_TRUE(containers.empty());
}

TEST_F(ContainersTest, GetListContainersNullResultGives0AndLeavesTheList) {
    TestDouble::ReturnNull("GetListContainers");
    StringList containers{u"x"};
    EXPECT_EQ(m_bridge->GetListContainers(&containers), 0u);
    EXPECT_EQ(containers, StringList{u"x"});
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ContainersTest, GetListContainersWithTheMethodMissingAndNoExceptionPendingGives0AndLeavesTheList) {
    Interposer().FailGetMethodID("GetListContainers", kListContainersSignature);
    StringList containers{u"x"};
    EXPECT_EQ(m_bridge->GetListContainers(&containers), 0u);
    EXPECT_EQ(containers, StringList{u"x"});
    EXPECT_EQ(TestDouble::CallCount("GetListContainers"), 0u);
    const auto lines = NewLines();
    EXPECT_EQ(lines.size(), 5u);
    ExpectMissingMethodLines(lines, "GetListContainers", kListContainersSignature);
}

TEST_F(ContainersTest, GetListContainersMissingMethodWithExceptionPendingGives40) {
    FailLookupWithExceptionPending("GetListContainers", kListContainersSignature);
    StringList containers{u"x"};
    EXPECT_EQ(m_bridge->GetListContainers(&containers), 40u);
    EXPECT_EQ(containers, StringList{u"x"});
    EXPECT_EQ(NewLines(), PendingLookupLines("GetListContainers", kListContainersSignature));
}

TEST_F(ContainersTest, GetListContainersExceptionInTheFrameWritesTheContainersListLine) {
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    StringList containers;
    EXPECT_EQ(m_bridge->GetListContainers(&containers), 40u);
    EXPECT_EQ(NewLines(), Lines{u"GetContainersList::Exception is occured..."});
}

TEST_F(ContainersTest, GetListContainersWithoutAHostListStillCallsAndGivesTheCode) {
    TestDouble::ReturnErrorOrdinal("GetListContainers", 9);
    EXPECT_EQ(m_bridge->GetListContainers(nullptr), 10u);
    EXPECT_EQ(TestDouble::CallCount("GetListContainers"), 1u);
}

// ---------------------------------------------------------------- GetArchiveSet

TEST_F(ContainersTest, GetArchiveSetAppendsTheArchiveSetsContainerNames) {
    StringList containers;
    EXPECT_EQ(m_bridge->GetArchiveSet(&containers), 0u);
    EXPECT_EQ(containers, StringList{u"qv-archive"});
    ASSERT_EQ(TestDouble::CallCount("GetArchiveSet"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetArchiveSet", 0), "GetArchiveSet()");
    EXPECT_EQ(TestDouble::CallCount("GetListContainers"), 0u);
    EXPECT_EQ(Interposer().CountOf("GetMethodID", std::string("GetArchiveSet ") + kListContainersSignature), 1u);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ContainersTest, GetArchiveSetMapsTheJavaErrorOrdinal) {
    TestDouble::ReturnErrorOrdinal("GetArchiveSet", 29);
    StringList containers;
    EXPECT_EQ(m_bridge->GetArchiveSet(&containers), 30u);
}

TEST_F(ContainersTest, GetArchiveSetNullResultGives0) {
    TestDouble::ReturnNull("GetArchiveSet");
    StringList containers{u"x"};
    EXPECT_EQ(m_bridge->GetArchiveSet(&containers), 0u);
    EXPECT_EQ(containers, StringList{u"x"});
}

TEST_F(ContainersTest, GetArchiveSetMissingMethodGives0WithoutCalling) {
    Interposer().FailGetMethodID("GetArchiveSet", kListContainersSignature);
    StringList containers{u"x"};
    EXPECT_EQ(m_bridge->GetArchiveSet(&containers), 0u);
    EXPECT_EQ(containers, StringList{u"x"});
    EXPECT_EQ(TestDouble::CallCount("GetArchiveSet"), 0u);
    const auto lines = NewLines();
    EXPECT_EQ(lines.size(), 5u);
    ExpectMissingMethodLines(lines, "GetArchiveSet", kListContainersSignature);
}

TEST_F(ContainersTest, GetArchiveSetMissingMethodWithExceptionPendingGives40) {
    FailLookupWithExceptionPending("GetArchiveSet", kListContainersSignature);
    StringList containers;
    EXPECT_EQ(m_bridge->GetArchiveSet(&containers), 40u);
    EXPECT_EQ(NewLines(), PendingLookupLines("GetArchiveSet", kListContainersSignature));
}

TEST_F(ContainersTest, GetArchiveSetExceptionInTheFrameWritesTheContainersListLine) {
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    StringList containers;
    EXPECT_EQ(m_bridge->GetArchiveSet(&containers), 40u);
    EXPECT_EQ(NewLines(), Lines{u"GetContainersList::Exception is occured..."});
}

// ---------------------------------------------------------------- GetRegions

TEST_F(ContainersTest, GetRegionsAppendsTheRegionNamesWithoutLines) {
    StringList regions{u"first"};
    EXPECT_EQ(m_bridge->GetRegions(&regions), 0u);
    EXPECT_EQ(regions, (StringList{u"first", u"eastus", u"westeurope"}));
    ASSERT_EQ(TestDouble::CallCount("GetRegions"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetRegions", 0), "GetRegions()");
    EXPECT_EQ(Interposer().CountOf("GetMethodID", kRegionsSignature), 1u);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ContainersTest, GetRegionsSkipsNullRegions) {
    TestDouble::SetStringArray("GetRegions", "regionsList", {u"north", std::nullopt, u"south"});
    StringList regions;
    EXPECT_EQ(m_bridge->GetRegions(&regions), 0u);
    EXPECT_EQ(regions, (StringList{u"north", u"south"}));
}

TEST_F(ContainersTest, GetRegionsMapsTheJavaErrorOrdinal) {
    TestDouble::ReturnErrorOrdinal("GetRegions", 48);
    StringList regions;
    EXPECT_EQ(m_bridge->GetRegions(&regions), 46u);
    EXPECT_EQ(regions, (StringList{u"eastus", u"westeurope"}));
    TestDouble::ReturnNullErrorValue("GetRegions");
    EXPECT_EQ(m_bridge->GetRegions(nullptr), 47u);
}

TEST_F(ContainersTest, GetRegionsNullResultGives0) {
    TestDouble::ReturnNull("GetRegions");
    StringList regions{u"x"};
    EXPECT_EQ(m_bridge->GetRegions(&regions), 0u);
    EXPECT_EQ(regions, StringList{u"x"});
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ContainersTest, GetRegionsWithTheMethodMissingWritesItsLineAndGives0) {
    Interposer().FailGetMethodID("GetRegions", kRegionsSignature);
    StringList regions{u"x"};
    EXPECT_EQ(m_bridge->GetRegions(&regions), 0u);
    EXPECT_EQ(regions, StringList{u"x"});
    EXPECT_EQ(TestDouble::CallCount("GetRegions"), 0u);
    const auto lines = NewLines();
    ASSERT_EQ(lines.size(), 6u);
    ExpectMissingMethodLines(lines, "GetRegions", kRegionsSignature);
    EXPECT_EQ(lines[5], u"GET_LIST_REGIONS_NAME::method is not found...");
}

TEST_F(ContainersTest, GetRegionsWritesTheMethodNotFoundLineBeforeAnyExceptionCheck) {
    FailLookupWithExceptionPending("GetRegions", kRegionsSignature);
    StringList regions;
    EXPECT_EQ(m_bridge->GetRegions(&regions), 40u);
    // The line comes before the frame's own (failing) exception check.
    Lines expected = PendingLookupLines("GetRegions", kRegionsSignature);
    expected.insert(expected.end() - 1, u"GET_LIST_REGIONS_NAME::method is not found...");
    EXPECT_EQ(NewLines(), expected);
}

TEST_F(ContainersTest, GetRegionsExceptionInTheFrameWritesTheCreateObjectLine) {
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    StringList regions;
    EXPECT_EQ(m_bridge->GetRegions(&regions), 40u);
    EXPECT_EQ(NewLines(), Lines{u"CreateObject::Exception is occured..."});
}

// ---------------------------------------------------------------- IsValidContainer

TEST_F(ContainersTest, IsValidContainerHandsBackTheExistenceFlag) {
    uint32_t valid = 7;
    EXPECT_EQ(m_bridge->IsValidContainer(u"qv-backup", &valid), 0u);
    EXPECT_EQ(valid, 1u);
    EXPECT_EQ(m_bridge->IsValidContainer(u"missing", &valid), 0u);
    EXPECT_EQ(valid, 0u);
    ASSERT_EQ(TestDouble::CallCount("IsValidContainer"), 2u);
    EXPECT_EQ(TestDouble::DescribeCall("IsValidContainer", 0), "IsValidContainer(\"qv-backup\")");
    EXPECT_EQ(TestDouble::DescribeCall("IsValidContainer", 1), "IsValidContainer(\"missing\")");
    EXPECT_EQ(Interposer().CountOf("GetMethodID", kIsValidSignature), 2u);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ContainersTest, IsValidContainerMapsTheJavaErrorOrdinalAndStillHandsBackTheFlag) {
    TestDouble::ReturnErrorOrdinal("IsValidContainer", 12);
    TestDouble::SetBoolean("IsValidContainer", "isExist", true);
    uint32_t valid = 0;
    EXPECT_EQ(m_bridge->IsValidContainer(u"nope", &valid), 13u);
    EXPECT_EQ(valid, 1u);
}

TEST_F(ContainersTest, IsValidContainerNullResultGives0AndAFlagOf0) {
    TestDouble::ReturnNull("IsValidContainer");
    uint32_t valid = 7;
    EXPECT_EQ(m_bridge->IsValidContainer(u"qv-backup", &valid), 0u);
    EXPECT_EQ(valid, 0u);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ContainersTest, IsValidContainerMissingMethodTakesTheNullResultPathWithoutCalling) {
    Interposer().FailGetMethodID("IsValidContainer", kIsValidSignature);
    uint32_t valid = 7;
    EXPECT_EQ(m_bridge->IsValidContainer(u"qv-backup", &valid), 0u);
    EXPECT_EQ(valid, 0u);
    EXPECT_EQ(TestDouble::CallCount("IsValidContainer"), 0u);
    EXPECT_EQ(Interposer().CountOf("CallObjectMethodA"), 0u);
    const auto lines = NewLines();
    EXPECT_EQ(lines.size(), 5u);
    ExpectMissingMethodLines(lines, "IsValidContainer", kIsValidSignature);
}

TEST_F(ContainersTest, IsValidContainerMissingMethodWithExceptionPendingWritesItsLineAndGives40) {
    FailLookupWithExceptionPending("IsValidContainer", kIsValidSignature);
    uint32_t valid = 7;
    EXPECT_EQ(m_bridge->IsValidContainer(u"qv-backup", &valid), 40u);
    EXPECT_EQ(valid, 7u);
    EXPECT_EQ(NewLines(),
              Plus(PendingLookupLines("IsValidContainer", kIsValidSignature), u"IS_VALIDCONTAINER_NAME is failed..."));
}

TEST_F(ContainersTest, IsValidContainerExceptionInTheFrameWritesItsLineAndLeavesTheFlag) {
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    uint32_t valid = 7;
    EXPECT_EQ(m_bridge->IsValidContainer(u"qv-backup", &valid), 40u);
    EXPECT_EQ(valid, 7u);
    EXPECT_EQ(NewLines(), Lines{u"IsValidContainer::Exception is occured..."});
}

TEST_F(ContainersTest, IsValidContainerExceptionWhileTakingThePluginClassWritesItsLine) {
    Interposer().ThrowCppExceptionIn("GetObjectClass");
    uint32_t valid = 7;
    EXPECT_EQ(m_bridge->IsValidContainer(u"qv-backup", &valid), 40u);
    EXPECT_EQ(valid, 7u);
    EXPECT_EQ(NewLines(), Lines{u"IsValidContainer::Exception is occured..."});
    EXPECT_EQ(TestDouble::CallCount("IsValidContainer"), 0u);
}

TEST_F(ContainersTest, IsValidContainerWithoutAHostFlagStillCallsAndGivesTheCode) {
    TestDouble::ReturnErrorOrdinal("IsValidContainer", 2);
    EXPECT_EQ(m_bridge->IsValidContainer(u"qv-backup", nullptr), 2u);
    EXPECT_EQ(TestDouble::CallCount("IsValidContainer"), 1u);
}

// ---------------------------------------------------------------- IsContainerExists

TEST_F(ContainersTest, IsContainerExistsLooksUpTheAmazonLibrarySignatureAndHandsBackTheFlag) {
    uint32_t exists = 7;
    EXPECT_EQ(m_bridge->IsContainerExists(u"qv-archive", &exists), 0u);
    EXPECT_EQ(exists, 1u);
    EXPECT_EQ(m_bridge->IsContainerExists(u"gone", &exists), 0u);
    EXPECT_EQ(exists, 0u);
    ASSERT_EQ(TestDouble::CallCount("IsContainerExists"), 2u);
    EXPECT_EQ(TestDouble::DescribeCall("IsContainerExists", 0), "IsContainerExists(\"qv-archive\")");
    EXPECT_EQ(Interposer().CountOf("GetMethodID", std::string("IsContainerExists ") + kIsExistsSignature), 2u);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ContainersTest, IsContainerExistsMapsTheJavaErrorOrdinal) {
    TestDouble::ReturnErrorOrdinal("IsContainerExists", 38);
    uint32_t exists = 7;
    EXPECT_EQ(m_bridge->IsContainerExists(u"qv-archive", &exists), 1u);
    EXPECT_EQ(exists, 1u);
    TestDouble::ReturnNullErrorValue("IsContainerExists");
    EXPECT_EQ(m_bridge->IsContainerExists(u"gone", &exists), 47u);
    EXPECT_EQ(exists, 0u);
}

TEST_F(ContainersTest, IsContainerExistsNullResultGives0AndAFlagOf0) {
    TestDouble::ReturnNull("IsContainerExists");
    uint32_t exists = 7;
    EXPECT_EQ(m_bridge->IsContainerExists(u"qv-archive", &exists), 0u);
    EXPECT_EQ(exists, 0u);
}

TEST_F(ContainersTest, IsContainerExistsMissingMethodTakesTheNullResultPathWithoutCalling) {
    Interposer().FailGetMethodID("IsContainerExists", kIsExistsSignature);
    uint32_t exists = 7;
    EXPECT_EQ(m_bridge->IsContainerExists(u"qv-archive", &exists), 0u);
    EXPECT_EQ(exists, 0u);
    EXPECT_EQ(TestDouble::CallCount("IsContainerExists"), 0u);
    const auto lines = NewLines();
    EXPECT_EQ(lines.size(), 5u);
    ExpectMissingMethodLines(lines, "IsContainerExists", kIsExistsSignature);
}

TEST_F(ContainersTest, IsContainerExistsMissingMethodWithExceptionPendingWritesItsLineAndGives40) {
    FailLookupWithExceptionPending("IsContainerExists", kIsExistsSignature);
    uint32_t exists = 7;
    EXPECT_EQ(m_bridge->IsContainerExists(u"qv-archive", &exists), 40u);
    EXPECT_EQ(exists, 7u);
    EXPECT_EQ(NewLines(), Plus(PendingLookupLines("IsContainerExists", kIsExistsSignature),
                               u"IS_ISCONTAINEREXISTS_NAME is failed..."));
}

TEST_F(ContainersTest, IsContainerExistsExceptionInTheFrameWritesItsLine) {
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    uint32_t exists = 7;
    EXPECT_EQ(m_bridge->IsContainerExists(u"qv-archive", &exists), 40u);
    EXPECT_EQ(exists, 7u);
    EXPECT_EQ(NewLines(), Lines{u"IsContainerExists::Exception is occured..."});
}

// ---------------------------------------------------------------- DeleteContainer

TEST_F(ContainersTest, DeleteContainerCallsJavaWithoutArgumentsBetweenItsTwoLines) {
    EXPECT_EQ(m_bridge->DeleteContainer(), 0u);
    ASSERT_EQ(TestDouble::CallCount("DeleteContainer"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("DeleteContainer", 0), "DeleteContainer()");
    EXPECT_EQ(Interposer().CountOf("GetMethodID", std::string("DeleteContainer ") + kDeleteSignature), 1u);
    EXPECT_EQ(NewLines(), (Lines{kDeleteCalled, kDeleteEnded}));
}

// The log writer has one fixed level; these lines go through its unconditional write, so that they are
// there whatever the level, also around calls that fail.
TEST_F(ContainersTest, DeleteContainerWritesItsTwoLinesAtErrorLevelAroundEveryCall) {
    TestDouble::ReturnErrorOrdinal("DeleteContainer", 21);
    EXPECT_EQ(m_bridge->DeleteContainer(), 22u);
    TestDouble::Throw("DeleteContainer", "locked");
    EXPECT_EQ(m_bridge->DeleteContainer(), 40u);
    EXPECT_EQ(NewLines(), (Lines{kDeleteCalled, kDeleteEnded, kDeleteCalled, kDeleteEnded}));
}

TEST_F(ContainersTest, DeleteContainerNullResultGives40) {
    TestDouble::ReturnNull("DeleteContainer");
    EXPECT_EQ(m_bridge->DeleteContainer(), 40u);
    EXPECT_EQ(NewLines(), (Lines{kDeleteCalled, kDeleteEnded}));
}

TEST_F(ContainersTest, DeleteContainerMissingMethodTakesTheNullResultPathWithBothLines) {
    Interposer().FailGetMethodID("DeleteContainer", kDeleteSignature);
    EXPECT_EQ(m_bridge->DeleteContainer(), 40u);
    EXPECT_EQ(TestDouble::CallCount("DeleteContainer"), 0u);
    EXPECT_EQ(Interposer().CountOf("CallObjectMethodA"), 0u);
    const auto lines = NewLines();
    ASSERT_EQ(lines.size(), 7u);
    ExpectMissingMethodLines(lines, "DeleteContainer", kDeleteSignature);
    EXPECT_EQ(lines[5], kDeleteCalled);
    EXPECT_EQ(lines[6], kDeleteEnded);
}

TEST_F(ContainersTest, DeleteContainerMissingMethodWithExceptionPendingGives40WithoutItsLines) {
    FailLookupWithExceptionPending("DeleteContainer", kDeleteSignature);
    EXPECT_EQ(m_bridge->DeleteContainer(), 40u);
    EXPECT_EQ(NewLines(), PendingLookupLines("DeleteContainer", kDeleteSignature));
}

TEST_F(ContainersTest, DeleteContainerExceptionInTheFrameWritesItsLine) {
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    EXPECT_EQ(m_bridge->DeleteContainer(), 40u);
    EXPECT_EQ(NewLines(), (Lines{kDeleteCalled, u"DeleteContainerFromQVCloud::Exception is occured..."}));
}

// ---------------------------------------------------------------- GetContainerName

TEST_F(ContainersTest, GetContainerNameHandsBackTheNameBetweenItsTwoLines) {
    WideString name = u"old";
    EXPECT_EQ(m_bridge->GetContainerName(name), 0u);
    EXPECT_EQ(name, u"qv-backup");
    ASSERT_EQ(TestDouble::CallCount("GetContainerName"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetContainerName", 0), "GetContainerName()");
    EXPECT_EQ(Interposer().CountOf("GetMethodID", kContainerNameSignature), 1u);
    EXPECT_EQ(NewLines(), (Lines{kNameCalled, kNameEnded}));
}

TEST_F(ContainersTest, GetContainerNameMapsTheJavaErrorOrdinalAndStillHandsBackTheName) {
    TestDouble::ReturnErrorOrdinal("GetContainerName", 7);
    TestDouble::SetString("GetContainerName", "accountName", u"other");
    WideString name = u"old";
    EXPECT_EQ(m_bridge->GetContainerName(name), 8u);
    EXPECT_EQ(name, u"other");
}

TEST_F(ContainersTest, GetContainerNameNullNameEmptiesTheName) {
    TestDouble::SetNullField("GetContainerName", "accountName");
    WideString name = u"old";
    EXPECT_EQ(m_bridge->GetContainerName(name), 0u);
    EXPECT_EQ(name, u"");
}

TEST_F(ContainersTest, GetContainerNameNullResultGives40AndLeavesTheName) {
    TestDouble::ReturnNull("GetContainerName");
    WideString name = u"old";
    EXPECT_EQ(m_bridge->GetContainerName(name), 40u);
    EXPECT_EQ(name, u"old");
    EXPECT_EQ(NewLines(), (Lines{kNameCalled, kNameEnded}));
}

TEST_F(ContainersTest, GetContainerNameMissingMethodTakesTheNullResultPathWithBothLines) {
    Interposer().FailGetMethodID("GetContainerName", kContainerNameSignature);
    WideString name = u"old";
    EXPECT_EQ(m_bridge->GetContainerName(name), 40u);
    EXPECT_EQ(name, u"old");
    EXPECT_EQ(TestDouble::CallCount("GetContainerName"), 0u);
    const auto lines = NewLines();
    ASSERT_EQ(lines.size(), 7u);
    ExpectMissingMethodLines(lines, "GetContainerName", kContainerNameSignature);
    EXPECT_EQ(lines[5], kNameCalled);
    EXPECT_EQ(lines[6], kNameEnded);
}

TEST_F(ContainersTest, GetContainerNameMissingMethodWithExceptionPendingGives40) {
    FailLookupWithExceptionPending("GetContainerName", kContainerNameSignature);
    WideString name = u"old";
    EXPECT_EQ(m_bridge->GetContainerName(name), 40u);
    EXPECT_EQ(name, u"old");
    EXPECT_EQ(NewLines(), PendingLookupLines("GetContainerName", kContainerNameSignature));
}

TEST_F(ContainersTest, GetContainerNameExceptionInTheFrameWritesItsLine) {
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    WideString name = u"old";
    EXPECT_EQ(m_bridge->GetContainerName(name), 40u);
    EXPECT_EQ(name, u"old");
    EXPECT_EQ(NewLines(), (Lines{kNameCalled, u"GetContainerName::Exception is occured..."}));
}

// ---------------------------------------------------------------- GetBucketRegion

TEST_F(ContainersTest, GetBucketRegionHandsBackTheRegionAndWritesItsDetailLines) {
    WideString region = u"old";
    EXPECT_EQ(m_bridge->GetBucketRegion(u"qv-backup", region), 0u);
    EXPECT_EQ(region, u"eastus");
    ASSERT_EQ(TestDouble::CallCount("GetBucketRegion"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetBucketRegion", 0), "GetBucketRegion(\"qv-backup\")");
    EXPECT_EQ(Interposer().CountOf("GetMethodID", kBucketRegionSignature), 1u);
    EXPECT_EQ(NewLines(), (Lines{u"qv-backup", u"eastus", kRegionEnded}));
}

TEST_F(ContainersTest, GetBucketRegionWritesTheContainerNameBeforeCallingJava) {
    // The call itself fails, and the container's line is already there.
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    WideString region = u"old";
    EXPECT_EQ(m_bridge->GetBucketRegion(u"container-\u00e9", region), 40u);
    EXPECT_EQ(region, u"old");
    EXPECT_EQ(NewLines(), (Lines{u"container-\u00e9", u"CreateObject::Exception is occured..."}));
}

TEST_F(ContainersTest, GetBucketRegionMapsTheJavaErrorOrdinalAndStillHandsBackTheRegion) {
    TestDouble::ReturnErrorOrdinal("GetBucketRegion", 13);
    TestDouble::SetString("GetBucketRegion", "objHandle", u"westeurope");
    WideString region = u"old";
    EXPECT_EQ(m_bridge->GetBucketRegion(u"c", region), 14u);
    EXPECT_EQ(region, u"westeurope");
    EXPECT_EQ(NewLines(), (Lines{u"c", u"westeurope", kRegionEnded}));
}

TEST_F(ContainersTest, GetBucketRegionOverwritesTheCallersRegionWhenTheResultCarriesNoText) {
    TestDouble::SetNullField("GetBucketRegion", "objHandle");
    WideString region = u"old";
    EXPECT_EQ(m_bridge->GetBucketRegion(u"c", region), 0u);
    EXPECT_EQ(region, u"");
    EXPECT_EQ(NewLines(), (Lines{u"c", u"", kRegionEnded}));
}

TEST_F(ContainersTest, GetBucketRegionNullResultEmptiesTheRegionAndGives0) {
    TestDouble::ReturnNull("GetBucketRegion");
    WideString region = u"old";
    EXPECT_EQ(m_bridge->GetBucketRegion(u"c", region), 0u);
    EXPECT_EQ(region, u"");
    EXPECT_EQ(NewLines(), (Lines{u"c", u"", kRegionEnded}));
}

TEST_F(ContainersTest, GetBucketRegionMissingMethodGives0AndLeavesTheRegion) {
    Interposer().FailGetMethodID("GetBucketRegion", kBucketRegionSignature);
    WideString region = u"old";
    EXPECT_EQ(m_bridge->GetBucketRegion(u"c", region), 0u);
    EXPECT_EQ(region, u"old");
    EXPECT_EQ(TestDouble::CallCount("GetBucketRegion"), 0u);
    const auto lines = NewLines();
    EXPECT_EQ(lines.size(), 5u);
    ExpectMissingMethodLines(lines, "GetBucketRegion", kBucketRegionSignature);
}

TEST_F(ContainersTest, GetBucketRegionMissingMethodWithExceptionPendingGives40) {
    FailLookupWithExceptionPending("GetBucketRegion", kBucketRegionSignature);
    WideString region = u"old";
    EXPECT_EQ(m_bridge->GetBucketRegion(u"c", region), 40u);
    EXPECT_EQ(region, u"old");
    EXPECT_EQ(NewLines(), PendingLookupLines("GetBucketRegion", kBucketRegionSignature));
}

// ---------------------------------------------------------------- common to the eight

TEST_F(ContainersTest, WithoutAPluginObjectEveryOperationGives40WithoutALine) {
    ASSERT_EQ(m_bridge->DeInit(), 0u);
    Interposer().Reset();
    MarkLines();
    StringList list{u"x"};
    uint32_t flag = 7;
    WideString text = u"old";
    EXPECT_EQ(m_bridge->GetListContainers(&list), 40u);
    EXPECT_EQ(m_bridge->GetArchiveSet(&list), 40u);
    EXPECT_EQ(m_bridge->GetRegions(&list), 40u);
    EXPECT_EQ(m_bridge->IsValidContainer(u"c", &flag), 40u);
    EXPECT_EQ(m_bridge->IsContainerExists(u"c", &flag), 40u);
    EXPECT_EQ(m_bridge->DeleteContainer(), 40u);
    EXPECT_EQ(m_bridge->GetContainerName(text), 40u);
    EXPECT_EQ(m_bridge->GetBucketRegion(u"c", text), 40u);
    EXPECT_EQ(list, StringList{u"x"});
    EXPECT_EQ(flag, 7u);
    EXPECT_EQ(text, u"old");
    EXPECT_TRUE(NewLines().empty());
    for (const char* method : {"GetListContainers", "GetArchiveSet", "GetRegions", "IsValidContainer",
                               "IsContainerExists", "DeleteContainer", "GetContainerName", "GetBucketRegion"})
        EXPECT_EQ(TestDouble::CallCount(method), 0u) << method;
}

TEST_F(ContainersTest, AThreadThatWasNotAttachedIsAttachedAndDetachedPerOperation) {
    uint32_t valid = 0;
    uint32_t code = 99;
    std::thread([&] { code = m_bridge->IsValidContainer(u"qv-backup", &valid); }).join();
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(valid, 1u);
    EXPECT_EQ(Interposer().Attaches(), 1);
    EXPECT_EQ(Interposer().Detaches(), 1);
}

TEST_F(ContainersTest, EveryOperationReleasesItsLocalReferences) {
    StringList list;
    uint32_t flag = 0;
    WideString text;
    EXPECT_EQ(m_bridge->GetListContainers(&list), 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(m_bridge->GetArchiveSet(&list), 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(m_bridge->GetRegions(&list), 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(m_bridge->IsValidContainer(u"qv-backup", &flag), 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(m_bridge->IsContainerExists(u"qv-backup", &flag), 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(m_bridge->DeleteContainer(), 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(m_bridge->GetContainerName(text), 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(m_bridge->GetBucketRegion(u"qv-backup", text), 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_GT(Interposer().LocalRefsMade(), 0);
}

}  // namespace
