package com.qv.azure.rest;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.time.Duration;
import java.util.concurrent.ThreadLocalRandom;
import java.util.concurrent.TimeUnit;

/**
 * Sends one request, and sends it again after failures that may go away by
 * themselves, as the {@link RetryPolicy} says: within its attempts, within
 * RetryMaxSeconds of the first send, and within the deadline of the
 * operation the request belongs to. This is the only place where requests
 * are repeated and where the time bounds are applied; what one send is
 * (which transport, where the answer goes) is up to the caller.
 */
public final class RequestRunner {
    /** One send of the request, which must be over within {@code timeout}. */
    public interface Send<T> {
        T send(Duration timeout) throws StorageException;
    }

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
        long requestEnd = start + policy.maxTotal.toNanos();
        boolean operationFirst = operation.endNanos() - requestEnd <= 0;
        long end = operationFirst ? operation.endNanos() : requestEnd;
        StorageException last = null;
        for (int attempt = 1; ; ++attempt) {
            long left = end - System.nanoTime();
            if (left <= 0) {
                throw outOfTime(what, operationFirst, operation, attempt - 1, start, last);
            }
            Duration timeout = policy.requestTimeout.toNanos() > left ? Duration.ofNanos(left) : policy.requestTimeout;
            try {
                return send.send(timeout);
            } catch (StorageException e) {
                last = e;
            }
            if (!last.retryable || attempt >= policy.maxAttempts) {
                throw last;
            }
            long pause = policy.pauseMillis(attempt, last.retryAfterMillis, ThreadLocalRandom.current());
            if (TimeUnit.MILLISECONDS.toNanos(pause) >= end - System.nanoTime()) {
                // The next send could not start within the bound: stop here rather than sleep in vain.
                throw outOfTime(what, operationFirst, operation, attempt, start, last);
            }
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
                + " ms (a further one would end past " + bound + "); last failure: " + last.getMessage();
        return new StorageException(ERRORID.TIMEOUT, last == null ? 0 : last.status,
                                    last == null ? null : last.serviceCode, text, last, false);
    }
}
