package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** The regions the account can use. */
public class QVListRegions {
    public CErrorValue errorValue;
    public String[] regionsList;

    /** A successful answer with every other field at its Java default. */
    public QVListRegions() {
        this.errorValue = new CErrorValue();
    }

    public QVListRegions(CErrorValue errorValue, String[] regionsList) {
        this.errorValue = errorValue;
        this.regionsList = regionsList;
    }
}
