package com.qv.AzureLibrary;

import java.io.BufferedInputStream;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.net.SocketTimeoutException;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.Predicate;
import javax.net.ssl.SSLContext;

/**
 * A small HTTP/1.1 proxy on a loopback port that forwards requests to the
 * blob service and, by rule, answers some of them with a fault instead:
 * a status (503 ServerBusy, plain 503, any other, with extra headers such as
 * Retry-After), a dropped connection (closed without an answer, or reset),
 * a delay before the request is forwarded, or an answer whose body stops
 * halfway; or, as a service does with a request it refuses by its head, an
 * error answer before the body is read, the connection then reset under
 * whatever of the body comes. For what the service behind it does not
 * model, the proxy can also answer a request with a canned answer of its
 * own (any status, headers and body), or forward it and hand back the
 * service's answer with some headers set.
 *
 * A request that asks "Expect: 100-continue" gets the interim 100 Continue
 * from the proxy before its body is read, as the service (and Azurite)
 * answer it, unless a fault says otherwise: the early answer above replaces
 * it, and {@link Fault#noContinue()} plays a service that ignores the
 * header, so that the client must send the body unasked. The proxy forwards
 * the request whole, without the header.
 *
 * With TLS the proxy serves the test certificate to the client and speaks
 * TLS to the service too; a reset then breaks the TCP connection under the
 * TLS session, without a TLS close, as a failing network would.
 *
 * Each connection carries one request: the proxy answers with
 * "Connection: close", so every retry of the client arrives on a fresh
 * connection and is seen, and counted, as a request of its own.
 *
 * A rule has a predicate over the request's head (method, path, query,
 * headers: rules are matched before the body is read), a number of times it
 * fires (or {@link #ALWAYS}) and a fault. The first rule that matches and
 * still has times left applies; a request no rule takes is forwarded
 * unchanged.
 */
final class FaultProxy implements AutoCloseable {
    static final int ALWAYS = Integer.MAX_VALUE;

    /** One request as the client sent it. */
    static final class Request {
        final String method;
        final String path;
        final String query;
        final Map<String, String> headers;
        /** The body as it arrived: whole, or what came before an early answer's reset. */
        volatile byte[] body = new byte[0];
        /** When the request's head had arrived (System.nanoTime()). */
        final long headNanos = System.nanoTime();
        /** When the first byte of the body arrived; 0 without one. */
        volatile long bodyStartNanos;
        /** When the request had arrived whole, or was answered early (System.nanoTime()). */
        volatile long arrivedNanos;
        /** Whether the proxy answered 100 Continue before reading the body. */
        volatile boolean continued;
        /** Counted down once the proxy is done with the request (answered, dropped, reset). */
        private final CountDownLatch served = new CountDownLatch(1);
        /** The head of the service's answer, once forwarded: status line under "", then the headers. */
        volatile Map<String, String> reply;
        /** The kind of fault a rule applied to the request; null when it was forwarded unchanged. */
        volatile Fault.Kind fault;

        Request(String method, String path, String query, Map<String, String> headers) {
            this.method = method;
            this.path = path;
            this.query = query;
            this.headers = headers;
        }

        /** Whether the client asked for 100 Continue before sending the body. */
        boolean expectsContinue() {
            return "100-continue".equalsIgnoreCase(header("Expect"));
        }

        /** The Content-Length the client announced (0 without one). */
        int contentLength() {
            String len = header("Content-Length");
            return len == null ? 0 : Integer.parseInt(len);
        }

        /**
         * Waits until the proxy is done with the request, so that what it
         * noted (the body that came after an early answer, say) is final.
         */
        void awaitServed() throws InterruptedException {
            if (!served.await(10, TimeUnit.SECONDS)) {
                throw new IllegalStateException("the proxy is still serving " + method + " " + path);
            }
        }

        /** How long the body's first byte came after the head, in milliseconds; -1 when none came. */
        long bodyWaitMillis() {
            long b = bodyStartNanos;
            return b == 0 ? -1 : (b - headNanos) / 1_000_000;
        }

        /** A request header's value (any case of the name), or null. */
        String header(String name) {
            return FaultProxy.header(headers, name);
        }

        /** A header of the forwarded answer (any case of the name), or null when there was none or no answer. */
        String replyHeader(String name) {
            Map<String, String> r = reply;
            return r == null ? null : FaultProxy.header(r, name);
        }

        /** A query parameter's raw value, or null. */
        String param(String name) {
            for (String p : query.split("&")) {
                int eq = p.indexOf('=');
                if (eq > 0 && p.substring(0, eq).equals(name)) {
                    return p.substring(eq + 1);
                }
            }
            return null;
        }

        boolean isPutBlock() {
            return method.equals("PUT") && "block".equals(param("comp"));
        }

        boolean isListBlobs() {
            return method.equals("GET") && "list".equals(param("comp")) && "container".equals(param("restype"));
        }
    }

    /** What the proxy does instead of (or before) forwarding. */
    static final class Fault {
        enum Kind {
            STATUS, EARLY_STATUS, NO_CONTINUE, DROP, RESET, DELAY, STALL_BODY, CANNED, SET_REPLY_HEADERS, LOST_ANSWER,
            CUT_BODY, BEFORE_FORWARD, CORRUPT_REPLY, CORRUPT_REQUEST, GENERATED, REWRITE_BODY
        }

        final Kind kind;
        final int status;
        final String code;
        final long delayMillis;
        /** Further headers of an error or canned answer; the headers set in the service's answer. */
        final Map<String, String> extra;
        /** The body of a canned answer. */
        final byte[] body;
        /** What runs before the request is forwarded ({@link #before}). */
        final Runnable action;
        /** What makes the body of a generated answer ({@link #generated}). */
        final java.util.function.Function<Request, byte[]> maker;
        /** Where a cut answer's body stops, in bytes ({@link #cutBodyAfter}); -1: halfway. */
        private long cutAt = -1;
        /** What a rewritten answer's body becomes ({@link #rewriteBody}). */
        private java.util.function.BiFunction<Request, String, String> rewriter;

        private Fault(Kind kind, int status, String code, long delayMillis, Map<String, String> extra,
                      byte[] body, Runnable action, java.util.function.Function<Request, byte[]> maker) {
            this.kind = kind;
            this.status = status;
            this.code = code;
            this.delayMillis = delayMillis;
            this.extra = extra;
            this.body = body;
            this.action = action;
            this.maker = maker;
        }

        private Fault(Kind kind, int status, String code, long delayMillis, Map<String, String> extra,
                      byte[] body, Runnable action) {
            this(kind, status, code, delayMillis, extra, body, action, null);
        }

        private Fault(Kind kind, int status, String code, long delayMillis, Map<String, String> extra,
                      byte[] body) {
            this(kind, status, code, delayMillis, extra, body, null, null);
        }

        /**
         * Forwards the request, sends the answer's head (with its full
         * Content-Length) and half its body, then closes the connection
         * cleanly at once (FIN, or a TLS close): an answer cut short that
         * looks, to a reader that does not count, like one that ended.
         */
        static Fault cutBody() {
            return new Fault(Kind.CUT_BODY, 0, null, 0);
        }

        /**
         * As {@link #cutBody}, the body stopping after {@code bytes} bytes;
         * a body no longer than that is still cut, halfway.
         */
        static Fault cutBodyAfter(long bytes) {
            Fault f = new Fault(Kind.CUT_BODY, 0, null, 0);
            f.cutAt = bytes;
            return f;
        }

        /**
         * An answer of the proxy's own (200, XML) whose body is made for each
         * request by {@code body}, e.g. listing pages the service behind does
         * not hold. The request is not forwarded.
         */
        static Fault generated(java.util.function.Function<Request, byte[]> body) {
            return new Fault(Kind.GENERATED, 200, null, 0, Map.of("Content-Type", "application/xml"), new byte[0],
                             null, body);
        }

        /**
         * Forwards the request and hands back the service's answer with its
         * body (UTF-8 text, de-chunked) replaced by what {@code rewriter}
         * makes of it, e.g. a listing with properties the service behind
         * does not model.
         */
        static Fault rewriteBody(java.util.function.BiFunction<Request, String, String> rewriter) {
            Fault f = new Fault(Kind.REWRITE_BODY, 0, null, 0);
            f.rewriter = rewriter;
            return f;
        }

        /** Runs {@code action} (say, a write of the object by someone else), then forwards the request. */
        static Fault before(Runnable action) {
            return new Fault(Kind.BEFORE_FORWARD, 0, null, 0, Map.of(), new byte[0], action);
        }

        /** Forwards the request and hands back the answer with one byte in the middle of its body changed. */
        static Fault corruptReply() {
            return new Fault(Kind.CORRUPT_REPLY, 0, null, 0);
        }

        /** Forwards the request with one byte in the middle of its body changed. */
        static Fault corruptRequest() {
            return new Fault(Kind.CORRUPT_REQUEST, 0, null, 0);
        }

        private Fault(Kind kind, int status, String code, long delayMillis) {
            this(kind, status, code, delayMillis, Map.of(), new byte[0]);
        }

        /** The same answer with one more header, e.g. Retry-After. */
        Fault withHeader(String name, String value) {
            Map<String, String> h = new LinkedHashMap<>(extra);
            h.put(name, value);
            return new Fault(kind, status, code, delayMillis, h, body);
        }

        /**
         * An answer of the proxy's own, in place of the service's: the status,
         * the headers given (with {@link #withHeader} more) and the body, with
         * its Content-Length (for a HEAD the body is left out, its length
         * kept, as a service answers a HEAD). The request is not forwarded.
         */
        static Fault answer(int status, byte[] body) {
            return new Fault(Kind.CANNED, status, null, 0, Map.of(), body);
        }

        /**
         * Forwards the request and hands back the service's answer with these
         * headers set (replacing any of the same name, in any case), e.g.
         * headers the service does not send. Add them with {@link #withHeader}.
         */
        static Fault replyHeaders() {
            return new Fault(Kind.SET_REPLY_HEADERS, 0, null, 0, Map.of(), new byte[0]);
        }

        /** An error answer; with a code it carries x-ms-error-code and an XML error body as the service sends. */
        static Fault status(int status, String code) {
            return new Fault(Kind.STATUS, status, code, 0);
        }

        /**
         * An error answer (as {@link #status}) sent as soon as the request's
         * head has arrived, before any of its body is read, in place of
         * 100 Continue when the client asked for it; then the connection is
         * reset under the rest of the body, after what arrived of it within
         * a moment (at most 64 KiB) is read.
         */
        static Fault early(int status, String code) {
            return new Fault(Kind.EARLY_STATUS, status, code, 0);
        }

        /**
         * A service that ignores "Expect: 100-continue": no interim answer,
         * the body is read whenever the client sends it, then the request is
         * forwarded as usual.
         */
        static Fault noContinue() {
            return new Fault(Kind.NO_CONTINUE, 0, null, 0);
        }

        static Fault serverBusy() {
            return status(503, "ServerBusy");
        }

        /** A 503 without any service error code, as a load balancer might send. */
        static Fault plain503() {
            return status(503, null);
        }

        /** Reads the request, then closes the connection without answering. */
        static Fault drop() {
            return new Fault(Kind.DROP, 0, null, 0);
        }

        /**
         * Forwards the request (the service carries it out), then closes the
         * connection without handing the answer on: an answer lost on its way.
         */
        static Fault lostAnswer() {
            return new Fault(Kind.LOST_ANSWER, 0, null, 0);
        }

        /** Reads the request, then resets the connection (RST instead of FIN). */
        static Fault reset() {
            return new Fault(Kind.RESET, 0, null, 0);
        }

        /** Waits, then forwards the request unless the client has given up on it meanwhile. */
        static Fault delay(long millis) {
            return new Fault(Kind.DELAY, 0, null, millis);
        }

        /** Forwards the request, sends the answer's head and half its body, then goes quiet for a while. */
        static Fault stallBody(long millis) {
            return new Fault(Kind.STALL_BODY, 0, null, millis);
        }
    }

    /** A rule: which requests, how many times, what fault. */
    static final class Rule {
        final Predicate<Request> match;
        final Fault fault;
        private final AtomicInteger left;
        private final AtomicInteger applied = new AtomicInteger();

        Rule(Predicate<Request> match, int times, Fault fault) {
            this.match = match;
            this.fault = fault;
            this.left = new AtomicInteger(times);
        }

        private boolean take(Request r) {
            if (!match.test(r)) {
                return false;
            }
            while (true) {
                int n = left.get();
                if (n <= 0) {
                    return false;
                }
                if (n == ALWAYS || left.compareAndSet(n, n - 1)) {
                    applied.incrementAndGet();
                    return true;
                }
            }
        }

        /** How many requests this rule has taken so far. */
        int applied() {
            return applied.get();
        }
    }

    private final int upstreamPort;
    /** Serves TLS to clients and speaks TLS to the service when set. */
    private final SSLContext tls;
    private final ServerSocket server;
    private final AtomicInteger connections = new AtomicInteger();
    private final AtomicInteger resetOnAccept = new AtomicInteger();
    private final ExecutorService workers = Executors.newCachedThreadPool(r -> {
        Thread t = new Thread(r, "fault-proxy");
        t.setDaemon(true);
        return t;
    });
    private final List<Rule> rules = new CopyOnWriteArrayList<>();
    private final List<Request> seen = new CopyOnWriteArrayList<>();
    private volatile java.util.function.Consumer<Request> listener;

    /** Starts a proxy on a free loopback port in front of the service on {@code upstreamPort}. */
    FaultProxy(int upstreamPort) throws IOException {
        this(upstreamPort, null);
    }

    /**
     * Starts a proxy that, with {@code tls} set, serves TLS with that
     * context's key and forwards over TLS to a service that speaks it (the
     * JVM's default trust decides whether the service's certificate is good).
     */
    FaultProxy(int upstreamPort, SSLContext tls) throws IOException {
        this(upstreamPort, tls, 0);
    }

    /**
     * A proxy whose connections from clients have a receive buffer of
     * {@code receiveBuffer} bytes (0: the system's): small, so that a client
     * cannot hand megabytes to its kernel at once when uploads are slowed
     * down ({@link #limitUpload}), as on a slow network where a connection's
     * buffers are small against what is to be sent.
     */
    FaultProxy(int upstreamPort, SSLContext tls, int receiveBuffer) throws IOException {
        this(upstreamPort, tls, receiveBuffer, InetAddress.getLoopbackAddress(), 0);
    }

    /**
     * A proxy listening on {@code address} (say, an address of this machine
     * other than loopback, for a client that must take it for another
     * machine) and {@code port} (0: a free one). It still forwards to the
     * service on loopback.
     */
    FaultProxy(int upstreamPort, SSLContext tls, int receiveBuffer, InetAddress address, int port) throws IOException {
        this.upstreamPort = upstreamPort;
        this.tls = tls;
        this.server = new ServerSocket();
        if (receiveBuffer > 0) {
            server.setReceiveBufferSize(receiveBuffer);
        }
        server.bind(new InetSocketAddress(address, port), 50);
        workers.execute(this::acceptLoop);
    }

    private final Object pacer = new Object();
    private long paceNext;
    private volatile long uploadRate;

    /**
     * Reads request bodies from clients at {@code bytesPerSecond} at most,
     * all connections together (an uplink of that speed); 0 for no limit.
     */
    void limitUpload(long bytesPerSecond) {
        uploadRate = bytesPerSecond;
    }

    /** Waits as long as {@code n} bytes take at the upload limit. */
    private void pace(int n) throws InterruptedException {
        long rate = uploadRate;
        if (rate <= 0) {
            return;
        }
        long wait;
        synchronized (pacer) {
            long now = System.nanoTime();
            if (paceNext - now < 0) {
                paceNext = now;
            }
            paceNext += n * 1_000_000_000L / rate;
            wait = paceNext - now;
        }
        if (wait > 0) {
            Thread.sleep(wait / 1_000_000, (int) (wait % 1_000_000));
        }
    }

    /**
     * Resets the next {@code n} connections as soon as they are accepted,
     * before any byte is read: over TLS, in the middle of the handshake.
     */
    void resetNextConnections(int n) {
        resetOnAccept.set(n);
    }

    /** TCP connections accepted so far (a TLS handshake that fails still counts). */
    int connections() {
        return connections.get();
    }

    int port() {
        return server.getLocalPort();
    }

    Rule add(Predicate<Request> match, int times, Fault fault) {
        Rule r = new Rule(match, times, fault);
        rules.add(r);
        return r;
    }

    /** Called with each request once the proxy is done with it (answered, dropped, reset). */
    void onServed(java.util.function.Consumer<Request> listener) {
        this.listener = listener;
    }

    /** Removes every rule and forgets the requests seen. */
    void reset() {
        rules.clear();
        seen.clear();
        resetOnAccept.set(0);
    }

    /** Every request received so far, faulted or not, in order of arrival. */
    List<Request> seen() {
        return new ArrayList<>(seen);
    }

    long countSeen(Predicate<Request> p) {
        return seen.stream().filter(p).count();
    }

    /** A predicate that holds for requests that arrive within {@code millis} from now. */
    static Predicate<Request> forTheNext(long millis) {
        long end = System.nanoTime() + millis * 1_000_000L;
        return r -> r.headNanos - end < 0;
    }

    /**
     * A predicate for every Put Block of the {@code n}-th distinct block id
     * (counted from 1) that arrives: the first request with a new id decides,
     * and every later request (retries) for that id matches as well. Which
     * block that is does not matter; that it fails every time does.
     */
    static Predicate<Request> nthPutBlock(int n) {
        List<String> ids = new ArrayList<>();
        return r -> {
            if (!r.isPutBlock()) {
                return false;
            }
            String id = r.param("blockid");
            synchronized (ids) {
                if (!ids.contains(id)) {
                    ids.add(id);
                }
                return ids.size() >= n && ids.get(n - 1).equals(id);
            }
        };
    }

    @Override
    public void close() throws IOException {
        server.close();
        workers.shutdownNow();
    }

    // ------------------------------------------------------------------ serving

    private void acceptLoop() {
        while (!server.isClosed()) {
            try {
                Socket s = server.accept();
                connections.incrementAndGet();
                workers.execute(() -> serve(s));
            } catch (IOException | java.util.concurrent.RejectedExecutionException e) {
                if (server.isClosed()) {
                    return;
                }
                // A failure of one accept (no file descriptor left, say) is not the end of the proxy.
                note("accept failed", e);
            }
        }
    }

    /** A line on standard error for what went wrong inside the proxy, for a test that failed to show. */
    private static void note(String what, Throwable e) {
        System.err.println(java.time.Instant.now() + " " + what + ": " + e);
    }

    private void serve(Socket client) {
        try (Socket raw = client) {
            if (resetOnAccept.getAndUpdate(n -> Math.max(n - 1, 0)) > 0) {
                raw.setSoLinger(true, 0);
                return;
            }
            // Over TLS, c is the TLS socket on top of raw; a reset goes to raw, under the TLS session.
            Socket c = tls == null ? raw
                : tls.getSocketFactory().createSocket(raw, null, false);
            try {
                serve(raw, c);
            } finally {
                if (!raw.isClosed()) {
                    c.close(); // over TLS with a TLS close, as a server that ends the connection does
                }
            }
        } catch (IOException e) {
            // The client went away, or its TLS handshake failed, or the service could not be reached;
            // nothing to answer. Noted: a test that fails shows which.
            note("connection ended", e);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        } catch (RuntimeException | Error e) {
            note("serving failed", e);
            throw e;
        }
    }

    private void serve(Socket raw, Socket c) throws IOException, InterruptedException {
        InputStream in = new BufferedInputStream(c.getInputStream());
        Request req = readHead(in);
        if (req == null) {
            return;
        }
        try {
            serve(raw, c, in, req);
        } finally {
            req.served.countDown();
            java.util.function.Consumer<Request> l = listener;
            if (l != null) {
                l.accept(req);
            }
        }
    }

    private void serve(Socket raw, Socket c, InputStream in, Request req) throws IOException, InterruptedException {
        // Rules see the head only: an early answer is chosen before any of the body is read.
        Fault fault = null;
        for (Rule r : rules) {
            if (r.take(req)) {
                fault = r.fault;
                req.fault = fault.kind;
                break;
            }
        }
        OutputStream out = c.getOutputStream();
        if (fault != null && fault.kind == Fault.Kind.EARLY_STATUS) {
            req.arrivedNanos = System.nanoTime();
            seen.add(req); // before the answer, so that the client never sees it before the test does
            out.write(errorAnswer(req, fault));
            out.flush();
            req.body = whatFollows(c, in, req);
            raw.setSoLinger(true, 0);
            raw.close();
            return;
        }
        if (req.expectsContinue() && (fault == null || fault.kind != Fault.Kind.NO_CONTINUE)) {
            out.write("HTTP/1.1 100 Continue\r\n\r\n".getBytes(StandardCharsets.ISO_8859_1));
            out.flush();
            req.continued = true;
        }
        readBody(in, req);
        seen.add(req);
        if (fault != null) {
            switch (fault.kind) {
                case STATUS:
                    out.write(errorAnswer(req, fault));
                    out.flush();
                    return;
                case DROP:
                    c.close();
                    return;
                case LOST_ANSWER:
                    req.reply = head(forward(req));
                    c.close();
                    return;
                case RESET:
                    raw.setSoLinger(true, 0);
                    raw.close();
                    return;
                case DELAY:
                    Thread.sleep(fault.delayMillis);
                    if (clientGone(c, in)) {
                        return; // a request the client gave up on must not reach the service late
                    }
                    break;
                case GENERATED:
                    byte[] made = cannedAnswer(req, new Fault(Fault.Kind.CANNED, 200, null, 0, fault.extra,
                                                              fault.maker.apply(req)));
                    out.write(made);
                    out.flush();
                    return;
                case CANNED:
                    byte[] canned = cannedAnswer(req, fault);
                    req.reply = head(canned);
                    out.write(canned);
                    out.flush();
                    return;
                case SET_REPLY_HEADERS:
                    byte[] changed = withHeaders(forward(req), fault.extra);
                    req.reply = head(changed);
                    out.write(changed);
                    out.flush();
                    return;
                case CUT_BODY:
                    byte[] whole = forward(req);
                    int start = Math.max(headEnd(whole), 0);
                    int length = whole.length - start;
                    long kept = fault.cutAt >= 0 && fault.cutAt < length ? fault.cutAt : length / 2;
                    out.write(whole, 0, start + (int) kept);
                    out.flush();
                    return; // closed cleanly by the caller
                case BEFORE_FORWARD:
                    fault.action.run();
                    break;
                case CORRUPT_REPLY:
                    byte[] reply2 = forward(req);
                    int at = Math.max(headEnd(reply2), 0);
                    reply2[at + (reply2.length - at) / 2] ^= 0x55;
                    out.write(reply2);
                    out.flush();
                    return;
                case CORRUPT_REQUEST:
                    req.body[req.body.length / 2] ^= 0x55;
                    break;
                case REWRITE_BODY:
                    byte[] rewritten = rewritten(forward(req), req, fault.rewriter);
                    req.reply = head(rewritten);
                    out.write(rewritten);
                    out.flush();
                    return;
                case STALL_BODY:
                    byte[] reply = forward(req);
                    int bodyStart = Math.max(headEnd(reply), 0);
                    out.write(reply, 0, bodyStart + (reply.length - bodyStart) / 2);
                    out.flush();
                    Thread.sleep(fault.delayMillis);
                    return;
                default:
                    break; // NO_CONTINUE: forwarded as usual once the body came; EARLY_STATUS answered above
            }
        }
        out.write(forward(req));
        out.flush();
    }

    /** Whether the client has closed its side (read returns end of stream) after its request. */
    private static boolean clientGone(Socket c, InputStream in) throws IOException {
        c.setSoTimeout(1);
        try {
            return in.read() < 0;
        } catch (SocketTimeoutException e) {
            return false;
        } catch (IOException e) {
            return true;
        } finally {
            c.setSoTimeout(0);
        }
    }

    private static String readLine(InputStream in) throws IOException {
        ByteArrayOutputStream b = new ByteArrayOutputStream();
        int ch;
        while ((ch = in.read()) >= 0) {
            if (ch == '\n') {
                break;
            }
            if (ch != '\r') {
                b.write(ch);
            }
        }
        if (ch < 0 && b.size() == 0) {
            return null;
        }
        return b.toString(StandardCharsets.ISO_8859_1);
    }

    /** The request line and headers; null when the client closed without sending any. */
    private static Request readHead(InputStream in) throws IOException {
        String line = readLine(in);
        if (line == null || line.isEmpty()) {
            return null;
        }
        String[] parts = line.split(" ");
        String target = parts[1];
        int q = target.indexOf('?');
        Map<String, String> headers = new LinkedHashMap<>();
        String h;
        while ((h = readLine(in)) != null && !h.isEmpty()) {
            int colon = h.indexOf(':');
            headers.put(h.substring(0, colon).trim(), h.substring(colon + 1).trim());
        }
        return new Request(parts[0], q < 0 ? target : target.substring(0, q), q < 0 ? "" : target.substring(q + 1),
                           headers);
    }

    /** Reads the whole body the head announced (at the upload limit), noting when its first byte came. */
    private void readBody(InputStream in, Request req) throws IOException, InterruptedException {
        int len = req.contentLength();
        byte[] body = new byte[len];
        int n = 0;
        while (n < len) {
            int r = in.read(body, n, Math.min(len - n, uploadRate > 0 ? 16 << 10 : len - n));
            pace(Math.max(r, 0));
            if (r < 0) {
                break;
            }
            if (n == 0) {
                req.bodyStartNanos = System.nanoTime();
            }
            n += r;
        }
        req.body = n == len ? body : java.util.Arrays.copyOf(body, n);
        req.arrivedNanos = System.nanoTime();
    }

    /**
     * After an early answer: what of the body the client still sends within
     * a moment, at most 64 KiB, until it closes. A client that waited for
     * 100 Continue sends nothing and closes; one that did not keeps writing.
     */
    private static byte[] whatFollows(Socket c, InputStream in, Request req) {
        int limit = Math.min(req.contentLength(), 64 << 10);
        ByteArrayOutputStream got = new ByteArrayOutputStream();
        try {
            c.setSoTimeout(2000);
            byte[] buf = new byte[8192];
            while (got.size() < limit) {
                int r = in.read(buf, 0, Math.min(buf.length, limit - got.size()));
                if (r < 0) {
                    break;
                }
                if (got.size() == 0) {
                    req.bodyStartNanos = System.nanoTime();
                }
                got.write(buf, 0, r);
            }
        } catch (IOException e) {
            // quiet for 2 s, or gone: what came is what there is
        }
        return got.toByteArray();
    }

    private static String header(Map<String, String> headers, String name) {
        for (Map.Entry<String, String> e : headers.entrySet()) {
            if (e.getKey().equalsIgnoreCase(name)) {
                return e.getValue();
            }
        }
        return null;
    }

    private static byte[] errorAnswer(Request req, Fault f) {
        byte[] body = f.code == null || req.method.equals("HEAD") ? new byte[0]
            : ("<?xml version=\"1.0\" encoding=\"utf-8\"?><Error><Code>" + f.code
               + "</Code><Message>injected by the test proxy</Message></Error>").getBytes(StandardCharsets.UTF_8);
        StringBuilder head = new StringBuilder();
        head.append("HTTP/1.1 ").append(f.status).append(f.status == 503 ? " Service Unavailable" : " Injected")
            .append("\r\n");
        if (f.code != null) {
            head.append("x-ms-error-code: ").append(f.code).append("\r\n");
            head.append("Content-Type: application/xml\r\n");
        }
        for (Map.Entry<String, String> e : f.extra.entrySet()) {
            head.append(e.getKey()).append(": ").append(e.getValue()).append("\r\n");
        }
        head.append("Content-Length: ").append(body.length).append("\r\n");
        head.append("Connection: close\r\n\r\n");
        return concat(head.toString().getBytes(StandardCharsets.ISO_8859_1), body);
    }

    private static String reason(int status) {
        switch (status) {
            case 200:
                return "OK";
            case 201:
                return "Created";
            case 202:
                return "Accepted";
            case 503:
                return "Service Unavailable";
            default:
                return "Injected";
        }
    }

    private static byte[] cannedAnswer(Request req, Fault f) {
        StringBuilder head = new StringBuilder();
        head.append("HTTP/1.1 ").append(f.status).append(' ').append(reason(f.status)).append("\r\n");
        for (Map.Entry<String, String> e : f.extra.entrySet()) {
            head.append(e.getKey()).append(": ").append(e.getValue()).append("\r\n");
        }
        head.append("Content-Length: ").append(f.body.length).append("\r\n");
        head.append("Connection: close\r\n\r\n");
        byte[] h = head.toString().getBytes(StandardCharsets.ISO_8859_1);
        return req.method.equals("HEAD") ? h : concat(h, f.body);
    }

    /** The reply with the given headers set: any of the same name (in any case) replaced, the body as it came. */
    private static byte[] withHeaders(byte[] reply, Map<String, String> set) {
        int bodyStart = headEnd(reply);
        if (bodyStart < 0) {
            return reply;
        }
        StringBuilder head = new StringBuilder();
        for (String line : new String(reply, 0, bodyStart - 4, StandardCharsets.ISO_8859_1).split("\r\n")) {
            int colon = line.indexOf(':');
            String name = colon > 0 ? line.substring(0, colon).trim() : null;
            if (name == null || set.keySet().stream().noneMatch(name::equalsIgnoreCase)) {
                head.append(line).append("\r\n");
            }
        }
        for (Map.Entry<String, String> e : set.entrySet()) {
            head.append(e.getKey()).append(": ").append(e.getValue()).append("\r\n");
        }
        head.append("\r\n");
        return concat(head.toString().getBytes(StandardCharsets.ISO_8859_1),
                      java.util.Arrays.copyOfRange(reply, bodyStart, reply.length));
    }

    /**
     * The reply with its body replaced by what {@code rewriter} makes of
     * it: a chunked body is joined first, and the new one goes with its
     * Content-Length.
     */
    private static byte[] rewritten(byte[] reply, Request req,
                                    java.util.function.BiFunction<Request, String, String> rewriter) {
        int bodyStart = headEnd(reply);
        if (bodyStart < 0) {
            return reply;
        }
        byte[] body = java.util.Arrays.copyOfRange(reply, bodyStart, reply.length);
        if ("chunked".equalsIgnoreCase(header(head(reply), "Transfer-Encoding"))) {
            body = joinedChunks(body);
        }
        byte[] changed = rewriter.apply(req, new String(body, StandardCharsets.UTF_8)).getBytes(StandardCharsets.UTF_8);
        StringBuilder head = new StringBuilder();
        for (String line : new String(reply, 0, bodyStart - 4, StandardCharsets.ISO_8859_1).split("\r\n")) {
            String lower = line.toLowerCase(Locale.ROOT);
            if (!lower.startsWith("content-length:") && !lower.startsWith("transfer-encoding:")) {
                head.append(line).append("\r\n");
            }
        }
        head.append("Content-Length: ").append(changed.length).append("\r\n\r\n");
        return concat(head.toString().getBytes(StandardCharsets.ISO_8859_1), changed);
    }

    /** The data of a chunked body, its chunks joined. */
    private static byte[] joinedChunks(byte[] body) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        int at = 0;
        while (at < body.length) {
            int lineEnd = at;
            while (lineEnd + 1 < body.length && !(body[lineEnd] == '\r' && body[lineEnd + 1] == '\n')) {
                ++lineEnd;
            }
            String size = new String(body, at, lineEnd - at, StandardCharsets.ISO_8859_1);
            int semi = size.indexOf(';');
            int n = Integer.parseInt((semi < 0 ? size : size.substring(0, semi)).trim(), 16);
            if (n == 0) {
                break;
            }
            out.write(body, lineEnd + 2, n);
            at = lineEnd + 2 + n + 2;
        }
        return out.toByteArray();
    }

    /** Sends the request to the service on a connection of its own and answers the whole reply. */
    private byte[] forward(Request req) throws IOException {
        try (Socket plain = new Socket()) {
            plain.connect(new InetSocketAddress(InetAddress.getLoopbackAddress(), upstreamPort), 5000);
            Socket up = tls == null ? plain
                : SSLContext.getDefault().getSocketFactory().createSocket(plain, "localhost", upstreamPort, false);
            StringBuilder head = new StringBuilder();
            head.append(req.method).append(' ').append(req.path).append(req.query.isEmpty() ? "" : "?" + req.query)
                .append(" HTTP/1.1\r\n");
            // The proxy has the whole body and sends it at once: the client's Expect was answered here.
            for (Map.Entry<String, String> e : req.headers.entrySet()) {
                if (!e.getKey().equalsIgnoreCase("Connection") && !e.getKey().equalsIgnoreCase("Expect")) {
                    head.append(e.getKey()).append(": ").append(e.getValue()).append("\r\n");
                }
            }
            head.append("Connection: close\r\n\r\n");
            // The answer is read while the request is written, as a proxy does: the service may answer
            // before it has read the body (a refusal, say) and then close the connection under the rest
            // of it, and that answer is what the client must get.
            InputStream upIn = up.getInputStream();
            java.util.concurrent.CompletableFuture<byte[]> answer;
            try {
                answer = java.util.concurrent.CompletableFuture.supplyAsync(() -> {
                    try {
                        return readReply(upIn);
                    } catch (IOException e) {
                        throw new java.io.UncheckedIOException(e);
                    }
                }, workers);
            } catch (java.util.concurrent.RejectedExecutionException e) {
                throw new IOException("the proxy is closing", e); // a request still coming in as it closes
            }
            OutputStream o = up.getOutputStream();
            IOException writeFailure = null;
            try {
                o.write(head.toString().getBytes(StandardCharsets.ISO_8859_1));
                o.write(req.body);
                o.flush();
            } catch (IOException e) {
                writeFailure = e;
            }
            byte[] reply;
            try {
                reply = answer.get();
            } catch (java.util.concurrent.ExecutionException e) {
                throw writeFailure != null ? writeFailure : new IOException(e.getCause());
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
                throw new IOException(e);
            }
            if (reply.length == 0 && writeFailure != null) {
                throw writeFailure;
            }
            req.reply = head(reply);
            return withConnectionClose(reply);
        } catch (java.security.NoSuchAlgorithmException e) {
            throw new IOException(e);
        }
    }

    /**
     * The whole reply: read to the end of the connection (the request asked
     * for "Connection: close"); a peer that ends the connection otherwise
     * (without a TLS close, or with a reset) is taken as done with what
     * arrived.
     */
    private static byte[] readReply(InputStream in) throws IOException {
        ByteArrayOutputStream b = new ByteArrayOutputStream();
        byte[] buf = new byte[1 << 16];
        try {
            int n;
            while ((n = in.read(buf)) > 0) {
                b.write(buf, 0, n);
            }
        } catch (IOException e) {
            // A TLS peer that closes without a TLS close, or a service that resets the connection
            // after its answer (it had not read the whole request): what arrived is the answer.
            if (b.size() == 0) {
                throw e;
            }
        }
        return b.toByteArray();
    }

    /** The head of a reply: the status line under "" and each header. */
    private static Map<String, String> head(byte[] reply) {
        Map<String, String> h = new LinkedHashMap<>();
        int end = headEnd(reply);
        if (end < 0) {
            return h;
        }
        String[] lines = new String(reply, 0, end - 4, StandardCharsets.ISO_8859_1).split("\r\n");
        h.put("", lines[0]);
        for (int i = 1; i < lines.length; ++i) {
            int colon = lines[i].indexOf(':');
            if (colon > 0) {
                h.put(lines[i].substring(0, colon).trim(), lines[i].substring(colon + 1).trim());
            }
        }
        return h;
    }

    /** Where the body of a reply starts (after the blank line ending the head), or -1 without one. */
    private static int headEnd(byte[] reply) {
        for (int i = 0; i + 3 < reply.length; ++i) {
            if (reply[i] == '\r' && reply[i + 1] == '\n' && reply[i + 2] == '\r' && reply[i + 3] == '\n') {
                return i + 4;
            }
        }
        return -1;
    }

    /** The reply with its Connection header replaced by "Connection: close"; the body is left as it came. */
    private static byte[] withConnectionClose(byte[] reply) {
        int bodyStart = headEnd(reply);
        if (bodyStart < 0) {
            return reply;
        }
        int end = bodyStart - 4;
        StringBuilder head = new StringBuilder();
        for (String line : new String(reply, 0, end, StandardCharsets.ISO_8859_1).split("\r\n")) {
            String lower = line.toLowerCase(Locale.ROOT);
            if (!lower.startsWith("connection:") && !lower.startsWith("keep-alive:")) {
                head.append(line).append("\r\n");
            }
        }
        head.append("Connection: close\r\n\r\n");
        byte[] h = head.toString().getBytes(StandardCharsets.ISO_8859_1);
        byte[] out = new byte[h.length + reply.length - end - 4];
        System.arraycopy(h, 0, out, 0, h.length);
        System.arraycopy(reply, end + 4, out, h.length, reply.length - end - 4);
        return out;
    }

    private static byte[] concat(byte[] a, byte[] b) {
        byte[] out = new byte[a.length + b.length];
        System.arraycopy(a, 0, out, 0, a.length);
        System.arraycopy(b, 0, out, a.length, b.length);
        return out;
    }
}
