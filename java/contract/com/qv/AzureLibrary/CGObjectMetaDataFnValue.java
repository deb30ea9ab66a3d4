package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** Every metadata property of an object. */
public class CGObjectMetaDataFnValue {
    public CErrorValue errorValue;
    public CPluginMetaData[] values;

    /** A successful answer with every other field at its Java default. */
    public CGObjectMetaDataFnValue() {
        this.errorValue = new CErrorValue();
    }

    public CGObjectMetaDataFnValue(CErrorValue errorValue, CPluginMetaData[] values) {
        this.errorValue = errorValue;
        this.values = values;
    }
}
