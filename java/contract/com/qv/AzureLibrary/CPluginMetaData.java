package com.qv.AzureLibrary;

/**
 * One metadata property of an object: its name and its value. The native side
 * creates elements with the no-argument constructor and then fills the
 * {@code val} object that the constructor made, so that constructor must
 * always create it.
 */
public class CPluginMetaData {
    public String szPropertyName;
    public CPluginValue val;

    public CPluginMetaData() {
        this.val = new CPluginValue();
    }

    public CPluginMetaData(String szPropertyName, String value) {
        this.szPropertyName = szPropertyName;
        this.val = new CPluginValue(value, CPropertyTYPE.STRING);
    }
}
