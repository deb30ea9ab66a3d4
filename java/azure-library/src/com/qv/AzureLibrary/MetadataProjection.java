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
     * Properties the service reports on Get Blob Properties (a HEAD) and in
     * listings, not on Get Blob: a read answers them only when it was made
     * with a HEAD (nothing to read, or at or past the end).
     */
    private static final List<String> TIER_PROPERTIES = List.of(ACCESS_TIER, ARCHIVE_STATUS, REHYDRATE_PRIORITY);

    private static final List<String> SYSTEM_PROPERTIES =
        List.of("content-length", "content-type", "etag", "last-modified", ACCESS_TIER, ARCHIVE_STATUS,
                REHYDRATE_PRIORITY);

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
     * status and rehydrate priority the listing reports (each only when
     * reported, and never in place of a metadata entry of the same name).
     */
    static CPluginMetaData[] listed(BlobPage.Item item) {
        Map<String, String> props = decode(item.metadata);
        putIfReported(props, ACCESS_TIER, item.accessTier);
        putIfReported(props, ARCHIVE_STATUS, item.archiveStatus);
        putIfReported(props, REHYDRATE_PRIORITY, item.rehydratePriority);
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
