package com.qv.azure.rest;

import java.util.concurrent.atomic.AtomicLongArray;

/**
 * What this JVM has sent to the Blob service: every send counted (a request
 * sent again after a failure counts again, as the service bills it), by the
 * kind of request the service's price list names, with the bytes of the
 * bodies either way. Read by the tool that hosts the JVM, through JNI, at
 * the end of each command.
 */
public final class Traffic {
    /** The kinds, in the order {@link #counts()} answers them. */
    public static final int WRITE = 0;
    public static final int READ = 1;
    public static final int LIST = 2;
    public static final int OTHER = 3;
    public static final int DELETE = 4;
    static final int BYTES_SENT = 5;
    static final int BYTES_RECEIVED = 6;

    private static final AtomicLongArray COUNTS = new AtomicLongArray(7);

    private Traffic() {
    }

    /**
     * The kind of a request as the price list counts it: writes are PUTs
     * (blobs, blocks, block lists, tiers, metadata) but for creating a
     * container, which is billed with listings; a GET of a listing is a
     * list; a GET of a blob or of its range a read; HEAD, the GETs of
     * properties and everything else "other"; a DELETE is free.
     */
    static int kindOf(String method, String query) {
        String q = query == null ? "" : "&" + query + "&";
        boolean container = q.contains("&restype=container&");
        boolean comp = q.contains("&comp=");
        switch (method) {
        case "PUT":
            return container && !comp ? LIST : WRITE;
        case "GET":
            if (q.contains("&comp=list&")) {
                return LIST;
            }
            return container || comp ? OTHER : READ;
        case "DELETE":
            return DELETE;
        default:
            return OTHER;
        }
    }

    static void sent(String method, String query) {
        COUNTS.incrementAndGet(kindOf(method, query));
    }

    static void bytesSent(long n) {
        COUNTS.addAndGet(BYTES_SENT, n);
    }

    static void bytesReceived(long n) {
        COUNTS.addAndGet(BYTES_RECEIVED, n);
    }

    /** Write, read, list, other and delete requests, then bytes sent and received. */
    public static long[] counts() {
        long[] out = new long[COUNTS.length()];
        for (int i = 0; i < out.length; i++) {
            out[i] = COUNTS.get(i);
        }
        return out;
    }
}
