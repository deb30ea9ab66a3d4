package com.qv.AzureLibrary;

/** The value of one metadata property: its text and its kind. */
public class CPluginValue {
    public String szProperty;
    public CPropertyTYPE prpType;

    public CPluginValue() {
        this(null, CPropertyTYPE.STRING);
    }

    public CPluginValue(String szProperty, CPropertyTYPE prpType) {
        this.szProperty = szProperty;
        this.prpType = prpType;
    }
}
