// The interface's own bodies and its table layout, seen through a plug-in
// that implements only what it must: each of its operations answers
// 1000 + its slot, so a call through the raw table shows both where each
// operation sits and which ones the interface answers itself.
#include <gtest/gtest.h>

#include "SlotCalls.h"

namespace {

using plugintest::AllSlotCalls;
using plugintest::SlotArguments;

class MinimalPlugin final : public ICloudPluginInterface {
public:
    uint32_t Init(WideString) override { return 1000; }
    uint32_t DeInit() override { return 1002; }
    uint32_t CreateObject(WideString, ObjectMetaData*, WideString&) override { return 1003; }
    uint32_t CreateObject(WideString, WideString&) override { return 1004; }
    uint32_t WriteObject(WideString, const uint8_t*, uint64_t, ObjectMetaData*, WideString&, uint64_t) override {
        return 1005;
    }
    uint32_t WriteObject(WideString, const uint8_t*, uint64_t, ObjectMetaData*, WideString&) override { return 1006; }
    uint32_t WriteObject(WideString, const uint8_t*, uint64_t) override { return 1007; }
    uint32_t SetObjectMetaData(WideString, ObjectMetaData::value_type) override { return 1008; }
    uint32_t CloseObject(WideString) override { return 1009; }
    uint32_t OpenObject(WideString, WideString&, bool) override { return 1010; }
    uint32_t OpenObject(WideString, WideString&) override { return 1011; }
    uint32_t ReadObject(WideString, uint8_t*, uint64_t, uint64_t*) override { return 1012; }
    uint32_t GetObjectMetaData(WideString, ObjectMetaData*) override { return 1013; }
    uint32_t GetObjectMetaData(WideString, WideString, WideString&) override { return 1014; }
    uint32_t DeleteObjectByName(WideString) override { return 1019; }
    uint32_t DeleteObjectByHandle(const WideString*, uint32_t) override { return 1020; }
    uint32_t DeleteObjectByHandle(WideString) override { return 1021; }
    uint32_t DeleteCachedObjectByName(WideString) override { return 1022; }
    uint32_t GetObjectSubList(WideString, ObjectSubList**) override { return 1023; }
    uint32_t UpdateCachedObjectByName(WideString, const uint8_t*, uint64_t, ObjectMetaData*) override { return 1024; }
    uint32_t UpdateCachedObjectByHandle(WideString, WideString, const uint8_t*, uint64_t, ObjectMetaData*) override {
        return 1025;
    }
    uint32_t CreateCachedObject(WideString, WideString&) override { return 1026; }
    uint32_t WriteCachedObject(WideString, const uint8_t*, uint64_t, ObjectMetaData*, WideString&) override {
        return 1028;
    }
    uint32_t IsObjectExist(WideString, uint32_t*) override { return 1029; }
    uint32_t ReadObjectByName(WideString, uint8_t*, uint64_t, uint64_t*, const WideString*, uint32_t,
                              ObjectMetaData*) override {
        return 1030;
    }
    uint32_t ReadObjectByHandle(WideString, uint8_t*, uint64_t, uint64_t*, const WideString*, uint32_t,
                                ObjectMetaData*) override {
        return 1031;
    }
    uint32_t ReservedOperation32() override { return 1032; }
    uint32_t CheckConnectivity() override { return 1033; }
    uint32_t GetDefaultObjectSizeRange(int64_t*, int64_t*, int64_t*) override { return 1034; }
    uint32_t UpdateObject(WideString, WideString, const uint8_t*, uint64_t, ObjectMetaData*, WideString&,
                          uint64_t) override {
        return 1035;
    }
    uint32_t UpdateObject(WideString, WideString, const uint8_t*, uint64_t, ObjectMetaData*, WideString&) override {
        return 1036;
    }
    uint32_t GetAllObjectsSize(int64_t*) override { return 1037; }
    uint32_t GetUniqueAccountName(WideString&) override { return 1038; }
    uint32_t GetOwnerName(WideString&) override { return 1039; }
    uint32_t IsSameAccount(WideString, WideString, uint32_t*) override { return 1040; }
    uint32_t GetPluginCapabilities(CapabilitiesRecord*) override { return 1041; }
    void Release() override { ++releases; }
    void FreeObjectSubListMemory(ObjectSubList*) override { ++frees; }

    int releases = 0;
    int frees = 0;
};

bool HasInterfaceBody(size_t slot) {
    switch (slot) {
        case 1: case 15: case 16: case 17: case 18: case 27: case 42: case 43: case 44: case 45: case 46:
        case 47: case 48: case 49: case 52: case 53: case 54: case 55: case 56: case 57:
            return true;
        default:
            return false;
    }
}

TEST(InterfaceDefaults, EverySlotSitsInItsPlaceAndTheListedOnesAnswer24) {
    MinimalPlugin plugin;
    SlotArguments arguments;
    for (const auto& slotCall : AllSlotCalls()) {
        if (slotCall.slot == 48 || slotCall.slot == 50 || slotCall.slot == 51) continue;
        SCOPED_TRACE("slot " + std::to_string(slotCall.slot) + " " + slotCall.operation);
        const uint32_t expected = HasInterfaceBody(slotCall.slot) ? 24u : 1000u + static_cast<uint32_t>(slotCall.slot);
        EXPECT_EQ(slotCall.call(&plugin, arguments), expected);
    }
}

TEST(InterfaceDefaults, GetObjectActualSizeReportsTheGivenSizeAsTheActualOne) {
    MinimalPlugin plugin;
    SlotArguments arguments;
    EXPECT_EQ(plugintest::SlotCallAt(48).call(&plugin, arguments), 0u);
    EXPECT_EQ(arguments.sizes[0], 4801);
    // Without an output there is nothing to write, and still success.
    EXPECT_EQ(plugin.GetObjectActualSize(1, 2, nullptr), 0u);
}

TEST(InterfaceDefaults, ReleaseAndFreeObjectSubListMemorySitInSlots50And51) {
    MinimalPlugin plugin;
    SlotArguments arguments;
    plugintest::SlotCallAt(50).call(&plugin, arguments);
    plugintest::SlotCallAt(51).call(&plugin, arguments);
    EXPECT_EQ(plugin.releases, 1);
    EXPECT_EQ(plugin.frees, 1);
}

}  // namespace
