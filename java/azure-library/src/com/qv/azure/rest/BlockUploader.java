package com.qv.azure.rest;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.nio.charset.StandardCharsets;
import java.security.MessageDigest;
import java.util.ArrayList;
import java.util.Base64;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.ThreadLocalRandom;

/**
 * Uploads an object too large for one Put Blob as blocks of
 * {@link #BLOCK_SIZE}, at most {@link #PARALLEL_UPLOADS} at a time, then
 * commits them in order with one Put Block List. If one block fails the
 * others are cancelled and nothing is committed: an object of that name
 * keeps its old content, a new name stays absent. The uncommitted blocks
 * are discarded by the service after a week.
 *
 * Block ids carry a random prefix per upload, so two uploads to the same
 * name at once never commit each other's blocks. All blocks and the commit
 * share the operation's deadline: a block that runs out of it fails the
 * upload like any other failure.
 *
 * The threads are made on first use and live until {@link #shutdown()};
 * the uploader can be used again afterwards.
 */
public final class BlockUploader {
    public static final int BLOCK_SIZE = 4 << 20;
    public static final int PARALLEL_UPLOADS = 4;

    private ExecutorService pool;

    /** Uploads {@code bytes[0..len)} as the blob's content with that metadata and tier (null: the default). */
    public void upload(Deadline op, BlobRestClient c, String blob, byte[] bytes, int len, Map<String, String> meta,
                       String tier) throws StorageException {
        ExecutorService threads = pool();
        List<String> ids = new ArrayList<>();
        List<Future<?>> futures = new ArrayList<>();
        String upload = Long.toHexString(ThreadLocalRandom.current().nextLong() | Long.MIN_VALUE);
        for (int off = 0, i = 0; off < len; off += BLOCK_SIZE, ++i) {
            // Every id of a blob must have the same length before encoding: 16 hex digits, '-', 8 digits.
            String id = Base64.getEncoder().encodeToString(
                String.format(Locale.ROOT, "%s-%08d", upload, i).getBytes(StandardCharsets.US_ASCII));
            ids.add(id);
            int from = off;
            int n = Math.min(BLOCK_SIZE, len - off);
            futures.add(threads.submit(() -> {
                c.putBlock(op, blob, id, bytes, from, n);
                return null;
            }));
        }
        // The whole content's MD5, which the blob keeps for readers to check, is made here while the
        // blocks go out on the upload threads (each with its own MD5, which the service checks).
        MessageDigest whole = BlobRestClient.md5();
        whole.update(bytes, 0, len);
        String wholeMd5 = Base64.getEncoder().encodeToString(whole.digest());
        try {
            for (Future<?> f : futures) {
                f.get();
            }
        } catch (ExecutionException e) {
            futures.forEach(f -> f.cancel(true));
            if (e.getCause() instanceof StorageException) {
                throw (StorageException) e.getCause();
            }
            throw new StorageException(ErrorMap.fromThrowable(e.getCause()), 0, null,
                                       "block upload failed: " + e.getCause(), e.getCause());
        } catch (InterruptedException e) {
            futures.forEach(f -> f.cancel(true));
            Thread.currentThread().interrupt();
            throw new StorageException(ERRORID.OPERATION_CANCELLED, "block upload interrupted");
        }
        c.putBlockList(op, blob, ids, meta, tier, wholeMd5);
    }

    /** Stops the upload threads (what runs is interrupted). */
    public synchronized void shutdown() {
        if (pool != null) {
            pool.shutdownNow();
            pool = null;
        }
    }

    private synchronized ExecutorService pool() {
        if (pool == null) {
            pool = Executors.newFixedThreadPool(PARALLEL_UPLOADS, r -> {
                Thread t = new Thread(r, "azure-block-upload");
                t.setDaemon(true);
                return t;
            });
        }
        return pool;
    }
}
