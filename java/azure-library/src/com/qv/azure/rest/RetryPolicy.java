package com.qv.azure.rest;

import java.time.Duration;
import java.time.Instant;
import java.time.ZonedDateTime;
import java.time.format.DateTimeFormatter;
import java.time.format.DateTimeParseException;
import java.util.Random;
import java.util.regex.Pattern;

/**
 * How the REST client sends one request again after a failure that may go
 * away by itself, and how long one HTTP exchange may take.
 *
 * <ul>
 *   <li>Retried: answers 408, 429, 500 and 503, and transport failures that
 *       are timeouts or a broken connection (reset, closed before the answer,
 *       cut off while the answer was read). Every other answer is final at
 *       once, and so is a refused connection or an unknown host.</li>
 *   <li>Bounded three times: at most {@link #maxAttempts} sends of the
 *       request, no send begun after {@link #maxTotal} has passed since its
 *       first one, and nothing past the deadline of the operation the
 *       request belongs to ({@link #operationTimeout} from the operation's
 *       start, shared by all its requests). A send itself runs as long as
 *       bytes move: it is cut off when none has moved for
 *       {@link #stallTimeout}, at the operation's deadline, and after
 *       {@link #requestTimeout} when that is set. Running out of time fails
 *       with TIMEOUT; running out of attempts fails with the last
 *       failure.</li>
 *   <li>Pauses: exponential backoff with jitter. Before send n+1 the pause is
 *       drawn evenly from [d/2, d] with d = min(maxDelay, baseDelay * 2^(n-1)),
 *       so that clients that failed together do not come back together. When
 *       the service said how long to wait (x-ms-retry-after-ms, or
 *       Retry-After), the pause is at least that long: maxDelay caps the
 *       backoff, not the service's wait, which only the time bounds limit
 *       (a wait that would end past them ends the request at once).</li>
 * </ul>
 *
 * The defaults ride out throttling as the Azure SDKs do: pauses that grow
 * from half a second to 30 s, for up to two minutes of one request, the
 * attempts set high enough that the time is what stops a request that
 * keeps failing (a throttled account or partition asks for long pauses;
 * 15 s of ServerBusy is ridden out, two minutes and more are not).
 *
 * {@link RequestRunner} applies these rules; it is the one place that sends
 * a request again.
 */
public final class RetryPolicy {
    public static final int DEFAULT_MAX_ATTEMPTS = 15;
    public static final Duration DEFAULT_MAX_TOTAL = Duration.ofSeconds(120);
    public static final Duration DEFAULT_BASE_DELAY = Duration.ofMillis(500);
    public static final Duration DEFAULT_MAX_DELAY = Duration.ofSeconds(30);
    /** No bound on one whole send unless RequestTimeoutSeconds sets one (longer than any operation may last). */
    public static final Duration DEFAULT_REQUEST_TIMEOUT = Duration.ofSeconds(86_401);
    /** A send with no byte moving either way for this long is cut off. */
    public static final Duration DEFAULT_STALL_TIMEOUT = Duration.ofSeconds(60);
    public static final Duration DEFAULT_CONNECT_TIMEOUT = Duration.ofSeconds(15);
    /** Long enough for the largest write (2 GiB) at about 1 MiB/s, with its retries. */
    public static final Duration DEFAULT_OPERATION_TIMEOUT = Duration.ofSeconds(3600);

    public static final RetryPolicy DEFAULT = new RetryPolicy(DEFAULT_MAX_ATTEMPTS, DEFAULT_MAX_TOTAL,
                                                              DEFAULT_BASE_DELAY, DEFAULT_MAX_DELAY,
                                                              DEFAULT_REQUEST_TIMEOUT, DEFAULT_CONNECT_TIMEOUT,
                                                              DEFAULT_OPERATION_TIMEOUT, DEFAULT_STALL_TIMEOUT);

    /** Sends of one request, the first included (1 means no retry). */
    public final int maxAttempts;
    /** Time from the first send of a request after which it is not sent again. */
    public final Duration maxTotal;
    public final Duration baseDelay;
    public final Duration maxDelay;
    /**
     * Longest time of one whole send, from the request until the last byte
     * of the answer: none unless RequestTimeoutSeconds sets it (a slow but
     * moving send is let run; {@link #stallTimeout} catches one that stopped).
     */
    public final Duration requestTimeout;
    /** Longest time a send may go without a byte moving either way (StallTimeoutSeconds). */
    public final Duration stallTimeout;
    /** Longest wait for a TCP (and TLS) connection. */
    public final Duration connectTimeout;
    /** Longest time of one operation of the library, every request it makes and every pause together. */
    public final Duration operationTimeout;

    public RetryPolicy(int maxAttempts, Duration maxTotal, Duration baseDelay, Duration maxDelay,
                       Duration requestTimeout, Duration connectTimeout) {
        this(maxAttempts, maxTotal, baseDelay, maxDelay, requestTimeout, connectTimeout, DEFAULT_OPERATION_TIMEOUT);
    }

    public RetryPolicy(int maxAttempts, Duration maxTotal, Duration baseDelay, Duration maxDelay,
                       Duration requestTimeout, Duration connectTimeout, Duration operationTimeout) {
        this(maxAttempts, maxTotal, baseDelay, maxDelay, requestTimeout, connectTimeout, operationTimeout,
             DEFAULT_STALL_TIMEOUT);
    }

    public RetryPolicy(int maxAttempts, Duration maxTotal, Duration baseDelay, Duration maxDelay,
                       Duration requestTimeout, Duration connectTimeout, Duration operationTimeout,
                       Duration stallTimeout) {
        if (stallTimeout.isNegative() || stallTimeout.isZero()
            || maxAttempts < 1 || maxTotal.isNegative() || maxTotal.isZero() || baseDelay.isNegative()
            || maxDelay.compareTo(baseDelay) < 0 || requestTimeout.isNegative() || requestTimeout.isZero()
            || connectTimeout.isNegative() || connectTimeout.isZero() || operationTimeout.isNegative()
            || operationTimeout.isZero()) {
            throw new IllegalArgumentException("inconsistent retry settings");
        }
        this.maxAttempts = maxAttempts;
        this.maxTotal = maxTotal;
        this.baseDelay = baseDelay;
        this.maxDelay = maxDelay;
        this.requestTimeout = requestTimeout;
        this.connectTimeout = connectTimeout;
        this.operationTimeout = operationTimeout;
        this.stallTimeout = stallTimeout;
    }

    /** The deadline of an operation that starts now. */
    public Deadline startOperation() {
        return Deadline.after(operationTimeout);
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

    /**
     * The pause before send {@code failedAttempts + 1} when the failed answer
     * asked for a wait of {@code retryAfterMillis} (negative: it did not): the
     * backoff, or the service's wait when that is longer.
     */
    public long pauseMillis(int failedAttempts, long retryAfterMillis, Random random) {
        long backoff = pauseMillis(failedAttempts, random);
        return Math.max(backoff, retryAfterMillis);
    }

    /**
     * The wait an answer asks for, in milliseconds: x-ms-retry-after-ms (a
     * whole number of milliseconds, which the storage service sends when it
     * throttles) when present and readable, else Retry-After (see
     * {@link #retryAfterMillis(String, Instant)}); -1 for neither.
     */
    public static long retryAfterMillis(String retryAfterMs, String retryAfter, Instant now) {
        if (retryAfterMs != null && SECONDS.matcher(retryAfterMs.trim()).matches()) {
            return Long.parseLong(retryAfterMs.trim());
        }
        return retryAfterMillis(retryAfter, now);
    }

    /** A whole number in a wait header: at most 9 digits, so that no value overflows. */
    private static final Pattern SECONDS = Pattern.compile("[0-9]{1,9}");

    /**
     * The wait a Retry-After header asks for, in milliseconds: a number of
     * seconds or an HTTP date (a date in the past asks for no wait). -1 for
     * no header or a value that is neither; such a value is ignored, as it
     * comes from the other side and may be anything.
     */
    public static long retryAfterMillis(String header, Instant now) {
        if (header == null) {
            return -1;
        }
        String v = header.trim();
        if (SECONDS.matcher(v).matches()) {
            return Long.parseLong(v) * 1000;
        }
        if (v.length() > 64) {
            return -1;
        }
        try {
            Instant at = ZonedDateTime.parse(v, DateTimeFormatter.RFC_1123_DATE_TIME).toInstant();
            return Math.max(0, Duration.between(now, at).toMillis());
        } catch (DateTimeParseException | ArithmeticException e) {
            return -1;
        }
    }
}
