// The plug-in's one exported function.
#include "cloudplugin/ICloudPluginInterface.h"
#include "plugin/QVAzureCommunicationMgr.h"

extern "C" CLOUDPLUGIN_EXPORT ICloudPluginInterface* CreateInstance(CloudPluginCreateInfo* createInfo) {
    // A manager is returned even when its bridge could not be made: its
    // operations then answer with their guard. Nothing may leave this
    // function as an exception: the host is not C++-aware here.
    try {
        return new QVAzureCommunicationMgr(createInfo);
    } catch (...) {
        return nullptr;
    }
}
