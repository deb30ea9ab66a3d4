package com.qv.testdouble;

import com.qv.AzureLibrary.CPluginInitData;
import com.qv.AzureLibrary.CPluginMetaData;

/**
 * The text form of the arguments of a recorded call. Strings are quoted, with
 * backslash and double quote escaped by a backslash and every other unit
 * outside printable ASCII written as a backslash, 'u' and four lower-case
 * hexadecimal digits; the whole text is therefore printable ASCII.
 */
public final class CanonicalText {
    private CanonicalText() {
    }

    public static String quote(String s) {
        if (s == null) {
            return "null";
        }
        StringBuilder b = new StringBuilder(s.length() + 2);
        b.append('"');
        for (int i = 0; i < s.length(); ++i) {
            char c = s.charAt(i);
            if (c == '\\' || c == '"') {
                b.append('\\').append(c);
            } else if (c < 0x20 || c > 0x7E) {
                b.append(String.format("\\u%04x", (int) c));
            } else {
                b.append(c);
            }
        }
        return b.append('"').toString();
    }

    /** One argument value; the type of the object decides the form. */
    public static String value(Object v) {
        if (v == null) {
            return "null";
        }
        if (v instanceof String) {
            return quote((String) v);
        }
        if (v instanceof Long || v instanceof Integer || v instanceof Boolean) {
            return v.toString();
        }
        if (v instanceof byte[]) {
            return "byte[" + ((byte[]) v).length + "]";
        }
        if (v instanceof String[]) {
            StringBuilder b = new StringBuilder("[");
            String[] a = (String[]) v;
            for (int i = 0; i < a.length; ++i) {
                b.append(i == 0 ? "" : ", ").append(quote(a[i]));
            }
            return b.append(']').toString();
        }
        if (v instanceof CPluginMetaData[]) {
            StringBuilder b = new StringBuilder("{");
            CPluginMetaData[] a = (CPluginMetaData[]) v;
            for (int i = 0; i < a.length; ++i) {
                b.append(i == 0 ? "" : ", ");
                CPluginMetaData m = a[i];
                if (m == null) {
                    b.append("null");
                } else {
                    b.append(quote(m.szPropertyName)).append('=')
                     .append(m.val == null ? "null" : quote(m.val.szProperty));
                }
            }
            return b.append('}').toString();
        }
        if (v instanceof CPluginInitData) {
            // The creation data shows as its two strings, as if they were two arguments.
            CPluginInitData d = (CPluginInitData) v;
            return quote(d.installFolder) + ", " + quote(d.logFolder);
        }
        throw new IllegalArgumentException("no text form for " + v.getClass().getName());
    }

    /** "Method(arg, arg, ...)". */
    public static String call(String method, Object... args) {
        StringBuilder b = new StringBuilder(method).append('(');
        for (int i = 0; i < args.length; ++i) {
            b.append(i == 0 ? "" : ", ").append(value(args[i]));
        }
        return b.append(')').toString();
    }
}
