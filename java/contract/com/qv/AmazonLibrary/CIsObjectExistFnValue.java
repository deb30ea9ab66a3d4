package com.qv.AmazonLibrary;

import com.qv.QVCloudPluginInterface.CErrorValue;

/**
 * The yes-or-no answer under the package name that the container existence
 * check is declared with. It is a {@link com.qv.AzureLibrary.CIsObjectExistFnValue},
 * so the native side reads it with the same fields.
 */
public class CIsObjectExistFnValue extends com.qv.AzureLibrary.CIsObjectExistFnValue {
    public CIsObjectExistFnValue() {
        super();
    }

    public CIsObjectExistFnValue(CErrorValue errorValue, boolean isExist) {
        super(errorValue, isExist);
    }
}
