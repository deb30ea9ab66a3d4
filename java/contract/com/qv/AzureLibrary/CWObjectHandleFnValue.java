package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** The handle of an object that was written. */
public class CWObjectHandleFnValue {
    public CErrorValue errorValue;
    public String objHandle;

    /** A successful answer with every other field at its Java default. */
    public CWObjectHandleFnValue() {
        this.errorValue = new CErrorValue();
    }

    public CWObjectHandleFnValue(CErrorValue errorValue, String objHandle) {
        this.errorValue = errorValue;
        this.objHandle = objHandle;
    }
}
