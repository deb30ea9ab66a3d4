package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.assertError;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.randomBytes;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.util.List;
import java.util.function.Predicate;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/**
 * Throttling ridden out as the Azure SDKs ride it out, and writes that stay
 * what they are when a send's answer is lost and the request goes again.
 */
class ThrottlingTest extends ProxiedAzuriteTest {
    private static Predicate<FaultProxy.Request> method(String m) {
        return r -> r.method.equals(m);
    }

    /** The gap between the first two requests of that kind, in milliseconds. */
    private static long gapMillis(Predicate<FaultProxy.Request> p) {
        List<FaultProxy.Request> rs = proxy.seen().stream().filter(p).toList();
        return (rs.get(1).headNanos - rs.get(0).headNanos) / 1_000_000;
    }

    /**
     * Fifteen seconds of 503 ServerBusy on every write, with the default
     * retry settings: the write goes through once the service takes it
     * again, and every send again was logged once with its reason.
     */
    @Test
    void fifteenSecondsOfServerBusyAreRiddenOutWithTheDefaults() {
        QVAzurePlugInLibrary l = viaProxy("");
        String name = unique("busy/");
        byte[] data = randomBytes(1000, 15);
        FaultProxy.Rule busy = proxy.add(method("PUT").and(FaultProxy.forTheNext(15_000)), FaultProxy.ALWAYS,
                                         FaultProxy.Fault.serverBusy());
        long t0 = System.nanoTime();
        try (TestSupport.LogCapture log = new TestSupport.LogCapture()) {
            assertOk(l.WriteObject(name, data, data.length), "WriteObject through 15 s of ServerBusy");
            double seconds = (System.nanoTime() - t0) / 1e9;
            List<String> retries = log.with("sending again in");
            assertEquals(busy.applied(), retries.size(), "one line per send again: " + retries);
            assertTrue(retries.stream().allMatch(x -> x.contains("503 ServerBusy") && x.startsWith("INFO")),
                       retries.toString());
            assertTrue(seconds >= 15 && seconds < 60, "took " + seconds + " s");
            System.out.printf("15 s of ServerBusy: through after %.1f s and %d sends%n", seconds,
                              proxy.countSeen(method("PUT")));
        }
        byte[] back = new byte[data.length];
        assertOk(direct.ReadObject(name, back, back.length, 0), "ReadObject");
        assertArrayEquals(data, back);
    }

    /** RetryMaxSeconds is the budget: the same run of ServerBusy fails within a short one, passes a long one. */
    @Test
    void theBudgetIsSetInTheConnectionString() {
        String fast = "RetryBaseDelayMillis=100;RetryMaxDelayMillis=800;";
        QVAzurePlugInLibrary shortBudget = viaProxy(fast + "RetryMaxSeconds=1.5");
        proxy.add(method("PUT").and(FaultProxy.forTheNext(3_000)), FaultProxy.ALWAYS, FaultProxy.Fault.serverBusy());
        long t0 = System.nanoTime();
        assertError(ERRORID.TIMEOUT, shortBudget.WriteObject(unique("budget/"), new byte[10], 10), "1.5 s budget");
        assertTrue((System.nanoTime() - t0) / 1e9 < 3, "gave up within the budget");
        shortBudget.AzureDeInit();

        QVAzurePlugInLibrary longBudget = viaProxy(fast + "RetryMaxSeconds=10");
        proxy.add(method("PUT").and(FaultProxy.forTheNext(3_000)), FaultProxy.ALWAYS, FaultProxy.Fault.serverBusy());
        assertOk(longBudget.WriteObject(unique("budget/"), new byte[10], 10), "10 s budget");
    }

    /**
     * The service's wait is honoured: x-ms-retry-after-ms (milliseconds,
     * which the storage service sends when it throttles) and a Retry-After
     * longer than RetryMaxDelayMillis, which caps the library's own backoff
     * only.
     */
    @ParameterizedTest(name = "{0}: {1}")
    @CsvSource({"x-ms-retry-after-ms,1500,1450", "Retry-After,2,1950"})
    void theServicesWaitIsHonoured(String header, String value, long atLeast) {
        QVAzurePlugInLibrary l = viaProxy("RetryBaseDelayMillis=10;RetryMaxDelayMillis=100");
        proxy.add(method("PUT"), 1, FaultProxy.Fault.serverBusy().withHeader(header, value));
        assertOk(l.WriteObject(unique("wait/"), new byte[10], 10), "WriteObject after " + header + ": " + value);
        long gap = gapMillis(method("PUT"));
        assertTrue(gap >= atLeast && gap < atLeast + 2000, "waited as asked: " + gap + " ms");
    }

    /**
     * A Put Blob with If-None-Match: * whose answer is lost was carried out:
     * the send again answers 409, and the object there is the one this
     * write made, so the write succeeded. A delete likewise.
     */
    @Test
    void writesWhoseAnswerWasLostAreNotReportedAsConflicts() {
        QVAzurePlugInLibrary l = viaProxy("RetryBaseDelayMillis=10;RetryMaxDelayMillis=20");
        String name = unique("lost/");
        CPluginMetaData[] meta = TestSupport.metaArray(java.util.Map.of("kind", "marker"));
        FaultProxy.Rule lost = proxy.add(method("PUT"), 1, FaultProxy.Fault.lostAnswer());
        assertOk(l.CreateObject(name, meta), "CreateObject whose first answer was lost");
        assertEquals(1, lost.applied());
        assertEquals(2, proxy.countSeen(method("PUT")), "sent twice");
        assertTrue(direct.IsObjectExist(name).isExist);

        FaultProxy.Rule lostDelete = proxy.add(method("DELETE"), 1, FaultProxy.Fault.lostAnswer());
        assertOk(l.DeleteObjectByName(name), "DeleteObjectByName whose first answer was lost");
        assertEquals(1, lostDelete.applied());
        assertEquals(2, proxy.countSeen(method("DELETE")), "sent twice: the JDK did not resend on its own");
        assertFalse(direct.IsObjectExist(name).isExist);
        assertError(ERRORID.NOT_FOUND, l.DeleteObjectByName(name), "a delete of what is not there");
    }

    /** An object of someone else's is still a conflict, although a send before went unanswered. */
    @Test
    void anotherWritersObjectIsStillAConflictAfterALostSend() {
        QVAzurePlugInLibrary l = viaProxy("RetryBaseDelayMillis=10;RetryMaxDelayMillis=20");
        String name = unique("theirs/");
        assertOk(direct.WriteObject(name, new byte[] {1, 2, 3}, 3), "someone else's object");
        proxy.add(method("PUT"), 1, FaultProxy.Fault.drop());
        assertError(ERRORID.ALREADY_EXISTS, l.CreateObject(name), "CreateObject over another object");
        byte[] back = new byte[3];
        assertOk(direct.ReadObject(name, back, 3, 0), "ReadObject");
        assertArrayEquals(new byte[] {1, 2, 3}, back, "their content stays");
    }
}
