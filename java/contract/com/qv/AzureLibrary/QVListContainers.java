package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** Containers of the account. */
public class QVListContainers {
    public CErrorValue errorValue;
    public QVAzureContainer[] containers;

    /** A successful answer with every other field at its Java default. */
    public QVListContainers() {
        this.errorValue = new CErrorValue();
    }

    public QVListContainers(CErrorValue errorValue, QVAzureContainer[] containers) {
        this.errorValue = errorValue;
        this.containers = containers;
    }
}
