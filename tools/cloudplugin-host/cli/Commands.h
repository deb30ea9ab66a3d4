// The tool's commands. Each runs against an initialised plug-in session and
// answers a result for --json together with the exit status; the human
// summary is printed as it goes (unless --json or --quiet).
//
// One file per family: BackupCommand.cpp (backup), RestoreCommands.cpp
// (restore, verify), StorageCommands.cpp (list, delete, prune and the
// object commands), InfoCommands.cpp (info, bench). main.cpp holds the
// table that names them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "util/Json.h"
#include "local/LocalFiles.h"
#include "legacy/Manifest.h"
#include "host/PluginSession.h"
#include "cli/Progress.h"

namespace qvhost {

struct CommandOptions {
    BackupLayout layout;
    // 8 MiB: one request per part (the Java library sends up to 8 MiB in one
    // Put Blob), little memory per job, and large files still spread over
    // all the jobs. Measured in docs/performance.md.
    uint64_t partSize = 8ull << 20;
    unsigned jobs = 4;
    bool json = false;
    bool quiet = false;
    std::string backupName;       // backup: the id to use instead of a new one
    bool skipUnreadable = false;  // backup: unreadable entries do not make the exit status 4
    bool overwrite = false;       // restore: replace existing files and links
    bool all = false;             // list: incomplete backups too
    int64_t olderThanSeconds = 24 * 3600;  // prune
    std::vector<uint64_t> benchSizes = {1ull << 20, 16ull << 20, 64ull << 20};
    std::vector<unsigned> benchThreads = {1, 2};
    uint64_t benchBytes = 256ull << 20;  // bytes written per size and thread count
    Metadata objectMetadata;             // object put: the object's metadata

    // The repository (init, backup, snapshots, restore, check, forget, prune, diff, locks).
    std::string password;                // from CLOUDPLUGIN_PASSWORD or --password-file
    bool legacy = false;                 // backup: the version 2 layout (an object per part, no repository)
    std::string host;                    // backup: the host a snapshot names (default: this machine's name)
    std::vector<std::string> tags;       // backup: tags of the snapshot
    bool ignoreParent = false;           // backup: read every file
    int64_t lockWaitSeconds = 0;         // how long to wait for a lock another process holds
    uint64_t kdfMemory = 64ull << 20;    // init: the password's key derivation memory
    uint64_t packSize = 16ull << 20;     // init: the size packs aim at
    bool readData = false;               // check: read every pack
    bool dryRun = false;                 // forget, prune: say what would go, remove nothing
    bool prune = false;                  // forget: prune afterwards
    unsigned keepLast = 0, keepHourly = 0, keepDaily = 0, keepWeekly = 0, keepMonthly = 0, keepYearly = 0;
    std::string rehydrateTier = "Hot";          // rehydrate: the online tier to bring objects back to
    std::string rehydratePriority = "Standard";  // rehydrate: Standard or High
};

struct CommandResult {
    Json json = Json::object();
    int status = 0;
};

// What every command works with: the plug-in session, the options, and the
// ways to speak to the user.
class CommandContext {
public:
    CommandContext(PluginSession& session, const CommandOptions& options) : session(session), options(options) {}

    // A line of the human summary on standard output.
    void Say(const std::string& text) const;
    // A warning line on standard error (not under --json, whose document
    // carries the same facts).
    void Warn(const std::string& text) const;
    // How much of the command's thread time went into plug-in calls.
    void SayPluginShare(double pluginSeconds, double seconds) const;
    ProgressStyle Style() const;

    PluginSession& session;
    const CommandOptions options;
};

using Arguments = std::vector<std::string>;
using CommandHandler = CommandResult (*)(CommandContext& context, const Arguments& arguments);

CommandResult BackupCommand(CommandContext& context, const Arguments& arguments);
CommandResult RestoreCommand(CommandContext& context, const Arguments& arguments);
CommandResult VerifyCommand(CommandContext& context, const Arguments& arguments);
CommandResult ListCommand(CommandContext& context, const Arguments& arguments);
CommandResult DeleteCommand(CommandContext& context, const Arguments& arguments);
CommandResult PruneCommand(CommandContext& context, const Arguments& arguments);
CommandResult InfoCommand(CommandContext& context, const Arguments& arguments);
CommandResult BenchCommand(CommandContext& context, const Arguments& arguments);
CommandResult ObjectPutCommand(CommandContext& context, const Arguments& arguments);
CommandResult ObjectGetCommand(CommandContext& context, const Arguments& arguments);
CommandResult ObjectDeleteCommand(CommandContext& context, const Arguments& arguments);
CommandResult ObjectListCommand(CommandContext& context, const Arguments& arguments);
CommandResult ObjectTierCommand(CommandContext& context, const Arguments& arguments);
CommandResult InitCommand(CommandContext& context, const Arguments& arguments);
CommandResult SnapshotsCommand(CommandContext& context, const Arguments& arguments);
CommandResult CheckCommand(CommandContext& context, const Arguments& arguments);
CommandResult ForgetCommand(CommandContext& context, const Arguments& arguments);
CommandResult DiffCommand(CommandContext& context, const Arguments& arguments);
CommandResult LocksCommand(CommandContext& context, const Arguments& arguments);
CommandResult UnlockCommand(CommandContext& context, const Arguments& arguments);
CommandResult RehydrateCommand(CommandContext& context, const Arguments& arguments);
// The version 2 layout's commands, which backup, restore and prune use for
// backups of that layout.
CommandResult LegacyBackupCommand(CommandContext& context, const Arguments& arguments);
CommandResult LegacyRestoreCommand(CommandContext& context, const Arguments& arguments);
CommandResult LegacyPruneCommand(CommandContext& context, const Arguments& arguments);
// Whether an argument of restore names a snapshot rather than a backup of
// the version 2 layout.
bool NamesSnapshot(const std::string& argument);

// ---- shared by the commands

// "64M", "1G", "4096", "512K" (binary units); 0 for text that is not a size.
uint64_t ParseSize(const std::string& text);
// "30m", "24h", "7d", "90s" or "0"; -1 for text that is not an age.
int64_t ParseAge(const std::string& text);

// The current UTC time in strftime's `format`.
std::string UtcNow(const char* format);
// "YYYY-MM-DDTHH:MM:SSZ" of seconds since 1970; "unknown" for a negative time.
std::string UtcTimeText(int64_t seconds);
// UTC time of "YYYY-MM-DDTHH:MM:SSZ" in seconds since 1970; -1 if the text is not one.
int64_t ParseUtcTime(const std::string& text);
// A new backup id: the UTC time and four random hex digits.
std::string NewBackupId();
double MiBPerSecond(uint64_t bytes, double seconds);
// The --json list of entries a backup skipped or could not read.
Json SkippedJson(const std::vector<SkippedEntry>& skipped);
// Text from storage made safe for a terminal: control characters as \xNN.
std::string Printable(const std::string& text);

}  // namespace qvhost
