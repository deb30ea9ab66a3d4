#include "support/PluginLibrary.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <system_error>

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#ifndef QV_PLUGIN_LIBRARY
#error "QV_PLUGIN_LIBRARY names the built plug-in library"
#endif

namespace testsupport {

std::u16string BuiltPluginLibraryPath() {
    std::u16string path = qvplatform::FromUtf8(QV_PLUGIN_LIBRARY);
#ifdef _WIN32
    // A cross build names the file by its path on the build machine; under
    // Wine that file system is drive Z:.
    if (!path.empty() && path[0] == u'/') path = u"Z:" + path;
    for (char16_t& c : path) {
        if (c == u'/') c = u'\\';
    }
#endif
    return path;
}

namespace {

std::u16string CopyName() {
    static std::atomic<int> next{0};
    const std::u16string number = qvplatform::FromUtf8(std::to_string(next++));
#ifdef _WIN32
    return u"QVAzurePlugin-" + number + u".dll";
#else
    return u"libQVAzurePlugin-" + number + u".so";
#endif
}

}  // namespace

PluginLibrary::PluginLibrary() {
    const std::u16string copy = m_folder.File(CopyName());
    std::error_code error;
    std::filesystem::copy_file(std::filesystem::path(BuiltPluginLibraryPath()), std::filesystem::path(copy), error);
    if (error) {
        ADD_FAILURE() << "cannot copy the plug-in library: " << error.message();
        return;
    }
#ifdef _WIN32
    HMODULE module = LoadLibraryW(reinterpret_cast<const wchar_t*>(copy.c_str()));
    m_handle = module;
    if (module) {
        m_createInstance = reinterpret_cast<CreateInstanceFunction>(
            reinterpret_cast<void*>(GetProcAddress(module, "CreateInstance")));
    }
#else
    m_handle = dlopen(qvplatform::ToUtf8(copy).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (m_handle) m_createInstance = reinterpret_cast<CreateInstanceFunction>(dlsym(m_handle, "CreateInstance"));
#endif
    if (!m_handle) ADD_FAILURE() << "cannot load " << qvplatform::ToUtf8(copy);
    if (m_handle && !m_createInstance) ADD_FAILURE() << "no CreateInstance in " << qvplatform::ToUtf8(copy);
}

PluginLibrary::~PluginLibrary() {
    if (!m_handle) return;
#ifdef _WIN32
    FreeLibrary(static_cast<HMODULE>(m_handle));
#else
    dlclose(m_handle);
#endif
}

}  // namespace testsupport
