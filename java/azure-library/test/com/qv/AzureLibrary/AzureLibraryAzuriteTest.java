package com.qv.AzureLibrary;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.CErrorValue;
import com.qv.QVCloudPluginInterface.ERRORID;

import java.net.InetAddress;
import java.net.ServerSocket;
import java.security.MessageDigest;
import java.util.Arrays;
import java.util.HashMap;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Random;
import java.util.Set;
import java.util.UUID;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** The library against a real Blob service (Azurite). */
class AzureLibraryAzuriteTest {
    private static AzuriteServer azurite;
    private static QVAzurePlugInLibrary lib;
    private static String container;

    @BeforeAll
    static void connect() throws Exception {
        azurite = AzuriteServer.get();
        container = "t" + UUID.randomUUID().toString().replace("-", "").substring(0, 20);
        lib = newLibrary();
        assertEquals(ERRORID.SUCCESS, lib.AzureInit(azurite.connectionString(container), "/tmp").getErrorID());
    }

    @AfterAll
    static void disconnect() {
        if (lib != null) {
            lib.AzureDeInit();
        }
    }

    private static QVAzurePlugInLibrary newLibrary() {
        return new QVAzurePlugInLibrary(new CPluginInitData("/tmp/install", "/tmp/log"));
    }

    private static byte[] randomBytes(int n, long seed) {
        byte[] b = new byte[n];
        new Random(seed).nextBytes(b);
        return b;
    }

    private static byte[] sha256(byte[] b, int off, int len) throws Exception {
        MessageDigest md = MessageDigest.getInstance("SHA-256");
        md.update(b, off, len);
        return md.digest();
    }

    private static String unique(String prefix) {
        return prefix + UUID.randomUUID();
    }

    // ------------------------------------------------------------------ initialisation

    @Test
    void initCreatesTheContainerAndReportsItsNames() {
        assertTrue(lib.IsContainerExists(container).isExist);
        assertEquals(container, lib.GetContainerName().accountName);
        assertEquals(AzuriteServer.ACCOUNT, lib.GetUniqueAccountName().accountName);
        assertEquals(ERRORID.SUCCESS, lib.CheckConnectivity().getErrorID());
        assertEquals(1, lib.canBackup().value);
        assertEquals(ERRORID.ALREADY_INITIALIZED,
                     lib.AzureInit(azurite.connectionString(container), "/tmp").getErrorID());
    }

    @Test
    void initOnAnExistingContainerSucceeds() {
        QVAzurePlugInLibrary second = newLibrary();
        assertEquals(ERRORID.SUCCESS, second.AzureInit(azurite.connectionString(container), "/tmp").getErrorID());
        assertEquals(ERRORID.SUCCESS, second.AzureDeInit().getErrorID());
        assertEquals(ERRORID.NOT_INITIALIZED, second.AzureDeInit().getErrorID());
    }

    @Test
    void badConnectionStringsGiveClearErrors() throws Exception {
        String good = azurite.connectionString("badinit");
        Map<String, ERRORID> cases = new LinkedHashMap<>();
        cases.put("", ERRORID.INVALID_ARGUMENT);
        cases.put("this is not a connection string", ERRORID.INVALID_ARGUMENT);
        cases.put(good.replace(";Container=badinit", ""), ERRORID.INVALID_ARGUMENT);
        cases.put(good.replace("AccountName=" + AzuriteServer.ACCOUNT + ";", ""), ERRORID.INVALID_ARGUMENT);
        cases.put(good.replace(AzuriteServer.KEY, "not*base64!"), ERRORID.STORAGE_KEY_INVALID);
        cases.put(good.replace("Container=badinit", "Container=Bad_Name"), ERRORID.INVALID_CONTAINER_NAME);
        // A well-formed key that is not the account's: the service refuses the signature. Azure
        // answers 403 AuthenticationFailed; Azurite answers 403 AuthorizationFailure, which maps
        // to AUTHORIZATION_FAILED (see the error table in README.md).
        String wrongKey = java.util.Base64.getEncoder().encodeToString(randomBytes(64, 7));
        cases.put(good.replace(AzuriteServer.KEY, wrongKey), ERRORID.AUTHORIZATION_FAILED);
        int closedPort;
        try (ServerSocket s = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            closedPort = s.getLocalPort();
        }
        cases.put(good.replace(":" + azurite.port + "/", ":" + closedPort + "/"), ERRORID.CONNECTION_FAILED);

        for (Map.Entry<String, ERRORID> c : cases.entrySet()) {
            QVAzurePlugInLibrary l = newLibrary();
            CErrorValue r = l.AzureInit(c.getKey(), "/tmp");
            assertNotNull(r);
            assertEquals(c.getValue(), r.getErrorID(), c.getKey());
            // Still not initialised afterwards.
            assertEquals(ERRORID.NOT_INITIALIZED, l.IsObjectExist("x").errorValue.getErrorID());
        }
        QVAzurePlugInLibrary l = newLibrary();
        assertEquals(ERRORID.INVALID_ARGUMENT, l.AzureInit(null, null).getErrorID());
    }

    @Test
    void everyOperationBeforeInitReportsNotInitialized() {
        QVAzurePlugInLibrary l = newLibrary();
        byte[] buf = new byte[4];
        assertEquals(ERRORID.NOT_INITIALIZED, l.WriteObject("a", buf, 4).getErrorID());
        assertEquals(ERRORID.NOT_INITIALIZED, l.ReadObject("a", buf, 4, 0).errorValue.getErrorID());
        assertEquals(ERRORID.NOT_INITIALIZED, l.ReadObjectByName("a", buf, 0, 4, null).errorValue.getErrorID());
        assertEquals(ERRORID.NOT_INITIALIZED, l.CreateObject("a").errorValue.getErrorID());
        assertEquals(ERRORID.NOT_INITIALIZED, l.DeleteObjectByName("a").getErrorID());
        assertEquals(ERRORID.NOT_INITIALIZED, l.GetObjectSubList("a").errorValue.getErrorID());
        assertEquals(ERRORID.NOT_INITIALIZED, l.CheckConnectivity().getErrorID());
        assertEquals(ERRORID.NOT_INITIALIZED, l.GetContainerName().errorValue.getErrorID());
    }

    // ------------------------------------------------------------------ data round trips

    private void roundTrip(int size) throws Exception {
        String name = unique("rt/" + size + "/");
        byte[] data = randomBytes(size, size);
        CWObjectHandleFnValue w = lib.WriteObject(name, data, size, new CPluginMetaData[0]);
        assertEquals(ERRORID.SUCCESS, w.errorValue.getErrorID());
        assertEquals(name, w.objHandle);

        byte[] back = new byte[size + 16];
        CReadObjectFnValue r = lib.ReadObject(name, back, size + 16, 0);
        assertEquals(ERRORID.SUCCESS, r.errorValue.getErrorID());
        assertEquals(size, r.sizeRead);
        assertArrayEquals(sha256(data, 0, size), sha256(back, 0, (int) r.sizeRead));

        CRObjectByNameFnValue h = lib.ReadObjectByHandle(w.objHandle, new byte[size], 0, size, null);
        assertEquals(ERRORID.SUCCESS, h.errorValue.getErrorID());
        assertEquals(size, h.bytesRead);
        assertEquals(1, lib.GetObjectSubList(name).metaDat.length);
    }

    @Test
    void emptyObjectRoundTrip() throws Exception {
        roundTrip(0);
    }

    @Test
    void oneByteRoundTrip() throws Exception {
        roundTrip(1);
    }

    @Test
    void largestSinglePutRoundTrip() throws Exception {
        roundTrip(QVAzurePlugInLibrary.SINGLE_PUT_LIMIT);
    }

    @Test
    void blockUploadRoundTrip() throws Exception {
        roundTrip(QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1);
    }

    @Test
    void blockUploadOfSeveralRoundsWithMetadata() throws Exception {
        // 5 full blocks and a partial one: more blocks than parallel uploads.
        int size = 5 * QVAzurePlugInLibrary.BLOCK_SIZE + 12345;
        String name = unique("big/");
        byte[] data = randomBytes(size, 99);
        CPluginMetaData[] meta = {new CPluginMetaData("Größe", "größer als 8 MiB")};
        assertEquals(ERRORID.SUCCESS, lib.WriteObject(name, data, size, meta).errorValue.getErrorID());
        byte[] back = new byte[size];
        CRObjectByNameFnValue r = lib.ReadObjectByName(name, back, 0, size, null);
        assertEquals(size, r.bytesRead);
        assertArrayEquals(sha256(data, 0, size), sha256(back, 0, size));
        assertEquals(1, r.values.length);
        assertEquals("Größe", r.values[0].szPropertyName);
        assertEquals("größer als 8 MiB", r.values[0].val.szProperty);
    }

    @Test
    void writeUsesOnlyTheGivenLength() throws Exception {
        String name = unique("len/");
        byte[] data = randomBytes(100, 3);
        assertEquals(ERRORID.SUCCESS, lib.WriteObject(name, data, 40).getErrorID());
        byte[] back = new byte[100];
        assertEquals(40, lib.ReadObject(name, back, 100, 0).sizeRead);
        assertArrayEquals(Arrays.copyOf(data, 40), Arrays.copyOf(back, 40));
        assertEquals(ERRORID.INVALID_ARGUMENT, lib.WriteObject(name, data, 101).getErrorID());
        assertEquals(ERRORID.INVALID_ARGUMENT, lib.WriteObject(name, data, -1).getErrorID());
    }

    // ------------------------------------------------------------------ ranged reads

    @Test
    void rangedReads() {
        String name = unique("range/");
        byte[] data = randomBytes(1000, 11);
        assertEquals(ERRORID.SUCCESS, lib.WriteObject(name, data, data.length).getErrorID());

        byte[] buf = new byte[50];
        CReadObjectFnValue r = lib.ReadObject(name, buf, 50, 100);
        assertEquals(ERRORID.SUCCESS, r.errorValue.getErrorID());
        assertEquals(50, r.sizeRead);
        assertArrayEquals(Arrays.copyOfRange(data, 100, 150), buf);

        // Near the end only what is there is read.
        Arrays.fill(buf, (byte) 0);
        r = lib.ReadObject(name, buf, 50, 990);
        assertEquals(10, r.sizeRead);
        assertArrayEquals(Arrays.copyOfRange(data, 990, 1000), Arrays.copyOf(buf, 10));

        // At the end nothing is read, and that is no error.
        r = lib.ReadObject(name, buf, 50, 1000);
        assertEquals(ERRORID.SUCCESS, r.errorValue.getErrorID());
        assertEquals(0, r.sizeRead);

        // Never more than the array holds, even when more is asked for.
        byte[] small = new byte[8];
        r = lib.ReadObject(name, small, 500, 0);
        assertEquals(8, r.sizeRead);
        assertArrayEquals(Arrays.copyOf(data, 8), small);

        // The metadata-reading form takes offset before length.
        byte[] b2 = new byte[20];
        CRObjectByNameFnValue n = lib.ReadObjectByName(name, b2, 300, 20, new String[] {"Content-Length"});
        assertEquals(20, n.bytesRead);
        assertArrayEquals(Arrays.copyOfRange(data, 300, 320), b2);
        assertEquals(1, n.values.length);
        assertEquals("Content-Length", n.values[0].szPropertyName);
        assertEquals("20", n.values[0].val.szProperty); // length of this ranged answer

        assertEquals(ERRORID.INVALID_RANGE, lib.ReadObject(name, buf, 50, -1).errorValue.getErrorID());
    }

    // ------------------------------------------------------------------ metadata

    private static Map<String, String> asMap(CPluginMetaData[] values) {
        Map<String, String> m = new HashMap<>();
        for (CPluginMetaData v : values) {
            assertNull(m.put(v.szPropertyName, v.val.szProperty), "duplicate " + v.szPropertyName);
        }
        return m;
    }

    @Test
    void metadataNamesAndValuesSurviveWhateverTheirCharacters() {
        Map<String, String> meta = new LinkedHashMap<>();
        meta.put("plain", "simple value");
        meta.put("Grüße", "Straße über Öl");
        meta.put("名前", "日本語の値");
        meta.put("UPPER_and_lower", "  leading and trailing blanks  ");
        meta.put("qv_0041", "looks like an encoded name");
        meta.put("with space-and.dot", "u16:looks like an encoded value");
        meta.put("empty", "");
        meta.put("emoji\uD83D\uDE00", "line1\nline2\ttab");
        meta.put("lone\uD800surrogate", "\uDC00lone low");
        meta.put("1starts_with_digit", "x");
        CPluginMetaData[] arr = meta.entrySet().stream()
            .map(e -> new CPluginMetaData(e.getKey(), e.getValue())).toArray(CPluginMetaData[]::new);

        String name = unique("meta/ö/");
        assertEquals(ERRORID.SUCCESS, lib.WriteObject(name, new byte[] {1, 2, 3}, 3, arr).errorValue.getErrorID());

        CGObjectMetaDataFnValue all = lib.GetObjectMetaData(name);
        assertEquals(ERRORID.SUCCESS, all.errorValue.getErrorID());
        assertEquals(meta, asMap(all.values));

        for (Map.Entry<String, String> e : meta.entrySet()) {
            CGetObjectMetaData one = lib.GetObjectMetaData(name, e.getKey());
            assertEquals(ERRORID.SUCCESS, one.errorValue.getErrorID(), e.getKey());
            assertEquals(e.getValue(), one.value, e.getKey());
        }
        assertEquals(ERRORID.NOT_FOUND, lib.GetObjectMetaData(name, "absent").errorValue.getErrorID());

        // Setting one property keeps the others and replaces a value of the same name.
        assertEquals(ERRORID.SUCCESS, lib.SetObjectMetaData(name, "Ünïcödé new", "välue").getErrorID());
        assertEquals(ERRORID.SUCCESS, lib.SetObjectMetaData(name, "plain", "changed").getErrorID());
        meta.put("Ünïcödé new", "välue");
        meta.put("plain", "changed");
        assertEquals(meta, asMap(lib.GetObjectMetaData(name).values));

        // A selected list gives only those properties that exist, under the asked names.
        CRObjectByNameFnValue sel = lib.ReadObjectByName(name, new byte[3], 0, 3,
                                                         new String[] {"名前", "absent", "Grüße"});
        assertEquals(3, sel.bytesRead);
        assertEquals(Map.of("名前", "日本語の値", "Grüße", "Straße über Öl"), asMap(sel.values));

        // The listing returns the same decoded metadata.
        CRetGetSubMetaDataList list = lib.GetObjectSubList(name);
        assertEquals(1, list.metaDat.length);
        assertEquals(name, list.metaDat[0].szFileName);
        assertEquals(meta, asMap(list.metaDat[0].metaDat));
    }

    @Test
    void metadataOfMissingObjects() {
        String name = unique("nometa/");
        assertEquals(ERRORID.NOT_FOUND, lib.GetObjectMetaData(name).errorValue.getErrorID());
        assertEquals(ERRORID.NOT_FOUND, lib.SetObjectMetaData(name, "a", "b").getErrorID());
        CPluginMetaData[] nameless = {new CPluginMetaData("", "v")};
        assertEquals(ERRORID.INVALID_METADATA, lib.WriteObject(name, new byte[1], 1, nameless).errorValue.getErrorID());
    }

    // ------------------------------------------------------------------ handles, existence, delete

    @Test
    void createOpenCloseAndDelete() {
        String name = unique("handle/");
        assertEquals(ERRORID.NOT_FOUND, lib.OpenObject(name).errorValue.getErrorID());
        assertFalse(lib.IsObjectExist(name).isExist);

        CCreateFnValue c = lib.CreateObject(name, new CPluginMetaData[] {new CPluginMetaData("kind", "test")});
        assertEquals(ERRORID.SUCCESS, c.errorValue.getErrorID());
        assertNotNull(c.objHandle);
        assertTrue(lib.IsObjectExist(name).isExist);
        assertEquals("test", lib.GetObjectMetaData(c.objHandle, "kind").value);
        assertEquals(ERRORID.ALREADY_EXISTS, lib.CreateObject(name).errorValue.getErrorID());

        CCreateFnValue o = lib.OpenObject(name, false);
        assertEquals(ERRORID.SUCCESS, o.errorValue.getErrorID());
        byte[] data = {9, 8, 7, 6};
        assertEquals(ERRORID.SUCCESS, lib.UpdateObject(o.objHandle, "ignored", data, 4, null).errorValue.getErrorID());
        byte[] back = new byte[4];
        assertEquals(4, lib.ReadObjectByHandle(o.objHandle, back, 0, 4, null).bytesRead);
        assertArrayEquals(data, back);
        assertEquals(ERRORID.SUCCESS, lib.CloseObject(o.objHandle).getErrorID());
        assertEquals(ERRORID.INVALID_HANDLE, lib.CloseObject("").getErrorID());

        assertEquals(ERRORID.SUCCESS, lib.DeleteObjectByHandle(o.objHandle).getErrorID());
        assertFalse(lib.IsObjectExist(name).isExist);
        assertEquals(ERRORID.NOT_FOUND, lib.DeleteObjectByName(name).getErrorID());
        assertEquals(ERRORID.NOT_FOUND, lib.ReadObject(name, back, 4, 0).errorValue.getErrorID());

        // Opening with the create flag makes an empty object.
        CCreateFnValue made = lib.OpenObject(name, true);
        assertEquals(ERRORID.SUCCESS, made.errorValue.getErrorID());
        assertTrue(lib.IsObjectExist(name).isExist);
        assertEquals(0, lib.ReadObject(name, back, 4, 0).sizeRead);
        assertEquals(ERRORID.SUCCESS, lib.DeleteObjectByName(name).getErrorID());

        assertEquals(ERRORID.INVALID_HANDLE, lib.ReadObject(null, back, 4, 0).errorValue.getErrorID());
        assertEquals(ERRORID.INVALID_OBJECT_NAME, lib.WriteObject("ends-with/", back, 4).getErrorID());
    }

    @Test
    void deleteSeveralByHandle() {
        String[] names = new String[5];
        for (int i = 0; i < names.length; ++i) {
            names[i] = unique("multi/");
            assertEquals(ERRORID.SUCCESS, lib.WriteObject(names[i], new byte[] {(byte) i}, 1).getErrorID());
        }
        String[] withNull = Arrays.copyOf(names, names.length + 1);
        assertEquals(ERRORID.SUCCESS, lib.DeleteObjectByHandle(withNull).getErrorID());
        for (String n : names) {
            assertFalse(lib.IsObjectExist(n).isExist);
        }
        // Deleting them again reports the first failure but tries them all.
        assertEquals(ERRORID.NOT_FOUND, lib.DeleteObjectByHandle(names).getErrorID());
        assertEquals(ERRORID.INVALID_ARGUMENT, lib.DeleteObjectByHandle((String[]) null).getErrorID());
    }

    // ------------------------------------------------------------------ listing

    @Test
    void subListFollowsContinuationMarkersAcrossPages() throws Exception {
        QVAzurePlugInLibrary l = newLibrary();
        String own = "p" + UUID.randomUUID().toString().replace("-", "").substring(0, 20);
        assertEquals(ERRORID.SUCCESS, l.AzureInit(azurite.connectionString(own), "/tmp").getErrorID());
        l.setListPageSize(7);
        try {
            int count = 303;
            long total = 0;
            for (int i = 0; i < count; ++i) {
                byte[] d = new byte[i % 13];
                total += d.length;
                CPluginMetaData[] m = {new CPluginMetaData("index", Integer.toString(i)),
                                       new CPluginMetaData("Schlüssel", "wert-" + i)};
                assertEquals(ERRORID.SUCCESS,
                             l.WriteObject(String.format("dir/obj-%04d", i), d, d.length, m).errorValue.getErrorID());
            }
            for (int i = 0; i < 4; ++i) {
                assertEquals(ERRORID.SUCCESS, l.WriteObject("other/" + i, new byte[100], 100).getErrorID());
                total += 100;
            }

            CRetGetSubMetaDataList list = l.GetObjectSubList("dir/");
            assertEquals(ERRORID.SUCCESS, list.errorValue.getErrorID());
            assertEquals(count, list.metaDat.length);
            Set<String> seen = new HashSet<>();
            for (CObjectSubListElement e : list.metaDat) {
                assertTrue(seen.add(e.szFileName));
                int i = Integer.parseInt(e.szFileName.substring("dir/obj-".length()));
                assertEquals(Map.of("index", Integer.toString(i), "Schlüssel", "wert-" + i), asMap(e.metaDat));
            }
            assertEquals(count + 4, l.GetObjectSubList(null).metaDat.length);
            assertEquals(0, l.GetObjectSubList("nothing-here/").metaDat.length);
            assertEquals(total, l.GetAllObjectsSize().size);
            CGetAccountInfoFnValue info = l.GetAccountInfo();
            assertEquals(ERRORID.SUCCESS, info.errorValue.getErrorID());
            assertEquals(total, info.usedSizeInByteTotal);
            assertEquals(AzuriteServer.ACCOUNT, info.accountIndentity);
        } finally {
            assertEquals(ERRORID.SUCCESS, l.DeleteContainer().getErrorID());
            assertFalse(lib.IsContainerExists(own).isExist);
            l.AzureDeInit();
        }
    }

    // ------------------------------------------------------------------ containers and the rest

    @Test
    void containers() {
        QVListContainers all = lib.GetListContainers();
        assertEquals(ERRORID.SUCCESS, all.errorValue.getErrorID());
        assertTrue(Arrays.stream(all.containers).anyMatch(c -> c.containerName.equals(container)));
        assertFalse(lib.IsContainerExists("no-such-container-here").isExist);
        assertEquals(ERRORID.INVALID_CONTAINER_NAME, lib.IsContainerExists("NoSuch").errorValue.getErrorID());
        assertTrue(lib.IsValidContainer("good-name-1").isExist);
        assertFalse(lib.IsValidContainer("bad--name").isExist);
        assertFalse(lib.IsValidContainer("ab").isExist);
    }

    @Test
    void unsupportedOperationsSaySo() {
        assertEquals(ERRORID.NOT_SUPPORTED, lib.GetRegions().errorValue.getErrorID());
        assertEquals(ERRORID.NOT_SUPPORTED, lib.GetArchiveSet().errorValue.getErrorID());
        assertEquals(ERRORID.NOT_SUPPORTED, lib.GetBucketRegion(container).errorValue.getErrorID());
        assertEquals(ERRORID.NOT_SUPPORTED, lib.getStorageKey("a", "b").errorValue.getErrorID());
        assertEquals(ERRORID.NOT_SUPPORTED, lib.updateStorageKey().errorValue.getErrorID());
        assertEquals(ERRORID.NOT_SUPPORTED, lib.getServerNameList().errorValue.getErrorID());
        assertEquals(ERRORID.NOT_SUPPORTED, lib.GetOwnerName().errorValue.getErrorID());
        assertEquals(ERRORID.NOT_SUPPORTED, lib.IsSameAccount("a", "a").errorValue.getErrorID());
        assertEquals(ERRORID.NOT_SUPPORTED, lib.addJobInfo(1, 2, 3, 4, 5, 6).getErrorID());
    }

    @Test
    void sizesAndCapabilities() {
        assertEquals(12, lib.GetObjectActualSize(10, 4));
        assertEquals(8, lib.GetObjectActualSize(8, 4));
        assertEquals(10, lib.GetObjectActualSize(10, 0));
        CGDefaultObjSizeRangeValue r = lib.GetDefaultObjectSizeRange();
        assertTrue(r.minValue <= r.defaultValue && r.defaultValue <= r.maxValue);
        Map<String, String> caps = lib.GetCloudPluginCapabilities().pluginCapabilities;
        assertEquals(Integer.toString(QVAzurePlugInLibrary.SINGLE_PUT_LIMIT), caps.get("BlockUploadThreshold"));
        assertTrue(lib.IsObjectPathSupported("a/b/c.bin", 0).isExist);
        assertFalse(lib.IsObjectPathSupported("a/b/", 0).isExist);
        assertFalse(lib.IsObjectPathSupported("", 0).isExist);
    }
}
