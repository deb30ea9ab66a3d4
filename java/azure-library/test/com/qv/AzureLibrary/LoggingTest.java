package com.qv.AzureLibrary;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.File;
import java.io.IOException;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.regex.Pattern;

import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * What the library prints in a host's JVM, seen from outside: a fresh JVM
 * runs {@link LoggingProbe} with the library jar and captures stdout and
 * stderr. By default nothing of the library's reaches either (the JDK's
 * root console handler would print every warning to stderr); with
 * -Dcom.qv.azure.log.file the records go to that file, one line each; a
 * host that configured java.util.logging itself gets them where it said.
 */
class LoggingTest {
    private static String refusedKey;
    private static String refusedToken;
    private static String badToken;
    private static String token;

    @TempDir
    Path tmp;

    @BeforeAll
    static void strings() throws IOException {
        int closed;
        try (ServerSocket s = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            closed = s.getLocalPort();
        }
        String endpoint = AzuriteServer.endpoint("http", "127.0.0.1", closed);
        refusedKey = AzuriteServer.connectionStringAt(endpoint, "logs", "");
        token = TestSas.container("logs", "racwdl", null, TestSas.inAnHour(), AzuriteServer.KEY);
        refusedToken = AzuriteServer.sasConnectionString(endpoint, "logs", token, "");
        badToken = AzuriteServer.sasConnectionString(endpoint, "logs", token.replace("sr=c", "sr=b"), "");
    }

    /** INVALID_ARGUMENT, CONNECTION_FAILED twice, INVALID_CREDENTIALS, NOT_INITIALIZED. */
    private static final String PROBE_LINE = "probe 2 32 32 37 41";

    private static final class Run {
        int exit;
        String stdout;
        String stderr;
    }

    private Run probe(String... jvmOptions) throws Exception {
        Path testClasses = Path.of(LoggingProbe.class.getProtectionDomain().getCodeSource().getLocation().toURI());
        String libraryJar = System.getProperty("qv.library.jar");
        assertTrue(libraryJar != null && Files.isRegularFile(Path.of(libraryJar)), "-Dqv.library.jar");
        List<String> cmd = new ArrayList<>();
        cmd.add(Path.of(System.getProperty("java.home"), "bin", "java").toString());
        cmd.addAll(List.of(jvmOptions));
        cmd.addAll(List.of("-cp", libraryJar + File.pathSeparator + testClasses, LoggingProbe.class.getName(),
                           refusedKey, refusedToken, badToken));
        ProcessBuilder pb = new ProcessBuilder(cmd);
        // Options from the environment make the JVM itself print to stderr.
        pb.environment().remove("JAVA_TOOL_OPTIONS");
        pb.environment().remove("JDK_JAVA_OPTIONS");
        pb.environment().remove("_JAVA_OPTIONS");
        Path out = tmp.resolve("out-" + System.nanoTime());
        Path err = tmp.resolve("err-" + System.nanoTime());
        pb.redirectOutput(out.toFile()).redirectError(err.toFile());
        Process p = pb.start();
        assertTrue(p.waitFor(60, TimeUnit.SECONDS), "the probe JVM ended");
        Run r = new Run();
        r.exit = p.exitValue();
        r.stdout = Files.readString(out, StandardCharsets.UTF_8);
        r.stderr = Files.readString(err, StandardCharsets.UTF_8);
        assertEquals(0, r.exit, "probe exit; stderr: " + r.stderr);
        assertEquals(PROBE_LINE + System.lineSeparator(), r.stdout, "stdout holds the probe's line only");
        return r;
    }

    private static void assertNoSecret(String text, String where) {
        for (int i = 0; i + 12 <= AzuriteServer.KEY.length(); ++i) {
            assertFalse(text.contains(AzuriteServer.KEY.substring(i, i + 12)), "a piece of the key in " + where);
        }
        for (String piece : TestSas.secretPieces(token)) {
            assertFalse(text.contains(piece), "the token or a piece of its signature in " + where);
        }
    }

    @Test
    void nothingReachesStderrOrStdoutByDefault() throws Exception {
        Run r = probe();
        assertEquals("", r.stderr, "stderr of a host that configured no logging");
    }

    @Test
    void theLogFilePropertyGetsOneLinePerRecord() throws Exception {
        // '%' is taken literally (java.util.logging would read %t as the temp folder); the folders are made.
        Path file = tmp.resolve("log folder/not yet/azure%t.log");
        Run r = probe("-Dcom.qv.azure.log.file=" + file);
        assertEquals("", r.stderr, "stderr with a log file");
        assertTrue(Files.isRegularFile(file), "the log file " + file);
        List<String> lines = Files.readAllLines(file, StandardCharsets.UTF_8);
        assertEquals(5, lines.size(), "one line for each failure: " + lines);
        Pattern line = Pattern.compile("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d(\\.\\d+)?Z WARNING \\[main\\] \\S.*");
        for (String l : lines) {
            assertTrue(line.matcher(l).matches(), "one-line record: " + l);
        }
        String text = String.join("\n", lines);
        assertTrue(text.contains("AzureInit: unusable connection string: part 1 is not a key=value pair"), text);
        assertTrue(text.contains("AzureInit: CONNECTION_FAILED"), text);
        assertTrue(text.contains("not for a container"), text);
        assertTrue(text.contains("WriteObject: NOT_INITIALIZED"), text);
        assertNoSecret(text, "the log file");

        // A second JVM appends.
        probe("-Dcom.qv.azure.log.file=" + file);
        assertEquals(10, Files.readAllLines(file, StandardCharsets.UTF_8).size(), "appended");
    }

    @Test
    void aHostThatConfiguredLoggingGetsTheRecordsWhereItSaid() throws Exception {
        Path config = tmp.resolve("logging.properties");
        Files.writeString(config, "handlers=java.util.logging.ConsoleHandler\n"
            + "java.util.logging.ConsoleHandler.level=ALL\n.level=INFO\n");
        Run r = probe("-Djava.util.logging.config.file=" + config);
        assertTrue(r.stderr.contains("AzureInit: CONNECTION_FAILED"), "the host's console handler: " + r.stderr);
        assertNoSecret(r.stderr, "the host's console");
    }
}
