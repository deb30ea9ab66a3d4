package com.qv.AzureLibrary;

import java.io.IOException;
import java.io.PrintWriter;
import java.net.InetAddress;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.StandardOpenOption;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.Predicate;

/**
 * The fault proxy as a process of its own, for tests that drive the library
 * from outside a JVM of theirs (the native plug-in through cloudplugin-host):
 * it listens in front of the blob service and takes its faults from the
 * command line.
 *
 * <pre>
 * java -cp XNAzureFaultProxy.jar com.qv.AzureLibrary.FaultProxyLauncher
 *      --upstream PORT --port-file FILE [--log FILE] [--bind ADDRESS] [FAULT...]
 * </pre>
 *
 * Once it listens, the proxy writes its port to the port file (written
 * under another name and renamed, so that a reader never sees half of it).
 * With --log, each request it is done with adds one line:
 * {@code METHOD PATH?QUERY range=... if-match=... fault=KIND reply=STATUS tier=... priority=...}
 * ("-" where there is none). It runs until it is killed.
 *
 * Faults, each a rule tried in the order given:
 * <ul>
 * <li>{@code cut-body:BYTES[:TIMES[:PART]]}: a read of a blob (GET without
 * a comp or restype; with PART, only of a blob whose path holds PART) is
 * forwarded and its answer cut cleanly after BYTES bytes of body (halfway in
 * a body no longer than that), TIMES times (default 1);</li>
 * <li>{@code busy:SECONDS[:RETRY_AFTER]}: every request for SECONDS from the
 * first one is answered 503 ServerBusy, with Retry-After: RETRY_AFTER when
 * given;</li>
 * <li>{@code status:STATUS:CODE[:TIMES]}: every request (TIMES of them, when
 * given) is answered STATUS with the error code CODE;</li>
 * <li>{@code corrupt-get[:TIMES]}: a read of a blob is answered with one
 * byte in the middle of its body changed, every time (TIMES when given);</li>
 * <li>{@code hold-get:N:FOLDER}: the N-th read of a blob makes FOLDER/held
 * and waits (at most 120 s) until FOLDER/release exists before it is
 * forwarded, so that the test can change the blob in between;</li>
 * <li>{@code immutability}: version-level immutability, which the service
 * behind does not model, in front of it: Set Blob Immutability Policy and
 * Set Blob Legal Hold are answered here and remembered; a delete or an
 * overwrite of a blob under a retention not yet over, or a legal hold, is
 * answered 409 BlobImmutableDueToPolicy (or ...LegalHold); listings show
 * each held blob's ImmutabilityPolicyUntilDate, ImmutabilityPolicyMode and
 * LegalHold, as the service does.</li>
 * </ul>
 */
public final class FaultProxyLauncher {
    private FaultProxyLauncher() {
    }

    public static void main(String[] args) throws Exception {
        int upstream = -1;
        Path portFile = null;
        Path logFile = null;
        InetAddress bind = InetAddress.getLoopbackAddress();
        java.util.List<String> faults = new java.util.ArrayList<>();
        for (int i = 0; i < args.length; ++i) {
            switch (args[i]) {
                case "--upstream":
                    upstream = Integer.parseInt(args[++i]);
                    break;
                case "--port-file":
                    portFile = Paths.get(args[++i]);
                    break;
                case "--log":
                    logFile = Paths.get(args[++i]);
                    break;
                case "--bind":
                    bind = InetAddress.getByName(args[++i]);
                    break;
                default:
                    if (args[i].startsWith("--")) {
                        throw new IllegalArgumentException("unknown option " + args[i]);
                    }
                    faults.add(args[i]);
            }
        }
        if (upstream <= 0 || portFile == null) {
            throw new IllegalArgumentException("--upstream PORT and --port-file FILE are needed");
        }
        FaultProxy proxy = new FaultProxy(upstream, null, 0, bind, 0);
        for (String fault : faults) {
            addFault(proxy, fault);
        }
        if (logFile != null) {
            PrintWriter log = new PrintWriter(Files.newBufferedWriter(logFile, StandardCharsets.UTF_8,
                StandardOpenOption.CREATE, StandardOpenOption.TRUNCATE_EXISTING, StandardOpenOption.WRITE));
            proxy.onServed(r -> {
                synchronized (log) {
                    log.println(describe(r));
                    log.flush();
                }
            });
        }
        Path partial = Paths.get(portFile + ".partial");
        Files.writeString(partial, Integer.toString(proxy.port()) + "\n", StandardCharsets.US_ASCII);
        Files.move(partial, portFile, java.nio.file.StandardCopyOption.ATOMIC_MOVE);
        Thread.currentThread().join(); // until killed
    }

    private static String describe(FaultProxy.Request r) {
        String range = r.header("x-ms-range") != null ? r.header("x-ms-range") : r.header("Range");
        String status = r.reply != null ? r.reply.get("") : null;
        return r.method + " " + r.path + (r.query.isEmpty() ? "" : "?" + r.query)
            + " range=" + orDash(range) + " if-match=" + orDash(r.header("If-Match"))
            + " fault=" + (r.fault == null ? "-" : r.fault.name())
            + " reply=" + (status == null ? "-" : status.replace(' ', '_'))
            + " tier=" + orDash(r.header("x-ms-access-tier"))
            + " priority=" + orDash(r.header("x-ms-rehydrate-priority"))
            + " until=" + orDash(r.header("x-ms-immutability-policy-until-date")).replace(' ', '_')
            + " mode=" + orDash(r.header("x-ms-immutability-policy-mode"))
            + " legal-hold=" + orDash(r.header("x-ms-legal-hold"));
    }

    private static String orDash(String s) {
        return s == null ? "-" : s;
    }

    /** A read of a blob: a GET that is not a listing or a container's or service's properties. */
    private static boolean isBlobRead(FaultProxy.Request r) {
        return r.method.equals("GET") && r.param("comp") == null && r.param("restype") == null;
    }

    private static void addFault(FaultProxy proxy, String text) {
        String[] f = text.split(":", -1);
        switch (f[0]) {
            case "cut-body": {
                String part = f.length > 3 ? f[3] : "";
                proxy.add(r -> isBlobRead(r) && r.path.contains(part), f.length > 2 ? Integer.parseInt(f[2]) : 1,
                          FaultProxy.Fault.cutBodyAfter(Long.parseLong(f[1])));
                break;
            }
            case "busy": {
                long millis = Math.round(Double.parseDouble(f[1]) * 1000);
                AtomicLong end = new AtomicLong();
                Predicate<FaultProxy.Request> during = r -> {
                    end.compareAndSet(0, r.headNanos + millis * 1_000_000L);
                    return r.headNanos - end.get() < 0;
                };
                FaultProxy.Fault busy = FaultProxy.Fault.serverBusy();
                if (f.length > 2) {
                    busy = busy.withHeader("Retry-After", f[2]);
                }
                proxy.add(during, FaultProxy.ALWAYS, busy);
                break;
            }
            case "status":
                proxy.add(r -> true, f.length > 3 ? Integer.parseInt(f[3]) : FaultProxy.ALWAYS,
                          FaultProxy.Fault.status(Integer.parseInt(f[1]), f[2]));
                break;
            case "corrupt-get":
                proxy.add(FaultProxyLauncher::isBlobRead, f.length > 1 ? Integer.parseInt(f[1]) : FaultProxy.ALWAYS,
                          FaultProxy.Fault.corruptReply());
                break;
            case "hold-get": {
                int n = Integer.parseInt(f[1]);
                Path folder = Paths.get(f[2]);
                AtomicInteger reads = new AtomicInteger();
                proxy.add(r -> isBlobRead(r) && reads.incrementAndGet() == n, 1,
                          FaultProxy.Fault.before(() -> hold(folder)));
                break;
            }
            case "immutability":
                new Immutability().install(proxy);
                break;
            default:
                throw new IllegalArgumentException("unknown fault " + text);
        }
    }

    /** What the immutability fault remembers: each blob's retention and legal hold, by blob name. */
    private static final class Immutability {
        private final java.util.Map<String, java.time.ZonedDateTime> until =
            new java.util.concurrent.ConcurrentHashMap<>();
        private final java.util.Set<String> legalHolds = java.util.concurrent.ConcurrentHashMap.newKeySet();

        void install(FaultProxy proxy) {
            proxy.add(r -> isComp(r, "immutabilityPolicies") && remember(r), FaultProxy.ALWAYS,
                      FaultProxy.Fault.answer(200, new byte[0]));
            proxy.add(r -> isComp(r, "legalhold") && rememberHold(r), FaultProxy.ALWAYS,
                      FaultProxy.Fault.answer(200, new byte[0]));
            proxy.add(r -> changes(r) && legalHolds.contains(blobName(r)), FaultProxy.ALWAYS,
                      FaultProxy.Fault.status(409, "BlobImmutableDueToLegalHold"));
            proxy.add(r -> changes(r) && underRetention(blobName(r)), FaultProxy.ALWAYS,
                      FaultProxy.Fault.status(409, "BlobImmutableDueToPolicy"));
            proxy.add(FaultProxy.Request::isListBlobs, FaultProxy.ALWAYS,
                      FaultProxy.Fault.rewriteBody((r, xml) -> withHolds(xml)));
        }

        private static boolean isComp(FaultProxy.Request r, String comp) {
            return r.method.equals("PUT") && comp.equals(r.param("comp"));
        }

        /** A delete, or a write of the whole blob (Put Blob, Put Block List, a metadata or tier change). */
        private static boolean changes(FaultProxy.Request r) {
            String comp = r.param("comp");
            return r.param("restype") == null
                && (r.method.equals("DELETE")
                    || (r.method.equals("PUT") && (comp == null || comp.equals("blocklist") || comp.equals("metadata"))));
        }

        /** The blob a request names: the path after /account/container/, decoded. */
        private static String blobName(FaultProxy.Request r) {
            String[] parts = r.path.split("/", 4);
            return parts.length < 4 ? "" : java.net.URLDecoder.decode(parts[3], StandardCharsets.UTF_8);
        }

        private boolean remember(FaultProxy.Request r) {
            String date = r.header("x-ms-immutability-policy-until-date");
            if (date != null) {
                until.merge(blobName(r), java.time.ZonedDateTime.parse(date,
                            java.time.format.DateTimeFormatter.RFC_1123_DATE_TIME),
                            (a, b) -> a.isAfter(b) ? a : b);
            }
            return true;
        }

        private boolean rememberHold(FaultProxy.Request r) {
            if ("true".equalsIgnoreCase(r.header("x-ms-legal-hold"))) {
                legalHolds.add(blobName(r));
            } else {
                legalHolds.remove(blobName(r));
            }
            return true;
        }

        private boolean underRetention(String blob) {
            java.time.ZonedDateTime end = until.get(blob);
            return end != null && end.toInstant().isAfter(java.time.Instant.now());
        }

        /** The listing with each held blob's retention and legal hold at the start of its Properties. */
        private String withHolds(String xml) {
            StringBuilder out = new StringBuilder();
            int at = 0;
            while (true) {
                int name = xml.indexOf("<Name>", at);
                int properties = name < 0 ? -1 : xml.indexOf("<Properties>", name);
                if (properties < 0) {
                    break;
                }
                int nameEnd = xml.indexOf("</Name>", name);
                String blob = xml.substring(name + "<Name>".length(), nameEnd);
                int insert = properties + "<Properties>".length();
                out.append(xml, at, insert);
                java.time.ZonedDateTime end = until.get(blob);
                if (end != null) {
                    out.append("<ImmutabilityPolicyUntilDate>")
                        .append(java.time.format.DateTimeFormatter.RFC_1123_DATE_TIME.format(end))
                        .append("</ImmutabilityPolicyUntilDate><ImmutabilityPolicyMode>unlocked"
                                + "</ImmutabilityPolicyMode>");
                }
                if (legalHolds.contains(blob)) {
                    out.append("<LegalHold>true</LegalHold>");
                }
                at = insert;
            }
            return out.append(xml.substring(at)).toString();
        }
    }

    private static void hold(Path folder) {
        try {
            Files.createDirectories(folder);
            Files.writeString(folder.resolve("held"), "held\n", StandardCharsets.US_ASCII);
            long end = System.nanoTime() + 120_000_000_000L;
            while (!Files.exists(folder.resolve("release")) && System.nanoTime() - end < 0) {
                Thread.sleep(20);
            }
        } catch (IOException e) {
            throw new java.io.UncheckedIOException(e);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }
}
