package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** The value of one metadata property of an object. */
public class CGetObjectMetaData {
    public CErrorValue errorValue;
    public String value;

    /** A successful answer with every other field at its Java default. */
    public CGetObjectMetaData() {
        this.errorValue = new CErrorValue();
    }

    public CGetObjectMetaData(CErrorValue errorValue, String value) {
        this.errorValue = errorValue;
        this.value = value;
    }
}
