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
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.ERRORID;
import com.qv.azure.rest.BlobRestClient;

import java.io.IOException;
import java.time.Duration;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.function.Predicate;
import java.util.stream.Collectors;
import java.util.stream.Stream;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Uploads of bodies above 1 MiB ask the service first ("Expect:
 * 100-continue"), so that a service refusing the request by its head (an
 * expired token, a lease, a body too large) is heard before the body, and
 * the refusal is reported with its own error id at once, instead of the
 * broken connection the service leaves when it resets under a body it will
 * not read. The fault proxy answers early in front of Azurite, over plain
 * HTTP and over TLS; what gets through is written to, and checked against,
 * the real Azurite.
 */
class EarlyRefusalTest {
    /** A retry would pause at least 1 s: long enough to tell, and not taken when the tests pass. */
    private static final String SLOW_RETRIES = "RetryMaxAttempts=5;RetryBaseDelayMillis=2000;RetryMaxDelayMillis=4000";
    private static final int ABOVE = BlobRestClient.EXPECT_CONTINUE_ABOVE;

    /** Azurite and a fault proxy in front of it, over one transport. */
    static final class Transport {
        final String scheme;
        final AzuriteServer azurite;
        final FaultProxy proxy;
        final String container;
        /** Straight to Azurite: sets up and checks what went through the proxy. */
        final QVAzurePlugInLibrary direct;

        Transport(String scheme) throws Exception {
            this.scheme = scheme;
            boolean tls = scheme.equals("https");
            azurite = tls ? AzuriteServer.tls() : AzuriteServer.get();
            proxy = tls ? new FaultProxy(azurite.port, TestTls.serverContext()) : new FaultProxy(azurite.port);
            container = TestSupport.uniqueContainer("early");
            direct = TestSupport.connected(azurite.connectionString(container));
        }

        /** The proxy's endpoint, at the name the test certificate is for over TLS. */
        String proxyEndpoint() {
            return AzuriteServer.endpoint(scheme, scheme.equals("https") ? TestTls.HOST : "127.0.0.1", proxy.port());
        }

        void close() throws IOException {
            TestSupport.dropContainer(direct);
            proxy.close();
        }
    }

    private static Transport http;
    private static Transport https;
    private QVAzurePlugInLibrary lib;

    @BeforeAll
    static void start() throws Exception {
        http = new Transport("http");
        https = new Transport("https");
    }

    @AfterAll
    static void stop() throws Exception {
        http.close();
        https.close();
    }

    @AfterEach
    void disconnect() {
        if (lib != null) {
            lib.AzureDeInit();
            lib = null;
        }
        http.proxy.reset();
        https.proxy.reset();
    }

    private static Transport transport(String scheme) {
        return scheme.equals("https") ? https : http;
    }

    /** A library through the transport's proxy with the account key and the given keys; no rules yet. */
    private QVAzurePlugInLibrary viaProxy(Transport t, String options) {
        lib = TestSupport.connected(AzuriteServer.connectionStringAt(t.proxyEndpoint(), t.container, options));
        t.proxy.reset();
        return lib;
    }

    /**
     * Requests for this object only. A block upload that failed returns
     * while its other Put Blocks may still be on their way (a send in
     * progress is not stopped); they must not count for the next write.
     */
    private static Predicate<FaultProxy.Request> of(String name) {
        return r -> r.path.endsWith("/" + name);
    }

    private static Predicate<FaultProxy.Request> putOf(String name) {
        return of(name).and(r -> r.method.equals("PUT"));
    }

    private static List<FaultProxy.Request> seen(Transport t, String name) {
        return t.proxy.seen().stream().filter(of(name)).collect(Collectors.toList());
    }

    /**
     * Every request the proxy refused early asked first and sent not one byte
     * of its body: the refusal was heard before the body, not after a
     * broken connection.
     */
    private static void assertRefusedBeforeTheBody(List<FaultProxy.Request> refused, String what) {
        assertFalse(refused.isEmpty(), what + ": nothing was refused");
        for (FaultProxy.Request r : refused) {
            try {
                r.awaitServed();
            } catch (InterruptedException e) {
                throw new AssertionError(e);
            }
            assertTrue(r.expectsContinue(), what + ": " + r.method + " " + r.param("comp") + " without Expect");
            assertFalse(r.continued, what + ": 100 Continue was sent");
            assertEquals(0, r.body.length, what + ": body bytes sent after the refusal");
        }
    }

    // ------------------------------------------------------------------ refusals

    static Stream<Arguments> refusals() {
        Object[][] answers = {
            {403, "AuthenticationFailed", ERRORID.AUTHENTICATION_FAILED},
            {403, "AuthorizationPermissionMismatch", ERRORID.AUTHORIZATION_FAILED},
            {409, "LeaseIdMissing", ERRORID.LEASE_CONFLICT},
            {412, "LeaseIdMissing", ERRORID.LEASE_CONFLICT},
            {413, "RequestBodyTooLarge", ERRORID.OBJECT_TOO_LARGE},
        };
        return Stream.of("http", "https").flatMap(scheme -> Stream.of(answers).map(
            a -> Arguments.of(scheme, a[0], a[1], a[2])));
    }

    /**
     * A single Put Blob of 2 MiB and a block upload of 10 MiB (three Put
     * Blocks above 1 MiB) refused before their bodies: the refusal's own id,
     * one send of each request, nothing written.
     */
    @ParameterizedTest(name = "{0}: {1} {2}")
    @MethodSource("refusals")
    void aRefusalBeforeTheBodyIsReportedAtOnceWithItsOwnId(String scheme, int status, String code,
                                                          ERRORID expected) {
        Transport t = transport(scheme);
        QVAzurePlugInLibrary l = viaProxy(t, SLOW_RETRIES);
        String label = scheme + " " + status + " " + code;

        String single = unique("early/");
        FaultProxy.Rule puts = t.proxy.add(putOf(single), FaultProxy.ALWAYS, FaultProxy.Fault.early(status, code));
        int size = 2 << 20;
        long t0 = System.nanoTime();
        assertError(expected, l.WriteObject(single, randomBytes(size, 1), size), label + ": Put Blob");
        double seconds = (System.nanoTime() - t0) / 1e9;
        assertEquals(1, puts.applied(), label + ": Put Blob sent once, not retried");
        assertEquals(1, seen(t, single).size());
        assertRefusedBeforeTheBody(seen(t, single), label + ": Put Blob");
        assertFalse(t.direct.IsObjectExist(single).isExist, label + ": nothing written");

        String blocks = unique("early/");
        FaultProxy.Rule putBlocks = t.proxy.add(putOf(blocks), FaultProxy.ALWAYS,
                                                FaultProxy.Fault.early(status, code));
        size = QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + (2 << 20);
        assertError(expected, l.WriteObject(blocks, randomBytes(size, 2), size), label + ": block upload");
        List<FaultProxy.Request> seen = seen(t, blocks);
        assertRefusedBeforeTheBody(seen, label + ": Put Block");
        Set<String> ids = new HashSet<>();
        for (FaultProxy.Request r : seen) {
            assertTrue(r.isPutBlock(), label + ": only Put Blocks, no Put Block List: " + r.query);
            assertTrue(ids.add(r.param("blockid")), label + ": a block sent twice");
        }
        assertTrue(putBlocks.applied() >= 1 && putBlocks.applied() <= 3, label + ": " + putBlocks.applied());
        assertFalse(t.direct.IsObjectExist(blocks).isExist, label + ": nothing committed");
        System.out.printf("early refusal %s: Put Blob refused in %.3f s, %d Put Blocks refused, none retried%n",
                          label, seconds, putBlocks.applied());
    }

    /**
     * A token that expired after AzureInit: the early 403 (Azurite's own code
     * for it, AuthorizationFailure) is reported as the expiry it is, at once.
     */
    @ParameterizedTest(name = "{0}")
    @ValueSource(strings = {"http", "https"})
    void anExpiredTokenRefusedBeforeTheBodyIsReportedAsExpired(String scheme) throws InterruptedException {
        Transport t = transport(scheme);
        Instant expiry = Instant.now().plusSeconds(2).truncatedTo(ChronoUnit.SECONDS);
        String token = TestSas.container(t.container, "racwdl", null, expiry, AzuriteServer.KEY);
        lib = TestSupport.connected(AzuriteServer.sasConnectionString(t.proxyEndpoint(), t.container, token,
                                                                      SLOW_RETRIES));
        long wait = Duration.between(Instant.now(), expiry).toMillis() + 300;
        if (wait > 0) {
            Thread.sleep(wait);
        }
        String name = unique("expired/");
        FaultProxy.Rule puts = t.proxy.add(putOf(name), FaultProxy.ALWAYS,
                                           FaultProxy.Fault.early(403, "AuthorizationFailure"));
        int size = 3 << 20;
        assertError(ERRORID.AUTHENTICATION_FAILED, lib.WriteObject(name, randomBytes(size, 3), size),
                    scheme + ": WriteObject with an expired token");
        assertEquals(1, puts.applied(), scheme + ": sent once");
        assertEquals(1, seen(t, name).size());
        assertRefusedBeforeTheBody(seen(t, name), scheme + ": expired token");
        assertFalse(t.direct.IsObjectExist(name).isExist);
    }

    /** An early answer that may go away (503 ServerBusy) is still retried, and the body then goes through. */
    @ParameterizedTest(name = "{0}")
    @ValueSource(strings = {"http", "https"})
    void aBusyAnswerBeforeTheBodyIsStillRetried(String scheme) {
        Transport t = transport(scheme);
        QVAzurePlugInLibrary l = viaProxy(t, "RetryMaxAttempts=5;RetryBaseDelayMillis=20;RetryMaxDelayMillis=200");
        String name = unique("busy/");
        FaultProxy.Rule busy = t.proxy.add(putOf(name), 2, FaultProxy.Fault.early(503, "ServerBusy"));
        int size = ABOVE + 4321;
        byte[] data = randomBytes(size, 4);
        assertOk(l.WriteObject(name, data, size), scheme + ": WriteObject after two early 503s");
        assertEquals(2, busy.applied());
        List<FaultProxy.Request> seen = seen(t, name);
        assertEquals(3, seen.size(), scheme + ": two refused sends and one through");
        assertRefusedBeforeTheBody(seen.subList(0, 2), scheme + ": busy");
        FaultProxy.Request through = seen.get(2);
        assertTrue(through.expectsContinue() && through.continued, scheme + ": the third asked and was let in");
        assertEquals(size, through.body.length);
        assertArrayEquals(sha256(data, 0, size), readBackSha256(t.direct, name, size, 1 << 20));
    }

    // ------------------------------------------------------------------ who asks, and services that do not answer

    /**
     * Bodies up to 1 MiB go out at once as before; larger ones ask first and
     * are sent after 100 Continue. Put Block List (a small XML body) never
     * asks; in a block upload only the blocks above 1 MiB do.
     */
    @Test
    void onlyBodiesAboveOneMiBAskFirst() {
        QVAzurePlugInLibrary l = viaProxy(http, SLOW_RETRIES);
        int[] sizes = {0, 1000, ABOVE, ABOVE + 1, QVAzurePlugInLibrary.SINGLE_PUT_LIMIT};
        for (int size : sizes) {
            String name = unique("ask/");
            byte[] data = randomBytes(size, size);
            assertOk(l.WriteObject(name, data, size), "WriteObject of " + size + " B");
            List<FaultProxy.Request> seen = seen(http, name);
            assertEquals(1, seen.size(), size + " B: one Put Blob");
            FaultProxy.Request r = seen.get(0);
            assertEquals(size > ABOVE, r.expectsContinue(), size + " B: Expect");
            assertEquals(size > ABOVE, r.continued, size + " B: 100 Continue before the body");
            assertEquals(size, r.body.length, size + " B: the whole body");
            assertArrayEquals(sha256(data, 0, size), readBackSha256(http.direct, name, size, 1 << 20));
        }

        // Blocks of 4 MiB, 4 MiB and 1 B, then the block list.
        String name = unique("ask/");
        int size = QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1;
        byte[] data = randomBytes(size, 5);
        assertOk(l.WriteObject(name, data, size), "block upload");
        int asked = 0;
        List<FaultProxy.Request> seen = seen(http, name);
        assertEquals(4, seen.size(), "three Put Blocks and the Put Block List");
        for (FaultProxy.Request r : seen) {
            boolean large = r.isPutBlock() && r.body.length > ABOVE;
            assertEquals(large, r.expectsContinue(), r.query + " of " + r.body.length + " B");
            asked += large ? 1 : 0;
        }
        assertEquals(2, asked, "the two 4 MiB blocks asked");
        assertEquals(1, seen.stream().filter(r -> "blocklist".equals(r.param("comp")) && !r.expectsContinue()).count());
        assertArrayEquals(sha256(data, 0, size), readBackSha256(http.direct, name, size, 4 << 20));
    }

    /**
     * A service that ignores the header never answers 100: after the JDK's
     * wait for it (5 s) the body goes unasked and the write succeeds, with
     * one send.
     */
    @Test
    void aServiceThatNeverAnswersContinueStillGetsTheBody() {
        QVAzurePlugInLibrary l = viaProxy(http, SLOW_RETRIES);
        String name = unique("silent/");
        FaultProxy.Rule silent = http.proxy.add(putOf(name), FaultProxy.ALWAYS, FaultProxy.Fault.noContinue());
        int size = 2 << 20;
        byte[] data = randomBytes(size, 6);
        long t0 = System.nanoTime();
        assertOk(l.WriteObject(name, data, size), "WriteObject to a service that never answers 100");
        double seconds = (System.nanoTime() - t0) / 1e9;
        assertEquals(1, silent.applied(), "one send");
        FaultProxy.Request r = seen(http, name).get(0);
        assertTrue(r.expectsContinue() && !r.continued);
        assertEquals(size, r.body.length);
        assertTrue(r.bodyWaitMillis() >= 1000, "the client waited for 100 Continue first: " + r.bodyWaitMillis());
        assertTrue(seconds < 15, "the wait is short: " + seconds + " s");
        assertArrayEquals(sha256(data, 0, size), readBackSha256(http.direct, name, size, 1 << 20));
        System.out.printf("no 100 Continue: body sent unasked after %d ms, write done in %.2f s%n",
                          r.bodyWaitMillis(), seconds);
    }

    /**
     * A service (or a proxy on the way) that refuses the expectation itself
     * (417) gets the same request again at once without it, in the same
     * attempt (417 is final, a retry would not be taken), and is not asked
     * again by that library.
     */
    @Test
    void aServiceRefusingTheExpectationGetsTheBodyWithoutIt() {
        QVAzurePlugInLibrary l = viaProxy(http, SLOW_RETRIES);
        String name = unique("417/");
        http.proxy.add(putOf(name).and(FaultProxy.Request::expectsContinue), FaultProxy.ALWAYS,
                       FaultProxy.Fault.early(417, null));
        int size = 2 << 20;
        byte[] data = randomBytes(size, 7);
        assertOk(l.WriteObject(name, data, size), "WriteObject through a 417");
        List<FaultProxy.Request> seen = seen(http, name);
        assertEquals(2, seen.size(), "the refused send and the one without Expect");
        assertRefusedBeforeTheBody(seen.subList(0, 1), "417");
        assertNull(seen.get(1).header("Expect"));
        assertEquals(size, seen.get(1).body.length);
        assertArrayEquals(sha256(data, 0, size), readBackSha256(http.direct, name, size, 1 << 20));

        String next = unique("417/");
        assertOk(l.WriteObject(next, data, size), "the next large write");
        assertEquals(1, seen(http, next).size());
        assertNull(seen(http, next).get(0).header("Expect"), "not asked again");
    }
}
