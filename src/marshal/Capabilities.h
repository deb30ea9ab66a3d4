// The capability map of the storage back end: a java.util.Map of text keys
// and values, walked through the Java collection interfaces into the host's
// CapabilityMap.
//
// Native exceptions are not caught here: they reach the operation, which
// reports them as error id 40. Local references are deleted on every path.
#pragma once

#include <jni.h>

#include "cloudplugin/ICloudPluginInterface.h"

// Empties `capabilities` and fills it with every entry of the Java map whose
// key and value are both Java strings (others are dropped); a key already
// present keeps its first value. A null map, or one whose methods cannot be
// had, leaves the host's map empty. Nothing happens without a host map.
void ReadCapabilityMap(JNIEnv* env, jobject map, CapabilityMap* capabilities);

// The pluginCapabilities map of a com/qv/QVCloudPluginInterface/CloudPluginCapabilities into
// `capabilities`. A null result, or one without the field, leaves the host's map as it was.
void ConvertCloudPluginCapabilities(JNIEnv* env, jobject result, CapabilityMap* capabilities);
