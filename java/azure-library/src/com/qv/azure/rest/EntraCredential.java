package com.qv.azure.rest;

import com.qv.QVCloudPluginInterface.ERRORID;
import com.qv.azure.LibraryLog;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.HttpURLConnection;
import java.net.URI;
import java.net.URL;
import java.net.URLEncoder;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.Locale;
import java.util.Map;
import java.util.function.Function;
import java.util.logging.Level;
import java.util.logging.Logger;

/**
 * An Entra ID (OAuth 2.0) credential: bearer tokens for Azure Storage
 * (scope https://storage.azure.com/.default), fetched when needed, cached,
 * and fetched anew before they expire.
 *
 * <ul>
 *   <li>{@code ClientSecret}: a service principal's secret, client
 *       credentials grant at {@code <AuthorityHost>/<TenantId>/oauth2/v2.0/token}.</li>
 *   <li>{@code ClientCertificate}: the same grant with a client assertion,
 *       a JWT signed with the principal's certificate key (see
 *       {@link ClientAssertion}).</li>
 *   <li>{@code WorkloadIdentity}: the same grant with the token of a
 *       federated identity (Kubernetes' service account token) read from a
 *       file as the assertion, read again for every token, as the platform
 *       renews it ({@code AZURE_FEDERATED_TOKEN_FILE}).</li>
 *   <li>{@code ManagedIdentity}: the platform's identity endpoint: App
 *       Service's when {@code IDENTITY_ENDPOINT} and {@code IDENTITY_HEADER}
 *       are set, otherwise the instance metadata service (IMDS) of a VM or
 *       scale set; {@code ClientId} chooses a user-assigned identity.</li>
 * </ul>
 *
 * A token is used until less than five minutes, or half its lifetime for
 * a short one, are left; then the next request fetches a new one. If that
 * fails while the old one is still valid, the old one is used and the
 * failure logged. A token the service refuses (401) is dropped and the
 * request sent once more with a new one (see {@link HttpExchange}).
 *
 * The secret, the certificate's key and the tokens are never logged and
 * never part of a message; {@link #toString()} names the kind, tenant and
 * client only.
 */
public final class EntraCredential {
    private static final Logger LOG = LibraryLog.logger();
    static final String SCOPE = "https://storage.azure.com/.default";
    static final String RESOURCE = "https://storage.azure.com/";
    static final String DEFAULT_AUTHORITY = "https://login.microsoftonline.com";
    static final String IMDS = "http://169.254.169.254/metadata/identity/oauth2/token";
    private static final int ANSWER_LIMIT = 64 << 10;
    private static final Duration REFRESH_BEFORE = Duration.ofMinutes(5);

    /** The kinds of Entra ID credential, by the value of the Authentication key. */
    public enum Kind { CLIENT_SECRET, CLIENT_CERTIFICATE, MANAGED_IDENTITY, WORKLOAD_IDENTITY }

    public final Kind kind;
    private final String tenant;
    private final String clientId;
    private final String secret;
    private final ClientAssertion certificate;
    private final Path federatedTokenFile;
    /** Where tokens come from: the token endpoint, or the managed identity endpoint. */
    private final URI endpoint;
    /** App Service's X-IDENTITY-HEADER; null for IMDS and the other kinds. */
    private final String identityHeader;
    private final Duration connectTimeout;

    private volatile Token cached;

    private static final class Token {
        final String value;
        final Instant issued;
        final Instant expires;
        final Instant refreshAt;

        Token(String value, Instant issued, Instant expires) {
            this.value = value;
            this.issued = issued;
            this.expires = expires;
            Duration life = Duration.between(issued, expires);
            Duration before = life.dividedBy(2).compareTo(REFRESH_BEFORE) < 0 ? life.dividedBy(2) : REFRESH_BEFORE;
            this.refreshAt = expires.minus(before);
        }
    }

    private EntraCredential(Kind kind, String tenant, String clientId, String secret, ClientAssertion certificate,
                            Path federatedTokenFile, URI endpoint, String identityHeader, Duration connectTimeout) {
        this.kind = kind;
        this.tenant = tenant;
        this.clientId = clientId;
        this.secret = secret;
        this.certificate = certificate;
        this.federatedTokenFile = federatedTokenFile;
        this.endpoint = endpoint;
        this.identityHeader = identityHeader;
        this.connectTimeout = connectTimeout;
    }

    /** Names the kind, tenant and client: never a secret or a token. */
    @Override
    public String toString() {
        String what = kind.name().toLowerCase(Locale.ROOT).replace('_', ' ');
        return "Entra ID (" + what + (tenant == null ? "" : ", tenant " + tenant)
            + (clientId == null ? "" : ", client " + clientId) + ", tokens from " + endpoint.getHost() + ")";
    }

    /**
     * The Entra ID credential of a connection string's keys ({@code
     * Authentication} and the keys of its kind), the environment filling in
     * what the keys leave out, as the Azure SDKs read it.
     *
     * @param allowHttp whether endpoints may be plain http to another machine (AllowInsecureHttp)
     */
    static EntraCredential parse(Map<String, String> pairs, Function<String, String> env, boolean allowHttp,
                                 Duration connectTimeout) throws StorageConnection.Invalid {
        String auth = pairs.get("authentication");
        Kind kind;
        switch (auth.toLowerCase(Locale.ROOT)) {
            case "clientsecret":
                kind = Kind.CLIENT_SECRET;
                break;
            case "clientcertificate":
                kind = Kind.CLIENT_CERTIFICATE;
                break;
            case "managedidentity":
                kind = Kind.MANAGED_IDENTITY;
                break;
            case "workloadidentity":
                kind = Kind.WORKLOAD_IDENTITY;
                break;
            default:
                throw invalid(StorageConnection.Invalid.Reason.BAD_OPTION,
                              "Authentication must be ClientSecret, ClientCertificate, ManagedIdentity or "
                                  + "WorkloadIdentity");
        }
        String clientId = value(pairs, env, "ClientId", "AZURE_CLIENT_ID");
        if (kind == Kind.MANAGED_IDENTITY) {
            String override = pairs.get("managedidentityendpoint");
            String appEndpoint = env.apply("IDENTITY_ENDPOINT");
            String appHeader = env.apply("IDENTITY_HEADER");
            boolean appService = override == null && appEndpoint != null && !appEndpoint.isEmpty()
                && appHeader != null && !appHeader.isEmpty();
            URI at = endpoint(override != null ? override : appService ? appEndpoint : IMDS,
                              "ManagedIdentityEndpoint", true, allowHttp);
            return new EntraCredential(kind, null, clientId, null, null, null, at, appService ? appHeader : null,
                                       connectTimeout);
        }
        String tenant = required(value(pairs, env, "TenantId", "AZURE_TENANT_ID"), "TenantId");
        required(clientId, "ClientId");
        if (!tenant.matches("[A-Za-z0-9.-]{1,100}")) {
            throw invalid(StorageConnection.Invalid.Reason.BAD_OPTION,
                          "TenantId must be a tenant id or domain (letters, digits, '.', '-')");
        }
        String host = value(pairs, env, "AuthorityHost", "AZURE_AUTHORITY_HOST");
        host = host == null ? DEFAULT_AUTHORITY : host.replaceAll("/+$", "");
        URI token = endpoint(host + "/" + tenant + "/oauth2/v2.0/token", "AuthorityHost", false, allowHttp);
        switch (kind) {
            case CLIENT_SECRET:
                return new EntraCredential(kind, tenant, clientId, required(pairs.get("clientsecret"), "ClientSecret"),
                                           null, null, token, null, connectTimeout);
            case CLIENT_CERTIFICATE:
                ClientAssertion cert = ClientAssertion.load(
                    Path.of(required(pairs.get("clientcertificatepath"), "ClientCertificatePath")),
                    pairs.get("clientcertificatepassword"));
                return new EntraCredential(kind, tenant, clientId, null, cert, null, token, null, connectTimeout);
            default:
                Path file = Path.of(required(value(pairs, env, "FederatedTokenFile", "AZURE_FEDERATED_TOKEN_FILE"),
                                             "FederatedTokenFile"));
                if (!Files.isReadable(file)) {
                    throw invalid(StorageConnection.Invalid.Reason.BAD_CREDENTIAL,
                                  "FederatedTokenFile cannot be read");
                }
                return new EntraCredential(kind, tenant, clientId, null, null, file, token, null, connectTimeout);
        }
    }

    /** A key's value, else the environment variable's; null for neither. */
    private static String value(Map<String, String> pairs, Function<String, String> env, String key, String var) {
        String v = pairs.get(key.toLowerCase(Locale.ROOT));
        if (v == null || v.isEmpty()) {
            v = env.apply(var);
        }
        return v == null || v.isEmpty() ? null : v;
    }

    private static String required(String v, String key) throws StorageConnection.Invalid {
        if (v == null || v.isEmpty()) {
            throw invalid(StorageConnection.Invalid.Reason.MISSING_KEY, "missing " + key + " (Authentication needs it)");
        }
        return v;
    }

    /** An endpoint URL; plain http only to this machine (or, for managed identities, link-local IMDS) unless allowed. */
    private static URI endpoint(String text, String key, boolean identity, boolean allowHttp)
        throws StorageConnection.Invalid {
        URI u;
        try {
            u = URI.create(text);
        } catch (IllegalArgumentException e) {
            throw invalid(StorageConnection.Invalid.Reason.BAD_ENDPOINT, key + " is not a URL");
        }
        if (u.getHost() == null || u.getScheme() == null
            || !(u.getScheme().equalsIgnoreCase("https") || u.getScheme().equalsIgnoreCase("http"))) {
            throw invalid(StorageConnection.Invalid.Reason.BAD_ENDPOINT, key + " needs an http(s) scheme and a host");
        }
        // The instance metadata service and App Service's endpoint are plain http on the machine's own link.
        boolean local = StorageConnection.isLoopback(u.getHost()) || (identity && u.getHost().equals("169.254.169.254"));
        if (u.getScheme().equalsIgnoreCase("http") && !local && !allowHttp) {
            throw invalid(StorageConnection.Invalid.Reason.BAD_ENDPOINT,
                          key + " is plain http to another machine: the credential would cross the network "
                              + "unencrypted; use https, or add AllowInsecureHttp=true to allow it");
        }
        return u;
    }

    private static StorageConnection.Invalid invalid(StorageConnection.Invalid.Reason reason, String message) {
        return new StorageConnection.Invalid(reason, message);
    }

    // ------------------------------------------------------------------ tokens

    /** A token for a request, from the cache while it is fresh, else a new one fetched within {@code timeout}. */
    String token(Duration timeout) throws StorageException {
        Token t = cached;
        if (t != null && Instant.now().isBefore(t.refreshAt)) {
            return t.value;
        }
        synchronized (this) {
            t = cached;
            Instant now = Instant.now();
            if (t != null && now.isBefore(t.refreshAt)) {
                return t.value;
            }
            try {
                cached = fetch(timeout);
                return cached.value;
            } catch (StorageException e) {
                if (t != null && now.isBefore(t.expires.minusSeconds(10))) {
                    LOG.log(Level.WARNING, "Entra ID: a new token could not be had, the current one is used until "
                        + "it expires: " + e.getMessage());
                    return t.value;
                }
                throw e;
            }
        }
    }

    /**
     * Drops the token if it is the one given (the service refused it), so
     * that the next request fetches a new one; answers whether that may
     * help: not for a token fetched moments ago, which the service refuses
     * for a reason a new one will not change (a wrong audience or tenant).
     */
    synchronized boolean refused(String token) {
        Token t = cached;
        if (t == null || !t.value.equals(token)) {
            return true; // already replaced by another thread
        }
        cached = null;
        return Duration.between(t.issued, Instant.now()).compareTo(Duration.ofSeconds(30)) > 0;
    }

    private Token fetch(Duration timeout) throws StorageException {
        Instant issued = Instant.now();
        HttpURLConnection http = null;
        String what = kind == Kind.MANAGED_IDENTITY ? "the managed identity endpoint " + endpoint.getHost()
            : "the token endpoint " + endpoint.getHost();
        try {
            URL url;
            String form = null;
            if (kind == Kind.MANAGED_IDENTITY) {
                String q = "api-version=" + (identityHeader != null ? "2019-08-01" : "2018-02-01") + "&resource="
                    + enc(RESOURCE) + (clientId == null ? "" : "&client_id=" + enc(clientId));
                url = new URL(endpoint + (endpoint.getRawQuery() == null ? "?" : "&") + q);
            } else {
                url = endpoint.toURL();
                StringBuilder f = new StringBuilder("grant_type=client_credentials&client_id=").append(enc(clientId))
                    .append("&scope=").append(enc(SCOPE));
                if (kind == Kind.CLIENT_SECRET) {
                    f.append("&client_secret=").append(enc(secret));
                } else {
                    String assertion = kind == Kind.CLIENT_CERTIFICATE
                        ? certificate.sign(clientId, endpoint.toString())
                        : Files.readString(federatedTokenFile, StandardCharsets.UTF_8).trim();
                    f.append("&client_assertion_type=").append(enc("urn:ietf:params:oauth:client-assertion-type:jwt-bearer"))
                        .append("&client_assertion=").append(enc(assertion));
                }
                form = f.toString();
            }
            http = (HttpURLConnection) url.openConnection();
            http.setInstanceFollowRedirects(false);
            http.setUseCaches(false);
            http.setConnectTimeout(millis(connectTimeout.compareTo(timeout) < 0 ? connectTimeout : timeout));
            http.setReadTimeout(millis(timeout));
            if (kind == Kind.MANAGED_IDENTITY) {
                http.setRequestMethod("GET");
                if (identityHeader != null) {
                    http.setRequestProperty("X-IDENTITY-HEADER", identityHeader);
                } else {
                    http.setRequestProperty("Metadata", "true");
                }
            } else {
                byte[] body = form.getBytes(StandardCharsets.UTF_8);
                http.setRequestMethod("POST");
                http.setDoOutput(true);
                http.setRequestProperty("Content-Type", "application/x-www-form-urlencoded");
                // Not streamed: the JDK keeps the body of a 401 (Entra ID's reason) only for a buffered request.
                try (OutputStream out = http.getOutputStream()) {
                    out.write(body);
                }
            }
            int status = http.getResponseCode();
            InputStream in = status >= 400 ? http.getErrorStream() : http.getInputStream();
            String text = in == null ? "" : new String(in.readNBytes(ANSWER_LIMIT), StandardCharsets.UTF_8);
            Map<String, String> json = Json.object(text);
            if (status != 200) {
                throw refusal(what, status, json, http.getHeaderField("Retry-After"));
            }
            String token = json == null ? null : json.get("access_token");
            Instant expires = json == null ? null : expiry(json, issued);
            if (token == null || token.isEmpty() || expires == null) {
                throw new StorageException(ERRORID.AUTHENTICATION_FAILED, status, null,
                                           "Entra ID: " + what + " answered without a usable token and expiry", null);
            }
            LOG.log(Level.FINE, "Entra ID: a token from {0}, valid until {1}", new Object[] {what, expires});
            return new Token(token, issued, expires);
        } catch (IOException e) {
            ERRORID id = ErrorMap.fromThrowable(e);
            boolean again = id == ERRORID.TIMEOUT || id == ERRORID.NETWORK_ERROR;
            // The JDK's text can quote the URL (not secret here), never the form: it is only written.
            throw new StorageException(id, 0, null, "Entra ID: no token from " + what + ": " + e, e, again);
        } catch (IllegalArgumentException e) {
            throw new StorageException(ERRORID.INVALID_CREDENTIALS, 0, null,
                                       "Entra ID: the token request could not be made (" + e.getClass().getSimpleName()
                                           + ")", null);
        } finally {
            if (http != null) {
                http.disconnect();
            }
        }
    }

    /** When the token expires: expires_in (seconds from now) or expires_on (seconds since 1970); null for neither. */
    private static Instant expiry(Map<String, String> json, Instant issued) {
        String in = json.get("expires_in");
        if (in != null && in.matches("[0-9]{1,9}")) {
            return issued.plusSeconds(Long.parseLong(in));
        }
        String on = json.get("expires_on");
        if (on != null && on.matches("[0-9]{1,12}")) {
            return Instant.ofEpochSecond(Long.parseLong(on));
        }
        return null;
    }

    /**
     * A refusal of the token endpoint: 400 and 401 (a wrong secret, an
     * unknown client or tenant, an identity not assigned) are final,
     * AUTHENTICATION_FAILED, with the endpoint's own error and its
     * description (AADSTS code) in the message; 429 and 5xx are retried.
     */
    private static StorageException refusal(String what, int status, Map<String, String> json, String retryAfter) {
        String error = json == null ? null : HttpExchange.cleanCode(json.get("error"));
        String description = json == null ? null : json.get("error_description");
        if (description != null) {
            description = description.replaceAll("[\\p{Cntrl}]", " ");
            description = description.length() > 300 ? description.substring(0, 300) + "..." : description;
        }
        String text = "Entra ID: " + what + " refused the token request: " + status + (error == null ? "" : " " + error)
            + (description == null ? "" : " (" + description + ")");
        if (RetryPolicy.isRetryableStatus(status) || status == 502 || status == 504) {
            ERRORID id = status == 429 ? ERRORID.THROTTLED : ERRORID.SERVICE_UNAVAILABLE;
            return new StorageException(id, status, error, text, null, true,
                                        RetryPolicy.retryAfterMillis(retryAfter, Instant.now()));
        }
        return new StorageException(ERRORID.AUTHENTICATION_FAILED, status, error, text, null);
    }

    private static String enc(String s) {
        return URLEncoder.encode(s, StandardCharsets.UTF_8);
    }

    private static int millis(Duration d) {
        return (int) Math.max(1, Math.min(Integer.MAX_VALUE, d.toMillis()));
    }
}
