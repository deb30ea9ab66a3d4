package com.qv.azure.rest;

import java.math.BigDecimal;
import java.net.URI;
import java.time.Duration;
import java.util.Base64;
import java.util.LinkedHashMap;
import java.util.Locale;
import java.util.Map;
import java.util.Set;
import java.util.regex.Pattern;

/**
 * The parsed form of an Azure storage connection string with one extra key,
 * {@code Container}, naming the container that holds every object, and a few
 * optional keys that tune how requests are retried and timed out and in
 * which access tier objects are written.
 *
 * Keys (case-insensitive): DefaultEndpointsProtocol, AccountName, AccountKey,
 * SharedAccessSignature, BlobEndpoint, EndpointSuffix, Container, AccessTier,
 * and the tuning keys RetryMaxAttempts, RetryMaxSeconds, RetryBaseDelayMillis,
 * RetryMaxDelayMillis, RequestTimeoutSeconds, ConnectTimeoutSeconds,
 * OperationTimeoutSeconds (see {@link RetryPolicy}). The credential is either
 * AccountKey (with AccountName) or SharedAccessSignature (an account SAS or a
 * container SAS; AccountName is then optional and taken from the endpoint
 * when missing). Other keys are ignored, so that a connection string copied
 * from the Azure portal (with QueueEndpoint, TableEndpoint and so on) can be
 * used as it is. Values may themselves contain '=' (account keys end with
 * base64 padding, tokens are query strings), so each pair is split at its
 * first '='.
 *
 * The messages of {@link Invalid} name keys and positions but never repeat a
 * value from the text: a mistyped string can put the account key or the
 * token anywhere (in a key's place, glued to another value), and these
 * messages get logged.
 */
public final class StorageConnection {
    public final String accountName;
    /** The account key; null when the credential is a shared access signature. */
    public final byte[] accountKey;
    /** The shared access signature; null when the credential is another. */
    public final SasToken sas;
    /** The Entra ID credential (bearer tokens); null when the credential is another. */
    public final EntraCredential entra;
    /** The blob service endpoint without a trailing slash, e.g. https://acct.blob.core.windows.net. */
    public final URI blobEndpoint;
    public final String container;
    public final RetryPolicy retryPolicy;
    /** The access tier every written object gets (Hot, Cool, Cold or Archive); null for the account's default. */
    public final String accessTier;
    /** The x-ms-version every request carries (ServiceVersion; {@link #DEFAULT_SERVICE_VERSION} unless given). */
    public final String serviceVersion;
    /** The most objects one GetObjectSubList answers (ListMaxEntries); more fail with a clear error. */
    public final long listMaxEntries;
    /**
     * Whether a read of a whole blob is checked against the MD5 the service
     * keeps (VerifyDownloadMd5, true unless given). A caller that
     * authenticates every byte it reads itself may turn it off and save
     * the MD5's cost (about 1.7 s of CPU a GiB).
     */
    public final boolean verifyDownloadMd5;

    public static final long DEFAULT_LIST_MAX_ENTRIES = 1_000_000;

    /** 2021-12-02 is the first version that knows the Cold tier. */
    public static final String DEFAULT_SERVICE_VERSION = "2021-12-02";

    private StorageConnection(String accountName, byte[] accountKey, SasToken sas, EntraCredential entra,
                              URI blobEndpoint,
                              String container, RetryPolicy retryPolicy, String accessTier, String serviceVersion,
                              long listMaxEntries, boolean verifyDownloadMd5) {
        this.accountName = accountName;
        this.accountKey = accountKey;
        this.sas = sas;
        this.entra = entra;
        this.blobEndpoint = blobEndpoint;
        this.container = container;
        this.retryPolicy = retryPolicy;
        this.accessTier = accessTier;
        this.serviceVersion = serviceVersion;
        this.listMaxEntries = listMaxEntries;
        this.verifyDownloadMd5 = verifyDownloadMd5;
    }

    /** Never shows the account key or the token. */
    @Override
    public String toString() {
        return "StorageConnection[" + accountName + " at " + blobEndpoint + ", container " + container + ", "
            + (sas != null ? sas.toString() : entra != null ? entra.toString() : "account key")
            + (accessTier == null ? "" : ", tier " + accessTier) + "]";
    }

    /** Thrown for a connection string that cannot be used; {@link #reason} tells why. */
    public static final class Invalid extends Exception {
        private static final long serialVersionUID = 1L;

        public enum Reason {
            MALFORMED, MISSING_KEY, BAD_ACCOUNT_KEY, BAD_SAS_TOKEN, BAD_CREDENTIAL, BAD_CONTAINER_NAME, BAD_ENDPOINT,
            BAD_OPTION
        }

        public final Reason reason;

        Invalid(Reason reason, String message) {
            super(message);
            this.reason = reason;
        }
    }

    /** The keys this class knows, in the spelling used in messages. */
    private static final Set<String> KNOWN_KEYS = Set.of(
        "DefaultEndpointsProtocol", "AccountName", "AccountKey", "SharedAccessSignature", "BlobEndpoint",
        "EndpointSuffix", "Container", "AccessTier", "RetryMaxAttempts", "RetryMaxSeconds", "RetryBaseDelayMillis",
        "RetryMaxDelayMillis", "RequestTimeoutSeconds", "ConnectTimeoutSeconds", "OperationTimeoutSeconds",
        "ServiceVersion", "AllowInsecureHttp", "StallTimeoutSeconds", "ListMaxEntries", "Authentication", "TenantId",
        "ClientId", "ClientSecret", "ClientCertificatePath", "ClientCertificatePassword", "FederatedTokenFile",
        "AuthorityHost", "ManagedIdentityEndpoint", "VerifyDownloadMd5");

    private static String knownSpelling(String lowerKey) {
        for (String k : KNOWN_KEYS) {
            if (k.toLowerCase(Locale.ROOT).equals(lowerKey)) {
                return k;
            }
        }
        return null;
    }

    public static StorageConnection parse(String text) throws Invalid {
        return parse(text, System::getenv);
    }

    /** As {@link #parse(String)}, the environment (for the Entra ID credentials) read through {@code env}. */
    static StorageConnection parse(String text, java.util.function.Function<String, String> env) throws Invalid {
        if (text == null || text.isBlank()) {
            throw new Invalid(Invalid.Reason.MALFORMED, "empty connection string");
        }
        Map<String, String> pairs = new LinkedHashMap<>();
        String[] parts = text.split(";");
        for (int i = 0; i < parts.length; ++i) {
            String p = parts[i].trim();
            if (p.isEmpty()) {
                continue;
            }
            int eq = p.indexOf('=');
            if (eq <= 0) {
                throw new Invalid(Invalid.Reason.MALFORMED, "part " + (i + 1) + " is not a key=value pair");
            }
            String key = p.substring(0, eq).trim().toLowerCase(Locale.ROOT);
            String value = p.substring(eq + 1).trim();
            if (pairs.put(key, value) != null) {
                String known = knownSpelling(key);
                throw new Invalid(Invalid.Reason.MALFORMED,
                                  (known == null ? "the key of part " + (i + 1) : known) + " is given twice");
            }
        }
        String keyText = emptyToNull(pairs.get("accountkey"));
        String sasText = emptyToNull(pairs.get("sharedaccesssignature"));
        String authText = emptyToNull(pairs.get("authentication"));
        int credentials = (keyText == null ? 0 : 1) + (sasText == null ? 0 : 1) + (authText == null ? 0 : 1);
        if (credentials > 1) {
            throw new Invalid(Invalid.Reason.MALFORMED,
                              "give one credential: AccountKey, SharedAccessSignature or Authentication");
        }
        if (credentials == 0) {
            throw new Invalid(Invalid.Reason.MISSING_KEY,
                              "missing AccountKey, SharedAccessSignature or Authentication");
        }
        String account = keyText != null ? required(pairs, "accountname") : pairs.get("accountname");
        if (account != null && account.isEmpty()) {
            throw new Invalid(Invalid.Reason.MISSING_KEY, "missing AccountName");
        }
        String container = required(pairs, "container");

        byte[] key = null;
        SasToken sas = null;
        if (keyText != null) {
            try {
                key = Base64.getDecoder().decode(keyText);
            } catch (IllegalArgumentException e) {
                throw new Invalid(Invalid.Reason.BAD_ACCOUNT_KEY, "AccountKey is not base64");
            }
            if (key.length == 0) {
                throw new Invalid(Invalid.Reason.BAD_ACCOUNT_KEY, "AccountKey is empty");
            }
        } else if (sasText != null) {
            sas = SasToken.parse(sasText);
        }
        if (!isValidContainerName(container)) {
            throw new Invalid(Invalid.Reason.BAD_CONTAINER_NAME,
                              "Container breaks the container naming rules (3-63 lowercase letters, digits, "
                                  + "single hyphens)");
        }

        String endpoint = pairs.get("blobendpoint");
        if (endpoint == null || endpoint.isEmpty()) {
            if (account == null) {
                throw new Invalid(Invalid.Reason.MISSING_KEY, "missing BlobEndpoint or AccountName");
            }
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
            throw new Invalid(Invalid.Reason.BAD_ENDPOINT, "BlobEndpoint is not a URI");
        }
        if (uri.getScheme() == null || uri.getHost() == null
            || !(uri.getScheme().equalsIgnoreCase("http") || uri.getScheme().equalsIgnoreCase("https"))) {
            throw new Invalid(Invalid.Reason.BAD_ENDPOINT, "BlobEndpoint needs an http(s) scheme and a host");
        }
        if (uri.getRawQuery() != null || uri.getRawFragment() != null) {
            throw new Invalid(Invalid.Reason.BAD_ENDPOINT,
                              "BlobEndpoint must not have a query (give a token as SharedAccessSignature)");
        }
        if (account == null) {
            account = accountOf(uri);
        }
        boolean allowInsecure = flag(pairs, "AllowInsecureHttp", false);
        if (uri.getScheme().equalsIgnoreCase("http") && !isLoopback(uri.getHost()) && !allowInsecure) {
            throw new Invalid(Invalid.Reason.BAD_ENDPOINT,
                              "BlobEndpoint is plain http to a host that is not this machine: the "
                                  + (sas != null ? "SharedAccessSignature" : authText != null ? "bearer tokens"
                                     : "AccountKey's signatures")
                                  + " and the data would cross the network unencrypted; use https, or add "
                                  + "AllowInsecureHttp=true to allow it");
        }
        RetryPolicy retry = retryPolicy(pairs);
        EntraCredential entra = authText == null ? null
            : EntraCredential.parse(pairs, env, allowInsecure, retry.connectTimeout);
        return new StorageConnection(account, key, sas, entra, uri, container, retry, accessTier(pairs),
                                     serviceVersion(pairs),
                                     whole(pairs, "ListMaxEntries", DEFAULT_LIST_MAX_ENTRIES, 1, 100_000_000),
                                     flag(pairs, "VerifyDownloadMd5", true));
    }

    /**
     * Whether a host names this machine: "localhost", an IPv4 address of
     * 127.0.0.0/8, or ::1. Only literals count; no name is looked up.
     */
    static boolean isLoopback(String host) {
        String h = host.toLowerCase(Locale.ROOT);
        if (h.equals("localhost") || h.equals("[::1]") || h.equals("::1")
            || h.equals("[0:0:0:0:0:0:0:1]") || h.equals("0:0:0:0:0:0:0:1")) {
            return true;
        }
        return IPV4.matcher(h).matches() && h.startsWith("127.");
    }

    private static final Pattern IPV4 = Pattern.compile("[0-9]{1,3}(\\.[0-9]{1,3}){3}");
    private static final Pattern VERSION = Pattern.compile("20[0-9]{2}-[01][0-9]-[0-3][0-9]");

    /** A true/false key (any case); absent is false. */
    private static boolean flag(Map<String, String> pairs, String key, boolean absent) throws Invalid {
        String v = pairs.get(key.toLowerCase(Locale.ROOT));
        if (v == null) {
            return absent;
        }
        if (v.equalsIgnoreCase("false")) {
            return false;
        }
        if (v.equalsIgnoreCase("true")) {
            return true;
        }
        throw new Invalid(Invalid.Reason.BAD_OPTION, key + " must be true or false");
    }

    /** The ServiceVersion key: a version date of the Blob service API (yyyy-mm-dd), or the default. */
    private static String serviceVersion(Map<String, String> pairs) throws Invalid {
        String v = pairs.get("serviceversion");
        if (v == null) {
            return DEFAULT_SERVICE_VERSION;
        }
        if (!VERSION.matcher(v).matches()) {
            throw new Invalid(Invalid.Reason.BAD_OPTION, "ServiceVersion must be a version date such as 2021-12-02");
        }
        return v;
    }

    /**
     * The account name an endpoint stands for: the first path segment of an
     * emulator-style endpoint (http://127.0.0.1:10000/devstoreaccount1), else
     * the first label of the host name (acct.blob.core.windows.net).
     */
    static String accountOf(URI endpoint) {
        String path = endpoint.getPath() == null ? "" : endpoint.getPath();
        while (path.startsWith("/")) {
            path = path.substring(1);
        }
        if (!path.isEmpty()) {
            int slash = path.indexOf('/');
            return slash < 0 ? path : path.substring(0, slash);
        }
        String host = endpoint.getHost();
        if (host.startsWith("[") || host.chars().allMatch(c -> c == '.' || (c >= '0' && c <= '9'))) {
            return host;
        }
        int dot = host.indexOf('.');
        return dot < 0 ? host : host.substring(0, dot);
    }

    private static final String[] TIERS = {"Hot", "Cool", "Cold", "Archive"};

    /** A block blob's access tier (Hot, Cool, Cold, Archive; any case) as the service spells it, or null. */
    public static String canonicalTier(String tier) {
        for (String t : TIERS) {
            if (t.equalsIgnoreCase(tier)) {
                return t;
            }
        }
        return null;
    }

    /** The tier as the service spells it when it is one of the four, else the text as it came (or null). */
    static String canonicalTierOr(String tier) {
        String t = canonicalTier(tier);
        return t != null ? t : tier;
    }

    /** The AccessTier key in its canonical spelling, or null when absent. */
    private static String accessTier(Map<String, String> pairs) throws Invalid {
        String v = pairs.get("accesstier");
        if (v == null) {
            return null;
        }
        String t = canonicalTier(v);
        if (t == null) {
            throw new Invalid(Invalid.Reason.BAD_OPTION, "AccessTier must be Hot, Cool, Cold or Archive");
        }
        return t;
    }

    private static final Pattern WHOLE = Pattern.compile("[0-9]{1,9}");
    private static final Pattern DECIMAL = Pattern.compile("[0-9]{1,9}(\\.[0-9]{1,3})?");

    /** The retry and timeout settings: the defaults of {@link RetryPolicy}, overridden by the tuning keys. */
    private static RetryPolicy retryPolicy(Map<String, String> pairs) throws Invalid {
        int attempts = (int) whole(pairs, "RetryMaxAttempts", RetryPolicy.DEFAULT_MAX_ATTEMPTS, 1, 100);
        Duration total = seconds(pairs, "RetryMaxSeconds", RetryPolicy.DEFAULT_MAX_TOTAL, 86_400);
        Duration base = Duration.ofMillis(whole(pairs, "RetryBaseDelayMillis",
                                                RetryPolicy.DEFAULT_BASE_DELAY.toMillis(), 0, 60_000));
        long defaultMaxDelay = Math.max(RetryPolicy.DEFAULT_MAX_DELAY.toMillis(), base.toMillis());
        Duration maxDelay = Duration.ofMillis(whole(pairs, "RetryMaxDelayMillis", defaultMaxDelay, 0, 600_000));
        if (maxDelay.compareTo(base) < 0) {
            throw new Invalid(Invalid.Reason.BAD_OPTION, "RetryMaxDelayMillis is below RetryBaseDelayMillis");
        }
        Duration request = seconds(pairs, "RequestTimeoutSeconds", RetryPolicy.DEFAULT_REQUEST_TIMEOUT, 86_400);
        Duration connect = seconds(pairs, "ConnectTimeoutSeconds", RetryPolicy.DEFAULT_CONNECT_TIMEOUT, 3_600);
        Duration operation = seconds(pairs, "OperationTimeoutSeconds", RetryPolicy.DEFAULT_OPERATION_TIMEOUT,
                                     86_400);
        Duration stall = seconds(pairs, "StallTimeoutSeconds", RetryPolicy.DEFAULT_STALL_TIMEOUT, 3_600);
        return new RetryPolicy(attempts, total, base, maxDelay, request, connect, operation, stall);
    }

    private static long whole(Map<String, String> pairs, String key, long fallback, long min, long max)
        throws Invalid {
        String v = pairs.get(key.toLowerCase(Locale.ROOT));
        if (v == null) {
            return fallback;
        }
        long n = WHOLE.matcher(v).matches() ? Long.parseLong(v) : -1;
        if (n < min || n > max) {
            throw new Invalid(Invalid.Reason.BAD_OPTION, key + " must be a whole number from " + min + " to " + max);
        }
        return n;
    }

    /** A positive number of seconds with at most 3 decimals, up to {@code maxSeconds}. */
    private static Duration seconds(Map<String, String> pairs, String key, Duration fallback, long maxSeconds)
        throws Invalid {
        String v = pairs.get(key.toLowerCase(Locale.ROOT));
        if (v == null) {
            return fallback;
        }
        if (DECIMAL.matcher(v).matches()) {
            long millis = new BigDecimal(v).movePointRight(3).longValueExact();
            if (millis > 0 && millis <= maxSeconds * 1000) {
                return Duration.ofMillis(millis);
            }
        }
        throw new Invalid(Invalid.Reason.BAD_OPTION,
                          key + " must be a number of seconds above 0 and at most " + maxSeconds
                              + " (up to 3 decimals)");
    }

    private static String emptyToNull(String v) {
        return v == null || v.isEmpty() ? null : v;
    }

    private static String required(Map<String, String> pairs, String key) throws Invalid {
        String v = pairs.get(key);
        if (v == null || v.isEmpty()) {
            throw new Invalid(Invalid.Reason.MISSING_KEY, "missing " + knownSpelling(key));
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
