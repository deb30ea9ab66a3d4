// Every slot of a loaded plug-in object with a bridge, called through the
// raw table: the Java call it makes (name, argument order and values) shows
// which operation answered.
#include "LoadedPluginFixture.h"

namespace {

using jnitest::TestDouble;
using plugintest::AllSlotCalls;
using plugintest::SlotArguments;
using plugintest::SlotCallAt;

using Calls = std::vector<std::string>;

class SlotForwardingTest : public plugintest::LoadedPluginFixture {
protected:
    uint32_t Call(size_t slot) { return SlotCallAt(slot).call(m_object, m_arguments); }
    SlotArguments m_arguments;
};

// The Java calls each slot makes with the arguments of SlotCalls.cpp; none
// for the slots answered by the manager or the interface itself. Slots 2
// (which ends the Java object) and 50 (which ends the plug-in object) have
// tests of their own.
Calls ExpectedJavaCalls(size_t slot, const std::string& installFolder) {
    switch (slot) {
        case 0: return {"AzureInit(\"init string\", \"" + installFolder + "\")"};
        case 3: return {"CreateObject(\"obj3\", {\"k\"=\"v\"})"};
        case 4: return {"CreateObject(\"obj4\")"};
        case 5: return {"WriteObject(\"obj5\", byte[3], 3, {\"k\"=\"v\"}, 261)"};
        case 6: return {"WriteObject(\"obj6\", byte[3], 3, {\"k\"=\"v\"})"};
        case 7: return {"WriteObject(\"obj7\", byte[3], 3)"};
        case 8: return {"SetObjectMetaData(\"obj8\", \"name8\", \"value8\")"};
        case 9: return {"CloseObject(\"handle:obj9\")"};
        case 10: return {"OpenObject(\"obj10\", true)"};
        case 11: return {"OpenObject(\"obj11\")"};
        case 12: return {"ReadObject(\"obj12\", byte[4], 4, 2)"};
        case 13: return {"GetObjectMetaData(\"obj13\")"};
        case 14: return {"GetObjectMetaData(\"obj14\", \"prop14\")"};
        case 15: return {"getStorageKey(\"first15\", \"second15\")"};
        case 16: return {"GetContainerName()"};
        case 17: return {"DeleteContainer()"};
        case 18: return {"addJobInfo(3, 4, 1, 2, 6, 5)"};
        case 19: return {"DeleteObjectByName(\"obj19\")"};
        case 20: return {"DeleteObjectByHandle([\"p1\", \"p2\"])"};
        case 21: return {"DeleteObjectByHandle(\"handle:obj21\")"};
        case 22: return {"DeleteCachedObjectByName(\"obj22\")"};
        case 23: return {"GetObjectSubList(\"dir/\")"};
        case 24: return {"UpdateCachedObjectByName(\"obj24\", byte[3], 3, {\"k\"=\"v\"})"};
        case 25: return {"UpdateCachedObjectByHandle(\"first25\", \"second25\", byte[3], 3, {\"k\"=\"v\"})"};
        case 26: return {"CreateCachedObject(\"obj26\")"};
        case 27: return {"GetBucketRegion(\"container27\")"};
        case 28: return {"WriteCachedObject(\"obj28\", byte[3], 3, {\"k\"=\"v\"})"};
        case 29: return {"IsObjectExist(\"obj29\")"};
        case 30: return {"ReadObjectByName(\"obj30\", byte[5], 1, 5, [\"p1\", \"p2\"])"};
        case 31: return {"ReadObjectByHandle(\"handle:obj31\", byte[6], 3, 6, [\"p1\"])"};
        case 33: return {"CheckConnectivity()"};
        case 35: return {"UpdateObject(\"first35\", \"second35\", byte[3], 3, {\"k\"=\"v\"}, 309)"};
        case 36: return {"UpdateObject(\"first36\", \"second36\", byte[3], 3, {\"k\"=\"v\"})"};
        case 37: return {"GetAllObjectsSize()"};
        case 38: return {"GetUniqueAccountName()"};
        case 39: return {"GetOwnerName()"};
        case 40: return {"IsSameAccount(\"first40\", \"second40\")"};
        case 41: return {"GetCloudPluginCapabilities()"};
        case 42: return {"GetListContainers()"};
        case 43: return {"GetRegions()"};
        case 44: return {"GetArchiveSet()"};
        case 46: return {"IsValidContainer(\"container46\")"};
        case 48: return {"GetObjectActualSize(4800, 4801)"};
        case 49: return {"GetAccountInfo()"};
        case 52: return {"getServerNameList()"};
        case 53: return {"canBackup()"};
        case 54: return {"updateStorageKey()"};
        case 56: return {"IsObjectPathSupported(\"dir/\", 56)"};
        case 57: return {"IsContainerExists(\"container57\")"};
        default: return {};  // 1, 32, 34, 45, 47, 51
    }
}

// What each slot answers here: 0 for every forwarded call the double
// answers with success, 24 for the interface's own reserved bodies.
uint32_t ExpectedResult(size_t slot) {
    switch (slot) {
        case 45:
        case 47:
        case 55:
            return 24;
        default:
            return 0;
    }
}

TEST_F(SlotForwardingTest, EverySlotMakesTheJavaCallOfItsOperation) {
    const std::string installFolder = m_install.PathUtf8();
    for (const auto& slotCall : AllSlotCalls()) {
        if (slotCall.slot == 2 || slotCall.slot == 50) continue;
        SCOPED_TRACE("slot " + std::to_string(slotCall.slot) + " " + slotCall.operation);
        TestDouble::Reset();
        EXPECT_EQ(slotCall.call(m_object, m_arguments), ExpectedResult(slotCall.slot));
        EXPECT_EQ(TestDouble::Calls(), ExpectedJavaCalls(slotCall.slot, installFolder));
    }
}

TEST_F(SlotForwardingTest, DeInitCallsAzureDeInitAndLaterCallsFindNoJavaObject) {
    EXPECT_EQ(Call(2), 0u);
    EXPECT_EQ(TestDouble::Calls(), Calls{"AzureDeInit()"});
    // The bridge lives on without its Java object.
    EXPECT_EQ(Call(29), 40u);
}

TEST_F(SlotForwardingTest, ReleaseEndsTheObjectWithoutCallingJava) {
    Call(50);
    m_object = nullptr;
    EXPECT_TRUE(TestDouble::Calls().empty());
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(SlotForwardingTest, TwoStringInitWhoseJvmPathFailsAnswers0WithoutCallingJava) {
    EXPECT_EQ(Call(1), 0u);
    EXPECT_TRUE(TestDouble::Calls().empty());
    EXPECT_EQ(NewLines(), (std::vector<std::u16string>{u"QVAzureCommunicationMgr::Init is Called",
                                                       u"InitialiseCommunication::JVM is not intailzed properly..."}));
}

TEST_F(SlotForwardingTest, ReadObjectAnswers0EvenWhenTheBridgeReportsAnError) {
    TestDouble::ReturnErrorOrdinal("ReadObject", 3);
    EXPECT_EQ(Call(12), 0u);
    EXPECT_EQ(TestDouble::CallCount("ReadObject"), 1u);
}

TEST_F(SlotForwardingTest, ReadObjectByNameAndByHandlePassTheBridgesErrorThrough) {
    TestDouble::ReturnErrorOrdinal("ReadObjectByName", 3);
    EXPECT_EQ(Call(30), 7u);
    TestDouble::ReturnErrorOrdinal("ReadObjectByHandle", 29);
    EXPECT_EQ(Call(31), 30u);
}

TEST_F(SlotForwardingTest, ForwardedResultsArePassedThroughUnchanged) {
    TestDouble::ReturnErrorOrdinal("DeleteObjectByName", 46);
    EXPECT_EQ(Call(19), 49u);
    TestDouble::ReturnErrorOrdinal("CheckConnectivity", 22);
    EXPECT_EQ(Call(33), 23u);
}

TEST_F(SlotForwardingTest, DefaultObjectSizeRangeNeverAsksTheBridge) {
    EXPECT_EQ(Call(34), 0u);
    EXPECT_EQ(m_arguments.sizes[0], 1024);
    EXPECT_EQ(m_arguments.sizes[1], 4294967296);
    EXPECT_EQ(m_arguments.sizes[2], 4294967296);
    EXPECT_TRUE(TestDouble::Calls().empty());
}

TEST_F(SlotForwardingTest, ReservedOperation32AnswersZeroWithABridge) {
    EXPECT_EQ(Call(32), 0u);
    EXPECT_TRUE(TestDouble::Calls().empty());
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(SlotForwardingTest, AddJobInfoHandsJavaTheHostsValuesInTheirFixedOrder) {
    m_arguments.job = JobInfoRecord{{-1, 20, 300, -4000, 50000, 600000}};
    EXPECT_EQ(Call(18), 0u);
    EXPECT_EQ(TestDouble::Calls(), Calls{"addJobInfo(300, -4000, -1, 20, 600000, 50000)"});
}

TEST_F(SlotForwardingTest, AddJobInfoWithoutARecordFailsWithoutCallingJava) {
    EXPECT_EQ(m_object->AddJobInfo(nullptr), 40u);
    EXPECT_TRUE(TestDouble::Calls().empty());
    EXPECT_EQ(NewLines(), std::vector<std::u16string>{u"AddJobInfo::Exception is occured..."});
}

TEST_F(SlotForwardingTest, SubListFromSlot23IsFreedBySlot51) {
    TestDouble::SetSubList("GetObjectSubList", {{u"a.bin", {{u"size", u"1"}}}, {u"b.bin", {}}});
    EXPECT_EQ(Call(23), 0u);
    ASSERT_NE(m_arguments.subList, nullptr);
    EXPECT_EQ(m_arguments.subList->size(), 2u);
    EXPECT_EQ(Call(51), 0u);  // the sanitizer build sees anything left or freed twice
}

TEST_F(SlotForwardingTest, GetObjectActualSizeIsTheBridgesAnswer) {
    TestDouble::ReturnLong("GetObjectActualSize", 123456789012);
    EXPECT_EQ(Call(48), 0u);
    EXPECT_EQ(m_arguments.sizes[0], 123456789012);
}

}  // namespace
