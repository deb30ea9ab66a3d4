package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.assertError;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.randomBytes;
import static com.qv.AzureLibrary.TestSupport.readBackSha256;
import static com.qv.AzureLibrary.TestSupport.sha256;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.ERRORID;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * A slow uplink: uploads through a proxy that reads at a fixed rate, with
 * small buffers. A send that keeps moving is let run however long it takes
 * (the stall timeout catches one that stops); the old rule, one bound on
 * each whole send, fails the same upload.
 *
 * The case of the report is 64 MiB at 200 KiB/s (5.5 minutes; each 4 MiB
 * block, four sharing the line, takes about 80 s). The suite runs it scaled
 * down to keep its time: 16 MiB and one byte at 4 MiB/s, so that each of
 * the four blocks in flight gets 1 MiB/s and takes about 4 s, against a
 * whole-send bound of 2 s for the old rule and a stall timeout of 2 s for
 * the new one: a block takes twice the bound, as a 4 MiB block takes on an
 * uplink of half a megabit against the old 120 s. With
 * -Dqv.test.slowUpload=full it runs the report's figures with the
 * defaults instead.
 */
class SlowUploadTest {
    private static final int KIB = 1 << 10;
    private static AzuriteServer azurite;
    private static FaultProxy slow;
    private static String container;
    private static QVAzurePlugInLibrary direct;

    @BeforeAll
    static void start() throws Exception {
        azurite = AzuriteServer.get();
        slow = new FaultProxy(azurite.port, null, 64 * KIB);
        container = TestSupport.uniqueContainer("slowup");
        direct = TestSupport.connected(azurite.connectionString(container));
    }

    @AfterAll
    static void stop() throws Exception {
        TestSupport.dropContainer(direct);
        slow.close();
    }

    private static QVAzurePlugInLibrary viaSlowLine(String options) {
        return TestSupport.connected(AzuriteServer.connectionString(container, slow.port(), options));
    }

    /** Writes {@code size} bytes at {@code rate} bytes/s; answers the library's answer and prints the time. */
    private static Object upload(QVAzurePlugInLibrary l, String name, byte[] data, long rate, String label) {
        slow.limitUpload(rate);
        long t0 = System.nanoTime();
        try {
            CWObjectHandleFnValue w = l.WriteObject(name, data, data.length, null);
            System.out.printf("slow upload (%s): %d bytes at %d KiB/s: %s after %.1f s%n", label, data.length,
                              rate / KIB, TestSupport.idOf(w), (System.nanoTime() - t0) / 1e9);
            return w;
        } finally {
            slow.limitUpload(0);
        }
    }

    @Test
    void aSlowButMovingUploadSucceedsWhereTheWholeSendBoundFailedIt() {
        boolean full = "full".equals(System.getProperty("qv.test.slowUpload"));
        int size = full ? 64 << 20 : (16 << 20) + 1;
        long rate = full ? 200 * KIB : 4096 * KIB;
        byte[] data = randomBytes(size, 64);

        String name = unique("slow/");
        QVAzurePlugInLibrary l = viaSlowLine(full ? "" : "StallTimeoutSeconds=2");
        try {
            assertOk(upload(l, name, data, rate, full ? "defaults" : "stall timeout 2 s"), "slow upload");
        } finally {
            l.AzureDeInit();
        }
        assertArrayEquals(sha256(data, 0, size), readBackSha256(direct, name, size, 4 << 20));

        // The old rule: each whole send bounded (120 s then; 2 s scaled), retried, and in the end TIMEOUT.
        String old = unique("slow-old/");
        QVAzurePlugInLibrary bounded = viaSlowLine((full ? "RequestTimeoutSeconds=120" : "RequestTimeoutSeconds=2")
                                                   + ";RetryMaxAttempts=3;RetryBaseDelayMillis=10");
        try {
            long oldRate = full ? 100 * KIB : rate;
            assertError(ERRORID.TIMEOUT, upload(bounded, old, data, oldRate, "whole-send bound"), "old rule");
        } finally {
            bounded.AzureDeInit();
        }
        assertFalse(direct.IsObjectExist(old).isExist, "nothing committed");
    }

    /** A send that stops moving altogether is still cut off, at the stall timeout. */
    @Test
    void anUploadThatStopsIsCutOffAtTheStallTimeout() {
        QVAzurePlugInLibrary l = viaSlowLine("StallTimeoutSeconds=1;RetryMaxAttempts=1");
        try {
            slow.add(r -> r.method.equals("PUT"), 1, FaultProxy.Fault.delay(4000));
            long t0 = System.nanoTime();
            assertError(ERRORID.TIMEOUT, l.WriteObject(unique("stopped/"), new byte[100], 100), "stopped");
            double seconds = (System.nanoTime() - t0) / 1e9;
            assertTrue(seconds >= 0.9 && seconds < 3, "cut off after " + seconds + " s");
        } finally {
            l.AzureDeInit();
            slow.reset();
        }
    }
}
