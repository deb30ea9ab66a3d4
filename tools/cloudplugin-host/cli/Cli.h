// The command line: the options every command takes, what a command runs
// with, and the table every command adds itself to. One file per command
// (or per small family: object, legacy, locks) declares its own options
// and arguments with CLI11 and states what it does; help, the man page and
// the shell completions are all written from that one table (Help.cpp).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/ExitStatus.h"
#include "cli/ProgressDisplay.h"
#include "host/HostRuntime.h"
#include "host/StorageCost.h"
#include "util/Json.h"

namespace qvhost {
class PluginSession;
namespace repo {
class ObjectStore;
}
}  // namespace qvhost

namespace qvhost::cli {

// Options every command takes, before or after the command word.
struct GlobalOptions {
    HostSettings host;
    std::string repo = "cloudplugin-host";  // -r, --repo: the prefix of every object name
    std::string password;                   // CLOUDPLUGIN_PASSWORD or --password-file
    int64_t lockWaitSeconds = 0;
    std::string folder;    // --folder: the repository in this local folder, not the storage
    std::string cacheDir;  // --cache-dir; empty: LocalCache::DefaultRoot()
    bool noCache = false;  // --no-cache
    std::string pricesFile;               // --prices FILE, else $CLOUDPLUGIN_PRICES
    PriceTable prices = DefaultPrices();  // pricesFile's table when one is named
    bool json = false;
    bool quiet = false;
    int verbose = 0;
    bool help = false;     // -h, --help
    bool version = false;  // --version
};

// What a command answers: its --json document and its exit status.
struct CommandResult {
    Json json = Json::object();
    int status = kExitOk;
    bool printed = false;  // the command wrote its own --json output (ls: a line per entry)
    // The command ended with a human summary (backup, restore, check, ...):
    // the line of its storage requests and their cost follows it.
    bool summarised = false;
};

// What a command runs with: the options, the plug-in (started on first
// use: help and the like need no JVM), and the ways to speak to the user.
class Context {
public:
    explicit Context(GlobalOptions& options);
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    const GlobalOptions& options() const { return options_; }
    // Changed only before the plug-in starts (the JVM is sized from them).
    HostSettings& host() { return options_.host; }

    // The plug-in session: the JVM, the plug-in and Init on first use.
    // Throws Error (usage) without a connection string.
    PluginSession& Session();
    // The same, for callers that check every byte they read against a hash
    // of their own (the repository: AES-GCM and blob ids; the legacy layout:
    // each part's SHA-256): when the session opens here, the Java library's
    // MD5 pass over whole-object reads is turned off, as it would only cost
    // (about 1.7 s of CPU a GiB) and prove nothing more.
    PluginSession& VerifyingSession();
    // The repository's objects: in the local folder of --folder, else in
    // the storage through the verifying session.
    repo::ObjectStore& Store();
    // Thread time spent in plug-in calls so far (0 with --folder).
    double PluginSeconds();
    // What the command's requests to the storage were; none when it made
    // none (the plug-in never started).
    std::optional<StorageTraffic> Traffic() const;
    // Ends the plug-in session (DeInit), reporting a failure.
    void Close();

    // A line of the human summary on standard output (not with --json or --quiet).
    void Say(const std::string& text) const;
    // The same, only with --verbose.
    void Verbose(const std::string& text) const;
    // A warning line on standard error (not with --json, whose document carries the same facts).
    void Warn(const std::string& text) const;
    // How much of the command's thread time went into plug-in calls.
    void SayPluginShare(double pluginSeconds, double seconds, unsigned jobs) const;
    // Where long work shows its progress: none with --json or --quiet.
    ProgressSink* Display() { return display_.sink(); }

private:
    GlobalOptions& options_;
    ProgressDisplay display_;
    std::unique_ptr<HostRuntime> runtime_;
    std::unique_ptr<PluginSession> session_;
    bool callerVerifiesReads_ = false;
    std::unique_ptr<repo::ObjectStore> store_;
};

using Runner = std::function<CommandResult(Context& context)>;

// A command as help shows it.
struct CommandText {
    std::string name;         // "backup", "object put", "legacy restore"
    std::string summary;      // one line
    std::string description;  // paragraphs ('\n\n' between them) for 'help COMMAND' and the man page
};

// The commands and their CLI11 subcommands.
class CommandTable {
public:
    explicit CommandTable(CLI::App& app) : app_(app) {}

    // Adds a command (a name of two words goes under its group, made with
    // the first of them) and answers its subcommand, for the command's own
    // options and arguments.
    CLI::App* Add(const CommandText& text, Runner runner);
    // A group of commands ("object", "legacy"): the word alone runs nothing.
    CLI::App* Group(const std::string& name, const std::string& summary, const std::string& description);

    struct Entry {
        CommandText text;
        CLI::App* app = nullptr;
        Runner runner;  // empty for a group
    };
    const std::vector<Entry>& entries() const { return entries_; }
    const Entry* Find(const std::string& name) const;
    // The command the parse selected (the deepest subcommand given); null when none.
    const Entry* Selected() const;
    CLI::App& app() { return app_; }

private:
    CLI::App& app_;
    std::vector<Entry> entries_;
};

// ---- shared option helpers (each throws Error, usage, naming the option)

// A size such as 64M within [minimum, maximum].
uint64_t SizeArgument(const std::string& option, const std::string& text, uint64_t minimum, uint64_t maximum);
// A whole number from 1 to `maximum`.
unsigned CountArgument(const std::string& option, const std::string& text, unsigned maximum = 256);
// An age such as 30m, 24h, 7d.
int64_t AgeArgument(const std::string& option, const std::string& text);

// A password from a file: its first line, without the line end. Throws
// Error (local file) when the file cannot be read.
std::string ReadPasswordFile(const std::string& path);

// ---- the commands, one function per file of cli/

void AddInitCommand(CommandTable& table);
void AddBackupCommand(CommandTable& table);
void AddSnapshotsCommand(CommandTable& table);
void AddRestoreCommand(CommandTable& table);
void AddCheckCommand(CommandTable& table);
void AddForgetCommand(CommandTable& table);
void AddPruneCommand(CommandTable& table);
void AddDiffCommand(CommandTable& table);
void AddLsCommand(CommandTable& table);
void AddFindCommand(CommandTable& table);
void AddDumpCommand(CommandTable& table);
void AddStatsCommand(CommandTable& table);
void AddTagCommand(CommandTable& table);
void AddLocksCommands(CommandTable& table);
void AddKeyCommands(CommandTable& table);
void AddRehydrateCommand(CommandTable& table);
void AddCacheCommand(CommandTable& table);
void AddRepairCommands(CommandTable& table);
void AddInfoCommands(CommandTable& table);
void AddObjectCommands(CommandTable& table);
void AddLegacyCommands(CommandTable& table);
void AddHelpCommands(CommandTable& table);

// Every command of cloudplugin-host, in the order help lists them
// (cli/Commands.cpp).
void AddCommands(CommandTable& table);

// A program on this command line: cloudplugin-host, or a fixture program of
// the tests with commands of its own (tools/version2-writer).
struct Program {
    std::string name = "cloudplugin-host";  // begins every error line
    void (*addCommands)(CommandTable&) = AddCommands;
};

// The whole command line: the global options bound to `options`, and
// every command of `program` in `table` (which must be made on `app`).
void DefineCommandLine(CLI::App& app, GlobalOptions& options, CommandTable& table, const Program& program = {});

// Parses, runs the command, reports; answers the exit status.
int Main(int argc, char** argv, const Program& program = {});

}  // namespace qvhost::cli
