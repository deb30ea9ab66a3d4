// What a backup host sets up before it can use the plug-in: its own JVM
// (libjvm found and loaded at run time) with the plug-in's jars on the class
// path, the plug-in library loaded by path, one plug-in object made by
// CreateInstance and initialised with the connection string. Torn down in
// the reverse order: DeInit, Release, the JVM destroyed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cloudplugin/ICloudPluginInterface.h"

namespace qvhost {

struct HostSettings {
    std::string installFolder;          // holds Plugin/Azure/ (the plug-in library and its jars)
    std::string pluginLibrary;          // empty: <installFolder>/Plugin/Azure/<platform library name>
    std::string javaHome;               // empty: JAVA_HOME, else the JDK of the java on the PATH
    std::string logFolder;              // empty: the plug-in's default, <installFolder>/Plugin/Azure/Log
    std::string connectionString;       // the Java storage library's init string
    std::vector<std::string> jvmOptions;  // extra JVM options (-Xmx..., -D...), after the tool's own
    unsigned jobs = 4;                    // for the tool's own JVM options: threads calling the plug-in
    uint64_t partSize = 8ull << 20;       // ... and the most one call carries
};

// The Java library writes its java.util.logging records to the file this
// system property names (it prints nothing to the terminal by default).
constexpr const char* kJavaLogFileProperty = "com.qv.azure.log.file";
constexpr const char* kJavaLogFileName = "XNAzurePlugIn.log";

// The plug-in's log folder: the one given, else <install>/Plugin/Azure/Log.
std::string LogFolderOf(const HostSettings& settings);

// The Java library's log file for these settings, and its size now (0 when
// there is none yet): where the records of a run that starts now begin.
std::string JavaLogFileOf(const HostSettings& settings);
uint64_t JavaLogSize(const std::string& logFile);

// The text of the last failure the Java library logged (a WARNING or SEVERE
// record: the operation, the error id and the library's reason, e.g.
// "AzureInit: INVALID_CREDENTIALS: the storage account does not permit
// Shared Key authorization ...") after byte `from` of its log file; empty
// when there is none. The plug-in answers only a number; this is what
// tells a user why.
std::string LastJavaFailure(const std::string& logFile, uint64_t from);

// The JVM options the tool sets itself, before any the user gives (which
// win): a heap bounded by the calls in flight (each carries a Java array of
// up to a part, and as much again may wait for the collector) rather than a
// quarter of the machine, which starts at 16 MiB and grows only when
// collecting costs more than half the time (GCTimeRatio=1): what the tool
// leaves behind is mostly its dead arrays, which a collection frees in a
// few milliseconds, and a heap grown for them would only hold more of them
// in memory; only the quick compiler, since a backup's JVM lives for
// seconds or minutes and the heavy lifting (copies, hashing, sockets) runs
// in native code either way; no performance-data file.
std::vector<std::string> ToolJvmOptions(unsigned jobs, uint64_t partSize);

// The connection string with `key=value` added, unless it names the key
// already (keys compare as the Java library compares them: trimmed, in any
// case), in which case the user's value stands.
std::string WithConnectionDefault(const std::string& connection, const std::string& key, const std::string& value);
// The value the connection string gives `key` (names compared without case,
// both trimmed); none when it names no such key.
std::optional<std::string> ConnectionValue(const std::string& connection, const std::string& key);

// The connection-string key that turns off the Java library's MD5 check of
// whole-object reads; the repository authenticates every blob it reads
// (AES-GCM and the blob's id), so the check is a second pass over every
// byte that proves nothing more.
constexpr const char* kVerifyDownloadMd5Key = "VerifyDownloadMd5";

// The file name of the plug-in library on this platform.
const char* PluginLibraryFileName();

// The JVM library (libjvm.so / jvm.dll) of a Java home; empty when it has none.
std::string JvmLibraryIn(const std::string& javaHome);

// The Java home to use: the given one, JAVA_HOME, or the JDK that the java
// command on the PATH belongs to. Empty when none is found.
std::string FindJavaHome(const std::string& given);

// The class path of the jars in a folder: XNAzurePlugIn.jar first, the
// others by name. Separated by ':' (';' on Windows).
std::string ClassPathOf(const std::string& jarFolder);

// What the Java library sent to the Blob service in this process: each
// send of a request (a retry counts again, as the service bills it) by the
// kind the price list names, and the bytes of the bodies either way.
struct StorageTraffic {
    uint64_t write = 0;
    uint64_t read = 0;
    uint64_t list = 0;    // listings, and creating the container
    uint64_t other = 0;   // properties, HEADs
    uint64_t remove = 0;  // deletes: free
    uint64_t bytesSent = 0;
    uint64_t bytesReceived = 0;

    uint64_t Requests() const { return write + read + list + other + remove; }
};

class HostRuntime {
public:
    // Throws Error (set-up failed) or PluginError (Init refused).
    explicit HostRuntime(const HostSettings& settings);
    ~HostRuntime();
    HostRuntime(const HostRuntime&) = delete;
    HostRuntime& operator=(const HostRuntime&) = delete;

    ICloudPluginInterface& plugin() { return *plugin_; }

    // The library's count so far (from the calling thread, which the JVM
    // knows: the one that made it); none when its jar keeps no count.
    std::optional<StorageTraffic> Traffic() const;

    // Ends the plug-in's session (DeInit) and releases it; throws PluginError
    // when DeInit fails. The destructor does the same quietly.
    void Close();

private:
    void StartJvm(const HostSettings& settings);
    void LoadPlugin(const HostSettings& settings);

    void* jvmLibrary_ = nullptr;
    void* pluginLibrary_ = nullptr;
    JavaVM* vm_ = nullptr;
    CloudPluginCreateInfo createInfo_;  // must outlive the plug-in object
    ICloudPluginInterface* plugin_ = nullptr;
    bool initialised_ = false;
};

}  // namespace qvhost
