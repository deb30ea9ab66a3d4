// From the process's arguments to an exit status: the global options, the
// parse, the command, and the one place where a failure becomes a line on
// standard error (and a --json document) and an exit status.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "cli/Cli.h"
#include "cli/Help.h"
#include "host/PluginSession.h"
#include "local/LocalFiles.h"
#include "util/Interrupt.h"
#include "util/Text.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace qvhost::cli {

namespace {

// Far beyond any password or price table; a file larger is not one.
constexpr size_t kPasswordFileLimit = 64u << 10;
constexpr size_t kPriceTableLimit = 1u << 20;

}  // namespace

std::string ReadPasswordFile(const std::string& path) {
    std::string text = ReadUserFile(path, "password file", kPasswordFileLimit);
    text.resize(std::min(text.size(), text.find('\n')));
    if (!text.empty() && text.back() == '\r') text.pop_back();
    return text;
}

namespace {

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

void AddGlobalOptions(CLI::App& app, GlobalOptions& options) {
    const std::string group = "global options";
    app.add_option("--connection", options.host.connectionString,
                   "the storage library's init string (default: $CLOUDPLUGIN_CONNECTION)")
        ->group(group);
    app.add_option("-r,--repo", options.repo, "prefix of every object name the tool writes (default: cloudplugin-host)")
        ->group(group)
        ->each([](const std::string& value) {
            if (value.empty() || value.back() == '/') {
                throw Error(ErrorKind::Usage, "--repo takes a name without a trailing '/'");
            }
        });
    app.add_option_function<std::string>(
           "--password-file", [&options](const std::string& path) { options.password = ReadPasswordFile(path); },
           "the repository's password: the first line of FILE (default: $CLOUDPLUGIN_PASSWORD)")
        ->type_name("FILE")
        ->group(group);
    app.add_option_function<std::string>(
           "-j,--jobs",
           [&options](const std::string& text) { options.host.jobs = CountArgument("--jobs", text); },
           "pieces of work in flight at once, one thread each (default: 4)")
        ->type_name("N")
        ->group(group);
    app.add_option_function<std::string>(
           "--lock-wait", [&options](const std::string& text) { options.lockWaitSeconds = AgeArgument("--lock-wait", text); },
           "wait up to AGE for a lock another process holds (30s, 10m; default: 0)")
        ->type_name("AGE")
        ->group(group);
    app.add_option("--folder", options.folder,
                   "keep the repository in this local folder instead of the storage (no plug-in, no JVM)")
        ->type_name("DIR")
        ->group(group);
    app.add_option("--cache-dir", options.cacheDir,
                   "the local cache of index, snapshot and tree objects (default: $CLOUDPLUGIN_CACHE_DIR, else "
                   "$XDG_CACHE_HOME/cloudplugin-host, else ~/.cache/cloudplugin-host)")
        ->type_name("DIR")
        ->group(group);
    app.add_flag("--no-cache", options.noCache, "read everything from the storage, keep nothing locally")->group(group);
    app.add_option("--prices", options.pricesFile,
                   "the price table cost estimates use, as JSON (default: $CLOUDPLUGIN_PRICES, else Azure's list "
                   "prices)")
        ->type_name("FILE")
        ->group(group);
    app.add_flag("--json", options.json, "machine-readable output on standard output")->group(group);
    app.add_flag("-q,--quiet", options.quiet, "no progress and no summary")->group(group);
    app.add_flag("-v,--verbose", options.verbose, "more detail (what a backup reads, and the like)")->group(group);
    const std::string set = "set-up options";
    app.add_option("--install", options.host.installFolder,
                   "install folder holding Plugin/Azure/ (default: $CLOUDPLUGIN_INSTALL, else the folder above the "
                   "tool's own)")
        ->type_name("DIR")
        ->group(set);
    app.add_option("--plugin", options.host.pluginLibrary, "the plug-in library (default: DIR/Plugin/Azure/<library>)")
        ->type_name("FILE")
        ->group(set);
    app.add_option("--java-home", options.host.javaHome,
                   "the Java runtime (default: $JAVA_HOME, else the java on the PATH)")
        ->type_name("DIR")
        ->group(set);
    app.add_option("--log-folder", options.host.logFolder,
                   "the plug-in's log folder, also holding the Java library's log (default: DIR/Plugin/Azure/Log)")
        ->type_name("DIR")
        ->group(set);
    app.add_option("--jvm-option", options.host.jvmOptions, "an extra JVM option, e.g. -Xmx2g (repeatable)")
        ->type_name("OPTION")
        ->allow_extra_args(false)
        ->group(set);
}

void ReadEnvironment(GlobalOptions& options) {
    if (const char* connection = std::getenv("CLOUDPLUGIN_CONNECTION")) options.host.connectionString = connection;
    if (const char* install = std::getenv("CLOUDPLUGIN_INSTALL")) options.host.installFolder = install;
    if (const char* password = std::getenv("CLOUDPLUGIN_PASSWORD")) options.password = password;
    if (const char* prices = std::getenv("CLOUDPLUGIN_PRICES")) options.pricesFile = prices;
}

// What the command asked of the storage, in its --json document and after
// its human summary.
void ReportTraffic(Context& context, CommandResult& result) {
    const std::optional<StorageTraffic> traffic = context.Traffic();
    if (!traffic) return;
    const PriceTable& prices = context.options().prices;
    if (result.json.is_object()) result.json["storage_traffic"] = TrafficJson(*traffic, prices);
    if (result.summarised) context.Say(TrafficText(*traffic, prices));
}

// `detail`: for a plug-in failure, the storage library's own reason (from
// its log), which the result code alone does not give.
void Report(const Program& program, const Error& error, const std::string& command, const std::string& target,
            bool json, const std::string& detail, int& status) {
    const ExitVerdict verdict = ExitFor(error, command, target);
    std::fprintf(stderr, "%s%s%s: %s%s%s\n", program.name.c_str(), command.empty() ? "" : " ", command.c_str(),
                 error.what(),
                 detail.empty() ? "" : (": " + detail).c_str(),
                 verdict.hint.empty() ? "" : (" (" + verdict.hint + ")").c_str());
    if (json) {
        Json failure = ErrorJson(error, verdict.status);
        if (!detail.empty()) failure["detail"] = detail;
        std::printf("%s\n", JsonText(Json{{"command", command}, {"ok", false}, {"error", std::move(failure)}}).c_str());
    }
    status = verdict.status;
}

// The command an argument list names, for --help: its first words that are
// a command (a group and its member), whatever options stand around them.
const CommandTable::Entry* CommandNamed(const CommandTable& table, int argc, char** argv) {
    const CommandTable::Entry* found = nullptr;
    for (int i = 1; i < argc && std::string(argv[i]) != "--"; ++i) {
        const std::string word = argv[i];
        const std::string name = found ? found->text.name + " " + word : word;
        if (const CommandTable::Entry* entry = table.Find(name)) {
            found = entry;
        } else if (found && word[0] != '-') {
            break;
        }
    }
    return found;
}

std::string MembersOf(const CommandTable& table, const std::string& group) {
    std::string members;
    for (const CommandTable::Entry& entry : table.entries()) {
        if (entry.text.name.rfind(group + " ", 0) == 0) {
            members += (members.empty() ? "" : ", ") + entry.text.name.substr(group.size() + 1);
        }
    }
    return members;
}

bool AsksForHelp(int argc, char** argv) {
    for (int i = 1; i < argc && std::string(argv[i]) != "--"; ++i) {
        const std::string word = argv[i];
        if (word == "-h" || word == "--help") return true;
    }
    return false;
}

// The first argument of the command, for hints that name it.
std::string TargetOf(const CLI::App& command) {
    for (const CLI::Option* option : command.get_options()) {
        if (option->get_positional() && option->count() > 0) return option->results().front();
    }
    return "";
}

}  // namespace

void DefineCommandLine(CLI::App& app, GlobalOptions& options, CommandTable& table, const Program& program) {
    app.set_help_flag();  // help is written by Help.cpp
    // CLI11 takes "/name" for an option on Windows; here it is always a path.
    app.allow_windows_style_options(false);
    app.add_flag("-h,--help", options.help, "this text, or with a command that command's")->group("global options");
    app.add_flag("--version", options.version,
                 "the versions of the tool, the plug-in, the Java library and the repository format")
        ->group("global options");
    AddGlobalOptions(app, options);
    program.addCommands(table);
    app.require_subcommand(0, 1);
}

int Main(int argc, char** argv, const Program& program) {
    GlobalOptions options;
    ReadEnvironment(options);
    CLI::App app("a backup program on the cloud-storage plug-in", program.name);
    CommandTable table(app);
    DefineCommandLine(app, options, table, program);
    std::string command;
    int status = kExitOk;
    // Where the Java library's records of this run begin in its log.
    std::string javaLog;
    uint64_t javaLogStart = 0;
    // Help needs no valid command line: 'backup --help' lacks SOURCE_DIR.
    if (AsksForHelp(argc, argv)) return PrintHelp(table, CommandNamed(table, argc, argv)), kExitOk;
    try {
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            const CommandTable::Entry* selected = table.Selected();
            if (selected) command = selected->text.name;
            throw Error(ErrorKind::Usage, ParseErrorText(app, error, table));
        }
        const CommandTable::Entry* selected = table.Selected();
        if (selected) command = selected->text.name;
        if (options.version) return PrintVersion(), kExitOk;
        // Read once the command line is: --prices replaces $CLOUDPLUGIN_PRICES unread.
        if (!options.pricesFile.empty()) {
            options.prices = ParsePriceTable(ReadUserFile(options.pricesFile, "price table", kPriceTableLimit),
                                             options.pricesFile);
        }
        if (!selected) throw Error(ErrorKind::Usage, "no command given");
        if (!selected->runner) throw Error(ErrorKind::Usage, command + " takes a command: " + MembersOf(table, command));
        if (options.host.installFolder.empty()) {
            options.host.installFolder = std::filesystem::u8path(ExecutableFolder()).parent_path().u8string();
        }
        InstallInterruptHandler();
        javaLog = JavaLogFileOf(options.host);
        javaLogStart = JavaLogSize(javaLog);
        Context context(options);
        CommandResult result = selected->runner(context);
        ReportTraffic(context, result);
        context.Close();
        if (options.json && !result.printed) std::printf("%s\n", JsonText(result.json).c_str());
        return result.status;
    } catch (const Error& error) {
        const CommandTable::Entry* selected = table.Selected();
        const bool plugin = dynamic_cast<const PluginError*>(&error) != nullptr;
        const std::string detail = plugin && !javaLog.empty() ? LastJavaFailure(javaLog, javaLogStart) : "";
        Report(program, error, command, selected ? TargetOf(*selected->app) : "", options.json, detail, status);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s %s: unexpected failure: %s\n", program.name.c_str(), command.c_str(), error.what());
        status = kExitFailed;
    }
    return status;
}

}  // namespace qvhost::cli
