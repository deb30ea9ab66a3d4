package com.qv.QVCloudPluginInterface;

import java.util.HashMap;
import java.util.Map;

/** What the storage back end can do, as text keys and text values. */
public class CloudPluginCapabilities {
    public Map<String, String> pluginCapabilities;

    public CloudPluginCapabilities() {
        this(new HashMap<>());
    }

    public CloudPluginCapabilities(Map<String, String> pluginCapabilities) {
        this.pluginCapabilities = pluginCapabilities;
    }
}
