package com.qv.azure.rest;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.io.EOFException;
import java.io.IOException;
import java.net.ConnectException;
import java.net.SocketException;
import java.net.SocketTimeoutException;
import java.net.UnknownHostException;
import java.net.http.HttpTimeoutException;
import java.nio.channels.UnresolvedAddressException;
import java.security.cert.CertificateException;
import java.util.Locale;
import javax.net.ssl.SSLException;
import javax.net.ssl.SSLPeerUnverifiedException;

/**
 * Turns the failures of the Blob REST API and of the HTTP transport into the
 * error ids that the native plug-in understands. The table is also in
 * docs/java-library.md; keep both in step. Whether a failure is retried is
 * decided by {@link RetryPolicy}, not here.
 */
public final class ErrorMap {
    private ErrorMap() {
    }

    /** Classifies an error answer by its HTTP status and its x-ms-error-code (may be null). */
    public static ERRORID fromHttp(int status, String code) {
        String c = code == null ? "" : code;
        String lc = c.toLowerCase(Locale.ROOT);
        if (lc.contains("quota") || lc.contains("limitexceeded")) {
            return ERRORID.QUOTA_EXCEEDED;
        }
        switch (status) {
            case 400:
                switch (c) {
                    case "InvalidResourceName":
                    case "InvalidUri":
                        return ERRORID.INVALID_OBJECT_NAME;
                    case "InvalidMetadata":
                    case "MetadataTooLarge":
                    case "EmptyMetadataKey":
                        return ERRORID.INVALID_METADATA;
                    case "Md5Mismatch":
                    case "InvalidMd5":
                        return ERRORID.CHECKSUM_MISMATCH;
                    case "OutOfRangeInput":
                    case "InvalidRange":
                        return ERRORID.INVALID_RANGE;
                    case "RequestBodyTooLarge":
                    case "BlockCountExceedsLimit":
                        return ERRORID.OBJECT_TOO_LARGE;
                    default:
                        return ERRORID.INVALID_ARGUMENT;
                }
            case 401:
                return ERRORID.AUTHENTICATION_FAILED;
            case 403:
                switch (c) {
                    case "AuthenticationFailed":
                        return ERRORID.AUTHENTICATION_FAILED;
                    case "AuthorizationFailure":
                    case "AuthorizationPermissionMismatch":
                    case "AuthorizationResourceTypeMismatch":
                    case "AuthorizationProtocolMismatch":
                    case "AuthorizationSourceIPMismatch":
                    case "AuthorizationServiceMismatch":
                    case "InsufficientAccountPermissions":
                        return ERRORID.AUTHORIZATION_FAILED;
                    case "AccountIsDisabled":
                        return ERRORID.ACCOUNT_DISABLED;
                    case "KeyBasedAuthenticationNotPermitted":
                        // The credential is fine but of a kind the account refuses: another one is needed.
                        return ERRORID.INVALID_CREDENTIALS;
                    default:
                        return ERRORID.ACCESS_DENIED;
                }
            case 404:
                return "ContainerNotFound".equals(c) ? ERRORID.CONTAINER_NOT_FOUND : ERRORID.NOT_FOUND;
            case 408:
                return ERRORID.TIMEOUT;
            case 409:
                switch (c) {
                    case "ContainerAlreadyExists":
                        return ERRORID.CONTAINER_ALREADY_EXISTS;
                    case "ContainerBeingDeleted":
                        return ERRORID.CONTAINER_BEING_DELETED;
                    case "BlobImmutableDueToPolicy":
                    case "BlobImmutableDueToLegalHold":
                    case "ContainerHasLegalHold":
                    case "ContainerImmutabilityPolicyLocked":
                        return ERRORID.OBJECT_LOCKED;
                    case "BlobArchived":
                    // A tier change while a rehydration is pending: the blob is still in Archive.
                    case "BlobBeingRehydrated":
                        return ERRORID.ARCHIVED_OBJECT_NOT_READABLE;
                    default:
                        if (lc.contains("alreadyexists")) {
                            return ERRORID.ALREADY_EXISTS;
                        }
                        if (lc.contains("lease")) {
                            return ERRORID.LEASE_CONFLICT;
                        }
                        return ERRORID.FAILURE;
                }
            case 412:
                return lc.contains("lease") ? ERRORID.LEASE_CONFLICT : ERRORID.CONDITION_NOT_MET;
            case 413:
                return ERRORID.OBJECT_TOO_LARGE;
            case 416:
                return ERRORID.INVALID_RANGE;
            case 429:
                return ERRORID.THROTTLED;
            case 500:
                return "OperationTimedOut".equals(c) ? ERRORID.TIMEOUT : ERRORID.INTERNAL_ERROR;
            case 503:
                return "ServerBusy".equals(c) ? ERRORID.THROTTLED : ERRORID.SERVICE_UNAVAILABLE;
            case 507:
                return ERRORID.INSUFFICIENT_STORAGE;
            default:
                if (status >= 500) {
                    return ERRORID.SERVICE_UNAVAILABLE;
                }
                return ERRORID.UNKNOWN_ERROR;
        }
    }

    /**
     * What an error answer means for whoever reads the log, where the code
     * alone does not say it; null for the others.
     */
    public static String cause(int status, String code) {
        if (code == null) {
            return null;
        }
        switch (code) {
            case "BlobImmutableDueToPolicy":
                return "the object is under a time-based retention (immutability) policy and cannot be changed or "
                    + "deleted until it expires";
            case "BlobImmutableDueToLegalHold":
                return "the object is under a legal hold and cannot be changed or deleted until the hold is cleared";
            case "ContainerHasLegalHold":
                return "the container has a legal hold";
            case "ContainerImmutabilityPolicyLocked":
                return "the container has a locked immutability policy";
            case "KeyBasedAuthenticationNotPermitted":
                return "the storage account does not permit Shared Key authorization (AllowSharedKeyAccess is "
                    + "false), which the account key and every SAS signed with it use: connect with Entra ID "
                    + "(Authentication=...) or a user delegation SAS";
            case "AuthenticationFailed":
                return "the signature or token was not accepted: a wrong or rotated account key, a token of "
                    + "another key, tenant or audience, or this machine's clock off by more than 15 minutes";
            case "InvalidAuthenticationInfo":
                return "the bearer token was not accepted (expired, malformed, or for another audience)";
            case "AuthorizationPermissionMismatch":
                return "the credential lacks the permission for this operation: an Entra ID identity needs a "
                    + "data role such as Storage Blob Data Contributor on the account or container (a management "
                    + "role such as Owner is not enough), a SAS the permission in its sp";
            case "AuthorizationFailure":
                return "the request is not authorized: a firewall or network rule of the account refuses this "
                    + "client, or the credential has no rights here";
            case "AuthorizationSourceIPMismatch":
                return "the SAS allows other client addresses (sip)";
            case "AuthorizationProtocolMismatch":
                return "the SAS allows HTTPS only (spr)";
            case "AuthorizationResourceTypeMismatch":
                return "the account SAS does not cover this kind of resource (srt)";
            case "AuthorizationServiceMismatch":
                return "the account SAS does not cover the blob service (ss)";
            case "InsufficientAccountPermissions":
                return "the credential lacks a permission at the account's level";
            case "AccountIsDisabled":
                return "the storage account is disabled";
            default:
                return null;
        }
    }

    /**
     * Classifies a transport failure (no HTTP answer, or the answer could not
     * be read) by everything in its chain of causes, as the JDK's HTTP
     * clients wrap the telling exception: an unknown host comes as a
     * ConnectException around an UnresolvedAddressException, a connection
     * reset while connecting or during the TLS handshake as a ConnectException
     * or an SSLHandshakeException around a SocketException. So:
     * <ol>
     *   <li>a timeout anywhere: TIMEOUT;</li>
     *   <li>an unresolved host: DNS_RESOLUTION_FAILED;</li>
     *   <li>a certificate refused (not trusted, or not for this host):
     *       TLS_HANDSHAKE_FAILED, final;</li>
     *   <li>a connection reset or closed by the other side, under TLS or
     *       not, while connecting or later: NETWORK_ERROR, retried;</li>
     *   <li>a connection refused: CONNECTION_FAILED, final;</li>
     *   <li>another TLS failure (protocol, cipher): TLS_HANDSHAKE_FAILED;</li>
     *   <li>any other IOException: NETWORK_ERROR.</li>
     * </ol>
     */
    public static ERRORID fromThrowable(Throwable t) {
        boolean timeout = false;
        boolean unresolved = false;
        boolean interrupted = false;
        boolean connect = false;
        boolean tls = false;
        boolean certificate = false;
        boolean broken = false;
        int depth = 0;
        for (Throwable x = t; x != null && depth < 20; x = x.getCause(), ++depth) {
            timeout |= x instanceof HttpTimeoutException || x instanceof SocketTimeoutException;
            unresolved |= x instanceof UnknownHostException || x instanceof UnresolvedAddressException;
            interrupted |= x instanceof InterruptedException;
            connect |= x instanceof ConnectException;
            tls |= x instanceof SSLException;
            certificate |= x instanceof CertificateException || x instanceof SSLPeerUnverifiedException;
            broken |= (x instanceof SocketException && !(x instanceof ConnectException)) || x instanceof EOFException;
        }
        if (timeout) {
            return ERRORID.TIMEOUT;
        }
        if (unresolved) {
            return ERRORID.DNS_RESOLUTION_FAILED;
        }
        if (interrupted) {
            return ERRORID.OPERATION_CANCELLED;
        }
        if (certificate) {
            return ERRORID.TLS_HANDSHAKE_FAILED;
        }
        if (broken) {
            return ERRORID.NETWORK_ERROR;
        }
        if (connect) {
            return ERRORID.CONNECTION_FAILED;
        }
        if (tls) {
            return ERRORID.TLS_HANDSHAKE_FAILED;
        }
        if (t instanceof IOException) {
            return ERRORID.NETWORK_ERROR;
        }
        return ERRORID.INTERNAL_ERROR;
    }
}
