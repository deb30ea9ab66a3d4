// Compiled for the MSVC C++ ABI only (see CheckMsvcSlotLayout.cmake): calls
// through the interface make the compiler lay out its virtual table, which
// it dumps with -fdump-vtable-layouts.
#include "cloudplugin/ICloudPluginInterface.h"

#ifndef _MSC_VER
#error "the probe must see the header as an MSVC compiler does (_MSC_VER defined)"
#endif
static_assert(sizeof(long) == 4 && sizeof(void*) == 8, "the probe must be compiled for 64-bit Windows (LLP64)");

uint32_t CallThroughTheInterface(ICloudPluginInterface* plugin) {
    const uint32_t code = plugin->DeInit();
    plugin->Release();
    return code;
}
