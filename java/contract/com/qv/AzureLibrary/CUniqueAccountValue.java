package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** A name of the account or of its container. */
public class CUniqueAccountValue {
    public CErrorValue errorValue;
    public String accountName;

    /** A successful answer with every other field at its Java default. */
    public CUniqueAccountValue() {
        this.errorValue = new CErrorValue();
    }

    public CUniqueAccountValue(CErrorValue errorValue, String accountName) {
        this.errorValue = errorValue;
        this.accountName = accountName;
    }
}
