// The plug-in object: its life cycle and the forwarding of every interface
// operation to the JNI bridge.
#include "plugin/QVAzureCommunicationMgr.h"

#include <utility>

#include "bridge/BridgeLog.h"
#include "bridge/ResultCodes.h"
#include "marshal/MetaData.h"
#include "platform/Platform.h"

namespace {

// What each operation does without a bridge. Most log the common text and
// answer 2; a few have a text of their own, and two answer 0 so that the
// host finds an empty list.
constexpr QVAzureCommunicationMgr::Guard kGuard{u"jniObj is not instaialized", kResultNoBridge};
constexpr QVAzureCommunicationMgr::Guard kEmptyListGuard{u"jniObj is not instaialized", 0};
constexpr QVAzureCommunicationMgr::Guard kCapabilitiesGuard{u"GetPluginCapabilities: jniObj is not instaialized",
                                                            kResultNoBridge};
constexpr QVAzureCommunicationMgr::Guard kMachineNameListGuard{u"GetMachineNameList -- jniObj is not instaialized",
                                                               kResultNoBridge};
constexpr QVAzureCommunicationMgr::Guard kCanBackupGuard{u"CanBackup -- jniObj is not instaialized",
                                                         kResultNoBridge};
constexpr QVAzureCommunicationMgr::Guard kUpdateStorageKeyGuard{u"UpdateStorageKey -- jniObj is not instaialized",
                                                                kResultNoBridge};

constexpr const char16_t* kInitCalled = u"QVAzureCommunicationMgr::Init is Called";

// The sizes the host is told to use, whatever the Java side says.
constexpr int64_t kMinimumObjectSize = 1024;
constexpr int64_t kDefaultObjectSize = 4294967296;
constexpr int64_t kMaximumObjectSize = 4294967296;

// "<installFolder>\Plugin\Azure\Log", with the platform's separator.
WideString DefaultLogFolder(const WideString& installFolder) {
    const WideString separator(1, qvplatform::kPathSeparator);
    return installFolder + separator + u"Plugin" + separator + u"Azure" + separator + u"Log";
}

template <typename T>
void Store(T* out, T value) {
    if (out) *out = value;
}

}  // namespace

// ---------------------------------------------------------------- life cycle

QVAzureCommunicationMgr::QVAzureCommunicationMgr(CloudPluginCreateInfo* createInfo) {
    // Without a record there is no folder to log in (an empty install folder
    // would put the log at the root of the file system) and no JVM: the
    // object answers every call with its guard, logging nothing.
    if (!createInfo) return;
    installFolder = createInfo->installFolder;
    SetUpLog(*createInfo);
    if (!createInfo->jvmRef || !*createInfo->jvmRef) {
        Log(u"JVM is NULL");
        return;
    }
    try {
        jniObj = std::make_unique<JNIBridge>(installFolder, createInfo);
    } catch (...) {
        return;  // no memory for the bridge: the manager answers with its guards
    }
    jniObj->SetLogger(logWriter);
    jniObj->StartCommunication();
}

QVAzureCommunicationMgr::~QVAzureCommunicationMgr() {
    if (jniObj) {
        jniObj.reset();
    } else {
        Log(kGuard.text);
    }
}

uint32_t QVAzureCommunicationMgr::SetUpLog(const CloudPluginCreateInfo& createInfo) {
    try {
        WideString folder = createInfo.logFolder;
        bool pruneOldFiles = false;
        if (folder.empty()) {
            folder = DefaultLogFolder(installFolder);
            // Missing folders above it are made too, so that the log has a
            // place even before the host has installed the plug-in's folder.
            qvplatform::CreateFolderPath(folder);
            pruneOldFiles = true;
        }
        logWriter = GetJNIWrapperLog(folder, pruneOldFiles);
        if (!logWriter) return kResultNoBridge;
        Log(kInitCalled);
        return 0;
    } catch (...) {
        return kResultNoBridge;
    }
}

void QVAzureCommunicationMgr::Log(const WideString& text) const { LogError(logWriter, text); }

template <typename Call>
uint32_t QVAzureCommunicationMgr::Guarded(const Guard& guard, Call&& call) {
    if (!jniObj) {
        Log(guard.text);
        return guard.result;
    }
    return std::forward<Call>(call)(*jniObj);
}

uint32_t QVAzureCommunicationMgr::Init(WideString initString) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.Init(initString); });
}

uint32_t QVAzureCommunicationMgr::Init(WideString initString, WideString hostFolder) {
    logWriter = GetJNIWrapperLog(DefaultLogFolder(hostFolder), false);
    if (!logWriter) return kResultNoBridge;
    Log(kInitCalled);
    // A manager made without a JVM has no bridge to hand the writer to.
    return Guarded(kGuard, [&](JNIBridge& bridge) -> uint32_t {
        bridge.SetLogger(logWriter);
        // Only a JVM made by the plug-in's own path (1) goes on to Java; any
        // other answer leaves the result at 0 and the later operations tell
        // the host that Java is missing.
        uint32_t result = 0;
        if (bridge.InitialiseCommunication(hostFolder) == 1) {
            result = bridge.StartCommunication();
            if (result == 0) result = bridge.Init(initString, hostFolder);
        }
        return result;
    });
}

uint32_t QVAzureCommunicationMgr::DeInit() {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.DeInit(); });
}

void QVAzureCommunicationMgr::Release() { delete this; }

// ---------------------------------------------------------------- objects

uint32_t QVAzureCommunicationMgr::CreateObject(WideString name, ObjectMetaData* metaData, WideString& handle) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.CreateObject(name, metaData, handle); });
}

uint32_t QVAzureCommunicationMgr::CreateObject(WideString name, WideString& handle) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.CreateObject(name, handle); });
}

uint32_t QVAzureCommunicationMgr::WriteObject(WideString name, const uint8_t* buffer, uint64_t length,
                                              ObjectMetaData* metaData, WideString& handle, uint64_t flags) {
    return Guarded(kGuard, [&](JNIBridge& bridge) {
        return bridge.WriteObject(name, buffer, length, metaData, handle, flags);
    });
}

uint32_t QVAzureCommunicationMgr::WriteObject(WideString name, const uint8_t* buffer, uint64_t length,
                                              ObjectMetaData* metaData, WideString& handle) {
    return Guarded(kGuard,
                   [&](JNIBridge& bridge) { return bridge.WriteObject(name, buffer, length, metaData, handle); });
}

uint32_t QVAzureCommunicationMgr::WriteObject(WideString name, const uint8_t* buffer, uint64_t length) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.WriteObject(name, buffer, length); });
}

uint32_t QVAzureCommunicationMgr::SetObjectMetaData(WideString name, ObjectMetaData::value_type property) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.SetObjectMetaData(name, property); });
}

uint32_t QVAzureCommunicationMgr::CloseObject(WideString handle) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.CloseObject(handle); });
}

uint32_t QVAzureCommunicationMgr::OpenObject(WideString name, WideString& handle, bool flag) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.OpenObject(name, handle, flag); });
}

uint32_t QVAzureCommunicationMgr::OpenObject(WideString name, WideString& handle) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.OpenObject(name, handle); });
}

// The read's outcome reaches the host only through *length: with a bridge
// this operation always answers 0, unlike the read-with-metadata forms.
uint32_t QVAzureCommunicationMgr::ReadObject(WideString name, uint8_t* buffer, uint64_t offset, uint64_t* length) {
    return Guarded(kGuard, [&](JNIBridge& bridge) -> uint32_t {
        bridge.ReadObject(name, buffer, offset, length);
        return 0;
    });
}

uint32_t QVAzureCommunicationMgr::ReadObjectByName(WideString name, uint8_t* buffer, uint64_t offset,
                                                   uint64_t* length, const WideString* names, uint32_t nameCount,
                                                   ObjectMetaData* metaData) {
    return Guarded(kGuard, [&](JNIBridge& bridge) {
        return bridge.ReadObjectByName(name, buffer, offset, length, names, nameCount, metaData);
    });
}

uint32_t QVAzureCommunicationMgr::ReadObjectByHandle(WideString handle, uint8_t* buffer, uint64_t offset,
                                                     uint64_t* length, const WideString* names, uint32_t nameCount,
                                                     ObjectMetaData* metaData) {
    return Guarded(kGuard, [&](JNIBridge& bridge) {
        return bridge.ReadObjectByHandle(handle, buffer, offset, length, names, nameCount, metaData);
    });
}

uint32_t QVAzureCommunicationMgr::GetObjectMetaData(WideString object, ObjectMetaData* metaData) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.GetObjectMetaData(object, metaData); });
}

uint32_t QVAzureCommunicationMgr::GetObjectMetaData(WideString name, WideString propertyName, WideString& value) {
    return Guarded(kGuard,
                   [&](JNIBridge& bridge) { return bridge.GetObjectMetaData(name, propertyName, value); });
}

uint32_t QVAzureCommunicationMgr::DeleteObjectByName(WideString name) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.DeleteObjectByName(name); });
}

uint32_t QVAzureCommunicationMgr::DeleteObjectByHandle(const WideString* handles, uint32_t count) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.DeleteObjectByHandle(handles, count); });
}

uint32_t QVAzureCommunicationMgr::DeleteObjectByHandle(WideString handle) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.DeleteObjectByHandle(handle); });
}

uint32_t QVAzureCommunicationMgr::DeleteCachedObjectByName(WideString name) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.DeleteCachedObjectByName(name); });
}

uint32_t QVAzureCommunicationMgr::GetObjectSubList(WideString path, ObjectSubList** subList) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.GetObjectSubList(path, subList); });
}

uint32_t QVAzureCommunicationMgr::UpdateCachedObjectByName(WideString name, const uint8_t* buffer, uint64_t length,
                                                           ObjectMetaData* metaData) {
    return Guarded(kGuard,
                   [&](JNIBridge& bridge) { return bridge.UpdateCachedObjectByName(name, buffer, length, metaData); });
}

uint32_t QVAzureCommunicationMgr::UpdateCachedObjectByHandle(WideString first, WideString second,
                                                             const uint8_t* buffer, uint64_t length,
                                                             ObjectMetaData* metaData) {
    return Guarded(kGuard, [&](JNIBridge& bridge) {
        return bridge.UpdateCachedObjectByHandle(first, second, buffer, length, metaData);
    });
}

uint32_t QVAzureCommunicationMgr::CreateCachedObject(WideString name, WideString& handle) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.CreateCachedObject(name, handle); });
}

uint32_t QVAzureCommunicationMgr::WriteCachedObject(WideString name, const uint8_t* buffer, uint64_t length,
                                                    ObjectMetaData* metaData, WideString& handle) {
    return Guarded(kGuard, [&](JNIBridge& bridge) {
        return bridge.WriteCachedObject(name, buffer, length, metaData, handle);
    });
}

uint32_t QVAzureCommunicationMgr::IsObjectExist(WideString name, uint32_t* exists) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.IsObjectExist(name, exists); });
}

uint32_t QVAzureCommunicationMgr::UpdateObject(WideString first, WideString second, const uint8_t* buffer,
                                               uint64_t length, ObjectMetaData* metaData, WideString& handle,
                                               uint64_t flags) {
    return Guarded(kGuard, [&](JNIBridge& bridge) {
        return bridge.UpdateObject(first, second, buffer, length, metaData, handle, flags);
    });
}

uint32_t QVAzureCommunicationMgr::UpdateObject(WideString first, WideString second, const uint8_t* buffer,
                                               uint64_t length, ObjectMetaData* metaData, WideString& handle) {
    return Guarded(kGuard, [&](JNIBridge& bridge) {
        return bridge.UpdateObject(first, second, buffer, length, metaData, handle);
    });
}

uint32_t QVAzureCommunicationMgr::IsObjectPathSupported(const WideString& path, int32_t pathType,
                                                        uint32_t* supported) {
    return Guarded(kGuard,
                   [&](JNIBridge& bridge) { return bridge.IsObjectPathSupported(path, pathType, supported); });
}

// Walks the host's list, freeing each entry's metadata, then the list.
void QVAzureCommunicationMgr::FreeObjectSubListMemory(ObjectSubList* subList) {
    try {
        FreeObjectSubList(subList);
    } catch (...) {
        Log(u"exception is occured in FreeObjectSubListMemory");
    }
}

// ---------------------------------------------------------------- containers and regions

uint32_t QVAzureCommunicationMgr::GetContainerName(WideString& name) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.GetContainerName(name); });
}

uint32_t QVAzureCommunicationMgr::DeleteContainerFromQVCloud() {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.DeleteContainer(); });
}

uint32_t QVAzureCommunicationMgr::GetBucketRegion(WideString container, WideString& region) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.GetBucketRegion(container, region); });
}

uint32_t QVAzureCommunicationMgr::GetListContainers(StringList* containers) {
    return Guarded(kEmptyListGuard, [&](JNIBridge& bridge) { return bridge.GetListContainers(containers); });
}

uint32_t QVAzureCommunicationMgr::GetRegions(StringList* regions) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.GetRegions(regions); });
}

uint32_t QVAzureCommunicationMgr::GetArchiveSet(StringList* containers) {
    return Guarded(kEmptyListGuard, [&](JNIBridge& bridge) { return bridge.GetArchiveSet(containers); });
}

uint32_t QVAzureCommunicationMgr::IsValidContainer(WideString container, uint32_t* valid) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.IsValidContainer(container, valid); });
}

uint32_t QVAzureCommunicationMgr::IsContainerExists(WideString container, uint32_t* exists) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.IsContainerExists(container, exists); });
}

// ---------------------------------------------------------------- account and storage keys

uint32_t QVAzureCommunicationMgr::GetQVCloudStorageKey(WideString first, WideString second, WideString& key) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.GetQVCloudStorageKey(first, second, key); });
}

uint32_t QVAzureCommunicationMgr::GetAllObjectsSize(int64_t* size) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.GetAllObjectsSize(size); });
}

uint32_t QVAzureCommunicationMgr::GetUniqueAccountName(WideString& name) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.GetUniqueAccountName(name); });
}

uint32_t QVAzureCommunicationMgr::GetOwnerName(WideString& name) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.GetOwnerName(name); });
}

uint32_t QVAzureCommunicationMgr::IsSameAccount(WideString first, WideString second, uint32_t* same) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.IsSameAccount(first, second, same); });
}

uint32_t QVAzureCommunicationMgr::GetObjectActualSize(uint64_t first, uint64_t second, int64_t* actualSize) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.GetObjectActualSize(first, second, actualSize); });
}

uint32_t QVAzureCommunicationMgr::GetAccountInfo(AccountInfoRecord* info) {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.GetAccountInfo(info); });
}

uint32_t QVAzureCommunicationMgr::GetMachineNameList(StringList* names) {
    return Guarded(kMachineNameListGuard, [&](JNIBridge& bridge) { return bridge.getServerNameList(names); });
}

uint32_t QVAzureCommunicationMgr::CanBackup(int32_t* value) {
    return Guarded(kCanBackupGuard, [&](JNIBridge& bridge) { return bridge.CanBackup(value); });
}

uint32_t QVAzureCommunicationMgr::UpdateStorageKey(WideString& key) {
    return Guarded(kUpdateStorageKeyGuard, [&](JNIBridge& bridge) { return bridge.updateStorageKey(key); });
}

// ---------------------------------------------------------------- jobs, connectivity and sizes

// The bridge gets a copy of the host's record, never the host's memory.
uint32_t QVAzureCommunicationMgr::AddJobInfo(const JobInfoRecord* job) {
    return Guarded(kGuard, [&](JNIBridge& bridge) {
        if (!job) return bridge.AddJobInfo(nullptr);
        const JobInfoRecord copy = *job;
        return bridge.AddJobInfo(&copy);
    });
}

uint32_t QVAzureCommunicationMgr::ReservedOperation32() {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.ReservedOperation(); });
}

uint32_t QVAzureCommunicationMgr::CheckConnectivity() {
    return Guarded(kGuard, [&](JNIBridge& bridge) { return bridge.CheckConnectivity(); });
}

// Answered here, with or without a bridge; the Java side is never asked.
uint32_t QVAzureCommunicationMgr::GetDefaultObjectSizeRange(int64_t* minimum, int64_t* defaultSize,
                                                            int64_t* maximum) {
    Store(minimum, kMinimumObjectSize);
    Store(defaultSize, kDefaultObjectSize);
    Store(maximum, kMaximumObjectSize);
    return 0;
}

uint32_t QVAzureCommunicationMgr::GetPluginCapabilities(CapabilitiesRecord* capabilities) {
    return Guarded(kCapabilitiesGuard, [&](JNIBridge& bridge) { return bridge.GetPluginCapabilities(capabilities); });
}
