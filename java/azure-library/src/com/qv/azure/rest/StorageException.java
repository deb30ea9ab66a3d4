package com.qv.azure.rest;

import com.qv.QVCloudPluginInterface.ERRORID;

/**
 * A failed storage request, already classified as one {@link ERRORID}. It
 * carries the HTTP status (0 when no answer came back) and the service's
 * x-ms-error-code, when there was one, for logging, and whether sending the
 * request again may succeed (see {@link RetryPolicy}).
 */
public final class StorageException extends Exception {
    private static final long serialVersionUID = 1L;

    public final ERRORID error;
    public final int status;
    public final String serviceCode;
    public final boolean retryable;

    public StorageException(ERRORID error, int status, String serviceCode, String message, Throwable cause,
                            boolean retryable) {
        super(message, cause);
        this.error = error;
        this.status = status;
        this.serviceCode = serviceCode;
        this.retryable = retryable;
    }

    public StorageException(ERRORID error, int status, String serviceCode, String message, Throwable cause) {
        this(error, status, serviceCode, message, cause, false);
    }

    public StorageException(ERRORID error, String message) {
        this(error, 0, null, message, null);
    }
}
