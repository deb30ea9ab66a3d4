package com.qv.QVCloudPluginInterface;

import java.util.Objects;

/**
 * The error part of every answer of the plug-in library: one {@link ERRORID}.
 * Methods that have nothing else to report return it bare; every result class
 * carries one in its {@code errorValue} field.
 */
public class CErrorValue {
    private final ERRORID errorID;

    /** A successful outcome. */
    public CErrorValue() {
        this(ERRORID.SUCCESS);
    }

    public CErrorValue(ERRORID errorID) {
        this.errorID = Objects.requireNonNull(errorID, "errorID");
    }

    public ERRORID getErrorID() {
        return errorID;
    }

    /** The ordinal of {@link #getErrorID()}: the number the native side translates into its result code. */
    public int getOrdinalValue() {
        return errorID.ordinal();
    }

    @Override
    public String toString() {
        return "CErrorValue[" + errorID + "]";
    }
}
