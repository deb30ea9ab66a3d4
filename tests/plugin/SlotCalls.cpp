#include "SlotCalls.h"

#include <stdexcept>

namespace plugintest {

namespace {

using W = WideString;
using A = SlotArguments;
using I = ICloudPluginInterface;

std::vector<SlotCall> MakeSlotCalls() {
    return {
        {0, "Init", [](I* o, A&) { return CallSlot<uint32_t, W>(o, 0, u"init string"); }},
        {1, "Init", [](I* o, A&) { return CallSlot<uint32_t, W, W>(o, 1, u"init string", u"folder"); }},
        {2, "DeInit", [](I* o, A&) { return CallSlot<uint32_t>(o, 2); }},
        {3, "CreateObject",
         [](I* o, A& a) { return CallSlot<uint32_t, W, ObjectMetaData*, W&>(o, 3, u"obj3", &a.metaData, a.handle); }},
        {4, "CreateObject", [](I* o, A& a) { return CallSlot<uint32_t, W, W&>(o, 4, u"obj4", a.handle); }},
        {5, "WriteObject",
         [](I* o, A& a) {
             return CallSlot<uint32_t, W, const uint8_t*, uint64_t, ObjectMetaData*, W&, uint64_t>(
                 o, 5, u"obj5", a.data.data(), a.data.size(), &a.metaData, a.handle, 0x105);
         }},
        {6, "WriteObject",
         [](I* o, A& a) {
             return CallSlot<uint32_t, W, const uint8_t*, uint64_t, ObjectMetaData*, W&>(
                 o, 6, u"obj6", a.data.data(), a.data.size(), &a.metaData, a.handle);
         }},
        {7, "WriteObject",
         [](I* o, A& a) {
             return CallSlot<uint32_t, W, const uint8_t*, uint64_t>(o, 7, u"obj7", a.data.data(), a.data.size());
         }},
        {8, "SetObjectMetaData",
         [](I* o, A&) {
             return CallSlot<uint32_t, W, ObjectMetaData::value_type>(o, 8, u"obj8",
                                                                      {u"name8", MetaDataValue{u"value8", 8}});
         }},
        {9, "CloseObject", [](I* o, A&) { return CallSlot<uint32_t, W>(o, 9, u"handle:obj9"); }},
        {10, "OpenObject", [](I* o, A& a) { return CallSlot<uint32_t, W, W&, bool>(o, 10, u"obj10", a.handle, true); }},
        {11, "OpenObject", [](I* o, A& a) { return CallSlot<uint32_t, W, W&>(o, 11, u"obj11", a.handle); }},
        {12, "ReadObject",
         [](I* o, A& a) {
             a.length = 4;
             return CallSlot<uint32_t, W, uint8_t*, uint64_t, uint64_t*>(o, 12, u"obj12", a.readBuffer.data(), 2,
                                                                         &a.length);
         }},
        {13, "GetObjectMetaData",
         [](I* o, A& a) { return CallSlot<uint32_t, W, ObjectMetaData*>(o, 13, u"obj13", &a.readMetaData); }},
        {14, "GetObjectMetaData",
         [](I* o, A& a) { return CallSlot<uint32_t, W, W, W&>(o, 14, u"obj14", u"prop14", a.text); }},
        {15, "GetQVCloudStorageKey",
         [](I* o, A& a) { return CallSlot<uint32_t, W, W, W&>(o, 15, u"first15", u"second15", a.text); }},
        {16, "GetContainerName", [](I* o, A& a) { return CallSlot<uint32_t, W&>(o, 16, a.text); }},
        {17, "DeleteContainerFromQVCloud", [](I* o, A&) { return CallSlot<uint32_t>(o, 17); }},
        {18, "AddJobInfo", [](I* o, A& a) { return CallSlot<uint32_t, const JobInfoRecord*>(o, 18, &a.job); }},
        {19, "DeleteObjectByName", [](I* o, A&) { return CallSlot<uint32_t, W>(o, 19, u"obj19"); }},
        {20, "DeleteObjectByHandle",
         [](I* o, A& a) { return CallSlot<uint32_t, const W*, uint32_t>(o, 20, a.names, 2); }},
        {21, "DeleteObjectByHandle", [](I* o, A&) { return CallSlot<uint32_t, W>(o, 21, u"handle:obj21"); }},
        {22, "DeleteCachedObjectByName", [](I* o, A&) { return CallSlot<uint32_t, W>(o, 22, u"obj22"); }},
        {23, "GetObjectSubList",
         [](I* o, A& a) { return CallSlot<uint32_t, W, ObjectSubList**>(o, 23, a.path, &a.subList); }},
        {24, "UpdateCachedObjectByName",
         [](I* o, A& a) {
             return CallSlot<uint32_t, W, const uint8_t*, uint64_t, ObjectMetaData*>(o, 24, u"obj24", a.data.data(),
                                                                                     a.data.size(), &a.metaData);
         }},
        {25, "UpdateCachedObjectByHandle",
         [](I* o, A& a) {
             return CallSlot<uint32_t, W, W, const uint8_t*, uint64_t, ObjectMetaData*>(
                 o, 25, u"first25", u"second25", a.data.data(), a.data.size(), &a.metaData);
         }},
        {26, "CreateCachedObject", [](I* o, A& a) { return CallSlot<uint32_t, W, W&>(o, 26, u"obj26", a.handle); }},
        {27, "GetBucketRegion", [](I* o, A& a) { return CallSlot<uint32_t, W, W&>(o, 27, u"container27", a.text); }},
        {28, "WriteCachedObject",
         [](I* o, A& a) {
             return CallSlot<uint32_t, W, const uint8_t*, uint64_t, ObjectMetaData*, W&>(
                 o, 28, u"obj28", a.data.data(), a.data.size(), &a.metaData, a.handle);
         }},
        {29, "IsObjectExist", [](I* o, A& a) { return CallSlot<uint32_t, W, uint32_t*>(o, 29, u"obj29", &a.flag); }},
        {30, "ReadObjectByName",
         [](I* o, A& a) {
             a.length = 5;
             return CallSlot<uint32_t, W, uint8_t*, uint64_t, uint64_t*, const W*, uint32_t, ObjectMetaData*>(
                 o, 30, u"obj30", a.readBuffer.data(), 1, &a.length, a.names, 2, &a.readMetaData);
         }},
        {31, "ReadObjectByHandle",
         [](I* o, A& a) {
             a.length = 6;
             return CallSlot<uint32_t, W, uint8_t*, uint64_t, uint64_t*, const W*, uint32_t, ObjectMetaData*>(
                 o, 31, u"handle:obj31", a.readBuffer.data(), 3, &a.length, a.names, 1, &a.readMetaData);
         }},
        {32, "ReservedOperation32", [](I* o, A&) { return CallSlot<uint32_t>(o, 32); }},
        {33, "CheckConnectivity", [](I* o, A&) { return CallSlot<uint32_t>(o, 33); }},
        {34, "GetDefaultObjectSizeRange",
         [](I* o, A& a) {
             return CallSlot<uint32_t, int64_t*, int64_t*, int64_t*>(o, 34, &a.sizes[0], &a.sizes[1], &a.sizes[2]);
         }},
        {35, "UpdateObject",
         [](I* o, A& a) {
             return CallSlot<uint32_t, W, W, const uint8_t*, uint64_t, ObjectMetaData*, W&, uint64_t>(
                 o, 35, u"first35", u"second35", a.data.data(), a.data.size(), &a.metaData, a.handle, 0x135);
         }},
        {36, "UpdateObject",
         [](I* o, A& a) {
             return CallSlot<uint32_t, W, W, const uint8_t*, uint64_t, ObjectMetaData*, W&>(
                 o, 36, u"first36", u"second36", a.data.data(), a.data.size(), &a.metaData, a.handle);
         }},
        {37, "GetAllObjectsSize", [](I* o, A& a) { return CallSlot<uint32_t, int64_t*>(o, 37, &a.sizes[0]); }},
        {38, "GetUniqueAccountName", [](I* o, A& a) { return CallSlot<uint32_t, W&>(o, 38, a.text); }},
        {39, "GetOwnerName", [](I* o, A& a) { return CallSlot<uint32_t, W&>(o, 39, a.text); }},
        {40, "IsSameAccount",
         [](I* o, A& a) { return CallSlot<uint32_t, W, W, uint32_t*>(o, 40, u"first40", u"second40", &a.flag); }},
        {41, "GetPluginCapabilities",
         [](I* o, A& a) { return CallSlot<uint32_t, CapabilitiesRecord*>(o, 41, &a.capabilities); }},
        {42, "GetListContainers", [](I* o, A& a) { return CallSlot<uint32_t, StringList*>(o, 42, &a.list); }},
        {43, "GetRegions", [](I* o, A& a) { return CallSlot<uint32_t, StringList*>(o, 43, &a.list); }},
        {44, "GetArchiveSet", [](I* o, A& a) { return CallSlot<uint32_t, StringList*>(o, 44, &a.list); }},
        {45, "ReservedOperation45", [](I* o, A&) { return CallSlot<uint32_t, W>(o, 45, u"unused45"); }},
        {46, "IsValidContainer",
         [](I* o, A& a) { return CallSlot<uint32_t, W, uint32_t*>(o, 46, u"container46", &a.flag); }},
        {47, "ReservedOperation47", [](I* o, A&) { return CallSlot<uint32_t>(o, 47); }},
        {48, "GetObjectActualSize",
         [](I* o, A& a) { return CallSlot<uint32_t, uint64_t, uint64_t, int64_t*>(o, 48, 4800, 4801, &a.sizes[0]); }},
        {49, "GetAccountInfo", [](I* o, A& a) { return CallSlot<uint32_t, AccountInfoRecord*>(o, 49, &a.account); }},
        {50, "Release",
         [](I* o, A&) {
             CallSlot<void>(o, 50);
             return 0u;
         }},
        {51, "FreeObjectSubListMemory",
         [](I* o, A& a) {
             CallSlot<void, ObjectSubList*>(o, 51, a.subList);
             a.subList = nullptr;
             return 0u;
         }},
        {52, "GetMachineNameList", [](I* o, A& a) { return CallSlot<uint32_t, StringList*>(o, 52, &a.list); }},
        {53, "CanBackup", [](I* o, A& a) { return CallSlot<uint32_t, int32_t*>(o, 53, &a.value); }},
        {54, "UpdateStorageKey", [](I* o, A& a) { return CallSlot<uint32_t, W&>(o, 54, a.text); }},
        {55, "ReservedOperation55", [](I* o, A&) { return CallSlot<uint32_t>(o, 55); }},
        {56, "IsObjectPathSupported",
         [](I* o, A& a) { return CallSlot<uint32_t, const W&, int32_t, uint32_t*>(o, 56, a.path, 56, &a.flag); }},
        {57, "IsContainerExists",
         [](I* o, A& a) { return CallSlot<uint32_t, W, uint32_t*>(o, 57, u"container57", &a.flag); }},
    };
}

}  // namespace

const std::vector<SlotCall>& AllSlotCalls() {
    static const std::vector<SlotCall> calls = [] {
        auto made = MakeSlotCalls();
        for (size_t i = 0; i < made.size(); ++i) {
            if (made[i].slot != i) throw std::logic_error("slot calls out of order");
        }
        return made;
    }();
    return calls;
}

const SlotCall& SlotCallAt(size_t slot) { return AllSlotCalls().at(slot); }

}  // namespace plugintest
