package com.qv.AzureLibrary;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.KeyStore;
import javax.net.ssl.KeyManagerFactory;
import javax.net.ssl.SSLContext;

/**
 * The TLS material of the run, made by the ctest fixture java_azure_library_tls
 * (cmake/TestCertificates.cmake) in the folder named by -Dqv.test.tls.dir: a
 * key and certificate for "localhost" that Azurite and the TLS fault proxy
 * serve. The JVM trusts the certificate only because the ctest passes the
 * trust store with -Djavax.net.ssl.trustStore, as an operator would.
 */
final class TestTls {
    /** The only name the certificate is valid for; 127.0.0.1 deliberately is not. */
    static final String HOST = "localhost";

    private TestTls() {
    }

    static Path dir() {
        String d = System.getProperty("qv.test.tls.dir");
        if (d == null || d.isEmpty()) {
            throw new IllegalStateException("run with -Dqv.test.tls.dir (the ctest java_azure_library does, after "
                                            + "its fixture java_azure_library_tls made the certificate)");
        }
        Path p = Path.of(d);
        if (!Files.isRegularFile(p.resolve("server.p12"))) {
            throw new IllegalStateException("no server.p12 in " + p
                                            + ": the fixture java_azure_library_tls did not run");
        }
        return p;
    }

    static String password() {
        String p = System.getProperty("qv.test.tls.password");
        if (p == null || p.isEmpty()) {
            throw new IllegalStateException("run with -Dqv.test.tls.password");
        }
        return p;
    }

    /** The PKCS#12 file with the key and certificate, as Azurite takes it (--cert ... --pwd ...). */
    static Path serverKeyStore() {
        return dir().resolve("server.p12");
    }

    /** A TLS context that serves the test certificate (for the fault proxy). */
    static SSLContext serverContext() throws IOException, GeneralSecurityException {
        KeyStore ks = KeyStore.getInstance("PKCS12");
        try (InputStream in = Files.newInputStream(serverKeyStore())) {
            ks.load(in, password().toCharArray());
        }
        KeyManagerFactory kmf = KeyManagerFactory.getInstance(KeyManagerFactory.getDefaultAlgorithm());
        kmf.init(ks, password().toCharArray());
        SSLContext ctx = SSLContext.getInstance("TLS");
        ctx.init(kmf.getKeyManagers(), null, null);
        return ctx;
    }
}
