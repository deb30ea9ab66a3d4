package com.qv.AzureLibrary;

import java.net.URLEncoder;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.time.Duration;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.Base64;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.StringJoiner;
import javax.crypto.Mac;
import javax.crypto.spec.SecretKeySpec;

/**
 * Shared access signatures for the tests, signed here with the run's account
 * key (Azurite checks them with the key it runs with), in the form the Azure
 * portal and tools hand out: query parameters, percent-encoded, no '?'.
 * Version 2021-08-06 signs the fields of the 2020-12-06 layout.
 */
final class TestSas {
    static final String VERSION = "2021-08-06";

    private TestSas() {
    }

    /** A time as SAS tokens carry it: UTC, whole seconds. */
    static String time(Instant t) {
        return t.truncatedTo(ChronoUnit.SECONDS).toString();
    }

    static Instant inAnHour() {
        return Instant.now().plus(Duration.ofHours(1));
    }

    /**
     * A service SAS for one container ({@code sr=c}).
     *
     * @param start null for none
     */
    static String container(String container, String permissions, Instant start, Instant expiry, String key) {
        String st = start == null ? "" : time(start);
        String se = time(expiry);
        String toSign = String.join("\n", permissions, st, se,
                                    "/blob/" + AzuriteServer.ACCOUNT + "/" + container,
                                    "", "", "https,http", VERSION, "c", "", "", "", "", "", "", "");
        Map<String, String> q = new LinkedHashMap<>();
        q.put("sv", VERSION);
        q.put("spr", "https,http");
        if (start != null) {
            q.put("st", st);
        }
        q.put("se", se);
        q.put("sr", "c");
        q.put("sp", permissions);
        q.put("sig", sign(toSign, key));
        return query(q);
    }

    /** An account SAS for the blob service, with the given resource types (s, c, o) and permissions. */
    static String account(String resourceTypes, String permissions, Instant start, Instant expiry, String key) {
        String st = start == null ? "" : time(start);
        String se = time(expiry);
        String toSign = String.join("\n", AzuriteServer.ACCOUNT, permissions, "b", resourceTypes, st, se, "",
                                    "https,http", VERSION, "", "");
        Map<String, String> q = new LinkedHashMap<>();
        q.put("sv", VERSION);
        q.put("ss", "b");
        q.put("srt", resourceTypes);
        q.put("sp", permissions);
        if (start != null) {
            q.put("st", st);
        }
        q.put("se", se);
        q.put("spr", "https,http");
        q.put("sig", sign(toSign, key));
        return query(q);
    }

    /**
     * What of a token must never show anywhere: the token whole, and every
     * 12-character piece of its signature, as sent (percent-encoded) and
     * decoded. The other fields (version, times, permissions) are not secret
     * and would match unrelated text such as a log line's time.
     */
    static java.util.List<String> secretPieces(String token) {
        java.util.List<String> out = new java.util.ArrayList<>();
        out.add(token);
        String sig = token.replaceAll(".*[?&]?sig=([^&]*).*", "$1");
        for (String s : new String[] {sig, java.net.URLDecoder.decode(sig, StandardCharsets.UTF_8)}) {
            for (int i = 0; i + 12 <= s.length(); ++i) {
                out.add(s.substring(i, i + 12));
            }
        }
        return out;
    }

    private static String query(Map<String, String> q) {
        StringJoiner j = new StringJoiner("&");
        for (Map.Entry<String, String> e : q.entrySet()) {
            j.add(e.getKey() + "=" + URLEncoder.encode(e.getValue(), StandardCharsets.UTF_8));
        }
        return j.toString();
    }

    private static String sign(String toSign, String key) {
        try {
            Mac mac = Mac.getInstance("HmacSHA256");
            mac.init(new SecretKeySpec(Base64.getDecoder().decode(key), "HmacSHA256"));
            return Base64.getEncoder().encodeToString(mac.doFinal(toSign.getBytes(StandardCharsets.UTF_8)));
        } catch (GeneralSecurityException e) {
            throw new IllegalStateException(e);
        }
    }
}
