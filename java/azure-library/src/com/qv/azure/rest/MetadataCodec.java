package com.qv.azure.rest;

import java.nio.ByteBuffer;
import java.util.Base64;
import java.util.Locale;

/**
 * Keeps any UTF-16 metadata name and value intact through the x-ms-meta-*
 * headers, which only allow C# identifiers as names (compared without regard
 * to case) and printable ASCII as values.
 *
 * Names: a name made only of lowercase ASCII letters, digits and '_' that
 * starts with a letter and does not start with "qv_" is stored as it is, so
 * that ordinary names stay readable in the portal. Any other name is stored
 * as "qv_" followed by the lowercase hex of its UTF-16 code units (4 digits
 * each), which is case-insensitive and survives lone surrogates.
 *
 * Values: printable ASCII without leading or trailing blanks that does not
 * start with "u16:" is stored as it is. Any other value (including the empty
 * one, which the service would drop) is stored as "u16:" followed by the
 * base64 of its UTF-16BE code units.
 */
public final class MetadataCodec {
    static final String NAME_PREFIX = "qv_";
    static final String VALUE_PREFIX = "u16:";

    private MetadataCodec() {
    }

    public static String encodeName(String name) {
        if (isPlainName(name)) {
            return name;
        }
        StringBuilder sb = new StringBuilder(NAME_PREFIX.length() + name.length() * 4);
        sb.append(NAME_PREFIX);
        for (int i = 0; i < name.length(); ++i) {
            sb.append(String.format(Locale.ROOT, "%04x", (int) name.charAt(i)));
        }
        return sb.toString();
    }

    /** The original name; a name this codec did not write is returned as it came. */
    public static String decodeName(String stored) {
        String s = stored.toLowerCase(Locale.ROOT);
        if (!s.startsWith(NAME_PREFIX)) {
            return stored;
        }
        String hex = s.substring(NAME_PREFIX.length());
        if (hex.length() % 4 != 0) {
            return stored;
        }
        StringBuilder sb = new StringBuilder(hex.length() / 4);
        for (int i = 0; i < hex.length(); i += 4) {
            try {
                sb.append((char) Integer.parseInt(hex.substring(i, i + 4), 16));
            } catch (NumberFormatException e) {
                return stored;
            }
        }
        return sb.toString();
    }

    public static String encodeValue(String value) {
        String v = value == null ? "" : value;
        if (isPlainValue(v)) {
            return v;
        }
        ByteBuffer buf = ByteBuffer.allocate(v.length() * 2);
        for (int i = 0; i < v.length(); ++i) {
            buf.putChar(v.charAt(i));
        }
        return VALUE_PREFIX + Base64.getEncoder().encodeToString(buf.array());
    }

    public static String decodeValue(String stored) {
        if (stored == null || !stored.startsWith(VALUE_PREFIX)) {
            return stored;
        }
        byte[] bytes;
        try {
            bytes = Base64.getDecoder().decode(stored.substring(VALUE_PREFIX.length()));
        } catch (IllegalArgumentException e) {
            return stored;
        }
        if (bytes.length % 2 != 0) {
            return stored;
        }
        ByteBuffer buf = ByteBuffer.wrap(bytes);
        StringBuilder sb = new StringBuilder(bytes.length / 2);
        while (buf.hasRemaining()) {
            sb.append(buf.getChar());
        }
        return sb.toString();
    }

    static boolean isPlainName(String name) {
        if (name == null || name.isEmpty() || name.startsWith(NAME_PREFIX)) {
            return false;
        }
        char first = name.charAt(0);
        if (first < 'a' || first > 'z') {
            return false;
        }
        for (int i = 1; i < name.length(); ++i) {
            char c = name.charAt(i);
            if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')) {
                return false;
            }
        }
        return true;
    }

    static boolean isPlainValue(String v) {
        if (v.isEmpty() || v.startsWith(VALUE_PREFIX) || v.charAt(0) == ' ' || v.charAt(v.length() - 1) == ' ') {
            return false;
        }
        for (int i = 0; i < v.length(); ++i) {
            char c = v.charAt(i);
            if (c < 0x20 || c > 0x7e) {
                return false;
            }
        }
        return true;
    }
}
