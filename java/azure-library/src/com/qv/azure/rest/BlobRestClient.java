package com.qv.azure.rest;

import com.qv.QVCloudPluginInterface.ERRORID;
import com.qv.azure.LibraryLog;

import java.io.EOFException;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.HttpURLConnection;
import java.nio.charset.StandardCharsets;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.util.ArrayList;
import java.util.Base64;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.logging.Level;
import java.util.logging.Logger;

/**
 * The operations of the Blob service REST API that the plug-in library
 * needs, authorized by Shared Key or by a shared access signature: each
 * builds its {@link BlobRequest} and reads what matters of the answer.
 * How one request travels is the {@link HttpExchange}'s business; the
 * {@link RequestRunner} sends requests that fail in a way that may go away
 * by itself again, within the bounds of the connection's
 * {@link RetryPolicy} and the operation's {@link Deadline}. Every call either
 * returns what the service answered or throws a {@link StorageException}
 * already classified by {@link ErrorMap}.
 *
 * Requests go over the JDK's HttpURLConnection: a blocking exchange on the
 * caller's thread, the request body written straight from the caller's
 * array and the answer read straight into it, keep-alive connections reused
 * (and no TLS set-up at all for an http endpoint). The JDK's newer
 * java.net.http client did the same work with several times the CPU (its
 * selector and executor threads, buffer copies, and much more code to
 * compile in a short-lived JVM), measured in docs/performance.md.
 *
 * Metadata passed in and out of this class is in its stored form (see
 * {@link MetadataCodec}): names without the x-ms-meta- prefix.
 */
public final class BlobRestClient {
    private static final Logger LOG = LibraryLog.logger();
    /** The x-ms-version requests carry unless the connection string names another. */
    public static final String API_VERSION = HttpExchange.API_VERSION;
    /** Request bodies larger than this ask the service first (Expect: 100-continue); see {@link HttpExchange}. */
    public static final int EXPECT_CONTINUE_ABOVE = HttpExchange.EXPECT_CONTINUE_ABOVE;

    private final StorageConnection conn;
    private final RetryPolicy retry;
    private final RequestRunner runner;
    private final HttpExchange exchange;
    /** The path part of the endpoint ("" for account host names, "/account" for emulator-style endpoints). */
    private final String basePath;
    /** Answers of ranged reads with bytes the caller has not asked for yet. */
    private final OpenReads openReads = new OpenReads();

    public BlobRestClient(StorageConnection conn) {
        this.conn = conn;
        this.retry = conn.retryPolicy;
        this.runner = new RequestRunner(retry);
        this.exchange = new HttpExchange(conn, retry);
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

    /** The x-ms-version this client's requests carry. */
    public String serviceVersion() {
        return conn.serviceVersion;
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

    /** What a ranged read put into the caller's array, with the answer's headers. */
    public static final class ReadResult {
        public final int bytesRead;
        public final Response response;

        ReadResult(int bytesRead, Response response) {
            this.bytesRead = bytesRead;
            this.response = response;
        }
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

    /** Sends a request through the runner: again after failures that may go away, within the bounds. */
    private Response send(Deadline op, BlobRequest r) throws StorageException {
        if (r.writes()) {
            // What was read ahead of this blob is of the version this request may change.
            openReads.drop(r.path);
        }
        return runner.run(op, r.what(), timeout -> exchange.send(r, timeout));
    }

    private static Map<String, String> withMetadata(Map<String, String> headers, Map<String, String> metadata) {
        Map<String, String> h = new LinkedHashMap<>(headers);
        if (metadata != null) {
            for (Map.Entry<String, String> e : metadata.entrySet()) {
                h.put(Response.META + e.getKey(), e.getValue());
            }
        }
        return h;
    }

    // ------------------------------------------------------------------ containers and account

    /** Creates the configured container; answers false when it was already there. */
    public boolean createContainerIfMissing(Deadline op) throws StorageException {
        try {
            send(op, BlobRequest.to("PUT", containerPath(conn.container)).query("restype=container").expect(201)
                .build());
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
            send(op, BlobRequest.to("HEAD", containerPath(container)).query("restype=container").build());
            return true;
        } catch (StorageException e) {
            if (e.status == 404) {
                return false;
            }
            throw e;
        }
    }

    public void deleteContainer(Deadline op, String container) throws StorageException {
        send(op, BlobRequest.to("DELETE", containerPath(container)).query("restype=container").expect(202).build());
    }

    /** Every container of the account, following the continuation markers. */
    public List<String> listContainers(Deadline op) throws StorageException {
        List<String> names = new ArrayList<>();
        String marker = null;
        do {
            String q = "comp=list" + (marker == null ? "" : "&marker=" + encodeQueryValue(marker));
            Response r = send(op, BlobRequest.to("GET", basePath + "/").query(q).build());
            marker = BlobXml.containerPage(r.body, marker, names);
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
        return send(op, BlobRequest.to("GET", path).query("restype=account&comp=properties").build());
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
     * Put Blob of a whole block blob, with a Content-MD5 the service checks
     * the body against (and keeps as the blob's MD5).
     *
     * @param onlyIfMissing send If-None-Match: * so that an existing blob is not replaced
     * @param tier          the access tier of the new blob, or null for the account's default
     */
    public void putBlob(Deadline op, String blob, byte[] data, int off, int len, Map<String, String> metadata,
                        boolean onlyIfMissing, String tier) throws StorageException {
        String md5 = md5Base64(data, off, len);
        Map<String, String> h = new LinkedHashMap<>();
        h.put("x-ms-blob-type", "BlockBlob");
        h.put("Content-Type", "application/octet-stream");
        h.put("Content-MD5", md5);
        if (onlyIfMissing) {
            h.put("If-None-Match", "*");
        }
        if (tier != null) {
            h.put("x-ms-access-tier", tier);
        }
        try {
            send(op, BlobRequest.to("PUT", blobPath(blob)).headers(withMetadata(h, metadata)).body(data, off, len)
                .expect(201).build());
        } catch (StorageException e) {
            if (onlyIfMissing && e.error == ERRORID.ALREADY_EXISTS && e.afterLostAnswer()
                && holds(op, blob, len, md5, metadata)) {
                // An earlier send went unanswered and created it: the blob there is the one this write makes.
                LOG.log(Level.INFO, "PUT " + blobPath(blob) + ": created by a send whose answer was lost");
                return;
            }
            throw e;
        }
    }

    /** Whether the blob holds exactly these bytes and this metadata (its length, MD5 and metadata). */
    private boolean holds(Deadline op, String blob, int len, String md5, Map<String, String> metadata)
        throws StorageException {
        Response r = properties(op, blob);
        return r.longHeader("Content-Length", -1) == len && md5.equals(r.header("Content-MD5"))
            && r.metadata().equals(metadata == null ? Map.of() : new java.util.TreeMap<>(metadata));
    }

    /** Put Block with a Content-MD5 the service checks the block against. */
    public void putBlock(Deadline op, String blob, String blockId, byte[] data, int off, int len)
        throws StorageException {
        send(op, BlobRequest.to("PUT", blobPath(blob)).query("comp=block&blockid=" + encodeQueryValue(blockId))
            .header("Content-MD5", md5Base64(data, off, len)).body(data, off, len).expect(201).build());
    }

    /**
     * Put Block List: commits the given uncommitted blocks, in order, as the
     * blob's content, in the tier given, with the MD5 of the whole content
     * (null when not known) kept as the blob's, for readers to check.
     */
    public void putBlockList(Deadline op, String blob, List<String> blockIds, Map<String, String> metadata,
                             String tier, String wholeMd5) throws StorageException {
        StringBuilder xml = new StringBuilder("<?xml version=\"1.0\" encoding=\"utf-8\"?><BlockList>");
        for (String id : blockIds) {
            xml.append("<Latest>").append(id).append("</Latest>");
        }
        xml.append("</BlockList>");
        byte[] body = xml.toString().getBytes(StandardCharsets.UTF_8);
        Map<String, String> h = new LinkedHashMap<>();
        h.put("Content-Type", "application/xml");
        h.put("x-ms-blob-content-type", "application/octet-stream");
        if (wholeMd5 != null) {
            h.put("x-ms-blob-content-md5", wholeMd5);
        }
        if (tier != null) {
            h.put("x-ms-access-tier", tier);
        }
        send(op, BlobRequest.to("PUT", blobPath(blob)).query("comp=blocklist").headers(withMetadata(h, metadata))
            .body(body, 0, body.length).expect(201).build());
    }

    /**
     * Reads up to {@code max} bytes from {@code offset} into {@code dest[0..]}.
     * An offset at or past the end reads 0 bytes (the service answers 416 then,
     * and the blob's properties are fetched separately). A read of 1 MiB or
     * more asks for more than {@code max} and parks the rest of the answer
     * for the read that goes on where this one ends ({@link OpenReads}),
     * which then takes its bytes from there without a request of its own.
     *
     * Never a short read: the bytes of every answer are counted against the
     * length its head announced, and an answer that ends early is a broken
     * one, sent again from the byte where it stopped (within the retry
     * bounds, as any broken connection). Every request after the first, and
     * a read that goes on where a recent read of the blob ended, carries
     * If-Match with the version the first answer was of: an object replaced
     * meanwhile fails with CONDITION_NOT_MET, its versions never mixed. A
     * read of a whole blob whose MD5 the service keeps is checked against it
     * (CHECKSUM_MISMATCH), unless the connection turned that check off.
     */
    public ReadResult readRange(Deadline op, String blob, long offset, byte[] dest, int max) throws StorageException {
        if (max <= 0) {
            return new ReadResult(0, properties(op, blob));
        }
        String path = blobPath(blob);
        String version;
        OpenReads.Open open = openReads.take(path, offset);
        if (open != null) {
            ReadResult r = readOn(op, open, dest, max);
            if (r != null) {
                return r;
            }
            version = open.etag();
        } else {
            version = openReads.versionAt(path, offset);
        }
        Progress p = new Progress(offset, OpenReads.span(max), version);
        try {
            Response r = runner.run(op, "GET " + path, timeout -> exchange.send(p.request(path, dest, max), timeout));
            checkWholeBlob(path, p, r, dest);
            openReads.sawVersion(path, offset + p.got, p.etag);
            return new ReadResult(p.got, r);
        } catch (StorageException e) {
            if (e.status == 416 && p.got == 0) {
                return new ReadResult(0, properties(op, blob));
            }
            if (e.status == 412 && p.etag != null) {
                throw new StorageException(ERRORID.CONDITION_NOT_MET, 412, e.serviceCode,
                                           "GET " + path + ": the object was replaced while it was being read (it "
                                               + "was version " + p.etag + " when the read began); read it again "
                                               + "from its start. " + e.getMessage(), e);
            }
            throw e;
        }
    }

    /** How far a read has come over its sends: bytes in the caller's array, the version it reads. */
    private final class Progress {
        final long offset;
        final long span;
        int got;
        String etag;
        /** The blob's size and whole MD5, as the last answer stated them (-1 / null when it did not). */
        long blobSize = -1;
        String blobMd5;

        Progress(long offset, long span, String etag) {
            this.offset = offset;
            this.span = span;
            this.etag = etag;
        }

        /** The request for what is still missing, from the byte where the last answer stopped. */
        BlobRequest request(String path, byte[] dest, int max) {
            long from = offset + got;
            BlobRequest.Builder b = BlobRequest.to("GET", path)
                .header("x-ms-range", "bytes=" + from + "-" + (offset + span - 1)).expect(200, 206)
                .sink((in, http, head) -> consume(path, in, http, head, from, dest, max));
            if (etag != null) {
                b.header("If-Match", etag);
            }
            return b.build();
        }

        private byte[] consume(String path, InputStream in, HttpURLConnection http, Response head, long from,
                               byte[] dest, int max) throws IOException {
            if (etag == null) {
                etag = head.header("ETag");
            }
            long[] extent = OpenReads.extentOf(head.status, head.header("Content-Range"),
                                               head.longHeader("Content-Length", -1), from);
            long announced = head.longHeader("Content-Length", extent == null ? -1 : extent[0] - from);
            blobSize = OpenReads.blobSize(head.status, head.header("Content-Range"), announced);
            blobMd5 = !conn.verifyDownloadMd5 ? null
                : head.status == 200 ? head.header("Content-MD5") : head.header("x-ms-blob-content-md5");
            int want = (int) Math.min(max - got, announced >= 0 ? announced : Long.MAX_VALUE);
            int n = HttpExchange.readFully(in, dest, got, want);
            got += n;
            if (n < want && announced >= 0) {
                throw new EOFException("the answer ended after " + n + " of the " + announced
                                       + " bytes it announced");
            }
            if (got == max && extent != null && extent[0] > offset + max) {
                OpenReads.Open parked = new OpenReads.Open(path, http, in, head, offset + max, extent[0],
                                                           extent[1] == 1);
                if (offset == 0 && extent[1] == 1 && blobMd5 != null) {
                    parked.wholeMd5 = md5();
                    parked.wholeMd5.update(dest, 0, max);
                    parked.expectedMd5 = blobMd5;
                }
                openReads.park(parked);
                return null;
            }
            // Nothing left, or an answer whose extent cannot be trusted: read to its end and let it go.
            in.transferTo(OutputStream.nullOutputStream());
            return new byte[0];
        }
    }

    /** A read of a whole blob (from 0 to its end) is checked against the blob's MD5 when the service keeps one. */
    private static void checkWholeBlob(String path, Progress p, Response r, byte[] dest) throws StorageException {
        if (p.offset != 0 || p.blobMd5 == null || p.blobSize != p.got) {
            return;
        }
        MessageDigest md = md5();
        md.update(dest, 0, p.got);
        checkMd5(path, md, p.blobMd5);
    }

    private static void checkMd5(String path, MessageDigest md, String expected) throws StorageException {
        String got = Base64.getEncoder().encodeToString(md.digest());
        if (!got.equals(expected.trim())) {
            throw new StorageException(ERRORID.CHECKSUM_MISMATCH, 0, null,
                                       "GET " + path + ": the bytes read have MD5 " + got + ", the object's is "
                                           + HttpExchange.cleanCode(expected) + ": they were damaged on the way",
                                       null);
        }
    }

    /**
     * Reads the next {@code max} bytes of a parked answer into {@code dest},
     * within the request timeout and the operation's deadline, and parks it
     * again while bytes are left. Null when it cannot serve the read whole
     * (the blob goes on past the answer, the answer broke or ended early):
     * the answer is closed and the caller sends a request of its own, on the
     * same version, which overwrites what this one put into {@code dest}.
     */
    private ReadResult readOn(Deadline op, OpenReads.Open open, byte[] dest, int max) throws StorageException {
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
        int n = HttpExchange.readWithin(open.http, open.in, dest, want, timeout, retry.stallTimeout);
        if (n != want) {
            open.close();
            return null;
        }
        open.next += n;
        if (open.wholeMd5 != null) {
            open.wholeMd5.update(dest, 0, n);
            if (open.remaining() == 0) {
                checkMd5(open.path, open.wholeMd5, open.expectedMd5);
            }
        }
        openReads.sawVersion(open.path, open.next, open.etag());
        if (open.remaining() > 0) {
            openReads.park(open);
        } else {
            open.close();
        }
        return new ReadResult(n, open.response);
    }

    /** Get Blob Properties (HEAD). */
    public Response properties(Deadline op, String blob) throws StorageException {
        return send(op, BlobRequest.to("HEAD", blobPath(blob)).build());
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
        send(op, BlobRequest.to("PUT", blobPath(blob)).query("comp=metadata").headers(withMetadata(h, metadata))
            .build());
    }

    public void deleteBlob(Deadline op, String blob) throws StorageException {
        try {
            // Its snapshots go with it: the service refuses to delete a blob that has some otherwise.
            send(op, BlobRequest.to("DELETE", blobPath(blob)).header("x-ms-delete-snapshots", "include").expect(202)
                .build());
        } catch (StorageException e) {
            if (e.error == ERRORID.NOT_FOUND && e.afterLostAnswer()) {
                // An earlier send went unanswered and deleted it.
                LOG.log(Level.INFO, "DELETE " + blobPath(blob) + ": deleted by a send whose answer was lost");
                return;
            }
            throw e;
        }
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
        BlobRequest.Builder r = BlobRequest.to("PUT", blobPath(blob)).query("comp=tier")
            .header("x-ms-access-tier", tier).expect(200, 202);
        if (priority != null) {
            r.header("x-ms-rehydrate-priority", priority);
        }
        return send(op, r.build()).status;
    }

    /**
     * Set Blob Immutability Policy: the blob (with version-level
     * immutability on its container) cannot be changed or deleted before
     * {@code until}.
     *
     * @param until RFC 1123 date, as the service takes it
     * @param mode  Unlocked (may be shortened or removed later) or Locked
     */
    public void setImmutabilityPolicy(Deadline op, String blob, String until, String mode) throws StorageException {
        send(op, BlobRequest.to("PUT", blobPath(blob)).query("comp=immutabilityPolicies")
            .header("x-ms-immutability-policy-until-date", until).header("x-ms-immutability-policy-mode", mode)
            .expect(200).build());
    }

    /** Set Blob Legal Hold: while it is set the blob cannot be changed or deleted. */
    public void setLegalHold(Deadline op, String blob, boolean hold) throws StorageException {
        send(op, BlobRequest.to("PUT", blobPath(blob)).query("comp=legalhold")
            .header("x-ms-legal-hold", Boolean.toString(hold)).expect(200).build());
    }

    public BlobPage listBlobs(Deadline op, String prefix, String marker, int maxResults, boolean withMetadata)
        throws StorageException {
        StringBuilder q = new StringBuilder("restype=container&comp=list");
        if (withMetadata) {
            // Sorted, as a signature's canonical form lists several values.
            q.append("&include=immutabilitypolicy,legalhold,metadata");
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
        // The page is read as it arrives, never held whole; its blobs are handed on once it is complete, so
        // that a page cut off and asked for again is not counted twice.
        List<BlobPage.Item> items = new ArrayList<>();
        String[] next = new String[1];
        BlobRequest.BodySink sink = (in, http, head) -> {
            items.clear();
            try {
                next[0] = BlobXml.blobPage(HttpExchange.exactly(in, head), marker, items::add);
            } catch (StorageException e) {
                throw new HttpExchange.UnusableAnswer(e);
            }
            return new byte[0]; // read to its end (the parser may have closed it there)
        };
        send(op, BlobRequest.to("GET", containerPath(conn.container)).query(q.toString()).sink(sink).build());
        return new BlobPage(items, next[0]);
    }

    static String md5Base64(byte[] data, int off, int len) {
        MessageDigest md = md5();
        md.update(data, off, len);
        return Base64.getEncoder().encodeToString(md.digest());
    }

    static MessageDigest md5() {
        try {
            return MessageDigest.getInstance("MD5");
        } catch (NoSuchAlgorithmException e) {
            throw new IllegalStateException("MD5 is not available", e);
        }
    }
}
