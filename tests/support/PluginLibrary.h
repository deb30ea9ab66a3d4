// The built plug-in loaded the way a host loads it: by file, with its entry
// point found by name.
//
// Each PluginLibrary loads its own copy of the library file (copied into a
// temporary folder under a new name), so every copy starts with fresh
// process-wide state: its own log writer, its own JVM record. Tests can so
// check what the first manager of a process does, many times over in one
// test process. The copy is unloaded when the object ends.
#pragma once

#include <string>

#include "cloudplugin/ICloudPluginInterface.h"
#include "support/TempFolder.h"

namespace testsupport {

class PluginLibrary {
public:
    PluginLibrary();
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    // The exported CreateInstance of this copy (never null: the constructor
    // fails the test when the library or the function cannot be found).
    CreateInstanceFunction CreateInstance() const { return m_createInstance; }

private:
    TempFolder m_folder;
    void* m_handle = nullptr;
    CreateInstanceFunction m_createInstance = nullptr;
};

// The built library file (the build tree's own path, in the running system's form).
std::u16string BuiltPluginLibraryPath();

}  // namespace testsupport
