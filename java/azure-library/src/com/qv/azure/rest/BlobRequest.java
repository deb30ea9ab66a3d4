package com.qv.azure.rest;

import java.io.IOException;
import java.io.InputStream;
import java.net.HttpURLConnection;
import java.util.Arrays;
import java.util.Collections;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.UUID;

/**
 * One request to the Blob service as an operation states it: method, path,
 * query, headers, body, where the answer's body goes and which statuses are
 * success. It is made once and may be sent several times (the
 * {@link RequestRunner} sends it again after a failure that may go away);
 * what changes from send to send (the date, the signature) is added by the
 * {@link HttpExchange} and not kept here.
 */
final class BlobRequest {
    /**
     * Where the body of an answer goes: kept whole, or copied into the
     * caller's array. A sink that answers null has taken the stream over,
     * with the connection under it, to read the rest later (see
     * {@link OpenReads}); the stream is closed otherwise.
     */
    interface BodySink {
        byte[] consume(InputStream in, HttpURLConnection http, Response head) throws IOException;
    }

    final String method;
    /** The path exactly as sent (percent-encoded). */
    final String path;
    /** The query exactly as sent (percent-encoded), or null; never a token. */
    final String query;
    /** The operation's own headers; the exchange adds date, version and credential. */
    final Map<String, String> headers;
    /** The body, or null for none. */
    final byte[] body;
    final int offset;
    final int length;
    /** Where the answer's body goes; null to keep it whole in the {@link Response}. */
    final BodySink sink;
    private final int[] success;
    /** Sent as x-ms-client-request-id on every send of this request, and named in its failures. */
    final String clientRequestId = UUID.randomUUID().toString();

    private BlobRequest(Builder b) {
        this.method = b.method;
        this.path = b.path;
        this.query = b.query;
        this.headers = Collections.unmodifiableMap(new LinkedHashMap<>(b.headers));
        this.body = b.body;
        this.offset = b.offset;
        this.length = b.length;
        this.sink = b.sink;
        this.success = b.success.clone();
    }

    /** A request of that method to that path (percent-encoded), to be completed by the builder. */
    static Builder to(String method, String path) {
        return new Builder(method, path);
    }

    /** Whether the answer's status counts as success. */
    boolean succeeds(int status) {
        for (int s : success) {
            if (s == status) {
                return true;
            }
        }
        return false;
    }

    /** Whether the request may change the blob it names (everything but GET and HEAD). */
    boolean writes() {
        return !method.equals("GET") && !method.equals("HEAD");
    }

    /** Method and path, for failure texts: never the query, which may come to hold a token. */
    String what() {
        return method + " " + path;
    }

    /** The length the request states: the body's, 0 without one. */
    long contentLength() {
        return body == null ? 0 : length;
    }

    @Override
    public String toString() {
        return what() + " expecting " + Arrays.toString(success);
    }

    static final class Builder {
        private final String method;
        private final String path;
        private String query;
        private final Map<String, String> headers = new LinkedHashMap<>();
        private byte[] body;
        private int offset;
        private int length;
        private BodySink sink;
        private int[] success = {200};

        private Builder(String method, String path) {
            this.method = method;
            this.path = path;
        }

        Builder query(String rawQuery) {
            this.query = rawQuery;
            return this;
        }

        Builder header(String name, String value) {
            headers.put(name, value);
            return this;
        }

        Builder headers(Map<String, String> all) {
            headers.putAll(all);
            return this;
        }

        Builder body(byte[] data, int off, int len) {
            this.body = data;
            this.offset = off;
            this.length = len;
            return this;
        }

        Builder sink(BodySink s) {
            this.sink = s;
            return this;
        }

        /** The statuses that are success (200 unless given). */
        Builder expect(int... statuses) {
            this.success = statuses.clone();
            return this;
        }

        BlobRequest build() {
            return new BlobRequest(this);
        }
    }
}
