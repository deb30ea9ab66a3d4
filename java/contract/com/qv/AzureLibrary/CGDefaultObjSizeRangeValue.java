package com.qv.AzureLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/** The smallest, the usual and the largest object size the store works with, in bytes. */
public class CGDefaultObjSizeRangeValue {
    public CErrorValue errorValue;
    public long minValue;
    public long defaultValue;
    public long maxValue;

    /** A successful answer with every other field at its Java default. */
    public CGDefaultObjSizeRangeValue() {
        this.errorValue = new CErrorValue();
    }

    public CGDefaultObjSizeRangeValue(CErrorValue errorValue, long minValue, long defaultValue, long maxValue) {
        this.errorValue = errorValue;
        this.minValue = minValue;
        this.defaultValue = defaultValue;
        this.maxValue = maxValue;
    }
}
