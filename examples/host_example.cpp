// How a backup host uses the plug-in: load the library, hand it a running
// JVM, and drive it through ICloudPluginInterface.
//
//   host_example <plug-in library> <Java class path> <install folder>
//
// The class path names the Java storage library's jars. Logs go to
// <install folder>/Plugin/Azure/Log.
#include <jni.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "cloudplugin/ICloudPluginInterface.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

static CreateInstanceFunction LoadPlugin(const char* path) {
#ifdef _WIN32
    HMODULE library = LoadLibraryA(path);
    return library ? reinterpret_cast<CreateInstanceFunction>(
                         reinterpret_cast<void*>(GetProcAddress(library, "CreateInstance")))
                   : nullptr;
#else
    void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    return library ? reinterpret_cast<CreateInstanceFunction>(dlsym(library, "CreateInstance")) : nullptr;
#endif
}

static WideString Wide(const char* text) { return WideString(text, text + std::strlen(text)); }

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s <plug-in library> <Java class path> <install folder>\n", argv[0]);
        return 2;
    }
    CreateInstanceFunction createInstance = LoadPlugin(argv[1]);
    if (!createInstance) return std::fprintf(stderr, "cannot load %s\n", argv[1]), 1;

    // The host's own JVM; the plug-in joins it and never starts one.
    std::string classPath = std::string("-Djava.class.path=") + argv[2];
    JavaVMOption options[1] = {{&classPath[0], nullptr}};
    JavaVMInitArgs vmArgs{JNI_VERSION_1_8, 1, options, JNI_FALSE};
    JavaVM* vm = nullptr;
    JNIEnv* env = nullptr;
    if (JNI_CreateJavaVM(&vm, reinterpret_cast<void**>(&env), &vmArgs) != JNI_OK) {
        return std::fprintf(stderr, "cannot start the JVM\n"), 1;
    }

    // The record must outlive the plug-in object. An empty log folder means
    // <install folder>/Plugin/Azure/Log.
    CloudPluginCreateInfo info;
    info.installFolder = Wide(argv[3]);
    info.jvmRef = &vm;
    ICloudPluginInterface* plugin = createInstance(&info);
    if (!plugin) return std::fprintf(stderr, "CreateInstance failed\n"), 1;

    const WideString name = u"example/hello.txt";
    const std::string text = "Hello from the backup host";
    ObjectMetaData metaData{{u"origin", {u"host_example", 0}}};
    WideString handle, written;
    std::string back(text.size(), '\0');
    uint64_t length = back.size();
    uint32_t results[] = {
        plugin->Init(u"connection string of the storage library"),
        plugin->CreateObject(name, handle),
        plugin->WriteObject(name, reinterpret_cast<const uint8_t*>(text.data()), text.size(), &metaData, written),
        plugin->CloseObject(handle),
        plugin->ReadObject(name, reinterpret_cast<uint8_t*>(&back[0]), 0, &length),
        plugin->DeInit(),
    };
    plugin->Release();  // never delete: the plug-in frees itself

    const char* steps[] = {"Init", "CreateObject", "WriteObject", "CloseObject", "ReadObject", "DeInit"};
    int failures = 0;
    for (int i = 0; i < 6; ++i) {
        std::printf("%-12s -> %u\n", steps[i], results[i]);
        failures += results[i] != 0;
    }
    const bool same = length == text.size() && back == text;
    std::printf("read back %llu bytes: %s\n", static_cast<unsigned long long>(length), same ? "same" : "DIFFERENT");
    vm->DestroyJavaVM();
    return failures == 0 && same ? 0 : 1;
}
