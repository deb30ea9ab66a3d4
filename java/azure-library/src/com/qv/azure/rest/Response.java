package com.qv.azure.rest;

import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.TreeMap;

/** One answer of the service: status, headers (names compared without regard to case) and the body. */
public final class Response {
    static final String META = "x-ms-meta-";

    public final int status;
    public final Map<String, List<String>> headers;
    public final byte[] body;

    Response(int status, Map<String, List<String>> headers, byte[] body) {
        this.status = status;
        this.headers = headers;
        this.body = body;
    }

    public String header(String name) {
        return firstHeader(headers, name);
    }

    public long longHeader(String name, long fallback) {
        String v = header(name);
        if (v == null) {
            return fallback;
        }
        try {
            return Long.parseLong(v.trim());
        } catch (NumberFormatException e) {
            return fallback;
        }
    }

    /** The x-ms-meta-* headers, names lowercased and without the prefix. */
    public Map<String, String> metadata() {
        Map<String, String> out = new TreeMap<>();
        for (Map.Entry<String, List<String>> e : headers.entrySet()) {
            String k = e.getKey().toLowerCase(Locale.ROOT);
            if (k.startsWith(META) && !e.getValue().isEmpty()) {
                out.put(k.substring(META.length()), e.getValue().get(0));
            }
        }
        return out;
    }

    static String firstHeader(Map<String, List<String>> headers, String name) {
        List<String> values = headers.get(name);
        return values == null || values.isEmpty() ? null : values.get(0);
    }
}
