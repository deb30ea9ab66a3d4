package com.qv.azure.rest;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.io.IOException;
import java.net.ConnectException;
import java.net.UnknownHostException;
import java.net.http.HttpConnectTimeoutException;
import java.net.http.HttpTimeoutException;
import java.nio.charset.StandardCharsets;
import java.time.Duration;
import java.util.Base64;
import java.util.LinkedHashMap;
import java.util.Locale;
import java.util.Map;
import java.util.Random;
import javax.crypto.Mac;
import javax.crypto.spec.SecretKeySpec;
import javax.net.ssl.SSLException;
import javax.net.ssl.SSLHandshakeException;

import org.junit.jupiter.api.Test;

/** The parts of the REST client that need no service. */
class RestPiecesTest {
    private static final String KEY = Base64.getEncoder().encodeToString("0123456789abcdef".getBytes(StandardCharsets.US_ASCII));

    @Test
    void requestsAreCountedAsThePriceListNamesThem() {
        assertEquals(Traffic.WRITE, Traffic.kindOf("PUT", null));
        assertEquals(Traffic.WRITE, Traffic.kindOf("PUT", "comp=block&blockid=AAAA"));
        assertEquals(Traffic.WRITE, Traffic.kindOf("PUT", "comp=blocklist"));
        assertEquals(Traffic.WRITE, Traffic.kindOf("PUT", "comp=tier"));
        assertEquals(Traffic.LIST, Traffic.kindOf("PUT", "restype=container"));
        assertEquals(Traffic.LIST, Traffic.kindOf("GET", "restype=container&comp=list&prefix=a%2F"));
        assertEquals(Traffic.LIST, Traffic.kindOf("GET", "comp=list"));
        assertEquals(Traffic.READ, Traffic.kindOf("GET", null));
        assertEquals(Traffic.OTHER, Traffic.kindOf("GET", "comp=metadata"));
        assertEquals(Traffic.OTHER, Traffic.kindOf("GET", "restype=container"));
        assertEquals(Traffic.OTHER, Traffic.kindOf("GET", "comp=listing"));
        assertEquals(Traffic.OTHER, Traffic.kindOf("HEAD", null));
        assertEquals(Traffic.DELETE, Traffic.kindOf("DELETE", null));
        long[] before = Traffic.counts();
        Traffic.sent("PUT", null);
        Traffic.bytesSent(10);
        Traffic.bytesReceived(3);
        long[] after = Traffic.counts();
        assertEquals(before[Traffic.WRITE] + 1, after[Traffic.WRITE]);
        assertEquals(before[Traffic.BYTES_SENT] + 10, after[Traffic.BYTES_SENT]);
        assertEquals(before[Traffic.BYTES_RECEIVED] + 3, after[Traffic.BYTES_RECEIVED]);
    }

    @Test
    void httpDatesAreRfc1123InGmtWithTwoDigitDays() {
        java.time.format.DateTimeFormatter reference =
            java.time.format.DateTimeFormatter.ofPattern("EEE, dd MMM yyyy HH:mm:ss 'GMT'", java.util.Locale.US);
        long[] instants = {0L, 951782400L, 1795428930L, 4102444799L, 1700000000L, 1709251199L};
        for (long second : instants) {
            String expected = reference.format(java.time.ZonedDateTime.ofInstant(
                java.time.Instant.ofEpochSecond(second), java.time.ZoneOffset.UTC));
            assertEquals(expected, HttpExchange.httpDate(second), "at " + second);
        }
        assertEquals("Mon, 23 Nov 2026 10:15:30 GMT", HttpExchange.httpDate(1795428930L));
    }

    @Test
    void connectionStringWithDefaultEndpoint() throws Exception {
        StorageConnection c = StorageConnection.parse(
            "DefaultEndpointsProtocol=https;AccountName=acct;AccountKey=" + KEY
                + ";EndpointSuffix=core.windows.net;Container=backups");
        assertEquals("acct", c.accountName);
        assertEquals("https://acct.blob.core.windows.net", c.blobEndpoint.toString());
        assertEquals("backups", c.container);
        assertEquals("0123456789abcdef", new String(c.accountKey, StandardCharsets.US_ASCII));
    }

    @Test
    void connectionStringWithExplicitEndpointAndOddSpacing() throws Exception {
        StorageConnection c = StorageConnection.parse(
            " accountname = dev ; AccountKey=" + KEY + "; BlobEndpoint=http://127.0.0.1:1234/dev/ ;container=abc;");
        assertEquals("http://127.0.0.1:1234/dev", c.blobEndpoint.toString());
        assertEquals("abc", c.container);
    }

    /** The whole-download MD5 check is on unless VerifyDownloadMd5=false; any other value is refused. */
    @Test
    void theDownloadMd5CheckIsOnUnlessTurnedOff() throws Exception {
        String base = "AccountName=dev;AccountKey=" + KEY + ";BlobEndpoint=http://127.0.0.1:1234/dev;Container=abc";
        assertTrue(StorageConnection.parse(base).verifyDownloadMd5);
        assertTrue(StorageConnection.parse(base + ";VerifyDownloadMd5=TRUE").verifyDownloadMd5);
        assertFalse(StorageConnection.parse(base + ";verifydownloadmd5=false").verifyDownloadMd5);
        assertEquals(StorageConnection.Invalid.Reason.BAD_OPTION, reasonOf(base + ";VerifyDownloadMd5=no"));
    }

    private static StorageConnection.Invalid.Reason reasonOf(String s) {
        return assertThrows(StorageConnection.Invalid.class, () -> StorageConnection.parse(s)).reason;
    }

    @Test
    void connectionStringErrors() {
        assertEquals(StorageConnection.Invalid.Reason.MALFORMED, reasonOf(null));
        assertEquals(StorageConnection.Invalid.Reason.MALFORMED, reasonOf("novalue"));
        assertEquals(StorageConnection.Invalid.Reason.MALFORMED,
                     reasonOf("AccountName=a;AccountName=b;AccountKey=" + KEY + ";Container=abc"));
        assertEquals(StorageConnection.Invalid.Reason.MISSING_KEY, reasonOf("AccountName=a;Container=abc"));
        assertEquals(StorageConnection.Invalid.Reason.MISSING_KEY, reasonOf("AccountName=a;AccountKey=" + KEY));
        assertEquals(StorageConnection.Invalid.Reason.BAD_ACCOUNT_KEY,
                     reasonOf("AccountName=a;AccountKey=%%%;Container=abc"));
        assertEquals(StorageConnection.Invalid.Reason.BAD_CONTAINER_NAME,
                     reasonOf("AccountName=a;AccountKey=" + KEY + ";Container=-abc"));
        assertEquals(StorageConnection.Invalid.Reason.BAD_ENDPOINT,
                     reasonOf("AccountName=a;AccountKey=" + KEY + ";Container=abc;BlobEndpoint=ftp://x/y"));
        assertEquals(StorageConnection.Invalid.Reason.BAD_ENDPOINT,
                     reasonOf("AccountName=a;AccountKey=" + KEY + ";Container=abc;DefaultEndpointsProtocol=gopher"));
    }

    @Test
    void containerNameRules() {
        assertTrue(StorageConnection.isValidContainerName("abc"));
        assertTrue(StorageConnection.isValidContainerName("a-b-1"));
        assertTrue(StorageConnection.isValidContainerName("a".repeat(63)));
        assertFalse(StorageConnection.isValidContainerName("a".repeat(64)));
        assertFalse(StorageConnection.isValidContainerName("ab"));
        assertFalse(StorageConnection.isValidContainerName("Abc"));
        assertFalse(StorageConnection.isValidContainerName("a--b"));
        assertFalse(StorageConnection.isValidContainerName("abc-"));
        assertFalse(StorageConnection.isValidContainerName("a_b"));
    }

    @Test
    void stringToSignLayout() {
        SharedKeySigner s = new SharedKeySigner("acct", new byte[] {1, 2, 3});
        Map<String, String> h = new LinkedHashMap<>();
        h.put("Content-Type", "application/octet-stream");
        h.put("x-ms-version", "2021-08-06");
        h.put("X-MS-Date", "Mon, 01 Jan 2024 00:00:00 GMT");
        h.put("x-ms-meta-b", " spaced ");
        h.put("Content-MD5", "abc==");
        String got = s.stringToSign("PUT", "/acct/cont/my%20blob", "comp=block&blockid=QQ%3D%3D&Zeta=2&alpha=1",
                                    h, 5);
        String want = "PUT\n\n\n5\nabc==\napplication/octet-stream\n\n\n\n\n\n\n"
            + "x-ms-date:Mon, 01 Jan 2024 00:00:00 GMT\nx-ms-meta-b:spaced\nx-ms-version:2021-08-06\n"
            + "/acct/acct/cont/my%20blob\nalpha:1\nblockid:QQ==\ncomp:block\nzeta:2";
        assertEquals(want, got);
        // A zero length is signed as the empty string; no query means no parameter lines.
        assertEquals("GET\n\n\n\n\n\n\n\n\n\n\n\n/acct/", s.stringToSign("GET", "", null, Map.of(), 0));
    }

    @Test
    void authorizationIsHmacSha256OfTheStringToSign() throws Exception {
        byte[] key = new byte[32];
        new Random(1).nextBytes(key);
        SharedKeySigner s = new SharedKeySigner("acct", key);
        Map<String, String> h = Map.of("x-ms-date", "d", "x-ms-version", "v");
        String toSign = s.stringToSign("HEAD", "/c/b", null, h, 0);
        Mac mac = Mac.getInstance("HmacSHA256");
        mac.init(new SecretKeySpec(key, "HmacSHA256"));
        String sig = Base64.getEncoder().encodeToString(mac.doFinal(toSign.getBytes(StandardCharsets.UTF_8)));
        assertEquals("SharedKey acct:" + sig, s.authorization("HEAD", "/c/b", null, h, 0));
    }

    @Test
    void metadataCodecRoundTripsAnyUtf16() {
        String[] samples = {"plain", "Upper", "qv_0041", "u16:x", "", " a ", "ä", "名前", "\uD800", "\uDFFF\uD800",
                            "tab\there", "1abc", "a-b", "z".repeat(300)};
        for (String s : samples) {
            assertEquals(s, MetadataCodec.decodeName(MetadataCodec.encodeName(s).toLowerCase(Locale.ROOT)), s);
            assertEquals(s, MetadataCodec.decodeValue(MetadataCodec.encodeValue(s)), s);
        }
        Random r = new Random(5);
        for (int i = 0; i < 500; ++i) {
            char[] cs = new char[r.nextInt(20)];
            for (int j = 0; j < cs.length; ++j) {
                cs[j] = (char) r.nextInt(0x10000);
            }
            String s = new String(cs);
            String n = MetadataCodec.encodeName(s.isEmpty() ? "x" : s);
            assertTrue(n.matches("[a-z][a-z0-9_]*"), n);
            assertEquals(s.isEmpty() ? "x" : s, MetadataCodec.decodeName(n));
            String v = MetadataCodec.encodeValue(s);
            assertTrue(v.matches("[\\x21-\\x7e]([\\x20-\\x7e]*[\\x21-\\x7e])?"), v);
            assertEquals(s, MetadataCodec.decodeValue(v));
        }
        assertEquals("plain", MetadataCodec.encodeName("plain"));
        assertEquals("simple value", MetadataCodec.encodeValue("simple value"));
        // Names written by other tools come back as they are.
        assertEquals("Other", MetadataCodec.decodeName("Other"));
    }

    @Test
    void httpFailuresMapToErrorIds() {
        assertEquals(ERRORID.NOT_FOUND, ErrorMap.fromHttp(404, "BlobNotFound"));
        assertEquals(ERRORID.CONTAINER_NOT_FOUND, ErrorMap.fromHttp(404, "ContainerNotFound"));
        assertEquals(ERRORID.ALREADY_EXISTS, ErrorMap.fromHttp(409, "BlobAlreadyExists"));
        assertEquals(ERRORID.CONTAINER_ALREADY_EXISTS, ErrorMap.fromHttp(409, "ContainerAlreadyExists"));
        assertEquals(ERRORID.CONTAINER_BEING_DELETED, ErrorMap.fromHttp(409, "ContainerBeingDeleted"));
        assertEquals(ERRORID.LEASE_CONFLICT, ErrorMap.fromHttp(409, "LeaseIdMissing"));
        assertEquals(ERRORID.AUTHENTICATION_FAILED, ErrorMap.fromHttp(403, "AuthenticationFailed"));
        assertEquals(ERRORID.AUTHORIZATION_FAILED, ErrorMap.fromHttp(403, "AuthorizationPermissionMismatch"));
        assertEquals(ERRORID.ACCESS_DENIED, ErrorMap.fromHttp(403, null));
        assertEquals(ERRORID.THROTTLED, ErrorMap.fromHttp(503, "ServerBusy"));
        assertEquals(ERRORID.THROTTLED, ErrorMap.fromHttp(429, null));
        assertEquals(ERRORID.SERVICE_UNAVAILABLE, ErrorMap.fromHttp(503, null));
        assertEquals(ERRORID.TIMEOUT, ErrorMap.fromHttp(500, "OperationTimedOut"));
        assertEquals(ERRORID.INTERNAL_ERROR, ErrorMap.fromHttp(500, "InternalError"));
        assertEquals(ERRORID.INVALID_ARGUMENT, ErrorMap.fromHttp(400, "InvalidQueryParameterValue"));
        assertEquals(ERRORID.INVALID_METADATA, ErrorMap.fromHttp(400, "InvalidMetadata"));
        assertEquals(ERRORID.CHECKSUM_MISMATCH, ErrorMap.fromHttp(400, "Md5Mismatch"));
        assertEquals(ERRORID.INVALID_RANGE, ErrorMap.fromHttp(416, "InvalidRange"));
        assertEquals(ERRORID.OBJECT_TOO_LARGE, ErrorMap.fromHttp(413, "RequestBodyTooLarge"));
        assertEquals(ERRORID.QUOTA_EXCEEDED, ErrorMap.fromHttp(409, "AccountLimitExceeded"));
        assertEquals(ERRORID.QUOTA_EXCEEDED, ErrorMap.fromHttp(403, "ContainerQuotaExceeded"));
        assertEquals(ERRORID.CONDITION_NOT_MET, ErrorMap.fromHttp(412, "ConditionNotMet"));
        assertEquals(ERRORID.ACCOUNT_DISABLED, ErrorMap.fromHttp(403, "AccountIsDisabled"));
        assertEquals(ERRORID.ARCHIVED_OBJECT_NOT_READABLE, ErrorMap.fromHttp(409, "BlobBeingRehydrated"));
        assertEquals(ERRORID.INVALID_ARGUMENT, ErrorMap.fromHttp(400, "InvalidHeaderValue"));
    }

    @Test
    void sasRefusalsMapToAuthorizationFailed() {
        for (String code : new String[] {"AuthorizationPermissionMismatch", "AuthorizationResourceTypeMismatch",
                                         "AuthorizationProtocolMismatch", "AuthorizationSourceIPMismatch",
                                         "AuthorizationServiceMismatch", "AuthorizationFailure"}) {
            assertEquals(ERRORID.AUTHORIZATION_FAILED, ErrorMap.fromHttp(403, code), code);
        }
        assertEquals(ERRORID.ARCHIVED_OBJECT_NOT_READABLE, ErrorMap.fromHttp(409, "BlobArchived"));
    }

    @Test
    void transportFailuresMapToErrorIds() {
        assertEquals(ERRORID.TIMEOUT, ErrorMap.fromThrowable(new HttpTimeoutException("t")));
        assertEquals(ERRORID.TIMEOUT, ErrorMap.fromThrowable(new HttpConnectTimeoutException("t")));
        assertEquals(ERRORID.CONNECTION_FAILED, ErrorMap.fromThrowable(new ConnectException("refused")));
        assertEquals(ERRORID.CONNECTION_FAILED, ErrorMap.fromThrowable(new IOException(new ConnectException("x"))));
        assertEquals(ERRORID.DNS_RESOLUTION_FAILED, ErrorMap.fromThrowable(new UnknownHostException("h")));
        assertEquals(ERRORID.TLS_HANDSHAKE_FAILED, ErrorMap.fromThrowable(new SSLHandshakeException("h")));
        // A certificate refused is final; a connection breaking under TLS is a network failure like any other.
        SSLHandshakeException badCert = new SSLHandshakeException("No subject alternative names matching");
        badCert.initCause(new java.security.cert.CertificateException("no match"));
        assertEquals(ERRORID.TLS_HANDSHAKE_FAILED, ErrorMap.fromThrowable(new IOException(badCert)));
        SSLException reset = new SSLException("Connection reset", new java.net.SocketException("reset"));
        assertEquals(ERRORID.NETWORK_ERROR, ErrorMap.fromThrowable(reset));
        SSLHandshakeException cut = new SSLHandshakeException("Remote host terminated the handshake");
        cut.initCause(new java.io.EOFException("SSL peer shut down incorrectly"));
        assertEquals(ERRORID.NETWORK_ERROR, ErrorMap.fromThrowable(cut));
        // The shapes the JDK's HTTP client gives: an unknown host, a refusal, a reset while connecting.
        assertEquals(ERRORID.DNS_RESOLUTION_FAILED, ErrorMap.fromThrowable(
            new ConnectException().initCause(new ConnectException().initCause(
                new java.nio.channels.UnresolvedAddressException()))));
        assertEquals(ERRORID.CONNECTION_FAILED, ErrorMap.fromThrowable(
            new ConnectException().initCause(new ConnectException().initCause(
                new java.nio.channels.ClosedChannelException()))));
        assertEquals(ERRORID.NETWORK_ERROR, ErrorMap.fromThrowable(
            new ConnectException("Connection reset by peer").initCause(
                new java.net.SocketException("Connection reset by peer"))));
        // A timeout wins wherever it is in the chain.
        assertEquals(ERRORID.TIMEOUT, ErrorMap.fromThrowable(
            new HttpConnectTimeoutException("HTTP connect timed out").initCause(new ConnectException("timed out"))));
        assertEquals(ERRORID.NETWORK_ERROR, ErrorMap.fromThrowable(new IOException("reset")));
        assertEquals(ERRORID.INTERNAL_ERROR, ErrorMap.fromThrowable(new IllegalStateException()));
    }

    // ------------------------------------------------------------------ retry and timeout settings

    private static final String MINIMAL = "AccountName=a;AccountKey=" + KEY + ";Container=abc";

    @Test
    void retryDefaultsWithoutTuningKeys() throws Exception {
        RetryPolicy p = StorageConnection.parse(MINIMAL + ";QueueEndpoint=http://ignored;Unknown=1").retryPolicy;
        assertEquals(RetryPolicy.DEFAULT_MAX_ATTEMPTS, p.maxAttempts);
        assertEquals(RetryPolicy.DEFAULT_MAX_TOTAL, p.maxTotal);
        assertEquals(RetryPolicy.DEFAULT_BASE_DELAY, p.baseDelay);
        assertEquals(RetryPolicy.DEFAULT_MAX_DELAY, p.maxDelay);
        assertEquals(RetryPolicy.DEFAULT_REQUEST_TIMEOUT, p.requestTimeout);
        assertEquals(RetryPolicy.DEFAULT_CONNECT_TIMEOUT, p.connectTimeout);
        assertEquals(Duration.ofSeconds(3600), p.operationTimeout);
    }

    /** Plain http only to this machine, unless AllowInsecureHttp=true says otherwise; never a name looked up. */
    @Test
    void plainHttpOnlyToThisMachineUnlessAllowed() throws Exception {
        String key = "AccountName=a;AccountKey=" + Base64.getEncoder().encodeToString(new byte[] {1}) + ";Container=ccc";
        for (String host : new String[] {"127.0.0.1", "127.8.9.10", "localhost", "LOCALHOST", "[::1]"}) {
            StorageConnection.parse(key + ";BlobEndpoint=http://" + host + ":10000/a");
        }
        for (String host : new String[] {"10.0.0.1", "128.0.0.1", "example.com", "localhost.example.com", "[::2]",
                                         "127.example.com"}) {
            StorageConnection.Invalid e = assertThrows(StorageConnection.Invalid.class, () -> StorageConnection.parse(
                key + ";BlobEndpoint=http://" + host + "/a"), host);
            assertTrue(e.getMessage().contains("AllowInsecureHttp=true"), e.getMessage());
            StorageConnection.parse(key + ";BlobEndpoint=http://" + host + "/a;AllowInsecureHttp=TRUE");
        }
        StorageConnection.parse(key + ";BlobEndpoint=https://example.com/a");
        assertEquals(StorageConnection.Invalid.Reason.BAD_OPTION, assertThrows(StorageConnection.Invalid.class,
            () -> StorageConnection.parse(key + ";AllowInsecureHttp=yes")).reason);
        assertEquals("2021-12-02", StorageConnection.parse(key).serviceVersion);
        assertEquals("2025-01-05", StorageConnection.parse(key + ";ServiceVersion=2025-01-05").serviceVersion);
    }

    /** The token endpoint's JSON: flat members as text, anything else null, never an exception. */
    @Test
    void jsonOfATokenAnswer() {
        assertEquals(Map.of("access_token", "a.b.c", "expires_in", "3599", "ok", "true"),
                     Json.object(" {\"access_token\":\"a.b.c\",\"expires_in\":3599,\"ok\":true,\"n\":null,"
                                 + "\"nested\":{\"x\":[1,{\"y\":\"}\"}]}} "));
        assertEquals(Map.of("e", "x\"y\u00e9\n"), Json.object("{\"e\":\"x\\\"y\\u00e9\\n\"}"));
        for (String bad : new String[] {null, "", "[]", "{", "{\"a\"}", "{\"a\":}", "{\"a\":1,}", "{} x",
                                        "{\"a\":\"b", "x".repeat(100)}) {
            assertNull(Json.object(bad), String.valueOf(bad));
        }
        assertEquals(ERRORID.INVALID_CREDENTIALS, ErrorMap.fromHttp(403, "KeyBasedAuthenticationNotPermitted"));
        assertEquals(ERRORID.OBJECT_LOCKED, ErrorMap.fromHttp(409, "BlobImmutableDueToLegalHold"));
        assertEquals(ERRORID.OBJECT_LOCKED, ErrorMap.fromHttp(409, "BlobImmutableDueToPolicy"));
    }

    @Test
    void tuningKeysAreReadInAnyCase() throws Exception {
        RetryPolicy p = StorageConnection.parse(MINIMAL + ";retrymaxattempts=7;RetryMaxSeconds=2.5"
            + ";RETRYBASEDELAYMILLIS=0;RetryMaxDelayMillis=900;RequestTimeoutSeconds=0.25;ConnectTimeoutSeconds=3"
            + ";operationtimeoutseconds=12.5").retryPolicy;
        assertEquals(7, p.maxAttempts);
        assertEquals(Duration.ofMillis(2500), p.maxTotal);
        assertEquals(Duration.ZERO, p.baseDelay);
        assertEquals(Duration.ofMillis(900), p.maxDelay);
        assertEquals(Duration.ofMillis(250), p.requestTimeout);
        assertEquals(Duration.ofSeconds(3), p.connectTimeout);
        assertEquals(Duration.ofMillis(12_500), p.operationTimeout);
        // A base pause above the default cap raises the cap with it.
        assertEquals(Duration.ofSeconds(50),
                     StorageConnection.parse(MINIMAL + ";RetryBaseDelayMillis=50000").retryPolicy.maxDelay);
    }

    @Test
    void badTuningValuesAreRefused() {
        String[] bad = {
            "RetryMaxAttempts=0", "RetryMaxAttempts=101", "RetryMaxAttempts=-1", "RetryMaxAttempts=2.5",
            "RetryMaxAttempts=", "RetryMaxAttempts=three", "RetryMaxSeconds=0", "RetryMaxSeconds=-3",
            "RetryMaxSeconds=86401", "RetryMaxSeconds=1e3", "RetryMaxSeconds=0.0001", "RetryMaxSeconds=NaN",
            "RequestTimeoutSeconds=0", "RequestTimeoutSeconds=abc", "ConnectTimeoutSeconds=3601",
            "RetryBaseDelayMillis=60001", "RetryMaxDelayMillis=600001",
            "RetryBaseDelayMillis=500;RetryMaxDelayMillis=100", "RetryMaxAttempts=99999999999",
            "OperationTimeoutSeconds=0", "OperationTimeoutSeconds=86401", "OperationTimeoutSeconds=1h",
            "AccessTier=", "AccessTier=Premium", "AccessTier=P10", "AccessTier=Hot Cool",
        };
        for (String b : bad) {
            assertEquals(StorageConnection.Invalid.Reason.BAD_OPTION, reasonOf(MINIMAL + ";" + b), b);
        }
        // An empty value of a tuning key counts as given and wrong; MINIMAL's own keys still must be there.
        assertEquals(StorageConnection.Invalid.Reason.MISSING_KEY, reasonOf("AccountName=a;RetryMaxAttempts=3"));
    }

    @Test
    void parseErrorsNeverRepeatAValue() {
        String secret = Base64.getEncoder().encodeToString("a secret that must stay put".getBytes(StandardCharsets.US_ASCII));
        String[] broken = {
            "AccountName=a;AccountKey " + secret + ";Container=abc",
            "AccountName=a;" + secret + ";Container=abc",
            "AccountName=a;AccountKey=" + secret + "Container=abc",
            "AccountName=a;AccountKey=" + secret + ";AccountKey=" + secret + ";Container=abc",
            "AccountName=a;AccountKey=" + secret + ";Container=B" + secret,
            "AccountName=a;AccountKey=" + secret + ";Container=abc;RetryMaxSeconds=" + secret,
            "AccountName=a;AccountKey=" + secret + ";Container=abc;BlobEndpoint=" + secret,
            "AccountName=a;AccountKey=" + secret + ";Container=abc;BlobEndpoint=ftp://" + secret,
            "AccountName=a;AccountKey=%" + secret + ";Container=abc",
            secret + "=x;" + secret + "=y",
        };
        for (String b : broken) {
            StorageConnection.Invalid e = assertThrows(StorageConnection.Invalid.class,
                                                       () -> StorageConnection.parse(b));
            for (int i = 0; i + 8 <= secret.length(); ++i) {
                assertFalse(e.getMessage().contains(secret.substring(i, i + 8)), e.getMessage());
            }
        }
    }

    @Test
    void accessTierInAnyCaseAndAbsentByDefault() throws Exception {
        assertEquals(null, StorageConnection.parse(MINIMAL).accessTier);
        String[][] cases = {{"hot", "Hot"}, {"COOL", "Cool"}, {"Cold", "Cold"}, {"archive", "Archive"}};
        for (String[] c : cases) {
            assertEquals(c[1], StorageConnection.parse(MINIMAL + ";AccessTier=" + c[0]).accessTier, c[0]);
        }
    }

    // ------------------------------------------------------------------ shared access signatures

    private static final String TOKEN = "sv=2021-08-06&spr=https%2Chttp&se=2030-01-01T00%3A00%3A00Z&sr=c&sp=racwdl"
        + "&sig=AbCdEfGhIjKlMnOpQrStUvWxYz0123456789%2B%2F%3D";

    @Test
    void sasConnectionStringsInThePortalsForms() throws Exception {
        StorageConnection c = StorageConnection.parse(
            "BlobEndpoint=https://acct.blob.core.windows.net/;SharedAccessSignature=" + TOKEN + ";Container=backups");
        assertEquals("acct", c.accountName);
        assertEquals(null, c.accountKey);
        assertEquals(SasToken.Scope.CONTAINER, c.sas.scope);
        assertEquals(java.time.Instant.parse("2030-01-01T00:00:00Z"), c.sas.expiry);
        assertEquals(null, c.sas.start);
        assertEquals(TOKEN, c.sas.query);
        assertEquals("comp=list&" + TOKEN, c.sas.appendTo("comp=list"));

        // An account SAS, with '?' in front, the endpoint built from AccountName.
        String account = "?sv=2021-08-06&ss=bfqt&srt=sco&sp=rwdlacupitfx&se=2030-01-01&st=2020-01-01T10:00Z"
            + "&spr=https&sig=abc%3D";
        StorageConnection a = StorageConnection.parse("DefaultEndpointsProtocol=https;AccountName=acct;"
                                                      + "SharedAccessSignature=" + account + ";Container=backups");
        assertEquals("https://acct.blob.core.windows.net", a.blobEndpoint.toString());
        assertEquals(SasToken.Scope.ACCOUNT, a.sas.scope);
        assertEquals(java.time.Instant.parse("2030-01-01T00:00:00Z"), a.sas.expiry);
        assertEquals(java.time.Instant.parse("2020-01-01T10:00:00Z"), a.sas.start);
        assertEquals(account.substring(1), a.sas.query);

        // The emulator's form: the account is the endpoint's first path segment.
        assertEquals("devstoreaccount1", StorageConnection.parse(
            "BlobEndpoint=http://127.0.0.1:10000/devstoreaccount1;SharedAccessSignature=" + TOKEN
                + ";Container=abc").accountName);
    }

    @Test
    void unusableTokensAreRefusedWithoutRepeatingThem() {
        String base = "BlobEndpoint=https://acct.blob.core.windows.net;Container=abc;SharedAccessSignature=";
        String[] bad = {
            TOKEN.replace("sr=c", "sr=b"), TOKEN.replace("sr=c", "sr=d"), TOKEN.replaceAll("&sig=[^&]*", ""),
            TOKEN.replace("sv=2021-08-06&", ""), TOKEN.replace("&sr=c", ""), TOKEN + "&sig=again",
            TOKEN.replace("sr=c", "ss=qt"), TOKEN.replace("&sp=", "& sp="), TOKEN + "%2", TOKEN + "%zz",
            TOKEN + "#frag", TOKEN + "\u00e4", "?", TOKEN.replace("&", "&<"),
        };
        for (String b : bad) {
            StorageConnection.Invalid e = assertThrows(StorageConnection.Invalid.class,
                                                       () -> StorageConnection.parse(base + b), b);
            assertEquals(StorageConnection.Invalid.Reason.BAD_SAS_TOKEN, e.reason, b);
            assertFalse(e.getMessage().contains("AbCdEfGh"), e.getMessage());
        }
        // Both credentials, or neither, or no way to the endpoint.
        assertEquals(StorageConnection.Invalid.Reason.MALFORMED,
                     reasonOf(base + TOKEN + ";AccountName=a;AccountKey=" + KEY));
        assertEquals(StorageConnection.Invalid.Reason.MISSING_KEY,
                     reasonOf("BlobEndpoint=https://a.blob.core.windows.net;Container=abc"));
        assertEquals(StorageConnection.Invalid.Reason.MISSING_KEY,
                     reasonOf("SharedAccessSignature=" + TOKEN + ";Container=abc"));
        assertEquals(StorageConnection.Invalid.Reason.BAD_ENDPOINT,
                     reasonOf("BlobEndpoint=https://a.blob.core.windows.net/?" + TOKEN
                              + ";AccountName=a;AccountKey=" + KEY + ";Container=abc"));
    }

    @Test
    void theConnectionsTextFormHasNoToken() throws Exception {
        StorageConnection c = StorageConnection.parse(
            "BlobEndpoint=https://acct.blob.core.windows.net;SharedAccessSignature=" + TOKEN + ";Container=abc");
        assertFalse(c.toString().contains("sig"), c.toString());
        assertFalse(c.sas.toString().contains("sig"), c.sas.toString());
    }

    @Test
    void sasTimesInTheFormsTokensUse() {
        assertEquals(java.time.Instant.parse("2030-05-06T07:08:09Z"), SasToken.time("2030-05-06T07:08:09Z"));
        assertEquals(java.time.Instant.parse("2030-05-06T07:08:00Z"), SasToken.time("2030-05-06T07:08Z"));
        assertEquals(java.time.Instant.parse("2030-05-06T07:08:09.500Z"), SasToken.time("2030-05-06T07:08:09.5Z"));
        assertEquals(java.time.Instant.parse("2030-05-06T00:00:00Z"), SasToken.time("2030-05-06"));
        assertEquals(null, SasToken.time("tomorrow"));
        assertEquals(null, SasToken.time(null));
    }

    @Test
    void theConnectionsTextFormHasNoKey() throws Exception {
        StorageConnection c = StorageConnection.parse(MINIMAL);
        assertFalse(c.toString().contains(KEY), c.toString());
    }

    @Test
    void retriedStatusesAreExactlyTheTransientOnes() {
        for (int s = 100; s < 600; ++s) {
            assertEquals(s == 408 || s == 429 || s == 500 || s == 503, RetryPolicy.isRetryableStatus(s), "" + s);
        }
    }

    @Test
    void pausesGrowExponentiallyWithJitterUpToTheCap() {
        RetryPolicy p = new RetryPolicy(10, Duration.ofSeconds(60), Duration.ofMillis(100), Duration.ofMillis(1000),
                                        Duration.ofSeconds(1), Duration.ofSeconds(1));
        Random r = new Random(3);
        long[] nominal = {100, 200, 400, 800, 1000, 1000, 1000};
        for (int attempt = 1; attempt <= nominal.length; ++attempt) {
            long d = nominal[attempt - 1];
            long min = Long.MAX_VALUE;
            long max = 0;
            for (int i = 0; i < 2000; ++i) {
                long pause = p.pauseMillis(attempt, r);
                assertTrue(pause >= d / 2 && pause <= d, "attempt " + attempt + ": " + pause);
                min = Math.min(min, pause);
                max = Math.max(max, pause);
            }
            // Jitter: the pauses really spread over [d/2, d].
            assertTrue(min < d / 2 + d / 10 && max > d - d / 10, "attempt " + attempt + ": " + min + ".." + max);
        }
        // Far past the cap the shift does not overflow.
        long late = p.pauseMillis(1000, r);
        assertTrue(late >= 500 && late <= 1000, "attempt 1000: " + late);
        RetryPolicy none = new RetryPolicy(3, Duration.ofSeconds(1), Duration.ZERO, Duration.ZERO,
                                           Duration.ofSeconds(1), Duration.ofSeconds(1));
        assertEquals(0, none.pauseMillis(2, r));
    }

    @Test
    void retryAfterInSecondsOrAsADate() {
        java.time.Instant now = java.time.Instant.parse("2030-01-01T00:00:00Z");
        assertEquals(-1, RetryPolicy.retryAfterMillis(null, now));
        assertEquals(0, RetryPolicy.retryAfterMillis("0", now));
        assertEquals(7000, RetryPolicy.retryAfterMillis(" 7 ", now));
        assertEquals(999_999_999_000L, RetryPolicy.retryAfterMillis("999999999", now));
        assertEquals(-1, RetryPolicy.retryAfterMillis("9999999999", now)); // too many digits: ignored
        assertEquals(-1, RetryPolicy.retryAfterMillis("-5", now));
        assertEquals(-1, RetryPolicy.retryAfterMillis("1.5", now));
        assertEquals(-1, RetryPolicy.retryAfterMillis("soon", now));
        assertEquals(-1, RetryPolicy.retryAfterMillis("x".repeat(10_000), now));
        assertEquals(12_000, RetryPolicy.retryAfterMillis("Tue, 01 Jan 2030 00:00:12 GMT", now));
        assertEquals(0, RetryPolicy.retryAfterMillis("Mon, 31 Dec 2029 23:00:00 GMT", now)); // in the past
        // x-ms-retry-after-ms first, in milliseconds; an unreadable one leaves Retry-After.
        assertEquals(1500, RetryPolicy.retryAfterMillis("1500", "7", now));
        assertEquals(7000, RetryPolicy.retryAfterMillis("1.5", "7", now));
        assertEquals(-1, RetryPolicy.retryAfterMillis("soon", null, now));
    }

    @Test
    void retryAfterIsAFloorOfThePause() {
        RetryPolicy p = new RetryPolicy(10, Duration.ofSeconds(60), Duration.ofMillis(100), Duration.ofMillis(5000),
                                        Duration.ofSeconds(1), Duration.ofSeconds(1));
        Random r = new Random(4);
        for (int i = 0; i < 200; ++i) {
            long none = p.pauseMillis(1, -1, r);
            assertTrue(none >= 50 && none <= 100, "backoff alone: " + none);
            assertEquals(2000, p.pauseMillis(1, 2000, r), "the service's longer wait");
            long shorter = p.pauseMillis(3, 10, r);
            assertTrue(shorter >= 200 && shorter <= 400, "the backoff when it is longer: " + shorter);
            assertEquals(60_000, p.pauseMillis(1, 60_000, r), "not capped: RetryMaxDelayMillis caps the backoff");
        }
    }

    @Test
    void errorCodesFromTheWireAreCleaned() {
        assertEquals("ServerBusy", HttpExchange.cleanCode("ServerBusy"));
        assertEquals(null, HttpExchange.cleanCode("  "));
        assertEquals(null, HttpExchange.cleanCode(null));
        assertEquals("Bad??Code", HttpExchange.cleanCode("Bad\r\nCode"));
        assertEquals(100, HttpExchange.cleanCode("A".repeat(5000)).length());
    }

    @Test
    void pathEncoding() {
        assertEquals("a/b%20c/%C3%A4~-._", BlobRestClient.encodePath("a/b c/ä~-._"));
        assertEquals("a%2Fb%3D", BlobRestClient.encodeQueryValue("a/b="));
    }

    @Test
    void readsOfAMebibyteOrMoreAskForUpToFourTimesAsMuchAtMostEightMebibytes() {
        assertEquals(1, OpenReads.span(1));
        assertEquals((1 << 20) - 1, OpenReads.span((1 << 20) - 1));
        assertEquals(4L << 20, OpenReads.span(1 << 20));
        assertEquals(8L << 20, OpenReads.span(2 << 20));
        assertEquals(8L << 20, OpenReads.span(5 << 20));
        assertEquals(16L << 20, OpenReads.span(16 << 20));
    }

    @Test
    void theExtentOfAnAnswerComesFromItsContentRangeAndIsTrustedOnlyWhenItFits() {
        assertArrayEquals(new long[] {8388608, 0}, OpenReads.extentOf(206, "bytes 0-8388607/20000000", 8388608, 0));
        assertArrayEquals(new long[] {300, 1}, OpenReads.extentOf(206, "bytes 100-299/300", 200, 100));
        assertArrayEquals(new long[] {300, 0}, OpenReads.extentOf(206, "bytes 100-299/*", 200, 100));
        assertArrayEquals(new long[] {500, 1}, OpenReads.extentOf(200, null, 500, 0));
        assertNull(OpenReads.extentOf(200, null, 500, 10), "a whole blob for a read that starts later");
        assertNull(OpenReads.extentOf(206, null, 200, 0), "no Content-Range");
        assertNull(OpenReads.extentOf(206, "bytes 5-299/300", 295, 0), "another start than asked");
        assertNull(OpenReads.extentOf(206, "bytes 9-3/300", 0, 9), "an end before the start");
        assertNull(OpenReads.extentOf(206, "items 0-9/10", 10, 0), "another unit");
        assertNull(OpenReads.extentOf(206, "bytes 0-x/10", 10, 0), "not a number");
        assertNull(OpenReads.extentOf(206, "bytes 0-9", 10, 0), "no total");
    }
}
