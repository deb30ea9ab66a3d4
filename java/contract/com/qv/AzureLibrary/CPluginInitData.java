package com.qv.AzureLibrary;

/**
 * What the host hands the plug-in library when it is created: the host's
 * install folder and its log folder, kept exactly as given.
 */
public class CPluginInitData {
    public String installFolder;
    public String logFolder;

    public CPluginInitData(String installFolder, String logFolder) {
        this.installFolder = installFolder;
        this.logFolder = logFolder;
    }
}
