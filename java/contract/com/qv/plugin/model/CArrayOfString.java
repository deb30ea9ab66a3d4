package com.qv.plugin.model;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** A list of texts, such as server names. */
public class CArrayOfString {
    public CErrorValue errorValue;
    public String[] arrayOfString;

    /** A successful answer with every other field at its Java default. */
    public CArrayOfString() {
        this.errorValue = new CErrorValue();
    }

    public CArrayOfString(CErrorValue errorValue, String[] arrayOfString) {
        this.errorValue = errorValue;
        this.arrayOfString = arrayOfString;
    }
}
