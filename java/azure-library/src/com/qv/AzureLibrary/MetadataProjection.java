package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.ERRORID;
import com.qv.azure.rest.BlobPage;
import com.qv.azure.rest.MetadataCodec;
import com.qv.azure.rest.Response;
import com.qv.azure.rest.StorageConnection;
import com.qv.azure.rest.StorageException;

import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.TreeMap;

/**
 * How the host's metadata arrays map to what the service stores and
 * reports, and back: the names and values through {@link MetadataCodec},
 * and beside them the properties the service reports on its own (the tier
 * and the state of a rehydration, and on reads the blob's own properties).
 */
final class MetadataProjection {
    /** The property that sets (SetObjectMetaData) and reports an object's access tier. */
    static final String ACCESS_TIER = "x-ms-access-tier";
    /** Reported while a rehydration is pending, e.g. rehydrate-pending-to-hot. */
    static final String ARCHIVE_STATUS = "x-ms-archive-status";
    /** The priority of a pending rehydration, High or Standard. */
    static final String REHYDRATE_PRIORITY = "x-ms-rehydrate-priority";
    /**
     * The end of the blob's time-based retention (RFC 1123, as the service
     * reports it); SetObjectMetaData sets it (Set Blob Immutability Policy).
     */
    static final String IMMUTABLE_UNTIL = "x-ms-immutability-policy-until-date";
    /** Beside it: unlocked or locked. */
    static final String IMMUTABILITY_MODE = "x-ms-immutability-policy-mode";
    /** true while the blob has a legal hold; SetObjectMetaData sets or clears it (Set Blob Legal Hold). */
    static final String LEGAL_HOLD = "x-ms-legal-hold";
    /**
     * When its tier was last set explicitly (RFC 1123), as the service lists
     * it for such blobs only: where an early deletion's days are counted from.
     */
    static final String TIER_CHANGE_TIME = "x-ms-access-tier-change-time";

    /**
     * Properties the service reports on Get Blob Properties (a HEAD) and in
     * listings, not on Get Blob: a read answers them only when it was made
     * with a HEAD (nothing to read, or at or past the end).
     */
    private static final List<String> TIER_PROPERTIES =
        List.of(ACCESS_TIER, ARCHIVE_STATUS, REHYDRATE_PRIORITY, IMMUTABLE_UNTIL, IMMUTABILITY_MODE, LEGAL_HOLD,
                TIER_CHANGE_TIME);

    private static final List<String> SYSTEM_PROPERTIES =
        List.of("content-length", "content-type", "etag", "last-modified", ACCESS_TIER, ARCHIVE_STATUS,
                REHYDRATE_PRIORITY, IMMUTABLE_UNTIL, IMMUTABILITY_MODE, LEGAL_HOLD, TIER_CHANGE_TIME);

    private MetadataProjection() {
    }

    /** The host's metadata in its stored form; a property without a name is refused. */
    static Map<String, String> encode(CPluginMetaData[] metaData) throws StorageException {
        Map<String, String> out = new LinkedHashMap<>();
        for (CPluginMetaData m : metaData) {
            if (m == null) {
                continue;
            }
            if (m.szPropertyName == null || m.szPropertyName.isEmpty()) {
                throw new StorageException(ERRORID.INVALID_METADATA, "metadata property without a name");
            }
            String value = m.val == null ? null : m.val.szProperty;
            out.put(MetadataCodec.encodeName(m.szPropertyName), MetadataCodec.encodeValue(value));
        }
        return out;
    }

    /** Stored metadata as the host wrote it, in name order. */
    static Map<String, String> decode(Map<String, String> stored) {
        Map<String, String> out = new TreeMap<>();
        for (Map.Entry<String, String> e : stored.entrySet()) {
            out.put(MetadataCodec.decodeName(e.getKey()), MetadataCodec.decodeValue(e.getValue()));
        }
        return out;
    }

    static CPluginMetaData[] toArray(Map<String, String> props) {
        CPluginMetaData[] out = new CPluginMetaData[props.size()];
        int i = 0;
        for (Map.Entry<String, String> e : props.entrySet()) {
            out[i++] = new CPluginMetaData(e.getKey(), e.getValue());
        }
        return out;
    }

    /**
     * A listed object's properties: its metadata and the tier, archive
     * status, rehydrate priority, retention, legal hold and tier change
     * time the listing reports (each only when reported, and
     * never in place of a metadata entry of the same name).
     */
    static CPluginMetaData[] listed(BlobPage.Item item) {
        Map<String, String> props = decode(item.metadata);
        putIfReported(props, ACCESS_TIER, item.accessTier);
        putIfReported(props, ARCHIVE_STATUS, item.archiveStatus);
        putIfReported(props, REHYDRATE_PRIORITY, item.rehydratePriority);
        putIfReported(props, IMMUTABLE_UNTIL, item.immutableUntil);
        putIfReported(props, IMMUTABILITY_MODE, item.immutabilityMode);
        putIfReported(props, LEGAL_HOLD, item.legalHold);
        // Only where leaving the tier early is charged: a listing of the
        // online tier stays as small as it was (Azurite lists the time for
        // every blob, the service where a tier was set).
        if (item.accessTier != null && !item.accessTier.equals("Hot")) {
            putIfReported(props, TIER_CHANGE_TIME, item.tierChangeTime);
        }
        return toArray(props);
    }

    /**
     * What a read reports of the object: all its metadata when
     * {@code propertyNames} is null or empty, otherwise only the named
     * properties that exist, a name of the blob's own properties (see
     * {@link #SYSTEM_PROPERTIES}) answered from the answer's headers.
     */
    static CPluginMetaData[] selected(Response r, String[] propertyNames) {
        Map<String, String> all = decode(r.metadata());
        if (propertyNames == null || propertyNames.length == 0) {
            return toArray(all);
        }
        List<CPluginMetaData> out = new ArrayList<>();
        for (String p : propertyNames) {
            if (p == null) {
                continue;
            }
            String v = all.get(p);
            if (v == null && SYSTEM_PROPERTIES.contains(p.toLowerCase(Locale.ROOT))) {
                v = r.header(p);
            }
            if (v != null) {
                out.add(new CPluginMetaData(p, v));
            }
        }
        return out.toArray(new CPluginMetaData[0]);
    }

    /** One property of Get Blob Properties: the metadata entry, else a tier property's header; null for none. */
    static String single(Response props, String property) {
        String v = decode(props.metadata()).get(property);
        if (v == null && property != null && TIER_PROPERTIES.contains(property.toLowerCase(Locale.ROOT))) {
            v = props.header(property);
        }
        return v;
    }

    private static void putIfReported(Map<String, String> props, String name, String value) {
        if (value != null) {
            props.putIfAbsent(name, value);
        }
    }

    /**
     * The value of {@value #IMMUTABLE_UNTIL} for SetObjectMetaData: an
     * RFC 1123 date or an ISO-8601 instant ("2027-01-31T12:00:00Z"),
     * optionally followed by ";Locked" or ";Unlocked" (the default); answers
     * the date in RFC 1123 and the mode as the service spells them. A date
     * in the past is refused: the service would refuse it too.
     */
    static String[] parseRetentionValue(String value, java.time.Instant now) throws StorageException {
        if (value != null) {
            int semi = value.indexOf(';');
            String date = (semi < 0 ? value : value.substring(0, semi)).trim();
            String mode = semi < 0 ? "Unlocked" : value.substring(semi + 1).trim();
            mode = "Locked".equalsIgnoreCase(mode) ? "Locked" : "Unlocked".equalsIgnoreCase(mode) ? "Unlocked" : null;
            java.time.Instant until = null;
            try {
                until = java.time.ZonedDateTime.parse(date, java.time.format.DateTimeFormatter.RFC_1123_DATE_TIME)
                    .toInstant();
            } catch (java.time.format.DateTimeParseException e) {
                try {
                    until = java.time.Instant.parse(date);
                } catch (java.time.format.DateTimeParseException e2) {
                    until = null;
                }
            }
            if (until != null && mode != null && until.isAfter(now)) {
                return new String[] {HTTP_DATE.format(until.atZone(java.time.ZoneOffset.UTC)), mode};
            }
        }
        throw new StorageException(ERRORID.INVALID_ARGUMENT,
                                   IMMUTABLE_UNTIL + " must be a date to come (RFC 1123 or ISO-8601), optionally "
                                       + "with ;Locked or ;Unlocked");
    }

    /** An HTTP date as the service writes them: "Tue, 02 Jan 2030 03:04:05 GMT" (a two-digit day). */
    private static final java.time.format.DateTimeFormatter HTTP_DATE =
        java.time.format.DateTimeFormatter.ofPattern("EEE, dd MMM yyyy HH:mm:ss 'GMT'", Locale.US);

    /** The value of {@value #LEGAL_HOLD} for SetObjectMetaData: true or false (any case). */
    static boolean parseLegalHoldValue(String value) throws StorageException {
        if ("true".equalsIgnoreCase(value) || "false".equalsIgnoreCase(value)) {
            return Boolean.parseBoolean(value.toLowerCase(Locale.ROOT));
        }
        throw new StorageException(ERRORID.INVALID_ARGUMENT, LEGAL_HOLD + " must be true or false");
    }

    /**
     * The value of {@value #ACCESS_TIER} for SetObjectMetaData: the tier as the
     * service spells it and the rehydrate priority (null without one).
     */
    static String[] parseTierValue(String value) throws StorageException {
        if (value != null) {
            int semi = value.indexOf(';');
            String tier = StorageConnection.canonicalTier(semi < 0 ? value : value.substring(0, semi));
            String priority = null;
            if (semi >= 0) {
                String p = value.substring(semi + 1);
                priority = "High".equalsIgnoreCase(p) ? "High" : "Standard".equalsIgnoreCase(p) ? "Standard" : "";
            }
            if (tier != null && !"".equals(priority)) {
                return new String[] {tier, priority};
            }
        }
        throw new StorageException(ERRORID.INVALID_ARGUMENT,
                                   ACCESS_TIER + " must be Hot, Cool, Cold or Archive, optionally with ;High or "
                                       + ";Standard");
    }
}
