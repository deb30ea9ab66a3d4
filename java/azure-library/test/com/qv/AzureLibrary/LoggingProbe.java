package com.qv.AzureLibrary;

/**
 * A host in a JVM of its own, for LoggingTest: makes the library fail in a
 * few ways that it logs (a malformed string, a refused connection with the
 * key and with a token, an unusable token, a call before AzureInit), and
 * prints one line with the error ordinals on stdout, nothing else. It uses
 * nothing but the library jar, as the native plug-in's JVM does.
 *
 * Arguments: a connection string with the key, one with a working token,
 * one with an unusable token.
 */
public final class LoggingProbe {
    private LoggingProbe() {
    }

    public static void main(String[] args) {
        StringBuilder out = new StringBuilder("probe");
        String[] inits = {"not a connection string", args[0], args[1], args[2]};
        for (String s : inits) {
            QVAzurePlugInLibrary l = new QVAzurePlugInLibrary(new CPluginInitData(null, null));
            out.append(' ').append(l.AzureInit(s, null).getOrdinalValue());
        }
        QVAzurePlugInLibrary l = new QVAzurePlugInLibrary(new CPluginInitData(null, null));
        out.append(' ').append(l.WriteObject("x", new byte[1], 1).getOrdinalValue());
        System.out.println(out);
    }
}
