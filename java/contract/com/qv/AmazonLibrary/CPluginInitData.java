package com.qv.AmazonLibrary;

/**
 * The creation data under the package name the native side builds it with. It
 * is the same data as {@link com.qv.AzureLibrary.CPluginInitData}, which the
 * plug-in library's constructor is declared with, so the object fits there.
 */
public class CPluginInitData extends com.qv.AzureLibrary.CPluginInitData {
    public CPluginInitData(String installFolder, String logFolder) {
        super(installFolder, logFolder);
    }
}
