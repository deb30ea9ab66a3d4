// The result codes that the plug-in produces itself. Every other code a host
// receives is a Java ERRORID ordinal translated by MapErrorOrdinal.
#pragma once

#include <cstdint>

#include "cloudplugin/ICloudPluginInterface.h"

// Success.
constexpr uint32_t kResultSuccess = 0;
// The plug-in object's own failure: no bridge to the Java side, no log writer.
constexpr uint32_t kResultNoBridge = 2;
// Read data could not be copied from the Java array into the host's buffer.
constexpr uint32_t kResultCopyFailure = 14;
// An ERRORID ordinal outside the mapping table (negative ones and all above 48).
constexpr uint32_t kResultUnmappedOrdinal = 23;
// The interface's own bodies: the operation is not supported.
constexpr uint32_t kResultNotSupported = ICloudPluginInterface::kNotSupported;
// Any failure inside the bridge: no environment, plug-in object, class, method
// or result; a pending Java exception; a native exception.
constexpr uint32_t kResultBridgeFailure = 40;
// The Java byte array of a plain write could not be made.
constexpr uint32_t kResultByteArrayFailure = 41;
// Ordinal 40, what a result conversion reports when it fails (or when the
// error value is null), after MapErrorOrdinal.
constexpr uint32_t kResultFailedConversion = 47;

static_assert(kResultNotSupported == 24, "the interface's own bodies answer 24");
