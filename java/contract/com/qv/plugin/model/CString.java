package com.qv.plugin.model;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** One text answer, such as a storage key. */
public class CString {
    public CErrorValue errorValue;
    public String value;

    /** A successful answer with every other field at its Java default. */
    public CString() {
        this.errorValue = new CErrorValue();
    }

    public CString(CErrorValue errorValue, String value) {
        this.errorValue = errorValue;
        this.value = value;
    }
}
