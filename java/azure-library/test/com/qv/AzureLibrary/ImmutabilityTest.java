package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.asMap;
import static com.qv.AzureLibrary.TestSupport.assertError;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.util.List;
import java.util.Map;

import org.junit.jupiter.api.Test;

/**
 * Immutability: SetObjectMetaData of x-ms-immutability-policy-until-date
 * sends Set Blob Immutability Policy (PUT ?comp=immutabilityPolicies), of
 * x-ms-legal-hold Set Blob Legal Hold (PUT ?comp=legalhold); listings report
 * both; a delete the service refuses for a hold is OBJECT_LOCKED.
 *
 * Azurite does not model immutability: the answers of a container with
 * version-level immutability are the fault proxy's, in front of it.
 */
class ImmutabilityTest extends ProxiedAzuriteTest {
    private static final String UNTIL = MetadataProjection.IMMUTABLE_UNTIL;
    private static final String MODE = MetadataProjection.IMMUTABILITY_MODE;
    private static final String HOLD = MetadataProjection.LEGAL_HOLD;

    private static FaultProxy.Request theOnlyRequest(String what) {
        List<FaultProxy.Request> seen = proxy.seen();
        assertEquals(1, seen.size(), what + ": requests " + seen.stream().map(r -> r.method + " " + r.query).toList());
        return seen.get(0);
    }

    private static boolean isComp(FaultProxy.Request r, String comp) {
        return r.method.equals("PUT") && comp.equals(r.param("comp"));
    }

    @Test
    void aRetentionIsOneRequestWithTheDateAsTheServiceWritesItAndTheModeAsked() {
        QVAzurePlugInLibrary l = viaProxy("");
        String name = unique("immutable/retention/");
        assertOk(direct.WriteObject(name, new byte[5], 5), "WriteObject");
        String[][] steps = {{"2099-01-02T03:04:05Z", "Fri, 02 Jan 2099 03:04:05 GMT", "Unlocked"},
                            {"Sat, 03 Jan 2099 00:00:00 GMT;locked", "Sat, 03 Jan 2099 00:00:00 GMT", "Locked"},
                            {"2099-01-04T00:00:00Z;UNLOCKED", "Sun, 04 Jan 2099 00:00:00 GMT", "Unlocked"}};
        for (String[] step : steps) {
            proxy.reset();
            proxy.add(r -> isComp(r, "immutabilityPolicies"), 1, FaultProxy.Fault.answer(200, new byte[0]));
            assertOk(l.SetObjectMetaData(name, "X-MS-Immutability-Policy-Until-Date", step[0]), step[0]);
            FaultProxy.Request r = theOnlyRequest(step[0]);
            assertTrue(r.path.endsWith("/" + container + "/" + name), r.path);
            assertEquals(step[1], r.header("x-ms-immutability-policy-until-date"), step[0]);
            assertEquals(step[2], r.header("x-ms-immutability-policy-mode"), step[0]);
            assertTrue(r.header("Authorization").startsWith("SharedKey "), "signed");
            assertEquals(0, r.body.length, "no body");
        }
        assertEquals(Map.of(), asMap(direct.GetObjectMetaData(name).values), "no metadata written");
    }

    @Test
    void aLegalHoldIsSetAndClearedWithOneRequestEach() {
        QVAzurePlugInLibrary l = viaProxy("");
        String name = unique("immutable/hold/");
        assertOk(direct.WriteObject(name, new byte[5], 5), "WriteObject");
        for (String value : new String[] {"true", "FALSE"}) {
            proxy.reset();
            proxy.add(r -> isComp(r, "legalhold"), 1, FaultProxy.Fault.answer(200, new byte[0]));
            assertOk(l.SetObjectMetaData(name, HOLD, value), value);
            assertEquals(Boolean.toString(Boolean.parseBoolean(value.toLowerCase())),
                         theOnlyRequest(value).header("x-ms-legal-hold"));
        }
    }

    @Test
    void badValuesSendNothing() {
        QVAzurePlugInLibrary l = viaProxy("");
        String name = unique("immutable/bad/");
        assertOk(direct.WriteObject(name, new byte[5], 5), "WriteObject");
        proxy.reset();
        String[] bad = {null, "", "2001-01-01T00:00:00Z", "tomorrow", "2099-01-01", "2099-01-01T00:00:00Z;Forever",
                        "2099-01-01T00:00:00Z;", " 2099-13-01T00:00:00Z"};
        for (String v : bad) {
            assertError(ERRORID.INVALID_ARGUMENT, l.SetObjectMetaData(name, UNTIL, v), "until " + v);
        }
        for (String v : new String[] {null, "", "yes", "1", "true "}) {
            assertError(ERRORID.INVALID_ARGUMENT, l.SetObjectMetaData(name, HOLD, v), "hold " + v);
        }
        assertEquals(List.of(), proxy.seen(), "no request for a bad value");
    }

    @Test
    void listingsReportTheRetentionAndTheLegalHoldAsTheServiceListsThem() {
        QVAzurePlugInLibrary l = viaProxy("");
        String name = unique("immutable/listed/");
        String plain = name + "-plain";
        assertOk(direct.WriteObject(name, new byte[5], 5), "WriteObject");
        assertOk(direct.WriteObject(plain, new byte[5], 5), "WriteObject");
        proxy.add(FaultProxy.Request::isListBlobs, FaultProxy.ALWAYS, FaultProxy.Fault.rewriteBody((r, xml) -> {
            int at = xml.indexOf("<Properties>", xml.indexOf("<Name>" + name + "</Name>")) + "<Properties>".length();
            return xml.substring(0, at) + "<ImmutabilityPolicyUntilDate>Fri, 02 Jan 2099 03:04:05 GMT"
                + "</ImmutabilityPolicyUntilDate><ImmutabilityPolicyMode>unlocked</ImmutabilityPolicyMode>"
                + "<LegalHold>true</LegalHold>" + xml.substring(at);
        }));
        CRetGetSubMetaDataList list = l.GetObjectSubList(name);
        assertOk(list, "GetObjectSubList");
        assertEquals(2, list.metaDat.length);
        Map<String, String> held = asMap(list.metaDat[0].metaDat);
        assertEquals("Fri, 02 Jan 2099 03:04:05 GMT", held.get(UNTIL));
        assertEquals("unlocked", held.get(MODE));
        assertEquals("true", held.get(HOLD));
        Map<String, String> other = asMap(list.metaDat[1].metaDat);
        assertNull(other.get(UNTIL), "nothing listed, nothing reported");
        assertNull(other.get(HOLD));
        FaultProxy.Request listing = proxy.seen().get(0);
        assertEquals("immutabilitypolicy,legalhold,metadata", java.net.URLDecoder.decode(
            listing.param("include"), java.nio.charset.StandardCharsets.UTF_8), "asked for, sorted as signed");
    }

    @Test
    void aDeleteOfAHeldObjectIsObjectLocked() {
        QVAzurePlugInLibrary l = viaProxy("");
        String name = unique("immutable/delete/");
        assertOk(direct.WriteObject(name, new byte[5], 5), "WriteObject");
        proxy.add(r -> r.method.equals("DELETE"), FaultProxy.ALWAYS,
                  FaultProxy.Fault.status(409, "BlobImmutableDueToPolicy"));
        assertError(ERRORID.OBJECT_LOCKED, l.DeleteObjectByName(name), "DeleteObjectByName");
        assertTrue(direct.GetObjectMetaData(name).values != null, "still there");
    }
}
