package com.qv.azure.rest;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.HttpURLConnection;
import java.net.ProtocolException;
import java.net.URI;
import java.net.URL;
import java.nio.charset.StandardCharsets;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.time.Duration;
import java.time.Instant;
import java.time.LocalDateTime;
import java.time.ZoneOffset;
import java.util.ArrayList;
import java.util.Base64;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.TreeMap;
import java.util.concurrent.ScheduledFuture;
import java.util.concurrent.ScheduledThreadPoolExecutor;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import javax.xml.XMLConstants;
import javax.xml.parsers.DocumentBuilder;
import javax.xml.parsers.DocumentBuilderFactory;
import javax.xml.parsers.ParserConfigurationException;
import org.w3c.dom.Document;
import org.w3c.dom.Element;
import org.w3c.dom.Node;
import org.w3c.dom.NodeList;
import org.xml.sax.SAXException;

/**
 * A small client for the parts of the Blob service REST API that the plug-in
 * library needs, authorized by Shared Key or by a shared access signature.
 * Requests go over the JDK's HttpURLConnection: a blocking exchange on the
 * caller's thread, the request body written straight from the caller's
 * array and the answer read straight into it, keep-alive connections reused
 * (and no TLS set-up at all for an http endpoint). The JDK's newer
 * java.net.http client did the same work with several times the CPU (its
 * selector and executor threads, buffer copies, and much more code to
 * compile in a short-lived JVM), measured in docs/performance.md. Every call either returns what the service answered or
 * throws a {@link StorageException} already classified by {@link ErrorMap}.
 * Every call belongs to an operation of the library and gets its
 * {@link Deadline}; the {@link RequestRunner} sends requests that fail in a
 * way that may go away by itself again, within the bounds of the
 * connection's {@link RetryPolicy} and that deadline. Large bodies are
 * announced with "Expect: 100-continue", so that a service refusing the
 * request by its head answers before the body and that refusal, not the
 * broken connection after it, is what the caller gets (see sendOnce).
 *
 * Everything that comes back is treated as untrusted: error bodies are read
 * only up to a limit, error codes are cleaned before they are compared or
 * logged, and a header that cannot be read is ignored.
 *
 * Metadata passed in and out of this class is in its stored form (see
 * {@link MetadataCodec}): names without the x-ms-meta- prefix.
 */
public final class BlobRestClient {
    /** 2021-12-02 is the first version that knows the Cold tier. */
    public static final String API_VERSION = "2021-12-02";
    private static final String[] DAYS = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
    private static final String[] MONTHS = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct",
                                            "Nov", "Dec"};
    private static final String META = "x-ms-meta-";
    /** How much of an error answer's body is read (it only carries a code and a message). */
    private static final int ERROR_BODY_LIMIT = 64 << 10;
    /**
     * Request bodies larger than this are sent with "Expect: 100-continue", so
     * that a refusal by the request's head alone (an expired token, a lease,
     * a body too large) arrives before the body and is reported as what it
     * is. Smaller bodies go out at once: the extra round trip would cost more
     * than sending them, and a refusal of such a body is read after it
     * anyway.
     */
    public static final int EXPECT_CONTINUE_ABOVE = 1 << 20;

    static {
        // The JDK keeps at most this many idle keep-alive connections per
        // host (5 unless set): parallel block uploads of several writes at
        // once need more, or each block would open a new connection. A host
        // that set it keeps its own value.
        if (System.getProperty("http.maxConnections") == null) {
            System.setProperty("http.maxConnections", "64");
        }
    }

    private final StorageConnection conn;
    /** Null when the credential is a shared access signature. */
    private final SharedKeySigner signer;
    private final RetryPolicy retry;
    private final RequestRunner runner;
    /** The path part of the endpoint ("" for account host names, "/account" for emulator-style endpoints). */
    private final String basePath;
    /** Set once the service answered 417 to "Expect: 100-continue": from then on no request carries it. */
    private volatile boolean expectRefused;
    /** Answers of ranged reads with bytes the caller has not asked for yet. */
    private final OpenReads openReads = new OpenReads();

    public BlobRestClient(StorageConnection conn) {
        this.conn = conn;
        this.retry = conn.retryPolicy;
        this.runner = new RequestRunner(retry);
        this.signer = conn.accountKey == null ? null : new SharedKeySigner(conn.accountName, conn.accountKey);
        String p = conn.blobEndpoint.getRawPath();
        this.basePath = p == null ? "" : p;
    }

    public String container() {
        return conn.container;
    }

    /** The tier every written object gets, or null for the account's default. */
    public String accessTier() {
        return conn.accessTier;
    }

    /** Whether requests carry a shared access signature instead of a Shared Key signature. */
    public boolean usesSas() {
        return conn.sas != null;
    }

    /** Closes what was read ahead and not asked for; the client can still be used afterwards. */
    public void close() {
        openReads.closeAll();
    }

    /** The deadline of an operation of the library that starts now. */
    public Deadline startOperation() {
        return retry.startOperation();
    }

    // ------------------------------------------------------------------ plumbing

    /** One answer of the service: status, headers (names compared without regard to case) and the body. */
    public static final class Response {
        public final int status;
        public final Map<String, List<String>> headers;
        public final byte[] body;

        Response(int status, Map<String, List<String>> headers, byte[] body) {
            this.status = status;
            this.headers = headers;
            this.body = body;
        }

        public String header(String name) {
            return firstHeader(headers, name);
        }

        public long longHeader(String name, long fallback) {
            String v = header(name);
            if (v == null) {
                return fallback;
            }
            try {
                return Long.parseLong(v.trim());
            } catch (NumberFormatException e) {
                return fallback;
            }
        }

        /** The x-ms-meta-* headers, names lowercased and without the prefix. */
        public Map<String, String> metadata() {
            Map<String, String> out = new TreeMap<>();
            for (Map.Entry<String, List<String>> e : headers.entrySet()) {
                String k = e.getKey().toLowerCase(Locale.ROOT);
                if (k.startsWith(META) && !e.getValue().isEmpty()) {
                    out.put(k.substring(META.length()), e.getValue().get(0));
                }
            }
            return out;
        }
    }

    /** What a ranged read put into the caller's array, with the answer's headers. */
    public static final class ReadResult {
        public final int bytesRead;
        public final Response response;

        ReadResult(int bytesRead, Response response) {
            this.bytesRead = bytesRead;
            this.response = response;
        }
    }

    /**
     * Where the body of an answer goes: kept whole, or copied into the
     * caller's array. A sink that answers null has taken the stream over,
     * with the connection under it, to read the rest later (see
     * {@link OpenReads}); the stream is closed otherwise.
     */
    private interface BodySink {
        byte[] consume(InputStream in, HttpURLConnection http, Response head) throws IOException;
    }

    /** Percent-encodes a blob name for the URL path, keeping '/' as the virtual directory separator. */
    public static String encodePath(String s) {
        StringBuilder sb = new StringBuilder();
        for (byte b : s.getBytes(StandardCharsets.UTF_8)) {
            int c = b & 0xff;
            if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
                || c == '-' || c == '.' || c == '_' || c == '~' || c == '/') {
                sb.append((char) c);
            } else {
                sb.append('%').append(String.format(Locale.ROOT, "%02X", c));
            }
        }
        return sb.toString();
    }

    static String encodeQueryValue(String s) {
        String p = encodePath(s);
        return p.replace("/", "%2F");
    }

    private String blobPath(String blob) {
        return basePath + "/" + conn.container + "/" + encodePath(blob);
    }

    private String containerPath(String container) {
        return basePath + "/" + container;
    }

    /**
     * Sends a request through the runner: again after failures that may go
     * away, within the bounds. A body above {@link #EXPECT_CONTINUE_ABOVE}
     * asks the service first (Expect: 100-continue); a service that refuses
     * the expectation itself (417) gets the request again at once without it,
     * within the same attempt, and is not asked again.
     */
    private Response send(Deadline op, String method, String rawPath, String rawQuery, Map<String, String> headers,
                          byte[] body, int off, int len, BodySink sink, int... okStatuses) throws StorageException {
        if (!method.equals("GET") && !method.equals("HEAD")) {
            // What was read ahead of this blob is of the version this request may change.
            openReads.drop(rawPath);
        }
        return runner.run(op, method + " " + rawPath, timeout -> {
            long started = System.nanoTime();
            boolean expect = body != null && len > EXPECT_CONTINUE_ABOVE && !expectRefused;
            try {
                return sendOnce(method, rawPath, rawQuery, headers, body, off, len, sink, timeout, expect,
                                okStatuses);
            } catch (StorageException e) {
                if (!expect || e.status != 417) {
                    throw e;
                }
                expectRefused = true;
                Duration left = timeout.minusNanos(System.nanoTime() - started);
                if (left.isNegative() || left.isZero()) {
                    throw new StorageException(ERRORID.TIMEOUT, 417, e.serviceCode, e.getMessage()
                                                   + "; no time left to send it again without Expect", e, true);
                }
                return sendOnce(method, rawPath, rawQuery, headers, body, off, len, sink, left, false, okStatuses);
            }
        });
    }

    /** A failed exchange with no usable answer: retried when it is a timeout or a broken connection. */
    private StorageException transportFailure(int status, String message, IOException e) {
        ERRORID id = ErrorMap.fromThrowable(e);
        boolean again = id == ERRORID.TIMEOUT || id == ERRORID.NETWORK_ERROR;
        if (id == ERRORID.TLS_HANDSHAKE_FAILED) {
            // Say which host refused or was refused: the JDK's text alone often does not.
            URI base = conn.blobEndpoint;
            int port = base.getPort() >= 0 ? base.getPort() : 443;
            return new StorageException(id, status, null, message + ": TLS with " + base.getHost() + ":" + port
                                            + " failed: " + e, e, false);
        }
        return new StorageException(id, status, null, message + ": " + e, e, again);
    }

    /**
     * One exchange. With {@code expectContinue} the request's head goes out
     * with "Expect: 100-continue" and the JDK waits for the service's interim
     * answer before it writes the body (at most 5 s, or the read timeout when
     * that is shorter; then the body goes anyway, for a service that ignores
     * the header). When the service answers with its final answer instead, a
     * refusal by the head alone (an expired token, a lease, a body too large),
     * the JDK throws from getOutputStream with that status and the answer's
     * headers kept (not its body), and the answer is classified like any
     * other. Without the header such a refusal arrives while the body is
     * still being written and the service resets the connection under the
     * rest of it; whether the answer can still be read then depends on the
     * platform and the network (a reset may discard it), and a broken
     * connection is all that is left.
     */
    private Response sendOnce(String method, String rawPath, String rawQuery, Map<String, String> headers,
                              byte[] body, int off, int len, BodySink sink, Duration timeout, boolean expectContinue,
                              int... okStatuses) throws StorageException {
        Map<String, String> all = new LinkedHashMap<>(headers);
        all.put("x-ms-date", httpDate(System.currentTimeMillis() / 1000));
        all.put("x-ms-version", API_VERSION);
        long contentLength = body == null ? 0 : len;
        String query = rawQuery;
        if (signer != null) {
            all.put("Authorization", signer.authorization(method, rawPath, rawQuery, all, contentLength));
        } else {
            query = conn.sas.appendTo(rawQuery);
        }
        HttpURLConnection http = open(method, rawPath, query, all, timeout);
        if (expectContinue) {
            // Not a signed header: Shared Key signs the standard headers and x-ms-*, not Expect.
            http.setRequestProperty("Expect", "100-continue");
        }
        // The send as a whole gets the timeout: the JDK's read timeout is per read, so a watchdog
        // disconnects an exchange that is not over in time, which wakes a read waiting for bytes.
        AtomicBoolean cutOff = new AtomicBoolean();
        ScheduledFuture<?> watchdog = Watchdog.TIMER.schedule(() -> {
            cutOff.set(true);
            http.disconnect();
        }, timeout.toNanos(), TimeUnit.NANOSECONDS);
        int status = 0;
        try {
            // A PUT always states its length (0 without a body); nothing else sends one.
            if (body != null || method.equals("PUT")) {
                http.setDoOutput(true);
                http.setFixedLengthStreamingMode(contentLength);
                OutputStream stream;
                try {
                    stream = http.getOutputStream();
                } catch (ProtocolException e) {
                    int early = expectContinue ? earlyStatus(http) : 0;
                    if (early == 0) {
                        throw e;
                    }
                    // The JDK has closed the connection; the answer's head is kept, its body is not.
                    status = early;
                    throw failure(method, rawPath, early, headersOf(http), null, true);
                }
                try (OutputStream out = stream) {
                    if (contentLength > 0) {
                        out.write(body, off, len);
                    }
                }
            }
            status = http.getResponseCode();
            Map<String, List<String>> answerHeaders = headersOf(http);
            if (!isOneOf(status, okStatuses)) {
                throw failure(method, rawPath, status, answerHeaders, http.getErrorStream(), false);
            }
            InputStream in = method.equals("HEAD") ? InputStream.nullInputStream() : http.getInputStream();
            byte[] kept = null;
            try {
                kept = sink == null ? in.readAllBytes() : sink.consume(in, http, new Response(status, answerHeaders,
                                                                                              new byte[0]));
            } finally {
                if (kept != null) {
                    in.close();
                }
            }
            return new Response(status, answerHeaders, kept == null ? new byte[0] : kept);
        } catch (IOException e) {
            if (cutOff.get()) {
                throw new StorageException(ERRORID.TIMEOUT, status, null,
                                           method + " " + rawPath + ": the answer did not arrive within "
                                               + timeout.toMillis() + " ms", e, true);
            }
            throw transportFailure(status, method + " " + rawPath + (status == 0 ? "" : ": reading the answer failed"),
                                   e);
        } finally {
            watchdog.cancel(false);
        }
    }

    /**
     * A time in the form of HTTP dates (RFC 1123, always GMT, two-digit
     * day): "Sun, 06 Nov 1994 08:49:37 GMT". Written out here because
     * java.time's formatter loads locale data first, about 20 ms of a
     * short-lived JVM's start.
     */
    static String httpDate(long epochSecond) {
        LocalDateTime t = LocalDateTime.ofEpochSecond(epochSecond, 0, ZoneOffset.UTC);
        StringBuilder sb = new StringBuilder(29);
        sb.append(DAYS[t.getDayOfWeek().getValue() - 1]).append(", ");
        twoDigits(sb, t.getDayOfMonth()).append(' ').append(MONTHS[t.getMonthValue() - 1]).append(' ');
        sb.append(t.getYear()).append(' ');
        twoDigits(sb, t.getHour()).append(':');
        twoDigits(sb, t.getMinute()).append(':');
        return twoDigits(sb, t.getSecond()).append(" GMT").toString();
    }

    private static StringBuilder twoDigits(StringBuilder sb, int value) {
        return sb.append((char) ('0' + value / 10)).append((char) ('0' + value % 10));
    }

    /** A connection for one request, its headers set; nothing is sent yet. */
    private HttpURLConnection open(String method, String rawPath, String query, Map<String, String> headers,
                                   Duration timeout) throws StorageException {
        URI base = conn.blobEndpoint;
        try {
            URL url = new URL(base.getScheme() + "://" + base.getRawAuthority() + rawPath
                                  + (query == null || query.isEmpty() ? "" : "?" + query));
            HttpURLConnection http = (HttpURLConnection) url.openConnection();
            http.setRequestMethod(method);
            http.setInstanceFollowRedirects(false);
            http.setUseCaches(false);
            http.setConnectTimeout(millisOf(retry.connectTimeout.compareTo(timeout) < 0 ? retry.connectTimeout : timeout));
            http.setReadTimeout(millisOf(timeout));
            for (Map.Entry<String, String> e : headers.entrySet()) {
                http.setRequestProperty(e.getKey(), e.getValue());
            }
            return http;
        } catch (IOException | IllegalArgumentException e) {
            // The JDK's text may quote the URL, and with it a token: name the kind of failure only.
            throw new StorageException(ERRORID.INVALID_ARGUMENT, 0, null,
                                       method + " " + rawPath + ": the request could not be built ("
                                           + e.getClass().getSimpleName() + ")", null);
        }
    }

    /**
     * The final status the service answered in place of 100 Continue, kept by
     * the JDK when it refused to go on with the body; 0 when there is none
     * (the ProtocolException had another cause).
     */
    private static int earlyStatus(HttpURLConnection http) {
        try {
            int s = http.getResponseCode();
            return s >= 200 && s <= 599 ? s : 0;
        } catch (IOException e) {
            return 0;
        }
    }

    /**
     * An error answer, classified; its body is read only up to a limit.
     *
     * @param beforeBody the service answered in place of 100 Continue, before any byte of the body was sent
     */
    private StorageException failure(String method, String rawPath, int status, Map<String, List<String>> headers,
                                     InputStream errorBody, boolean beforeBody) throws IOException {
        byte[] err = new byte[0];
        if (errorBody != null) {
            try (InputStream in = errorBody) {
                err = in.readNBytes(ERROR_BODY_LIMIT);
            }
        }
        String code = cleanCode(firstHeader(headers, "x-ms-error-code"));
        if (code == null) {
            code = cleanCode(xmlText(err, "Code"));
        }
        ERRORID id = ErrorMap.fromHttp(status, code);
        String text = method + " " + rawPath + " -> " + status + " " + code
            + (beforeBody ? " (answered before the body was sent)" : "");
        if (status == 403 && conn.sas != null) {
            Instant now = Instant.now();
            if (conn.sas.expiredAt(now)) {
                id = ERRORID.AUTHENTICATION_FAILED;
                text += "; the SharedAccessSignature has expired (its se time has passed)";
            } else if (conn.sas.notYetValidAt(now)) {
                id = ERRORID.AUTHENTICATION_FAILED;
                text += "; the SharedAccessSignature is not valid yet (its st time is still ahead)";
            }
        }
        boolean again = RetryPolicy.isRetryableStatus(status);
        long wait = again ? RetryPolicy.retryAfterMillis(firstHeader(headers, "Retry-After"), Instant.now()) : -1;
        return new StorageException(id, status, code, text, null, again, wait);
    }

    /** The answer's headers, names compared without regard to case (the status line left out). */
    private static Map<String, List<String>> headersOf(HttpURLConnection http) {
        Map<String, List<String>> headers = new TreeMap<>(String.CASE_INSENSITIVE_ORDER);
        for (Map.Entry<String, List<String>> e : http.getHeaderFields().entrySet()) {
            if (e.getKey() != null) {
                headers.put(e.getKey(), e.getValue());
            }
        }
        return headers;
    }

    private static String firstHeader(Map<String, List<String>> headers, String name) {
        List<String> values = headers.get(name);
        return values == null || values.isEmpty() ? null : values.get(0);
    }

    private static boolean isOneOf(int status, int... statuses) {
        for (int s : statuses) {
            if (s == status) {
                return true;
            }
        }
        return false;
    }

    private static int millisOf(Duration d) {
        return (int) Math.max(1, Math.min(Integer.MAX_VALUE, d.toMillis()));
    }

    /**
     * An error code as the service sends it is a short word; anything else
     * that comes in its place is cut short and stripped of characters that
     * could break a log line, so that it is only ever compared and shown.
     */
    static String cleanCode(String code) {
        if (code == null) {
            return null;
        }
        String c = code.trim();
        if (c.isEmpty()) {
            return null;
        }
        StringBuilder sb = new StringBuilder();
        for (int i = 0; i < c.length() && sb.length() < 100; ++i) {
            char ch = c.charAt(i);
            boolean plain = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9')
                || ch == '_' || ch == '-' || ch == '.';
            sb.append(plain ? ch : '?');
        }
        return sb.toString();
    }

    /** One daemon thread, shared by all clients, that cuts off answers whose body stalls. */
    private static final class Watchdog {
        static final ScheduledThreadPoolExecutor TIMER = new ScheduledThreadPoolExecutor(1, r -> {
            Thread t = new Thread(r, "azure-answer-watchdog");
            t.setDaemon(true);
            return t;
        });

        static {
            TIMER.setRemoveOnCancelPolicy(true);
        }
    }

    private static Map<String, String> withMetadata(Map<String, String> headers, Map<String, String> metadata) {
        Map<String, String> h = new LinkedHashMap<>(headers);
        if (metadata != null) {
            for (Map.Entry<String, String> e : metadata.entrySet()) {
                h.put(META + e.getKey(), e.getValue());
            }
        }
        return h;
    }

    // ------------------------------------------------------------------ containers and account

    /** Creates the configured container; answers false when it was already there. */
    public boolean createContainerIfMissing(Deadline op) throws StorageException {
        try {
            send(op, "PUT", containerPath(conn.container), "restype=container", Map.of(), null, 0, 0, null, 201);
            return true;
        } catch (StorageException e) {
            if (e.error == ERRORID.CONTAINER_ALREADY_EXISTS) {
                return false;
            }
            throw e;
        }
    }

    public boolean containerExists(Deadline op, String container) throws StorageException {
        try {
            send(op, "HEAD", containerPath(container), "restype=container", Map.of(), null, 0, 0, null, 200);
            return true;
        } catch (StorageException e) {
            if (e.status == 404) {
                return false;
            }
            throw e;
        }
    }

    public void deleteContainer(Deadline op, String container) throws StorageException {
        send(op, "DELETE", containerPath(container), "restype=container", Map.of(), null, 0, 0, null, 202);
    }

    /** Every container of the account, following the continuation markers. */
    public List<String> listContainers(Deadline op) throws StorageException {
        List<String> names = new ArrayList<>();
        String marker = null;
        do {
            String q = "comp=list" + (marker == null ? "" : "&marker=" + encodeQueryValue(marker));
            Response r = send(op, "GET", basePath + "/", q, Map.of(), null, 0, 0, null, 200);
            Document doc = parseXml(r.body);
            NodeList list = doc.getElementsByTagName("Container");
            for (int i = 0; i < list.getLength(); ++i) {
                String n = childText((Element) list.item(i), "Name");
                if (n != null) {
                    names.add(n);
                }
            }
            marker = nextMarker(doc, marker);
        } while (marker != null);
        return names;
    }

    /**
     * Get Account Information: the x-ms-sku-name and x-ms-account-kind
     * headers. With a shared access signature it is asked of the container
     * (a container SAS cannot reach the account's own URL).
     */
    public Response accountInformation(Deadline op) throws StorageException {
        String path = conn.sas == null ? basePath + "/" : containerPath(conn.container);
        return send(op, "GET", path, "restype=account&comp=properties", Map.of(), null, 0, 0, null, 200);
    }

    /**
     * Checks that the credential reaches the configured container, with the
     * least a backup target grants: with the account key, Get Container
     * Properties (false: the container does not exist); with a shared
     * access signature, a List Blobs of one entry, since a container SAS may
     * not read the container's properties. The service refusing only the
     * listing (AuthorizationPermissionMismatch, AuthorizationResourceTypeMismatch)
     * still shows that the token is genuine, current and meant for this
     * container: that counts as reached. Any other refusal is thrown.
     */
    public boolean containerReachable(Deadline op) throws StorageException {
        if (conn.sas == null) {
            return containerExists(op, conn.container);
        }
        try {
            listBlobs(op, null, null, 1, false);
            return true;
        } catch (StorageException e) {
            if (e.error == ERRORID.CONTAINER_NOT_FOUND) {
                return false;
            }
            if (e.status == 403 && e.error == ERRORID.AUTHORIZATION_FAILED
                && ("AuthorizationPermissionMismatch".equals(e.serviceCode)
                    || "AuthorizationResourceTypeMismatch".equals(e.serviceCode))) {
                return true;
            }
            throw e;
        }
    }

    // ------------------------------------------------------------------ blobs

    /**
     * Put Blob of a whole block blob.
     *
     * @param onlyIfMissing send If-None-Match: * so that an existing blob is not replaced
     * @param tier          the access tier of the new blob, or null for the account's default
     */
    public void putBlob(Deadline op, String blob, byte[] data, int off, int len, Map<String, String> metadata,
                        boolean onlyIfMissing, String tier) throws StorageException {
        Map<String, String> h = new LinkedHashMap<>();
        h.put("x-ms-blob-type", "BlockBlob");
        h.put("Content-Type", "application/octet-stream");
        if (onlyIfMissing) {
            h.put("If-None-Match", "*");
        }
        if (tier != null) {
            h.put("x-ms-access-tier", tier);
        }
        send(op, "PUT", blobPath(blob), null, withMetadata(h, metadata), data, off, len, null, 201);
    }

    /** Put Block with a Content-MD5 the service checks the block against. */
    public void putBlock(Deadline op, String blob, String blockId, byte[] data, int off, int len)
        throws StorageException {
        Map<String, String> h = new LinkedHashMap<>();
        h.put("Content-MD5", md5Base64(data, off, len));
        String q = "comp=block&blockid=" + encodeQueryValue(blockId);
        send(op, "PUT", blobPath(blob), q, h, data, off, len, null, 201);
    }

    /** Put Block List: commits the given uncommitted blocks, in order, as the blob's content, in the tier given. */
    public void putBlockList(Deadline op, String blob, List<String> blockIds, Map<String, String> metadata,
                             String tier) throws StorageException {
        StringBuilder xml = new StringBuilder("<?xml version=\"1.0\" encoding=\"utf-8\"?><BlockList>");
        for (String id : blockIds) {
            xml.append("<Latest>").append(id).append("</Latest>");
        }
        xml.append("</BlockList>");
        byte[] body = xml.toString().getBytes(StandardCharsets.UTF_8);
        Map<String, String> h = new LinkedHashMap<>();
        h.put("Content-Type", "application/xml");
        h.put("x-ms-blob-content-type", "application/octet-stream");
        if (tier != null) {
            h.put("x-ms-access-tier", tier);
        }
        send(op, "PUT", blobPath(blob), "comp=blocklist", withMetadata(h, metadata), body, 0, body.length, null, 201);
    }

    /**
     * Reads up to {@code max} bytes from {@code offset} into {@code dest[0..]}.
     * An offset at or past the end reads 0 bytes (the service answers 416 then,
     * and the blob's properties are fetched separately). A read of 1 MiB or
     * more asks for more than {@code max} and parks the rest of the answer
     * for the read that goes on where this one ends ({@link OpenReads}),
     * which then takes its bytes from there without a request of its own.
     */
    public ReadResult readRange(Deadline op, String blob, long offset, byte[] dest, int max) throws StorageException {
        if (max <= 0) {
            return new ReadResult(0, properties(op, blob));
        }
        String path = blobPath(blob);
        OpenReads.Open open = openReads.take(path, offset);
        if (open != null) {
            ReadResult r = readOn(op, open, dest, max);
            if (r != null) {
                return r;
            }
        }
        long span = OpenReads.span(max);
        Map<String, String> h = Map.of("x-ms-range", "bytes=" + offset + "-" + (offset + span - 1));
        int[] count = new int[1];
        BodySink sink = (in, http, head) -> {
            count[0] = readFully(in, dest, max);
            long[] extent = OpenReads.extentOf(head.status, head.header("Content-Range"),
                                               head.longHeader("Content-Length", -1), offset);
            if (count[0] == max && extent != null && extent[0] > offset + max) {
                openReads.park(new OpenReads.Open(path, http, in, head, offset + max, extent[0], extent[1] == 1));
                return null;
            }
            // Nothing left, or an answer whose extent cannot be trusted: read to its end and let it go.
            in.transferTo(java.io.OutputStream.nullOutputStream());
            return new byte[0];
        };
        try {
            Response r = send(op, "GET", path, null, h, null, 0, 0, sink, 200, 206);
            return new ReadResult(count[0], r);
        } catch (StorageException e) {
            if (e.status == 416) {
                return new ReadResult(0, properties(op, blob));
            }
            throw e;
        }
    }

    /**
     * Reads the next {@code max} bytes of a parked answer into {@code dest},
     * within the request timeout and the operation's deadline, and parks it
     * again while bytes are left. Null when it cannot serve the read whole
     * (the blob goes on past the answer, the answer broke or ended early):
     * the answer is closed and the caller sends a request of its own, which
     * overwrites what this one put into {@code dest}.
     */
    private ReadResult readOn(Deadline op, OpenReads.Open open, byte[] dest, int max) {
        if (open.remaining() < max && !open.reachesBlobEnd) {
            open.close();
            return null;
        }
        int want = (int) Math.min(max, open.remaining());
        long timeout = Math.min(op.nanosLeft(), retry.requestTimeout.toNanos());
        if (timeout <= 0) {
            open.close();
            return null;
        }
        ScheduledFuture<?> watchdog = Watchdog.TIMER.schedule(open.http::disconnect, timeout, TimeUnit.NANOSECONDS);
        int n;
        try {
            n = readFully(open.in, dest, want);
        } catch (IOException e) {
            n = -1;
        } finally {
            watchdog.cancel(false);
        }
        if (n != want) {
            open.close();
            return null;
        }
        open.next += n;
        if (open.remaining() > 0) {
            openReads.park(open);
        } else {
            open.close();
        }
        return new ReadResult(n, open.response);
    }

    /** Reads until {@code want} bytes are in {@code dest} or the stream ends; answers how many came. */
    private static int readFully(InputStream in, byte[] dest, int want) throws IOException {
        int n = 0;
        int r;
        while (n < want && (r = in.read(dest, n, want - n)) > 0) {
            n += r;
        }
        return n;
    }

    /** Get Blob Properties (HEAD). */
    public Response properties(Deadline op, String blob) throws StorageException {
        return send(op, "HEAD", blobPath(blob), null, Map.of(), null, 0, 0, null, 200);
    }

    public boolean exists(Deadline op, String blob) throws StorageException {
        try {
            properties(op, blob);
            return true;
        } catch (StorageException e) {
            if (e.status == 404) {
                return false;
            }
            throw e;
        }
    }

    /** Set Blob Metadata, replacing all of it; with an ETag it only succeeds if the blob is unchanged. */
    public void setMetadata(Deadline op, String blob, Map<String, String> metadata, String ifMatch)
        throws StorageException {
        Map<String, String> h = new LinkedHashMap<>();
        if (ifMatch != null) {
            h.put("If-Match", ifMatch);
        }
        send(op, "PUT", blobPath(blob), "comp=metadata", withMetadata(h, metadata), null, 0, 0, null, 200);
    }

    public void deleteBlob(Deadline op, String blob) throws StorageException {
        send(op, "DELETE", blobPath(blob), null, Map.of(), null, 0, 0, null, 202);
    }

    /**
     * Set Blob Tier. The service answers 200 when the change is done and 202
     * when it has begun: a rehydration from Archive, which takes hours, while
     * the blob keeps reporting Archive with x-ms-archive-status
     * rehydrate-pending-to-&lt;tier&gt;.
     *
     * @param tier     Hot, Cool, Cold or Archive, as the service spells them
     * @param priority the rehydrate priority (High or Standard), or null to send none
     * @return the status the service answered (200 or 202)
     */
    public int setTier(Deadline op, String blob, String tier, String priority) throws StorageException {
        Map<String, String> h = new LinkedHashMap<>();
        h.put("x-ms-access-tier", tier);
        if (priority != null) {
            h.put("x-ms-rehydrate-priority", priority);
        }
        return send(op, "PUT", blobPath(blob), "comp=tier", h, null, 0, 0, null, 200, 202).status;
    }

    /** One blob of a listing. */
    public static final class BlobItem {
        public final String name;
        public final long size;
        public final Map<String, String> metadata;
        /** The blob's tier (AccessTier, also when only inferred from the account's default), or null. */
        public final String accessTier;
        /** ArchiveStatus, e.g. rehydrate-pending-to-hot, while a rehydration is pending; else null. */
        public final String archiveStatus;
        /** RehydratePriority (High or Standard) where the service reports one; else null. */
        public final String rehydratePriority;

        BlobItem(String name, long size, Map<String, String> metadata, String accessTier, String archiveStatus,
                 String rehydratePriority) {
            this.name = name;
            this.size = size;
            this.metadata = metadata;
            this.accessTier = accessTier;
            this.archiveStatus = archiveStatus;
            this.rehydratePriority = rehydratePriority;
        }
    }

    /** One page of List Blobs and the marker of the next page (null at the end). */
    public static final class BlobPage {
        public final List<BlobItem> items;
        public final String nextMarker;

        BlobPage(List<BlobItem> items, String nextMarker) {
            this.items = items;
            this.nextMarker = nextMarker;
        }
    }

    public BlobPage listBlobs(Deadline op, String prefix, String marker, int maxResults, boolean withMetadata)
        throws StorageException {
        StringBuilder q = new StringBuilder("restype=container&comp=list");
        if (withMetadata) {
            q.append("&include=metadata");
        }
        if (marker != null && !marker.isEmpty()) {
            q.append("&marker=").append(encodeQueryValue(marker));
        }
        if (maxResults > 0) {
            q.append("&maxresults=").append(maxResults);
        }
        if (prefix != null && !prefix.isEmpty()) {
            q.append("&prefix=").append(encodeQueryValue(prefix));
        }
        Response r = send(op, "GET", containerPath(conn.container), q.toString(), Map.of(), null, 0, 0, null, 200);
        Document doc = parseXml(r.body);
        List<BlobItem> items = new ArrayList<>();
        NodeList blobs = doc.getElementsByTagName("Blob");
        for (int i = 0; i < blobs.getLength(); ++i) {
            Element b = (Element) blobs.item(i);
            String name = childText(b, "Name");
            long size = 0;
            String tier = null;
            String archiveStatus = null;
            String priority = null;
            Element props = child(b, "Properties");
            if (props != null) {
                tier = nonEmpty(childText(props, "AccessTier"));
                archiveStatus = nonEmpty(childText(props, "ArchiveStatus"));
                priority = nonEmpty(childText(props, "RehydratePriority"));
                String len = childText(props, "Content-Length");
                if (len != null && !len.isEmpty()) {
                    try {
                        size = Long.parseLong(len.trim());
                    } catch (NumberFormatException e) {
                        throw new StorageException(ERRORID.INTERNAL_ERROR, "unreadable Content-Length in a listing");
                    }
                }
            }
            Map<String, String> meta = new TreeMap<>();
            Element m = child(b, "Metadata");
            if (m != null) {
                for (Node n = m.getFirstChild(); n != null; n = n.getNextSibling()) {
                    if (n instanceof Element) {
                        meta.put(n.getNodeName().toLowerCase(Locale.ROOT), n.getTextContent());
                    }
                }
            }
            items.add(new BlobItem(name, size, meta, tier, archiveStatus, priority));
        }
        return new BlobPage(items, nextMarker(doc, marker));
    }

    // ------------------------------------------------------------------ helpers

    static String md5Base64(byte[] data, int off, int len) {
        try {
            MessageDigest md = MessageDigest.getInstance("MD5");
            md.update(data, off, len);
            return Base64.getEncoder().encodeToString(md.digest());
        } catch (NoSuchAlgorithmException e) {
            throw new IllegalStateException("MD5 is not available", e);
        }
    }

    private static Document parseXml(byte[] body) throws StorageException {
        try {
            DocumentBuilderFactory f = DocumentBuilderFactory.newInstance();
            f.setFeature(XMLConstants.FEATURE_SECURE_PROCESSING, true);
            f.setFeature("http://apache.org/xml/features/disallow-doctype-decl", true);
            f.setExpandEntityReferences(false);
            DocumentBuilder db = f.newDocumentBuilder();
            return db.parse(new ByteArrayInputStream(body));
        } catch (ParserConfigurationException | SAXException | IOException e) {
            throw new StorageException(ERRORID.INTERNAL_ERROR, 0, null, "unreadable XML answer: " + e, e);
        }
    }

    /** The text of the first element named {@code tag} in an error body, or null. */
    private static String xmlText(byte[] body, String tag) {
        if (body == null || body.length == 0) {
            return null;
        }
        try {
            NodeList l = parseXml(body).getElementsByTagName(tag);
            return l.getLength() == 0 ? null : l.item(0).getTextContent();
        } catch (StorageException e) {
            return null;
        }
    }

    /**
     * The continuation marker of a listing page, or null at the end. A
     * service that answers the marker it was given would make the listing go
     * round for ever; that is refused.
     */
    private static String nextMarker(Document doc, String previous) throws StorageException {
        String next = childText(doc.getDocumentElement(), "NextMarker");
        if (next == null || next.isEmpty()) {
            return null;
        }
        if (next.equals(previous)) {
            throw new StorageException(ERRORID.INTERNAL_ERROR, "the listing answered the marker it was given");
        }
        return next;
    }

    private static Element child(Element parent, String name) {
        for (Node n = parent.getFirstChild(); n != null; n = n.getNextSibling()) {
            if (n instanceof Element && n.getNodeName().equals(name)) {
                return (Element) n;
            }
        }
        return null;
    }

    private static String childText(Element parent, String name) {
        Element c = child(parent, name);
        return c == null ? null : c.getTextContent();
    }

    /** The text trimmed, or null when there is none. */
    private static String nonEmpty(String text) {
        if (text == null) {
            return null;
        }
        String t = text.trim();
        return t.isEmpty() ? null : t;
    }
}
