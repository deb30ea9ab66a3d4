package com.qv.azure.rest;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.io.EOFException;
import java.io.FilterInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.HttpURLConnection;
import java.net.ProtocolException;
import java.net.URI;
import java.net.URL;
import java.time.Duration;
import java.time.Instant;
import java.time.LocalDateTime;
import java.time.ZoneOffset;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.concurrent.ScheduledFuture;
import java.util.concurrent.ScheduledThreadPoolExecutor;
import java.util.concurrent.TimeUnit;

/**
 * One send of a {@link BlobRequest} over the JDK's HttpURLConnection: the
 * request dated, versioned and authorized, its body written, the answer's
 * head read and classified, its body handed to the request's sink or kept.
 * A watchdog disconnects a send that is not over in the time it was given.
 *
 * Bodies above {@link #EXPECT_CONTINUE_ABOVE} ask first ("Expect:
 * 100-continue"), so that a service refusing the request by its head
 * answers before the body and that refusal, not the broken connection
 * after it, is what the caller gets. A service that refuses the
 * expectation itself (417) gets the request again at once without it,
 * within the same send, and is not asked again by this exchange.
 *
 * Everything that comes back is treated as untrusted: error bodies are read
 * only up to a limit, error codes are cleaned before they are compared or
 * logged, and a header that cannot be read is ignored.
 */
final class HttpExchange {
    /** The x-ms-version sent unless the connection string names another (ServiceVersion). */
    static final String API_VERSION = StorageConnection.DEFAULT_SERVICE_VERSION;
    /**
     * Request bodies larger than this are sent with "Expect: 100-continue", so
     * that a refusal by the request's head alone (an expired token, a lease,
     * a body too large) arrives before the body and is reported as what it
     * is. Smaller bodies go out at once: the extra round trip would cost more
     * than sending them, and a refusal of such a body is read after it
     * anyway.
     */
    static final int EXPECT_CONTINUE_ABOVE = 1 << 20;
    /** How much of an error answer's body is read (it only carries a code and a message). */
    private static final int ERROR_BODY_LIMIT = 64 << 10;
    private static final String[] DAYS = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
    private static final String[] MONTHS = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct",
                                            "Nov", "Dec"};

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
    /** Set once the service answered 417 to "Expect: 100-continue": from then on no request carries it. */
    private volatile boolean expectRefused;
    /**
     * The rate (bytes per nanosecond) at which the last large body of this
     * exchange reached the service, from its first byte written to the
     * answer's head; 0 until one did. See {@link Watch}.
     */
    private volatile double uploadRate;

    HttpExchange(StorageConnection conn, RetryPolicy retry) {
        this.conn = conn;
        this.retry = retry;
        this.signer = conn.accountKey == null ? null : new SharedKeySigner(conn.accountName, conn.accountKey);
    }

    /** One send of the request, over within {@code timeout}; 417 to the expectation answered without it. */
    Response send(BlobRequest r, Duration timeout) throws StorageException {
        long started = System.nanoTime();
        boolean expect = r.body != null && r.length > EXPECT_CONTINUE_ABOVE && !expectRefused;
        try {
            return sendOnce(r, timeout, expect);
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
            return sendOnce(r, left, false);
        }
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
    private Response sendOnce(BlobRequest r, Duration timeout, boolean expectContinue) throws StorageException {
        Map<String, String> all = new LinkedHashMap<>(r.headers);
        if (r.method.equals("DELETE")) {
            // Streamed (see below), the JDK would give it a form's Content-Type, unsigned: name one that is signed.
            all.putIfAbsent("Content-Type", "application/octet-stream");
        }
        all.put("x-ms-date", httpDate(System.currentTimeMillis() / 1000));
        all.put("x-ms-version", conn.serviceVersion);
        // The same id on every send of one request, so that the service's logs tie them together.
        all.put("x-ms-client-request-id", r.clientRequestId);
        long contentLength = r.contentLength();
        String query = r.query;
        String bearer = null;
        if (signer != null) {
            all.put("Authorization", signer.authorization(r.method, r.path, r.query, all, contentLength));
        } else if (conn.sas != null) {
            query = conn.sas.appendTo(r.query);
        } else {
            bearer = conn.entra.token(timeout);
            all.put("Authorization", "Bearer " + bearer);
        }
        HttpURLConnection http = open(r, query, all, timeout);
        Traffic.sent(r.method, r.query);
        if (expectContinue) {
            // Not a signed header: Shared Key signs the standard headers and x-ms-*, not Expect.
            http.setRequestProperty("Expect", "100-continue");
        }
        // A watch disconnects a send when no byte has moved either way for the stall timeout, or when
        // its time is up; a disconnect wakes a write or a read that waits.
        Watch watch = new Watch(http, timeout, retry.stallTimeout, uploadRate);
        int status = 0;
        try {
            // A PUT always states its length (0 without a body), and so does a DELETE: a request
            // streamed with its length is never sent again by the JDK on its own (it resends other
            // requests whose answer did not come), so that only the runner resends, knowing it did.
            if (r.body != null || r.method.equals("PUT") || r.method.equals("DELETE")) {
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
                    throw failure(r, early, headersOf(http), null, true);
                }
                try (OutputStream out = stream) {
                    // In pieces, so that the watch sees the body move.
                    watch.bodyStarts();
                    for (int done = 0; done < r.length; ) {
                        int n = Math.min(WRITE_PIECE, r.length - done);
                        out.write(r.body, r.offset + done, n);
                        Traffic.bytesSent(n);
                        done += n;
                        watch.wrote(done, r.length);
                    }
                }
            }
            status = http.getResponseCode();
            watch.moved();
            if (r.length >= RATE_FROM && watch.bodyStart != 0) {
                uploadRate = r.length / (double) Math.max(1, System.nanoTime() - watch.bodyStart);
            }
            Map<String, List<String>> answerHeaders = headersOf(http);
            if (!r.succeeds(status)) {
                StorageException refused = failure(r, status, answerHeaders, http.getErrorStream(), false);
                if (bearer != null && (status == 401 || "InvalidAuthenticationInfo".equals(refused.serviceCode))) {
                    // A token the service no longer takes (revoked, or expired early): the next send gets a new one.
                    if (conn.entra.refused(bearer)) {
                        throw new StorageException(refused.error, status, refused.serviceCode, refused.getMessage()
                            + "; sent again with a new token", null, true);
                    }
                }
                throw refused;
            }
            InputStream in = r.method.equals("HEAD") ? InputStream.nullInputStream()
                : watch.counting(http.getInputStream());
            byte[] kept = null;
            try {
                Response head = new Response(status, answerHeaders, new byte[0]);
                kept = r.sink != null ? r.sink.consume(in, http, head)
                    : r.method.equals("HEAD") ? new byte[0] : readWhole(in, head);
            } finally {
                if (kept != null) {
                    in.close();
                }
            }
            return new Response(status, answerHeaders, kept == null ? new byte[0] : kept);
        } catch (UnusableAnswer e) {
            http.disconnect();
            throw e.failure;
        } catch (IOException e) {
            http.disconnect();
            String cut = watch.cut;
            if (cut != null) {
                throw new StorageException(ERRORID.TIMEOUT, status, null,
                                           r.what() + " (client request id " + r.clientRequestId + "): " + cut, e,
                                           true);
            }
            throw transportFailure(status, r.what() + " (client request id " + r.clientRequestId + ")"
                                       + (status == 0 ? "" : ": reading the answer failed"), e);
        } finally {
            watch.stop();
        }
    }

    /**
     * Thrown by a body sink for an answer that came whole but cannot be used
     * (not the XML it should be, say): the send fails with that failure, as
     * it is, not as a broken connection to be retried.
     */
    static final class UnusableAnswer extends IOException {
        private static final long serialVersionUID = 1L;
        final transient StorageException failure;

        UnusableAnswer(StorageException failure) {
            super(failure.getMessage());
            this.failure = failure;
        }
    }

    /**
     * The answer's body as a stream that ends only where its head said it
     * would: one that ends before the announced length (the connection
     * closed cleanly too early, which the JDK reports as an ordinary end)
     * throws EOFException instead. Without a Content-Length it is the
     * stream as it is (a chunked answer cut short fails in the JDK).
     */
    static InputStream exactly(InputStream in, Response head) {
        long promised = head.longHeader("Content-Length", -1);
        if (promised < 0) {
            return in;
        }
        return new FilterInputStream(in) {
            private long got;

            @Override
            public int read() throws IOException {
                int b = super.read();
                count(b < 0 ? -1 : 1);
                return b;
            }

            @Override
            public int read(byte[] buf, int off, int len) throws IOException {
                int n = super.read(buf, off, len);
                count(n);
                return n;
            }

            private void count(int n) throws EOFException {
                if (n < 0 && got < promised) {
                    throw new EOFException("the answer ended after " + got + " of the " + promised
                                           + " bytes it announced");
                }
                got += Math.max(n, 0);
            }
        };
    }

    /**
     * The whole body of an answer, counted against the length its head
     * promised: a body that ends early (the connection closed cleanly before
     * the last byte, which the JDK reports as an ordinary end) is a broken
     * answer, never a shorter one.
     */
    private static byte[] readWhole(InputStream in, Response head) throws IOException {
        byte[] body = in.readAllBytes();
        long promised = head.longHeader("Content-Length", -1);
        if (promised >= 0 && body.length != promised) {
            throw new EOFException("the answer ended after " + body.length + " of the " + promised
                                   + " bytes it announced");
        }
        return body;
    }

    /**
     * Reads up to {@code want} bytes of an answer that is already under way
     * into {@code dest}, cutting its connection if they have not come within
     * {@code timeoutNanos} or no byte came for {@code stall}; answers how
     * many came, -1 when the read failed.
     */
    static int readWithin(HttpURLConnection http, InputStream in, byte[] dest, int want, long timeoutNanos,
                          Duration stall) {
        Watch watch = new Watch(http, Duration.ofNanos(timeoutNanos), stall);
        try {
            return readFully(watch.counting(in), dest, 0, want);
        } catch (IOException e) {
            return -1;
        } finally {
            watch.stop();
        }
    }

    /** Reads until {@code want} bytes are in {@code dest} or the stream ends; answers how many came. */
    static int readFully(InputStream in, byte[] dest, int want) throws IOException {
        return readFully(in, dest, 0, want);
    }

    /** Reads until {@code want} bytes are in {@code dest} from {@code at} or the stream ends; answers how many. */
    static int readFully(InputStream in, byte[] dest, int at, int want) throws IOException {
        int n = 0;
        int r;
        while (n < want && (r = in.read(dest, at + n, want - n)) > 0) {
            n += r;
        }
        return n;
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

    /** A connection for one request, its headers set; nothing is sent yet. */
    private HttpURLConnection open(BlobRequest r, String query, Map<String, String> headers, Duration timeout)
        throws StorageException {
        URI base = conn.blobEndpoint;
        try {
            URL url = new URL(base.getScheme() + "://" + base.getRawAuthority() + r.path
                                  + (query == null || query.isEmpty() ? "" : "?" + query));
            HttpURLConnection http = (HttpURLConnection) url.openConnection();
            http.setRequestMethod(r.method);
            http.setInstanceFollowRedirects(false);
            http.setUseCaches(false);
            http.setConnectTimeout(millisOf(retry.connectTimeout.compareTo(timeout) < 0 ? retry.connectTimeout
                                                : timeout));
            // Stalls are the watch's to judge (it knows what the body still needs to drain).
            http.setReadTimeout(millisOf(timeout));
            for (Map.Entry<String, String> e : headers.entrySet()) {
                http.setRequestProperty(e.getKey(), e.getValue());
            }
            return http;
        } catch (IOException | IllegalArgumentException e) {
            // The JDK's text may quote the URL, and with it a token: name the kind of failure only.
            throw new StorageException(ERRORID.INVALID_ARGUMENT, 0, null,
                                       r.what() + ": the request could not be built ("
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
    private StorageException failure(BlobRequest r, int status, Map<String, List<String>> headers,
                                     InputStream errorBody, boolean beforeBody) throws IOException {
        byte[] err = new byte[0];
        if (errorBody != null) {
            try (InputStream in = errorBody) {
                err = in.readNBytes(ERROR_BODY_LIMIT);
            }
        }
        String code = cleanCode(Response.firstHeader(headers, "x-ms-error-code"));
        if (code == null) {
            code = cleanCode(BlobXml.errorCode(err));
        }
        ERRORID id = ErrorMap.fromHttp(status, code);
        String serviceId = cleanCode(Response.firstHeader(headers, "x-ms-request-id"));
        String text = r.what() + " -> " + status + " " + code
            + (beforeBody ? " (answered before the body was sent)" : "")
            + " (request id " + serviceId + ", client request id " + r.clientRequestId + ")";
        String cause = ErrorMap.cause(status, code);
        if (cause != null) {
            text += ": " + cause;
        }
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
        long wait = again ? RetryPolicy.retryAfterMillis(Response.firstHeader(headers, "x-ms-retry-after-ms"),
                                                         Response.firstHeader(headers, "Retry-After"), Instant.now())
            : -1;
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

    private static int millisOf(Duration d) {
        return (int) Math.max(1, Math.min(Integer.MAX_VALUE, d.toMillis()));
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

    /** Bodies are written in pieces of this size, each a sign of progress. */
    private static final int WRITE_PIECE = 64 << 10;
    /** Bodies of this size or more tell the rate at which uploads reach the service. */
    private static final int RATE_FROM = 256 << 10;

    /**
     * Watches one send: cuts it off (disconnects it) when no byte has moved
     * either way for the stall timeout, or when its whole time is up.
     * Progress is each piece of the body written and each read of the
     * answer that brought bytes.
     *
     * A written piece has only reached the system's socket buffers, which
     * on a slow line hold seconds of data: when the last piece is written,
     * up to a few megabytes are still on their way, and nothing can be seen
     * to move until the service has read them and answers. So the wait
     * after the body starts later by what the buffers still hold at the rate
     * the body went out: the rate over its second half (when the buffers
     * had filled), the bytes left the body's length less what that rate
     * carried over the whole write. A body that went out at once (it fitted
     * the buffers) tells no rate: then the whole body is reckoned at the
     * rate the last large body of this exchange reached the service (on a
     * fast line a few milliseconds; nothing before any body did).
     */
    private static final class Watch implements Runnable {
        private final HttpURLConnection http;
        private final long end;
        private final long stallNanos;
        private final long timeoutMillis;
        private final ScheduledFuture<?> task;
        private volatile long last = System.nanoTime();
        /** Why the send was cut off; null while it was not. */
        volatile String cut;

        /** The exchange's last known upload rate (bytes per nanosecond), 0 for none. */
        private final double knownRate;

        Watch(HttpURLConnection http, Duration timeout, Duration stall) {
            this(http, timeout, stall, 0);
        }

        Watch(HttpURLConnection http, Duration timeout, Duration stall, double knownRate) {
            this.http = http;
            this.knownRate = knownRate;
            this.end = last + timeout.toNanos();
            this.stallNanos = stall.toNanos();
            this.timeoutMillis = timeout.toMillis();
            long period = Math.max(TimeUnit.MILLISECONDS.toNanos(10),
                                   Math.min(TimeUnit.MILLISECONDS.toNanos(500),
                                            Math.min(stallNanos, timeout.toNanos()) / 8));
            this.task = Watchdog.TIMER.scheduleWithFixedDelay(this, period, period, TimeUnit.NANOSECONDS);
        }

        private volatile long bodyStart;
        private long halfAt;
        private long halfBytes;
        private volatile long drainNanos;

        void moved() {
            last = System.nanoTime();
        }

        void bodyStarts() {
            bodyStart = System.nanoTime();
            last = bodyStart;
        }

        /** A piece of the body was written: {@code done} of {@code total} bytes are out of the caller's hands. */
        void wrote(int done, int total) {
            long now = System.nanoTime();
            if (halfAt == 0 && done >= total / 2) {
                halfAt = now;
                halfBytes = done;
            }
            if (done < total) {
                last = now;
                return;
            }
            long drain = 0;
            long secondHalf = now - halfAt;
            if (secondHalf > TimeUnit.MILLISECONDS.toNanos(50) && total > halfBytes) {
                double perNano = (total - halfBytes) / (double) secondHalf;
                double buffered = total - perNano * (now - bodyStart);
                drain = buffered > 0 ? (long) (buffered / perNano) : 0;
            } else if (knownRate > 0) {
                drain = (long) (total / knownRate);
            }
            drainNanos = drain;
            last = now + drain;
        }

        private String stalled() {
            long drain = TimeUnit.NANOSECONDS.toMillis(drainNanos);
            return "no byte moved either way for " + TimeUnit.NANOSECONDS.toMillis(stallNanos)
                + " ms (StallTimeoutSeconds)" + (drain > 0 ? ", after the " + drain
                + " ms the end of the body was reckoned to take" : "");
        }

        @Override
        public void run() {
            if (cut != null) {
                return;
            }
            long now = System.nanoTime();
            if (now - end >= 0) {
                cut = "the send did not end within " + timeoutMillis + " ms";
            } else if (now - last > stallNanos) {
                cut = stalled();
            } else {
                return;
            }
            http.disconnect();
        }

        void stop() {
            task.cancel(false);
        }

        /** The answer's stream, each read that brings bytes counted as progress. */
        InputStream counting(InputStream in) {
            return new FilterInputStream(in) {
                @Override
                public int read() throws IOException {
                    int b = super.read();
                    if (b >= 0) {
                        moved();
                        Traffic.bytesReceived(1);
                    }
                    return b;
                }

                @Override
                public int read(byte[] buf, int off, int len) throws IOException {
                    int n = super.read(buf, off, len);
                    if (n > 0) {
                        moved();
                        Traffic.bytesReceived(n);
                    }
                    return n;
                }
            };
        }
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
}
