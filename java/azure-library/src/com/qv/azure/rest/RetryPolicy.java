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
 *       request, no send after {@link #maxTotal} has passed since its first
 *       one, and nothing past the deadline of the operation the request
 *       belongs to ({@link #operationTimeout} from the operation's start,
 *       shared by all its requests). Each send is also cut to the time left,
 *       so a request never runs much past either time bound. Running out of
 *       time fails with TIMEOUT; running out of attempts fails with the last
 *       failure.</li>
 *   <li>Pauses: exponential backoff with jitter. Before send n+1 the pause is
 *       drawn evenly from [d/2, d] with d = min(maxDelay, baseDelay * 2^(n-1)),
 *       so that clients that failed together do not come back together. When
 *       the service said how long to wait (Retry-After), the pause is at
 *       least that long, but never longer than maxDelay.</li>
 * </ul>
 *
 * {@link RequestRunner} applies these rules; it is the one place that sends
 * a request again.
 */
public final class RetryPolicy {
    public static final int DEFAULT_MAX_ATTEMPTS = 5;
    public static final Duration DEFAULT_MAX_TOTAL = Duration.ofSeconds(300);
    public static final Duration DEFAULT_BASE_DELAY = Duration.ofMillis(250);
    public static final Duration DEFAULT_MAX_DELAY = Duration.ofSeconds(10);
    public static final Duration DEFAULT_REQUEST_TIMEOUT = Duration.ofSeconds(120);
    public static final Duration DEFAULT_CONNECT_TIMEOUT = Duration.ofSeconds(15);
    /** Long enough for the largest write (2 GiB) at about 1 MiB/s, with its retries. */
    public static final Duration DEFAULT_OPERATION_TIMEOUT = Duration.ofSeconds(3600);

    public static final RetryPolicy DEFAULT = new RetryPolicy(DEFAULT_MAX_ATTEMPTS, DEFAULT_MAX_TOTAL,
                                                              DEFAULT_BASE_DELAY, DEFAULT_MAX_DELAY,
                                                              DEFAULT_REQUEST_TIMEOUT, DEFAULT_CONNECT_TIMEOUT,
                                                              DEFAULT_OPERATION_TIMEOUT);

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
    /** Longest time of one operation of the library, every request it makes and every pause together. */
    public final Duration operationTimeout;

    public RetryPolicy(int maxAttempts, Duration maxTotal, Duration baseDelay, Duration maxDelay,
                       Duration requestTimeout, Duration connectTimeout) {
        this(maxAttempts, maxTotal, baseDelay, maxDelay, requestTimeout, connectTimeout, DEFAULT_OPERATION_TIMEOUT);
    }

    public RetryPolicy(int maxAttempts, Duration maxTotal, Duration baseDelay, Duration maxDelay,
                       Duration requestTimeout, Duration connectTimeout, Duration operationTimeout) {
        if (maxAttempts < 1 || maxTotal.isNegative() || maxTotal.isZero() || baseDelay.isNegative()
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
     * backoff, or the service's wait when that is longer, capped at maxDelay.
     */
    public long pauseMillis(int failedAttempts, long retryAfterMillis, Random random) {
        long backoff = pauseMillis(failedAttempts, random);
        if (retryAfterMillis < 0) {
            return backoff;
        }
        return Math.min(maxDelay.toMillis(), Math.max(backoff, retryAfterMillis));
    }

    /** Whole seconds in a Retry-After value: at most 9 digits, so that no value overflows. */
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
