package com.qv.QVCloudPluginInterface;

/**
 * The outcome of a storage operation of the plug-in library.
 *
 * The native side of the plug-in reads only the ordinal of a constant (through
 * {@link CErrorValue#getOrdinalValue()}) and translates it into the host's
 * result code with a fixed table. The ordinal is therefore the contract with
 * the native side: constants must never be reordered, removed or inserted
 * before existing ones, and there are exactly 49 of them (ordinals 0 to 48).
 */
public enum ERRORID {
    SUCCESS,                    // 0
    FAILURE,                    // 1
    INVALID_ARGUMENT,           // 2
    NOT_FOUND,                  // 3
    ALREADY_EXISTS,             // 4
    ACCESS_DENIED,              // 5
    AUTHENTICATION_FAILED,      // 6
    AUTHORIZATION_FAILED,       // 7
    CONTAINER_NOT_FOUND,        // 8
    CONTAINER_ALREADY_EXISTS,   // 9
    CONTAINER_BEING_DELETED,    // 10
    INVALID_CONTAINER_NAME,     // 11
    INVALID_OBJECT_NAME,        // 12
    INVALID_HANDLE,             // 13
    READ_FAILED,                // 14
    WRITE_FAILED,               // 15
    DELETE_FAILED,              // 16
    METADATA_READ_FAILED,       // 17
    METADATA_WRITE_FAILED,      // 18
    INVALID_METADATA,           // 19
    OBJECT_TOO_LARGE,           // 20
    INVALID_RANGE,              // 21
    CHECKSUM_MISMATCH,          // 22
    CONDITION_NOT_MET,          // 23
    LEASE_CONFLICT,             // 24
    OBJECT_LOCKED,              // 25
    QUOTA_EXCEEDED,             // 26
    INSUFFICIENT_STORAGE,       // 27
    THROTTLED,                  // 28
    SERVER_BUSY,                // 29
    TIMEOUT,                    // 30
    NETWORK_ERROR,              // 31
    CONNECTION_FAILED,          // 32
    DNS_RESOLUTION_FAILED,      // 33
    TLS_HANDSHAKE_FAILED,       // 34
    PROXY_ERROR,                // 35
    SERVICE_UNAVAILABLE,        // 36
    INVALID_CREDENTIALS,        // 37
    CREDENTIALS_EXPIRED,        // 38
    STORAGE_KEY_INVALID,        // 39
    INTERNAL_ERROR,             // 40
    NOT_INITIALIZED,            // 41
    ALREADY_INITIALIZED,        // 42
    NOT_SUPPORTED,              // 43
    REGION_NOT_AVAILABLE,       // 44
    ACCOUNT_DISABLED,           // 45
    ARCHIVED_OBJECT_NOT_READABLE, // 46
    OPERATION_CANCELLED,        // 47
    UNKNOWN_ERROR               // 48
}
