// cloudplugin-host: a command-line backup host for the cloud-storage plug-in.
// It loads the plug-in exactly as a backup host does (its own JVM, the
// library by path, CreateInstance, Init) and uses it to back up, list,
// verify, restore, delete and prune folders of files.
//
// Two tables drive the command line: the commands with their arguments and
// handlers, and the options with what each sets. CLI11 parses; --help is
// written from the same tables.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/Commands.h"
#include "host/HostRuntime.h"
#include "util/Interrupt.h"
#include "util/TextSplit.h"
#include "util/ToolError.h"

#ifdef _WIN32
#include <windows.h>
#endif

using namespace qvhost;

namespace {

struct CommandEntry {
    const char* name;                    // "backup", "object put"
    std::vector<const char*> arguments;  // a name in brackets is optional
    const char* summary;
    CommandHandler handler;
};

const CommandEntry kCommands[] = {
    {"init", {}, "make a new encrypted repository under --prefix", InitCommand},
    {"backup", {"SOURCE_DIR"}, "back up SOURCE_DIR as a new snapshot (only what changed is read and stored)",
     BackupCommand},
    {"snapshots", {}, "the repository's snapshots (and backups of the version 2 layout)", SnapshotsCommand},
    {"restore", {"SNAPSHOT", "DEST_DIR"}, "restore SNAPSHOT[:PATH] ('latest', an id or its first 8\n"
     "digits; or a version 2 backup id) into DEST_DIR, checking every chunk", RestoreCommand},
    {"check", {}, "check the repository's structure (--read-data: every pack read and checked)", CheckCommand},
    {"forget", {"[SNAPSHOT]"}, "remove SNAPSHOT, or the snapshots a --keep-* policy does not keep", ForgetCommand},
    {"prune", {}, "remove chunks no snapshot needs (no repository: incomplete version 2 backups)", PruneCommand},
    {"diff", {"SNAPSHOT1", "SNAPSHOT2"}, "what changed between two snapshots", DiffCommand},
    {"locks", {}, "the repository's locks (stale ones marked)", LocksCommand},
    {"unlock", {}, "remove stale locks (--all: every lock)", UnlockCommand},
    {"rehydrate", {"TARGET"}, "bring the archived objects of a snapshot (or a version 2 backup)\n"
     "back to an online tier; says what is still pending", RehydrateCommand},
    {"list", {}, "backups of the version 2 layout (with --all also incomplete ones)", ListCommand},
    {"verify", {"BACKUP"}, "read a version 2 backup back and check every hash", VerifyCommand},
    {"delete", {"BACKUP"}, "delete a version 2 backup (complete or not)", DeleteCommand},
    {"info", {}, "connectivity, account figures and the plug-in's capabilities", InfoCommand},
    {"bench", {}, "write and read throughput through the plug-in", BenchCommand},
    {"object put", {"NAME", "FILE"}, "write FILE as object NAME", ObjectPutCommand},
    {"object get", {"NAME", "FILE"}, "read object NAME into FILE", ObjectGetCommand},
    {"object delete", {"NAME"}, "delete object NAME", ObjectDeleteCommand},
    {"object list", {"[PREFIX]"}, "objects whose names start with PREFIX, with their metadata", ObjectListCommand},
    {"object tier", {"NAME", "TIER"}, "move object NAME to TIER (Hot, Cool, Cold, Archive; Hot;High\n"
     "rehydrates with high priority)", ObjectTierCommand},
};

struct CommandLine {
    HostSettings settings;
    CommandOptions options;
    const CommandEntry* command = nullptr;
    Arguments arguments;
};

[[noreturn]] void Usage(const std::string& why) { throw ToolError(kExitUsage, why + " (see --help)"); }

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

// The first line of the file, without its line end.
std::string ReadPasswordFile(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) throw ToolError(kExitLocalFile, "cannot read the password file " + path);
    std::string text;
    char buffer[4096];
    for (size_t read; (read = std::fread(buffer, 1, sizeof buffer, file)) > 0 && text.size() < 65536;) {
        text.append(buffer, read);
    }
    std::fclose(file);
    text = text.substr(0, text.find('\n'));
    if (!text.empty() && text.back() == '\r') text.pop_back();
    return text;
}

template <class Item, class Parse>
std::vector<Item> ListOption(const std::string& text, Parse parse) {
    std::vector<Item> items;
    for (const std::string& piece : Split(text, ',')) items.push_back(parse(piece));
    return items;
}

struct OptionEntry {
    const char* name;   // "--jobs"; a flag when `value` is null
    const char* value;  // "N"
    const char* help;   // '\n' starts a continuation line
    void (*apply)(CommandLine& line, const std::string& value);
    bool repeatable = false;
};

const OptionEntry kOptions[] = {
    {"--connection", "TEXT",
     "the storage library's init string (default: $CLOUDPLUGIN_CONNECTION)\n"
     "Azure: \"DefaultEndpointsProtocol=https;AccountName=..;AccountKey=..;\n"
     "EndpointSuffix=core.windows.net;Container=..\", or with a SAS:\n"
     "\"BlobEndpoint=https://<account>.blob.core.windows.net;SharedAccessSignature=..;Container=..\"",
     [](CommandLine& l, const std::string& v) { l.settings.connectionString = v; }},
    {"--install", "DIR",
     "install folder holding Plugin/Azure/ (default: $CLOUDPLUGIN_INSTALL,\nelse the folder above the tool's own)",
     [](CommandLine& l, const std::string& v) { l.settings.installFolder = v; }},
    {"--plugin", "FILE", "the plug-in library (default: DIR/Plugin/Azure/<library>)",
     [](CommandLine& l, const std::string& v) { l.settings.pluginLibrary = v; }},
    {"--java-home", "DIR", "the Java runtime (default: $JAVA_HOME, else the java on the PATH)",
     [](CommandLine& l, const std::string& v) { l.settings.javaHome = v; }},
    {"--log-folder", "DIR",
     "the plug-in's log folder, also holding the Java library's log\n(default: DIR/Plugin/Azure/Log)",
     [](CommandLine& l, const std::string& v) { l.settings.logFolder = v; }},
    {"--jvm-option", "OPTION", "an extra JVM option, e.g. -Xmx2g (repeatable)",
     [](CommandLine& l, const std::string& v) { l.settings.jvmOptions.push_back(v); }, true},
    {"--prefix", "TEXT", "root of the tool's object names (default: cloudplugin-host)",
     [](CommandLine& l, const std::string& v) { l.options.layout.root = v; }},
    {"--jobs", "N", "parts in flight at once, one host thread each (default: 4)",
     [](CommandLine& l, const std::string& v) { l.options.jobs = CountOption("--jobs", v); }},
    {"--part-size", "SIZE", "backup --legacy: object size files are split into (default: 8M);\nthe JVM's heap is sized from it and --jobs",
     [](CommandLine& l, const std::string& v) { l.options.partSize = SizeOption("--part-size", v, kMaximumPartSize); }},
    {"--name", "ID", "backup --legacy: the backup id to use (letters, digits, '.', '_', '-')",
     [](CommandLine& l, const std::string& v) { l.options.backupName = v; }},
    {"--skip-unreadable", nullptr, "backup: entries that cannot be read do not make the exit status 4",
     [](CommandLine& l, const std::string&) { l.options.skipUnreadable = true; }},
    {"--overwrite", nullptr, "restore: replace files and links that exist (never a folder)",
     [](CommandLine& l, const std::string&) { l.options.overwrite = true; }},
    {"--all", nullptr, "list: also incomplete backups (parts without a manifest); unlock: every lock",
     [](CommandLine& l, const std::string&) { l.options.all = true; }},
    {"--older-than", "AGE", "prune: only backups whose newest part is older (30m, 24h, 7d; 0: all;\ndefault: 24h)",
     [](CommandLine& l, const std::string& v) {
         l.options.olderThanSeconds = ParseAge(v);
         if (l.options.olderThanSeconds < 0) Usage("--older-than takes an age such as 30m, 24h or 7d, not " + v);
     }},
    {"--sizes", "LIST", "bench: object sizes (default: 1M,16M,64M)",
     [](CommandLine& l, const std::string& v) {
         l.options.benchSizes = ListOption<uint64_t>(v, [](const std::string& item) {
             return SizeOption("--sizes", item, kMaximumPartSize);
         });
     }},
    {"--threads", "LIST", "bench: thread counts (default: 1,2)",
     [](CommandLine& l, const std::string& v) {
         l.options.benchThreads =
             ListOption<unsigned>(v, [](const std::string& item) { return CountOption("--threads", item); });
     }},
    {"--bench-bytes", "SIZE", "bench: bytes written per size and thread count (default: 256M)",
     [](CommandLine& l, const std::string& v) { l.options.benchBytes = SizeOption("--bench-bytes", v, UINT64_MAX); }},
    {"--metadata", "KEY=VALUE", "object put: a metadata property of the object (repeatable)",
     [](CommandLine& l, const std::string& v) {
         const size_t equals = v.find('=');
         if (equals == 0 || equals == std::string::npos) Usage("--metadata takes KEY=VALUE, not " + v);
         l.options.objectMetadata[v.substr(0, equals)] = v.substr(equals + 1);
     },
     true},
    {"--password-file", "FILE", "the repository's password: the first line of FILE\n(default: $CLOUDPLUGIN_PASSWORD)",
     [](CommandLine& l, const std::string& v) { l.options.password = ReadPasswordFile(v); }},
    {"--legacy", nullptr, "backup: the version 2 layout (an object per part, no repository)",
     [](CommandLine& l, const std::string&) { l.options.legacy = true; }},
    {"--host", "NAME", "backup: the host the snapshot names (default: this machine's name)",
     [](CommandLine& l, const std::string& v) { l.options.host = v; }},
    {"--tag", "TAG", "backup: a tag of the snapshot (repeatable)",
     [](CommandLine& l, const std::string& v) { l.options.tags.push_back(v); }, true},
    {"--force", nullptr, "backup: read every file, even those unchanged since the last snapshot",
     [](CommandLine& l, const std::string&) { l.options.ignoreParent = true; }},
    {"--lock-wait", "AGE", "wait up to AGE for a lock another process holds (30s, 10m; default: 0)",
     [](CommandLine& l, const std::string& v) {
         l.options.lockWaitSeconds = ParseAge(v);
         if (l.options.lockWaitSeconds < 0) Usage("--lock-wait takes an age such as 30s or 10m, not " + v);
     }},
    {"--kdf-memory", "SIZE", "init: memory of the password's key derivation, scrypt (default: 64M)",
     [](CommandLine& l, const std::string& v) { l.options.kdfMemory = SizeOption("--kdf-memory", v, 1ull << 30); }},
    {"--pack-size", "SIZE", "init: the size of the repository's packs (default: 16M)",
     [](CommandLine& l, const std::string& v) {
         l.options.packSize = SizeOption("--pack-size", v, 256ull << 20);
         if (l.options.packSize < (1u << 20)) Usage("--pack-size takes at least 1M");
     }},
    {"--read-data", nullptr, "check: read every pack and check every chunk",
     [](CommandLine& l, const std::string&) { l.options.readData = true; }},
    {"--keep-last", "N", "forget: keep the N newest snapshots",
     [](CommandLine& l, const std::string& v) { l.options.keepLast = CountOption("--keep-last", v); }},
    {"--keep-hourly", "N", "forget: keep the newest snapshot of each of the last N hours",
     [](CommandLine& l, const std::string& v) { l.options.keepHourly = CountOption("--keep-hourly", v); }},
    {"--keep-daily", "N", "forget: ... of each of the last N days",
     [](CommandLine& l, const std::string& v) { l.options.keepDaily = CountOption("--keep-daily", v); }},
    {"--keep-weekly", "N", "forget: ... of each of the last N weeks",
     [](CommandLine& l, const std::string& v) { l.options.keepWeekly = CountOption("--keep-weekly", v); }},
    {"--keep-monthly", "N", "forget: ... of each of the last N months",
     [](CommandLine& l, const std::string& v) { l.options.keepMonthly = CountOption("--keep-monthly", v); }},
    {"--keep-yearly", "N", "forget: ... of each of the last N years",
     [](CommandLine& l, const std::string& v) { l.options.keepYearly = CountOption("--keep-yearly", v); }},
    {"--prune", nullptr, "forget: prune afterwards", [](CommandLine& l, const std::string&) { l.options.prune = true; }},
    {"--dry-run", nullptr, "forget, prune: say what would be removed, remove nothing",
     [](CommandLine& l, const std::string&) { l.options.dryRun = true; }},
    {"--tier", "TIER", "rehydrate: Hot or Cool (default: Hot)",
     [](CommandLine& l, const std::string& v) {
         if (v != "Hot" && v != "Cool") Usage("--tier takes Hot or Cool, not " + v);
         l.options.rehydrateTier = v;
     }},
    {"--priority", "PRIORITY", "rehydrate: Standard or High (default: Standard; High costs more)",
     [](CommandLine& l, const std::string& v) {
         if (v != "Standard" && v != "High") Usage("--priority takes Standard or High, not " + v);
         l.options.rehydratePriority = v;
     }},
    {"--json", nullptr, "machine-readable output on standard output",
     [](CommandLine& l, const std::string&) { l.options.json = true; }},
    {"--quiet", nullptr, "no progress and no summary", [](CommandLine& l, const std::string&) { l.options.quiet = true; }},
};

constexpr const char* kHelpTail = R"(
help: --help (this text)

the repository: 'init' makes one under --prefix, encrypted with a password
(CLOUDPLUGIN_PASSWORD or --password-file); every backup is a snapshot that
reads only files whose size, time or inode changed and stores each chunk
once, compressed and encrypted. A nightly backup:
  cloudplugin-host backup ~/documents
  cloudplugin-host forget --keep-daily 7 --keep-weekly 4 --prune
  cloudplugin-host check
what a backup keeps: regular files with their content, modification time and
POSIX mode bits; empty folders; symbolic links as links (their target text,
never followed). FIFOs, sockets and devices are skipped. Every skipped or
unreadable entry is reported; a backup that could not read an entry (or
found a name a restore would refuse: '\', ':', control characters) ends with
exit status 4 unless --skip-unreadable is given.
restore refuses any path that could leave DEST_DIR (absolute, '..', and the
like) and never writes through a symbolic link inside DEST_DIR; set-user-ID
and set-group-ID bits are not restored. A file whose data is damaged or
missing is named and not restored; the restore then ends with status 1.
A backup that stopped (a crash, kill -9) leaves packs no index names: the
next backup uses them, 'prune' removes them.

exit status: 0 done, 1 damaged data found, 2 bad command line, 3 the plug-in
answered an operation with a non-zero result code, 4 a local file failed,
5 the JVM or the plug-in could not be set up, 6 no such backup or snapshot,
7 no password or a wrong one, 8 the repository is locked, 9 no repository or
one of a format this tool does not read, 130 interrupted.
)";

std::string CommandForm(const CommandEntry& command) {
    std::string form = command.name;
    for (const char* argument : command.arguments) form += std::string(" ") + argument;
    return form;
}

std::string HelpText() {
    std::string text = "usage: cloudplugin-host [options] COMMAND [ARGUMENTS]\n\ncommands:\n";
    char line[256];
    for (const CommandEntry& command : kCommands) {
        std::snprintf(line, sizeof line, "  %-27s %s\n", CommandForm(command).c_str(), command.summary);
        text += line;
    }
    text += "\noptions:\n";
    for (const OptionEntry& option : kOptions) {
        const std::string left = std::string(option.name) + (option.value ? std::string(" ") + option.value : "");
        std::string help = option.help;
        for (size_t at = help.find('\n'); at != std::string::npos; at = help.find('\n', at + 1)) {
            help.insert(at + 1, std::string(24, ' '));
        }
        std::snprintf(line, sizeof line, "  %-21s ", left.c_str());
        text += line + help + "\n";
    }
    return text + kHelpTail;
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

void AddOptions(CLI::App& app, CommandLine& line) {
    for (const OptionEntry& option : kOptions) {
        if (!option.value) {
            app.add_flag_callback(option.name, [&line, &option] { option.apply(line, ""); });
        } else if (option.repeatable) {
            app.add_option_function<std::vector<std::string>>(option.name, [&line, &option](const auto& values) {
                for (const std::string& value : values) option.apply(line, value);
            });
        } else {
            app.add_option_function<std::string>(option.name,
                                                 [&line, &option](const std::string& v) { option.apply(line, v); });
        }
    }
}

// Each command a subcommand ("object put" one below "object"); options are
// accepted before and after the command word.
void AddCommands(CLI::App& app, CommandLine& line, std::vector<Arguments>& values) {
    values.resize(std::size(kCommands));
    CLI::App* object = app.add_subcommand("object", "single objects")->fallthrough()->require_subcommand(1);
    for (size_t i = 0; i < std::size(kCommands); ++i) {
        const CommandEntry& command = kCommands[i];
        const std::string name = command.name;
        const bool nested = name.compare(0, 7, "object ") == 0;
        CLI::App* sub = (nested ? object : &app)->add_subcommand(nested ? name.substr(7) : name, command.summary);
        sub->fallthrough();
        values[i].resize(command.arguments.size());
        for (size_t k = 0; k < command.arguments.size(); ++k) {
            std::string argument = command.arguments[k];
            const bool optional = argument.front() == '[';
            if (optional) argument = argument.substr(1, argument.size() - 2);
            CLI::Option* positional = sub->add_option(argument, values[i][k]);
            if (!optional) positional->required();
        }
        sub->parse_complete_callback([&line, &values, &command, i] {
            line.command = &command;
            line.arguments = values[i];
        });
    }
}

void ApplyDefaults(CommandLine& line) {
    line.settings.jobs = line.options.jobs;
    line.settings.partSize = line.options.partSize;
    if (line.options.layout.root.empty() || line.options.layout.root.back() == '/') {
        Usage("--prefix takes a name without a trailing '/'");
    }
    if (line.settings.installFolder.empty()) {
        line.settings.installFolder = std::filesystem::u8path(ExecutableFolder()).parent_path().u8string();
    }
    if (line.settings.connectionString.empty()) {
        Usage("no connection string: give --connection or set CLOUDPLUGIN_CONNECTION");
    }
}

// Answers false when the user asked for help (printed).
bool Parse(int argc, char** argv, CommandLine& line) {
    if (const char* connection = std::getenv("CLOUDPLUGIN_CONNECTION")) line.settings.connectionString = connection;
    if (const char* install = std::getenv("CLOUDPLUGIN_INSTALL")) line.settings.installFolder = install;
    if (const char* password = std::getenv("CLOUDPLUGIN_PASSWORD")) line.options.password = password;
    CLI::App app("", "cloudplugin-host");
    std::vector<Arguments> values;
    AddOptions(app, line);
    AddCommands(app, line, values);
    app.require_subcommand(1);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::fputs(HelpText().c_str(), stdout);
        return false;
    } catch (const CLI::ParseError& error) {
        const std::vector<std::string> unknown = app.remaining();
        if (!line.command && !unknown.empty()) Usage("unknown command " + unknown.front());
        if (!line.command) Usage("no command given");
        Usage(error.what());
    }
    ApplyDefaults(line);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string command;
    bool json = false;
    try {
        CommandLine line;
        if (!Parse(argc, argv, line)) return kExitOk;
        command = line.command->name;
        json = line.options.json;
        InstallInterruptHandler();
        HostRuntime runtime(line.settings);
        PluginSession session(runtime.plugin());
        CommandContext context(session, line.options);
        const CommandResult result = line.command->handler(context, line.arguments);
        runtime.Close();
        if (json) std::printf("%s\n", JsonText(result.json).c_str());
        return result.status;
    } catch (const ToolError& error) {
        std::fprintf(stderr, "cloudplugin-host%s%s: %s\n", command.empty() ? "" : " ", command.c_str(), error.what());
        if (json) {
            std::printf("%s\n", JsonText(Json{{"command", command}, {"ok", false}, {"error", error.ToJson()}}).c_str());
        }
        return error.exitStatus();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "cloudplugin-host %s: unexpected failure: %s\n", command.c_str(), error.what());
        return kExitLocalFile;
    }
}
