package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.assertError;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.randomBytes;
import static com.qv.AzureLibrary.TestSupport.readBackSha256;
import static com.qv.AzureLibrary.TestSupport.sha256;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.time.Duration;
import java.time.Instant;
import java.util.Base64;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.function.Predicate;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * Connection strings with a shared access signature instead of the account
 * key, as the Azure portal and tools produce them
 * ({@code BlobEndpoint=...;SharedAccessSignature=...} plus Container), with
 * tokens signed here with the run's account key. A proxy in front of
 * Azurite counts what the library sends.
 */
class SasCredentialTest extends ProxiedAzuriteTest {
    private static final String KEY = AzuriteServer.KEY;
    private static final String OTHER_KEY = Base64.getEncoder().encodeToString(randomBytes(64, 7));

    private static String viaProxy(String container, String token) {
        return AzuriteServer.sasConnectionString(AzuriteServer.endpoint("http", "127.0.0.1", proxy.port()),
                                                 container, token, "RetryBaseDelayMillis=10");
    }

    private static Predicate<FaultProxy.Request> createContainer() {
        return r -> r.method.equals("PUT") && "container".equals(r.param("restype"));
    }

    /** Writes a small and a block-uploaded object with metadata, and reads both back through the library. */
    private static void roundTrip(QVAzurePlugInLibrary l, String prefix) {
        for (int size : new int[] {1000, QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1 + QVAzurePlugInLibrary.BLOCK_SIZE}) {
            String name = unique(prefix);
            byte[] data = randomBytes(size, size);
            assertOk(l.WriteObject(name, data, size, TestSupport.metaArray(Map.of("size", "" + size))),
                     "WriteObject of " + size + " B");
            assertArrayEquals(sha256(data, 0, size), readBackSha256(l, name, size, 3 << 20), "read back " + size);
            assertEquals("" + size, l.GetObjectMetaData(name, "size").value);
            assertTrue(l.IsObjectExist(name).isExist);
        }
        assertEquals(2, l.GetObjectSubList(prefix).metaDat.length);
    }

    // ------------------------------------------------------------------ working tokens

    @Test
    void aContainerSasWorksWithoutTheKeyAndNeverCreatesTheContainer() {
        String token = TestSas.container(container, "racwdl", null, TestSas.inAnHour(), KEY);
        lib = TestSupport.connected(viaProxy(container, token));
        assertEquals(0, proxy.countSeen(createContainer()), "no Create Container with a container SAS");
        assertTrue(proxy.seen().stream().allMatch(r -> r.query.contains("sig=") && r.header("Authorization") == null),
                   "every request carries the token and no Shared Key signature");

        roundTrip(lib, "csas/");
        assertOk(lib.CheckConnectivity(), "CheckConnectivity");
        assertTrue(lib.IsContainerExists(container).isExist, "IsContainerExists of its own container");
        assertEquals(AzuriteServer.ACCOUNT, lib.GetUniqueAccountName().accountName, "account from the endpoint");
        assertEquals(container, lib.GetContainerName().accountName);
        CGetAccountInfoFnValue info = lib.GetAccountInfo();
        assertOk(info, "GetAccountInfo with a container SAS");
        assertTrue(info.usedSizeInByteTotal > 0, "used bytes: " + info.usedSizeInByteTotal);
        assertEquals(AzuriteServer.ACCOUNT, info.accountIndentity);
        String name = unique("csas/");
        assertOk(lib.WriteObject(name, new byte[3], 3), "WriteObject");
        assertOk(lib.DeleteObjectByName(name), "DeleteObjectByName");
        assertFalse(direct.IsObjectExist(name).isExist);
        // Account-level requests are beyond a container SAS; the service's refusal comes back as such.
        assertError(ERRORID.AUTHORIZATION_FAILED, lib.GetListContainers(), "GetListContainers");
        assertEquals(0, proxy.countSeen(createContainer()));
    }

    @Test
    void anAccountSasCreatesAMissingContainer() {
        String fresh = TestSupport.uniqueContainer("asas");
        String token = TestSas.account("sco", "racwdl", null, TestSas.inAnHour(), KEY);
        lib = TestSupport.connected(viaProxy(fresh, "?" + token)); // with the '?' some tools put in front
        assertEquals(1, proxy.countSeen(createContainer()), "the container was created");
        assertTrue(direct.IsContainerExists(fresh).isExist);
        roundTrip(lib, "asas/");
        assertOk(lib.CheckConnectivity(), "CheckConnectivity");
        assertOk(lib.DeleteContainer(), "DeleteContainer with an account SAS");
        assertFalse(direct.IsContainerExists(fresh).isExist);
    }

    @Test
    void aTokenThatMayNotListStillConnectsAndWrites() {
        String token = TestSas.container(container, "cw", null, TestSas.inAnHour(), KEY);
        lib = TestSupport.connected(viaProxy(container, token));
        String name = unique("wonly/");
        byte[] data = randomBytes(500, 1);
        assertOk(lib.WriteObject(name, data, 500), "WriteObject with a write-only token");
        assertArrayEquals(sha256(data, 0, 500), readBackSha256(direct, name, 500, 4096));
        assertError(ERRORID.AUTHORIZATION_FAILED, lib.ReadObject(name, new byte[10], 10, 0),
                    "ReadObject with a write-only token");
    }

    // ------------------------------------------------------------------ tokens that cannot do the job

    @Test
    void aContainerSasOfAMissingContainerFailsAtInit() {
        String missing = TestSupport.uniqueContainer("gone");
        String token = TestSas.container(missing, "racwdl", null, TestSas.inAnHour(), KEY);
        QVAzurePlugInLibrary l = TestSupport.newLibrary();
        assertError(ERRORID.CONTAINER_NOT_FOUND, l.AzureInit(viaProxy(missing, token), "."), "AzureInit");
        assertEquals(0, proxy.countSeen(createContainer()), "no Create Container with a container SAS");
        assertFalse(direct.IsContainerExists(missing).isExist);
        assertError(ERRORID.NOT_INITIALIZED, l.WriteObject("x", new byte[1], 1), "no library after a failed init");
    }

    /** Tokens the service refuses fail AzureInit itself, with one request and no retry. */
    @Test
    void tokensThatCannotReachTheContainerFailAtInit() {
        Instant hour = TestSas.inAnHour();
        Instant past = Instant.now().minus(Duration.ofHours(2));
        Map<String, String> tokens = new LinkedHashMap<>();
        tokens.put("expired container SAS", TestSas.container(container, "racwdl", past.minusSeconds(60), past, KEY));
        tokens.put("expired account SAS", TestSas.account("sco", "racwdl", null, past, KEY));
        tokens.put("container SAS not valid yet",
                   TestSas.container(container, "racwdl", Instant.now().plus(Duration.ofMinutes(30)), hour, KEY));
        tokens.put("container SAS of another container",
                   TestSas.container(TestSupport.uniqueContainer("other"), "racwdl", null, hour, KEY));
        tokens.put("container SAS signed with another key",
                   TestSas.container(container, "racwdl", null, hour, OTHER_KEY));
        tokens.put("account SAS signed with another key", TestSas.account("sco", "racwdl", null, hour, OTHER_KEY));
        Map<String, ERRORID> expected = Map.of(
            "expired container SAS", ERRORID.AUTHENTICATION_FAILED,
            "expired account SAS", ERRORID.AUTHENTICATION_FAILED,
            "container SAS not valid yet", ERRORID.AUTHENTICATION_FAILED);
        for (Map.Entry<String, String> t : tokens.entrySet()) {
            proxy.reset();
            ERRORID want = expected.getOrDefault(t.getKey(), ERRORID.AUTHORIZATION_FAILED);
            QVAzurePlugInLibrary l = TestSupport.newLibrary();
            assertError(want, l.AzureInit(viaProxy(container, t.getValue()), "."), "AzureInit, " + t.getKey());
            assertEquals(1, proxy.seen().size(), t.getKey() + ": one request, not retried");
            assertError(ERRORID.NOT_INITIALIZED, l.CheckConnectivity(), t.getKey() + ": not connected");
        }
    }

    @Test
    void anAccountSasWithoutCreateRightsCannotMakeAMissingContainer() {
        String fresh = TestSupport.uniqueContainer("nocreate");
        String token = TestSas.account("sco", "rl", null, TestSas.inAnHour(), KEY);
        assertError(ERRORID.AUTHORIZATION_FAILED, TestSupport.newLibrary().AzureInit(viaProxy(fresh, token), "."),
                    "AzureInit with a read-only account SAS and no container");
        assertFalse(direct.IsContainerExists(fresh).isExist);
    }

    @Test
    void anUnderPrivilegedTokenConnectsButItsWritesAreRefused() {
        String name = unique("ro/");
        byte[] data = randomBytes(100, 3);
        assertOk(direct.WriteObject(name, data, 100), "WriteObject with the key");
        String token = TestSas.container(container, "rl", null, TestSas.inAnHour(), KEY);
        lib = TestSupport.connected(viaProxy(container, token));
        assertError(ERRORID.AUTHORIZATION_FAILED, lib.WriteObject(unique("ro/"), data, 100), "WriteObject");
        assertError(ERRORID.AUTHORIZATION_FAILED,
                    lib.WriteObject(unique("ro/big"), new byte[QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1],
                                    QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1), "WriteObject in blocks");
        assertError(ERRORID.AUTHORIZATION_FAILED, lib.DeleteObjectByName(name), "DeleteObjectByName");
        assertArrayEquals(sha256(data, 0, 100), readBackSha256(lib, name, 100, 64), "reading is allowed");
    }

    @Test
    void malformedTokensAndCredentialMixesAreRefusedBeforeAnyRequest() {
        String good = TestSas.container(container, "racwdl", null, TestSas.inAnHour(), KEY);
        Map<String, ERRORID> cases = new LinkedHashMap<>();
        cases.put(viaProxy(container, good.replace("sr=c", "sr=b")), ERRORID.INVALID_CREDENTIALS);
        cases.put(viaProxy(container, good.replaceAll("&sig=[^&]*", "")), ERRORID.INVALID_CREDENTIALS);
        cases.put(viaProxy(container, good.replace("sv=", "sv=2021 ")), ERRORID.INVALID_CREDENTIALS);
        cases.put(viaProxy(container, good + "%G1"), ERRORID.INVALID_CREDENTIALS);
        cases.put(viaProxy(container, good.replace("&sr=c", "")), ERRORID.INVALID_CREDENTIALS);
        String notBlob = TestSas.account("sco", "rl", null, TestSas.inAnHour(), KEY).replace("ss=b", "ss=q");
        cases.put(viaProxy(container, notBlob), ERRORID.INVALID_CREDENTIALS);
        cases.put(viaProxy(container, good) + ";AccountKey=" + KEY, ERRORID.INVALID_ARGUMENT);
        cases.put("SharedAccessSignature=" + good + ";Container=" + container, ERRORID.INVALID_ARGUMENT);
        cases.put(viaProxy(container, good).replace("Container=" + container, "Container=Bad_Name"),
                  ERRORID.INVALID_CONTAINER_NAME);
        for (Map.Entry<String, ERRORID> c : cases.entrySet()) {
            assertError(c.getValue(), TestSupport.newLibrary().AzureInit(c.getKey(), "."), c.getKey());
        }
        assertEquals(0, proxy.seen().size(), "refused without a request");
    }
}
