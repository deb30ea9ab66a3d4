package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** The entries below an object path, each with its metadata. */
public class CRetGetSubMetaDataList {
    public CErrorValue errorValue;
    public CObjectSubListElement[] metaDat;

    /** A successful answer with every other field at its Java default. */
    public CRetGetSubMetaDataList() {
        this.errorValue = new CErrorValue();
    }

    public CRetGetSubMetaDataList(CErrorValue errorValue, CObjectSubListElement[] metaDat) {
        this.errorValue = errorValue;
        this.metaDat = metaDat;
    }
}
