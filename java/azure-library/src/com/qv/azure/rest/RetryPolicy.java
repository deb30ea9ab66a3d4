package com.qv.azure.rest;

import java.time.Duration;
import java.util.Random;

/**
 * How the REST client sends one request again after a failure that may go
 * away by itself, and how long one HTTP exchange may take.
 *
 * <ul>
 *   <li>Retried: answers 408, 429, 500 and 503, and transport failures that
 *       are timeouts or a broken connection (reset, closed before the answer,
 *       cut off while the answer was read). Every other answer is final at
 *       once, and so is a refused connection or an unknown host.</li>
 *   <li>Bounded twice: at most {@link #maxAttempts} sends of the request, and
 *       no send after {@link #maxTotal} has passed since the first one. Each
 *       send is also cut to the time left, so one request never runs much
 *       past the bound. Running out of time fails with TIMEOUT; running out
 *       of attempts fails with the last failure.</li>
 *   <li>Pauses: exponential backoff with jitter. Before send n+1 the pause is
 *       drawn evenly from [d/2, d] with d = min(maxDelay, baseDelay * 2^(n-1)),
 *       so that clients that failed together do not come back together.</li>
 * </ul>
 */
public final class RetryPolicy {
    public static final int DEFAULT_MAX_ATTEMPTS = 5;
    public static final Duration DEFAULT_MAX_TOTAL = Duration.ofSeconds(300);
    public static final Duration DEFAULT_BASE_DELAY = Duration.ofMillis(250);
    public static final Duration DEFAULT_MAX_DELAY = Duration.ofSeconds(10);
    public static final Duration DEFAULT_REQUEST_TIMEOUT = Duration.ofSeconds(120);
    public static final Duration DEFAULT_CONNECT_TIMEOUT = Duration.ofSeconds(15);

    public static final RetryPolicy DEFAULT = new RetryPolicy(DEFAULT_MAX_ATTEMPTS, DEFAULT_MAX_TOTAL,
                                                              DEFAULT_BASE_DELAY, DEFAULT_MAX_DELAY,
                                                              DEFAULT_REQUEST_TIMEOUT, DEFAULT_CONNECT_TIMEOUT);

    /** Sends of one request, the first included (1 means no retry). */
    public final int maxAttempts;
    /** Time from the first send of a request after which it is not sent again. */
    public final Duration maxTotal;
    public final Duration baseDelay;
    public final Duration maxDelay;
    /** Longest time of one send, from the request until the last byte of the answer. */
    public final Duration requestTimeout;
    /** Longest wait for a TCP (and TLS) connection. */
    public final Duration connectTimeout;

    public RetryPolicy(int maxAttempts, Duration maxTotal, Duration baseDelay, Duration maxDelay,
                       Duration requestTimeout, Duration connectTimeout) {
        if (maxAttempts < 1 || maxTotal.isNegative() || maxTotal.isZero() || baseDelay.isNegative()
            || maxDelay.compareTo(baseDelay) < 0 || requestTimeout.isNegative() || requestTimeout.isZero()
            || connectTimeout.isNegative() || connectTimeout.isZero()) {
            throw new IllegalArgumentException("inconsistent retry settings");
        }
        this.maxAttempts = maxAttempts;
        this.maxTotal = maxTotal;
        this.baseDelay = baseDelay;
        this.maxDelay = maxDelay;
        this.requestTimeout = requestTimeout;
        this.connectTimeout = connectTimeout;
    }

    /** Whether an HTTP answer with this status is worth sending again. */
    public static boolean isRetryableStatus(int status) {
        return status == 408 || status == 429 || status == 500 || status == 503;
    }

    /**
     * The pause before send {@code failedAttempts + 1}, in milliseconds, after
     * {@code failedAttempts} (at least 1) failed sends.
     */
    public long pauseMillis(int failedAttempts, Random random) {
        long base = baseDelay.toMillis();
        long cap = maxDelay.toMillis();
        int shift = Math.min(Math.max(failedAttempts - 1, 0), 30);
        long d = base > (cap >> shift) ? cap : base << shift;
        if (d <= 1) {
            return d;
        }
        long half = d / 2;
        return half + (long) (random.nextDouble() * (d - half + 1));
    }
}
