package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;
import com.qv.QVCloudPluginInterface.CloudPluginCapabilities;
import com.qv.QVCloudPluginInterface.ERRORID;
import com.qv.azure.LibraryLog;
import com.qv.azure.rest.BlobPage;
import com.qv.azure.rest.BlobRestClient;
import com.qv.azure.rest.BlockUploader;
import com.qv.azure.rest.Deadline;
import com.qv.azure.rest.MetadataCodec;
import com.qv.azure.rest.Response;
import com.qv.azure.rest.SasToken;
import com.qv.azure.rest.StorageConnection;
import com.qv.azure.rest.StorageException;
import com.qv.plugin.model.CArrayOfString;
import com.qv.plugin.model.CInt;
import com.qv.plugin.model.CString;

import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.function.Function;
import java.util.logging.Level;
import java.util.logging.Logger;

/**
 * The storage library behind the native plug-in: every storage operation of
 * the host, on Azure Blob Storage through the Blob REST API.
 *
 * All objects are block blobs in the one container named by the connection
 * string. An object handle is the blob name itself, so any method that takes
 * a handle also accepts a name and the other way round.
 *
 * No method throws and none returns null: every failure is reported as an
 * {@link ERRORID} in the returned value (see docs/java-library.md for the table).
 *
 * Every operation has one deadline (OperationTimeoutSeconds) that all its
 * requests, retries and pauses share; past it the operation fails with
 * TIMEOUT.
 *
 * The library writes no files unless the host asks for a log file (see
 * {@link LibraryLog}), and nothing logged or returned contains the account
 * key or a shared access signature.
 */
public class QVAzurePlugInLibrary {
    private static final Logger LOG = LibraryLog.logger();

    /** Objects larger than this are uploaded as blocks. */
    public static final int SINGLE_PUT_LIMIT = 8 << 20;
    public static final int BLOCK_SIZE = BlockUploader.BLOCK_SIZE;
    public static final int PARALLEL_UPLOADS = BlockUploader.PARALLEL_UPLOADS;
    public static final long MIN_OBJECT_SIZE = 1L << 20;
    public static final long DEFAULT_OBJECT_SIZE = 32L << 20;
    /** The largest array the host can hand over in one call. */
    public static final long MAX_OBJECT_SIZE = Integer.MAX_VALUE - 8;
    /** The default capacity limit of a standard storage account (5 PiB), used for the free-space estimate. */
    public static final long ACCOUNT_CAPACITY = 5L << 50;

    /** The property that sets (SetObjectMetaData) and reports an object's access tier. */
    public static final String ACCESS_TIER = MetadataProjection.ACCESS_TIER;
    /** Reported while a rehydration is pending, e.g. rehydrate-pending-to-hot. */
    public static final String ARCHIVE_STATUS = MetadataProjection.ARCHIVE_STATUS;
    /** The priority of a pending rehydration, High or Standard. */
    public static final String REHYDRATE_PRIORITY = MetadataProjection.REHYDRATE_PRIORITY;

    private final CPluginInitData initData;
    private volatile BlobRestClient client;
    private volatile StorageConnection connection;
    private final BlockUploader uploader = new BlockUploader();
    private volatile int listPageSize = 5000;

    public QVAzurePlugInLibrary(CPluginInitData initData) {
        this.initData = initData;
    }

    /** Page size of the List Blobs calls (1..5000); smaller pages only cost more round trips. */
    void setListPageSize(int size) {
        this.listPageSize = Math.max(1, Math.min(5000, size));
    }

    // ------------------------------------------------------------------ the call frame

    /** The work of one operation: its answer, or a failure already classified. */
    private interface Work<R> {
        R run() throws StorageException;
    }

    /**
     * Runs one operation of the host: its answer when the work succeeds;
     * otherwise the failure logged once and turned into the operation's own
     * answer by {@code failedWith}, a classified failure with its id, an
     * unexpected one as INTERNAL_ERROR. Nothing is thrown to the host.
     */
    private static <R> R call(String op, Function<CErrorValue, R> failedWith, Work<R> work) {
        try {
            return work.run();
        } catch (StorageException e) {
            return failedWith.apply(failed(op, e));
        } catch (RuntimeException e) {
            return failedWith.apply(internal(op, e));
        }
    }

    /** {@link #call} for operations that answer a bare CErrorValue. */
    private static CErrorValue callPlain(String op, Work<CErrorValue> work) {
        return call(op, e -> e, work);
    }

    // ------------------------------------------------------------------ lifecycle

    /**
     * Connects to the account of the connection string and checks that the
     * container named by its Container key can be reached, so that a
     * credential that cannot reach it fails here and not at the first write.
     * With the account key, or an account SAS, a missing container is
     * created; with a container SAS it must exist (CONTAINER_NOT_FOUND
     * otherwise), and no creation is tried. The string may also carry the
     * tuning keys and AccessTier of {@link StorageConnection}; a bad value
     * there gives INVALID_ARGUMENT, an unusable token INVALID_CREDENTIALS.
     * The install folder is not used.
     */
    public synchronized CErrorValue AzureInit(String initString, String installFolder) {
        if (client != null) {
            return err(ERRORID.ALREADY_INITIALIZED);
        }
        StorageConnection conn;
        try {
            conn = StorageConnection.parse(initString);
        } catch (StorageConnection.Invalid e) {
            LOG.log(Level.WARNING, "AzureInit: unusable connection string: {0}", e.getMessage());
            switch (e.reason) {
                case BAD_ACCOUNT_KEY:
                    return err(ERRORID.STORAGE_KEY_INVALID);
                case BAD_SAS_TOKEN:
                case BAD_CREDENTIAL:
                    return err(ERRORID.INVALID_CREDENTIALS);
                case BAD_CONTAINER_NAME:
                    return err(ERRORID.INVALID_CONTAINER_NAME);
                default:
                    return err(ERRORID.INVALID_ARGUMENT);
            }
        } catch (RuntimeException e) {
            return err(ERRORID.INVALID_ARGUMENT);
        }
        return callPlain("AzureInit", () -> {
            BlobRestClient c = new BlobRestClient(conn);
            Deadline op = c.startOperation();
            if (conn.sas == null) {
                c.createContainerIfMissing(op);
            } else if (!c.containerReachable(op)) {
                if (conn.sas.scope != SasToken.Scope.ACCOUNT) {
                    throw new StorageException(ERRORID.CONTAINER_NOT_FOUND, 404, "ContainerNotFound",
                                               "AzureInit: the container of the container SAS does not exist",
                                               null);
                }
                c.createContainerIfMissing(op);
            }
            connection = conn;
            if (client != null) {
                client.close();
            }
            client = c;
            LOG.log(Level.INFO, "AzureInit: connected: {0}", conn);
            return ok();
        });
    }

    public synchronized CErrorValue AzureDeInit() {
        uploader.shutdown();
        if (client == null) {
            return err(ERRORID.NOT_INITIALIZED);
        }
        client.close();
        client = null;
        connection = null;
        return ok();
    }

    // ------------------------------------------------------------------ write and update

    public CErrorValue WriteObject(String name, byte[] data, long length) {
        return write("WriteObject", name, data, length, null).errorValue;
    }

    public CWObjectHandleFnValue WriteObject(String name, byte[] data, long length, CPluginMetaData[] metaData) {
        return write("WriteObject", name, data, length, metaData);
    }

    /** The flag is accepted for the host's sake; every write replaces the whole object. */
    public CWObjectHandleFnValue WriteObject(String name, byte[] data, long length, CPluginMetaData[] metaData,
                                             long flag) {
        return write("WriteObject", name, data, length, metaData);
    }

    /** Written straight through: this library keeps no local cache. */
    public CWObjectHandleFnValue WriteCachedObject(String name, byte[] data, long length, CPluginMetaData[] metaData) {
        return write("WriteCachedObject", name, data, length, metaData);
    }

    /** Replaces the content (and, when given, the metadata) of the object named by the first text. */
    public CCreateFnValue UpdateObject(String object, String other, byte[] data, long length,
                                       CPluginMetaData[] metaData) {
        CWObjectHandleFnValue w = write("UpdateObject", object, data, length, metaData);
        return new CCreateFnValue(w.errorValue, w.objHandle);
    }

    public CCreateFnValue UpdateObject(String object, String other, byte[] data, long length,
                                       CPluginMetaData[] metaData, long flag) {
        return UpdateObject(object, other, data, length, metaData);
    }

    public CErrorValue UpdateCachedObjectByHandle(String object, String other, byte[] data, long length,
                                                  CPluginMetaData[] metaData) {
        return write("UpdateCachedObjectByHandle", object, data, length, metaData).errorValue;
    }

    public CErrorValue UpdateCachedObjectByName(String name, byte[] data, long length, CPluginMetaData[] metaData) {
        return write("UpdateCachedObjectByName", name, data, length, metaData).errorValue;
    }

    private CWObjectHandleFnValue write(String op, String name, byte[] data, long length,
                                        CPluginMetaData[] metaData) {
        return call(op, e -> new CWObjectHandleFnValue(e, null), () -> {
            BlobRestClient c = requireClient();
            String blob = requireName(name);
            byte[] bytes = data == null ? new byte[0] : data;
            if (length < 0 || length > bytes.length) {
                throw new StorageException(ERRORID.INVALID_ARGUMENT,
                                           op + ": length " + length + " outside the array of " + bytes.length);
            }
            Map<String, String> meta = metaData == null ? null : MetadataProjection.encode(metaData);
            int len = (int) length;
            Deadline deadline = c.startOperation();
            if (len <= SINGLE_PUT_LIMIT) {
                c.putBlob(deadline, blob, bytes, 0, len, meta, false, c.accessTier());
            } else {
                uploader.upload(deadline, c, blob, bytes, len, meta, c.accessTier());
            }
            return new CWObjectHandleFnValue(ok(), blob);
        });
    }

    // ------------------------------------------------------------------ read

    /**
     * Reads up to {@code length} bytes (never more than the array holds) from
     * {@code offset}; reading at or past the end reports 0 bytes.
     */
    public CReadObjectFnValue ReadObject(String name, byte[] data, long length, long offset) {
        return call("ReadObject", e -> new CReadObjectFnValue(e, 0), () -> {
            BlobRestClient.ReadResult r = readInto(name, data, offset, length);
            return new CReadObjectFnValue(ok(), r.bytesRead);
        });
    }

    /**
     * Reads like {@link #ReadObject} and also answers the object's metadata:
     * all of it when {@code propertyNames} is null or empty, otherwise only
     * the named properties that exist. Besides the object's own metadata the
     * names Content-Length, Content-Type, ETag and Last-Modified give the
     * blob's properties of that name, and x-ms-access-tier,
     * x-ms-archive-status and x-ms-rehydrate-priority the tier properties
     * when the service reports them: Get Blob does not, so only a read that
     * asks Get Blob Properties instead (nothing to read, or at or past the
     * end) answers them.
     */
    public CRObjectByNameFnValue ReadObjectByName(String name, byte[] data, long offset, long length,
                                                  String[] propertyNames) {
        return readWithMetaData("ReadObjectByName", name, data, offset, length, propertyNames);
    }

    public CRObjectByNameFnValue ReadObjectByHandle(String handle, byte[] data, long offset, long length,
                                                    String[] propertyNames) {
        return readWithMetaData("ReadObjectByHandle", handle, data, offset, length, propertyNames);
    }

    private CRObjectByNameFnValue readWithMetaData(String op, String name, byte[] data, long offset, long length,
                                                   String[] propertyNames) {
        return call(op, e -> new CRObjectByNameFnValue(e, null, 0), () -> {
            BlobRestClient.ReadResult r = readInto(name, data, offset, length);
            return new CRObjectByNameFnValue(ok(), MetadataProjection.selected(r.response, propertyNames),
                                             r.bytesRead);
        });
    }

    private BlobRestClient.ReadResult readInto(String name, byte[] data, long offset, long length)
        throws StorageException {
        BlobRestClient c = requireClient();
        String blob = requireName(name);
        if (offset < 0 || length < 0) {
            throw new StorageException(ERRORID.INVALID_RANGE, "negative offset or length");
        }
        int room = data == null ? 0 : data.length;
        int max = (int) Math.min(length, room);
        return c.readRange(c.startOperation(), blob, offset, data, max);
    }

    // ------------------------------------------------------------------ handles

    /** Creates a new empty object; an object of that name that already exists gives ALREADY_EXISTS. */
    public CCreateFnValue CreateObject(String name) {
        return create("CreateObject", name, null);
    }

    public CCreateFnValue CreateObject(String name, CPluginMetaData[] metaData) {
        return create("CreateObject", name, metaData);
    }

    /** Answers the handle of an existing object; NOT_FOUND when there is none. */
    public CCreateFnValue OpenObject(String name) {
        return OpenObject(name, false);
    }

    /** With {@code createIfMissing} true a missing object is created empty instead of reported. */
    public CCreateFnValue OpenObject(String name, boolean createIfMissing) {
        return call("OpenObject", e -> new CCreateFnValue(e, null), () -> {
            BlobRestClient c = requireClient();
            String blob = requireName(name);
            Deadline op = c.startOperation();
            if (!c.exists(op, blob)) {
                if (!createIfMissing) {
                    return new CCreateFnValue(err(ERRORID.NOT_FOUND), null);
                }
                try {
                    c.putBlob(op, blob, new byte[0], 0, 0, null, true, null);
                } catch (StorageException e) {
                    if (e.error != ERRORID.ALREADY_EXISTS) {
                        throw e; // someone else creating it at the same moment is fine
                    }
                }
            }
            return new CCreateFnValue(ok(), blob);
        });
    }

    public CCreateFnValue CreateCachedObject(String name) {
        return create("CreateCachedObject", name, null);
    }

    private CCreateFnValue create(String op, String name, CPluginMetaData[] metaData) {
        return call(op, e -> new CCreateFnValue(e, null), () -> {
            BlobRestClient c = requireClient();
            String blob = requireName(name);
            c.putBlob(c.startOperation(), blob, new byte[0], 0, 0,
                      metaData == null ? null : MetadataProjection.encode(metaData), true, null);
            return new CCreateFnValue(ok(), blob);
        });
    }

    /** Handles hold no resources; closing only checks that the text can be one. */
    public CErrorValue CloseObject(String handle) {
        if (client == null) {
            return err(ERRORID.NOT_INITIALIZED);
        }
        return handle == null || handle.isEmpty() ? err(ERRORID.INVALID_HANDLE) : ok();
    }

    // ------------------------------------------------------------------ delete and existence

    public CErrorValue DeleteObjectByName(String name) {
        return delete("DeleteObjectByName", name);
    }

    public CErrorValue DeleteObjectByHandle(String handle) {
        return delete("DeleteObjectByHandle", handle);
    }

    /**
     * Deletes every object named; null entries are skipped. All are tried; the
     * answer is the first failure, if any.
     */
    public CErrorValue DeleteObjectByHandle(String[] handles) {
        if (handles == null) {
            return err(ERRORID.INVALID_ARGUMENT);
        }
        CErrorValue first = null;
        for (String h : handles) {
            if (h == null) {
                continue;
            }
            CErrorValue r = delete("DeleteObjectByHandle", h);
            if (first == null && r.getErrorID() != ERRORID.SUCCESS) {
                first = r;
            }
        }
        return first == null ? ok() : first;
    }

    public CErrorValue DeleteCachedObjectByName(String name) {
        return delete("DeleteCachedObjectByName", name);
    }

    private CErrorValue delete(String op, String name) {
        return callPlain(op, () -> {
            BlobRestClient c = requireClient();
            c.deleteBlob(c.startOperation(), requireName(name));
            return ok();
        });
    }

    public CIsObjectExistFnValue IsObjectExist(String name) {
        return call("IsObjectExist", e -> new CIsObjectExistFnValue(e, false), () -> {
            BlobRestClient c = requireClient();
            return new CIsObjectExistFnValue(ok(), c.exists(c.startOperation(), requireName(name)));
        });
    }

    /**
     * Whether the text can name a blob: 1 to 1024 characters, not ending in
     * '.' or '/', no control characters. The path type is not used.
     */
    public CIsObjectExistFnValue IsObjectPathSupported(String path, int pathType) {
        return new CIsObjectExistFnValue(ok(), isValidBlobName(path));
    }

    static boolean isValidBlobName(String path) {
        if (path == null || path.isEmpty() || path.length() > 1024) {
            return false;
        }
        char last = path.charAt(path.length() - 1);
        if (last == '.' || last == '/' || last == '\\') {
            return false;
        }
        for (int i = 0; i < path.length(); ++i) {
            if (Character.isISOControl(path.charAt(i))) {
                return false;
            }
        }
        return true;
    }

    // ------------------------------------------------------------------ metadata and sub-lists

    /**
     * Sets one property and keeps the others. The read-modify-write is guarded
     * by the blob's ETag and tried again when another writer got in between.
     *
     * The property {@value #ACCESS_TIER} (any case) is not metadata: it sets
     * the object's access tier with Set Blob Tier, the way an archived object
     * is brought back. Its value is Hot, Cool, Cold or Archive (any case),
     * optionally followed by ";High" or ";Standard", the rehydrate priority;
     * any other value gives INVALID_ARGUMENT and nothing is sent. A
     * rehydration from Archive is only begun here (the service answers 202
     * and takes hours); listings and property reads tell where it stands.
     *
     * Nor are {@value MetadataProjection#IMMUTABLE_UNTIL} (a time-based
     * retention: a date to come, RFC 1123 or ISO-8601, optionally ";Locked")
     * and {@value MetadataProjection#LEGAL_HOLD} (true or false): they set
     * the blob's immutability policy or legal hold, where its container has
     * version-level immutability. A bad value gives INVALID_ARGUMENT and
     * nothing is sent; listings and property reads report both.
     */
    public CErrorValue SetObjectMetaData(String name, String property, String value) {
        return callPlain("SetObjectMetaData", () -> {
            BlobRestClient c = requireClient();
            String blob = requireName(name);
            if (property == null || property.isEmpty()) {
                throw new StorageException(ERRORID.INVALID_METADATA, "empty property name");
            }
            if (property.equalsIgnoreCase(ACCESS_TIER)) {
                String[] tier = MetadataProjection.parseTierValue(value);
                int status = c.setTier(c.startOperation(), blob, tier[0], tier[1]);
                LOG.log(Level.FINE, "SetObjectMetaData: {0} to {1}{2}: {3}",
                        new Object[] {blob, tier[0], tier[1] == null ? "" : " (" + tier[1] + ")", status});
                return ok();
            }
            if (property.equalsIgnoreCase(MetadataProjection.IMMUTABLE_UNTIL)) {
                String[] retention = MetadataProjection.parseRetentionValue(value, java.time.Instant.now());
                c.setImmutabilityPolicy(c.startOperation(), blob, retention[0], retention[1]);
                LOG.log(Level.FINE, "SetObjectMetaData: {0} immutable until {1} ({2})",
                        new Object[] {blob, retention[0], retention[1]});
                return ok();
            }
            if (property.equalsIgnoreCase(MetadataProjection.LEGAL_HOLD)) {
                boolean hold = MetadataProjection.parseLegalHoldValue(value);
                c.setLegalHold(c.startOperation(), blob, hold);
                LOG.log(Level.FINE, "SetObjectMetaData: {0} legal hold {1}", new Object[] {blob, hold});
                return ok();
            }
            Deadline op = c.startOperation();
            for (int attempt = 0; ; ++attempt) {
                Response props = c.properties(op, blob);
                Map<String, String> stored = new TreeMap<>(props.metadata());
                stored.put(MetadataCodec.encodeName(property), MetadataCodec.encodeValue(value));
                try {
                    c.setMetadata(op, blob, stored, props.header("ETag"));
                    return ok();
                } catch (StorageException e) {
                    if (e.error != ERRORID.CONDITION_NOT_MET || attempt >= 4) {
                        throw e;
                    }
                }
            }
        });
    }

    /**
     * One property's value; NOT_FOUND when the object has no property of that
     * name. Besides the object's own metadata the names x-ms-access-tier,
     * x-ms-archive-status, x-ms-rehydrate-priority,
     * x-ms-immutability-policy-until-date, x-ms-immutability-policy-mode,
     * x-ms-legal-hold and x-ms-access-tier-change-time give what Get Blob
     * Properties reports of each, when it reports it.
     */
    public CGetObjectMetaData GetObjectMetaData(String name, String property) {
        return call("GetObjectMetaData", e -> new CGetObjectMetaData(e, null), () -> {
            BlobRestClient c = requireClient();
            String v = MetadataProjection.single(c.properties(c.startOperation(), requireName(name)), property);
            return v == null ? new CGetObjectMetaData(err(ERRORID.NOT_FOUND), null)
                : new CGetObjectMetaData(ok(), v);
        });
    }

    public CGObjectMetaDataFnValue GetObjectMetaData(String name) {
        return call("GetObjectMetaData", e -> new CGObjectMetaDataFnValue(e, null), () -> {
            BlobRestClient c = requireClient();
            Response props = c.properties(c.startOperation(), requireName(name));
            return new CGObjectMetaDataFnValue(ok(), MetadataProjection.toArray(
                MetadataProjection.decode(props.metadata())));
        });
    }

    /**
     * Every object whose name starts with the path (all objects for a null or
     * empty path), with its metadata and, as x-ms-access-tier,
     * x-ms-archive-status, x-ms-rehydrate-priority,
     * x-ms-immutability-policy-until-date, x-ms-immutability-policy-mode,
     * x-ms-legal-hold and x-ms-access-tier-change-time, the tier, archive
     * status, rehydrate priority, retention, legal hold and when the tier
     * was last set that the listing reports (each only when reported, and
     * never in place of a metadata entry of the same name).
     */
    public CRetGetSubMetaDataList GetObjectSubList(String path) {
        return call("GetObjectSubList", e -> new CRetGetSubMetaDataList(e, null), () -> {
            BlobRestClient c = requireClient();
            long most = connection.listMaxEntries;
            List<CObjectSubListElement> out = new ArrayList<>();
            String marker = null;
            do {
                // Each page has its own deadline: a long listing goes on as long as its pages come.
                BlobPage page = c.listBlobs(c.startOperation(), path, marker, listPageSize, true);
                if (out.size() + page.items.size() > most) {
                    throw new StorageException(ERRORID.QUOTA_EXCEEDED,
                                               "the listing holds more than " + most + " objects (ListMaxEntries): "
                                                   + "list a narrower path, or raise ListMaxEntries if the JVM "
                                                   + "has the heap for it");
                }
                for (BlobPage.Item item : page.items) {
                    out.add(new CObjectSubListElement(item.name, MetadataProjection.listed(item)));
                }
                marker = page.nextMarker;
            } while (marker != null);
            return new CRetGetSubMetaDataList(ok(), out.toArray(new CObjectSubListElement[0]));
        });
    }

    // ------------------------------------------------------------------ containers and regions

    public QVListContainers GetListContainers() {
        return call("GetListContainers", e -> new QVListContainers(e, null), () -> {
            BlobRestClient c = requireClient();
            List<String> names = c.listContainers(c.startOperation());
            QVAzureContainer[] out = new QVAzureContainer[names.size()];
            for (int i = 0; i < out.length; ++i) {
                out[i] = new QVAzureContainer(names.get(i));
            }
            return new QVListContainers(ok(), out);
        });
    }

    /** Not available: the Blob REST API has no notion of an archive set. */
    public QVListContainers GetArchiveSet() {
        return new QVListContainers(err(ERRORID.NOT_SUPPORTED), null);
    }

    /** Not available: regions are a management-plane matter, outside the Blob REST API. */
    public QVListRegions GetRegions() {
        return new QVListRegions(err(ERRORID.NOT_SUPPORTED), null);
    }

    /** Whether the text follows Azure's container naming rules (no request is made). */
    public CIsObjectExistFnValue IsValidContainer(String name) {
        return new CIsObjectExistFnValue(ok(), StorageConnection.isValidContainerName(name));
    }

    public com.qv.AmazonLibrary.CIsObjectExistFnValue IsContainerExists(String name) {
        return call("IsContainerExists", e -> new com.qv.AmazonLibrary.CIsObjectExistFnValue(e, false), () -> {
            if (!StorageConnection.isValidContainerName(name)) {
                return new com.qv.AmazonLibrary.CIsObjectExistFnValue(err(ERRORID.INVALID_CONTAINER_NAME), false);
            }
            BlobRestClient c = requireClient();
            Deadline op = c.startOperation();
            // A container SAS cannot ask for a container's properties; its own container it can check.
            boolean exists = c.usesSas() && name.equals(c.container())
                ? c.containerReachable(op) : c.containerExists(op, name);
            return new com.qv.AmazonLibrary.CIsObjectExistFnValue(ok(), exists);
        });
    }

    /** Deletes the container of the connection string with everything in it. */
    public CErrorValue DeleteContainer() {
        return callPlain("DeleteContainer", () -> {
            BlobRestClient c = requireClient();
            c.deleteContainer(c.startOperation(), c.container());
            return ok();
        });
    }

    public CUniqueAccountValue GetContainerName() {
        StorageConnection conn = connection;
        if (conn == null) {
            return new CUniqueAccountValue(err(ERRORID.NOT_INITIALIZED), null);
        }
        return new CUniqueAccountValue(ok(), conn.container);
    }

    /** Not available: the Blob REST API does not tell an account's region. */
    public CCreateFnValue GetBucketRegion(String containerName) {
        return new CCreateFnValue(err(ERRORID.NOT_SUPPORTED), null);
    }

    // ------------------------------------------------------------------ account and storage keys

    /**
     * The account name as identity and display name, the account kind and SKU
     * from Get Account Information as its type, the bytes of the container as
     * used size and the standard account limit minus that as remaining size.
     * The Blob REST API knows no owner e-mail address; that field stays null.
     */
    public CGetAccountInfoFnValue GetAccountInfo() {
        return call("GetAccountInfo", e -> new CGetAccountInfoFnValue(e, null, null, null, null, 0, 0), () -> {
            BlobRestClient c = requireClient();
            Deadline op = c.startOperation();
            Response info = c.accountInformation(op);
            String kind = info.header("x-ms-account-kind");
            String sku = info.header("x-ms-sku-name");
            String type = kind == null ? sku : (sku == null ? kind : kind + "/" + sku);
            long used = containerBytes(c);
            String account = connection.accountName;
            return new CGetAccountInfoFnValue(ok(), account, type, account, null, used,
                                              Math.max(0, ACCOUNT_CAPACITY - used));
        });
    }

    /** The bytes of all objects of the container, summed from a full listing. */
    public CGetAccountSizeValue GetAllObjectsSize() {
        return call("GetAllObjectsSize", e -> new CGetAccountSizeValue(e, 0), () -> {
            BlobRestClient c = requireClient();
            return new CGetAccountSizeValue(ok(), containerBytes(c));
        });
    }

    /** The sizes of the container's objects summed page by page, each page under a deadline of its own. */
    private long containerBytes(BlobRestClient c) throws StorageException {
        long total = 0;
        String marker = null;
        do {
            BlobPage page = c.listBlobs(c.startOperation(), null, marker, listPageSize, false);
            for (BlobPage.Item item : page.items) {
                total += item.size;
            }
            marker = page.nextMarker;
        } while (marker != null);
        return total;
    }

    public CUniqueAccountValue GetUniqueAccountName() {
        StorageConnection conn = connection;
        if (conn == null) {
            return new CUniqueAccountValue(err(ERRORID.NOT_INITIALIZED), null);
        }
        return new CUniqueAccountValue(ok(), conn.accountName);
    }

    /** Not available: account ownership is not visible through the Blob REST API. */
    public CUniqueAccountValue GetOwnerName() {
        return new CUniqueAccountValue(err(ERRORID.NOT_SUPPORTED), null);
    }

    /** Not available: what the two texts denote is not defined for this back end. */
    public CIsObjectExistFnValue IsSameAccount(String first, String second) {
        return new CIsObjectExistFnValue(err(ERRORID.NOT_SUPPORTED), false);
    }

    /** Not available: storage keys are managed through the management plane, not the Blob REST API. */
    public CString getStorageKey(String first, String second) {
        return new CString(err(ERRORID.NOT_SUPPORTED), null);
    }

    /** Not available, as {@link #getStorageKey}. */
    public CString updateStorageKey() {
        return new CString(err(ERRORID.NOT_SUPPORTED), null);
    }

    /** Not available: this back end has no server list. */
    public CArrayOfString getServerNameList() {
        return new CArrayOfString(err(ERRORID.NOT_SUPPORTED), null);
    }

    /** The size rounded up to a whole number of blocks (the size itself when either is not positive). */
    public long GetObjectActualSize(long size, long blockSize) {
        if (blockSize <= 0 || size <= 0) {
            return size;
        }
        return (size + blockSize - 1) / blockSize * blockSize;
    }

    /** 1 when the library is connected, so that a backup can write; NOT_INITIALIZED otherwise. */
    public CInt canBackup() {
        return client == null ? new CInt(err(ERRORID.NOT_INITIALIZED), 0) : new CInt(ok(), 1);
    }

    // ------------------------------------------------------------------ job information, connectivity, sizes

    /** Not available: this library keeps no job records. */
    public CErrorValue addJobInfo(long a, long b, long c, long d, long e, long f) {
        return err(ERRORID.NOT_SUPPORTED);
    }

    /**
     * One request to the container; its outcome is the answer (with a shared
     * access signature the check of AzureInit, which a token that may not
     * list passes too).
     */
    public CErrorValue CheckConnectivity() {
        return callPlain("CheckConnectivity", () -> {
            BlobRestClient c = requireClient();
            return c.containerReachable(c.startOperation()) ? ok() : err(ERRORID.CONTAINER_NOT_FOUND);
        });
    }

    public CGDefaultObjSizeRangeValue GetDefaultObjectSizeRange() {
        return new CGDefaultObjSizeRangeValue(ok(), MIN_OBJECT_SIZE, DEFAULT_OBJECT_SIZE, MAX_OBJECT_SIZE);
    }

    public CloudPluginCapabilities GetCloudPluginCapabilities() {
        HashMap<String, String> map = new HashMap<>();
        map.put("Provider", "AzureBlob");
        BlobRestClient c = client;
        map.put("ApiVersion", c != null ? c.serviceVersion() : BlobRestClient.API_VERSION);
        map.put("MaxObjectSize", Long.toString(MAX_OBJECT_SIZE));
        map.put("BlockUploadThreshold", Integer.toString(SINGLE_PUT_LIMIT));
        map.put("BlockSize", Integer.toString(BLOCK_SIZE));
        map.put("ParallelUploads", Integer.toString(PARALLEL_UPLOADS));
        map.put("SupportsMetadata", "true");
        map.put("SupportsRangedRead", "true");
        map.put("SupportsCachedObjects", "false");
        map.put("SupportsRegions", "false");
        map.put("SupportsStorageKeys", "false");
        return new CloudPluginCapabilities(map);
    }

    // ------------------------------------------------------------------ helpers

    private BlobRestClient requireClient() throws StorageException {
        BlobRestClient c = client;
        if (c == null) {
            throw new StorageException(ERRORID.NOT_INITIALIZED, "AzureInit has not succeeded");
        }
        return c;
    }

    private static String requireName(String name) throws StorageException {
        if (name == null || name.isEmpty()) {
            throw new StorageException(ERRORID.INVALID_HANDLE, "empty object name or handle");
        }
        if (!isValidBlobName(name)) {
            throw new StorageException(ERRORID.INVALID_OBJECT_NAME, "not a usable object name: " + name);
        }
        return name;
    }

    private static CErrorValue ok() {
        return new CErrorValue();
    }

    private static CErrorValue err(ERRORID id) {
        return new CErrorValue(id);
    }

    private static CErrorValue failed(String op, StorageException e) {
        LOG.log(Level.WARNING, op + ": " + e.error + ": " + e.getMessage());
        return new CErrorValue(e.error);
    }

    private static CErrorValue internal(String op, RuntimeException e) {
        LOG.log(Level.SEVERE, op + ": unexpected failure", e);
        return new CErrorValue(ERRORID.INTERNAL_ERROR);
    }
}
