package com.qv.azure.rest;

import java.net.URLDecoder;
import java.nio.charset.StandardCharsets;
import java.util.AbstractMap;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.Map;

/** The parameters of a URL query, as both the request signer and the SAS reader see them. */
final class QueryParameters {
    private QueryParameters() {
    }

    /**
     * The query's name=value pairs in their order: names decoded and lower-cased,
     * values decoded ('+' kept as it is), a pair without '=' having the value "".
     */
    static List<Map.Entry<String, String>> parse(String rawQuery) {
        List<Map.Entry<String, String>> pairs = new ArrayList<>();
        for (String pair : rawQuery.split("&")) {
            if (pair.isEmpty()) {
                continue;
            }
            int eq = pair.indexOf('=');
            String name = decode(eq < 0 ? pair : pair.substring(0, eq)).toLowerCase(Locale.ROOT);
            String value = eq < 0 ? "" : decode(pair.substring(eq + 1));
            pairs.add(new AbstractMap.SimpleImmutableEntry<>(name, value));
        }
        return pairs;
    }

    private static String decode(String s) {
        return URLDecoder.decode(s.replace("+", "%2B"), StandardCharsets.UTF_8);
    }
}
