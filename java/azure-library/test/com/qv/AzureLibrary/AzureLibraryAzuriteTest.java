package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.asMap;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.metaArray;
import static com.qv.AzureLibrary.TestSupport.newLibrary;
import static com.qv.AzureLibrary.TestSupport.randomBytes;
import static com.qv.AzureLibrary.TestSupport.sha256;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.CErrorValue;
import com.qv.QVCloudPluginInterface.ERRORID;

import java.net.InetAddress;
import java.net.ServerSocket;
import java.util.Arrays;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Set;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** The library against a real Blob service (Azurite). */
class AzureLibraryAzuriteTest {
    private static AzuriteServer azurite;
    private static QVAzurePlugInLibrary lib;
    private static String container;

    private static final String INSTALL = TestSupport.INSTALL_FOLDER.toString();

    @BeforeAll
    static void connect() throws Exception {
        azurite = AzuriteServer.get();
        container = TestSupport.uniqueContainer("t");
        lib = TestSupport.connected(azurite.connectionString(container));
    }

    @AfterAll
    static void disconnect() {
        TestSupport.dropContainer(lib);
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
                     lib.AzureInit(azurite.connectionString(container), INSTALL).getErrorID());
    }

    @Test
    void initOnAnExistingContainerSucceeds() {
        QVAzurePlugInLibrary second = newLibrary();
        assertEquals(ERRORID.SUCCESS, second.AzureInit(azurite.connectionString(container), INSTALL).getErrorID());
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
        // to AUTHORIZATION_FAILED (see the error table in docs/java-library.md).
        String wrongKey = java.util.Base64.getEncoder().encodeToString(randomBytes(64, 7));
        cases.put(good.replace(AzuriteServer.KEY, wrongKey), ERRORID.AUTHORIZATION_FAILED);
        int closedPort;
        try (ServerSocket s = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            closedPort = s.getLocalPort();
        }
        cases.put(good.replace(":" + azurite.port + "/", ":" + closedPort + "/"), ERRORID.CONNECTION_FAILED);
        // A name that cannot resolve (RFC 2606 reserves .invalid), over http allowed explicitly.
        cases.put(good.replace("127.0.0.1:" + azurite.port, "no-such-host.invalid:" + azurite.port)
                      + ";AllowInsecureHttp=true", ERRORID.DNS_RESOLUTION_FAILED);
        // The same without: refused before anything is sent.
        cases.put(good.replace("127.0.0.1:" + azurite.port, "no-such-host.invalid:" + azurite.port),
                  ERRORID.INVALID_ARGUMENT);

        for (Map.Entry<String, ERRORID> c : cases.entrySet()) {
            QVAzurePlugInLibrary l = newLibrary();
            CErrorValue r = l.AzureInit(c.getKey(), INSTALL);
            assertNotNull(r);
            assertEquals(c.getValue(), r.getErrorID(), c.getKey());
            // Still not initialised afterwards.
            assertEquals(ERRORID.NOT_INITIALIZED, l.IsObjectExist("x").errorValue.getErrorID());
        }
        QVAzurePlugInLibrary l = newLibrary();
        assertEquals(ERRORID.INVALID_ARGUMENT, l.AzureInit(null, null).getErrorID());
    }

    // ------------------------------------------------------------------ writes

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

    /**
     * Names and values the x-ms-meta-* headers cannot carry as they are:
     * non-ASCII text, blanks at either end and inside, control characters
     * (all but NUL), surrogates, names that look like the encoded forms.
     */
    private static Map<String, String> awkwardMetadata() {
        return TestSupport.ordered(
            "plain", "simple value",
            "Grüße", "Straße über Öl",
            "名前", "日本語の値",
            "UPPER_and_lower", "  leading and trailing blanks  ",
            " leading blank", "value",
            "trailing blank ", " leading",
            "inner  two blanks", "trailing ",
            "\t tab and blank \t", "\t",
            " ", "   ",
            "ctl\u0001\u001f\u007f", "bell\u0007 escape\u001b del\u007f c1\u0085",
            "all controls", controls(),
            "qv_0041", "looks like an encoded name",
            "with space-and.dot", "u16:looks like an encoded value",
            "empty", "",
            "emoji\uD83D\uDE00", "line1\r\nline2\ttab",
            "lone\uD800surrogate", "\uDC00lone low",
            "1starts_with_digit", "x");
    }

    /** Every control character but NUL: U+0001..U+001F, U+007F and U+0080..U+009F. */
    private static String controls() {
        StringBuilder sb = new StringBuilder();
        for (char c = 1; c < 0xa0; ++c) {
            if (Character.isISOControl(c)) {
                sb.append(c);
            }
        }
        return sb.toString();
    }

    /** The object's metadata read every way the library offers equals {@code want}. */
    private static void assertMetadataEverywhere(String name, Map<String, String> want) {
        CGObjectMetaDataFnValue all = lib.GetObjectMetaData(name);
        assertOk(all, "GetObjectMetaData(name)");
        assertEquals(want, asMap(all.values), "GetObjectMetaData(name)");
        for (Map.Entry<String, String> e : want.entrySet()) {
            CGetObjectMetaData one = lib.GetObjectMetaData(name, e.getKey());
            assertOk(one, "GetObjectMetaData(name, \"" + e.getKey() + "\")");
            assertEquals(e.getValue(), one.value, e.getKey());
        }
        CRObjectByNameFnValue byName = lib.ReadObjectByName(name, new byte[3], 0, 3, null);
        assertOk(byName, "ReadObjectByName");
        assertEquals(want, asMap(byName.values), "ReadObjectByName");
        CRObjectByNameFnValue byHandle = lib.ReadObjectByHandle(name, new byte[3], 0, 3,
                                                                want.keySet().toArray(new String[0]));
        assertOk(byHandle, "ReadObjectByHandle");
        assertEquals(want, asMap(byHandle.values), "ReadObjectByHandle with every name asked");
        CRetGetSubMetaDataList list = lib.GetObjectSubList(name);
        assertOk(list, "GetObjectSubList");
        assertEquals(1, list.metaDat.length);
        assertEquals(name, list.metaDat[0].szFileName);
        assertEquals(TestSupport.listedInTier(want, "Hot"), asMap(list.metaDat[0].metaDat),
                     "GetObjectSubList: the metadata and the tier");
    }

    @Test
    void metadataNamesAndValuesSurviveWhateverTheirCharacters() {
        Map<String, String> meta = awkwardMetadata();
        String name = unique("meta/ö ü/");
        assertOk(lib.WriteObject(name, new byte[] {1, 2, 3}, 3, metaArray(meta)), "WriteObject");
        assertMetadataEverywhere(name, meta);
        assertEquals(ERRORID.NOT_FOUND, lib.GetObjectMetaData(name, "absent").errorValue.getErrorID());

        // Setting one property keeps the others and replaces a value of the same name.
        assertOk(lib.SetObjectMetaData(name, " Ünïcödé\u0002new ", "\u0003välue "), "SetObjectMetaData");
        assertOk(lib.SetObjectMetaData(name, "plain", "changed"), "SetObjectMetaData");
        meta.put(" Ünïcödé\u0002new ", "\u0003välue ");
        meta.put("plain", "changed");
        assertMetadataEverywhere(name, meta);

        // A selected list gives only those properties that exist, under the asked names.
        CRObjectByNameFnValue sel = lib.ReadObjectByName(name, new byte[3], 0, 3,
                                                         new String[] {"名前", "absent", " leading blank"});
        assertEquals(3, sel.bytesRead);
        assertEquals(Map.of("名前", "日本語の値", " leading blank", "value"), asMap(sel.values));
    }

    @Test
    void metadataOfABlockUploadSurvivesToo() {
        Map<String, String> meta = awkwardMetadata();
        String name = unique("meta/blocks/");
        int size = QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1;
        assertOk(lib.WriteObject(name, new byte[size], size, metaArray(meta)), "WriteObject as blocks");
        assertMetadataEverywhere(name, meta);
        assertOk(lib.DeleteObjectByName(name), "DeleteObjectByName");
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
        String own = TestSupport.uniqueContainer("p");
        QVAzurePlugInLibrary l = TestSupport.connected(azurite.connectionString(own));
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
                assertEquals(TestSupport.listedInTier(Map.of("index", Integer.toString(i), "Schlüssel", "wert-" + i),
                                                      "Hot"), asMap(e.metaDat));
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
