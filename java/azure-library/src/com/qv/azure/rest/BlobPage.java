package com.qv.azure.rest;

import java.util.List;
import java.util.Map;

/** One page of List Blobs and the marker of the next page (null at the end). */
public final class BlobPage {
    /** One blob of a listing. */
    public static final class Item {
        public final String name;
        public final long size;
        public final Map<String, String> metadata;
        /** The blob's tier (AccessTier, also when only inferred from the account's default), or null. */
        public final String accessTier;
        /** ArchiveStatus, e.g. rehydrate-pending-to-hot, while a rehydration is pending; else null. */
        public final String archiveStatus;
        /** RehydratePriority (High or Standard) where the service reports one; else null. */
        public final String rehydratePriority;

        Item(String name, long size, Map<String, String> metadata, String accessTier, String archiveStatus,
             String rehydratePriority) {
            this.name = name;
            this.size = size;
            this.metadata = metadata;
            this.accessTier = accessTier;
            this.archiveStatus = archiveStatus;
            this.rehydratePriority = rehydratePriority;
        }
    }

    public final List<Item> items;
    public final String nextMarker;

    BlobPage(List<Item> items, String nextMarker) {
        this.items = items;
        this.nextMarker = nextMarker;
    }
}
