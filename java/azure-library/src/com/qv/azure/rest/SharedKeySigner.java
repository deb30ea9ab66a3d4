package com.qv.azure.rest;

import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.util.ArrayList;
import java.util.Base64;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.TreeMap;
import javax.crypto.Mac;
import javax.crypto.spec.SecretKeySpec;

/**
 * Shared Key authorization for the Blob service (the form used since version
 * 2009-09-19): an HMAC-SHA256, keyed with the account key, over
 *
 * <pre>
 * VERB \n Content-Encoding \n Content-Language \n Content-Length \n Content-MD5 \n
 * Content-Type \n Date \n If-Modified-Since \n If-Match \n If-None-Match \n
 * If-Unmodified-Since \n Range \n CanonicalizedHeaders CanonicalizedResource
 * </pre>
 *
 * A Content-Length of 0 is signed as the empty string. The Date line stays
 * empty because every request carries x-ms-date instead. The x-ms- headers
 * (CanonicalizedHeaders) are listed in the service's order, see
 * {@link HeaderOrder}.
 */
public final class SharedKeySigner {
    private final String accountName;
    private final SecretKeySpec key;

    public SharedKeySigner(String accountName, byte[] accountKey) {
        this.accountName = accountName;
        this.key = new SecretKeySpec(accountKey, "HmacSHA256");
    }

    /**
     * The value of the Authorization header.
     *
     * @param method      HTTP verb
     * @param rawPath     the request path exactly as sent (percent-encoded)
     * @param rawQuery    the query exactly as sent (percent-encoded), or null
     * @param headers     every header the request sends, names in any case
     * @param contentLength body length
     */
    public String authorization(String method, String rawPath, String rawQuery,
                                Map<String, String> headers, long contentLength) {
        String toSign = stringToSign(method, rawPath, rawQuery, headers, contentLength);
        try {
            Mac mac = Mac.getInstance("HmacSHA256");
            mac.init(key);
            byte[] sig = mac.doFinal(toSign.getBytes(StandardCharsets.UTF_8));
            return "SharedKey " + accountName + ":" + Base64.getEncoder().encodeToString(sig);
        } catch (GeneralSecurityException e) {
            throw new IllegalStateException("HmacSHA256 is not available", e);
        }
    }

    String stringToSign(String method, String rawPath, String rawQuery, Map<String, String> headers,
                        long contentLength) {
        TreeMap<String, String> lower = new TreeMap<>();
        for (Map.Entry<String, String> e : headers.entrySet()) {
            lower.put(e.getKey().toLowerCase(Locale.ROOT), e.getValue());
        }
        StringBuilder sb = new StringBuilder();
        sb.append(method).append('\n');
        sb.append(lower.getOrDefault("content-encoding", "")).append('\n');
        sb.append(lower.getOrDefault("content-language", "")).append('\n');
        sb.append(contentLength > 0 ? Long.toString(contentLength) : "").append('\n');
        sb.append(lower.getOrDefault("content-md5", "")).append('\n');
        sb.append(lower.getOrDefault("content-type", "")).append('\n');
        sb.append("").append('\n'); // Date: x-ms-date is used instead
        sb.append(lower.getOrDefault("if-modified-since", "")).append('\n');
        sb.append(lower.getOrDefault("if-match", "")).append('\n');
        sb.append(lower.getOrDefault("if-none-match", "")).append('\n');
        sb.append(lower.getOrDefault("if-unmodified-since", "")).append('\n');
        sb.append(lower.getOrDefault("range", "")).append('\n');
        // The x-ms- headers in the order the service lists them, which is not that of code points.
        List<String> names = new ArrayList<>();
        for (String name : lower.keySet()) {
            if (name.startsWith("x-ms-")) {
                names.add(name);
            }
        }
        names.sort(HeaderOrder.INSTANCE);
        for (String name : names) {
            sb.append(name).append(':').append(lower.get(name).trim()).append('\n');
        }
        sb.append('/').append(accountName).append(rawPath == null || rawPath.isEmpty() ? "/" : rawPath);
        if (rawQuery != null && !rawQuery.isEmpty()) {
            TreeMap<String, List<String>> params = new TreeMap<>();
            for (Map.Entry<String, String> pair : QueryParameters.parse(rawQuery)) {
                params.computeIfAbsent(pair.getKey(), k -> new ArrayList<>()).add(pair.getValue());
            }
            for (Map.Entry<String, List<String>> e : params.entrySet()) {
                List<String> values = e.getValue();
                values.sort(null);
                sb.append('\n').append(e.getKey()).append(':').append(String.join(",", values));
            }
        }
        return sb.toString();
    }
}
