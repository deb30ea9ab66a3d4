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

import java.util.Map;
import java.util.function.Predicate;
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
 * Retries, their bounds, and failed block uploads, with faults injected by a
 * proxy between the library and Azurite.
 */
class FaultInjectionTest extends ProxiedAzuriteTest {
    /** Short pauses so that the tests do not wait long; every library here uses them. */
    private static final String FAST = "RetryBaseDelayMillis=20;RetryMaxDelayMillis=200";

    /** Through the proxy with the short pauses, and the given retry and timeout keys. */
    @Override
    QVAzurePlugInLibrary viaProxy(String options) {
        return super.viaProxy(FAST + ";" + options);
    }

    private static Predicate<FaultProxy.Request> any() {
        return r -> true;
    }

    private static Predicate<FaultProxy.Request> method(String m) {
        return r -> r.method.equals(m);
    }

    /** Writes a small object through the library, reads it back directly, and compares. */
    private static void writeAndCheck(QVAzurePlugInLibrary l, String name, int size) {
        byte[] data = randomBytes(size, name.hashCode());
        assertOk(l.WriteObject(name, data, size), "WriteObject " + name);
        assertArrayEquals(sha256(data, 0, size), readBackSha256(direct, name, size, 1 << 20));
    }

    // ------------------------------------------------------------------ retried faults

    static Stream<Arguments> transientFaults() {
        return Stream.of(
            Arguments.of("503 ServerBusy", FaultProxy.Fault.serverBusy()),
            Arguments.of("plain 503", FaultProxy.Fault.plain503()),
            Arguments.of("500 InternalError", FaultProxy.Fault.status(500, "InternalError")),
            Arguments.of("500 OperationTimedOut", FaultProxy.Fault.status(500, "OperationTimedOut")),
            Arguments.of("429", FaultProxy.Fault.status(429, null)),
            Arguments.of("408", FaultProxy.Fault.status(408, null)),
            Arguments.of("dropped connection", FaultProxy.Fault.drop()),
            Arguments.of("reset connection", FaultProxy.Fault.reset()));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("transientFaults")
    void aBurstOfTransientFaultsIsRetriedOnWriteAndRead(String label, FaultProxy.Fault fault) {
        QVAzurePlugInLibrary l = viaProxy("RetryMaxAttempts=5;RetryMaxSeconds=30");
        String name = unique("burst/");
        FaultProxy.Rule puts = proxy.add(method("PUT"), 3, fault);
        writeAndCheck(l, name, 3000);
        assertEquals(3, puts.applied(), label + ": faults injected on the write");
        assertEquals(4, proxy.countSeen(method("PUT")), label + ": 3 failed sends and 1 that got through");

        FaultProxy.Rule gets = proxy.add(method("GET"), 3, fault);
        byte[] back = new byte[3000];
        CReadObjectFnValue r = l.ReadObject(name, back, back.length, 0);
        assertOk(r, label + ": ReadObject");
        assertEquals(3000, r.sizeRead);
        assertArrayEquals(randomBytes(3000, name.hashCode()), back);
        assertEquals(3, gets.applied(), label + ": faults injected on the read");
    }

    @Test
    void slowAnswersAreRetriedAndWithinTheTimeoutSimplyAwaited() {
        QVAzurePlugInLibrary l = viaProxy("RequestTimeoutSeconds=1;RetryMaxAttempts=4;RetryMaxSeconds=20");
        String name = unique("slow/");
        writeAndCheck(direct, name, 100);

        // Slower than the request timeout: the first send times out, the second gets through.
        FaultProxy.Rule slow = proxy.add(method("GET"), 1, FaultProxy.Fault.delay(2500));
        byte[] back = new byte[100];
        assertOk(l.ReadObject(name, back, 100, 0), "ReadObject after a slow answer");
        assertArrayEquals(randomBytes(100, name.hashCode()), back);
        assertEquals(1, slow.applied());
        assertEquals(2, proxy.countSeen(method("GET")));

        // Slow but within the timeout: no retry.
        proxy.reset();
        FaultProxy.Rule late = proxy.add(method("HEAD"), 1, FaultProxy.Fault.delay(300));
        assertTrue(l.IsObjectExist(name).isExist);
        assertEquals(1, late.applied());
        assertEquals(1, proxy.countSeen(method("HEAD")));
    }

    /**
     * A body that stops halfway is cut off at the request timeout (the JDK's
     * own timeout ends with the headers) and fails with TIMEOUT; the proxy
     * would close the connection only after 4 s, which would be a network
     * error instead. With retries allowed the read then succeeds.
     */
    @Test
    void anAnswerThatStallsHalfwayIsCutOffAndRetried() {
        String name = unique("stall/");
        int size = 256 << 10;
        writeAndCheck(direct, name, size);
        byte[] back = new byte[size];

        QVAzurePlugInLibrary once = TestSupport.connected(AzuriteServer.connectionString(
            container, proxy.port(), FAST + ";RequestTimeoutSeconds=1;RetryMaxAttempts=1"));
        try {
            proxy.reset();
            proxy.add(method("GET"), 1, FaultProxy.Fault.stallBody(4000));
            assertError(ERRORID.TIMEOUT, once.ReadObject(name, back, size, 0), "ReadObject of a stalled answer");
        } finally {
            once.AzureDeInit();
        }

        QVAzurePlugInLibrary l = viaProxy("RequestTimeoutSeconds=1;RetryMaxAttempts=4;RetryMaxSeconds=20");
        FaultProxy.Rule stall = proxy.add(method("GET"), 1, FaultProxy.Fault.stallBody(4000));
        CReadObjectFnValue r = l.ReadObject(name, back, size, 0);
        assertOk(r, "ReadObject after an answer that stalled");
        assertEquals(size, r.sizeRead);
        assertArrayEquals(randomBytes(size, name.hashCode()), back);
        assertEquals(1, stall.applied());
        assertEquals(2, proxy.countSeen(method("GET")));
    }

    // ------------------------------------------------------------------ final answers and bounds

    static Stream<Arguments> finalAnswers() {
        return Stream.of(
            Arguments.of(400, "InvalidHeaderValue", ERRORID.INVALID_ARGUMENT),
            Arguments.of(403, "AuthenticationFailed", ERRORID.AUTHENTICATION_FAILED),
            Arguments.of(409, "LeaseIdMissing", ERRORID.LEASE_CONFLICT),
            Arguments.of(412, "ConditionNotMet", ERRORID.CONDITION_NOT_MET),
            Arguments.of(502, null, ERRORID.SERVICE_UNAVAILABLE),
            Arguments.of(504, null, ERRORID.SERVICE_UNAVAILABLE),
            Arguments.of(507, null, ERRORID.INSUFFICIENT_STORAGE));
    }

    @ParameterizedTest(name = "{0} {1}")
    @MethodSource("finalAnswers")
    void otherStatusesAreFinalAtOnce(int status, String code, ERRORID expected) {
        QVAzurePlugInLibrary l = viaProxy("RetryMaxAttempts=5");
        proxy.add(any(), FaultProxy.ALWAYS, FaultProxy.Fault.status(status, code));
        assertError(expected, l.WriteObject(unique("final/"), new byte[10], 10), "WriteObject");
        assertEquals(1, proxy.seen().size(), "sent once, not retried");
    }

    /**
     * At RetryMaxAttempts the last failure is the answer. The JDK's HTTP
     * client itself sends a GET or HEAD once more when the connection is lost
     * before any byte of an answer, so on a read an attempt may be two sends;
     * writes are never repeated by the JDK.
     */
    @Test
    void retriesStopAtTheAttemptBoundWithTheLastFailure() {
        QVAzurePlugInLibrary l = viaProxy("RetryMaxAttempts=3;RetryMaxSeconds=60");
        proxy.add(any(), FaultProxy.ALWAYS, FaultProxy.Fault.plain503());
        assertError(ERRORID.SERVICE_UNAVAILABLE, l.WriteObject(unique("attempts/"), new byte[10], 10), "WriteObject");
        assertEquals(3, proxy.seen().size());

        proxy.reset();
        proxy.add(any(), FaultProxy.ALWAYS, FaultProxy.Fault.drop());
        assertError(ERRORID.NETWORK_ERROR, l.WriteObject(unique("attempts/"), new byte[10], 10), "WriteObject");
        assertEquals(3, proxy.seen().size());

        proxy.reset();
        proxy.add(any(), FaultProxy.ALWAYS, FaultProxy.Fault.reset());
        assertError(ERRORID.NETWORK_ERROR, l.ReadObject(unique("attempts/"), new byte[10], 10, 0), "ReadObject");
        int sends = proxy.seen().size();
        assertTrue(sends >= 3 && sends <= 6, "3 attempts of at most 2 sends each: " + sends);
    }

    /**
     * Past RetryMaxSeconds the operation fails with TIMEOUT, whether the
     * service keeps answering 503 or keeps answering too slowly.
     */
    @ParameterizedTest(name = "{0}")
    @ValueSource(strings = {"busy", "slow"})
    void retriesStopAtTheTimeBoundWithTimeout(String how) {
        QVAzurePlugInLibrary l = viaProxy("RetryMaxAttempts=100;RetryMaxSeconds=1.5;RequestTimeoutSeconds=0.4");
        FaultProxy.Fault f = how.equals("busy") ? FaultProxy.Fault.serverBusy() : FaultProxy.Fault.delay(3000);
        proxy.add(any(), FaultProxy.ALWAYS, f);
        long t0 = System.nanoTime();
        CWObjectHandleFnValue w = l.WriteObject(unique("bound/"), new byte[10], 10, null);
        double seconds = (System.nanoTime() - t0) / 1e9;
        assertError(ERRORID.TIMEOUT, w, "WriteObject against a service that stays " + how);
        assertEquals(30, w.errorValue.getOrdinalValue());
        assertTrue(proxy.seen().size() >= 2, "retried before giving up: " + proxy.seen().size());
        // The bound holds (1.5 s plus one pause and scheduling); far from the 100 attempts allowed.
        assertTrue(seconds < 6, "gave up after " + seconds + " s");
        System.out.printf("retry time bound (%s): TIMEOUT after %d sends in %.2f s (RetryMaxSeconds=1.5)%n",
                          how, proxy.seen().size(), seconds);
    }

    // ------------------------------------------------------------------ failed block uploads

    /**
     * A block upload in which one Put Block fails on every send: the write
     * fails, nothing is committed, and an object of that name that existed
     * before keeps its content and metadata.
     */
    @ParameterizedTest(name = "object existed before: {0}")
    @ValueSource(booleans = {false, true})
    void aBlockThatNeverUploadsLeavesNoPartialObject(boolean existedBefore) {
        QVAzurePlugInLibrary l = viaProxy("RetryMaxAttempts=3;RetryMaxSeconds=30");
        String name = unique("blocks/");
        byte[] old = randomBytes(5000, 1);
        if (existedBefore) {
            assertOk(direct.WriteObject(name, old, old.length, TestSupport.metaArray(Map.of("version", "old"))),
                     "first version");
        }
        FaultProxy.Rule broken = proxy.add(FaultProxy.nthPutBlock(2), FaultProxy.ALWAYS,
                                           FaultProxy.Fault.status(500, "InternalError"));
        int size = QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1 + 2 * QVAzurePlugInLibrary.BLOCK_SIZE;
        byte[] data = randomBytes(size, 2);
        CWObjectHandleFnValue w = l.WriteObject(name, data, size, TestSupport.metaArray(Map.of("version", "new")));

        assertError(ERRORID.INTERNAL_ERROR, w, "WriteObject with a block that always fails");
        assertEquals(3, broken.applied(), "the failing block was sent RetryMaxAttempts times");
        assertEquals(0, proxy.countSeen(r -> "blocklist".equals(r.param("comp"))), "no Put Block List");
        if (existedBefore) {
            assertTrue(direct.IsObjectExist(name).isExist);
            assertArrayEquals(sha256(old, 0, old.length), readBackSha256(direct, name, old.length, 4096));
            assertEquals("old", direct.GetObjectMetaData(name, "version").value);
        } else {
            assertFalse(direct.IsObjectExist(name).isExist);
            assertError(ERRORID.NOT_FOUND, direct.ReadObject(name, new byte[10], 10, 0), "ReadObject");
            assertEquals(0, direct.GetObjectSubList(name).metaDat.length);
        }

        // Once the service behaves again the same write goes through whole.
        proxy.reset();
        assertOk(l.WriteObject(name, data, size), "WriteObject after the fault");
        assertArrayEquals(sha256(data, 0, size), readBackSha256(direct, name, size, 4 << 20));
    }
}
