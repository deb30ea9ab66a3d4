// Lets tests put the process-wide JVM record into states a running host
// reaches only through the plug-in's own JVM path.
#pragma once

#include <cstdint>

#include "bridge/JVMHost.h"

class JVMHostTestAccess {
public:
    static void SetRefCount(JVMHost& host, uint32_t count) { host.m_nRefCount = count; }
};
