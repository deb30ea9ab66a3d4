package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** The handle of an object that was created, opened or updated (or another text the method names). */
public class CCreateFnValue {
    public CErrorValue errorValue;
    public String objHandle;

    /** A successful answer with every other field at its Java default. */
    public CCreateFnValue() {
        this.errorValue = new CErrorValue();
    }

    public CCreateFnValue(CErrorValue errorValue, String objHandle) {
        this.errorValue = errorValue;
        this.objHandle = objHandle;
    }
}
