package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.asMap;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * A sub-list larger than one List Blobs page (the service answers at most
 * 5,000 entries a page): every object exactly once, with its metadata.
 */
class LargeListingTest {
    private static final int INSIDE = 5_100;
    private static final int OUTSIDE = 7;
    private static final String PREFIX = "many/";

    private static AzuriteServer azurite;
    private static String container;
    private static QVAzurePlugInLibrary lib;
    private static long totalBytes;

    private static String nameOf(int i) {
        return String.format(Locale.ROOT, "%sobj-%05d", PREFIX, i);
    }

    private static Map<String, String> metaOf(int i) {
        return Map.of("index", Integer.toString(i), "Schlüssel mit Blanks", " wert " + i);
    }

    @BeforeAll
    static void fill() throws Exception {
        azurite = AzuriteServer.get();
        container = TestSupport.uniqueContainer("list");
        lib = TestSupport.connected(azurite.connectionString(container));
        // A few writers at once: the service is local, and one at a time would take most of the test's time.
        ExecutorService pool = Executors.newFixedThreadPool(6);
        try {
            List<Future<?>> done = new ArrayList<>();
            for (int i = 0; i < INSIDE; ++i) {
                int n = i;
                totalBytes += n % 5;
                done.add(pool.submit(() -> assertOk(
                    lib.WriteObject(nameOf(n), new byte[n % 5], n % 5, TestSupport.metaArray(metaOf(n))),
                    "WriteObject " + nameOf(n))));
            }
            for (int i = 0; i < OUTSIDE; ++i) {
                String n = (i % 2 == 0 ? "many-not/" : "other/") + i;
                totalBytes += 10;
                done.add(pool.submit(() -> assertOk(lib.WriteObject(n, new byte[10], 10), "WriteObject " + n)));
            }
            for (Future<?> f : done) {
                f.get();
            }
        } finally {
            pool.shutdown();
        }
    }

    @AfterAll
    static void empty() {
        TestSupport.dropContainer(lib);
    }

    /** Checks that the list holds every object under the prefix exactly once, each with its metadata and tier. */
    private static void assertWholeList(CRetGetSubMetaDataList list) {
        assertOk(list, "GetObjectSubList");
        assertEquals(INSIDE, list.metaDat.length);
        Map<String, CObjectSubListElement> byName = new HashMap<>();
        for (CObjectSubListElement e : list.metaDat) {
            assertFalse(byName.containsKey(e.szFileName), "listed twice: " + e.szFileName);
            byName.put(e.szFileName, e);
        }
        for (int i = 0; i < INSIDE; ++i) {
            CObjectSubListElement e = byName.get(nameOf(i));
            assertTrue(e != null, "missing " + nameOf(i));
            assertEquals(TestSupport.listedInTier(metaOf(i), "Hot"), asMap(e.metaDat), nameOf(i));
        }
    }

    @Test
    void everyObjectUnderThePrefixOnceWithItsMetadataAcrossPages() throws Exception {
        // Through a pass-through proxy, to see how many pages the listing took.
        try (FaultProxy counter = new FaultProxy(azurite.port)) {
            QVAzurePlugInLibrary viaProxy = TestSupport.connected(
                AzuriteServer.connectionString(container, counter.port(), ""));
            counter.reset();
            try {
                assertWholeList(viaProxy.GetObjectSubList(PREFIX));
                assertEquals(2, counter.countSeen(FaultProxy.Request::isListBlobs),
                             "5,100 entries take two pages of at most 5,000, the second by NextMarker");
                assertTrue(counter.seen().get(1).query.contains("marker="), "the second page asked by marker");
            } finally {
                viaProxy.AzureDeInit();
            }
        }
    }

    @Test
    void smallerPagesAndTheWholeContainer() {
        QVAzurePlugInLibrary small = TestSupport.connected(azurite.connectionString(container));
        try {
            small.setListPageSize(1_000);
            assertWholeList(small.GetObjectSubList(PREFIX));
            CRetGetSubMetaDataList all = small.GetObjectSubList(null);
            assertOk(all, "GetObjectSubList(null)");
            assertEquals(INSIDE + OUTSIDE, all.metaDat.length);
            assertEquals(totalBytes, small.GetAllObjectsSize().size);
        } finally {
            small.AzureDeInit();
        }
    }
}
