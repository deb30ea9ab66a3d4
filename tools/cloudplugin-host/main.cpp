// cloudplugin-host: a command-line backup host for the cloud-storage plug-in.
// It loads the plug-in exactly as a backup host does (its own JVM, the
// library by path, CreateInstance, Init) and uses it to back up, list,
// verify, restore and delete folders of files.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "Commands.h"
#include "HostRuntime.h"
#include "Interrupt.h"
#include "ToolError.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <unistd.h>
#endif

using namespace qvhost;

namespace {

constexpr const char* kUsage = R"(usage: cloudplugin-host [options] COMMAND [ARGUMENTS]

commands:
  backup SOURCE_DIR           back up every file under SOURCE_DIR; prints the backup id
  restore BACKUP DEST_DIR     restore a backup into DEST_DIR, checking every hash
  list                        complete backups with their file counts and sizes
  verify BACKUP               read a backup back and check every hash
  delete BACKUP               delete a backup (complete or not)
  info                        connectivity, account figures and the plug-in's capabilities
  bench                       write and read throughput through the plug-in
  object put NAME FILE        write FILE as object NAME
  object get NAME FILE        read object NAME into FILE
  object delete NAME          delete object NAME
  object list [PREFIX]        objects whose names start with PREFIX, with their metadata

options:
  --connection TEXT     the storage library's init string (default: $CLOUDPLUGIN_CONNECTION)
                        Azure: "DefaultEndpointsProtocol=https;AccountName=..;AccountKey=..;
                        EndpointSuffix=core.windows.net;Container=.."
  --install DIR         install folder holding Plugin/Azure/ (default: $CLOUDPLUGIN_INSTALL,
                        else the folder above the tool's own)
  --plugin FILE         the plug-in library (default: DIR/Plugin/Azure/<library>)
  --java-home DIR       the Java runtime (default: $JAVA_HOME, else the java on the PATH)
  --log-folder DIR      the plug-in's log folder (default: DIR/Plugin/Azure/Log)
  --jvm-option OPTION   an extra JVM option, e.g. -Xmx2g (repeatable)
  --prefix TEXT         root of the tool's object names (default: cloudplugin-host)
  --jobs N              files in flight at once, one host thread each (default: 2)
  --part-size SIZE      object size files are split into (default: 64M)
  --name ID             backup: the backup id to use (letters, digits, '.', '_', '-')
  --overwrite           restore: replace files that exist
  --sizes LIST          bench: object sizes (default: 1M,16M,64M)
  --threads LIST        bench: thread counts (default: 1,2)
  --bench-bytes SIZE    bench: bytes written per size and thread count (default: 256M)
  --json                machine-readable output on standard output
  --quiet               no progress and no summary
  --help                this text

exit status: 0 done, 1 damaged data found, 2 bad command line, 3 the plug-in
answered an operation with a non-zero result code, 4 a local file failed,
5 the JVM or the plug-in could not be set up, 6 no such backup, 130 interrupted.
)";

struct CommandLine {
    HostSettings settings;
    CommandOptions options;
    std::vector<std::string> words;  // the command and its arguments
    bool help = false;
};

[[noreturn]] void Usage(const std::string& why) { throw ToolError(kExitUsage, why + " (see --help)"); }

std::vector<std::string> SplitList(const std::string& text) {
    std::vector<std::string> items;
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        items.push_back(text.substr(start, comma - start));
        if (comma == std::string::npos) return items;
        start = comma + 1;
    }
}

uint64_t SizeOption(const std::string& option, const std::string& text, uint64_t maximum) {
    const uint64_t size = ParseSize(text);
    if (size == 0 || size > maximum) Usage(option + " takes a size such as 64M, not " + text);
    return size;
}

unsigned CountOption(const std::string& option, const std::string& text) {
    const uint64_t count = ParseSize(text);
    if (count == 0 || count > 256 || text.find_first_not_of("0123456789") != std::string::npos) {
        Usage(option + " takes a number from 1 to 256, not " + text);
    }
    return static_cast<unsigned>(count);
}

std::string ExecutableFolder() {
#ifdef _WIN32
    wchar_t path[32768];
    const DWORD length = GetModuleFileNameW(nullptr, path, 32768);
    return std::filesystem::path(std::wstring(path, length)).parent_path().u8string();
#else
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string(".") : self.parent_path().u8string();
#endif
}

CommandLine Parse(int argc, char** argv) {
    CommandLine line;
    if (const char* connection = std::getenv("CLOUDPLUGIN_CONNECTION")) line.settings.connectionString = connection;
    if (const char* install = std::getenv("CLOUDPLUGIN_INSTALL")) line.settings.installFolder = install;
    // Sizes up to 2 GiB - 1: the most one plug-in call carries.
    constexpr uint64_t kMaximumPart = (2ull << 30) - 1;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) Usage(word + " needs a value");
            return argv[++i];
        };
        if (word == "--help" || word == "-h") line.help = true;
        else if (word == "--connection") line.settings.connectionString = value();
        else if (word == "--install") line.settings.installFolder = value();
        else if (word == "--plugin") line.settings.pluginLibrary = value();
        else if (word == "--java-home") line.settings.javaHome = value();
        else if (word == "--log-folder") line.settings.logFolder = value();
        else if (word == "--jvm-option") line.settings.jvmOptions.push_back(value());
        else if (word == "--prefix") line.options.layout.root = value();
        else if (word == "--jobs") line.options.jobs = CountOption(word, value());
        else if (word == "--part-size") line.options.partSize = SizeOption(word, value(), kMaximumPart);
        else if (word == "--name") line.options.backupName = value();
        else if (word == "--overwrite") line.options.overwrite = true;
        else if (word == "--json") line.options.json = true;
        else if (word == "--quiet") line.options.quiet = true;
        else if (word == "--bench-bytes") line.options.benchBytes = SizeOption(word, value(), UINT64_MAX);
        else if (word == "--sizes") {
            line.options.benchSizes.clear();
            for (const std::string& item : SplitList(value()))
                line.options.benchSizes.push_back(SizeOption(word, item, kMaximumPart));
        } else if (word == "--threads") {
            line.options.benchThreads.clear();
            for (const std::string& item : SplitList(value()))
                line.options.benchThreads.push_back(CountOption(word, item));
        } else if (word.size() > 1 && word[0] == '-') Usage("unknown option " + word);
        else line.words.push_back(word);
    }
    if (line.options.layout.root.empty() || line.options.layout.root.back() == '/') {
        Usage("--prefix takes a name without a trailing '/'");
    }
    if (line.settings.installFolder.empty()) {
        line.settings.installFolder = std::filesystem::u8path(ExecutableFolder()).parent_path().u8string();
    }
    return line;
}

// Each command with the number of words it takes (itself included), checked
// before any JVM starts.
struct CommandForm {
    const char* command;
    const char* subcommand;  // for "object ..."; null otherwise
    size_t minimumWords;
    size_t maximumWords;
    const char* form;
};

constexpr CommandForm kForms[] = {
    {"backup", nullptr, 2, 2, "backup SOURCE_DIR"},
    {"restore", nullptr, 3, 3, "restore BACKUP DEST_DIR"},
    {"list", nullptr, 1, 1, "list"},
    {"verify", nullptr, 2, 2, "verify BACKUP"},
    {"delete", nullptr, 2, 2, "delete BACKUP"},
    {"info", nullptr, 1, 1, "info"},
    {"bench", nullptr, 1, 1, "bench"},
    {"object", "put", 4, 4, "object put NAME FILE"},
    {"object", "get", 4, 4, "object get NAME FILE"},
    {"object", "delete", 3, 3, "object delete NAME"},
    {"object", "list", 2, 3, "object list [PREFIX]"},
};

void CheckCommand(const std::vector<std::string>& words) {
    for (const CommandForm& form : kForms) {
        if (words[0] != form.command) continue;
        if (form.subcommand && (words.size() < 2 || words[1] != form.subcommand)) continue;
        if (words.size() < form.minimumWords || words.size() > form.maximumWords) {
            Usage(std::string("usage: cloudplugin-host [options] ") + form.form);
        }
        return;
    }
    Usage("unknown command " + words[0] + (words[0] == "object" ? " " + (words.size() > 1 ? words[1] : "") : ""));
}

CommandResult Run(Commands& commands, const std::vector<std::string>& words) {
    const std::string& command = words[0];
    const std::string what = words.size() > 1 ? words[1] : "";
    if (command == "backup") return commands.Backup(words[1]);
    if (command == "restore") return commands.Restore(words[1], words[2]);
    if (command == "list") return commands.List();
    if (command == "verify") return commands.Verify(words[1]);
    if (command == "delete") return commands.Delete(words[1]);
    if (command == "info") return commands.Info();
    if (command == "bench") return commands.Bench();
    if (what == "put") return commands.ObjectPut(words[2], words[3]);
    if (what == "get") return commands.ObjectGet(words[2], words[3]);
    if (what == "delete") return commands.ObjectDelete(words[2]);
    return commands.ObjectList(words.size() > 2 ? words[2] : "");
}

}  // namespace

int main(int argc, char** argv) {
    std::string command = "cloudplugin-host";
    bool json = false;
    try {
        CommandLine line = Parse(argc, argv);
        json = line.options.json;
        if (line.help) {
            std::fputs(kUsage, stdout);
            return kExitOk;
        }
        if (line.words.empty()) Usage("no command given");
        command = line.words[0];
        CheckCommand(line.words);
        if (line.settings.connectionString.empty()) {
            Usage("no connection string: give --connection or set CLOUDPLUGIN_CONNECTION");
        }
        InstallInterruptHandler();
        HostRuntime runtime(line.settings);
        PluginSession session(runtime.plugin());
        Commands commands(session, line.options);
        CommandResult result = Run(commands, line.words);
        runtime.Close();
        if (json) std::printf("%s\n", result.json.Text().c_str());
        return result.status;
    } catch (const ToolError& error) {
        std::fprintf(stderr, "cloudplugin-host %s: %s\n", command.c_str(), error.what());
        if (json) {
            std::printf("%s\n",
                        Json::Object({{"command", command}, {"ok", false}, {"error", error.ToJson()}}).Text().c_str());
        }
        return error.exitStatus();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "cloudplugin-host %s: unexpected failure: %s\n", command.c_str(), error.what());
        return kExitLocalFile;
    }
}
