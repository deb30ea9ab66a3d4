package com.qv.AzureLibrary;

/** One storage container of the account. */
public class QVAzureContainer {
    public String containerName;

    public QVAzureContainer() {
    }

    public QVAzureContainer(String containerName) {
        this.containerName = containerName;
    }
}
