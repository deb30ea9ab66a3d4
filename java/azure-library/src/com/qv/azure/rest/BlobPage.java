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
        /** ImmutabilityPolicyUntilDate (RFC 1123, as the service sends it) of a blob under a retention; else null. */
        public final String immutableUntil;
        /** ImmutabilityPolicyMode (unlocked, locked) beside it; else null. */
        public final String immutabilityMode;
        /** LegalHold (true or false) where the service reports it; else null. */
        public final String legalHold;
        /** AccessTierChangeTime (RFC 1123): when the tier was last set explicitly; else null. */
        public final String tierChangeTime;

        Item(String name, long size, Map<String, String> metadata, String accessTier, String archiveStatus,
             String rehydratePriority, String immutableUntil, String immutabilityMode, String legalHold,
             String tierChangeTime) {
            this.name = name;
            this.size = size;
            this.metadata = metadata;
            this.accessTier = accessTier;
            this.archiveStatus = archiveStatus;
            this.rehydratePriority = rehydratePriority;
            this.immutableUntil = immutableUntil;
            this.immutabilityMode = immutabilityMode;
            this.legalHold = legalHold;
            this.tierChangeTime = tierChangeTime;
        }
    }

    public final List<Item> items;
    public final String nextMarker;

    BlobPage(List<Item> items, String nextMarker) {
        this.items = items;
        this.nextMarker = nextMarker;
    }
}
