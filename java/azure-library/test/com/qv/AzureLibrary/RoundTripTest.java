package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.randomBytes;
import static com.qv.AzureLibrary.TestSupport.readBackSha256;
import static com.qv.AzureLibrary.TestSupport.sha256;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.Map;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Whole objects written through the library and read back in ranges, compared
 * by SHA-256, at the sizes where the upload changes shape; the 100 MiB one
 * also prints the throughput.
 */
class RoundTripTest {
    private static final int MIB = 1 << 20;
    private static QVAzurePlugInLibrary lib;

    @BeforeAll
    static void connect() throws Exception {
        lib = TestSupport.connected(AzuriteServer.get().connectionString(TestSupport.uniqueContainer("rt")));
    }

    @AfterAll
    static void disconnect() {
        TestSupport.dropContainer(lib);
    }

    /** A written object's name and how long the WriteObject call took. */
    private record Written(String name, double seconds) {
    }

    /** Writes {@code data[0..size)} with one metadata property and checks the object's property. */
    private static Written write(String prefix, byte[] data, int size) {
        String name = unique(prefix + size + "/");
        long t0 = System.nanoTime();
        CWObjectHandleFnValue w = lib.WriteObject(name, data, size, TestSupport.metaArray(Map.of("size", "" + size)));
        double seconds = (System.nanoTime() - t0) / 1e9;
        assertOk(w, "WriteObject of " + size + " bytes");
        assertEquals(name, w.objHandle);
        CRObjectByNameFnValue len = lib.ReadObjectByHandle(name, new byte[0], 0, 0, new String[] {"size"});
        assertOk(len, "ReadObjectByHandle");
        assertEquals(Map.of("size", "" + size), TestSupport.asMap(len.values));
        return new Written(name, seconds);
    }

    /**
     * 0 B, 1 B, the largest single Put Blob, one byte over it (the smallest
     * block upload), and 4 full blocks and a bit: each read back in 4 MiB
     * calls and in calls of an odd size that cut across block boundaries.
     */
    @ParameterizedTest(name = "{0} bytes")
    @ValueSource(ints = {0, 1, 8 * MIB, 8 * MIB + 1, 16 * MIB + 12345})
    void roundTrip(int size) {
        byte[] data = randomBytes(size, size);
        String name = write("rt/", data, size).name();
        byte[] want = sha256(data, 0, size);
        assertArrayEquals(want, readBackSha256(lib, name, size, 4 * MIB), "read in 4 MiB calls");
        assertArrayEquals(want, readBackSha256(lib, name, size, 1_000_003), "read in 1,000,003-byte calls");
        assertOk(lib.DeleteObjectByName(name), "DeleteObjectByName");
    }

    /** 100 MiB, written in one call and read back as a host would, in 4 MiB and in 64 MiB calls. */
    @Test
    void hundredMebibytesWithThroughput() {
        int size = 100 * MIB;
        byte[] data = randomBytes(size, 100);
        byte[] want = sha256(data, 0, size);

        Written w = write("big/", data, size);
        String name = w.name();
        report("WriteObject", size, w.seconds());

        for (int chunk : new int[] {4 * MIB, 64 * MIB}) {
            long t1 = System.nanoTime();
            byte[] got = readBackSha256(lib, name, size, chunk);
            double seconds = (System.nanoTime() - t1) / 1e9;
            assertArrayEquals(want, got, "read back in " + chunk / MIB + " MiB calls");
            report("ReadObject in " + chunk / MIB + " MiB calls", size, seconds);
        }
        assertOk(lib.DeleteObjectByName(name), "DeleteObjectByName");
    }

    /** One clearly labelled line per figure; the figures are recorded, never asserted. */
    private static void report(String what, int bytes, double seconds) {
        System.out.printf("THROUGHPUT %s, %d MiB against Azurite (loopback, in memory): %.1f MiB/s (%.2f s)%n",
                          what, bytes / MIB, bytes / (double) MIB / seconds, seconds);
    }
}
