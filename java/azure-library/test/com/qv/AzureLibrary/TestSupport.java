package com.qv.AzureLibrary;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;

import com.qv.QVCloudPluginInterface.CErrorValue;
import com.qv.QVCloudPluginInterface.ERRORID;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.lang.reflect.Field;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.UUID;
import java.util.logging.Handler;
import java.util.logging.Level;
import java.util.logging.LogRecord;
import java.util.logging.Logger;

/** What the library's test classes share: data, names, libraries, metadata and result checks. */
final class TestSupport {
    /** The install and log folders handed to every library of the run (the library must leave them empty). */
    static final Path INSTALL_FOLDER = tempDir("qv-install");
    static final Path LOG_FOLDER = tempDir("qv-log");

    private TestSupport() {
    }

    private static Path tempDir(String prefix) {
        try {
            Path p = Files.createTempDirectory(prefix);
            p.toFile().deleteOnExit();
            return p;
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    // ------------------------------------------------------------------ data and names

    static byte[] randomBytes(int n, long seed) {
        byte[] b = new byte[n];
        new Random(seed).nextBytes(b);
        return b;
    }

    static MessageDigest sha256() {
        try {
            return MessageDigest.getInstance("SHA-256");
        } catch (NoSuchAlgorithmException e) {
            throw new IllegalStateException(e);
        }
    }

    static byte[] sha256(byte[] b, int off, int len) {
        MessageDigest md = sha256();
        md.update(b, off, len);
        return md.digest();
    }

    static String unique(String prefix) {
        return prefix + UUID.randomUUID();
    }

    /** A fresh valid container name: the prefix (lowercase letters) and 20 hex digits. */
    static String uniqueContainer(String prefix) {
        return prefix + UUID.randomUUID().toString().replace("-", "").substring(0, 20);
    }

    // ------------------------------------------------------------------ libraries

    static QVAzurePlugInLibrary newLibrary() {
        return new QVAzurePlugInLibrary(new CPluginInitData(INSTALL_FOLDER.toString(), LOG_FOLDER.toString()));
    }

    /** A library initialised with the connection string; fails the test if AzureInit does not succeed. */
    static QVAzurePlugInLibrary connected(String connectionString) {
        QVAzurePlugInLibrary lib = newLibrary();
        assertOk(lib.AzureInit(connectionString, INSTALL_FOLDER.toString()), "AzureInit");
        return lib;
    }

    /** Deletes the container of a library made by connected() and de-initialises it; nothing when there is none. */
    static void dropContainer(QVAzurePlugInLibrary lib) {
        if (lib != null) {
            lib.DeleteContainer();
            lib.AzureDeInit();
        }
    }

    // ------------------------------------------------------------------ results

    /**
     * The error id of any value a library method returns: the value itself
     * when it is a CErrorValue, else its errorValue field. Null for values
     * without an error (capabilities, plain numbers).
     */
    static ERRORID idOf(Object result) {
        if (result instanceof CErrorValue) {
            return ((CErrorValue) result).getErrorID();
        }
        assertNotNull(result, "a library method returned null");
        try {
            Field f = result.getClass().getField("errorValue");
            CErrorValue e = (CErrorValue) f.get(result);
            assertNotNull(e, result.getClass().getSimpleName() + " without an errorValue");
            return e.getErrorID();
        } catch (NoSuchFieldException e) {
            return null;
        } catch (IllegalAccessException e) {
            throw new IllegalStateException(e);
        }
    }

    static void assertOk(Object result, String what) {
        assertEquals(ERRORID.SUCCESS, idOf(result), what);
    }

    static void assertError(ERRORID expected, Object result, String what) {
        ERRORID got = idOf(result);
        assertEquals(expected, got, what);
        assertEquals(expected.ordinal(), got.ordinal(), what);
    }

    // ------------------------------------------------------------------ metadata

    static CPluginMetaData[] metaArray(Map<String, String> meta) {
        return meta.entrySet().stream()
            .map(e -> new CPluginMetaData(e.getKey(), e.getValue())).toArray(CPluginMetaData[]::new);
    }

    static Map<String, String> asMap(CPluginMetaData[] values) {
        assertNotNull(values, "metadata array");
        Map<String, String> m = new HashMap<>();
        for (CPluginMetaData v : values) {
            assertNull(m.put(v.szPropertyName, v.val.szProperty), "duplicate " + v.szPropertyName);
        }
        return m;
    }

    /**
     * What a listing answers for an object with this metadata in this tier:
     * the metadata and the tier the service reports (Azurite reports Hot for
     * an object written without one).
     */
    static Map<String, String> listedInTier(Map<String, String> meta, String tier) {
        Map<String, String> m = new HashMap<>(meta);
        m.put(QVAzurePlugInLibrary.ACCESS_TIER, tier);
        return m;
    }

    static Map<String, String> ordered(String... namesAndValues) {
        Map<String, String> m = new LinkedHashMap<>();
        for (int i = 0; i < namesAndValues.length; i += 2) {
            m.put(namesAndValues[i], namesAndValues[i + 1]);
        }
        return m;
    }

    // ------------------------------------------------------------------ reading back

    /**
     * Reads the object back as a host does, {@code chunk} bytes per
     * ReadObject call into one reused buffer, and answers the SHA-256 of what
     * came back. Fails the test on an error or when the total differs from
     * {@code size}.
     */
    static byte[] readBackSha256(QVAzurePlugInLibrary lib, String name, long size, int chunk) {
        MessageDigest md = sha256();
        byte[] buf = new byte[chunk];
        long offset = 0;
        while (true) {
            CReadObjectFnValue r = lib.ReadObject(name, buf, chunk, offset);
            assertOk(r, "ReadObject at " + offset);
            if (r.sizeRead == 0) {
                break;
            }
            md.update(buf, 0, (int) r.sizeRead);
            offset += r.sizeRead;
        }
        assertEquals(size, offset, "bytes read back");
        return md.digest();
    }

    // ------------------------------------------------------------------ log

    /** The library's log records (their texts, formatted) while it is open. */
    static final class LogCapture implements AutoCloseable {
        private final Logger logger = com.qv.azure.LibraryLog.logger();
        private final List<String> lines = new ArrayList<>();
        private final Level before = logger.getLevel();
        private final Handler handler = new Handler() {
            @Override
            public void publish(LogRecord r) {
                synchronized (lines) {
                    lines.add(r.getLevel() + " " + new java.util.logging.SimpleFormatter().formatMessage(r));
                }
            }

            @Override
            public void flush() {
            }

            @Override
            public void close() {
            }
        };

        LogCapture() {
            logger.setLevel(Level.ALL);
            logger.addHandler(handler);
        }

        List<String> lines() {
            synchronized (lines) {
                return new ArrayList<>(lines);
            }
        }

        /** The lines that contain {@code text}. */
        List<String> with(String text) {
            return lines().stream().filter(l -> l.contains(text)).toList();
        }

        @Override
        public void close() {
            logger.removeHandler(handler);
            logger.setLevel(before);
        }
    }
}
