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

import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.logging.Handler;
import java.util.logging.Level;
import java.util.logging.LogRecord;
import java.util.logging.Logger;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * The library over HTTPS, against an Azurite that serves a certificate made
 * for this run and valid for "localhost" only. The JVM trusts it through the
 * standard trust store properties the ctest passes (-Djavax.net.ssl.trustStore),
 * nothing in the library or here bypasses the JDK's checks.
 */
class TlsTest {
    private static AzuriteServer azurite;
    private static String container;
    private static QVAzurePlugInLibrary lib;

    @BeforeAll
    static void connect() throws Exception {
        azurite = AzuriteServer.tls();
        container = TestSupport.uniqueContainer("tls");
        lib = TestSupport.connected(azurite.connectionString(container));
    }

    @AfterAll
    static void disconnect() {
        TestSupport.dropContainer(lib);
    }

    @Test
    void theEndpointIsReallyHttps() {
        assertTrue(azurite.endpoint().startsWith("https://localhost:"), azurite.endpoint());
        // A plain-HTTP client gets nowhere at the same port: the service speaks TLS only.
        QVAzurePlugInLibrary plain = TestSupport.newLibrary();
        ERRORID id = TestSupport.idOf(plain.AzureInit(AzuriteServer.connectionStringAt(
            AzuriteServer.endpoint("http", "localhost", azurite.port), container, "RetryMaxAttempts=1"), "."));
        assertTrue(id != ERRORID.SUCCESS, "plain HTTP to the TLS port: " + id);
    }

    @Test
    void smallAndBlockUploadedObjectsRoundTripOverTls() {
        int[] sizes = {0, 1000, QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1 + 2 * QVAzurePlugInLibrary.BLOCK_SIZE + 12345};
        for (int size : sizes) {
            String name = unique("tls/");
            byte[] data = randomBytes(size, size + 1);
            long t0 = System.nanoTime();
            assertOk(lib.WriteObject(name, data, size, TestSupport.metaArray(Map.of("Größe", "" + size))),
                     "WriteObject of " + size + " B over TLS");
            long t1 = System.nanoTime();
            assertArrayEquals(sha256(data, 0, size), readBackSha256(lib, name, size, 4 << 20), size + " B back");
            long t2 = System.nanoTime();
            assertEquals("" + size, lib.GetObjectMetaData(name, "Größe").value);
            if (size > QVAzurePlugInLibrary.SINGLE_PUT_LIMIT) {
                System.out.printf("TLS round trip of %.1f MiB: write %.0f MiB/s, read (4 MiB calls) %.0f MiB/s%n",
                                  size / 1048576.0, size / 1048576.0 / ((t1 - t0) / 1e9),
                                  size / 1048576.0 / ((t2 - t1) / 1e9));
            }
        }
        assertEquals(sizes.length, lib.GetObjectSubList("tls/").metaDat.length);
        assertOk(lib.CheckConnectivity(), "CheckConnectivity over TLS");
    }

    @Test
    void aContainerSasWorksOverTls() {
        String token = TestSas.container(container, "racwdl", null, TestSas.inAnHour(), AzuriteServer.KEY);
        QVAzurePlugInLibrary l = TestSupport.connected(
            AzuriteServer.sasConnectionString(azurite.endpoint(), container, token, ""));
        try {
            String name = unique("tls-sas/");
            byte[] data = randomBytes(5000, 9);
            assertOk(l.WriteObject(name, data, data.length), "WriteObject with a SAS over TLS");
            assertArrayEquals(sha256(data, 0, data.length), readBackSha256(lib, name, data.length, 1024));
        } finally {
            l.AzureDeInit();
        }
    }

    /** Connections reset under the TLS session (no TLS close) are retried like any broken connection. */
    @Test
    void aConnectionResetUnderTlsIsRetried() throws Exception {
        try (FaultProxy proxy = new FaultProxy(azurite.port, TestTls.serverContext())) {
            QVAzurePlugInLibrary l = TestSupport.connected(AzuriteServer.connectionStringAt(
                AzuriteServer.endpoint("https", TestTls.HOST, proxy.port()), container,
                "RetryBaseDelayMillis=20;RetryMaxDelayMillis=200;RetryMaxAttempts=5"));
            try {
                proxy.reset();
                String name = unique("tls-reset/");
                byte[] data = randomBytes(3000, 3);
                FaultProxy.Rule puts = proxy.add(r -> r.method.equals("PUT"), 2, FaultProxy.Fault.reset());
                assertOk(l.WriteObject(name, data, data.length), "WriteObject after two resets");
                assertEquals(2, puts.applied());
                assertEquals(3, proxy.countSeen(r -> r.method.equals("PUT")), "two reset sends and one through");

                FaultProxy.Rule gets = proxy.add(r -> r.method.equals("GET"), 2, FaultProxy.Fault.reset());
                byte[] back = new byte[3000];
                CReadObjectFnValue r = l.ReadObject(name, back, back.length, 0);
                assertOk(r, "ReadObject after two resets");
                assertEquals(3000, r.sizeRead);
                assertArrayEquals(data, back);
                assertEquals(2, gets.applied());

                // Reset in the middle of the TLS handshake: the JDK reports an SSL failure, which is
                // still a broken connection, not a certificate problem.
                proxy.reset();
                proxy.resetNextConnections(2);
                int before = proxy.connections();
                String other = unique("tls-reset/");
                assertOk(l.WriteObject(other, data, data.length), "WriteObject after two resets in the handshake");
                assertEquals(3, proxy.connections() - before, "two connections reset and one through");
                assertArrayEquals(sha256(data, 0, data.length), readBackSha256(lib, other, data.length, 1024));
            } finally {
                l.AzureDeInit();
            }
        }
    }

    /**
     * The certificate is for "localhost"; reached as 127.0.0.1 it does not
     * match. That fails at once, with TLS_HANDSHAKE_FAILED, after one
     * connection (not retried), and the log names the host, not the key.
     */
    @Test
    void aCertificateThatDoesNotMatchTheHostFailsAtOnce() throws Exception {
        List<String> logged = new ArrayList<>();
        Handler h = new Handler() {
            @Override
            public void publish(LogRecord r) {
                synchronized (logged) {
                    logged.add(r.getLevel() + " " + r.getMessage());
                }
            }

            @Override
            public void flush() {
            }

            @Override
            public void close() {
            }
        };
        Logger log = Logger.getLogger("com.qv.azure");
        log.addHandler(h);
        try (FaultProxy proxy = new FaultProxy(azurite.port, TestTls.serverContext())) {
            String endpoint = AzuriteServer.endpoint("https", "127.0.0.1", proxy.port());
            QVAzurePlugInLibrary l = TestSupport.newLibrary();
            long t0 = System.nanoTime();
            ERRORID id = TestSupport.idOf(l.AzureInit(AzuriteServer.connectionStringAt(
                endpoint, container, "RetryMaxAttempts=5;RetryBaseDelayMillis=1000;RetryMaxDelayMillis=2000"), "."));
            double seconds = (System.nanoTime() - t0) / 1e9;
            assertEquals(ERRORID.TLS_HANDSHAKE_FAILED, id, "AzureInit against a certificate for another name");
            assertEquals(1, proxy.connections(), "one connection: not retried");
            assertEquals(0, proxy.seen().size(), "no request got through");
            assertTrue(seconds < 1.0, "at once (a retry would have waited at least 0.5 s): " + seconds + " s");
        } finally {
            log.removeHandler(h);
        }
        String text;
        synchronized (logged) {
            text = String.join("\n", logged);
        }
        assertTrue(text.contains("TLS with 127.0.0.1:"), "the failure names the host: " + text);
        assertTrue(text.contains(Level.WARNING.getName()), text);
        for (int i = 0; i + 12 <= AzuriteServer.KEY.length(); ++i) {
            assertFalse(text.contains(AzuriteServer.KEY.substring(i, i + 12)), "a piece of the key in the log");
        }
    }
}
