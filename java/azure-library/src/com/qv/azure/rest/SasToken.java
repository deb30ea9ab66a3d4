package com.qv.azure.rest;

import java.time.Instant;
import java.time.LocalDate;
import java.time.LocalDateTime;
import java.time.OffsetDateTime;
import java.time.ZoneOffset;
import java.time.format.DateTimeParseException;
import java.util.HashMap;
import java.util.Map;

/**
 * A shared access signature from a connection string's SharedAccessSignature
 * key: an account SAS (with {@code ss}, covering the blob service) or a
 * service SAS for one container ({@code sr=c}). Requests carry it as their
 * query instead of a Shared Key signature.
 *
 * The token is a secret like the account key: it is never shown by
 * {@link #toString()}, by a message of this class or anywhere else. Only
 * {@link BlobRestClient} reads it, to put it on the wire.
 */
public final class SasToken {
    /** What the token gives access to. */
    public enum Scope {
        /** An account SAS: the container may be created with it, if its permissions allow. */
        ACCOUNT,
        /** A service SAS of the one container: the container must exist already. */
        CONTAINER
    }

    /** The token as it goes into a URL's query: percent-encoded, without a leading '?'. */
    final String query;
    public final Scope scope;
    /** The token's start (st) and expiry (se), or null when absent or not a time this class can read. */
    public final Instant start;
    public final Instant expiry;

    private SasToken(String query, Scope scope, Instant start, Instant expiry) {
        this.query = query;
        this.scope = scope;
        this.start = start;
        this.expiry = expiry;
    }

    /** Never shows the token. */
    @Override
    public String toString() {
        return scope == Scope.ACCOUNT ? "account SAS" : "container SAS";
    }

    /** The request's own query with the token added. */
    String appendTo(String rawQuery) {
        return rawQuery == null || rawQuery.isEmpty() ? query : rawQuery + "&" + query;
    }

    /** Whether the token's own times say it cannot be used at {@code now}. */
    boolean expiredAt(Instant now) {
        return expiry != null && now.isAfter(expiry);
    }

    boolean notYetValidAt(Instant now) {
        return start != null && now.isBefore(start);
    }

    /**
     * Reads a token as the Azure portal and tools hand it out, with or
     * without a leading '?'. Messages name what is wrong, never a value.
     */
    static SasToken parse(String text) throws StorageConnection.Invalid {
        String t = text.startsWith("?") ? text.substring(1) : text;
        if (t.isEmpty()) {
            throw invalid("SharedAccessSignature is empty");
        }
        for (int i = 0; i < t.length(); ++i) {
            char c = t.charAt(i);
            if (c == '%') {
                if (i + 2 >= t.length() || !isHex(t.charAt(i + 1)) || !isHex(t.charAt(i + 2))) {
                    throw invalid("SharedAccessSignature has a '%' that is not followed by two hex digits");
                }
            } else if (!isQueryChar(c)) {
                throw invalid("SharedAccessSignature holds a character that cannot be sent in a URL");
            }
        }
        Map<String, String> params = new HashMap<>();
        for (Map.Entry<String, String> pair : QueryParameters.parse(t)) {
            if (params.put(pair.getKey(), pair.getValue()) != null) {
                throw invalid("SharedAccessSignature has a parameter twice");
            }
        }
        if (params.getOrDefault("sig", "").isEmpty()) {
            throw invalid("SharedAccessSignature has no signature (sig)");
        }
        if (params.getOrDefault("sv", "").isEmpty()) {
            throw invalid("SharedAccessSignature has no version (sv)");
        }
        Scope scope;
        String services = params.get("ss");
        String resource = params.get("sr");
        if (services != null) {
            if (services.indexOf('b') < 0) {
                throw invalid("SharedAccessSignature is an account SAS without the blob service (ss has no b)");
            }
            scope = Scope.ACCOUNT;
        } else if (resource != null) {
            if (!resource.equals("c")) {
                throw invalid("SharedAccessSignature is for one blob or directory (sr), not for a container");
            }
            scope = Scope.CONTAINER;
        } else {
            throw invalid("SharedAccessSignature has neither ss (account SAS) nor sr (service SAS)");
        }
        return new SasToken(t, scope, time(params.get("st")), time(params.get("se")));
    }

    private static StorageConnection.Invalid invalid(String message) {
        return new StorageConnection.Invalid(StorageConnection.Invalid.Reason.BAD_SAS_TOKEN, message);
    }

    private static boolean isHex(char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    }

    /** Characters a query may hold as they are (RFC 3986 unreserved, sub-delims but ';', ':', '@', '/', '?'). */
    private static boolean isQueryChar(char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
            || "-._~!$&'()*+,=:@/?".indexOf(c) >= 0;
    }

    /** A SAS time: ISO 8601 in UTC, with or without seconds, or a date alone (its midnight, UTC). */
    static Instant time(String v) {
        if (v == null || v.isEmpty()) {
            return null;
        }
        try {
            return OffsetDateTime.parse(v).toInstant();
        } catch (DateTimeParseException e) {
            // try the other forms
        }
        try {
            return LocalDateTime.parse(v).toInstant(ZoneOffset.UTC);
        } catch (DateTimeParseException e) {
            // try the other forms
        }
        try {
            return LocalDate.parse(v).atStartOfDay().toInstant(ZoneOffset.UTC);
        } catch (DateTimeParseException e) {
            return null;
        }
    }
}
