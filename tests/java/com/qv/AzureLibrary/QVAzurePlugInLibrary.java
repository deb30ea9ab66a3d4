package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;
import com.qv.QVCloudPluginInterface.CloudPluginCapabilities;
import com.qv.plugin.model.CArrayOfString;
import com.qv.plugin.model.CInt;
import com.qv.plugin.model.CString;
import com.qv.testdouble.Call;
import com.qv.testdouble.DoubleControl;
import com.qv.testdouble.ObjectStore;

import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Objects;

/**
 * The test double of the storage library: every method the plug-in calls,
 * with the same names and JNI signatures, answering from a small in-memory
 * object store shared by all instances (com.qv.testdouble.ObjectStore).
 *
 * Each call is first recorded and takes its scripted reply from
 * com.qv.testdouble.DoubleControl, which may make it throw, return null, or
 * change fields of the result; see there.
 *
 * The store's behaviour: objects are kept by name. A handle is "handle:"
 * followed by the object's name; wherever a handle or a name is accepted, a
 * text starting with "handle:" stands for the object named by the rest.
 * Writes and updates replace the object's bytes (the first `length` bytes of
 * the array) and, when they pass a metadata array, its metadata; the first
 * text of the two-text updates names the object, the second is only recorded.
 * Reads copy from `offset` as many bytes as the length argument asks for, the
 * array holds and the object has, and report that number. Unknown objects read
 * as empty. Every result carries a successful error value unless scripted
 * otherwise; the double itself never reports an error.
 */
public class QVAzurePlugInLibrary {
    public static final String HANDLE_PREFIX = "handle:";
    public static final List<String> CONTAINERS = List.of("qv-backup", "qv-archive");
    public static final List<String> ARCHIVE_SET = List.of("qv-archive");
    public static final List<String> REGIONS = List.of("eastus", "westeurope");
    public static final List<String> SERVERS = List.of("server-1", "server-2");
    public static final String ACCOUNT_NAME = "qvstorageaccount";
    public static final String OWNER_NAME = "QV Backup";
    public static final String ACCOUNT_TYPE = "StorageV2";
    public static final String EMAIL = "backup@example.com";
    public static final String REGION = "eastus";
    public static final long ACCOUNT_CAPACITY = 1L << 40;
    public static final long MIN_OBJECT_SIZE = 1L << 20;
    public static final long DEFAULT_OBJECT_SIZE = 32L << 20;
    public static final long MAX_OBJECT_SIZE = 256L << 20;

    /** The creation data is only recorded (as the call "<init>"); the store is shared by all instances. */
    public QVAzurePlugInLibrary(CPluginInitData initData) {
        DoubleControl.enter("<init>", initData).finish();
    }

    // ------------------------------------------------------------------ lifecycle

    public CErrorValue AzureInit(String initString, String hostFolder) {
        return DoubleControl.enter("AzureInit", initString, hostFolder).finish(CErrorValue.class, CErrorValue::new);
    }

    public CErrorValue AzureDeInit() {
        return DoubleControl.enter("AzureDeInit").finish(CErrorValue.class, CErrorValue::new);
    }

    // ------------------------------------------------------------------ write and update

    public CErrorValue WriteObject(String name, byte[] data, long length) {
        Call c = DoubleControl.enter("WriteObject", name, data, length);
        byte[] stored = kept(c, data, length);
        return c.finish(CErrorValue.class, () -> {
            store().putData(name, stored);
            return new CErrorValue();
        });
    }

    public CWObjectHandleFnValue WriteObject(String name, byte[] data, long length, CPluginMetaData[] metaData) {
        Call c = DoubleControl.enter("WriteObject", name, data, length, metaData);
        return c.finish(CWObjectHandleFnValue.class, () -> written(name, kept(c, data, length), metaData));
    }

    public CWObjectHandleFnValue WriteObject(String name, byte[] data, long length, CPluginMetaData[] metaData,
                                             long flag) {
        Call c = DoubleControl.enter("WriteObject", name, data, length, metaData, flag);
        return c.finish(CWObjectHandleFnValue.class, () -> written(name, kept(c, data, length), metaData));
    }

    public CWObjectHandleFnValue WriteCachedObject(String name, byte[] data, long length, CPluginMetaData[] metaData) {
        Call c = DoubleControl.enter("WriteCachedObject", name, data, length, metaData);
        return c.finish(CWObjectHandleFnValue.class, () -> written(name, kept(c, data, length), metaData));
    }

    public CCreateFnValue UpdateObject(String object, String other, byte[] data, long length,
                                       CPluginMetaData[] metaData) {
        Call c = DoubleControl.enter("UpdateObject", object, other, data, length, metaData);
        return c.finish(CCreateFnValue.class, () -> updated(object, kept(c, data, length), metaData));
    }

    public CCreateFnValue UpdateObject(String object, String other, byte[] data, long length,
                                       CPluginMetaData[] metaData, long flag) {
        Call c = DoubleControl.enter("UpdateObject", object, other, data, length, metaData, flag);
        return c.finish(CCreateFnValue.class, () -> updated(object, kept(c, data, length), metaData));
    }

    public CErrorValue UpdateCachedObjectByHandle(String object, String other, byte[] data, long length,
                                                  CPluginMetaData[] metaData) {
        Call c = DoubleControl.enter("UpdateCachedObjectByHandle", object, other, data, length, metaData);
        return c.finish(CErrorValue.class, () -> {
            updated(object, kept(c, data, length), metaData);
            return new CErrorValue();
        });
    }

    public CErrorValue UpdateCachedObjectByName(String name, byte[] data, long length, CPluginMetaData[] metaData) {
        Call c = DoubleControl.enter("UpdateCachedObjectByName", name, data, length, metaData);
        return c.finish(CErrorValue.class, () -> {
            updated(name, kept(c, data, length), metaData);
            return new CErrorValue();
        });
    }

    // ------------------------------------------------------------------ read

    public CReadObjectFnValue ReadObject(String name, byte[] data, long length, long offset) {
        Call c = DoubleControl.enter("ReadObject", name, data, length, offset);
        return c.finish(CReadObjectFnValue.class, () -> {
            CReadObjectFnValue r = new CReadObjectFnValue();
            r.sizeRead = fill(c, objectOf(name), data, offset, length);
            return r;
        });
    }

    public CRObjectByNameFnValue ReadObjectByName(String name, byte[] data, long offset, long length,
                                                  String[] propertyNames) {
        Call c = DoubleControl.enter("ReadObjectByName", name, data, offset, length, propertyNames);
        return c.finish(CRObjectByNameFnValue.class, () -> readWithMetaData(c, name, data, offset, length, propertyNames));
    }

    public CRObjectByNameFnValue ReadObjectByHandle(String handle, byte[] data, long offset, long length,
                                                    String[] propertyNames) {
        Call c = DoubleControl.enter("ReadObjectByHandle", handle, data, offset, length, propertyNames);
        return c.finish(CRObjectByNameFnValue.class, () -> readWithMetaData(c, handle, data, offset, length, propertyNames));
    }

    // ------------------------------------------------------------------ handles

    public CCreateFnValue CreateObject(String name) {
        return DoubleControl.enter("CreateObject", name).finish(CCreateFnValue.class, () -> created(name, null));
    }

    public CCreateFnValue CreateObject(String name, CPluginMetaData[] metaData) {
        return DoubleControl.enter("CreateObject", name, metaData)
            .finish(CCreateFnValue.class, () -> created(name, metaData));
    }

    public CCreateFnValue OpenObject(String name) {
        return DoubleControl.enter("OpenObject", name).finish(CCreateFnValue.class, () -> handleResult(objectOf(name)));
    }

    public CCreateFnValue OpenObject(String name, boolean flag) {
        return DoubleControl.enter("OpenObject", name, flag)
            .finish(CCreateFnValue.class, () -> handleResult(objectOf(name)));
    }

    public CCreateFnValue CreateCachedObject(String name) {
        return DoubleControl.enter("CreateCachedObject", name).finish(CCreateFnValue.class, () -> created(name, null));
    }

    public CErrorValue CloseObject(String handle) {
        return DoubleControl.enter("CloseObject", handle).finish(CErrorValue.class, CErrorValue::new);
    }

    // ------------------------------------------------------------------ delete and existence

    public CErrorValue DeleteObjectByName(String name) {
        return DoubleControl.enter("DeleteObjectByName", name).finish(CErrorValue.class, () -> deleted(name));
    }

    public CErrorValue DeleteObjectByHandle(String handle) {
        return DoubleControl.enter("DeleteObjectByHandle", handle).finish(CErrorValue.class, () -> deleted(handle));
    }

    public CErrorValue DeleteObjectByHandle(String[] handles) {
        return DoubleControl.enter("DeleteObjectByHandle", (Object) handles).finish(CErrorValue.class, () -> {
            if (handles != null) {
                for (String h : handles) {
                    if (h != null) {
                        store().remove(objectOf(h));
                    }
                }
            }
            return new CErrorValue();
        });
    }

    public CErrorValue DeleteCachedObjectByName(String name) {
        return DoubleControl.enter("DeleteCachedObjectByName", name).finish(CErrorValue.class, () -> deleted(name));
    }

    public CIsObjectExistFnValue IsObjectExist(String name) {
        return DoubleControl.enter("IsObjectExist", name)
            .finish(CIsObjectExistFnValue.class, () -> yesNo(store().exists(objectOf(name))));
    }

    public CIsObjectExistFnValue IsObjectPathSupported(String path, int pathType) {
        return DoubleControl.enter("IsObjectPathSupported", path, pathType)
            .finish(CIsObjectExistFnValue.class, () -> yesNo(path != null && !path.isEmpty()));
    }

    // ------------------------------------------------------------------ metadata and sub-lists

    public CErrorValue SetObjectMetaData(String name, String property, String value) {
        return DoubleControl.enter("SetObjectMetaData", name, property, value).finish(CErrorValue.class, () -> {
            store().setProperty(objectOf(name), property, value);
            return new CErrorValue();
        });
    }

    public CGetObjectMetaData GetObjectMetaData(String name, String property) {
        return DoubleControl.enter("GetObjectMetaData", name, property).finish(CGetObjectMetaData.class, () -> {
            CGetObjectMetaData r = new CGetObjectMetaData();
            r.value = store().property(objectOf(name), property);
            return r;
        });
    }

    public CGObjectMetaDataFnValue GetObjectMetaData(String name) {
        return DoubleControl.enter("GetObjectMetaData", name).finish(CGObjectMetaDataFnValue.class, () -> {
            CGObjectMetaDataFnValue r = new CGObjectMetaDataFnValue();
            r.values = store().metaData(objectOf(name), null);
            return r;
        });
    }

    public CRetGetSubMetaDataList GetObjectSubList(String path) {
        return DoubleControl.enter("GetObjectSubList", path).finish(CRetGetSubMetaDataList.class, () -> {
            List<String> names = store().namesStartingWith(path);
            CObjectSubListElement[] elements = new CObjectSubListElement[names.size()];
            for (int i = 0; i < elements.length; ++i) {
                elements[i] = new CObjectSubListElement(names.get(i), store().metaData(names.get(i), null));
            }
            CRetGetSubMetaDataList r = new CRetGetSubMetaDataList();
            r.metaDat = elements;
            return r;
        });
    }

    // ------------------------------------------------------------------ containers and regions

    public QVListContainers GetListContainers() {
        return DoubleControl.enter("GetListContainers").finish(QVListContainers.class, () -> containers(CONTAINERS));
    }

    public QVListContainers GetArchiveSet() {
        return DoubleControl.enter("GetArchiveSet").finish(QVListContainers.class, () -> containers(ARCHIVE_SET));
    }

    public QVListRegions GetRegions() {
        return DoubleControl.enter("GetRegions").finish(QVListRegions.class, () -> {
            QVListRegions r = new QVListRegions();
            r.regionsList = REGIONS.toArray(new String[0]);
            return r;
        });
    }

    public CIsObjectExistFnValue IsValidContainer(String name) {
        return DoubleControl.enter("IsValidContainer", name)
            .finish(CIsObjectExistFnValue.class, () -> yesNo(CONTAINERS.contains(name)));
    }

    public com.qv.AmazonLibrary.CIsObjectExistFnValue IsContainerExists(String name) {
        return DoubleControl.enter("IsContainerExists", name)
            .finish(com.qv.AmazonLibrary.CIsObjectExistFnValue.class,
                    () -> new com.qv.AmazonLibrary.CIsObjectExistFnValue(new CErrorValue(), CONTAINERS.contains(name)));
    }

    public CErrorValue DeleteContainer() {
        return DoubleControl.enter("DeleteContainer").finish(CErrorValue.class, CErrorValue::new);
    }

    public CUniqueAccountValue GetContainerName() {
        return DoubleControl.enter("GetContainerName")
            .finish(CUniqueAccountValue.class, () -> new CUniqueAccountValue(new CErrorValue(), CONTAINERS.get(0)));
    }

    public CCreateFnValue GetBucketRegion(String containerName) {
        return DoubleControl.enter("GetBucketRegion", containerName)
            .finish(CCreateFnValue.class, () -> new CCreateFnValue(new CErrorValue(), REGION));
    }

    // ------------------------------------------------------------------ account and storage keys

    public CGetAccountInfoFnValue GetAccountInfo() {
        return DoubleControl.enter("GetAccountInfo").finish(CGetAccountInfoFnValue.class, () -> {
            long used = store().totalBytes();
            return new CGetAccountInfoFnValue(new CErrorValue(), ACCOUNT_NAME, ACCOUNT_TYPE, OWNER_NAME, EMAIL,
                                              used, ACCOUNT_CAPACITY - used);
        });
    }

    public CGetAccountSizeValue GetAllObjectsSize() {
        return DoubleControl.enter("GetAllObjectsSize")
            .finish(CGetAccountSizeValue.class, () -> new CGetAccountSizeValue(new CErrorValue(), store().totalBytes()));
    }

    public CUniqueAccountValue GetUniqueAccountName() {
        return DoubleControl.enter("GetUniqueAccountName")
            .finish(CUniqueAccountValue.class, () -> new CUniqueAccountValue(new CErrorValue(), ACCOUNT_NAME));
    }

    public CUniqueAccountValue GetOwnerName() {
        return DoubleControl.enter("GetOwnerName")
            .finish(CUniqueAccountValue.class, () -> new CUniqueAccountValue(new CErrorValue(), OWNER_NAME));
    }

    public CIsObjectExistFnValue IsSameAccount(String first, String second) {
        return DoubleControl.enter("IsSameAccount", first, second)
            .finish(CIsObjectExistFnValue.class, () -> yesNo(Objects.equals(first, second)));
    }

    /** The current storage key, "key-" and its generation (1 after reset). */
    public CString getStorageKey(String first, String second) {
        return DoubleControl.enter("getStorageKey", first, second)
            .finish(CString.class, () -> new CString(new CErrorValue(), "key-" + store().storageKeyGeneration()));
    }

    /** Makes a new storage key (the next generation) and answers it. */
    public CString updateStorageKey() {
        return DoubleControl.enter("updateStorageKey")
            .finish(CString.class, () -> new CString(new CErrorValue(), "key-" + store().nextStorageKeyGeneration()));
    }

    public CArrayOfString getServerNameList() {
        return DoubleControl.enter("getServerNameList")
            .finish(CArrayOfString.class, () -> new CArrayOfString(new CErrorValue(), SERVERS.toArray(new String[0])));
    }

    /** The size rounded up to a whole number of blocks (the size itself when the block size is not positive). */
    public long GetObjectActualSize(long size, long blockSize) {
        return DoubleControl.enter("GetObjectActualSize", size, blockSize).finishLong(() -> {
            if (blockSize <= 0 || size <= 0) {
                return size;
            }
            return (size + blockSize - 1) / blockSize * blockSize;
        });
    }

    public CInt canBackup() {
        return DoubleControl.enter("canBackup").finish(CInt.class, () -> new CInt(new CErrorValue(), 1));
    }

    // ------------------------------------------------------------------ job information, connectivity, sizes

    public CErrorValue addJobInfo(long a, long b, long c, long d, long e, long f) {
        return DoubleControl.enter("addJobInfo", a, b, c, d, e, f).finish(CErrorValue.class, CErrorValue::new);
    }

    public CErrorValue CheckConnectivity() {
        return DoubleControl.enter("CheckConnectivity").finish(CErrorValue.class, CErrorValue::new);
    }

    public CGDefaultObjSizeRangeValue GetDefaultObjectSizeRange() {
        return DoubleControl.enter("GetDefaultObjectSizeRange").finish(CGDefaultObjSizeRangeValue.class,
            () -> new CGDefaultObjSizeRangeValue(new CErrorValue(), MIN_OBJECT_SIZE, DEFAULT_OBJECT_SIZE, MAX_OBJECT_SIZE));
    }

    public CloudPluginCapabilities GetCloudPluginCapabilities() {
        return DoubleControl.enter("GetCloudPluginCapabilities").finish(CloudPluginCapabilities.class, () -> {
            HashMap<String, String> map = new HashMap<>();
            map.put("MaxObjectSize", Long.toString(MAX_OBJECT_SIZE));
            map.put("SupportsMetadata", "true");
            map.put("SupportsCachedObjects", "true");
            return new CloudPluginCapabilities(map);
        });
    }

    // ------------------------------------------------------------------ helpers

    private static ObjectStore store() {
        return DoubleControl.store();
    }

    /** The object a name or a handle stands for. */
    public static String objectOf(String nameOrHandle) {
        if (nameOrHandle != null && nameOrHandle.startsWith(HANDLE_PREFIX)) {
            return nameOrHandle.substring(HANDLE_PREFIX.length());
        }
        return nameOrHandle;
    }

    public static String handleOf(String name) {
        return HANDLE_PREFIX + (name == null ? "" : name);
    }

    /**
     * Copies the written array once: the copy is the recorded argument, and the object's bytes are the copy
     * itself, or its first `length` bytes when the length asks for fewer.
     */
    private static byte[] kept(Call c, byte[] data, long length) {
        if (data == null || DoubleControl.dataPassThrough()) {
            return new byte[0];
        }
        byte[] copy = data.clone();
        c.keepBytes(copy);
        if (length >= copy.length) {
            return copy;
        }
        return Arrays.copyOf(copy, (int) Math.max(0, length));
    }

    private static CWObjectHandleFnValue written(String name, byte[] stored, CPluginMetaData[] metaData) {
        String object = objectOf(name);
        store().putData(object, stored);
        if (metaData != null) {
            store().putMetaData(object, metaData);
        }
        return new CWObjectHandleFnValue(new CErrorValue(), handleOf(object));
    }

    private static CCreateFnValue updated(String nameOrHandle, byte[] stored, CPluginMetaData[] metaData) {
        String object = objectOf(nameOrHandle);
        store().putData(object, stored);
        if (metaData != null) {
            store().putMetaData(object, metaData);
        }
        return handleResult(object);
    }

    private static CCreateFnValue created(String name, CPluginMetaData[] metaData) {
        String object = objectOf(name);
        store().create(object);
        if (metaData != null) {
            store().putMetaData(object, metaData);
        }
        return handleResult(object);
    }

    private static CCreateFnValue handleResult(String object) {
        return new CCreateFnValue(new CErrorValue(), handleOf(object));
    }

    private static CErrorValue deleted(String nameOrHandle) {
        store().remove(objectOf(nameOrHandle));
        return new CErrorValue();
    }

    private static CIsObjectExistFnValue yesNo(boolean answer) {
        return new CIsObjectExistFnValue(new CErrorValue(), answer);
    }

    private static QVListContainers containers(List<String> names) {
        QVAzureContainer[] out = new QVAzureContainer[names.size()];
        for (int i = 0; i < out.length; ++i) {
            out[i] = new QVAzureContainer(names.get(i));
        }
        return new QVListContainers(new CErrorValue(), out);
    }

    private static CRObjectByNameFnValue readWithMetaData(Call c, String nameOrHandle, byte[] data, long offset,
                                                          long length, String[] propertyNames) {
        String object = objectOf(nameOrHandle);
        CRObjectByNameFnValue r = new CRObjectByNameFnValue();
        r.bytesRead = fill(c, object, data, offset, length);
        r.values = store().metaData(object, propertyNames);
        return r;
    }

    /**
     * Puts the scripted read data, or the object's bytes from `offset`, into the caller's array and answers
     * the count to report. The bytes put into the array are kept as the call's recorded byte[] argument.
     */
    private static long fill(Call c, String object, byte[] array, long offset, long length) {
        int room = array == null ? 0 : array.length;
        if (DoubleControl.dataPassThrough()) {
            return Math.min(length, room);
        }
        byte[] scripted = c.scriptedReadData();
        if (scripted != null) {
            int n = Math.min(scripted.length, room);
            if (n > 0) {
                System.arraycopy(scripted, 0, array, 0, n);
            }
            c.keepBytes(n == scripted.length ? scripted : Arrays.copyOf(scripted, n));
            return c.scriptedReportedCount();
        }
        byte[] stored = store().data(object);
        if (stored == null || offset < 0 || offset >= stored.length || length <= 0) {
            c.keepBytes(new byte[0]);
            return 0;
        }
        int from = (int) offset;
        int n = (int) Math.min(Math.min(length, room), stored.length - from);
        if (n > 0) {
            System.arraycopy(stored, from, array, 0, n);
        }
        c.keepBytes(from == 0 && n == stored.length ? stored : Arrays.copyOfRange(stored, from, from + n));
        return n;
    }
}
