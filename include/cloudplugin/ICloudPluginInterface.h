// The host contract of the cloud-storage plug-in: the records that cross the
// interface between a backup host and the plug-in, the interface itself and
// the one exported function that makes a plug-in object.
//
// A host loads the library, finds CreateInstance by name, calls it with its
// CloudPluginCreateInfo and drives everything through the returned object;
// it ends the object with Release(), never with delete.
//
// All text is UTF-16 (`WideString`, std::u16string on every platform; on
// Windows its layout equals std::wstring's). Standard strings, maps and lists
// cross this boundary, so host and plug-in must share one C++ runtime (on
// Windows with MSVC: the same toolset, /MD and /EHsc).
#ifndef CLOUDPLUGIN_ICLOUDPLUGININTERFACE_H
#define CLOUDPLUGIN_ICLOUDPLUGININTERFACE_H

#include <jni.h>

#include <cstdint>
#include <list>
#include <map>
#include <string>

using WideString = std::u16string;

// One property of an object's metadata: its value text and an opaque type
// word chosen by the Java library.
struct MetaDataValue {
    WideString szProperty;
    uint32_t prpType = 0;
};

// Object metadata: property name to value, ordered by name (code unit by
// code unit, case-sensitive); names are unique.
using ObjectMetaData = std::map<WideString, MetaDataValue>;

// Objects below a path: file name to its metadata. The sub-list owns the
// metadata records; the host returns it through FreeObjectSubListMemory.
using ObjectSubList = std::map<WideString, ObjectMetaData*>;

// Texts in Java array order (containers, regions, machine names).
using StringList = std::list<WideString>;

// What the storage back end can do: capability name to value text.
using CapabilityMap = std::map<WideString, WideString>;

struct SizeRangeRecord {
    int64_t minimum = 0;
    int64_t defaultSize = 0;
    int64_t maximum = 0;
};

struct AccountInfoRecord {
    uint64_t reserved = 0;  // not written by the plug-in
    WideString accountIndentity;
    WideString accountType;
    WideString displayName;
    WideString emailAddress;
    int64_t usedSizeInByteTotal = 0;
    int64_t remainedSizeInByteTotal = 0;
};

// Job bookkeeping counters handed to the Java library.
struct JobInfoRecord {
    int64_t values[6] = {0, 0, 0, 0, 0, 0};
};

struct CapabilitiesRecord {
    uint32_t marker = 0;
    CapabilityMap capabilities;
};

// The record a host passes to CreateInstance. The host owns it and keeps it
// alive as long as the plug-in object it created.
struct CloudPluginCreateInfo {
    WideString installFolder;  // the host's installation folder
    JavaVM** jvmRef = nullptr; // points at the host's JavaVM pointer
    WideString logFolder;      // folder of the log files; empty for <installFolder>/Plugin/Azure/Log
};

// The operations a host calls, in their binding order: a host built against
// this header calls operation N through entry N of the object's virtual
// table, so the order below must never change. GCC, Clang and MinGW place
// virtual functions in declaration order. MSVC places a set of overloads at
// the first one's position and in reverse declaration order, so under MSVC
// each adjacent overload set is declared reversed, which yields the same
// table.
//
// Result codes: 0 success, 2 failure of the plug-in object (no bridge to the
// Java side), 24 not supported, anything else from the storage library.
// Input strings are taken by value, output strings by reference, records and
// lists by pointer.
//
// The interface supplies bodies for the operations a plug-in may leave out:
// they answer 24 (not supported), except GetObjectActualSize, which reports
// the size it is given. There is no virtual destructor (it would take table
// entries of its own): objects end through Release().
class ICloudPluginInterface {
public:
    // 0, 1
#ifdef _MSC_VER
    virtual uint32_t Init(WideString initString, WideString installFolder) {
        (void)initString, (void)installFolder;
        return kNotSupported;
    }
    virtual uint32_t Init(WideString initString) = 0;
#else
    virtual uint32_t Init(WideString initString) = 0;
    virtual uint32_t Init(WideString initString, WideString installFolder) {
        (void)initString, (void)installFolder;
        return kNotSupported;
    }
#endif
    // 2
    virtual uint32_t DeInit() = 0;
    // 3, 4
#ifdef _MSC_VER
    virtual uint32_t CreateObject(WideString name, WideString& handle) = 0;
    virtual uint32_t CreateObject(WideString name, ObjectMetaData* metaData, WideString& handle) = 0;
#else
    virtual uint32_t CreateObject(WideString name, ObjectMetaData* metaData, WideString& handle) = 0;
    virtual uint32_t CreateObject(WideString name, WideString& handle) = 0;
#endif
    // 5, 6, 7
#ifdef _MSC_VER
    virtual uint32_t WriteObject(WideString name, const uint8_t* buffer, uint64_t length) = 0;
    virtual uint32_t WriteObject(WideString name, const uint8_t* buffer, uint64_t length, ObjectMetaData* metaData,
                                 WideString& handle) = 0;
    virtual uint32_t WriteObject(WideString name, const uint8_t* buffer, uint64_t length, ObjectMetaData* metaData,
                                 WideString& handle, uint64_t flags) = 0;
#else
    virtual uint32_t WriteObject(WideString name, const uint8_t* buffer, uint64_t length, ObjectMetaData* metaData,
                                 WideString& handle, uint64_t flags) = 0;
    virtual uint32_t WriteObject(WideString name, const uint8_t* buffer, uint64_t length, ObjectMetaData* metaData,
                                 WideString& handle) = 0;
    virtual uint32_t WriteObject(WideString name, const uint8_t* buffer, uint64_t length) = 0;
#endif
    // 8
    virtual uint32_t SetObjectMetaData(WideString name, ObjectMetaData::value_type property) = 0;
    // 9
    virtual uint32_t CloseObject(WideString handle) = 0;
    // 10, 11
#ifdef _MSC_VER
    virtual uint32_t OpenObject(WideString name, WideString& handle) = 0;
    virtual uint32_t OpenObject(WideString name, WideString& handle, bool flag) = 0;
#else
    virtual uint32_t OpenObject(WideString name, WideString& handle, bool flag) = 0;
    virtual uint32_t OpenObject(WideString name, WideString& handle) = 0;
#endif
    // 12
    virtual uint32_t ReadObject(WideString name, uint8_t* buffer, uint64_t offset, uint64_t* length) = 0;
    // 13, 14
#ifdef _MSC_VER
    virtual uint32_t GetObjectMetaData(WideString name, WideString propertyName, WideString& value) = 0;
    virtual uint32_t GetObjectMetaData(WideString object, ObjectMetaData* metaData) = 0;
#else
    virtual uint32_t GetObjectMetaData(WideString object, ObjectMetaData* metaData) = 0;
    virtual uint32_t GetObjectMetaData(WideString name, WideString propertyName, WideString& value) = 0;
#endif
    // 15
    virtual uint32_t GetQVCloudStorageKey(WideString first, WideString second, WideString& key) {
        (void)first, (void)second, (void)key;
        return kNotSupported;
    }
    // 16
    virtual uint32_t GetContainerName(WideString& name) {
        (void)name;
        return kNotSupported;
    }
    // 17
    virtual uint32_t DeleteContainerFromQVCloud() { return kNotSupported; }
    // 18
    virtual uint32_t AddJobInfo(const JobInfoRecord* job) {
        (void)job;
        return kNotSupported;
    }
    // 19
    virtual uint32_t DeleteObjectByName(WideString name) = 0;
    // 20, 21
#ifdef _MSC_VER
    virtual uint32_t DeleteObjectByHandle(WideString handle) = 0;
    virtual uint32_t DeleteObjectByHandle(const WideString* handles, uint32_t count) = 0;
#else
    virtual uint32_t DeleteObjectByHandle(const WideString* handles, uint32_t count) = 0;
    virtual uint32_t DeleteObjectByHandle(WideString handle) = 0;
#endif
    // 22
    virtual uint32_t DeleteCachedObjectByName(WideString name) = 0;
    // 23: the list is the host's; it gives it back through FreeObjectSubListMemory.
    virtual uint32_t GetObjectSubList(WideString path, ObjectSubList** subList) = 0;
    // 24
    virtual uint32_t UpdateCachedObjectByName(WideString name, const uint8_t* buffer, uint64_t length,
                                              ObjectMetaData* metaData) = 0;
    // 25
    virtual uint32_t UpdateCachedObjectByHandle(WideString first, WideString second, const uint8_t* buffer,
                                                uint64_t length, ObjectMetaData* metaData) = 0;
    // 26
    virtual uint32_t CreateCachedObject(WideString name, WideString& handle) = 0;
    // 27
    virtual uint32_t GetBucketRegion(WideString container, WideString& region) {
        (void)container, (void)region;
        return kNotSupported;
    }
    // 28
    virtual uint32_t WriteCachedObject(WideString name, const uint8_t* buffer, uint64_t length,
                                       ObjectMetaData* metaData, WideString& handle) = 0;
    // 29
    virtual uint32_t IsObjectExist(WideString name, uint32_t* exists) = 0;
    // 30
    virtual uint32_t ReadObjectByName(WideString name, uint8_t* buffer, uint64_t offset, uint64_t* length,
                                      const WideString* names, uint32_t nameCount, ObjectMetaData* metaData) = 0;
    // 31
    virtual uint32_t ReadObjectByHandle(WideString handle, uint8_t* buffer, uint64_t offset, uint64_t* length,
                                        const WideString* names, uint32_t nameCount, ObjectMetaData* metaData) = 0;
    // 32
    virtual uint32_t ReservedOperation32() = 0;
    // 33
    virtual uint32_t CheckConnectivity() = 0;
    // 34
    virtual uint32_t GetDefaultObjectSizeRange(int64_t* minimum, int64_t* defaultSize, int64_t* maximum) = 0;
    // 35, 36
#ifdef _MSC_VER
    virtual uint32_t UpdateObject(WideString first, WideString second, const uint8_t* buffer, uint64_t length,
                                  ObjectMetaData* metaData, WideString& handle) = 0;
    virtual uint32_t UpdateObject(WideString first, WideString second, const uint8_t* buffer, uint64_t length,
                                  ObjectMetaData* metaData, WideString& handle, uint64_t flags) = 0;
#else
    virtual uint32_t UpdateObject(WideString first, WideString second, const uint8_t* buffer, uint64_t length,
                                  ObjectMetaData* metaData, WideString& handle, uint64_t flags) = 0;
    virtual uint32_t UpdateObject(WideString first, WideString second, const uint8_t* buffer, uint64_t length,
                                  ObjectMetaData* metaData, WideString& handle) = 0;
#endif
    // 37
    virtual uint32_t GetAllObjectsSize(int64_t* size) = 0;
    // 38
    virtual uint32_t GetUniqueAccountName(WideString& name) = 0;
    // 39
    virtual uint32_t GetOwnerName(WideString& name) = 0;
    // 40
    virtual uint32_t IsSameAccount(WideString first, WideString second, uint32_t* same) = 0;
    // 41
    virtual uint32_t GetPluginCapabilities(CapabilitiesRecord* capabilities) = 0;
    // 42
    virtual uint32_t GetListContainers(StringList* containers) {
        (void)containers;
        return kNotSupported;
    }
    // 43
    virtual uint32_t GetRegions(StringList* regions) {
        (void)regions;
        return kNotSupported;
    }
    // 44
    virtual uint32_t GetArchiveSet(StringList* containers) {
        (void)containers;
        return kNotSupported;
    }
    // 45: reserved; arguments after the first are not used.
    virtual uint32_t ReservedOperation45(WideString unused) {
        (void)unused;
        return kNotSupported;
    }
    // 46
    virtual uint32_t IsValidContainer(WideString container, uint32_t* valid) {
        (void)container, (void)valid;
        return kNotSupported;
    }
    // 47: reserved.
    virtual uint32_t ReservedOperation47() { return kNotSupported; }
    // 48: without a size logic of its own a plug-in reports the given size as the actual one.
    virtual uint32_t GetObjectActualSize(uint64_t first, uint64_t second, int64_t* actualSize) {
        (void)first;
        if (actualSize) *actualSize = static_cast<int64_t>(second);
        return 0;
    }
    // 49
    virtual uint32_t GetAccountInfo(AccountInfoRecord* info) {
        (void)info;
        return kNotSupported;
    }
    // 50: ends the object and frees its memory.
    virtual void Release() = 0;
    // 51: gives back a list that GetObjectSubList handed out.
    virtual void FreeObjectSubListMemory(ObjectSubList* subList) = 0;
    // 52
    virtual uint32_t GetMachineNameList(StringList* names) {
        (void)names;
        return kNotSupported;
    }
    // 53
    virtual uint32_t CanBackup(int32_t* value) {
        (void)value;
        return kNotSupported;
    }
    // 54
    virtual uint32_t UpdateStorageKey(WideString& key) {
        (void)key;
        return kNotSupported;
    }
    // 55: reserved.
    virtual uint32_t ReservedOperation55() { return kNotSupported; }
    // 56: the path is passed by reference, not copied.
    virtual uint32_t IsObjectPathSupported(const WideString& path, int32_t pathType, uint32_t* supported) {
        (void)path, (void)pathType, (void)supported;
        return kNotSupported;
    }
    // 57
    virtual uint32_t IsContainerExists(WideString container, uint32_t* exists) {
        (void)container, (void)exists;
        return kNotSupported;
    }

    // The result of the interface's own bodies.
    static constexpr uint32_t kNotSupported = 24;

protected:
    ICloudPluginInterface() = default;
    ICloudPluginInterface(const ICloudPluginInterface&) = default;
    ICloudPluginInterface& operator=(const ICloudPluginInterface&) = default;
    ~ICloudPluginInterface() = default;
};

// The plug-in's one exported function: a new plug-in object for the host's
// record (which must outlive it), or null when none could be allocated.
#if defined(_WIN32)
#if defined(CLOUDPLUGIN_BUILDING_PLUGIN)
#define CLOUDPLUGIN_EXPORT __declspec(dllexport)
#else
#define CLOUDPLUGIN_EXPORT
#endif
#else
#define CLOUDPLUGIN_EXPORT __attribute__((visibility("default")))
#endif
extern "C" CLOUDPLUGIN_EXPORT ICloudPluginInterface* CreateInstance(CloudPluginCreateInfo* createInfo);

// The type of CreateInstance, for hosts that look it up by name.
using CreateInstanceFunction = ICloudPluginInterface* (*)(CloudPluginCreateInfo*);

#endif  // CLOUDPLUGIN_ICLOUDPLUGININTERFACE_H
