package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** The answer to a yes-or-no question about an object, a container or an account. */
public class CIsObjectExistFnValue {
    public CErrorValue errorValue;
    public boolean isExist;

    /** A successful answer with every other field at its Java default. */
    public CIsObjectExistFnValue() {
        this.errorValue = new CErrorValue();
    }

    public CIsObjectExistFnValue(CErrorValue errorValue, boolean isExist) {
        this.errorValue = errorValue;
        this.isExist = isExist;
    }
}
