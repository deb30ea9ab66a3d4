package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.asMap;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.metaArray;
import static com.qv.AzureLibrary.TestSupport.randomBytes;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.function.Predicate;

import org.junit.jupiter.api.Test;

/**
 * Reads of 1 MiB or more ask the service for up to four times as much (at
 * most 8 MiB) and keep the rest of the answer for the read that goes on
 * where they end: an object read in slices costs one request per 8 MiB, not
 * one per slice, and every slice still holds exactly the object's bytes.
 * Each test reads through the fault proxy, which records every request as
 * the library sent it.
 */
class ReadAheadTest extends ProxiedAzuriteTest {
    private static final int MIB = 1 << 20;

    private static Predicate<FaultProxy.Request> getOf(String name) {
        return r -> r.method.equals("GET") && r.path.endsWith("/" + name);
    }

    private static byte[] stored(String name, int size) {
        byte[] data = randomBytes(size, name.hashCode());
        assertOk(direct.WriteObject(name, data, size), "WriteObject " + name);
        return data;
    }

    /** Reads {@code length} bytes at {@code offset} into an array of that size; answers what came. */
    private static byte[] slice(QVAzurePlugInLibrary l, String name, long offset, int length) {
        byte[] into = new byte[length];
        CReadObjectFnValue r = l.ReadObject(name, into, length, offset);
        assertOk(r, "ReadObject " + name + " at " + offset);
        return Arrays.copyOf(into, (int) r.sizeRead);
    }

    private static void assertSlice(byte[] whole, long offset, byte[] got, String what) {
        int from = (int) Math.min(offset, whole.length);
        assertArrayEquals(Arrays.copyOfRange(whole, from, from + got.length), got, what);
    }

    /** Reads the object from 0 up to {@code end} in slices of {@code size}, each checked against {@code whole}. */
    private static void readInSlices(QVAzurePlugInLibrary l, String name, byte[] whole, int end, int size) {
        for (int at = 0; at < end; at += size) {
            assertSlice(whole, at, slice(l, name, at, size), "slice at " + at);
        }
    }

    /** The x-ms-range headers of the GETs of that object, in the order they were sent. */
    private static List<String> rangesAsked(String name) {
        return proxy.seen().stream().filter(getOf(name)).map(r -> r.header("x-ms-range")).toList();
    }

    @Test
    void slicesOfAnObjectAreServedByOneRequest() {
        String name = unique("ahead/whole-");
        byte[] data = stored(name, 8 * MIB);
        QVAzurePlugInLibrary l = viaProxy("");
        readInSlices(l, name, data, data.length, 2 * MIB);
        assertEquals(List.of("bytes=0-8388607"), rangesAsked(name));
    }

    @Test
    void smallReadsAskForExactlyWhatTheyRead() {
        String name = unique("ahead/small-");
        byte[] data = stored(name, 2 * MIB);
        QVAzurePlugInLibrary l = viaProxy("");
        assertSlice(data, 0, slice(l, name, 0, 64 << 10), "first 64 KiB");
        assertSlice(data, 64 << 10, slice(l, name, 64 << 10, 64 << 10), "next 64 KiB");
        assertEquals(List.of("bytes=0-65535", "bytes=65536-131071"), rangesAsked(name));
    }

    @Test
    void aReadBeyondWhatWasReadAheadAsksAgain() {
        String name = unique("ahead/longer-");
        byte[] data = stored(name, 12 * MIB + 5);
        QVAzurePlugInLibrary l = viaProxy("");
        readInSlices(l, name, data, data.length, 2 * MIB);
        assertEquals(List.of("bytes=0-8388607", "bytes=8388608-16777215"), rangesAsked(name));
    }

    /**
     * A slice that asks one byte more than is left (the way a reader checks
     * that an object did not grow) gets what is left, from the same answer;
     * a read at the end gets nothing.
     */
    @Test
    void theLastSliceEndsWhereTheObjectEnds() {
        String name = unique("ahead/end-");
        byte[] data = stored(name, 4 * MIB);
        QVAzurePlugInLibrary l = viaProxy("");
        assertSlice(data, 0, slice(l, name, 0, 2 * MIB), "first half");
        byte[] last = slice(l, name, 2 * MIB, 2 * MIB + 1);
        assertEquals(2 * MIB, last.length, "what is left of the object");
        assertSlice(data, 2 * MIB, last, "second half");
        assertEquals(1, rangesAsked(name).size(), "one request for both halves");
        assertEquals(0, slice(l, name, 4 * MIB, MIB).length, "a read at the end");
    }

    /** A slice that asks past the answer of an object that goes on is not cut short. */
    @Test
    void aSlicePastTheAnswerOfALongerObjectIsWhole() {
        String name = unique("ahead/grown-");
        byte[] data = stored(name, 8 * MIB + 1);
        QVAzurePlugInLibrary l = viaProxy("");
        readInSlices(l, name, data, 6 * MIB, 2 * MIB);
        byte[] last = slice(l, name, 6 * MIB, 2 * MIB + 1);
        assertEquals(2 * MIB + 1, last.length, "the byte past the first answer is there too");
        assertSlice(data, 6 * MIB, last, "the last slice");
    }

    /**
     * An answer that stops halfway (the proxy sends half its body, then
     * closes) is noticed by the slice that needs the missing bytes, which
     * asks again from its own offset; every slice holds the right bytes.
     */
    @Test
    void anAnswerThatBreaksWhileParkedIsAskedForAgain() {
        String name = unique("ahead/broken-");
        byte[] data = stored(name, 4 * MIB);
        QVAzurePlugInLibrary l = viaProxy("RequestTimeoutSeconds=5");
        FaultProxy.Rule cut = proxy.add(getOf(name), 1, FaultProxy.Fault.stallBody(200));
        readInSlices(l, name, data, data.length, MIB);
        assertEquals(1, cut.applied());
        assertEquals(List.of("bytes=0-4194303", "bytes=2097152-6291455"), rangesAsked(name));
    }

    /** A write of the object through the library drops what was read ahead of its old version. */
    @Test
    void aWriteOfTheObjectDropsWhatWasReadAhead() {
        String name = unique("ahead/rewritten-");
        byte[] before = stored(name, 8 * MIB);
        QVAzurePlugInLibrary l = viaProxy("");
        assertSlice(before, 0, slice(l, name, 0, 2 * MIB), "first slice of the old version");
        byte[] after = randomBytes(8 * MIB, 7);
        assertOk(l.WriteObject(name, after, after.length), "WriteObject over it");
        assertSlice(after, 2 * MIB, slice(l, name, 2 * MIB, 2 * MIB), "second slice, of the new version");
        assertEquals(2, rangesAsked(name).size());
    }

    /** Slices of two objects read in turn, each slice on another thread, go on in their own answers. */
    @Test
    void interleavedSlicesOnOtherThreadsGoOnInTheirOwnAnswers() throws Exception {
        String a = unique("ahead/a-");
        String b = unique("ahead/b-");
        byte[] dataA = stored(a, 4 * MIB);
        byte[] dataB = stored(b, 4 * MIB);
        QVAzurePlugInLibrary l = viaProxy("");
        ExecutorService threads = Executors.newFixedThreadPool(2);
        try {
            for (int at = 0; at < 4 * MIB; at += MIB) {
                final long offset = at;
                Future<byte[]> sliceA = threads.submit(() -> slice(l, a, offset, MIB));
                byte[] gotA = sliceA.get();
                Future<byte[]> sliceB = threads.submit(() -> slice(l, b, offset, MIB));
                assertSlice(dataA, at, gotA, "a at " + at);
                assertSlice(dataB, at, sliceB.get(), "b at " + at);
            }
        } finally {
            threads.shutdownNow();
        }
        assertEquals(List.of("bytes=0-4194303"), rangesAsked(a));
        assertEquals(List.of("bytes=0-4194303"), rangesAsked(b));
    }

    /** A slice served from a parked answer still reports the object's metadata. */
    @Test
    void aContinuedReadReportsTheObjectsMetadata() {
        String name = unique("ahead/meta-");
        byte[] data = randomBytes(4 * MIB, 3);
        assertOk(direct.WriteObject(name, data, data.length, metaArray(Map.of("owner", "nightly"))),
                 "WriteObject with metadata");
        QVAzurePlugInLibrary l = viaProxy("");
        for (int at = 0; at < data.length; at += 2 * MIB) {
            byte[] into = new byte[2 * MIB];
            CRObjectByNameFnValue r = l.ReadObjectByName(name, into, at, into.length, new String[] {"owner"});
            assertOk(r, "ReadObjectByName at " + at);
            assertEquals(2 * MIB, r.bytesRead);
            assertSlice(data, at, into, "slice at " + at);
            assertEquals(Map.of("owner", "nightly"), asMap(r.values), "metadata at " + at);
        }
        assertEquals(1, rangesAsked(name).size());
    }
}
