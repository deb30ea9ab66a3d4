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
 * AccessTier: every object the library writes gets the tier (Put Blob and
 * Put Block List carry x-ms-access-tier), Azurite stores it and reports it
 * on a HEAD, which the library makes for GetObjectMetaData; the proxy in
 * between shows both. Reading an archived object fails with
 * ARCHIVED_OBJECT_NOT_READABLE (Azurite answers 409 BlobArchived).
 */
class AccessTierTest extends ProxiedAzuriteTest {
    private static Predicate<FaultProxy.Request> putBlob(String name) {
        return r -> r.method.equals("PUT") && r.query.isEmpty() && r.path.endsWith("/" + name);
    }

    private static Predicate<FaultProxy.Request> putBlockList(String name) {
        return r -> r.method.equals("PUT") && "blocklist".equals(r.param("comp")) && r.path.endsWith("/" + name);
    }

    private static FaultProxy.Request only(Predicate<FaultProxy.Request> p, String what) {
        List<FaultProxy.Request> l = proxy.seen().stream().filter(p).toList();
        assertEquals(1, l.size(), what);
        return l.get(0);
    }

    /** The tier the service reports for the object, from the HEAD of the library's GetObjectMetaData. */
    private String storedTier(QVAzurePlugInLibrary l, String name) {
        proxy.reset();
        assertOk(l.GetObjectMetaData(name), "GetObjectMetaData " + name);
        return only(r -> r.method.equals("HEAD"), "one HEAD").replyHeader("x-ms-access-tier");
    }

    @ParameterizedTest(name = "AccessTier={0}")
    @ValueSource(strings = {"Hot", "Cool", "Cold", "Archive"})
    void everyWrittenObjectGetsTheTier(String tier) {
        QVAzurePlugInLibrary l = viaProxy("AccessTier=" + tier.toLowerCase(java.util.Locale.ROOT));
        String small = unique("tier/" + tier + "/");
        String big = unique("tier/" + tier + "/");
        int bigSize = QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1;
        byte[] smallData = randomBytes(1000, 1);
        byte[] bigData = randomBytes(bigSize, 2);
        assertOk(l.WriteObject(small, smallData, smallData.length, TestSupport.metaArray(Map.of("k", "v"))),
                 "Put Blob");
        assertOk(l.WriteObject(big, bigData, bigSize), "block upload");
        assertEquals(tier, only(putBlob(small), "one Put Blob").header("x-ms-access-tier"));
        assertEquals(tier, only(putBlockList(big), "one Put Block List").header("x-ms-access-tier"));
        assertTrue(proxy.seen().stream().filter(FaultProxy.Request::isPutBlock)
                       .allMatch(r -> r.header("x-ms-access-tier") == null), "Put Block has no tier");

        for (String name : new String[] {small, big}) {
            assertEquals(tier, storedTier(l, name), "the tier Azurite reports for " + name);
        }
        assertEquals("v", l.GetObjectMetaData(small, "k").value, "metadata of an object in " + tier);
        CObjectSubListElement[] listed = l.GetObjectSubList("tier/" + tier + "/").metaDat;
        assertEquals(2, listed.length, "listed");
        for (CObjectSubListElement e : listed) {
            assertEquals(tier, TestSupport.asMap(e.metaDat).get(QVAzurePlugInLibrary.ACCESS_TIER),
                         "the listing's tier of " + e.szFileName);
        }

        if (tier.equals("Archive")) {
            ERRORID archived = ERRORID.ARCHIVED_OBJECT_NOT_READABLE;
            assertError(archived, l.ReadObject(small, new byte[10], 10, 0), "ReadObject of an archived object");
            assertError(archived, l.ReadObject(big, new byte[10], 10, 5), "ReadObject of an archived block upload");
            assertError(archived, l.ReadObjectByName(small, new byte[10], 0, 10, null), "ReadObjectByName");
            assertError(archived, direct.ReadObjectByHandle(big, new byte[10], 0, 10, null), "ReadObjectByHandle");
            assertTrue(l.IsObjectExist(small).isExist, "an archived object exists");
            assertOk(l.DeleteObjectByName(small), "an archived object can be deleted");
        } else {
            assertArrayEquals(sha256(smallData, 0, smallData.length),
                              readBackSha256(l, small, smallData.length, 300));
            assertArrayEquals(sha256(bigData, 0, bigSize), readBackSha256(l, big, bigSize, 3 << 20));
        }
    }

    @Test
    void withoutAccessTierTheAccountDefaultApplies() {
        QVAzurePlugInLibrary l = viaProxy("");
        String name = unique("tier/default/");
        assertOk(l.WriteObject(name, new byte[10], 10), "WriteObject");
        assertNull(only(putBlob(name), "one Put Blob").header("x-ms-access-tier"), "no tier sent");
        proxy.reset();
        assertOk(l.GetObjectMetaData(name), "GetObjectMetaData");
        FaultProxy.Request head = only(r -> r.method.equals("HEAD"), "one HEAD");
        assertEquals("Hot", head.replyHeader("x-ms-access-tier"), "Azurite's default");
        assertEquals("true", head.replyHeader("x-ms-access-tier-inferred"), "inferred, not set");
        assertEquals(Map.of(QVAzurePlugInLibrary.ACCESS_TIER, "Hot"),
                     TestSupport.asMap(l.GetObjectSubList(name).metaDat[0].metaDat), "listed in the inferred tier");
    }

    /**
     * CreateObject and OpenObject(name, true) make an empty placeholder in
     * the account's default tier, so that the write that follows can replace
     * it even under Archive (an archived object cannot be overwritten on
     * Azurite); that write sets the tier.
     */
    @Test
    void placeholdersStayInTheDefaultTierAndTheirContentGetsTheTier() {
        QVAzurePlugInLibrary l = viaProxy("AccessTier=Archive");
        String created = unique("tier/created/");
        String opened = unique("tier/opened/");
        assertOk(l.CreateObject(created), "CreateObject");
        assertOk(l.OpenObject(opened, true), "OpenObject creating");
        assertNull(only(putBlob(created), "Put Blob of CreateObject").header("x-ms-access-tier"));
        assertNull(only(putBlob(opened), "Put Blob of OpenObject").header("x-ms-access-tier"));
        for (String name : new String[] {created, opened}) {
            assertOk(l.WriteObject(name, new byte[100], 100), "WriteObject over the placeholder " + name);
            assertEquals("Archive", storedTier(l, name), name);
        }
        // Azurite refuses to overwrite an archived object; the write reports it with the archive id.
        assertError(ERRORID.ARCHIVED_OBJECT_NOT_READABLE, l.WriteObject(created, new byte[5], 5),
                    "WriteObject over an archived object");
    }
}
