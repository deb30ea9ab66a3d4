package com.qv.azure.rest;

import java.time.Duration;

/**
 * The moment by which one operation of the library must be done. It is made
 * when the operation starts ({@link RetryPolicy#startOperation()}) and
 * handed to every request the operation makes, on whichever thread: all of
 * them, their retries and the pauses between them draw from the same time.
 */
public final class Deadline {
    private final long endNanos;
    private final Duration budget;

    private Deadline(long endNanos, Duration budget) {
        this.endNanos = endNanos;
        this.budget = budget;
    }

    /** A deadline {@code budget} from now. */
    public static Deadline after(Duration budget) {
        return new Deadline(System.nanoTime() + budget.toNanos(), budget);
    }

    /** Time left, in nanoseconds; zero or less once the deadline has passed. */
    public long nanosLeft() {
        return endNanos - System.nanoTime();
    }

    long endNanos() {
        return endNanos;
    }

    /** The whole time the operation was given. */
    public Duration budget() {
        return budget;
    }
}
