package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.assertError;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.io.File;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.Test;

/**
 * Listings in bounded memory: 200,000 objects listed and summed by a JVM
 * with a 64 MiB heap.
 *
 * The 200,000 objects are not in Azurite: filling it with that many takes
 * far longer than this suite may (10,000 one-byte objects took 89 s with 8
 * writers on the 2-core build machine, so 200,000 would take half an hour
 * or more), so the fault proxy answers the List Blobs
 * requests with pages it makes itself, 40 pages of 5,000 blobs in the
 * service's format, each with one metadata entry, a tier and a size, the
 * pages chained by NextMarker. Everything else (AzureInit, the requests,
 * the parsing, the projection to the host's values) is the library's own,
 * through a real HTTP exchange; LargeListingTest lists 5,107 real objects.
 */
class BoundedListingTest extends ProxiedAzuriteTest {
    static final int PAGES = 40;
    static final int PER_PAGE = 5000;

    /** The name of the i-th generated object. */
    static String name(int i) {
        return String.format("gen/%07d", i);
    }

    /** Page k of the generated listing: objects k*5000.. with size i % 1000, the marker of page k+1. */
    private static byte[] page(FaultProxy.Request r) {
        String marker = r.param("marker");
        int k = marker == null ? 0 : Integer.parseInt(marker.substring(1));
        String include = r.param("include");
        boolean meta = include != null && List.of(java.net.URLDecoder.decode(include, StandardCharsets.UTF_8)
                                                      .split(",")).contains("metadata");
        StringBuilder x = new StringBuilder(PER_PAGE * 260);
        x.append("<?xml version=\"1.0\" encoding=\"utf-8\"?><EnumerationResults ServiceEndpoint=\"http://x/\" "
                 + "ContainerName=\"c\"><MaxResults>5000</MaxResults><Blobs>");
        for (int i = k * PER_PAGE; i < (k + 1) * PER_PAGE; ++i) {
            x.append("<Blob><Name>").append(name(i)).append("</Name><Properties><Creation-Time>Wed, 25 Nov 2026 "
                + "10:00:00 GMT</Creation-Time><Etag>0x8DD").append(i).append("</Etag><Content-Length>")
                .append(i % 1000).append("</Content-Length><Content-Type>application/octet-stream</Content-Type>"
                + "<BlobType>BlockBlob</BlobType><AccessTier>Hot</AccessTier><AccessTierInferred>true"
                + "</AccessTierInferred></Properties>");
            if (meta) {
                x.append("<Metadata><owner>nightly</owner></Metadata>");
            }
            x.append("</Blob>");
        }
        x.append("</Blobs>");
        if (k + 1 < PAGES) {
            x.append("<NextMarker>m").append(k + 1).append("</NextMarker>");
        }
        x.append("</EnumerationResults>");
        return x.toString().getBytes(StandardCharsets.UTF_8);
    }

    @Test
    void twoHundredThousandObjectsAreListedAndSummedWithA64MiBHeap() throws Exception {
        proxy.add(FaultProxy.Request::isListBlobs, FaultProxy.ALWAYS, FaultProxy.Fault.generated(
            BoundedListingTest::page));
        String out = runProbe("-Xmx64m", AzuriteServer.connectionString(container, proxy.port(), ""));
        long sum = 0;
        for (int i = 0; i < PAGES * PER_PAGE; ++i) {
            sum += i % 1000;
        }
        assertEquals("init=0 list=0 entries=200000 good=200000 size=0:" + sum, out.substring(0, out.indexOf(" heap")),
                     out);
        assertEquals(2 * PAGES, proxy.countSeen(FaultProxy.Request::isListBlobs), "every page once, twice over");
    }

    /** Past ListMaxEntries the sub-list fails with its own clear error instead of filling the heap. */
    @Test
    void aListingPastListMaxEntriesFailsClearly() {
        QVAzurePlugInLibrary l = viaProxy("ListMaxEntries=12000");
        proxy.add(FaultProxy.Request::isListBlobs, FaultProxy.ALWAYS, FaultProxy.Fault.generated(
            BoundedListingTest::page));
        try (TestSupport.LogCapture log = new TestSupport.LogCapture()) {
            assertError(ERRORID.QUOTA_EXCEEDED, l.GetObjectSubList("gen/"), "GetObjectSubList past the cap");
            assertEquals(1, log.with("ListMaxEntries").size(), log.lines().toString());
        }
        assertEquals(3, proxy.countSeen(FaultProxy.Request::isListBlobs), "stopped at the page past the cap");
        assertTrue(l.GetAllObjectsSize().size > 0, "the sum has no cap: it keeps nothing");
    }

    /** Runs ListingProbe in a JVM of its own with the given heap option; answers its line. */
    private static String runProbe(String heap, String connection) throws Exception {
        Path testClasses = Path.of(ListingProbe.class.getProtectionDomain().getCodeSource().getLocation().toURI());
        List<String> cmd = new ArrayList<>();
        cmd.add(Path.of(System.getProperty("java.home"), "bin", "java").toString());
        cmd.addAll(List.of(heap, "-cp", System.getProperty("qv.library.jar") + File.pathSeparator + testClasses,
                           ListingProbe.class.getName(), connection, "gen/"));
        ProcessBuilder pb = new ProcessBuilder(cmd).redirectErrorStream(true);
        Path out = Files.createTempFile("listing-probe", ".txt");
        pb.redirectOutput(out.toFile());
        long t0 = System.nanoTime();
        Process p = pb.start();
        assertTrue(p.waitFor(240, TimeUnit.SECONDS), "the probe JVM ended");
        String text = Files.readString(out, StandardCharsets.UTF_8).trim();
        Files.delete(out);
        System.out.printf("200,000 objects with %s: %s (%.1f s)%n", heap, text, (System.nanoTime() - t0) / 1e9);
        assertEquals(0, p.exitValue(), text);
        return text;
    }
}
