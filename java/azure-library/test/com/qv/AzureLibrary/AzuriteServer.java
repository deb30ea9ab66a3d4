package com.qv.AzureLibrary;

import java.io.File;
import java.io.IOException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;

/**
 * One Azurite blob service for the whole test run, started on first use on a
 * free loopback port with in-memory storage and stopped when the JVM exits;
 * and, for the TLS tests, a second one that serves HTTPS only, with the
 * run's test certificate (see {@link TestTls}).
 *
 * Where Azurite is: the environment variable AZURITE_BIN, else the system
 * property azurite.bin. Either may name the azurite-blob executable itself or
 * an npm install prefix (then node_modules/.bin/azurite-blob below it is used).
 *
 * The account is not Azurite's published development account: its key is
 * drawn at random for each run (AZURITE_ACCOUNTS), so a test that searches
 * logs or files for the key cannot be misled by anything else on the machine.
 */
final class AzuriteServer {
    static final String ACCOUNT = "qvtestaccount";
    /** This run's account key (base64 of 64 random bytes, as Azure's keys are). */
    static final String KEY = randomKey();

    private static AzuriteServer instance;
    private static AzuriteServer tlsInstance;
    private static AzuriteServer oauthInstance;

    final int port;
    final boolean tls;
    private final Process process;
    private final Path workDir;

    private AzuriteServer(int port, boolean tls, Process process, Path workDir) {
        this.port = port;
        this.tls = tls;
        this.process = process;
        this.workDir = workDir;
    }

    /** The service over plain HTTP. */
    static synchronized AzuriteServer get() throws IOException, InterruptedException {
        if (instance == null) {
            instance = start(false, false);
            Runtime.getRuntime().addShutdownHook(new Thread(instance::stop, "azurite-stop"));
        }
        return instance;
    }

    /** The service over HTTPS only, with the test certificate for "localhost". */
    static synchronized AzuriteServer tls() throws IOException, InterruptedException {
        if (tlsInstance == null) {
            tlsInstance = start(true, false);
            Runtime.getRuntime().addShutdownHook(new Thread(tlsInstance::stop, "azurite-tls-stop"));
        }
        return tlsInstance;
    }

    /**
     * The service over HTTPS that also takes bearer tokens and checks them
     * ("--oauth basic"): a JWT with nbf, exp and iat, now between nbf and
     * exp, an issuer of Entra ID (https://sts.windows.net/...) and a storage
     * audience (https://storage.azure.com, or the account's blob endpoint);
     * it does not check the token's signature. Shared Key still works.
     */
    static synchronized AzuriteServer oauth() throws IOException, InterruptedException {
        if (oauthInstance == null) {
            oauthInstance = start(true, true);
            Runtime.getRuntime().addShutdownHook(new Thread(oauthInstance::stop, "azurite-oauth-stop"));
        }
        return oauthInstance;
    }

    /** The blob endpoint of the test account at the given host and port, e.g. https://localhost:1234/account. */
    static String endpoint(String scheme, String host, int port) {
        return scheme + "://" + host + ":" + port + "/" + ACCOUNT;
    }

    /** This service's blob endpoint (for TLS, at the name its certificate is for). */
    String endpoint() {
        return tls ? endpoint("https", TestTls.HOST, port) : endpoint("http", "127.0.0.1", port);
    }

    /**
     * A connection string with a shared access signature instead of the key:
     * no AccountName, as the Azure portal hands it out.
     */
    static String sasConnectionString(String endpoint, String container, String token, String extra) {
        return "BlobEndpoint=" + endpoint + ";SharedAccessSignature=" + token + ";Container=" + container
            + (extra.isEmpty() ? "" : ";" + extra);
    }

    private static String randomKey() {
        byte[] k = new byte[64];
        new java.security.SecureRandom().nextBytes(k);
        return java.util.Base64.getEncoder().encodeToString(k);
    }

    /** The connection string of the test account for the given container. */
    String connectionString(String container) {
        return connectionStringAt(endpoint(), container, "");
    }

    /**
     * The connection string of the test account with its blob endpoint on the
     * given loopback port (Azurite's, or a proxy's in front of it), plus
     * further "Key=value;" pairs.
     */
    static String connectionString(String container, int endpointPort, String extra) {
        return connectionStringAt(endpoint("http", "127.0.0.1", endpointPort), container, extra);
    }

    /** The connection string of the test account at the given blob endpoint, plus further pairs. */
    static String connectionStringAt(String endpoint, String container, String extra) {
        return "DefaultEndpointsProtocol=" + endpoint.substring(0, endpoint.indexOf(':')) + ";AccountName=" + ACCOUNT
            + ";AccountKey=" + KEY + ";BlobEndpoint=" + endpoint + ";Container=" + container
            + (extra.isEmpty() ? "" : ";" + extra);
    }

    private static String executable() {
        String configured = System.getenv("AZURITE_BIN");
        if (configured == null || configured.isEmpty()) {
            configured = System.getProperty("azurite.bin");
        }
        if (configured == null || configured.isEmpty()) {
            throw new IllegalStateException("set AZURITE_BIN (or -Dazurite.bin) to azurite-blob or its npm prefix");
        }
        File f = new File(configured);
        if (f.isDirectory()) {
            f = new File(f, "node_modules/.bin/azurite-blob");
        }
        if (!f.canExecute()) {
            throw new IllegalStateException("Azurite not found at " + f);
        }
        return f.getAbsolutePath();
    }

    private static int freePort() throws IOException {
        try (ServerSocket s = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            return s.getLocalPort();
        }
    }

    private static AzuriteServer start(boolean tls, boolean oauth) throws IOException, InterruptedException {
        String exe = executable();
        Path dir = Files.createTempDirectory(tls ? "azurite-tls-test" : "azurite-test");
        IOException lastFailure = null;
        for (int attempt = 0; attempt < 3; ++attempt) {
            int port = freePort();
            List<String> command = new ArrayList<>(List.of(exe,
                "--blobHost", "127.0.0.1", "--blobPort", Integer.toString(port),
                "--inMemoryPersistence", "--disableTelemetry", "--skipApiVersionCheck", "--silent"));
            if (tls) {
                command.addAll(List.of("--cert", TestTls.serverKeyStore().toString(), "--pwd", TestTls.password()));
            }
            if (oauth) {
                command.addAll(List.of("--oauth", "basic"));
            }
            ProcessBuilder pb = new ProcessBuilder(command);
            pb.directory(dir.toFile());
            pb.environment().put("AZURITE_ACCOUNTS", ACCOUNT + ":" + KEY);
            pb.redirectErrorStream(true);
            pb.redirectOutput(dir.resolve("azurite.log").toFile());
            Process p = pb.start();
            long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(60);
            while (System.nanoTime() < deadline && p.isAlive()) {
                try (Socket s = new Socket()) {
                    s.connect(new InetSocketAddress(InetAddress.getLoopbackAddress(), port), 500);
                    return new AzuriteServer(port, tls, p, dir);
                } catch (IOException e) {
                    lastFailure = e;
                    Thread.sleep(200);
                }
            }
            p.descendants().forEach(ProcessHandle::destroyForcibly);
            p.destroyForcibly();
        }
        throw new IOException("Azurite did not start; see " + dir.resolve("azurite.log"), lastFailure);
    }

    void stop() {
        process.descendants().forEach(ProcessHandle::destroy);
        process.destroy();
        try {
            if (!process.waitFor(10, TimeUnit.SECONDS)) {
                process.descendants().forEach(ProcessHandle::destroyForcibly);
                process.destroyForcibly();
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        try (var files = Files.walk(workDir)) {
            files.sorted(java.util.Comparator.reverseOrder()).forEach(f -> f.toFile().delete());
        } catch (IOException e) {
            // a temp directory left behind is harmless
        }
    }
}
