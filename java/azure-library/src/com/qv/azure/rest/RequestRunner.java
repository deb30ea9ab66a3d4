package com.qv.azure.rest;

import com.qv.QVCloudPluginInterface.ERRORID;
import com.qv.azure.LibraryLog;

import java.time.Duration;
import java.util.concurrent.ThreadLocalRandom;
import java.util.concurrent.TimeUnit;
import java.util.logging.Level;
import java.util.logging.Logger;

/**
 * Sends one request, and sends it again after failures that may go away by
 * themselves, as the {@link RetryPolicy} says: within its attempts, within
 * RetryMaxSeconds of the first send, and within the deadline of the
 * operation the request belongs to. This is the only place where requests
 * are repeated and where the time bounds are applied; what one send is
 * (which transport, where the answer goes) is up to the caller.
 *
 * Each send again is logged once (INFO), with the failure that caused it
 * and the pause before it. A failure that follows a send whose answer was
 * lost is marked as such ({@link StorageException#afterLostAnswer()}), so
 * that the caller can tell the request's own effect from a real refusal.
 */
public final class RequestRunner {
    /** One send of the request, which must be over within {@code timeout}. */
    public interface Send<T> {
        T send(Duration timeout) throws StorageException;
    }

    private static final Logger LOG = LibraryLog.logger();

    private final RetryPolicy policy;

    public RequestRunner(RetryPolicy policy) {
        this.policy = policy;
    }

    public RetryPolicy policy() {
        return policy;
    }

    /**
     * Runs {@code send} until it succeeds or fails for good.
     *
     * @param what names the request in failure texts (method and path; never a query, which may hold a token)
     */
    public <T> T run(Deadline operation, String what, Send<T> send) throws StorageException {
        long start = System.nanoTime();
        long retryEnd = start + policy.maxTotal.toNanos();
        StorageException last = null;
        boolean lostAnswer = false;
        for (int attempt = 1; ; ++attempt) {
            long left = operation.nanosLeft();
            if (left <= 0) {
                throw outOfTime(what, true, operation, attempt - 1, start, last);
            }
            // A send runs while bytes move (the exchange watches for stalls); only the operation's
            // deadline and RequestTimeoutSeconds, when set, bound it as a whole.
            Duration timeout = policy.requestTimeout.toNanos() > left ? Duration.ofNanos(left) : policy.requestTimeout;
            try {
                return send.send(timeout);
            } catch (StorageException e) {
                last = lostAnswer ? e.markAfterLostAnswer() : e;
            }
            if (!last.retryable || attempt >= policy.maxAttempts) {
                throw last;
            }
            // No answer at all (the connection broke or timed out): the service may have done it.
            lostAnswer |= last.status == 0;
            long pause = policy.pauseMillis(attempt, last.retryAfterMillis, ThreadLocalRandom.current());
            long resumeAt = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(pause);
            boolean operationFirst = operation.endNanos() - retryEnd <= 0;
            if (resumeAt - (operationFirst ? operation.endNanos() : retryEnd) >= 0) {
                // The next send could not start within the bound: stop here rather than sleep in vain.
                throw outOfTime(what, operationFirst, operation, attempt, start, last);
            }
            LOG.log(Level.INFO, what + ": attempt " + attempt + " failed, sending again in " + pause + " ms"
                + (last.retryAfterMillis >= 0 ? " (the service asked for " + last.retryAfterMillis + " ms)" : "")
                + ": " + last.getMessage());
            try {
                Thread.sleep(pause);
            } catch (InterruptedException ie) {
                Thread.currentThread().interrupt();
                throw new StorageException(ERRORID.OPERATION_CANCELLED, 0, null, what + ": interrupted", ie);
            }
        }
    }

    private StorageException outOfTime(String what, boolean operationFirst, Deadline operation, int attempts,
                                       long start, StorageException last) {
        long elapsedMs = TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - start);
        String bound = operationFirst
            ? "the operation's " + operation.budget().toMillis() + " ms (OperationTimeoutSeconds)"
            : policy.maxTotal.toMillis() + " ms (RetryMaxSeconds)";
        String text = attempts == 0
            ? what + ": not sent, no time left of " + bound
            : what + ": gave up after " + attempts + (attempts == 1 ? " attempt" : " attempts") + " in " + elapsedMs
                + " ms (a further one would end past " + bound
                + (last.retryAfterMillis > 0 ? ", after the " + last.retryAfterMillis + " ms the service asked for"
                   : "")
                + "); last failure: " + last.getMessage();
        return new StorageException(ERRORID.TIMEOUT, last == null ? 0 : last.status,
                                    last == null ? null : last.serviceCode, text, last, false);
    }
}
