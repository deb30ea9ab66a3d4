package com.qv.azure.rest;

import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.KeyFactory;
import java.security.KeyStore;
import java.security.MessageDigest;
import java.security.PrivateKey;
import java.security.Signature;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.security.spec.PKCS8EncodedKeySpec;
import java.time.Instant;
import java.util.Base64;
import java.util.Enumeration;
import java.util.Locale;
import java.util.UUID;

/**
 * A service principal's certificate and key, and the client assertion
 * made with them: a JWT signed RS256 that names the certificate by its
 * thumbprints (x5t, SHA-1, and x5t#S256, SHA-256), issued by and about the
 * client (iss, sub), for the token endpoint (aud), valid for ten minutes.
 *
 * The certificate is read once, at AzureInit: a PKCS#12 file (.pfx, .p12)
 * with its password, or PEM with the certificate and an unencrypted PKCS#8
 * private key ("BEGIN PRIVATE KEY"), as the Azure CLI writes them. The key
 * is RSA. Messages name what is wrong, never the password or the key.
 */
final class ClientAssertion {
    private final PrivateKey key;
    private final String x5t;
    private final String x5tS256;

    private ClientAssertion(PrivateKey key, X509Certificate cert) throws GeneralSecurityException {
        this.key = key;
        byte[] der = cert.getEncoded();
        this.x5t = b64url(MessageDigest.getInstance("SHA-1").digest(der));
        this.x5tS256 = b64url(MessageDigest.getInstance("SHA-256").digest(der));
    }

    static ClientAssertion load(Path file, String password) throws StorageConnection.Invalid {
        String name = file.getFileName() == null ? "" : file.getFileName().toString().toLowerCase(Locale.ROOT);
        try {
            if (name.endsWith(".pfx") || name.endsWith(".p12")) {
                return pkcs12(file, password == null ? new char[0] : password.toCharArray());
            }
            return pem(Files.readString(file, StandardCharsets.US_ASCII));
        } catch (IOException e) {
            throw invalid("ClientCertificatePath cannot be read (" + e.getClass().getSimpleName() + ")");
        } catch (GeneralSecurityException | IllegalArgumentException e) {
            throw invalid("ClientCertificatePath holds no usable RSA key and certificate (" + e.getClass().getSimpleName()
                          + "; a wrong ClientCertificatePassword?)");
        }
    }

    private static ClientAssertion pkcs12(Path file, char[] password) throws IOException, GeneralSecurityException {
        KeyStore ks = KeyStore.getInstance("PKCS12");
        try (InputStream in = Files.newInputStream(file)) {
            ks.load(in, password);
        }
        for (Enumeration<String> aliases = ks.aliases(); aliases.hasMoreElements(); ) {
            String alias = aliases.nextElement();
            if (ks.isKeyEntry(alias) && ks.getCertificate(alias) instanceof X509Certificate) {
                return new ClientAssertion((PrivateKey) ks.getKey(alias, password),
                                           (X509Certificate) ks.getCertificate(alias));
            }
        }
        throw new GeneralSecurityException("no key entry with a certificate");
    }

    private static ClientAssertion pem(String text) throws GeneralSecurityException, StorageConnection.Invalid {
        if (text.contains("BEGIN RSA PRIVATE KEY") || text.contains("BEGIN ENCRYPTED PRIVATE KEY")) {
            throw invalid("ClientCertificatePath: the key must be an unencrypted PKCS#8 key (BEGIN PRIVATE KEY); "
                          + "convert it with: openssl pkcs8 -topk8 -nocrypt");
        }
        byte[] keyDer = block(text, "PRIVATE KEY");
        byte[] certDer = block(text, "CERTIFICATE");
        if (keyDer == null || certDer == null) {
            throw invalid("ClientCertificatePath: PEM needs a CERTIFICATE and a PRIVATE KEY block");
        }
        PrivateKey key = KeyFactory.getInstance("RSA").generatePrivate(new PKCS8EncodedKeySpec(keyDer));
        X509Certificate cert = (X509Certificate) CertificateFactory.getInstance("X.509")
            .generateCertificate(new java.io.ByteArrayInputStream(certDer));
        return new ClientAssertion(key, cert);
    }

    /** The first PEM block of that label, decoded; null when there is none. */
    private static byte[] block(String text, String label) {
        String begin = "-----BEGIN " + label + "-----";
        int from = text.indexOf(begin);
        int to = from < 0 ? -1 : text.indexOf("-----END " + label + "-----", from);
        if (to < 0) {
            return null;
        }
        return Base64.getMimeDecoder().decode(text.substring(from + begin.length(), to));
    }

    /** A fresh assertion for that client and token endpoint. */
    String sign(String clientId, String audience) throws IOException {
        long now = Instant.now().getEpochSecond();
        String header = "{\"alg\":\"RS256\",\"typ\":\"JWT\",\"x5t\":\"" + x5t + "\",\"x5t#S256\":\"" + x5tS256 + "\"}";
        String claims = "{\"aud\":\"" + jsonText(audience) + "\",\"iss\":\"" + jsonText(clientId) + "\",\"sub\":\""
            + jsonText(clientId) + "\",\"jti\":\"" + UUID.randomUUID() + "\",\"nbf\":" + now + ",\"iat\":" + now
            + ",\"exp\":" + (now + 600) + "}";
        String signed = b64url(header.getBytes(StandardCharsets.UTF_8)) + "." + b64url(claims.getBytes(StandardCharsets.UTF_8));
        try {
            Signature s = Signature.getInstance("SHA256withRSA");
            s.initSign(key);
            s.update(signed.getBytes(StandardCharsets.US_ASCII));
            return signed + "." + b64url(s.sign());
        } catch (GeneralSecurityException e) {
            throw new IOException("the client assertion could not be signed (" + e.getClass().getSimpleName() + ")");
        }
    }

    private static String jsonText(String s) {
        return s.replace("\\", "\\\\").replace("\"", "\\\"");
    }

    private static String b64url(byte[] b) {
        return Base64.getUrlEncoder().withoutPadding().encodeToString(b);
    }

    private static StorageConnection.Invalid invalid(String message) {
        return new StorageConnection.Invalid(StorageConnection.Invalid.Reason.BAD_CREDENTIAL, message);
    }
}
