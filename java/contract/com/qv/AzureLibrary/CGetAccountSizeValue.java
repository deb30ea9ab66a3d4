package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** The number of bytes that all objects of the account take. */
public class CGetAccountSizeValue {
    public CErrorValue errorValue;
    public long size;

    /** A successful answer with every other field at its Java default. */
    public CGetAccountSizeValue() {
        this.errorValue = new CErrorValue();
    }

    public CGetAccountSizeValue(CErrorValue errorValue, long size) {
        this.errorValue = errorValue;
        this.size = size;
    }
}
