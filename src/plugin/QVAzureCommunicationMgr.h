// The plug-in object a host gets from CreateInstance.
//
// QVAzureCommunicationMgr implements ICloudPluginInterface as a thin layer
// over the JNI bridge (`jniObj`): each operation checks that a bridge exists
// (else it logs its guard text and answers its guard result) and forwards
// its arguments, in order, to the bridge operation of the same family. A few
// operations answer here (GetDefaultObjectSizeRange, FreeObjectSubListMemory)
// and three reserved ones keep the interface's own bodies.
#pragma once

#include <cstdint>
#include <memory>

#include "bridge/JNIBridge.h"
#include "cloudplugin/ICloudPluginInterface.h"
#include "log/JNIWrapperLog.h"

class QVAzureCommunicationMgr final : public ICloudPluginInterface {
public:
    // Sets up the log writer and, when the record carries a JVM, makes the
    // bridge and starts communication (its result is not examined: a
    // manager without a working Java side still answers every call).
    explicit QVAzureCommunicationMgr(CloudPluginCreateInfo* createInfo);
    QVAzureCommunicationMgr(const QVAzureCommunicationMgr&) = delete;
    QVAzureCommunicationMgr& operator=(const QVAzureCommunicationMgr&) = delete;

    uint32_t Init(WideString initString) override;
    uint32_t Init(WideString initString, WideString installFolder) override;
    uint32_t DeInit() override;
    uint32_t CreateObject(WideString name, ObjectMetaData* metaData, WideString& handle) override;
    uint32_t CreateObject(WideString name, WideString& handle) override;
    uint32_t WriteObject(WideString name, const uint8_t* buffer, uint64_t length, ObjectMetaData* metaData,
                         WideString& handle, uint64_t flags) override;
    uint32_t WriteObject(WideString name, const uint8_t* buffer, uint64_t length, ObjectMetaData* metaData,
                         WideString& handle) override;
    uint32_t WriteObject(WideString name, const uint8_t* buffer, uint64_t length) override;
    uint32_t SetObjectMetaData(WideString name, ObjectMetaData::value_type property) override;
    uint32_t CloseObject(WideString handle) override;
    uint32_t OpenObject(WideString name, WideString& handle, bool flag) override;
    uint32_t OpenObject(WideString name, WideString& handle) override;
    uint32_t ReadObject(WideString name, uint8_t* buffer, uint64_t offset, uint64_t* length) override;
    uint32_t GetObjectMetaData(WideString object, ObjectMetaData* metaData) override;
    uint32_t GetObjectMetaData(WideString name, WideString propertyName, WideString& value) override;
    uint32_t GetQVCloudStorageKey(WideString first, WideString second, WideString& key) override;
    uint32_t GetContainerName(WideString& name) override;
    uint32_t DeleteContainerFromQVCloud() override;
    uint32_t AddJobInfo(const JobInfoRecord* job) override;
    uint32_t DeleteObjectByName(WideString name) override;
    uint32_t DeleteObjectByHandle(const WideString* handles, uint32_t count) override;
    uint32_t DeleteObjectByHandle(WideString handle) override;
    uint32_t DeleteCachedObjectByName(WideString name) override;
    uint32_t GetObjectSubList(WideString path, ObjectSubList** subList) override;
    uint32_t UpdateCachedObjectByName(WideString name, const uint8_t* buffer, uint64_t length,
                                      ObjectMetaData* metaData) override;
    uint32_t UpdateCachedObjectByHandle(WideString first, WideString second, const uint8_t* buffer,
                                        uint64_t length, ObjectMetaData* metaData) override;
    uint32_t CreateCachedObject(WideString name, WideString& handle) override;
    uint32_t GetBucketRegion(WideString container, WideString& region) override;
    uint32_t WriteCachedObject(WideString name, const uint8_t* buffer, uint64_t length, ObjectMetaData* metaData,
                               WideString& handle) override;
    uint32_t IsObjectExist(WideString name, uint32_t* exists) override;
    uint32_t ReadObjectByName(WideString name, uint8_t* buffer, uint64_t offset, uint64_t* length,
                              const WideString* names, uint32_t nameCount, ObjectMetaData* metaData) override;
    uint32_t ReadObjectByHandle(WideString handle, uint8_t* buffer, uint64_t offset, uint64_t* length,
                                const WideString* names, uint32_t nameCount, ObjectMetaData* metaData) override;
    uint32_t ReservedOperation32() override;
    uint32_t CheckConnectivity() override;
    uint32_t GetDefaultObjectSizeRange(int64_t* minimum, int64_t* defaultSize, int64_t* maximum) override;
    uint32_t UpdateObject(WideString first, WideString second, const uint8_t* buffer, uint64_t length,
                          ObjectMetaData* metaData, WideString& handle, uint64_t flags) override;
    uint32_t UpdateObject(WideString first, WideString second, const uint8_t* buffer, uint64_t length,
                          ObjectMetaData* metaData, WideString& handle) override;
    uint32_t GetAllObjectsSize(int64_t* size) override;
    uint32_t GetUniqueAccountName(WideString& name) override;
    uint32_t GetOwnerName(WideString& name) override;
    uint32_t IsSameAccount(WideString first, WideString second, uint32_t* same) override;
    uint32_t GetPluginCapabilities(CapabilitiesRecord* capabilities) override;
    uint32_t GetListContainers(StringList* containers) override;
    uint32_t GetRegions(StringList* regions) override;
    uint32_t GetArchiveSet(StringList* containers) override;
    uint32_t IsValidContainer(WideString container, uint32_t* valid) override;
    uint32_t GetObjectActualSize(uint64_t first, uint64_t second, int64_t* actualSize) override;
    uint32_t GetAccountInfo(AccountInfoRecord* info) override;
    void Release() override;
    void FreeObjectSubListMemory(ObjectSubList* subList) override;
    uint32_t GetMachineNameList(StringList* names) override;
    uint32_t CanBackup(int32_t* value) override;
    uint32_t UpdateStorageKey(WideString& key) override;
    uint32_t IsObjectPathSupported(const WideString& path, int32_t pathType, uint32_t* supported) override;
    uint32_t IsContainerExists(WideString container, uint32_t* exists) override;

    // What an operation does without a bridge: the line it logs and the result it answers.
    struct Guard {
        const char16_t* text;
        uint32_t result;
    };

private:
    // Only Release() ends a manager.
    ~QVAzureCommunicationMgr();

    // The log set-up of construction: 0 with a writer, 2 without one.
    uint32_t SetUpLog(const CloudPluginCreateInfo& createInfo);
    // Logs the guard's text and answers its result when there is no bridge;
    // otherwise answers what `call(bridge)` answers.
    template <typename Call>
    uint32_t Guarded(const Guard& guard, Call&& call);
    void Log(const WideString& text) const;

    std::unique_ptr<JNIBridge> jniObj;
    WideString installFolder;
    JNIWrapperLog* logWriter = nullptr;  // the process's writer, not owned
};
