package com.qv.azure.rest;

import java.util.LinkedHashMap;
import java.util.Map;

/**
 * Reads the one kind of JSON a token endpoint answers: an object whose
 * values are strings, numbers, booleans or null (nested objects and arrays
 * are skipped). What it reads is untrusted: anything that is not such an
 * object gives null, never an exception, and a text is read only up to the
 * limit its caller gave.
 */
final class Json {
    private final String s;
    private int i;

    private Json(String s) {
        this.s = s;
    }

    /** The object's string, number and boolean members as text (null members left out); null if unreadable. */
    static Map<String, String> object(String text) {
        if (text == null) {
            return null;
        }
        try {
            Json j = new Json(text);
            j.space();
            Map<String, String> out = j.members();
            j.space();
            return j.i == text.length() ? out : null;
        } catch (RuntimeException e) {
            return null;
        }
    }

    private Map<String, String> members() {
        expect('{');
        Map<String, String> out = new LinkedHashMap<>();
        space();
        if (peek() == '}') {
            ++i;
            return out;
        }
        while (true) {
            space();
            String name = string();
            space();
            expect(':');
            space();
            String value = value();
            if (value != null) {
                out.put(name, value);
            }
            space();
            char c = next();
            if (c == '}') {
                return out;
            }
            if (c != ',') {
                throw new IllegalArgumentException("',' or '}' expected");
            }
        }
    }

    /** A member's value as text; null for null, an object or an array (which are skipped). */
    private String value() {
        char c = peek();
        if (c == '"') {
            return string();
        }
        if (c == '{' || c == '[') {
            skipNested();
            return null;
        }
        int start = i;
        while (i < s.length() && "-+.eE0123456789truefalsn".indexOf(s.charAt(i)) >= 0) {
            ++i;
        }
        String word = s.substring(start, i);
        if (word.isEmpty()) {
            throw new IllegalArgumentException("a value expected");
        }
        return word.equals("null") ? null : word;
    }

    private void skipNested() {
        int depth = 0;
        do {
            char c = next();
            if (c == '"') {
                --i;
                string();
            } else if (c == '{' || c == '[') {
                ++depth;
            } else if (c == '}' || c == ']') {
                --depth;
            }
        } while (depth > 0);
    }

    private String string() {
        expect('"');
        StringBuilder sb = new StringBuilder();
        while (true) {
            char c = next();
            if (c == '"') {
                return sb.toString();
            }
            if (c != '\\') {
                sb.append(c);
                continue;
            }
            char e = next();
            switch (e) {
                case 'n': sb.append('\n'); break;
                case 't': sb.append('\t'); break;
                case 'r': sb.append('\r'); break;
                case 'b': sb.append('\b'); break;
                case 'f': sb.append('\f'); break;
                case 'u':
                    sb.append((char) Integer.parseInt(s.substring(i, i + 4), 16));
                    i += 4;
                    break;
                default: sb.append(e);
            }
        }
    }

    private void space() {
        while (i < s.length() && Character.isWhitespace(s.charAt(i))) {
            ++i;
        }
    }

    private char peek() {
        if (i >= s.length()) {
            throw new IllegalArgumentException("unexpected end");
        }
        return s.charAt(i);
    }

    private char next() {
        char c = peek();
        ++i;
        return c;
    }

    private void expect(char c) {
        if (next() != c) {
            throw new IllegalArgumentException("'" + c + "' expected");
        }
    }
}
