package com.qv.AzureLibrary;

import com.sun.net.httpserver.HttpExchange;
import com.sun.net.httpserver.HttpServer;

import java.io.IOException;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.URLDecoder;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.KeyPair;
import java.security.KeyPairGenerator;
import java.security.PublicKey;
import java.security.Signature;
import java.time.Instant;
import java.util.Base64;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * Entra ID as the library meets it, on a loopback port: the v2.0 token
 * endpoint of one tenant (client credentials with a secret, a certificate's
 * client assertion, whose RS256 signature, audience, issuer, subject and
 * lifetime are checked here, or a federated token), the instance metadata
 * service's identity endpoint (Metadata: true) and App Service's
 * (X-IDENTITY-HEADER). Each hands out a JWT that Azurite's OAuth check
 * takes: issuer https://sts.windows.net/&lt;tenant&gt;/, audience
 * https://storage.azure.com, nbf, iat and exp, signed with a key of this
 * service. Refusals are answered as Entra ID answers them (400/401 with
 * error and error_description).
 */
final class TestTokenService implements AutoCloseable {
    static final String TENANT = "7f0e8c6a-1b2c-4d3e-8f90-123456789abc";
    static final String CLIENT = "2d9b2a1e-5c4d-4e3f-9a8b-abcdef012345";
    static final String SECRET = "test~client~secret~" + Long.toHexString(Double.doubleToLongBits(Math.random()));
    static final String IDENTITY_HEADER = "identity-header-" + Long.toHexString(System.nanoTime());

    /** One token request as it came: the endpoint and its parameters (form or query). */
    static final class Call {
        final String path;
        final Map<String, String> params;
        final Map<String, String> headers;

        Call(String path, Map<String, String> params, Map<String, String> headers) {
            this.path = path;
            this.params = params;
            this.headers = headers;
        }
    }

    private final HttpServer server;
    private final KeyPair signing;
    final List<Call> calls = new CopyOnWriteArrayList<>();
    /** Seconds the tokens handed out are valid. */
    volatile long lifetime = 3600;
    /** The audience the tokens name. */
    volatile String audience = "https://storage.azure.com";
    /** The certificate key a client assertion must be signed with (null: none registered). */
    volatile PublicKey certificateKey;
    /** The federated token a workload identity must present. */
    volatile String federatedToken;
    /** Answer this many token requests with 503 first. */
    final AtomicInteger busy = new AtomicInteger();

    TestTokenService() throws IOException, GeneralSecurityException {
        KeyPairGenerator g = KeyPairGenerator.getInstance("RSA");
        g.initialize(2048);
        signing = g.generateKeyPair();
        server = HttpServer.create(new InetSocketAddress(InetAddress.getLoopbackAddress(), 0), 0);
        server.createContext("/", this::handle);
        server.start();
    }

    String authorityHost() {
        return "http://127.0.0.1:" + server.getAddress().getPort();
    }

    String tokenUrl() {
        return authorityHost() + "/" + TENANT + "/oauth2/v2.0/token";
    }

    String imdsUrl() {
        return authorityHost() + "/metadata/identity/oauth2/token";
    }

    String appServiceUrl() {
        return authorityHost() + "/msi/token";
    }

    long callsTo(String pathEnd) {
        return calls.stream().filter(c -> c.path.endsWith(pathEnd)).count();
    }

    @Override
    public void close() {
        server.stop(0);
    }

    private void handle(HttpExchange x) throws IOException {
        try {
            String path = x.getRequestURI().getPath();
            Map<String, String> params = new LinkedHashMap<>(form(x.getRequestURI().getRawQuery()));
            if (x.getRequestMethod().equals("POST")) {
                params.putAll(form(new String(x.getRequestBody().readAllBytes(), StandardCharsets.UTF_8)));
            }
            Map<String, String> headers = new LinkedHashMap<>();
            x.getRequestHeaders().forEach((k, v) -> headers.put(k.toLowerCase(java.util.Locale.ROOT), v.get(0)));
            calls.add(new Call(path, params, headers));
            if (busy.getAndUpdate(n -> Math.max(0, n - 1)) > 0) {
                answer(x, 503, "{\"error\":\"temporarily_unavailable\",\"error_description\":\"AADSTS50196: busy\"}");
                return;
            }
            if (path.equals("/" + TENANT + "/oauth2/v2.0/token") && x.getRequestMethod().equals("POST")) {
                String refusal = clientCredentials(params);
                if (refusal != null) {
                    answer(x, 401, "{\"error\":\"invalid_client\",\"error_description\":\"" + refusal + "\"}");
                    return;
                }
                answer(x, 200, "{\"token_type\":\"Bearer\",\"expires_in\":" + lifetime + ",\"ext_expires_in\":"
                    + lifetime + ",\"access_token\":\"" + token() + "\"}");
            } else if (path.equals("/metadata/identity/oauth2/token")) {
                if (!"true".equals(headers.get("metadata")) || !"2018-02-01".equals(params.get("api-version"))
                    || !"https://storage.azure.com/".equals(params.get("resource"))) {
                    answer(x, 400, "{\"error\":\"invalid_request\",\"error_description\":\"bad request\"}");
                    return;
                }
                managedIdentityAnswer(x);
            } else if (path.equals("/msi/token")) {
                if (!IDENTITY_HEADER.equals(headers.get("x-identity-header"))
                    || !"2019-08-01".equals(params.get("api-version"))) {
                    answer(x, 400, "{\"statusCode\":400,\"message\":\"bad request\"}");
                    return;
                }
                managedIdentityAnswer(x);
            } else {
                answer(x, 404, "{\"error\":\"not_found\"}");
            }
        } catch (GeneralSecurityException | RuntimeException e) {
            answer(x, 500, "{\"error\":\"server_error\",\"error_description\":\"" + e.getClass().getSimpleName()
                + "\"}");
        }
    }

    private void managedIdentityAnswer(HttpExchange x) throws IOException, GeneralSecurityException {
        long now = Instant.now().getEpochSecond();
        answer(x, 200, "{\"access_token\":\"" + token() + "\",\"expires_on\":\"" + (now + lifetime)
            + "\",\"resource\":\"https://storage.azure.com/\",\"token_type\":\"Bearer\"}");
    }

    /** Null when the client credentials are good; else Entra ID's description of what is wrong. */
    private String clientCredentials(Map<String, String> p) throws GeneralSecurityException {
        if (!"client_credentials".equals(p.get("grant_type")) || !CLIENT.equals(p.get("client_id"))) {
            return "AADSTS700016: Application not found in the directory";
        }
        if (!"https://storage.azure.com/.default".equals(p.get("scope"))) {
            return "AADSTS70011: The provided scope is not valid";
        }
        String secret = p.get("client_secret");
        if (secret != null) {
            return secret.equals(SECRET) ? null : "AADSTS7000215: Invalid client secret provided.";
        }
        String assertion = p.get("client_assertion");
        if (!"urn:ietf:params:oauth:client-assertion-type:jwt-bearer".equals(p.get("client_assertion_type"))
            || assertion == null) {
            return "AADSTS7000216: client_assertion or client_secret is required";
        }
        if (federatedToken != null) {
            return assertion.equals(federatedToken) ? null : "AADSTS700213: No matching federated identity record";
        }
        return checkAssertion(assertion);
    }

    /** The checks Entra ID makes of a certificate's client assertion. */
    private String checkAssertion(String jwt) throws GeneralSecurityException {
        String[] parts = jwt.split("\\.");
        if (parts.length != 3 || certificateKey == null) {
            return "AADSTS50027: Invalid JWT token";
        }
        Signature s = Signature.getInstance("SHA256withRSA");
        s.initVerify(certificateKey);
        s.update((parts[0] + "." + parts[1]).getBytes(StandardCharsets.US_ASCII));
        if (!s.verify(Base64.getUrlDecoder().decode(parts[2]))) {
            return "AADSTS700027: Client assertion contains an invalid signature";
        }
        String header = new String(Base64.getUrlDecoder().decode(parts[0]), StandardCharsets.UTF_8);
        String claims = new String(Base64.getUrlDecoder().decode(parts[1]), StandardCharsets.UTF_8);
        long now = Instant.now().getEpochSecond();
        if (!header.contains("\"alg\":\"RS256\"") || !header.contains("\"x5t#S256\":\"")
            || !claims.contains("\"aud\":\"" + tokenUrl() + "\"") || !claims.contains("\"iss\":\"" + CLIENT + "\"")
            || !claims.contains("\"sub\":\"" + CLIENT + "\"") || !claims.contains("\"jti\":\"")) {
            return "AADSTS700024: Client assertion is not within its valid time range or has wrong claims";
        }
        long exp = Long.parseLong(claims.replaceAll(".*\"exp\":([0-9]+).*", "$1"));
        return exp > now ? null : "AADSTS700024: Client assertion is not within its valid time range";
    }

    /** A token as Entra ID issues one for Azure Storage, valid for {@link #lifetime} seconds. */
    String token() throws GeneralSecurityException {
        long now = Instant.now().getEpochSecond();
        String header = "{\"typ\":\"JWT\",\"alg\":\"RS256\",\"kid\":\"test\"}";
        String claims = "{\"aud\":\"" + audience + "\",\"iss\":\"https://sts.windows.net/" + TENANT + "/\",\"iat\":"
            + now + ",\"nbf\":" + now + ",\"exp\":" + (now + lifetime) + ",\"appid\":\"" + CLIENT + "\",\"oid\":\""
            + java.util.UUID.randomUUID() + "\",\"tid\":\"" + TENANT + "\",\"ver\":\"1.0\"}";
        String signed = b64url(header) + "." + b64url(claims);
        Signature s = Signature.getInstance("SHA256withRSA");
        s.initSign(signing.getPrivate());
        s.update(signed.getBytes(StandardCharsets.US_ASCII));
        return signed + "." + Base64.getUrlEncoder().withoutPadding().encodeToString(s.sign());
    }

    private static String b64url(String s) {
        return Base64.getUrlEncoder().withoutPadding().encodeToString(s.getBytes(StandardCharsets.UTF_8));
    }

    private static Map<String, String> form(String raw) {
        Map<String, String> out = new LinkedHashMap<>();
        if (raw == null || raw.isEmpty()) {
            return out;
        }
        for (String pair : raw.split("&")) {
            int eq = pair.indexOf('=');
            String k = URLDecoder.decode(eq < 0 ? pair : pair.substring(0, eq), StandardCharsets.UTF_8);
            String v = eq < 0 ? "" : URLDecoder.decode(pair.substring(eq + 1), StandardCharsets.UTF_8);
            out.put(k, v);
        }
        return out;
    }

    private static void answer(HttpExchange x, int status, String json) throws IOException {
        byte[] b = json.getBytes(StandardCharsets.UTF_8);
        x.getResponseHeaders().set("Content-Type", "application/json; charset=utf-8");
        x.sendResponseHeaders(status, b.length);
        try (OutputStream o = x.getResponseBody()) {
            o.write(b);
        }
    }
}
