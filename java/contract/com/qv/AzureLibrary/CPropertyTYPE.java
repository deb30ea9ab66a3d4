package com.qv.AzureLibrary;

/** The kind of value a metadata property holds; its text form is always in {@link CPluginValue#szProperty}. */
public enum CPropertyTYPE {
    STRING,
    INTEGER,
    LONG,
    BOOLEAN,
    DATE_TIME
}
