// The host contract of the cloud-storage plug-in: the records that cross the
// interface between a backup host and the plug-in.
//
// All text is UTF-16 (`WideString`, std::u16string on every platform; on
// Windows its layout equals std::wstring's). Standard strings, maps and lists
// cross this boundary, so host and plug-in must share one C++ runtime (on
// Windows with MSVC: the same toolset, /MD and /EHsc).
#ifndef CLOUDPLUGIN_ICLOUDPLUGININTERFACE_H
#define CLOUDPLUGIN_ICLOUDPLUGININTERFACE_H

#include <jni.h>

#include <cstdint>
#include <list>
#include <map>
#include <string>

using WideString = std::u16string;

// One property of an object's metadata: its value text and an opaque type
// word chosen by the Java library.
struct MetaDataValue {
    WideString szProperty;
    uint32_t prpType = 0;
};

// Object metadata: property name to value, ordered by name (code unit by
// code unit, case-sensitive); names are unique.
using ObjectMetaData = std::map<WideString, MetaDataValue>;

// Objects below a path: file name to its metadata. The sub-list owns the
// metadata records; the host returns it through FreeObjectSubListMemory.
using ObjectSubList = std::map<WideString, ObjectMetaData*>;

// Texts in Java array order (containers, regions, machine names).
using StringList = std::list<WideString>;

// What the storage back end can do: capability name to value text.
using CapabilityMap = std::map<WideString, WideString>;

struct SizeRangeRecord {
    int64_t minimum = 0;
    int64_t defaultSize = 0;
    int64_t maximum = 0;
};

struct AccountInfoRecord {
    uint64_t reserved = 0;  // not written by the plug-in
    WideString accountIndentity;
    WideString accountType;
    WideString displayName;
    WideString emailAddress;
    int64_t usedSizeInByteTotal = 0;
    int64_t remainedSizeInByteTotal = 0;
};

// Job bookkeeping counters handed to the Java library.
struct JobInfoRecord {
    int64_t values[6] = {0, 0, 0, 0, 0, 0};
};

struct CapabilitiesRecord {
    uint32_t marker = 0;
    CapabilityMap capabilities;
};

// The record a host passes to CreateInstance. The host owns it and keeps it
// alive as long as the plug-in object it created.
struct CloudPluginCreateInfo {
    WideString installFolder;  // the host's installation folder
    JavaVM** jvmRef = nullptr; // points at the host's JavaVM pointer
    WideString logFolder;      // folder of the log files; empty for <installFolder>/Plugin/Azure/Log
};

#endif  // CLOUDPLUGIN_ICLOUDPLUGININTERFACE_H
