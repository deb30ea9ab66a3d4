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

import java.time.ZoneOffset;
import java.time.ZonedDateTime;
import java.time.format.DateTimeFormatter;
import java.util.List;
import java.util.Map;
import java.util.function.Predicate;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Retries the service directs (Retry-After, in seconds or as an HTTP date)
 * and the deadline of a whole operation (OperationTimeoutSeconds), with the
 * faults and the waits injected by the proxy: Azurite itself never sends
 * Retry-After and never stalls.
 */
class DeadlineAndRetryAfterTest extends ProxiedAzuriteTest {
    private static Predicate<FaultProxy.Request> method(String m) {
        return r -> r.method.equals(m);
    }

    /** Milliseconds between the first two requests the predicate takes, as they arrived at the proxy. */
    private static long gapMillis(Predicate<FaultProxy.Request> p) {
        List<FaultProxy.Request> seen = proxy.seen().stream().filter(p).toList();
        assertTrue(seen.size() >= 2, "two requests: " + seen.size());
        return (seen.get(1).arrivedNanos - seen.get(0).arrivedNanos) / 1_000_000;
    }

    private static String httpDate(ZonedDateTime t) {
        return DateTimeFormatter.RFC_1123_DATE_TIME.format(t.withZoneSameInstant(ZoneOffset.UTC));
    }

    // ------------------------------------------------------------------ Retry-After

    /** The backoff alone would pause 5-10 ms here; the service's Retry-After makes it about a second. */
    @Test
    void retryAfterInSecondsIsHonoured() {
        QVAzurePlugInLibrary l = viaProxy("RetryBaseDelayMillis=10;RetryMaxDelayMillis=5000");
        proxy.add(method("PUT"), 1, FaultProxy.Fault.serverBusy().withHeader("Retry-After", "1"));
        String name = unique("ra/");
        assertOk(l.WriteObject(name, new byte[100], 100), "WriteObject after a 503 with Retry-After: 1");
        long gap = gapMillis(method("PUT"));
        assertTrue(gap >= 950 && gap < 3000, "waited as asked: " + gap + " ms");
        assertTrue(direct.IsObjectExist(name).isExist);
    }

    @Test
    void retryAfterAsAnHttpDateIsHonoured() {
        QVAzurePlugInLibrary l = viaProxy("RetryBaseDelayMillis=10;RetryMaxDelayMillis=10000");
        // Whole seconds: 3 s ahead truncated is at least 2 s ahead.
        String at = httpDate(ZonedDateTime.now().plusSeconds(3));
        proxy.add(method("GET"), 1, FaultProxy.Fault.status(429, null).withHeader("Retry-After", at));
        String name = unique("ra/");
        assertOk(direct.WriteObject(name, new byte[10], 10), "WriteObject");
        assertOk(l.ReadObject(name, new byte[10], 10, 0), "ReadObject after a 429 with a Retry-After date");
        long gap = gapMillis(method("GET"));
        assertTrue(gap >= 1900 && gap < 5000, "waited until the date: " + gap + " ms");
    }

    /**
     * A wait past what is left of the retry budget ends the request at
     * once with TIMEOUT (RetryMaxDelayMillis caps the backoff, not the
     * service's wait).
     */
    @Test
    void aRetryAfterPastTheRetryBudgetFailsAtOnce() {
        QVAzurePlugInLibrary l = viaProxy("RetryBaseDelayMillis=100;RetryMaxDelayMillis=300");
        proxy.add(method("PUT"), 1, FaultProxy.Fault.serverBusy().withHeader("Retry-After", "3600"));
        long t0 = System.nanoTime();
        assertError(ERRORID.TIMEOUT, l.WriteObject(unique("ra/"), new byte[10], 10), "WriteObject told to wait 1 h");
        assertEquals(1, proxy.countSeen(method("PUT")), "sent once");
        assertTrue((System.nanoTime() - t0) / 1e9 < 2, "not the hour asked for");
    }

    /** A value that is no wait at all is ignored: the backoff applies. */
    @ParameterizedTest(name = "Retry-After: {0}")
    @ValueSource(strings = {"Wed, 32 Foo 2030 99:00:00 GMT", "-1", "soon"})
    void retryAfterIsIgnoredWhenUnreadable(String value) {
        QVAzurePlugInLibrary l = viaProxy("RetryBaseDelayMillis=100;RetryMaxDelayMillis=300");
        proxy.add(method("PUT"), 1, FaultProxy.Fault.serverBusy().withHeader("Retry-After", value));
        long t0 = System.nanoTime();
        assertOk(l.WriteObject(unique("ra/"), new byte[10], 10), "WriteObject");
        long gap = gapMillis(method("PUT"));
        assertTrue(gap >= 40 && gap < 1000, "paused " + gap + " ms (the backoff, at most the 300 ms cap)");
        assertTrue((System.nanoTime() - t0) / 1e9 < 2, "not the hour asked for");
    }

    /** A wait that would end past the operation's deadline is not taken: TIMEOUT at once. */
    @Test
    void aRetryAfterBeyondTheDeadlineFailsAtOnce() {
        QVAzurePlugInLibrary l = viaProxy("RetryMaxDelayMillis=600000;OperationTimeoutSeconds=3;RetryMaxSeconds=60");
        proxy.add(method("PUT"), FaultProxy.ALWAYS, FaultProxy.Fault.serverBusy().withHeader("Retry-After", "30"));
        long t0 = System.nanoTime();
        CWObjectHandleFnValue w = l.WriteObject(unique("ra/"), new byte[10], 10, null);
        double seconds = (System.nanoTime() - t0) / 1e9;
        assertError(ERRORID.TIMEOUT, w, "WriteObject told to wait past its deadline");
        assertEquals(1, proxy.countSeen(method("PUT")), "sent once");
        assertTrue(seconds < 1.5, "gave up at once: " + seconds + " s");
    }

    // ------------------------------------------------------------------ operation deadline

    /**
     * Five blocks of 4 MiB, four at a time, each answered after 1.3 s: the
     * fifth would end at about 2.6 s. Each request is well inside its own
     * bounds (RetryMaxSeconds 60, RequestTimeoutSeconds 60), so only the
     * operation's 2 s can stop the write: TIMEOUT near 2 s, no Put Block
     * List, no object (or the old one intact). With a longer deadline the
     * same write goes through.
     */
    @ParameterizedTest(name = "object existed before: {0}")
    @ValueSource(booleans = {false, true})
    void aBlockUploadPastTheOperationDeadlineFailsWholeAndLeavesNoPartialObject(boolean existedBefore) {
        String name = unique("deadline/");
        byte[] old = randomBytes(2000, 4);
        if (existedBefore) {
            assertOk(direct.WriteObject(name, old, old.length, TestSupport.metaArray(Map.of("version", "old"))),
                     "first version");
        }
        QVAzurePlugInLibrary l = viaProxy("OperationTimeoutSeconds=2;RetryMaxSeconds=60;RequestTimeoutSeconds=60");
        proxy.add(FaultProxy.Request::isPutBlock, FaultProxy.ALWAYS, FaultProxy.Fault.delay(1300));
        int size = 5 * QVAzurePlugInLibrary.BLOCK_SIZE;
        byte[] data = randomBytes(size, 5);
        long t0 = System.nanoTime();
        CWObjectHandleFnValue w = l.WriteObject(name, data, size, TestSupport.metaArray(Map.of("version", "new")));
        double seconds = (System.nanoTime() - t0) / 1e9;
        assertError(ERRORID.TIMEOUT, w, "WriteObject past OperationTimeoutSeconds");
        assertTrue(seconds >= 1.9 && seconds < 3.5, "stopped at the deadline: " + seconds + " s");
        assertEquals(0, proxy.countSeen(r -> "blocklist".equals(r.param("comp"))), "no Put Block List");
        if (existedBefore) {
            assertArrayEquals(sha256(old, 0, old.length), readBackSha256(direct, name, old.length, 4096));
            assertEquals("old", direct.GetObjectMetaData(name, "version").value);
        } else {
            assertFalse(direct.IsObjectExist(name).isExist, "no partial object");
        }
        System.out.printf("operation deadline: block upload TIMEOUT after %.2f s (OperationTimeoutSeconds=2)%n",
                          seconds);

        if (!existedBefore) {
            lib.AzureDeInit();
            QVAzurePlugInLibrary longer = viaProxy("OperationTimeoutSeconds=30;RetryMaxSeconds=60");
            proxy.add(FaultProxy.Request::isPutBlock, FaultProxy.ALWAYS, FaultProxy.Fault.delay(1300));
            assertOk(longer.WriteObject(name, data, size), "the same write with a 30 s deadline");
            assertArrayEquals(sha256(data, 0, size), readBackSha256(direct, name, size, 4 << 20));
        }
    }

    /**
     * A listing of six pages, each answered after 0.5 s, takes twice the
     * operation's 1.5 s as a whole and goes through: each page has a
     * deadline of its own (a long listing goes on while its pages come).
     * One page that takes longer than that fails it with TIMEOUT.
     */
    @Test
    void eachPageOfAListingHasADeadlineOfItsOwn() {
        String prefix = unique("pages/") + "/";
        for (int i = 0; i < 12; ++i) {
            assertOk(direct.WriteObject(prefix + i, new byte[1], 1), "WriteObject " + i);
        }
        QVAzurePlugInLibrary l = viaProxy("OperationTimeoutSeconds=1.5;RetryMaxSeconds=60");
        l.setListPageSize(2);
        FaultProxy.Rule slow = proxy.add(FaultProxy.Request::isListBlobs, FaultProxy.ALWAYS,
                                         FaultProxy.Fault.delay(500));
        long t0 = System.nanoTime();
        CRetGetSubMetaDataList r = l.GetObjectSubList(prefix);
        double seconds = (System.nanoTime() - t0) / 1e9;
        assertOk(r, "GetObjectSubList of six slow pages");
        assertEquals(12, r.metaDat.length);
        assertEquals(6, slow.applied());
        assertTrue(seconds >= 2.9, "longer than one operation's deadline: " + seconds + " s");

        proxy.reset();
        proxy.add(FaultProxy.Request::isListBlobs, FaultProxy.ALWAYS, FaultProxy.Fault.delay(3000));
        t0 = System.nanoTime();
        assertError(ERRORID.TIMEOUT, l.GetObjectSubList(prefix), "a page slower than its deadline");
        seconds = (System.nanoTime() - t0) / 1e9;
        assertTrue(seconds >= 1.4 && seconds < 2.5, "stopped at the page's deadline: " + seconds + " s");
    }

    /** Retries of one read stop at the operation's deadline although RetryMaxSeconds would allow more. */
    @Test
    void retriesOfOneRequestStopAtTheOperationDeadline() {
        String name = unique("busy/");
        assertOk(direct.WriteObject(name, new byte[10], 10), "WriteObject");
        QVAzurePlugInLibrary l = viaProxy("OperationTimeoutSeconds=1;RetryMaxSeconds=60;RetryMaxAttempts=100"
                                          + ";RetryBaseDelayMillis=50;RetryMaxDelayMillis=100");
        proxy.add(method("GET"), FaultProxy.ALWAYS, FaultProxy.Fault.serverBusy());
        long t0 = System.nanoTime();
        assertError(ERRORID.TIMEOUT, l.ReadObject(name, new byte[10], 10, 0), "ReadObject of a busy service");
        double seconds = (System.nanoTime() - t0) / 1e9;
        assertTrue(seconds >= 0.8 && seconds < 1.8, "stopped at the deadline: " + seconds + " s");
        assertTrue(proxy.countSeen(method("GET")) >= 5, "retried meanwhile: " + proxy.countSeen(method("GET")));
    }
}
