// The one object through which the plug-in reaches Java.
//
// A JNIBridge keeps the host's JVM, the log writer, the host's creation
// record and a global reference to the single Java plug-in object (an
// instance of com/qv/AzureLibrary/QVAzurePlugInLibrary). This file holds its
// life cycle: construction, StartCommunication (which makes the Java
// object), Init (Java AzureInit) and DeInit (Java AzureDeInit). Every
// storage operation is a member too, one source file per family under
// src/operations/, each written against the call frame of CallFrame.h.
#pragma once

#include <jni.h>

#include <cstdint>

#include "bridge/CallFrame.h"
#include "bridge/LocalRef.h"
#include "cloudplugin/ICloudPluginInterface.h"
#include "log/JNIWrapperLog.h"

class JNIBridge {
public:
    // Reads the host's JVM through pInitData->jvmRef and hands it to JVMHost.
    JNIBridge(const WideString& hostFolder, CloudPluginCreateInfo* pInitData);
    // Releases only the bridge's own memory: the thread is not detached and
    // the global reference is not deleted here (DeInit does that).
    ~JNIBridge() = default;
    JNIBridge(const JNIBridge&) = delete;
    JNIBridge& operator=(const JNIBridge&) = delete;

    void SetLogger(JNIWrapperLog* log) { m_pLog = log; }

    // 1 when the plug-in's own JVM path produced a machine, else 0 (which is
    // what a first call in a process always gives: the host's JVM is the
    // one used). Not an error code.
    uint32_t InitialiseCommunication(const WideString& hostFolder);
    // Makes the Java plug-in object from a CPluginInitData of the host's two
    // strings; 0 or 40.
    uint32_t StartCommunication();
    // Java AzureInit(a, b).
    uint32_t Init(const WideString& a, const WideString& b);
    // Java AzureInit(a, the host folder given at construction).
    uint32_t Init(const WideString& a);
    // Java AzureDeInit(), then the global reference is released (and the
    // field cleared: later operations answer 40).
    uint32_t DeInit();

    // A new local com/qv/AmazonLibrary/CPluginInitData of the record's
    // installFolder and logFolder; nothing when it cannot be made.
    LocalRef<jobject> CreatePluginInitData(JNIEnv* env, const CloudPluginCreateInfo* pInitData);

    // ---- storage operations, one source file per family under src/operations/

    // ---- object write and update (src/operations/ObjectWrite.cpp)
    // Each copies the buffer into one Java byte[] of the low 32 bits of `length` and passes the full length.
    // Java WriteObject(name, byte[], length): GetErrorId of its CErrorValue; 41 when the byte[] cannot be made
    // (Java is not called then); 0 when the method is missing.
    uint32_t WriteObject(const WideString& name, const uint8_t* buffer, uint64_t length);
    // Java WriteObject(name, byte[], length, CPluginMetaData[] or null): the new handle (objHandle) into
    // `handle`; a null result gives 40 and leaves the handle as it was.
    uint32_t WriteObject(const WideString& name, const uint8_t* buffer, uint64_t length,
                         const ObjectMetaData* metaData, WideString& handle);
    // As above, with the flag word passed on as a Java long (its low 32 bits are logged).
    uint32_t WriteObject(const WideString& name, const uint8_t* buffer, uint64_t length,
                         const ObjectMetaData* metaData, WideString& handle, uint64_t flags);
    // Java WriteCachedObject(name, byte[], length, CPluginMetaData[] or null): as WriteObject with metadata.
    uint32_t WriteCachedObject(const WideString& name, const uint8_t* buffer, uint64_t length,
                               const ObjectMetaData* metaData, WideString& handle);
    // Java UpdateObject(first, second, byte[], length, CPluginMetaData[] or null): the handle (objHandle) into
    // `handle`; a null result empties the handle and gives 40.
    uint32_t UpdateObject(const WideString& first, const WideString& second, const uint8_t* buffer,
                          uint64_t length, const ObjectMetaData* metaData, WideString& handle);
    // As above, with the flag word passed on as a Java long.
    uint32_t UpdateObject(const WideString& first, const WideString& second, const uint8_t* buffer,
                          uint64_t length, const ObjectMetaData* metaData, WideString& handle, uint64_t flags);
    // Java UpdateCachedObjectByHandle(first, second, byte[], length, CPluginMetaData[] or null): the mapped
    // ordinal of its CErrorValue; 40 for a null result.
    uint32_t UpdateCachedObjectByHandle(const WideString& first, const WideString& second, const uint8_t* buffer,
                                        uint64_t length, const ObjectMetaData* metaData);
    // Java UpdateCachedObjectByName(name, byte[], length, CPluginMetaData[] or null): as above.
    uint32_t UpdateCachedObjectByName(const WideString& name, const uint8_t* buffer, uint64_t length,
                                      const ObjectMetaData* metaData);

    // ---- object read (src/operations/ObjectRead.cpp)
    // Each hands Java a byte[] of the low 32 bits of *length to fill, writes the count Java reports into
    // *length and copies min(that count, the array's length) bytes into `buffer`; 14 when they cannot be
    // copied. Java ReadObject(name, byte[], length, offset): a null result copies the fresh array and gives 0.
    uint32_t ReadObject(const WideString& name, uint8_t* buffer, uint64_t offset, uint64_t* length);
    // Java ReadObjectByName(name, byte[], offset, length, String[] of the names or null): also the object's
    // metadata into *metaData; a null result or a byte[] that cannot be made gives 40.
    uint32_t ReadObjectByName(const WideString& name, uint8_t* buffer, uint64_t offset, uint64_t* length,
                              const WideString* names, uint32_t nameCount, ObjectMetaData* metaData);
    // Java ReadObjectByHandle(handle, ...): as ReadObjectByName, for an object handle.
    uint32_t ReadObjectByHandle(const WideString& handle, uint8_t* buffer, uint64_t offset, uint64_t* length,
                                const WideString* names, uint32_t nameCount, ObjectMetaData* metaData);

    // ---- object handles (src/operations/ObjectHandles.cpp)
    // Java CreateObject(name): the new object's handle (objHandle) into `handle`.
    uint32_t CreateObject(const WideString& name, WideString& handle);
    // Java CreateObject(name, CPluginMetaData[] or null): as above, with the object's metadata.
    uint32_t CreateObject(const WideString& name, ObjectMetaData* metaData, WideString& handle);
    // Java OpenObject(name): the handle of an existing object into `handle`.
    uint32_t OpenObject(const WideString& name, WideString& handle);
    // Java OpenObject(name, flag): as above, the flag passed to Java unchanged.
    uint32_t OpenObject(const WideString& name, WideString& handle, bool flag);
    // Java CreateCachedObject(name): the cached object's handle into `handle`.
    uint32_t CreateCachedObject(const WideString& name, WideString& handle);
    // Java CloseObject(handle): gives a handle back; the result is GetErrorId of the CErrorValue.
    uint32_t CloseObject(const WideString& handle);

    // ---- delete and existence (src/operations/DeleteAndExistence.cpp)
    // Java DeleteObjectByName(name); the result is GetErrorId of the returned CErrorValue.
    uint32_t DeleteObjectByName(const WideString& name);
    // Java DeleteObjectByHandle(handle); the result is GetErrorId of the returned CErrorValue.
    uint32_t DeleteObjectByHandle(const WideString& handle);
    // Java DeleteObjectByHandle(String[] of `count` handles, null below 1); the ordinal read, then mapped.
    uint32_t DeleteObjectByHandle(const WideString* handles, uint32_t count);
    // Java DeleteCachedObjectByName(name); the result is GetErrorId of the returned CErrorValue.
    uint32_t DeleteCachedObjectByName(const WideString& name);
    // Java IsObjectExist(name): isExist as 1 or 0 into *exists.
    uint32_t IsObjectExist(const WideString& name, uint32_t* exists);
    // Java IsObjectPathSupported(path, pathType): isExist as 1 or 0 into *supported.
    uint32_t IsObjectPathSupported(const WideString& path, int32_t pathType, uint32_t* supported);

    // ---- object metadata and sub-lists (src/operations/ObjectMetaData.cpp)
    // Java SetObjectMetaData(name, property name, property value); GetErrorId of its CErrorValue.
    uint32_t SetObjectMetaData(const WideString& name, const ObjectMetaData::value_type& property);
    // Java GetObjectMetaData(name): the object's properties into *metaData.
    uint32_t GetObjectMetaData(const WideString& object, ObjectMetaData* metaData);
    // Java GetObjectMetaData(name, property name): the property's text into value when Java reports no error.
    uint32_t GetObjectMetaData(const WideString& name, const WideString& propertyName, WideString& value);
    // Java GetObjectSubList(path): a new host-owned ObjectSubList into *subList; 40 for a null result.
    uint32_t GetObjectSubList(const WideString& path, ObjectSubList** subList);

    // ---- containers and regions (src/operations/Containers.cpp)
    // Java GetListContainers(): the container names appended to *containers.
    uint32_t GetListContainers(StringList* containers);
    // Java GetArchiveSet(): the archive set's container names appended to *containers.
    uint32_t GetArchiveSet(StringList* containers);
    // Java GetRegions(): the region names appended to *regions.
    uint32_t GetRegions(StringList* regions);
    // Java IsValidContainer(container): the existence flag into *valid.
    uint32_t IsValidContainer(const WideString& container, uint32_t* valid);
    // Java IsContainerExists(container): the existence flag into *exists.
    uint32_t IsContainerExists(const WideString& container, uint32_t* exists);
    // Java DeleteContainer(): deletes the container the Java side was initialised with.
    uint32_t DeleteContainer();
    // Java GetContainerName(): the container's name into name.
    uint32_t GetContainerName(WideString& name);
    // Java GetBucketRegion(container): the container's region text into region.
    uint32_t GetBucketRegion(const WideString& container, WideString& region);

    // ---- account and storage keys (src/operations/Account.cpp)
    // Java GetAccountInfo(): the account's texts and sizes into *info.
    uint32_t GetAccountInfo(AccountInfoRecord* info);
    // Java GetAllObjectsSize(): the bytes stored into *size; a null result gives 40.
    uint32_t GetAllObjectsSize(int64_t* size);
    // Java GetUniqueAccountName(): the account name, assigned whatever the error; a null result gives 40.
    uint32_t GetUniqueAccountName(WideString& name);
    // Java GetOwnerName(): the owner's name, handled as GetUniqueAccountName.
    uint32_t GetOwnerName(WideString& name);
    // Java IsSameAccount(first, second): 1 or 0 into *same.
    uint32_t IsSameAccount(const WideString& first, const WideString& second, uint32_t* same);
    // Java getStorageKey(first, second): the storage key; a null result empties it and gives 40.
    uint32_t GetQVCloudStorageKey(const WideString& first, const WideString& second, WideString& key);
    // Java updateStorageKey(): a new storage key.
    uint32_t updateStorageKey(WideString& key);
    // Java getServerNameList(): the server names appended to *names.
    uint32_t getServerNameList(StringList* names);
    // Java GetObjectActualSize(first, second), a long, into *actualSize; 0 whenever Java answers.
    uint32_t GetObjectActualSize(uint64_t first, uint64_t second, int64_t* actualSize);
    // Java canBackup(): the integer Java answers into *value.
    uint32_t CanBackup(int32_t* value);

    // ---- job information, connectivity and sizes (src/operations/JobAndSizes.cpp)
    // Java addJobInfo with the record's values in the order 3, 4, 1, 2, 6, 5.
    uint32_t AddJobInfo(const JobInfoRecord* job);
    // Java CheckConnectivity(): the mapped code of its CErrorValue.
    uint32_t CheckConnectivity();
    // Java GetDefaultObjectSizeRange(): minimum, default and maximum object size (0 until Java answers).
    uint32_t GetDefaultObjectSizeRange(int64_t* minimum, int64_t* defaultSize, int64_t* maximum);
    // Java GetCloudPluginCapabilities(): marker 1 and the capability map; 0 unless the bridge fails.
    uint32_t GetPluginCapabilities(CapabilitiesRecord* capabilities);

    // The operation behind the interface's reserved slot 32: does nothing and answers 0.
    uint32_t ReservedOperation() { return 0; }

    // ---- end of the storage operations

    // The Java plug-in object (a global reference), null when there is none.
    jobject PluginObject() const { return m_ObjQVAzurePlugInLibrary.get(); }
    JavaVM* Jvm() const { return m_pJVM; }

private:
    BridgeContext Context() const { return {m_pJVM, m_pLog, m_ObjQVAzurePlugInLibrary.get()}; }

    GlobalRef m_ObjQVAzurePlugInLibrary;
    JavaVM* m_pJVM = nullptr;
    JNIWrapperLog* m_pLog = nullptr;
    WideString m_strHostFolder;
    CloudPluginCreateInfo* m_pInitData = nullptr;
};
