package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.asMap;
import static com.qv.AzureLibrary.TestSupport.assertError;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.metaArray;
import static com.qv.AzureLibrary.TestSupport.randomBytes;
import static com.qv.AzureLibrary.TestSupport.readBackSha256;
import static com.qv.AzureLibrary.TestSupport.sha256;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.ERRORID;
import com.qv.azure.rest.MetadataCodec;

import java.nio.charset.StandardCharsets;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.function.Predicate;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Bringing archived objects back: SetObjectMetaData of x-ms-access-tier
 * sends Set Blob Tier (PUT ?comp=tier) with the tier and, when asked, the
 * rehydrate priority; listings and property reads report the tier, the
 * archive status and the rehydrate priority.
 *
 * Azurite models the tier change itself, and makes a rehydration instant:
 * Archive to an online tier answers 202 and the object is in the new tier
 * at once, readable, with no archive status and no rehydrate priority ever
 * reported (it stores neither). What only Azure does, a rehydration that
 * stays pending for hours (x-ms-archive-status rehydrate-pending-to-...,
 * x-ms-rehydrate-priority, 409 BlobBeingRehydrated for a second change), is
 * played by the fault proxy's canned answers in front of Azurite.
 */
class RehydrateTest extends ProxiedAzuriteTest {
    private static final String TIER = QVAzurePlugInLibrary.ACCESS_TIER;
    private static final String STATUS = QVAzurePlugInLibrary.ARCHIVE_STATUS;
    private static final String PRIORITY = QVAzurePlugInLibrary.REHYDRATE_PRIORITY;

    private static Predicate<FaultProxy.Request> setTier(String name) {
        return r -> r.method.equals("PUT") && "tier".equals(r.param("comp")) && r.path.endsWith("/" + name);
    }

    private static Predicate<FaultProxy.Request> head(String name) {
        return r -> r.method.equals("HEAD") && r.path.endsWith("/" + name);
    }

    /** The one request the proxy saw since its last reset; fails when there were more or none. */
    private static FaultProxy.Request theOnlyRequest(String what) {
        List<FaultProxy.Request> seen = proxy.seen();
        assertEquals(1, seen.size(), what + ": requests " + seen.stream().map(r -> r.method + " " + r.query).toList());
        return seen.get(0);
    }

    /** The listed properties of the one object of that name. */
    private static Map<String, String> listed(QVAzurePlugInLibrary l, String name) {
        CRetGetSubMetaDataList list = l.GetObjectSubList(name);
        assertOk(list, "GetObjectSubList " + name);
        assertEquals(1, list.metaDat.length, "listed once");
        assertEquals(name, list.metaDat[0].szFileName);
        return asMap(list.metaDat[0].metaDat);
    }

    /**
     * The listed properties of an object outside the Hot tier, less the time
     * its tier was set, which must be listed (an HTTP date, not in the future).
     */
    private static Map<String, String> listedWithTierTime(QVAzurePlugInLibrary l, String name) {
        Map<String, String> props = new HashMap<>(listed(l, name));
        String time = props.remove(MetadataProjection.TIER_CHANGE_TIME);
        assertNotNull(time, "when the tier was set, outside the Hot tier: " + props);
        java.time.ZonedDateTime set =
            java.time.ZonedDateTime.parse(time, java.time.format.DateTimeFormatter.RFC_1123_DATE_TIME);
        assertTrue(!set.toInstant().isAfter(java.time.Instant.now().plusSeconds(60)), time);
        return props;
    }

    private static Map<String, String> plus(Map<String, String> m, String... namesAndValues) {
        Map<String, String> out = new HashMap<>(m);
        out.putAll(TestSupport.ordered(namesAndValues));
        return out;
    }

    private static String status(FaultProxy.Request r) {
        return r.replyHeader("");
    }

    /**
     * On Azurite: to Archive (200, unreadable, listed as Archive), then back
     * to an online tier with a priority (202, and at once in that tier and
     * readable); the content and the metadata unchanged throughout, and each
     * change one request with nothing but the tier and the priority.
     */
    @ParameterizedTest(name = "Archive, then {0}")
    @ValueSource(strings = {"Hot", "Cool", "Cold"})
    void archivedAndBroughtBackOnAzurite(String target) {
        QVAzurePlugInLibrary l = viaProxy("");
        String name = unique("rehydrate/" + target + "/");
        byte[] data = randomBytes(1000, 3);
        Map<String, String> meta = Map.of("k", "v", "size", "1000");
        assertOk(l.WriteObject(name, data, data.length, metaArray(meta)), "WriteObject");
        assertEquals(plus(meta, TIER, "Hot"), listed(l, name), "written in the account's default tier");

        proxy.reset();
        assertOk(l.SetObjectMetaData(name, TIER, "archive"), "to Archive");
        FaultProxy.Request toArchive = theOnlyRequest("to Archive");
        assertTrue(setTier(name).test(toArchive), "Set Blob Tier: " + toArchive.method + " " + toArchive.query);
        assertEquals("Archive", toArchive.header("x-ms-access-tier"));
        assertNull(toArchive.header("x-ms-rehydrate-priority"), "no priority asked, none sent");
        assertTrue(status(toArchive).startsWith("HTTP/1.1 200 "), "Azurite archives at once: " + status(toArchive));

        assertEquals(plus(meta, TIER, "Archive"), listedWithTierTime(l, name), "listed as Archive, metadata kept");
        assertEquals("Archive", l.GetObjectMetaData(name, TIER).value);
        assertError(ERRORID.NOT_FOUND, l.GetObjectMetaData(name, STATUS), "no rehydration pending");
        assertError(ERRORID.ARCHIVED_OBJECT_NOT_READABLE, l.ReadObject(name, new byte[10], 10, 0), "ReadObject");
        assertError(ERRORID.ARCHIVED_OBJECT_NOT_READABLE, l.ReadObjectByName(name, new byte[10], 0, 10, null),
                    "ReadObjectByName");
        // Nothing to read: the read asks Get Blob Properties, which an archived object answers.
        CRObjectByNameFnValue props = l.ReadObjectByName(name, new byte[0], 0, 0, new String[] {TIER, "k"});
        assertOk(props, "ReadObjectByName of 0 bytes");
        assertEquals(Map.of(TIER, "Archive", "k", "v"), asMap(props.values));

        proxy.reset();
        assertOk(l.SetObjectMetaData(name, TIER, target.toUpperCase(java.util.Locale.ROOT) + ";high"),
                 "back to " + target);
        FaultProxy.Request back = theOnlyRequest("back to " + target);
        assertTrue(setTier(name).test(back), "Set Blob Tier: " + back.method + " " + back.query);
        assertEquals(target, back.header("x-ms-access-tier"), "the tier as the service spells it");
        assertEquals("High", back.header("x-ms-rehydrate-priority"));
        assertEquals("0", back.header("Content-Length"), "no body");
        assertEquals(0, back.body.length);
        assertTrue(status(back).startsWith("HTTP/1.1 202 "), "a rehydration begun: " + status(back));

        // Azurite rehydrates at once and reports neither an archive status nor a priority.
        assertEquals(plus(meta, TIER, target), target.equals("Hot") ? listed(l, name) : listedWithTierTime(l, name),
                     "listed in " + target);
        assertEquals(target, l.GetObjectMetaData(name, TIER).value);
        assertError(ERRORID.NOT_FOUND, l.GetObjectMetaData(name, STATUS), "archive status after Azurite's rehydration");
        assertError(ERRORID.NOT_FOUND, l.GetObjectMetaData(name, PRIORITY), "priority after Azurite's rehydration");
        assertArrayEquals(sha256(data, 0, data.length), readBackSha256(l, name, data.length, 300), "content");
        assertEquals(meta, asMap(l.GetObjectMetaData(name).values), "all metadata: the tier is no metadata");
        // A read with bytes is a Get Blob, which carries no tier; Content-Length it does.
        CRObjectByNameFnValue read = l.ReadObjectByName(name, new byte[10], 0, 10,
                                                        new String[] {TIER, "Content-Length"});
        assertOk(read, "ReadObjectByName");
        assertEquals(Map.of("Content-Length", "10"), asMap(read.values));
    }

    /**
     * The request as sent, signed with the account key or carrying a
     * container SAS, and taken by Azurite: method, query, the tier and the
     * priority spelt as the service does whatever the case given.
     */
    @ParameterizedTest(name = "{0}")
    @ValueSource(strings = {"account key", "container SAS"})
    void theRequestIsSignedAndAzuriteTakesIt(String credential) {
        String name = unique("rehydrate/signed/");
        assertOk(direct.WriteObject(name, new byte[5], 5), "WriteObject");
        if (credential.equals("account key")) {
            viaProxy("");
        } else {
            String token = TestSas.container(container, "racwdl", null, TestSas.inAnHour(), AzuriteServer.KEY);
            lib = TestSupport.connected("BlobEndpoint=" + AzuriteServer.endpoint("http", "127.0.0.1", proxy.port())
                                        + ";SharedAccessSignature=" + token + ";Container=" + container);
            proxy.reset();
        }
        String[][] steps = {{"cOOL;standard", "Cool", "Standard"}, {"Archive", "Archive", null},
                            {"hot;HIGH", "Hot", "High"}};
        for (String[] step : steps) {
            proxy.reset();
            assertOk(lib.SetObjectMetaData(name, "X-MS-Access-Tier", step[0]), step[0]);
            FaultProxy.Request r = theOnlyRequest(step[0]);
            assertEquals("PUT", r.method);
            assertTrue(r.path.endsWith("/" + container + "/" + name), r.path);
            assertEquals("tier", r.param("comp"));
            assertEquals(step[1], r.header("x-ms-access-tier"), step[0]);
            assertEquals(step[2], r.header("x-ms-rehydrate-priority"), step[0]);
            assertNotNull(r.header("x-ms-date"), "dated");
            if (credential.equals("account key")) {
                assertTrue(r.header("Authorization").startsWith("SharedKey " + AzuriteServer.ACCOUNT + ":"),
                           "signed with the key");
                assertNull(r.param("sig"));
            } else {
                assertNull(r.header("Authorization"), "no Shared Key with a SAS");
                assertNotNull(r.param("sig"), "the token in the query");
                assertEquals("tier", r.param("comp"), "the token added to the query, comp kept");
            }
            assertTrue(status(r).startsWith("HTTP/1.1 20"), "Azurite took it: " + status(r));
            assertEquals(step[1], direct.GetObjectMetaData(name, TIER).value, "Azurite's tier after " + step[0]);
        }
    }

    /** A value that is no tier (with no more than a priority) is refused before any request. */
    @Test
    void badValuesSendNothing() {
        QVAzurePlugInLibrary l = viaProxy("");
        String name = unique("rehydrate/bad/");
        assertOk(direct.WriteObject(name, new byte[5], 5), "WriteObject");
        String[] bad = {null, "", "Warm", "Hot;", ";High", "Hot;Urgent", "Hot;High;Standard", " Hot", "Hot ",
                        "Hot; High", "Hot;High ", "Hot,High", "Hot High", "Premium", "P10", "Archive;", "Höt",
                        "Hot\u0000", "Standard", "High"};
        for (String v : bad) {
            assertError(ERRORID.INVALID_ARGUMENT, l.SetObjectMetaData(name, TIER, v), "value " + v);
        }
        assertEquals(List.of(), proxy.seen(), "no request for a bad value");
        assertEquals("Hot", direct.GetObjectMetaData(name, TIER).value, "the tier unchanged");
        assertEquals(0, direct.GetObjectMetaData(name).values.length, "and no metadata written");
    }

    /** Names that are not the tier's stay metadata, written as before (Get Blob Properties, Set Blob Metadata). */
    @Test
    void otherNamesStayMetadata() {
        QVAzurePlugInLibrary l = viaProxy("");
        String name = unique("rehydrate/meta/");
        assertOk(direct.WriteObject(name, new byte[5], 5), "WriteObject");
        for (String property : new String[] {"AccessTier", "x-ms-access-tier2", "x_ms_access_tier"}) {
            proxy.reset();
            assertOk(l.SetObjectMetaData(name, property, "Archive"), property);
            assertEquals(List.of("HEAD", "PUT metadata"),
                         proxy.seen().stream().map(r -> r.method + (r.query.isEmpty() ? "" : " " + r.param("comp")))
                             .toList(), property);
            assertEquals("Archive", l.GetObjectMetaData(name, property).value, property);
        }
        assertEquals("Hot", l.GetObjectMetaData(name, TIER).value, "the tier unchanged");
        CReadObjectFnValue read = l.ReadObject(name, new byte[16], 16, 0);
        assertOk(read, "still readable");
        assertEquals(5, read.sizeRead);
    }

    /**
     * Refusals of Set Blob Tier map through the error map: Azurite's own 404
     * BlobNotFound; 409 BlobBeingRehydrated and 400 InvalidHeaderValue as
     * Azure answers them, from the proxy (Azurite never does), each sent
     * once; a 503 ServerBusy retried like any request.
     */
    @Test
    void refusalsMapThroughTheErrorMap() {
        QVAzurePlugInLibrary l = viaProxy("RetryBaseDelayMillis=10");
        String missing = unique("rehydrate/missing/");
        assertError(ERRORID.NOT_FOUND, l.SetObjectMetaData(missing, TIER, "Hot;High"), "a missing object");
        FaultProxy.Request r = theOnlyRequest("a missing object");
        assertTrue(setTier(missing).test(r));
        assertEquals("BlobNotFound", r.replyHeader("x-ms-error-code"), "Azurite's own answer");

        String name = unique("rehydrate/refused/");
        assertOk(direct.WriteObject(name, new byte[5], 5), "WriteObject");
        assertOk(direct.SetObjectMetaData(name, TIER, "Archive"), "archived");
        Object[][] cases = {
            {409, "BlobBeingRehydrated", ERRORID.ARCHIVED_OBJECT_NOT_READABLE},
            {400, "InvalidHeaderValue", ERRORID.INVALID_ARGUMENT},
            {403, "AuthorizationPermissionMismatch", ERRORID.AUTHORIZATION_FAILED},
        };
        for (Object[] c : cases) {
            proxy.reset();
            proxy.add(setTier(name), FaultProxy.ALWAYS, FaultProxy.Fault.status((Integer) c[0], (String) c[1]));
            assertError((ERRORID) c[2], l.SetObjectMetaData(name, TIER, "Cool"), c[0] + " " + c[1]);
            assertEquals(1, proxy.countSeen(setTier(name)), c[1] + " is final: sent once");
        }
        assertEquals(46, ERRORID.ARCHIVED_OBJECT_NOT_READABLE.ordinal(), "the archive id the host knows");

        proxy.reset();
        proxy.add(setTier(name), 1, FaultProxy.Fault.serverBusy());
        assertOk(l.SetObjectMetaData(name, TIER, "Hot"), "after one 503 ServerBusy");
        assertEquals(2, proxy.countSeen(setTier(name)), "sent again");
        assertEquals("Hot", direct.GetObjectMetaData(name, TIER).value, "the second send reached Azurite");
    }

    /**
     * A rehydration as Azure reports it while it is pending, which Azurite
     * does not model: Set Blob Tier answered 202 by the proxy (the object
     * stays archived behind it), Get Blob Properties with Azurite's own
     * headers plus x-ms-archive-status and x-ms-rehydrate-priority, a second
     * change refused with 409 BlobBeingRehydrated, and a listing page as
     * Azure writes it.
     */
    @Test
    void aPendingRehydrationAsAzureReportsIt() {
        QVAzurePlugInLibrary l = viaProxy("");
        String name = unique("rehydrate/pending/");
        assertOk(direct.WriteObject(name, new byte[100], 100, metaArray(Map.of("k", "v"))), "WriteObject");
        assertOk(direct.SetObjectMetaData(name, TIER, "Archive"), "archived");

        proxy.add(setTier(name), 1, FaultProxy.Fault.answer(202, new byte[0]));
        assertOk(l.SetObjectMetaData(name, TIER, "Hot;High"), "a rehydration begun");
        FaultProxy.Request begun = theOnlyRequest("Set Blob Tier");
        assertEquals("Hot", begun.header("x-ms-access-tier"));
        assertEquals("High", begun.header("x-ms-rehydrate-priority"));

        proxy.reset();
        proxy.add(head(name), FaultProxy.ALWAYS, FaultProxy.Fault.replyHeaders()
            .withHeader("x-ms-archive-status", "rehydrate-pending-to-hot")
            .withHeader("x-ms-rehydrate-priority", "High"));
        assertEquals("Archive", l.GetObjectMetaData(name, TIER).value, "Azurite's tier: still archived");
        assertEquals("rehydrate-pending-to-hot", l.GetObjectMetaData(name, STATUS).value);
        assertEquals("rehydrate-pending-to-hot", l.GetObjectMetaData(name, "X-MS-Archive-Status").value, "any case");
        assertEquals("High", l.GetObjectMetaData(name, PRIORITY).value);
        assertEquals("v", l.GetObjectMetaData(name, "k").value, "metadata beside them");
        assertError(ERRORID.NOT_FOUND, l.GetObjectMetaData(name, "x-ms-access-tier-inferred"), "only the three");
        assertError(ERRORID.NOT_FOUND, l.GetObjectMetaData(name, "Content-Length"), "as before");
        CRObjectByNameFnValue props = l.ReadObjectByName(name, new byte[0], 0, 0,
                                                         new String[] {TIER, STATUS, PRIORITY, "Content-Length"});
        assertOk(props, "ReadObjectByName of 0 bytes");
        assertEquals(Map.of(TIER, "Archive", STATUS, "rehydrate-pending-to-hot", PRIORITY, "High",
                            "Content-Length", "100"), asMap(props.values));
        assertTrue(proxy.seen().stream().allMatch(head(name)), "each read one HEAD");
        assertError(ERRORID.ARCHIVED_OBJECT_NOT_READABLE, l.ReadObject(name, new byte[10], 10, 0),
                    "still unreadable while pending");

        proxy.reset();
        proxy.add(setTier(name), FaultProxy.ALWAYS, FaultProxy.Fault.status(409, "BlobBeingRehydrated"));
        assertError(ERRORID.ARCHIVED_OBJECT_NOT_READABLE, l.SetObjectMetaData(name, TIER, "Cool"),
                    "another tier while pending");
        assertEquals(1, proxy.seen().size(), "not sent again");

        String prefix = unique("rehydrate/page/");
        String shadowed = MetadataCodec.encodeName(TIER);
        String page = "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
            + "<EnumerationResults ServiceEndpoint=\"http://127.0.0.1/\" ContainerName=\"" + container + "\">"
            + "<Prefix>" + prefix + "</Prefix><MaxResults>5000</MaxResults><Blobs>"
            + blob(prefix + "a", "<AccessTier>Archive</AccessTier><ArchiveStatus>rehydrate-pending-to-cool"
                   + "</ArchiveStatus><RehydratePriority>Standard</RehydratePriority>", "<k>v</k>")
            + blob(prefix + "b", "<AccessTier>Hot</AccessTier><AccessTierInferred>true</AccessTierInferred>", "")
            + blob(prefix + "c", "", "<size>7</size>")
            + blob(prefix + "d", "<AccessTier>Cool</AccessTier><ArchiveStatus></ArchiveStatus>",
                   "<" + shadowed + ">mine</" + shadowed + ">")
            + "</Blobs><NextMarker /></EnumerationResults>";
        proxy.reset();
        proxy.add(r -> r.isListBlobs() && (prefix.replace("/", "%2F")).equals(r.param("prefix")), FaultProxy.ALWAYS,
                  FaultProxy.Fault.answer(200, page.getBytes(StandardCharsets.UTF_8))
                      .withHeader("Content-Type", "application/xml"));
        CRetGetSubMetaDataList list = l.GetObjectSubList(prefix);
        assertOk(list, "GetObjectSubList");
        Map<String, Map<String, String>> got = new HashMap<>();
        for (CObjectSubListElement e : list.metaDat) {
            got.put(e.szFileName, asMap(e.metaDat));
        }
        assertEquals(Map.of(
            prefix + "a", Map.of("k", "v", TIER, "Archive", STATUS, "rehydrate-pending-to-cool", PRIORITY, "Standard"),
            prefix + "b", Map.of(TIER, "Hot"),
            prefix + "c", Map.of("size", "7"),
            prefix + "d", Map.of(TIER, "mine")), got,
            "tier, archive status and priority when reported; an object's own metadata of the name first");
        assertEquals(1, proxy.countSeen(FaultProxy.Request::isListBlobs), "one page");
    }

    private static String blob(String name, String properties, String metadata) {
        return "<Blob><Name>" + name + "</Name><Properties><Content-Length>7</Content-Length>"
            + "<BlobType>BlockBlob</BlobType>" + properties + "</Properties><Metadata>" + metadata
            + "</Metadata></Blob>";
    }
}
