package com.qv.azure.rest;

import com.qv.QVCloudPluginInterface.ERRORID;

/**
 * A failed storage request, already classified as one {@link ERRORID}. It
 * carries the HTTP status (0 when no answer came back) and the service's
 * x-ms-error-code, when there was one, for logging; whether sending the
 * request again may succeed (see {@link RetryPolicy}); and how long the
 * service asked the client to wait before that (Retry-After), if it did.
 */
public final class StorageException extends Exception {
    private static final long serialVersionUID = 1L;

    public final ERRORID error;
    public final int status;
    public final String serviceCode;
    public final boolean retryable;
    /** The wait the answer asked for, in milliseconds; -1 when it asked for none. */
    public final long retryAfterMillis;
    /**
     * Whether an earlier send of the same request went unanswered (the
     * connection broke or timed out after it was sent): the service may have
     * carried it out, and this answer may be to the request's own effect
     * (an object that now exists, one already deleted). Set by the runner.
     */
    private volatile boolean afterLostAnswer;

    public StorageException(ERRORID error, int status, String serviceCode, String message, Throwable cause,
                            boolean retryable, long retryAfterMillis) {
        super(message, cause);
        this.error = error;
        this.status = status;
        this.serviceCode = serviceCode;
        this.retryable = retryable;
        this.retryAfterMillis = retryAfterMillis;
    }

    public StorageException(ERRORID error, int status, String serviceCode, String message, Throwable cause,
                            boolean retryable) {
        this(error, status, serviceCode, message, cause, retryable, -1);
    }

    public StorageException(ERRORID error, int status, String serviceCode, String message, Throwable cause) {
        this(error, status, serviceCode, message, cause, false);
    }

    public StorageException(ERRORID error, String message) {
        this(error, 0, null, message, null);
    }

    public boolean afterLostAnswer() {
        return afterLostAnswer;
    }

    StorageException markAfterLostAnswer() {
        afterLostAnswer = true;
        return this;
    }
}
