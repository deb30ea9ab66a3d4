// The plug-in object a host gets when it passes no JVM: every operation is
// reached through the raw table of the loaded library, and each one's guard
// (its text and result) or local answer shows which operation answered.
#include <gtest/gtest.h>

#include <set>

#include "SlotCalls.h"
#include "support/LogFiles.h"
#include "support/PluginLibrary.h"
#include "support/TempFolder.h"

namespace {

using plugintest::AllSlotCalls;
using plugintest::CallSlot;
using plugintest::SlotArguments;
using plugintest::SlotCallAt;

constexpr const char16_t* kGuardText = u"jniObj is not instaialized";

class BridgelessManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_createInfo.installFolder = m_install.Path();
        m_createInfo.logFolder = m_logs.Path();
        m_createInfo.jvmRef = nullptr;
        ASSERT_NE(m_library.CreateInstance(), nullptr);
        m_object = m_library.CreateInstance()(&m_createInfo);
        ASSERT_NE(m_object, nullptr);
        m_linesBefore = Lines().size();
    }
    void TearDown() override {
        if (m_object) m_object->Release();
    }

    std::vector<std::u16string> Lines() const { return testsupport::LogMessagesIn(m_logs.Path()); }
    // The lines logged since SetUp (or the last call of NewLines).
    std::vector<std::u16string> NewLines() {
        const auto lines = Lines();
        std::vector<std::u16string> fresh(lines.begin() + static_cast<std::ptrdiff_t>(m_linesBefore), lines.end());
        m_linesBefore = lines.size();
        return fresh;
    }
    uint32_t Call(size_t slot) { return SlotCallAt(slot).call(m_object, m_arguments); }

    testsupport::PluginLibrary m_library;
    testsupport::TempFolder m_install;
    testsupport::TempFolder m_logs;
    CloudPluginCreateInfo m_createInfo;
    ICloudPluginInterface* m_object = nullptr;
    SlotArguments m_arguments;
    size_t m_linesBefore = 0;
};

using Texts = std::vector<std::u16string>;

TEST_F(BridgelessManagerTest, CreationWithoutJvmLogsInitCalledThenJvmIsNull) {
    EXPECT_EQ(Lines(), (Texts{u"QVAzureCommunicationMgr::Init is Called", u"JVM is NULL"}));
}

TEST_F(BridgelessManagerTest, DeInitWithoutBridgeLogsTheGuardAndAnswers2) {
    EXPECT_EQ(m_object->DeInit(), 2u);
    EXPECT_EQ(NewLines(), Texts{kGuardText});
}

TEST_F(BridgelessManagerTest, CreationWithANullJvmPointerBehindJvmRefHasNoBridge) {
    JavaVM* noVm = nullptr;
    CloudPluginCreateInfo info = m_createInfo;
    info.jvmRef = &noVm;
    ICloudPluginInterface* other = m_library.CreateInstance()(&info);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(NewLines(), (Texts{u"QVAzureCommunicationMgr::Init is Called", u"JVM is NULL"}));
    EXPECT_EQ(other->Init(u"x"), 2u);
    EXPECT_EQ(NewLines(), Texts{kGuardText});
    other->Release();
}

// What each slot does without a bridge: the guard's result and text, or a
// local answer that logs nothing. Slot 50 (Release) has a test of its own.
struct Expected {
    uint32_t result;
    Texts lines;
};

Expected ExpectedWithoutBridge(size_t slot) {
    switch (slot) {
        case 1:  // logs its own start, then finds no bridge to start
            return {2, {u"QVAzureCommunicationMgr::Init is Called", kGuardText}};
        case 34:
        case 51:
            return {0, {}};
        case 41:
            return {2, {u"GetPluginCapabilities: jniObj is not instaialized"}};
        case 42:
        case 44:
            return {0, {kGuardText}};
        case 45:
        case 47:
        case 55:
            return {24, {}};
        case 52:
            return {2, {u"GetMachineNameList -- jniObj is not instaialized"}};
        case 53:
            return {2, {u"CanBackup -- jniObj is not instaialized"}};
        case 54:
            return {2, {u"UpdateStorageKey -- jniObj is not instaialized"}};
        default:
            return {2, {kGuardText}};
    }
}

TEST_F(BridgelessManagerTest, EverySlotAnswersWithItsOwnGuardOrLocalAnswer) {
    for (const auto& slotCall : AllSlotCalls()) {
        if (slotCall.slot == 50) continue;
        SCOPED_TRACE("slot " + std::to_string(slotCall.slot) + " " + slotCall.operation);
        const Expected expected = ExpectedWithoutBridge(slotCall.slot);
        EXPECT_EQ(slotCall.call(m_object, m_arguments), expected.result);
        EXPECT_EQ(NewLines(), expected.lines);
    }
}

TEST_F(BridgelessManagerTest, GuardedSlotsLeaveTheirOutputsUntouched) {
    m_arguments.handle = u"kept";
    m_arguments.text = u"kept";
    m_arguments.flag = 77;
    for (size_t slot : {3u, 4u, 10u, 11u, 14u, 16u, 29u, 38u}) {
        SCOPED_TRACE(slot);
        EXPECT_EQ(Call(slot), 2u);
    }
    EXPECT_EQ(m_arguments.handle, u"kept");
    EXPECT_EQ(m_arguments.text, u"kept");
    EXPECT_EQ(m_arguments.flag, 77u);
    EXPECT_EQ(m_arguments.subList, nullptr);
}

TEST_F(BridgelessManagerTest, ReadObjectWithoutBridgeAnswers2) {
    EXPECT_EQ(Call(12), 2u);
    EXPECT_EQ(NewLines(), Texts{kGuardText});
}

TEST_F(BridgelessManagerTest, ListSlotsWithoutBridgeAnswer0AndLeaveTheListEmpty) {
    EXPECT_EQ(Call(42), 0u);
    EXPECT_EQ(Call(44), 0u);
    EXPECT_TRUE(m_arguments.list.empty());
    EXPECT_EQ(NewLines(), (Texts{kGuardText, kGuardText}));
}

TEST_F(BridgelessManagerTest, DefaultObjectSizeRangeIsAnsweredLocally) {
    EXPECT_EQ(Call(34), 0u);
    EXPECT_EQ(m_arguments.sizes[0], 1024);
    EXPECT_EQ(m_arguments.sizes[1], 4294967296);
    EXPECT_EQ(m_arguments.sizes[2], 4294967296);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(BridgelessManagerTest, DefaultObjectSizeRangeSkipsNullOutputs) {
    int64_t maximum = 0;
    EXPECT_EQ(m_object->GetDefaultObjectSizeRange(nullptr, nullptr, &maximum), 0u);
    EXPECT_EQ(maximum, 4294967296);
}

TEST_F(BridgelessManagerTest, ReservedSlots45And47And55Answer24AndLogNothing) {
    for (size_t slot : {45u, 47u, 55u}) {
        SCOPED_TRACE(slot);
        EXPECT_EQ(Call(slot), 24u);
    }
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(BridgelessManagerTest, FreeObjectSubListMemoryOfANullListDoesNothing) {
    m_arguments.subList = nullptr;
    EXPECT_EQ(Call(51), 0u);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(BridgelessManagerTest, FreeObjectSubListMemoryFreesEveryEntryAndTheList) {
    // Built by the host here; the plug-in frees what it is given (the
    // sanitizer build sees a leak or a double free).
    auto* list = new ObjectSubList;
    (*list)[u"a"] = new ObjectMetaData{{u"k", {u"v", 1}}};
    (*list)[u"b"] = nullptr;
    (*list)[u"c"] = new ObjectMetaData;
    m_object->FreeObjectSubListMemory(list);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(BridgelessManagerTest, ReleaseWithoutBridgeLogsTheGuardOnceAndFreesTheObject) {
    CallSlot<void>(m_object, 50);
    m_object = nullptr;
    EXPECT_EQ(NewLines(), Texts{kGuardText});
}

TEST_F(BridgelessManagerTest, IsObjectPathSupportedTakesThePathByReference) {
    const WideString path = u"some/path";
    uint32_t supported = 5;
    EXPECT_EQ(m_object->IsObjectPathSupported(path, 1, &supported), 2u);
    EXPECT_EQ(supported, 5u);
    EXPECT_EQ(NewLines(), Texts{kGuardText});
}

TEST(BridgelessManagerSlots, TheTableCoversEverySlotOnce) {
    std::set<size_t> slots;
    for (const auto& slotCall : AllSlotCalls()) slots.insert(slotCall.slot);
    EXPECT_EQ(slots.size(), 58u);
    EXPECT_EQ(*slots.rbegin(), 57u);
}

}  // namespace
