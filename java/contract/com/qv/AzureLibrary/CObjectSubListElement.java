package com.qv.AzureLibrary;

/** One entry below an object path: its file name and its metadata. */
public class CObjectSubListElement {
    public String szFileName;
    public CPluginMetaData[] metaDat;

    public CObjectSubListElement() {
    }

    public CObjectSubListElement(String szFileName, CPluginMetaData[] metaDat) {
        this.szFileName = szFileName;
        this.metaDat = metaDat;
    }
}
