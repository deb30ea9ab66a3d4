package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.assertError;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.io.PrintStream;
import java.io.PrintWriter;
import java.io.StringWriter;
import java.lang.reflect.Array;
import java.lang.reflect.Field;
import java.lang.reflect.Modifier;
import java.nio.charset.StandardCharsets;
import java.nio.file.FileVisitResult;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.SimpleFileVisitor;
import java.nio.file.attribute.BasicFileAttributes;
import java.nio.file.attribute.FileTime;
import java.util.ArrayList;
import java.util.Base64;
import java.util.IdentityHashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.logging.Handler;
import java.util.logging.Level;
import java.util.logging.LogRecord;
import java.util.logging.Logger;

import org.junit.jupiter.api.Test;

/**
 * The account key and a shared access signature stay secret: nothing the
 * library logs (java.util.logging, stdout, stderr), no error it reports, no
 * value it returns and no file in the install folder or the temporary
 * directory contains them, even when the connection string is malformed
 * around the key or the token.
 */
class KeySecrecyTest {
    private static final String KEY = AzuriteServer.KEY;
    /** A well-formed key that is not the account's (the service refuses it). */
    private static final String WRONG_KEY = Base64.getEncoder().encodeToString(TestSupport.randomBytes(64, 99));
    /** A token the disk test hands the library (for a container that is never made). */
    private static final String DISK_TOKEN = token("diskcontainer");
    private static final String DISK_SIG = DISK_TOKEN.substring(DISK_TOKEN.indexOf("sig=") + 4);

    /** Connection strings that go wrong somewhere near the key, and the error each must give. */
    private static Map<String, ERRORID> malformed(int port) {
        String base = "AccountName=" + AzuriteServer.ACCOUNT + ";BlobEndpoint=http://127.0.0.1:" + port + "/"
            + AzuriteServer.ACCOUNT;
        Map<String, ERRORID> m = new LinkedHashMap<>();
        m.put(base + ";AccountKey " + KEY + ";Container=abc", ERRORID.INVALID_ARGUMENT); // no '=' after the name
        m.put(base + ";" + KEY + ";Container=abc", ERRORID.INVALID_ARGUMENT);            // the key without its name
        m.put(base + ";AccountKey=" + KEY + "Container=abc", ERRORID.INVALID_ARGUMENT);  // ';' missing after it
        m.put(base + ";AccountKey=" + KEY + ";AccountKey=" + KEY + ";Container=abc", ERRORID.INVALID_ARGUMENT);
        m.put(base + ";AccountKey=" + KEY + ";Container=Abc" + KEY, ERRORID.INVALID_CONTAINER_NAME);
        m.put(base + ";AccountKey=" + KEY + ";Container=abc;RetryMaxSeconds=" + KEY, ERRORID.INVALID_ARGUMENT);
        m.put(base + ";AccountKey=" + KEY + ";Container=abc;RequestTimeoutSeconds=" + KEY, ERRORID.INVALID_ARGUMENT);
        m.put("AccountName=" + AzuriteServer.ACCOUNT + ";AccountKey=" + KEY + ";Container=abc;BlobEndpoint=" + KEY,
              ERRORID.INVALID_ARGUMENT);
        m.put(base + ";AccountKey=*" + KEY.substring(1) + ";Container=abc", ERRORID.STORAGE_KEY_INVALID);
        m.put(base + ";AccountKey=" + WRONG_KEY + ";Container=abc", ERRORID.AUTHORIZATION_FAILED);
        return m;
    }

    /** Every 12-character piece of a key: finding any of them would be a partial leak. */
    private static List<String> pieces(String... keys) {
        List<String> out = new ArrayList<>();
        for (String k : keys) {
            for (int i = 0; i + 12 <= k.length(); ++i) {
                out.add(k.substring(i, i + 12));
            }
        }
        return out;
    }

    private static void assertNoKeyIn(String text, String where) {
        for (String p : pieces(KEY, WRONG_KEY)) {
            assertFalse(text.contains(p), "a piece of an account key in " + where);
        }
    }

    // ------------------------------------------------------------------ what the library says

    /** Collects everything written to stdout, stderr and java.util.logging while it is open. */
    private static final class Capture implements AutoCloseable {
        private final ByteArrayOutputStream console = new ByteArrayOutputStream();
        private final StringWriter logged = new StringWriter();
        private final PrintStream oldOut = System.out;
        private final PrintStream oldErr = System.err;
        private final Logger root = Logger.getLogger("");
        /** The library's own logger: it does not pass records to the root unless the host configured logging. */
        private final Logger library = Logger.getLogger("com.qv.azure");
        private final Level oldLevel = library.getLevel();
        private int records;
        private final Handler handler = new Handler() {
            @Override
            public void publish(LogRecord r) {
                ++records;
                PrintWriter w = new PrintWriter(logged);
                w.println(r.getLevel() + " " + r.getLoggerName() + " " + r.getMessage());
                if (r.getParameters() != null) {
                    for (Object p : r.getParameters()) {
                        w.println("  parameter: " + p);
                    }
                }
                if (r.getThrown() != null) {
                    r.getThrown().printStackTrace(w);
                }
                w.flush();
            }

            @Override
            public void flush() {
            }

            @Override
            public void close() {
            }
        };

        Capture() {
            PrintStream tee = new PrintStream(new OutputStream() {
                @Override
                public void write(int b) {
                    console.write(b);
                }

                @Override
                public void write(byte[] b, int off, int len) {
                    console.write(b, off, len);
                }
            }, true, StandardCharsets.UTF_8);
            System.setOut(tee);
            System.setErr(tee);
            library.setLevel(Level.ALL);
            handler.setLevel(Level.ALL);
            root.addHandler(handler);
            library.addHandler(handler);
        }

        String text() {
            return console.toString(StandardCharsets.UTF_8) + "\n" + logged;
        }

        @Override
        public void close() {
            System.setOut(oldOut);
            System.setErr(oldErr);
            root.removeHandler(handler);
            library.removeHandler(handler);
            library.setLevel(oldLevel);
        }
    }

    /** Every string reachable from a returned value (fields of the contract classes, arrays, maps). */
    private static void strings(Object o, List<String> out, Set<Object> seen) throws IllegalAccessException {
        if (o == null || !seen.add(o)) {
            return;
        }
        if (o instanceof String) {
            out.add((String) o);
        } else if (o instanceof Iterable) {
            for (Object e : (Iterable<?>) o) {
                strings(e, out, seen);
            }
        } else if (o instanceof Map) {
            for (Map.Entry<?, ?> e : ((Map<?, ?>) o).entrySet()) {
                strings(e.getKey(), out, seen);
                strings(e.getValue(), out, seen);
            }
        } else if (o.getClass().isArray() && !o.getClass().getComponentType().isPrimitive()) {
            for (int i = 0; i < Array.getLength(o); ++i) {
                strings(Array.get(o, i), out, seen);
            }
        } else if (o.getClass().getName().startsWith("com.qv.")) {
            out.add(o.toString());
            for (Class<?> c = o.getClass(); c != null && c.getName().startsWith("com.qv."); c = c.getSuperclass()) {
                for (Field f : c.getDeclaredFields()) {
                    if (!Modifier.isStatic(f.getModifiers()) && !f.getType().isPrimitive()) {
                        f.setAccessible(true);
                        strings(f.get(o), out, seen);
                    }
                }
            }
        }
    }

    @Test
    void theKeyIsNeverLoggedReportedOrReturned() throws Exception {
        AzuriteServer azurite = AzuriteServer.get();
        List<Object> answers = new ArrayList<>();
        String text;
        try (Capture capture = new Capture(); FaultProxy proxy = new FaultProxy(azurite.port)) {
            for (Map.Entry<String, ERRORID> c : malformed(azurite.port).entrySet()) {
                QVAzurePlugInLibrary l = TestSupport.newLibrary();
                Object r = l.AzureInit(c.getKey(), TestSupport.INSTALL_FOLDER.toString());
                answers.add(r);
                assertError(c.getValue(), r, "AzureInit with a malformed string (shown without the key)");
            }

            // A working library through the whole range of answers: successes, failures, retries.
            String container = TestSupport.uniqueContainer("secret");
            QVAzurePlugInLibrary l = TestSupport.connected(AzuriteServer.connectionString(
                container, proxy.port(), "RetryBaseDelayMillis=10;RetryMaxAttempts=3"));
            String name = unique("secret/");
            proxy.add(r -> true, 2, FaultProxy.Fault.serverBusy());
            answers.add(l.WriteObject(name, new byte[100], 100, TestSupport.metaArray(Map.of("a", "b"))));
            proxy.add(r -> true, 3, FaultProxy.Fault.drop());
            answers.add(l.ReadObject(name, new byte[10], 10, 0)); // fails after 3 attempts
            answers.add(l.ReadObjectByName(name, new byte[10], 0, 10, null));
            answers.add(l.ReadObject(unique("absent/"), new byte[10], 10, 0));
            answers.add(l.GetObjectMetaData(name));
            answers.add(l.GetObjectSubList("secret/"));
            answers.add(l.GetAccountInfo());
            answers.add(l.GetUniqueAccountName());
            answers.add(l.GetContainerName());
            answers.add(l.GetListContainers());
            answers.add(l.GetCloudPluginCapabilities());
            answers.add(l.getStorageKey(AzuriteServer.ACCOUNT, container));
            answers.add(l.updateStorageKey());
            answers.add(l.WriteObject("bad/", new byte[1], 1));
            answers.add(l.DeleteContainer());
            answers.add(l.AzureDeInit());

            // The capture sees all three channels: a marker sent through each must show up.
            String marker = "capture-check-" + unique("");
            Logger.getLogger("com.qv.azure").fine(marker + "-log");
            System.out.println(marker + "-out");
            System.err.println(marker + "-err");
            text = capture.text();
            for (String channel : new String[] {"-log", "-out", "-err"}) {
                assertTrue(text.contains(marker + channel), "captured " + channel);
            }
            assertTrue(capture.records > 1, "the failures above were logged");
        }
        assertNoKeyIn(text, "the log and console output");
        List<String> returned = new ArrayList<>();
        strings(answers, returned, java.util.Collections.newSetFromMap(new IdentityHashMap<>()));
        assertTrue(returned.size() > 20, "strings found in the answers: " + returned.size());
        assertNoKeyIn(String.join("\n", returned), "a returned value");
    }

    // ------------------------------------------------------------------ tokens

    /** A working container SAS of the container, signed with the run's key. */
    private static String token(String container) {
        return TestSas.container(container, "racwdl", null, TestSas.inAnHour(), KEY);
    }

    /** Connection strings that go wrong somewhere near the token, and the error each must give. */
    private static Map<String, ERRORID> malformedAroundToken(String endpoint, String token) {
        String base = "BlobEndpoint=" + endpoint;
        Map<String, ERRORID> m = new LinkedHashMap<>();
        m.put(base + ";SharedAccessSignature " + token + ";Container=abc", ERRORID.INVALID_ARGUMENT); // no '='
        m.put(base + ";" + token + ";Container=abc", ERRORID.INVALID_ARGUMENT);                        // no name
        m.put(base + ";SharedAccessSignature=" + token + "Container=abc", ERRORID.INVALID_ARGUMENT);  // no ';'
        m.put(base + ";SharedAccessSignature=" + token + ";SharedAccessSignature=" + token + ";Container=abc",
              ERRORID.INVALID_ARGUMENT);
        m.put(base + ";SharedAccessSignature=" + token + ";Container=Abc" + token, ERRORID.INVALID_CONTAINER_NAME);
        m.put(base + ";SharedAccessSignature=" + token + ";Container=abc;AccessTier=" + token,
              ERRORID.INVALID_ARGUMENT);
        m.put(base + ";SharedAccessSignature=" + token + ";Container=abc;OperationTimeoutSeconds=" + token,
              ERRORID.INVALID_ARGUMENT);
        m.put("BlobEndpoint=" + token + ";SharedAccessSignature=" + token + ";Container=abc",
              ERRORID.INVALID_ARGUMENT);
        m.put(base + "?" + token + ";SharedAccessSignature=" + token + ";Container=abc", ERRORID.INVALID_ARGUMENT);
        m.put(base + ";SharedAccessSignature=" + token + "|;Container=abc", ERRORID.INVALID_CREDENTIALS);
        m.put(base + ";SharedAccessSignature=" + token.replace("sr=c", "sr=b") + ";Container=abc",
              ERRORID.INVALID_CREDENTIALS);
        m.put(base + ";SharedAccessSignature=" + token + ";AccountKey=" + KEY + ";Container=abc",
              ERRORID.INVALID_ARGUMENT);
        return m;
    }

    private static void assertNoTokenIn(String text, String token, String where) {
        for (String piece : TestSas.secretPieces(token)) {
            assertFalse(text.contains(piece), "the token or a piece of its signature in " + where);
        }
    }

    @Test
    void aTokenIsNeverLoggedReportedOrReturned() throws Exception {
        AzuriteServer azurite = AzuriteServer.get();
        String container = TestSupport.uniqueContainer("sassecret");
        QVAzurePlugInLibrary keyed = TestSupport.connected(azurite.connectionString(container));
        String token = token(container);
        String wrongToken = TestSas.container(container, "racwdl", null, TestSas.inAnHour(), WRONG_KEY);
        List<Object> answers = new ArrayList<>();
        String text;
        try (Capture capture = new Capture(); FaultProxy proxy = new FaultProxy(azurite.port)) {
            String endpoint = AzuriteServer.endpoint("http", "127.0.0.1", proxy.port());
            for (Map.Entry<String, ERRORID> c : malformedAroundToken(endpoint, token).entrySet()) {
                Object r = TestSupport.newLibrary().AzureInit(c.getKey(), TestSupport.INSTALL_FOLDER.toString());
                answers.add(r);
                assertError(c.getValue(), r, "AzureInit with a string malformed around the token");
            }
            assertEquals(0, proxy.seen().size(), "the malformed strings sent nothing");
            Object refused = TestSupport.newLibrary().AzureInit(
                AzuriteServer.sasConnectionString(endpoint, container, wrongToken, ""), ".");
            answers.add(refused);
            assertError(ERRORID.AUTHORIZATION_FAILED, refused, "AzureInit with a token of another key");

            // A working library through successes, failures and retries.
            QVAzurePlugInLibrary l = TestSupport.connected(AzuriteServer.sasConnectionString(
                endpoint, container, token, "RetryBaseDelayMillis=10;RetryMaxAttempts=3"));
            String name = unique("sassecret/");
            proxy.add(r -> true, 2, FaultProxy.Fault.serverBusy());
            answers.add(l.WriteObject(name, new byte[100], 100, TestSupport.metaArray(Map.of("a", "b"))));
            answers.add(l.WriteObject(name + "big", new byte[QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1],
                                      QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1));
            proxy.add(r -> true, 3, FaultProxy.Fault.drop());
            answers.add(l.ReadObject(name, new byte[10], 10, 0)); // fails after 3 attempts
            proxy.add(r -> true, 1, FaultProxy.Fault.status(403, "AuthenticationFailed"));
            answers.add(l.ReadObject(name, new byte[10], 10, 0));
            answers.add(l.ReadObjectByName(name, new byte[10], 0, 10, null));
            answers.add(l.ReadObject(unique("absent/"), new byte[10], 10, 0));
            answers.add(l.GetObjectMetaData(name));
            answers.add(l.SetObjectMetaData(name, "c", "d"));
            answers.add(l.GetObjectSubList("sassecret/"));
            answers.add(l.GetAccountInfo());
            answers.add(l.GetUniqueAccountName());
            answers.add(l.GetContainerName());
            answers.add(l.GetListContainers());            // refused: account level
            answers.add(l.IsContainerExists("othercontainer")); // refused: another container
            answers.add(l.GetCloudPluginCapabilities());
            answers.add(l.getStorageKey(AzuriteServer.ACCOUNT, container));
            answers.add(l.CheckConnectivity());
            answers.add(l.WriteObject("bad/", new byte[1], 1));
            answers.add(l.DeleteObjectByName(name));
            answers.add(l.DeleteContainer());              // refused: a container SAS cannot
            answers.add(l.AzureDeInit());
            assertTrue(proxy.seen().stream().anyMatch(r -> r.query.contains(token)), "the token was on the wire");

            String marker = "capture-check-" + unique("");
            Logger.getLogger("com.qv.azure").fine(marker + "-log");
            text = capture.text();
            assertTrue(text.contains(marker + "-log"), "captured the library's logger");
            assertTrue(capture.records > 10, "the failures above were logged: " + capture.records);
        } finally {
            keyed.DeleteContainer();
            keyed.AzureDeInit();
        }
        for (String t : new String[] {token, wrongToken}) {
            assertNoTokenIn(text, t, "the log and console output");
        }
        assertNoKeyIn(text, "the log and console output");
        List<String> returned = new ArrayList<>();
        strings(answers, returned, java.util.Collections.newSetFromMap(new IdentityHashMap<>()));
        assertTrue(returned.size() > 20, "strings found in the answers: " + returned.size());
        for (String t : new String[] {token, wrongToken}) {
            assertNoTokenIn(String.join("\n", returned), t, "a returned value");
        }
    }

    // ------------------------------------------------------------------ what the library writes

    /** Regular files under the folder changed since the given time, up to a few levels down. */
    private static List<Path> changedSince(Path folder, FileTime since) throws IOException {
        List<Path> out = new ArrayList<>();
        Files.walkFileTree(folder, Set.of(), 4, new SimpleFileVisitor<Path>() {
            @Override
            public FileVisitResult visitFile(Path file, BasicFileAttributes attrs) {
                if (attrs.isRegularFile() && attrs.lastModifiedTime().compareTo(since) >= 0) {
                    out.add(file);
                }
                return FileVisitResult.CONTINUE;
            }

            @Override
            public FileVisitResult visitFileFailed(Path file, IOException e) {
                return FileVisitResult.CONTINUE; // other users' files
            }
        });
        return out;
    }

    private static boolean containsKey(Path file) {
        try {
            if (Files.size(file) > (64 << 20)) {
                return false;
            }
            String text = new String(Files.readAllBytes(file), StandardCharsets.ISO_8859_1);
            return text.contains(KEY) || text.contains(KEY.substring(0, 40)) || text.contains(DISK_TOKEN)
                || text.contains(DISK_SIG);
        } catch (IOException e) {
            return false; // unreadable, or gone again
        }
    }

    @Test
    void theKeyIsNeverWrittenToDisk() throws Exception {
        Path tmp = Path.of(System.getProperty("java.io.tmpdir"));
        FileTime start = FileTime.fromMillis(System.currentTimeMillis() - 2000);
        AzuriteServer azurite = AzuriteServer.get();

        QVAzurePlugInLibrary l = TestSupport.connected(azurite.connectionString(TestSupport.uniqueContainer("disk")));
        String name = unique("disk/");
        assertOk(l.WriteObject(name, new byte[QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1],
                               QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1), "a block upload");
        assertOk(l.ReadObject(name, new byte[10], 10, 0), "ReadObject");
        assertError(ERRORID.NOT_FOUND, l.ReadObject(name + "x", new byte[10], 10, 0), "ReadObject of nothing");
        for (String bad : malformed(azurite.port).keySet()) {
            TestSupport.newLibrary().AzureInit(bad, TestSupport.INSTALL_FOLDER.toString());
        }
        String container = TestSupport.uniqueContainer("disk");
        for (String bad : malformedAroundToken(azurite.endpoint(), DISK_TOKEN).keySet()) {
            TestSupport.newLibrary().AzureInit(bad, TestSupport.INSTALL_FOLDER.toString());
        }
        QVAzurePlugInLibrary sas = TestSupport.newLibrary();
        sas.AzureInit(AzuriteServer.sasConnectionString(azurite.endpoint(), container, DISK_TOKEN, ""), ".");
        sas.AzureDeInit();
        assertOk(l.DeleteContainer(), "DeleteContainer");
        assertOk(l.AzureDeInit(), "AzureDeInit");

        try (var files = Files.list(TestSupport.INSTALL_FOLDER)) {
            assertEquals(List.of(), files.toList(), "the install folder stays empty");
        }
        try (var files = Files.list(TestSupport.LOG_FOLDER)) {
            assertEquals(List.of(), files.toList(), "the log folder stays empty");
        }
        // The search finds a key where there is one: a file holding it, written now, must be reported.
        Path canary = Files.createTempFile(Files.createTempDirectory("qv-canary"), "canary", ".txt");
        try {
            Files.writeString(canary, "before " + KEY + " after");
            List<Path> changed = changedSince(tmp, start);
            assertTrue(changed.contains(canary) && containsKey(canary), "the search finds a planted key");
            changed.remove(canary);
            for (Path p : changed) {
                assertFalse(containsKey(p), "the account key in " + p);
            }
        } finally {
            Files.delete(canary);
            Files.delete(canary.getParent());
        }
    }
}
