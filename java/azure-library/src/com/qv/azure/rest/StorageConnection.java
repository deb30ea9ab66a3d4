package com.qv.azure.rest;

import java.net.URI;
import java.util.Base64;
import java.util.LinkedHashMap;
import java.util.Locale;
import java.util.Map;

/**
 * The parsed form of an Azure storage connection string with one extra key,
 * {@code Container}, naming the container that holds every object.
 *
 * Accepted keys (case-insensitive): DefaultEndpointsProtocol, AccountName,
 * AccountKey, BlobEndpoint, EndpointSuffix, Container. Values may themselves
 * contain '=' (account keys end with base64 padding), so each pair is split at
 * its first '='.
 */
public final class StorageConnection {
    public final String accountName;
    public final byte[] accountKey;
    /** The blob service endpoint without a trailing slash, e.g. https://acct.blob.core.windows.net. */
    public final URI blobEndpoint;
    public final String container;

    private StorageConnection(String accountName, byte[] accountKey, URI blobEndpoint, String container) {
        this.accountName = accountName;
        this.accountKey = accountKey;
        this.blobEndpoint = blobEndpoint;
        this.container = container;
    }

    /** Thrown for a connection string that cannot be used; {@link #reason} tells why. */
    public static final class Invalid extends Exception {
        private static final long serialVersionUID = 1L;

        public enum Reason { MALFORMED, MISSING_KEY, BAD_ACCOUNT_KEY, BAD_CONTAINER_NAME, BAD_ENDPOINT }

        public final Reason reason;

        Invalid(Reason reason, String message) {
            super(message);
            this.reason = reason;
        }
    }

    public static StorageConnection parse(String text) throws Invalid {
        if (text == null || text.isBlank()) {
            throw new Invalid(Invalid.Reason.MALFORMED, "empty connection string");
        }
        Map<String, String> pairs = new LinkedHashMap<>();
        for (String part : text.split(";")) {
            String p = part.trim();
            if (p.isEmpty()) {
                continue;
            }
            int eq = p.indexOf('=');
            if (eq <= 0) {
                throw new Invalid(Invalid.Reason.MALFORMED, "not a key=value pair: " + p);
            }
            String key = p.substring(0, eq).trim().toLowerCase(Locale.ROOT);
            String value = p.substring(eq + 1).trim();
            if (pairs.put(key, value) != null) {
                throw new Invalid(Invalid.Reason.MALFORMED, "key given twice: " + key);
            }
        }
        String account = required(pairs, "accountname");
        String keyText = required(pairs, "accountkey");
        String container = required(pairs, "container");

        byte[] key;
        try {
            key = Base64.getDecoder().decode(keyText);
        } catch (IllegalArgumentException e) {
            throw new Invalid(Invalid.Reason.BAD_ACCOUNT_KEY, "AccountKey is not base64");
        }
        if (key.length == 0) {
            throw new Invalid(Invalid.Reason.BAD_ACCOUNT_KEY, "AccountKey is empty");
        }
        if (!isValidContainerName(container)) {
            throw new Invalid(Invalid.Reason.BAD_CONTAINER_NAME, "invalid container name: " + container);
        }

        String endpoint = pairs.get("blobendpoint");
        if (endpoint == null || endpoint.isEmpty()) {
            String protocol = pairs.getOrDefault("defaultendpointsprotocol", "https").toLowerCase(Locale.ROOT);
            String suffix = pairs.getOrDefault("endpointsuffix", "core.windows.net");
            if (!protocol.equals("https") && !protocol.equals("http")) {
                throw new Invalid(Invalid.Reason.BAD_ENDPOINT, "DefaultEndpointsProtocol must be http or https");
            }
            endpoint = protocol + "://" + account + ".blob." + suffix;
        }
        while (endpoint.endsWith("/")) {
            endpoint = endpoint.substring(0, endpoint.length() - 1);
        }
        URI uri;
        try {
            uri = URI.create(endpoint);
        } catch (IllegalArgumentException e) {
            throw new Invalid(Invalid.Reason.BAD_ENDPOINT, "BlobEndpoint is not a URI: " + endpoint);
        }
        if (uri.getScheme() == null || uri.getHost() == null
            || !(uri.getScheme().equalsIgnoreCase("http") || uri.getScheme().equalsIgnoreCase("https"))) {
            throw new Invalid(Invalid.Reason.BAD_ENDPOINT, "BlobEndpoint needs an http(s) scheme and a host");
        }
        return new StorageConnection(account, key, uri, container);
    }

    private static String required(Map<String, String> pairs, String key) throws Invalid {
        String v = pairs.get(key);
        if (v == null || v.isEmpty()) {
            throw new Invalid(Invalid.Reason.MISSING_KEY, "missing " + key);
        }
        return v;
    }

    /**
     * Azure container naming rules: 3 to 63 characters, lowercase letters,
     * digits and single hyphens, starting and ending with a letter or digit.
     * "$root" is also accepted.
     */
    public static boolean isValidContainerName(String name) {
        if (name == null) {
            return false;
        }
        if (name.equals("$root")) {
            return true;
        }
        if (name.length() < 3 || name.length() > 63) {
            return false;
        }
        char prev = '-';
        for (int i = 0; i < name.length(); ++i) {
            char c = name.charAt(i);
            boolean alnum = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
            if (!alnum && c != '-') {
                return false;
            }
            if (c == '-' && prev == '-') {
                return false; // also rejects a leading hyphen
            }
            prev = c;
        }
        return prev != '-';
    }
}
