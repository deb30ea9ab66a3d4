package com.qv.testdouble;

import com.qv.QVCloudPluginInterface.CErrorValue;
import com.qv.QVCloudPluginInterface.ERRORID;

/**
 * An error value whose two answers are chosen freely: {@link #getErrorID()} may
 * be null and {@link #getOrdinalValue()} may be any number, also one that no
 * {@link ERRORID} has. A well-behaved library never produces one; tests use it
 * to see how the native side copes.
 */
public final class ScriptedErrorValue extends CErrorValue {
    private final ERRORID errorID;
    private final int ordinalValue;

    public ScriptedErrorValue(ERRORID errorID, int ordinalValue) {
        super(ERRORID.UNKNOWN_ERROR);
        this.errorID = errorID;
        this.ordinalValue = ordinalValue;
    }

    @Override
    public ERRORID getErrorID() {
        return errorID;
    }

    @Override
    public int getOrdinalValue() {
        return ordinalValue;
    }

    @Override
    public String toString() {
        return "ScriptedErrorValue[" + errorID + ", " + ordinalValue + "]";
    }
}
