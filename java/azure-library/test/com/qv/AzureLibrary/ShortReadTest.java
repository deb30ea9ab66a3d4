package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.assertError;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.randomBytes;
import static com.qv.AzureLibrary.TestSupport.readBackSha256;
import static com.qv.AzureLibrary.TestSupport.sha256;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.security.MessageDigest;
import java.util.Arrays;
import java.util.Base64;
import java.util.List;
import java.util.function.Predicate;

import org.junit.jupiter.api.Test;

/**
 * No short success: answers cut off halfway (the connection closed cleanly
 * with bytes still announced) are resumed from where they stopped, on the
 * same version of the object; an object replaced meanwhile is reported;
 * uploads carry MD5s the service checks, and whole-object reads are
 * checked against the object's MD5.
 */
class ShortReadTest extends ProxiedAzuriteTest {
    private static Predicate<FaultProxy.Request> getOf(String name) {
        return r -> r.method.equals("GET") && r.path.endsWith("/" + name);
    }

    private static Predicate<FaultProxy.Request> putOf(String name) {
        return r -> r.method.equals("PUT") && r.path.endsWith("/" + name);
    }

    private static List<FaultProxy.Request> gets(String name) {
        return proxy.seen().stream().filter(getOf(name)).toList();
    }

    private static String md5(byte[] data) throws Exception {
        return Base64.getEncoder().encodeToString(MessageDigest.getInstance("MD5").digest(data));
    }

    /**
     * An object of 3,000,000 bytes, a library through the proxy with these
     * keys, and the proxy set to cut the object's next answer off at half.
     */
    private byte[] storedAndCut(String name, String options) {
        byte[] data = stored(name, 3_000_000);
        viaProxy(options);
        proxy.add(getOf(name), 1, FaultProxy.Fault.cutBody());
        return data;
    }

    private static byte[] stored(String name, int size) {
        byte[] data = randomBytes(size, name.hashCode());
        assertOk(direct.WriteObject(name, data, size), "WriteObject " + name);
        return data;
    }

    /**
     * The case of the report: 3,000,000 bytes asked for, the answer cut
     * after 1,500,000. The read goes on from there with If-Match and
     * answers all 3,000,000 bytes, as stored.
     */
    @Test
    void anAnswerCutOffHalfwayIsResumedWhereItStopped() {
        String name = unique("cut/");
        byte[] data = storedAndCut(name, "RetryBaseDelayMillis=10;RetryMaxDelayMillis=20");
        byte[] back = new byte[3_000_000];
        CReadObjectFnValue r = lib.ReadObject(name, back, back.length, 0);
        assertOk(r, "ReadObject of a cut answer");
        assertEquals(3_000_000, r.sizeRead);
        assertArrayEquals(data, back);
        List<FaultProxy.Request> gets = gets(name);
        assertEquals(2, gets.size());
        assertNull(gets.get(0).header("If-Match"), "the first request knows no version yet");
        assertEquals("bytes=1500000-" + (8 * 1024 * 1024 - 1), gets.get(1).header("x-ms-range"), "resumed there");
        assertEquals(gets.get(0).replyHeader("ETag"), gets.get(1).header("If-Match"), "on the same version");
    }

    /** Without retries the cut answer is a failure, never a short success. */
    @Test
    void aCutAnswerWithoutRetriesIsAFailureNotAShortRead() {
        String name = unique("cut-once/");
        storedAndCut(name, "RetryMaxAttempts=1");
        CReadObjectFnValue r = lib.ReadObject(name, new byte[3_000_000], 3_000_000, 0);
        assertError(ERRORID.NETWORK_ERROR, r, "ReadObject of a cut answer, no retry");
        assertEquals(0, r.sizeRead);
    }

    /** A listing page cut off halfway is asked for again, not taken as the end or as bad XML. */
    @Test
    void aListingPageCutOffHalfwayIsAskedForAgain() {
        String prefix = unique("cutlist/");
        for (int i = 0; i < 20; ++i) {
            assertOk(direct.WriteObject(prefix + i, new byte[1], 1), "WriteObject");
        }
        QVAzurePlugInLibrary l = viaProxy("RetryBaseDelayMillis=10;RetryMaxDelayMillis=20");
        FaultProxy.Rule cut = proxy.add(FaultProxy.Request::isListBlobs, 1, FaultProxy.Fault.cutBody());
        CRetGetSubMetaDataList list = l.GetObjectSubList(prefix);
        assertOk(list, "GetObjectSubList");
        assertEquals(20, list.metaDat.length);
        assertEquals(1, cut.applied());
        assertEquals(2, proxy.countSeen(FaultProxy.Request::isListBlobs));
    }

    /** Read ahead: a parked answer that ends early is continued by a request on the same version. */
    @Test
    void aParkedAnswerCutOffIsContinuedOnTheSameVersion() {
        String name = unique("cut-ahead/");
        byte[] data = stored(name, 8 << 20);
        QVAzurePlugInLibrary l = viaProxy("RetryBaseDelayMillis=10;RetryMaxDelayMillis=20");
        proxy.add(getOf(name), 1, FaultProxy.Fault.cutBody());
        assertArrayEquals(sha256(data, 0, data.length), readBackSha256(l, name, data.length, 2 << 20));
        List<FaultProxy.Request> gets = gets(name);
        assertTrue(gets.size() >= 2, "asked again");
        for (FaultProxy.Request g : gets.subList(1, gets.size())) {
            assertEquals(gets.get(0).replyHeader("ETag"), g.header("If-Match"), g.header("x-ms-range"));
        }
    }

    /**
     * The object is replaced between the cut answer and its continuation:
     * the continuation is refused by the service (If-Match) and the read
     * fails with CONDITION_NOT_MET, its log line saying what happened.
     */
    @Test
    void anObjectReplacedMidReadIsReportedNeverMixed() {
        String name = unique("replaced/");
        storedAndCut(name, "RetryBaseDelayMillis=10;RetryMaxDelayMillis=20");
        proxy.add(getOf(name), 1, FaultProxy.Fault.before(() -> stored(name, 3_000_000 - 1)));
        try (TestSupport.LogCapture log = new TestSupport.LogCapture()) {
            CReadObjectFnValue r = lib.ReadObject(name, new byte[3_000_000], 3_000_000, 0);
            assertError(ERRORID.CONDITION_NOT_MET, r, "ReadObject of an object replaced mid-read");
            assertEquals(1, log.with("replaced while it was being read").size(), log.lines().toString());
        }
        assertEquals(412, Integer.parseInt(gets(name).get(1).reply.get("").split(" ")[1]), "refused by Azurite");
    }

    /** Slices read in separate calls: the second, after the object changed, is refused, not mixed in. */
    @Test
    void aSliceAfterTheObjectChangedIsRefused() {
        String name = unique("sliced/");
        byte[] data = stored(name, 256 << 10);
        QVAzurePlugInLibrary l = viaProxy("");
        byte[] slice = new byte[64 << 10];
        assertOk(l.ReadObject(name, slice, slice.length, 0), "first slice");
        assertArrayEquals(Arrays.copyOf(data, slice.length), slice);
        stored(name, 256 << 10); // another writer (seeded alike, but a new version all the same)
        assertError(ERRORID.CONDITION_NOT_MET, l.ReadObject(name, slice, slice.length, 64 << 10), "second slice");
        assertOk(l.ReadObject(name, slice, slice.length, 0), "a read from the start is a new read");
    }

    /** Put Blob carries the body's MD5, Put Block List the whole content's; Azurite keeps it. */
    @Test
    void uploadsCarryMd5sAndTheObjectKeepsTheWholeOne() throws Exception {
        QVAzurePlugInLibrary l = viaProxy("");
        String small = unique("md5/small-");
        byte[] a = randomBytes(1000, 1);
        assertOk(l.WriteObject(small, a, a.length), "WriteObject 1000 B");
        assertEquals(md5(a), proxy.seen().get(0).header("Content-MD5"));

        String big = unique("md5/big-");
        byte[] b = randomBytes(QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 12345, 2);
        proxy.reset();
        assertOk(l.WriteObject(big, b, b.length), "WriteObject in blocks");
        FaultProxy.Request list = proxy.seen().stream().filter(r -> "blocklist".equals(r.param("comp")))
            .findFirst().orElseThrow();
        assertEquals(md5(b), list.header("x-ms-blob-content-md5"));
        proxy.reset();
        assertOk(l.GetObjectMetaData(big), "GetObjectMetaData (a HEAD)");
        assertEquals(md5(b), proxy.seen().get(0).replyHeader("Content-MD5"), "kept as the object's MD5");
    }

    /** A body damaged on its way up is refused by the service; nothing is stored. */
    @Test
    void aDamagedUploadIsRefused() {
        QVAzurePlugInLibrary l = viaProxy("RetryMaxAttempts=1");
        String name = unique("md5/damaged-");
        proxy.add(putOf(name), 1, FaultProxy.Fault.corruptRequest());
        // Azure answers 400 Md5Mismatch (CHECKSUM_MISMATCH); Azurite 400 InvalidOperation.
        ERRORID id = TestSupport.idOf(l.WriteObject(name, randomBytes(5000, 3), 5000));
        assertTrue(id == ERRORID.CHECKSUM_MISMATCH || id == ERRORID.INVALID_ARGUMENT, "refused: " + id);
        assertTrue(!direct.IsObjectExist(name).isExist, "the damaged body was not stored");
    }

    /** A whole object read whose bytes do not match its MD5 fails with CHECKSUM_MISMATCH. */
    @Test
    void aDamagedDownloadOfAWholeObjectIsCaught() {
        String name = unique("md5/read-");
        stored(name, 100_000);
        QVAzurePlugInLibrary l = viaProxy("");
        proxy.add(getOf(name), 1, FaultProxy.Fault.corruptReply());
        assertError(ERRORID.CHECKSUM_MISMATCH, l.ReadObject(name, new byte[100_000], 100_000, 0), "damaged read");
        String big = unique("md5/read-ahead-");
        stored(big, 4 << 20);
        proxy.add(getOf(big), 1, FaultProxy.Fault.corruptReply());
        byte[] slice = new byte[1 << 20];
        for (int at = 0; at < 3 << 20; at += 1 << 20) {
            assertOk(l.ReadObject(big, slice, slice.length, at), "slice at " + at);
        }
        assertError(ERRORID.CHECKSUM_MISMATCH, l.ReadObject(big, slice, slice.length, 3 << 20),
                    "the last slice of a whole answer whose MD5 does not match");
    }

    /**
     * VerifyDownloadMd5=false leaves the whole-object MD5 check to a caller
     * that authenticates what it reads: the same damaged answer is handed
     * on as read (the caller's own check is what catches it).
     */
    @Test
    void aCallerThatVerifiesItselfCanTurnTheDownloadMd5Off() {
        String name = unique("md5/off-");
        byte[] data = stored(name, 100_000);
        QVAzurePlugInLibrary l = viaProxy("VerifyDownloadMd5=false");
        proxy.add(getOf(name), 1, FaultProxy.Fault.corruptReply());
        byte[] back = new byte[100_000];
        CReadObjectFnValue r = l.ReadObject(name, back, back.length, 0);
        assertOk(r, "ReadObject without the MD5 check");
        assertEquals(100_000, r.sizeRead);
        assertTrue(!Arrays.equals(data, back), "the proxy damaged the answer");
        assertOk(l.ReadObject(name, back, back.length, 0), "an undamaged read");
        assertArrayEquals(data, back);
    }
}
