#include "host/HostRuntime.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "local/LocalFiles.h"
#include "host/PluginSession.h"
#include "util/Error.h"
#include "util/Text.h"
#include "platform/TextCodec.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace qvhost {

namespace fs = std::filesystem;

namespace {

#ifdef _WIN32
constexpr char kPathListSeparator = ';';
#else
constexpr char kPathListSeparator = ':';
#endif

std::string Utf8Of(const fs::path& path) { return path.u8string(); }

void* OpenLibrary(const std::string& path, std::string& error) {
#ifdef _WIN32
    const std::wstring wide = PathOf(path).wstring();
    HMODULE library = LoadLibraryW(wide.c_str());
    if (!library) error = "error " + std::to_string(GetLastError());
    return reinterpret_cast<void*>(library);
#else
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) error = dlerror();
    return library;
#endif
}

void* FindSymbol(void* library, const char* name) {
#ifdef _WIN32
    return reinterpret_cast<void*>(GetProcAddress(reinterpret_cast<HMODULE>(library), name));
#else
    return dlsym(library, name);
#endif
}

void CloseLibrary(void* library) {
#ifdef _WIN32
    FreeLibrary(reinterpret_cast<HMODULE>(library));
#else
    dlclose(library);
#endif
}

// The JDK that a java executable on the PATH belongs to (links followed).
std::string JavaHomeFromPath() {
    const char* pathList = std::getenv("PATH");
    if (!pathList) return {};
    std::string list = pathList;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(kPathListSeparator, start);
        if (end == std::string::npos) end = list.size();
        const std::string folder = list.substr(start, end - start);
        start = end + 1;
        if (folder.empty()) continue;
#ifdef _WIN32
        const fs::path java = PathOf(folder) / "java.exe";
#else
        const fs::path java = PathOf(folder) / "java";
#endif
        std::error_code error;
        if (!fs::is_regular_file(java, error)) continue;
        const fs::path real = fs::canonical(java, error);
        if (error) continue;
        const std::string home = Utf8Of(real.parent_path().parent_path());
        if (!JvmLibraryIn(home).empty()) return home;
    }
    return {};
}

}  // namespace

std::vector<std::string> ToolJvmOptions(unsigned jobs, uint64_t partSize) {
    const uint64_t partMiB = (partSize + (1u << 20) - 1) >> 20;
    const uint64_t heapMiB = std::max<uint64_t>(128, 96 + 4 * uint64_t{jobs} * partMiB);
    return {"-Xmx" + std::to_string(heapMiB) + "m", "-Xms16m", "-XX:GCTimeRatio=1", "-XX:TieredStopAtLevel=1",
            "-XX:-UsePerfData"};
}

std::string LogFolderOf(const HostSettings& settings) {
    if (!settings.logFolder.empty()) return settings.logFolder;
    return Utf8Of(PathOf(settings.installFolder) / "Plugin" / "Azure" / "Log");
}

std::string JavaLogFileOf(const HostSettings& settings) {
    return Utf8Of(PathOf(LogFolderOf(settings)) / kJavaLogFileName);
}

uint64_t JavaLogSize(const std::string& logFile) {
    std::error_code error;
    const uintmax_t size = fs::file_size(PathOf(logFile), error);
    return error ? 0 : static_cast<uint64_t>(size);
}

std::string LastJavaFailure(const std::string& logFile, uint64_t from) {
    std::ifstream in(PathOf(logFile), std::ios::binary);
    if (!in || !in.seekg(static_cast<std::streamoff>(from))) return "";
    std::string last;
    for (std::string line; std::getline(in, line);) {
        // "<time> <LEVEL> [<thread>] <text>[ | <exception> at <frames>]"
        size_t level = line.find(' ');
        if (level == std::string::npos) continue;
        ++level;
        if (line.compare(level, 9, "WARNING [") != 0 && line.compare(level, 8, "SEVERE [") != 0) continue;
        const size_t text = line.find("] ", level);
        if (text == std::string::npos) continue;
        last = line.substr(text + 2, line.find(" | ", text) - text - 2);
    }
    while (!last.empty() && (last.back() == '\r' || last.back() == ' ')) last.pop_back();
    constexpr size_t kLongest = 600;
    if (last.size() > kLongest) last = last.substr(0, kLongest) + "...";
    return last;
}

const char* PluginLibraryFileName() {
#ifdef _WIN32
    return "QVAzurePlugin.dll";
#else
    return "libQVAzurePlugin.so";
#endif
}

std::string JvmLibraryIn(const std::string& javaHome) {
    if (javaHome.empty()) return {};
#ifdef _WIN32
    const fs::path candidates[] = {PathOf(javaHome) / "bin" / "server" / "jvm.dll",
                                   PathOf(javaHome) / "jre" / "bin" / "server" / "jvm.dll"};
#else
    const fs::path candidates[] = {PathOf(javaHome) / "lib" / "server" / "libjvm.so",
                                   PathOf(javaHome) / "jre" / "lib" / "amd64" / "server" / "libjvm.so"};
#endif
    for (const fs::path& candidate : candidates) {
        std::error_code error;
        if (fs::is_regular_file(candidate, error)) return Utf8Of(candidate);
    }
    return {};
}

std::string FindJavaHome(const std::string& given) {
    if (!given.empty()) return given;
    if (const char* home = std::getenv("JAVA_HOME"); home && *home && !JvmLibraryIn(home).empty()) return home;
    if (std::string home = JavaHomeFromPath(); !home.empty()) return home;
#ifndef _WIN32
    if (!JvmLibraryIn("/usr/lib/jvm/default-java").empty()) return "/usr/lib/jvm/default-java";
#endif
    return {};
}

std::string ClassPathOf(const std::string& jarFolder) {
    std::vector<std::string> jars;
    std::error_code error;
    for (fs::directory_iterator it(PathOf(jarFolder), error), end; !error && it != end; it.increment(error)) {
        if (it->path().extension() == ".jar") jars.push_back(Utf8Of(it->path().filename()));
    }
    // The storage library first, as the plug-in's own class-path table has it.
    std::sort(jars.begin(), jars.end(), [](const std::string& a, const std::string& b) {
        const bool aFirst = a == "XNAzurePlugIn.jar";
        const bool bFirst = b == "XNAzurePlugIn.jar";
        return aFirst != bFirst ? aFirst : a < b;
    });
    std::string classPath;
    for (const std::string& jar : jars) {
        if (!classPath.empty()) classPath.push_back(kPathListSeparator);
        classPath += Utf8Of(PathOf(jarFolder) / PathOf(jar));
    }
    return classPath;
}

std::optional<std::string> ConnectionValue(const std::string& connection, const std::string& key) {
    const auto trimmed = [](const std::string& text) {
        const size_t first = text.find_first_not_of(" \t");
        const size_t last = text.find_last_not_of(" \t");
        return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
    };
    for (const std::string& part : Split(connection, ';')) {
        const size_t eq = part.find('=');
        if (eq != std::string::npos && AsciiLower(trimmed(part.substr(0, eq))) == AsciiLower(trimmed(key))) {
            return trimmed(part.substr(eq + 1));
        }
    }
    return std::nullopt;
}

std::string WithConnectionDefault(const std::string& connection, const std::string& key, const std::string& value) {
    if (ConnectionValue(connection, key)) return connection;
    std::string result = connection;
    while (!result.empty() && (result.back() == ' ' || result.back() == ';')) result.pop_back();
    return result + ";" + key + "=" + value;
}

HostRuntime::HostRuntime(const HostSettings& settings) {
    try {
        StartJvm(settings);
        LoadPlugin(settings);
        const uint32_t result = plugin_->Init(qvplatform::FromUtf8(settings.connectionString));
        if (result != 0) throw PluginError("Init", "", result);
        initialised_ = true;
    } catch (...) {
        // DeInit is not due after a failed Init; the rest is torn down.
        if (plugin_) plugin_->Release();
        plugin_ = nullptr;
        if (vm_) vm_->DestroyJavaVM();
        vm_ = nullptr;
        throw;
    }
}

HostRuntime::~HostRuntime() {
    try {
        Close();
    } catch (...) {
        // Quietly: a failed DeInit at the end changes nothing the caller can act on.
    }
    if (vm_) vm_->DestroyJavaVM();
    // The libraries stay loaded: the JVM's threads may still run their code
    // until the process ends.
}

void HostRuntime::Close() {
    if (!plugin_) return;
    uint32_t result = 0;
    if (initialised_) result = plugin_->DeInit();
    initialised_ = false;
    plugin_->Release();
    plugin_ = nullptr;
    if (result != 0) throw PluginError("DeInit", "", result);
}

void HostRuntime::StartJvm(const HostSettings& settings) {
    const std::string javaHome = FindJavaHome(settings.javaHome);
    const std::string jvmPath = JvmLibraryIn(javaHome);
    if (jvmPath.empty()) {
        throw Error(ErrorKind::SetUp,
                        javaHome.empty() ? "no Java runtime found: set JAVA_HOME or put java on the PATH"
                                         : "no JVM library in the Java home " + javaHome);
    }
    std::string error;
    jvmLibrary_ = OpenLibrary(jvmPath, error);
    if (!jvmLibrary_) throw Error(ErrorKind::SetUp, "cannot load the JVM library " + jvmPath + ": " + error);
    using CreateJavaVM = jint(JNICALL*)(JavaVM**, void**, void*);
    auto createJavaVM = reinterpret_cast<CreateJavaVM>(FindSymbol(jvmLibrary_, "JNI_CreateJavaVM"));
    if (!createJavaVM) throw Error(ErrorKind::SetUp, jvmPath + " has no JNI_CreateJavaVM");

    const std::string jarFolder = Utf8Of(PathOf(settings.installFolder) / "Plugin" / "Azure");
    const std::string classPath = ClassPathOf(jarFolder);
    if (classPath.empty()) throw Error(ErrorKind::SetUp, "no jars in " + jarFolder);

    // -Xrs leaves SIGINT and SIGTERM to the tool, which stops its work
    // cleanly instead of the JVM ending the process. The Java library logs
    // into a file of the plug-in's log folder, never onto the terminal (and
    // nowhere when that folder cannot be made: a read-only installation).
    std::vector<std::string> texts = {"-Djava.class.path=" + classPath, "-Xrs"};
    const std::string logFolder = LogFolderOf(settings);
    std::error_code folderError;
    fs::create_directories(PathOf(logFolder), folderError);
    if (fs::is_directory(PathOf(logFolder), folderError)) {
        texts.push_back("-D" + std::string(kJavaLogFileProperty) + "=" + Utf8Of(PathOf(logFolder) / kJavaLogFileName));
    }
    const std::vector<std::string> own = ToolJvmOptions(settings.jobs, settings.partSize);
    texts.insert(texts.end(), own.begin(), own.end());
    texts.insert(texts.end(), settings.jvmOptions.begin(), settings.jvmOptions.end());
    std::vector<JavaVMOption> options(texts.size());
    for (size_t i = 0; i < texts.size(); ++i) options[i].optionString = &texts[i][0];
    JavaVMInitArgs args{};
    args.version = JNI_VERSION_1_8;
    args.nOptions = static_cast<jint>(options.size());
    args.options = options.data();
    args.ignoreUnrecognized = JNI_FALSE;
    JNIEnv* env = nullptr;
    const jint created = createJavaVM(&vm_, reinterpret_cast<void**>(&env), &args);
    if (created != JNI_OK) {
        vm_ = nullptr;
        throw Error(ErrorKind::SetUp, "the JVM could not be created (JNI error " + std::to_string(created) + ")");
    }
}

std::optional<StorageTraffic> HostRuntime::Traffic() const {
    if (!vm_) return std::nullopt;
    JNIEnv* env = nullptr;
    if (vm_->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_8) != JNI_OK) return std::nullopt;
    std::optional<StorageTraffic> traffic;
    const jclass meter = env->FindClass("com/qv/azure/rest/Traffic");
    const jmethodID counts = meter ? env->GetStaticMethodID(meter, "counts", "()[J") : nullptr;
    const auto array = counts ? static_cast<jlongArray>(env->CallStaticObjectMethod(meter, counts)) : nullptr;
    if (array && !env->ExceptionCheck() && env->GetArrayLength(array) >= 7) {
        jlong values[7] = {};
        env->GetLongArrayRegion(array, 0, 7, values);
        const auto at = [&](int i) { return static_cast<uint64_t>(std::max<jlong>(0, values[i])); };
        traffic = StorageTraffic{at(0), at(1), at(2), at(3), at(4), at(5), at(6)};
    }
    env->ExceptionClear();
    if (array) env->DeleteLocalRef(array);
    if (meter) env->DeleteLocalRef(meter);
    return traffic;
}

void HostRuntime::LoadPlugin(const HostSettings& settings) {
    const std::string path = settings.pluginLibrary.empty()
                                 ? Utf8Of(PathOf(settings.installFolder) / "Plugin" / "Azure" / PluginLibraryFileName())
                                 : settings.pluginLibrary;
    std::string error;
    pluginLibrary_ = OpenLibrary(path, error);
    if (!pluginLibrary_) throw Error(ErrorKind::SetUp, "cannot load the plug-in " + path + ": " + error);
    auto createInstance = reinterpret_cast<CreateInstanceFunction>(FindSymbol(pluginLibrary_, "CreateInstance"));
    if (!createInstance) {
        CloseLibrary(pluginLibrary_);
        pluginLibrary_ = nullptr;
        throw Error(ErrorKind::SetUp, path + " does not export CreateInstance");
    }
    createInfo_.installFolder = qvplatform::FromUtf8(settings.installFolder);
    createInfo_.logFolder = qvplatform::FromUtf8(settings.logFolder);
    createInfo_.jvmRef = &vm_;
    plugin_ = createInstance(&createInfo_);
    if (!plugin_) throw Error(ErrorKind::SetUp, "CreateInstance of " + path + " gave no plug-in object");
}

}  // namespace qvhost
