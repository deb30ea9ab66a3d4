package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** The number of bytes a read put into the caller's array. */
public class CReadObjectFnValue {
    public CErrorValue errorValue;
    public long sizeRead;

    /** A successful answer with every other field at its Java default. */
    public CReadObjectFnValue() {
        this.errorValue = new CErrorValue();
    }

    public CReadObjectFnValue(CErrorValue errorValue, long sizeRead) {
        this.errorValue = errorValue;
        this.sizeRead = sizeRead;
    }
}
