package com.qv.azure.rest;

import java.io.IOException;
import java.io.InputStream;
import java.net.HttpURLConnection;
import java.security.MessageDigest;
import java.util.ArrayList;
import java.util.Iterator;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;

/**
 * The answers of ranged reads that were asked for more than their caller has
 * read yet, each parked until the read that asks for its next byte.
 *
 * A read of {@link #READ_AHEAD_FROM} bytes or more asks the service for up
 * to {@link #READ_AHEAD_FACTOR} times as many, never more than
 * {@link #READ_AHEAD_MOST}. The caller's array takes what it asked for; the
 * rest of the answer stays in its connection, parked here under the blob's
 * path and the offset of its next byte. The read that asks for exactly that
 * offset, on whichever thread, takes it out and goes on reading the same
 * answer, and so sees the same version of the blob. A caller that reads an
 * object in slices, each into an array of the slice's size, so makes one
 * request per few slices while it holds one slice in memory.
 *
 * A parked answer is closed (its connection dropped, not drained) when it
 * has waited longer than {@link #IDLE_LIMIT_NANOS}, when more than
 * {@link #MOST_PARKED} wait, when this client writes or deletes the blob,
 * and when the client is closed. What was sent of it and never read is the
 * price of reading ahead: at most what the network had in flight.
 *
 * Beside the answers it keeps the version (ETag) each read of a blob saw,
 * under the offset where that read ended, for {@link #VERSION_KEPT_NANOS}:
 * a read that goes on there, served by a parked answer or by a request of
 * its own, is of the same version or fails (the request carries If-Match).
 */
final class OpenReads {
    static final int READ_AHEAD_FROM = 1 << 20;
    static final int READ_AHEAD_FACTOR = 4;
    static final long READ_AHEAD_MOST = 8L << 20;
    static final int MOST_PARKED = 16;
    static final long IDLE_LIMIT_NANOS = TimeUnit.SECONDS.toNanos(10);
    /** How long the version a read saw is held for the read that goes on where it ended. */
    static final long VERSION_KEPT_NANOS = TimeUnit.SECONDS.toNanos(60);
    static final int MOST_VERSIONS = 256;

    /** How many bytes to ask the service for when the caller asks for {@code max} (at least 1). */
    static long span(int max) {
        if (max < READ_AHEAD_FROM) {
            return max;
        }
        return Math.max(max, Math.min((long) READ_AHEAD_FACTOR * max, READ_AHEAD_MOST));
    }

    /** One answer being read: its stream, the offset of its next byte, where it ends. */
    static final class Open {
        final String path;
        final HttpURLConnection http;
        final InputStream in;
        final Response response;
        /** The blob offset just past the answer's last byte. */
        final long end;
        /** Whether the answer runs to the blob's end (a read past it then ends there, as the blob does). */
        final boolean reachesBlobEnd;
        long next;
        long parkedAt;
        /** The MD5 of the answer so far, when it is the whole blob and the service gave the blob's MD5. */
        MessageDigest wholeMd5;
        String expectedMd5;

        Open(String path, HttpURLConnection http, InputStream in, Response response, long next,
             long end, boolean reachesBlobEnd) {
            this.path = path;
            this.http = http;
            this.in = in;
            this.response = response;
            this.next = next;
            this.end = end;
            this.reachesBlobEnd = reachesBlobEnd;
        }

        long remaining() {
            return end - next;
        }

        /** The version of the blob the answer is of. */
        String etag() {
            return response.header("ETag");
        }

        /**
         * Ends the answer: read to its end, its connection goes back to the
         * JDK's keep-alive cache; otherwise the connection is dropped rather
         * than drained.
         */
        void close() {
            if (remaining() > 0) {
                http.disconnect();
                return;
            }
            try {
                in.close();
            } catch (IOException e) {
                http.disconnect();
            }
        }
    }

    /**
     * Where a ranged answer that starts at {@code start} ends, from its
     * Content-Range ("bytes 0-8388607/20000000") or, for a whole-blob answer
     * (200), its length: {end, 1 when that is the blob's end}; null when the
     * answer says neither in a form that can be trusted.
     */
    static long[] extentOf(int status, String contentRange, long contentLength, long start) {
        if (status == 200) {
            return start == 0 && contentLength >= 0 ? new long[] {contentLength, 1} : null;
        }
        if (contentRange == null) {
            return null;
        }
        String r = contentRange.trim();
        if (!r.startsWith("bytes ")) {
            return null;
        }
        int dash = r.indexOf('-');
        int slash = r.indexOf('/');
        if (dash < 0 || slash < dash) {
            return null;
        }
        try {
            long first = Long.parseLong(r.substring(6, dash));
            long last = Long.parseLong(r.substring(dash + 1, slash));
            String total = r.substring(slash + 1);
            if (first != start || last < first) {
                return null;
            }
            boolean toEnd = !total.equals("*") && Long.parseLong(total) == last + 1;
            return new long[] {last + 1, toEnd ? 1 : 0};
        } catch (NumberFormatException e) {
            return null;
        }
    }

    /**
     * The size of the blob an answer is of: the total of its Content-Range
     * ("bytes 0-99/1000"), or for a whole-blob answer (200) its length; -1
     * when it says neither ("*", or unreadable).
     */
    static long blobSize(int status, String contentRange, long contentLength) {
        if (status == 200) {
            return contentLength;
        }
        if (contentRange == null) {
            return -1;
        }
        int slash = contentRange.indexOf('/');
        try {
            return slash < 0 ? -1 : Long.parseLong(contentRange.substring(slash + 1).trim());
        } catch (NumberFormatException e) {
            return -1;
        }
    }

    private final Map<String, Open> parked = new LinkedHashMap<>();
    /** The version each recent read saw, under the blob and the offset where it ended; with when. */
    private final Map<String, String[]> versions = new LinkedHashMap<>(16, 0.75f, true);

    private static String key(String path, long offset) {
        return offset + " " + path;
    }

    /** The parked answer of that blob whose next byte is at {@code offset}, taken out; null when there is none. */
    Open take(String path, long offset) {
        List<Open> stale = new ArrayList<>();
        Open found;
        synchronized (this) {
            found = parked.remove(key(path, offset));
            sweep(stale);
        }
        stale.forEach(Open::close);
        return found;
    }

    /** Parks an answer that has bytes left, under its next offset. */
    void park(Open open) {
        List<Open> stale = new ArrayList<>();
        open.parkedAt = System.nanoTime();
        synchronized (this) {
            Open replaced = parked.put(key(open.path, open.next), open);
            if (replaced != null) {
                stale.add(replaced);
            }
            sweep(stale);
            Iterator<Open> eldest = parked.values().iterator();
            while (parked.size() > MOST_PARKED) {
                stale.add(eldest.next());
                eldest.remove();
            }
        }
        stale.forEach(Open::close);
    }

    /** Notes that a read of that blob ended at {@code offset} and saw that version (null: none known). */
    synchronized void sawVersion(String path, long offset, String etag) {
        if (etag == null) {
            return;
        }
        versions.put(key(path, offset), new String[] {etag, Long.toString(System.nanoTime())});
        if (versions.size() > MOST_VERSIONS) {
            Iterator<String> eldest = versions.keySet().iterator();
            eldest.next();
            eldest.remove();
        }
    }

    /** The version the read that ended at {@code offset} saw, if it did so lately; null otherwise. */
    synchronized String versionAt(String path, long offset) {
        String[] v = versions.get(key(path, offset));
        if (v == null) {
            return null;
        }
        if (System.nanoTime() - Long.parseLong(v[1]) > VERSION_KEPT_NANOS) {
            versions.remove(key(path, offset));
            return null;
        }
        return v[0];
    }

    /** Closes every parked answer of that blob and forgets its versions: it is being written or deleted. */
    void drop(String path) {
        List<Open> gone = new ArrayList<>();
        synchronized (this) {
            versions.keySet().removeIf(k -> k.substring(k.indexOf(' ') + 1).equals(path));
            if (parked.isEmpty()) {
                return;
            }
            for (Iterator<Open> i = parked.values().iterator(); i.hasNext(); ) {
                Open o = i.next();
                if (o.path.equals(path)) {
                    gone.add(o);
                    i.remove();
                }
            }
        }
        gone.forEach(Open::close);
    }

    /** Closes every parked answer. */
    void closeAll() {
        List<Open> gone;
        synchronized (this) {
            gone = new ArrayList<>(parked.values());
            parked.clear();
            versions.clear();
        }
        gone.forEach(Open::close);
    }

    synchronized int size() {
        return parked.size();
    }

    /** Moves the answers parked too long into {@code stale}; the caller closes them outside the lock. */
    private void sweep(List<Open> stale) {
        long now = System.nanoTime();
        for (Iterator<Open> i = parked.values().iterator(); i.hasNext(); ) {
            Open o = i.next();
            if (now - o.parkedAt > IDLE_LIMIT_NANOS) {
                stale.add(o);
                i.remove();
            }
        }
    }
}
