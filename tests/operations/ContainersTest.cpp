// The container and region operations of the bridge (GetListContainers,
// GetArchiveSet, GetRegions, IsValidContainer, IsContainerExists,
// DeleteContainer, GetContainerName, GetBucketRegion) against the Java test
// double.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
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

// ---- the paths every operation shares (OperationPaths.h)

std::vector<OperationPaths> ContainerPaths() {
    const StringList kept{u"kept"};
    const auto list = [kept](uint32_t (JNIBridge::*operation)(StringList*)) {
        return [kept, operation](JNIBridge& bridge) {
            StringList names = kept;
            const uint32_t code = (bridge.*operation)(&names);
            return PathOutcome{code, Shown(names)};
        };
    };
    const auto existence = [](uint32_t (JNIBridge::*operation)(const WideString&, uint32_t*)) {
        return [operation](JNIBridge& bridge) {
            uint32_t flag = 7;
            const uint32_t code = (bridge.*operation)(u"c", &flag);
            return PathOutcome{code, Shown("flag", flag)};
        };
    };
    const auto text = [](std::function<uint32_t(JNIBridge&, WideString&)> operation) {
        return [operation](JNIBridge& bridge) {
            WideString value = u"kept";
            const uint32_t code = operation(bridge, value);
            return PathOutcome{code, Shown(value)};
        };
    };
    const char16_t* const missingClassLine = u"m_ObjQVAzurePlugInLibrary is failed...";
    const WideString keptText = u"kept";
    return {
        // Both lists write GetContainersList's exception line; a missing method counts as success.
        OperationPaths("GetListContainers", "GetListContainers", kListContainersSignature,
                       list(&JNIBridge::GetListContainers), Shown(kept), u"GetContainersList::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::ReturnSuccess)
            .OnNullResult(0, {}),
        OperationPaths("GetArchiveSet", "GetArchiveSet", kListContainersSignature, list(&JNIBridge::GetArchiveSet),
                       Shown(kept), u"GetContainersList::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::ReturnSuccess)
            .OnNullResult(0, {}),
        OperationPaths("GetRegions", "GetRegions", kRegionsSignature, list(&JNIBridge::GetRegions), Shown(kept),
                       u"CreateObject::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::ReturnSuccess, u"GET_LIST_REGIONS_NAME::method is not found...")
            .OnNullResult(0, {}),
        // The existence tests name the missing class; a null result gives the flag 0.
        OperationPaths("IsValidContainer", "IsValidContainer", kIsValidSignature,
                       existence(&JNIBridge::IsValidContainer), Shown("flag", 7),
                       u"IsValidContainer::Exception is occured...")
            .WithoutClass(MissingClassRule::Fail, missingClassLine)
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnPendingException(u"IS_VALIDCONTAINER_NAME is failed...")
            .OnNullResult(0, {}, Shown("flag", 0)),
        OperationPaths("IsContainerExists", "IsContainerExists", kIsExistsSignature,
                       existence(&JNIBridge::IsContainerExists), Shown("flag", 7),
                       u"IsContainerExists::Exception is occured...")
            .WithoutClass(MissingClassRule::Fail, missingClassLine)
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnPendingException(u"IS_ISCONTAINEREXISTS_NAME is failed...")
            .OnNullResult(0, {}, Shown("flag", 0)),
        OperationPaths(
            "DeleteContainer", "DeleteContainer", kDeleteSignature,
            [](JNIBridge& bridge) { return PathOutcome{bridge.DeleteContainer(), ""}; }, "",
            u"DeleteContainerFromQVCloud::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .BeforeCall({kDeleteCalled})
            .OnNullResult(40, {kDeleteCalled, kDeleteEnded}),
        // A null result gives 40 and leaves the name.
        OperationPaths("GetContainerName", "GetContainerName", kContainerNameSignature,
                       text([](JNIBridge& bridge, WideString& name) { return bridge.GetContainerName(name); }),
                       Shown(keptText), u"GetContainerName::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .BeforeCall({kNameCalled})
            .OnNullResult(40, {kNameCalled, kNameEnded}),
        // The container name is a detail line before the call; a null result empties the region.
        OperationPaths("GetBucketRegion", "GetBucketRegion", kBucketRegionSignature,
                       text([](JNIBridge& bridge, WideString& region) { return bridge.GetBucketRegion(u"c", region); }),
                       Shown(keptText), u"CreateObject::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::ReturnSuccess)
            .BeforeCall({u"c"})
            .OnNullResult(0, {u"c", u"", kRegionEnded}, Shown(WideString())),
    };
}

INSTANTIATE_TEST_SUITE_P(Containers, OperationPathsTest, ::testing::ValuesIn(ContainerPaths()),
                         jnitest::OperationName);

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




// ---------------------------------------------------------------- common to the eight


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
