package com.qv.azure;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.Instant;
import java.util.logging.ErrorManager;
import java.util.logging.FileHandler;
import java.util.logging.Formatter;
import java.util.logging.LogRecord;
import java.util.logging.Logger;

/**
 * The library's one logger, {@value #LOGGER_NAME}, and how it is wired.
 *
 * The library runs inside a host's JVM, whose root logger has a console
 * handler unless the host configured java.util.logging itself. So, unless
 * the host did (the system property java.util.logging.config.file or
 * java.util.logging.config.class is set), the logger does not hand its
 * records to its parents, and nothing the library logs reaches the host's
 * stderr. A host that wants the records anyway has three ways:
 *
 * <ul>
 *   <li>the system property {@value #FILE_PROPERTY} names a file; the
 *       library appends its records to it, one line each (the folder is
 *       made when missing; a file that cannot be opened is left out
 *       silently: logging never breaks the library);</li>
 *   <li>configure java.util.logging (a config file or class), and the
 *       records go wherever that configuration sends them;</li>
 *   <li>add a handler to the logger {@value #LOGGER_NAME} in code.</li>
 * </ul>
 *
 * Records never hold the account key or a shared access signature: log
 * texts name operations, methods, paths, statuses and service error codes.
 */
public final class LibraryLog {
    public static final String LOGGER_NAME = "com.qv.azure";
    public static final String FILE_PROPERTY = "com.qv.azure.log.file";

    /** Held here so that the logger and its settings are never collected. */
    public static final Logger LOG = Logger.getLogger(LOGGER_NAME);

    static {
        if (System.getProperty("java.util.logging.config.file") == null
            && System.getProperty("java.util.logging.config.class") == null) {
            LOG.setUseParentHandlers(false);
        }
        String file = System.getProperty(FILE_PROPERTY);
        if (file != null && !file.isBlank()) {
            addFile(file.trim());
        }
    }

    private LibraryLog() {
    }

    /** The logger (also a reason to load this class, which wires it). */
    public static Logger logger() {
        return LOG;
    }

    private static void addFile(String file) {
        try {
            Path parent = Paths.get(file).toAbsolutePath().getParent();
            if (parent != null) {
                Files.createDirectories(parent);
            }
            // FileHandler reads '%' as the start of a pattern: the name is taken literally.
            FileHandler h = new FileHandler(file.replace("%", "%%"), 0, 1, true);
            h.setEncoding(StandardCharsets.UTF_8.name());
            h.setFormatter(new OneLine());
            h.setErrorManager(new ErrorManager() {
                @Override
                public synchronized void error(String msg, Exception ex, int code) {
                    // A full disk must not put text on the host's stderr.
                }
            });
            LOG.addHandler(h);
        } catch (IOException | RuntimeException e) {
            // No file: the library works as before, without one.
        }
    }

    /**
     * One record per line: time (UTC), level, thread, text, and for a record
     * with an exception its class, message and first frames. Line breaks in
     * any part (a service's answer can hold anything) become spaces.
     */
    public static final class OneLine extends Formatter {
        @Override
        public String format(LogRecord r) {
            StringBuilder sb = new StringBuilder();
            sb.append(Instant.ofEpochMilli(r.getMillis())).append(' ').append(r.getLevel().getName())
                .append(" [").append(Thread.currentThread().getName()).append("] ").append(formatMessage(r));
            Throwable t = r.getThrown();
            if (t != null) {
                sb.append(" | ").append(t);
                StackTraceElement[] frames = t.getStackTrace();
                for (int i = 0; i < Math.min(frames.length, 6); ++i) {
                    sb.append(i == 0 ? " at " : " < ").append(frames[i]);
                }
            }
            for (int i = 0; i < sb.length(); ++i) {
                char c = sb.charAt(i);
                if (c == '\n' || c == '\r') {
                    sb.setCharAt(i, ' ');
                }
            }
            return sb.append(System.lineSeparator()).toString();
        }
    }
}
