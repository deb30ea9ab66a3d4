package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.assertError;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.function.Predicate;
import java.util.regex.Pattern;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * What an operator needs on a support call, and what keeps a credential
 * off the wire: request ids both ways, plain HTTP only to this machine
 * unless allowed, snapshots deleted with their blob, retention refusals
 * named, the service version chosen.
 */
class OperatorTest extends ProxiedAzuriteTest {
    private static final Pattern UUID = Pattern.compile("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");

    private static Predicate<FaultProxy.Request> method(String m) {
        return r -> r.method.equals(m);
    }

    /** Every request carries an id of its own, the same on every send of it. */
    @Test
    void everyRequestCarriesAClientRequestIdKeptAcrossItsRetries() {
        QVAzurePlugInLibrary l = viaProxy("RetryBaseDelayMillis=10;RetryMaxDelayMillis=20");
        String name = unique("ids/");
        proxy.add(method("PUT"), 1, FaultProxy.Fault.serverBusy());
        assertOk(l.WriteObject(name, new byte[10], 10), "WriteObject");
        assertOk(l.ReadObject(name, new byte[10], 10, 0), "ReadObject");
        assertOk(l.GetObjectSubList(name), "GetObjectSubList");
        assertOk(l.DeleteObjectByName(name), "DeleteObjectByName");
        List<FaultProxy.Request> seen = proxy.seen();
        assertEquals(5, seen.size(), "two PUTs, a GET, a listing, a DELETE");
        Set<String> ids = new HashSet<>();
        for (FaultProxy.Request r : seen) {
            String id = r.header("x-ms-client-request-id");
            assertNotNull(id, r.method + " " + r.path);
            assertTrue(UUID.matcher(id).matches(), id);
            ids.add(id);
        }
        assertEquals(4, ids.size(), "one id per request");
        assertEquals(seen.get(0).header("x-ms-client-request-id"), seen.get(1).header("x-ms-client-request-id"),
                     "the retry of the PUT carries its id");
    }

    /** The failure's log line names the service's x-ms-request-id and the request's own id. */
    @Test
    void aFailuresLogLineNamesBothRequestIds() {
        QVAzurePlugInLibrary l = viaProxy("");
        try (TestSupport.LogCapture log = new TestSupport.LogCapture()) {
            assertError(ERRORID.NOT_FOUND, l.ReadObject(unique("missing/"), new byte[10], 10, 0), "ReadObject");
            FaultProxy.Request get = proxy.seen().get(0);
            String serviceId = get.replyHeader("x-ms-request-id");
            assertNotNull(serviceId, "Azurite's answer carries x-ms-request-id");
            List<String> lines = log.with("ReadObject: NOT_FOUND");
            assertEquals(1, lines.size(), log.lines().toString());
            assertTrue(lines.get(0).contains("request id " + serviceId), lines.get(0));
            assertTrue(lines.get(0).contains("client request id " + get.header("x-ms-client-request-id")),
                       lines.get(0));
        }
    }

    /** An account key or a SAS over plain HTTP to another machine is refused before anything is sent. */
    @ParameterizedTest(name = "{0}")
    @ValueSource(strings = {"key", "sas"})
    void plainHttpToAnotherMachineIsRefusedUnlessAllowed(String credential) {
        String endpoint = "http://storage.example.invalid/" + AzuriteServer.ACCOUNT;
        String text = credential.equals("key") ? AzuriteServer.connectionStringAt(endpoint, "c0ntainer", "")
            : AzuriteServer.sasConnectionString(endpoint, "c0ntainer",
                                                "sv=2021-08-06&ss=b&srt=sco&sp=rwdlac&se=2099-01-01&sig=abc", "");
        try (TestSupport.LogCapture log = new TestSupport.LogCapture()) {
            assertError(ERRORID.INVALID_ARGUMENT, TestSupport.newLibrary().AzureInit(text, ""), "plain http");
            assertTrue(log.with("AllowInsecureHttp=true").size() == 1, log.lines().toString());
        }
        // Allowed explicitly, the string passes and the library goes on to the (unknown) host.
        assertError(ERRORID.DNS_RESOLUTION_FAILED,
                    TestSupport.newLibrary().AzureInit(text + ";AllowInsecureHttp=true;RetryMaxAttempts=1", ""),
                    "allowed");
    }

    /** A blob with a snapshot is deleted with it (the service refuses to delete it alone). */
    @Test
    void aDeleteRemovesTheSnapshotsToo() throws Exception {
        QVAzurePlugInLibrary l = viaProxy("");
        String name = unique("snap-");
        assertOk(l.WriteObject(name, new byte[10], 10), "WriteObject");
        String path = "/" + AzuriteServer.ACCOUNT + "/" + container + "/" + name;
        assertEquals(201, RawBlobRequests.send(azurite.port, "PUT", path, "comp=snapshot",
                                               RawBlobRequests.headers(), null).status, "a snapshot");
        assertEquals(2, snapshotsListed(name), "the blob and its snapshot");
        proxy.reset();
        assertOk(l.DeleteObjectByName(name), "DeleteObjectByName");
        assertEquals("include", proxy.seen().get(0).header("x-ms-delete-snapshots"));
        assertEquals(0, snapshotsListed(name), "nothing left");
    }

    private static int snapshotsListed(String name) throws Exception {
        String path = "/" + AzuriteServer.ACCOUNT + "/" + container;
        RawBlobRequests.Answer a = RawBlobRequests.send(azurite.port, "GET", path,
                                                        "comp=list&include=snapshots&prefix=" + name + "&restype=container",
                                                        RawBlobRequests.headers(), null);
        assertEquals(200, a.status, a.body);
        return a.body.split("<Blob>", -1).length - 1;
    }

    /** Retention refusals get their own id, once, and a log line that says what holds the object. */
    @ParameterizedTest(name = "{0}")
    @ValueSource(strings = {"BlobImmutableDueToPolicy", "BlobImmutableDueToLegalHold"})
    void retentionRefusalsAreObjectLocked(String code) {
        QVAzurePlugInLibrary l = viaProxy("");
        proxy.add(r -> true, FaultProxy.ALWAYS, FaultProxy.Fault.status(409, code));
        try (TestSupport.LogCapture log = new TestSupport.LogCapture()) {
            assertError(ERRORID.OBJECT_LOCKED, l.WriteObject(unique("held/"), new byte[10], 10), "WriteObject");
            assertError(ERRORID.OBJECT_LOCKED, l.DeleteObjectByName(unique("held/")), "DeleteObjectByName");
            assertEquals(2, proxy.seen().size(), "each sent once");
            String why = code.endsWith("LegalHold") ? "legal hold" : "retention (immutability) policy";
            assertEquals(2, log.with(why).size(), log.lines().toString());
        }
    }

    /** Authorization refusals: each its id, once, and a log line that says what to change. */
    @ParameterizedTest(name = "{0}")
    @ValueSource(strings = {"KeyBasedAuthenticationNotPermitted:INVALID_CREDENTIALS:AllowSharedKeyAccess",
                            "AuthorizationPermissionMismatch:AUTHORIZATION_FAILED:Storage Blob Data Contributor",
                            "AuthorizationFailure:AUTHORIZATION_FAILED:firewall",
                            "AuthenticationFailed:AUTHENTICATION_FAILED:clock"})
    void authorizationRefusalsNameTheirCause(String c) {
        String[] p = c.split(":");
        QVAzurePlugInLibrary l = viaProxy("");
        proxy.add(r -> true, FaultProxy.ALWAYS, FaultProxy.Fault.status(403, p[0]));
        try (TestSupport.LogCapture log = new TestSupport.LogCapture()) {
            assertError(ERRORID.valueOf(p[1]), l.WriteObject(unique("refused/"), new byte[10], 10), p[0]);
            assertEquals(1, proxy.seen().size(), "sent once");
            assertEquals(1, log.with(p[2]).size(), log.lines().toString());
        }
    }

    @Test
    void theServiceVersionIsChosenInTheConnectionString() {
        QVAzurePlugInLibrary l = viaProxy("ServiceVersion=2020-10-02");
        assertOk(l.WriteObject(unique("version/"), new byte[10], 10), "WriteObject");
        assertEquals("2020-10-02", proxy.seen().get(0).header("x-ms-version"));
        assertEquals("2020-10-02", l.GetCloudPluginCapabilities().pluginCapabilities.get("ApiVersion"));
        for (String bad : new String[] {"2021-13", "latest", "", "2021-12-02x"}) {
            assertError(ERRORID.INVALID_ARGUMENT, TestSupport.newLibrary().AzureInit(
                AzuriteServer.connectionString(container, proxy.port(), "ServiceVersion=" + bad), ""), bad);
        }
        assertFalse(proxy.seen().size() > 1, "nothing sent for a bad version");
    }
}
