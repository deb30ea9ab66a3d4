package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** The outcome of a read that also returns the object's metadata: the metadata and the number of bytes put into the caller's array. */
public class CRObjectByNameFnValue {
    public CErrorValue errorValue;
    public CPluginMetaData[] values;
    public long bytesRead;

    /** A successful answer with every other field at its Java default. */
    public CRObjectByNameFnValue() {
        this.errorValue = new CErrorValue();
    }

    public CRObjectByNameFnValue(CErrorValue errorValue, CPluginMetaData[] values, long bytesRead) {
        this.errorValue = errorValue;
        this.values = values;
        this.bytesRead = bytesRead;
    }
}
