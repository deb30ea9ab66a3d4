package com.qv.plugin.model;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** One whole-number answer, such as whether a backup may run now. */
public class CInt {
    public int value;
    public CErrorValue errorValue;

    /** A successful answer of 0. */
    public CInt() {
        this.errorValue = new CErrorValue();
    }

    public CInt(CErrorValue errorValue, int value) {
        this.errorValue = errorValue;
        this.value = value;
    }
}
