// The object metadata and sub-list operations of the bridge (SetObjectMetaData,
// both GetObjectMetaData forms, GetObjectSubList) against the Java test double.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bridge/BridgeLog.h"
#include "bridge/JNIBridge.h"
#include "OperationPaths.h"
#include "marshal/MetaData.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;
using jnitest::OperationPaths;
using jnitest::OperationPathsTest;
using jnitest::PathOutcome;
using jnitest::Shown;
using jnitest::StartedBridgeFixture;
using jnitest::MetaEntry;
using jnitest::SubListEntry;
using jnitest::SubListOwner;
using jnitest::TestDouble;

namespace {

constexpr const char* kSetSignature =
    "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kPropertySignature =
    "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/AzureLibrary/CGetObjectMetaData;";
constexpr const char* kAllSignature = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CGObjectMetaDataFnValue;";
constexpr const char* kSubListSignature = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CRetGetSubMetaDataList;";


// A sub-list pointer value that the bridge never produces, to see whether it was written.
ObjectSubList* const kUntouchedSubList = reinterpret_cast<ObjectSubList*>(static_cast<uintptr_t>(0x1));

// ---- the paths every operation shares (OperationPaths.h)

std::vector<OperationPaths> ObjectMetaDataPaths() {
    const ObjectMetaData kept{{u"kept", {u"1", 0}}};
    return {
        OperationPaths(
            "SetObjectMetaData", "SetObjectMetaData", kSetSignature,
            [](JNIBridge& bridge) {
                return PathOutcome{
                    bridge.SetObjectMetaData(u"obj", ObjectMetaData::value_type{u"colour", MetaDataValue{u"blue", 5}}),
                    ""};
            },
            "", u"SetObjectMetaData::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::ReturnSuccess)
            .OnNullResult(40, {}),
        // A null result reads as ordinal 0, so the value is emptied.
        OperationPaths(
            "GetObjectMetaDataOfOneProperty", "GetObjectMetaData", kPropertySignature,
            [](JNIBridge& bridge) {
                WideString value = u"kept";
                const uint32_t code = bridge.GetObjectMetaData(u"obj", u"size", value);
                return PathOutcome{code, Shown(value)};
            },
            Shown(WideString(u"kept")), u"GetObjectMetaData::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .BeforeCall({u"GetObjectMetaData::Java called ...obj"})
            .OnNullResult(0, {u"GetObjectMetaData::Java called ...obj", u"GetObjectMetaData::Java ended ...obj"},
                          Shown(WideString())),
        OperationPaths(
            "GetObjectMetaDataOfAllProperties", "GetObjectMetaData", kAllSignature,
            [kept](JNIBridge& bridge) {
                ObjectMetaData metaData = kept;
                const uint32_t code = bridge.GetObjectMetaData(u"obj", &metaData);
                return PathOutcome{code, Shown(metaData)};
            },
            Shown(kept), u"GetObjectMetaData::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(0, {}),
        // A null result gives 40 and makes no sub-list.
        OperationPaths(
            "GetObjectSubList", "GetObjectSubList", kSubListSignature,
            [](JNIBridge& bridge) {
                SubListOwner owner;
                owner.list = kUntouchedSubList;
                const uint32_t code = bridge.GetObjectSubList(u"p", &owner.list);
                std::string outputs = owner.list == kUntouchedSubList ? "untouched" : "a new sub-list";
                if (owner.list == kUntouchedSubList) owner.list = nullptr;
                return PathOutcome{code, outputs};
            },
            "untouched", u"GetObjectSubList::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(40, {}),
    };
}

INSTANTIATE_TEST_SUITE_P(ObjectMetaData, OperationPathsTest, ::testing::ValuesIn(ObjectMetaDataPaths()),
                         jnitest::OperationName);

class ObjectMetaDataOpsTest : public StartedBridgeFixture {
};

const ObjectMetaData::value_type kColour{u"colour", MetaDataValue{u"blue", 5}};

// ---------------------------------------------------------------- SetObjectMetaData

TEST_F(ObjectMetaDataOpsTest, SetObjectMetaDataStoresThePropertyAndGives0WithoutLines) {
    EXPECT_EQ(m_bridge->SetObjectMetaData(u"photos/a.jpg", kColour), 0u);
    ASSERT_EQ(TestDouble::CallCount("SetObjectMetaData"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("SetObjectMetaData", 0),
              "SetObjectMetaData(\"photos/a.jpg\", \"colour\", \"blue\")");
    EXPECT_TRUE(NewLines().empty());
    EXPECT_EQ(Interposer().CountOf("GetMethodID", kSetSignature), 1u);
    // The double's store now answers the property.
    WideString value;
    EXPECT_EQ(m_bridge->GetObjectMetaData(u"photos/a.jpg", u"colour", value), 0u);
    EXPECT_EQ(value, u"blue");
}

TEST_F(ObjectMetaDataOpsTest, SetObjectMetaDataPassesThePropertyNameBeforeItsValue) {
    const ObjectMetaData::value_type property{u"name-first", MetaDataValue{u"value-second", 0}};
    EXPECT_EQ(m_bridge->SetObjectMetaData(u"obj", property), 0u);
    ASSERT_EQ(TestDouble::CallCount("SetObjectMetaData"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("SetObjectMetaData", 0),
              "SetObjectMetaData(\"obj\", \"name-first\", \"value-second\")");
}

TEST_F(ObjectMetaDataOpsTest, SetObjectMetaDataMapsTheJavaErrorOrdinal) {
    TestDouble::ReturnErrorOrdinal("SetObjectMetaData", 3);
    EXPECT_EQ(m_bridge->SetObjectMetaData(u"obj", kColour), 7u);
    TestDouble::ReturnErrorOrdinal("SetObjectMetaData", 40);
    EXPECT_EQ(m_bridge->SetObjectMetaData(u"obj", kColour), 47u);
    TestDouble::ReturnErrorOrdinal("SetObjectMetaData", 45);
    EXPECT_EQ(m_bridge->SetObjectMetaData(u"obj", kColour), 23u);
    EXPECT_TRUE(NewLines().empty());
}






// ---------------------------------------------------------------- GetObjectMetaData, one property

TEST_F(ObjectMetaDataOpsTest, GetPropertyHandsBackTheValueAndWritesTheLinesAroundTheCall) {
    TestDouble::SetString("GetObjectMetaData", "value", u"42 KiB");
    WideString value = u"old";
    EXPECT_EQ(m_bridge->GetObjectMetaData(u"docs/x.txt", u"size", value), 0u);
    EXPECT_EQ(value, u"42 KiB");
    ASSERT_EQ(TestDouble::CallCount("GetObjectMetaData"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetObjectMetaData", 0), "GetObjectMetaData(\"docs/x.txt\", \"size\")");
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"GetObjectMetaData::Java called ...docs/x.txt",
                                                   u"GetObjectMetaData::Java ended ...docs/x.txt"}));
    EXPECT_EQ(Interposer().CountOf("GetMethodID", kPropertySignature), 1u);
}

TEST_F(ObjectMetaDataOpsTest, GetPropertyLeavesTheCallersValueUnchangedWhenJavaReportsAnError) {
    TestDouble::ReturnErrorOrdinal("GetObjectMetaData", 5);
    TestDouble::SetString("GetObjectMetaData", "value", u"from java");
    WideString value = u"kept";
    EXPECT_EQ(m_bridge->GetObjectMetaData(u"obj", u"size", value), 5u);
    EXPECT_EQ(value, u"kept");
    EXPECT_EQ(NewLines().size(), 2u);  // the called and ended lines
}

TEST_F(ObjectMetaDataOpsTest, GetPropertyMapsTheOrdinalOfAnIrregularEntry) {
    TestDouble::ReturnErrorOrdinal("GetObjectMetaData", 27);
    WideString value = u"kept";
    EXPECT_EQ(m_bridge->GetObjectMetaData(u"obj", u"size", value), 30u);
    EXPECT_EQ(value, u"kept");
}

TEST_F(ObjectMetaDataOpsTest, GetPropertyNullErrorValueGivesTheCodeOfOrdinal40AndKeepsTheValue) {
    TestDouble::ReturnNullErrorValue("GetObjectMetaData");
    TestDouble::SetString("GetObjectMetaData", "value", u"from java");
    WideString value = u"kept";
    EXPECT_EQ(m_bridge->GetObjectMetaData(u"obj", u"size", value), 47u);
    EXPECT_EQ(value, u"kept");
}





// ---------------------------------------------------------------- GetObjectMetaData, all properties

TEST_F(ObjectMetaDataOpsTest, GetAllPropertiesCallsJavaWithTheObjectAndGives0WithoutLines) {
    ObjectMetaData metaData;
    EXPECT_EQ(m_bridge->GetObjectMetaData(u"docs/y.txt", &metaData), 0u);
    ASSERT_EQ(TestDouble::CallCount("GetObjectMetaData"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetObjectMetaData", 0), "GetObjectMetaData(\"docs/y.txt\")");
    EXPECT_EQ(Interposer().CountOf("GetMethodID", kAllSignature), 1u);
    EXPECT_TRUE(NewLines().empty());
}

// The result's values field is looked up with a method-shaped signature that no field has, so what Java
// puts there never reaches the host's metadata.
TEST_F(ObjectMetaDataOpsTest, GetAllPropertiesLeavesTheHostsMetadataAsItWasSinceTheValuesFieldIsNeverFound) {
    TestDouble::SetMetaData("GetObjectMetaData", "values", {MetaEntry{u"size", u"12"}});
    ObjectMetaData metaData{{u"mine", MetaDataValue{u"1", 2}}};
    EXPECT_EQ(m_bridge->GetObjectMetaData(u"obj", &metaData), 0u);
    ASSERT_EQ(metaData.size(), 1u);
    EXPECT_EQ(metaData.begin()->first, u"mine");
    EXPECT_EQ(metaData.begin()->second.szProperty, u"1");
    EXPECT_EQ(metaData.begin()->second.prpType, 2u);
    EXPECT_EQ(Interposer().CountOf("GetFieldID", "()[Lcom/qv/AzureLibrary/CGObjectMetaDataFnValue;"), 1u);
}

TEST_F(ObjectMetaDataOpsTest, GetAllPropertiesMapsTheJavaErrorOrdinal) {
    TestDouble::ReturnErrorOrdinal("GetObjectMetaData", 46);
    ObjectMetaData metaData;
    EXPECT_EQ(m_bridge->GetObjectMetaData(u"obj", &metaData), 49u);
    TestDouble::ReturnNullErrorValue("GetObjectMetaData");
    EXPECT_EQ(m_bridge->GetObjectMetaData(u"obj", &metaData), 47u);
    EXPECT_TRUE(metaData.empty());
}





TEST_F(ObjectMetaDataOpsTest, GetAllPropertiesWithoutAHostMapStillCallsAndGivesTheCode) {
    TestDouble::ReturnErrorOrdinal("GetObjectMetaData", 4);
    EXPECT_EQ(m_bridge->GetObjectMetaData(u"obj", static_cast<ObjectMetaData*>(nullptr)), 4u);
    EXPECT_EQ(TestDouble::CallCount("GetObjectMetaData"), 1u);
}

// ---------------------------------------------------------------- GetObjectSubList

TEST_F(ObjectMetaDataOpsTest, GetObjectSubListHandsBackANewSubListWithEachEntrysMetadata) {
    TestDouble::SetSubList("GetObjectSubList",
                           {SubListEntry{u"dir/b", {MetaEntry{u"size", u"2"}, MetaEntry{u"colour", u"red"}}},
                            SubListEntry{u"dir/a", {}}});
    SubListOwner owner;
    EXPECT_EQ(m_bridge->GetObjectSubList(u"dir/", &owner.list), 0u);
    ASSERT_NE(owner.list, nullptr);
    ASSERT_EQ(owner.list->size(), 2u);
    const ObjectMetaData* a = owner.list->at(u"dir/a");
    const ObjectMetaData* b = owner.list->at(u"dir/b");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_TRUE(a->empty());
    ASSERT_EQ(b->size(), 2u);
    EXPECT_EQ(b->at(u"size").szProperty, u"2");
    EXPECT_EQ(b->at(u"colour").szProperty, u"red");
    ASSERT_EQ(TestDouble::CallCount("GetObjectSubList"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("GetObjectSubList", 0), "GetObjectSubList(\"dir/\")");
    EXPECT_EQ(Interposer().CountOf("GetMethodID", kSubListSignature), 1u);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ObjectMetaDataOpsTest, GetObjectSubListOfTheStoreListsTheObjectsBelowThePath) {
    ASSERT_EQ(m_bridge->SetObjectMetaData(u"dir/one", {u"k", MetaDataValue{u"v", 0}}), 0u);
    ASSERT_EQ(m_bridge->SetObjectMetaData(u"other/two", {u"k", MetaDataValue{u"w", 0}}), 0u);
    SubListOwner owner;
    EXPECT_EQ(m_bridge->GetObjectSubList(u"dir/", &owner.list), 0u);
    ASSERT_NE(owner.list, nullptr);
    ASSERT_EQ(owner.list->size(), 1u);
    const ObjectMetaData* one = owner.list->at(u"dir/one");
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(one->at(u"k").szProperty, u"v");
}

TEST_F(ObjectMetaDataOpsTest, GetObjectSubListMapsTheJavaErrorOrdinalAndStillHandsOverTheSubList) {
    TestDouble::ReturnErrorOrdinal("GetObjectSubList", 8);
    TestDouble::SetSubList("GetObjectSubList", {SubListEntry{u"f", {MetaEntry{u"k", u"v"}}}});
    SubListOwner owner;
    EXPECT_EQ(m_bridge->GetObjectSubList(u"p", &owner.list), 9u);
    ASSERT_NE(owner.list, nullptr);
    EXPECT_EQ(owner.list->size(), 1u);
}

TEST_F(ObjectMetaDataOpsTest, GetObjectSubListNullErrorValueKeepsOrdinal0) {
    TestDouble::ReturnNullErrorValue("GetObjectSubList");
    SubListOwner owner;
    EXPECT_EQ(m_bridge->GetObjectSubList(u"p", &owner.list), 0u);
    EXPECT_NE(owner.list, nullptr);
}

TEST_F(ObjectMetaDataOpsTest, GetObjectSubListWithANullArrayGivesAnEmptySubListAnd0) {
    TestDouble::SetNullField("GetObjectSubList", "metaDat");
    SubListOwner owner;
    EXPECT_EQ(m_bridge->GetObjectSubList(u"p", &owner.list), 0u);
    ASSERT_NE(owner.list, nullptr);
    EXPECT_TRUE(owner.list->empty());
}


TEST_F(ObjectMetaDataOpsTest, GetObjectSubListEachCallMakesANewSubList) {
    ObjectSubList* list = nullptr;
    ASSERT_EQ(m_bridge->GetObjectSubList(u"p", &list), 0u);
    SubListOwner first{list};
    // The host's pointer is overwritten with a new sub-list; the first stays the host's to free.
    ASSERT_EQ(m_bridge->GetObjectSubList(u"p", &list), 0u);
    SubListOwner second{list};
    EXPECT_NE(second.list, nullptr);
    EXPECT_NE(second.list, first.list);
}




TEST_F(ObjectMetaDataOpsTest, GetObjectSubListWithoutAHostPointerStillCallsAndGivesTheCode) {
    TestDouble::ReturnErrorOrdinal("GetObjectSubList", 1);
    EXPECT_EQ(m_bridge->GetObjectSubList(u"p", nullptr), 1u);
    EXPECT_EQ(TestDouble::CallCount("GetObjectSubList"), 1u);
}

// ---------------------------------------------------------------- common to the four


TEST_F(ObjectMetaDataOpsTest, AThreadThatWasNotAttachedIsAttachedAndDetachedPerOperation) {
    WideString value;
    uint32_t code = 99;
    std::thread([&] { code = m_bridge->GetObjectMetaData(u"obj", u"size", value); }).join();
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(Interposer().Attaches(), 1);
    EXPECT_EQ(Interposer().Detaches(), 1);
    EXPECT_EQ(TestDouble::CallCount("GetObjectMetaData"), 1u);
}

TEST_F(ObjectMetaDataOpsTest, EveryOperationReleasesItsLocalReferences) {
    TestDouble::SetSubList("GetObjectSubList", {SubListEntry{u"f", {MetaEntry{u"k", u"v"}}}});
    WideString value;
    ObjectMetaData metaData;
    SubListOwner owner;
    EXPECT_EQ(m_bridge->SetObjectMetaData(u"obj", kColour), 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(m_bridge->GetObjectMetaData(u"obj", u"colour", value), 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(m_bridge->GetObjectMetaData(u"obj", &metaData), 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_EQ(m_bridge->GetObjectSubList(u"p", &owner.list), 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_GT(Interposer().LocalRefsMade(), 0);
}

}  // namespace
