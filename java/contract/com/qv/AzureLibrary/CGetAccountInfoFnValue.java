package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** Who owns the storage account and how much of it is used. */
public class CGetAccountInfoFnValue {
    public CErrorValue errorValue;
    public String accountIndentity;
    public String accountType;
    public String displayName;
    public String emailAddress;
    public long usedSizeInByteTotal;
    public long remainedSizeInByteTotal;

    /** A successful answer with every other field at its Java default. */
    public CGetAccountInfoFnValue() {
        this.errorValue = new CErrorValue();
    }

    public CGetAccountInfoFnValue(CErrorValue errorValue, String accountIndentity, String accountType, String displayName, String emailAddress, long usedSizeInByteTotal, long remainedSizeInByteTotal) {
        this.errorValue = errorValue;
        this.accountIndentity = accountIndentity;
        this.accountType = accountType;
        this.displayName = displayName;
        this.emailAddress = emailAddress;
        this.usedSizeInByteTotal = usedSizeInByteTotal;
        this.remainedSizeInByteTotal = remainedSizeInByteTotal;
    }
}
