// The repository's commands in a build without the repository (the Windows
// build, which has no OpenSSL or zstd): each is listed, takes any
// arguments, and says in one line that this build cannot run it.
#include "cli/Cli.h"

namespace qvhost::cli {

namespace {

void AddUnavailable(CommandTable& table, const std::string& name, const std::string& summary) {
    table.Add({name, summary + " (not in this build)",
               "This build of cloudplugin-host has no repository (it was built without OpenSSL and zstd); the "
               "'legacy' commands work on backups of the version 2 layout."},
              [name](Context&) -> CommandResult {
                  throw Error(ErrorKind::Unsupported, "this build has no repository, so '" + name +
                                                          "' cannot run here; 'cloudplugin-host legacy' commands "
                                                          "keep backups in the version 2 layout");
              })
        ->fallthrough(false)
        ->allow_extras();
}

}  // namespace

void AddInitCommand(CommandTable& table) {
    AddUnavailable(table, "init", "make a new encrypted repository");
    AddUnavailable(table, "data-tier", "show or change the tier of the data packs");
}
void AddBackupCommand(CommandTable& table) { AddUnavailable(table, "backup", "back up a folder as a new snapshot"); }
void AddSnapshotsCommand(CommandTable& table) { AddUnavailable(table, "snapshots", "the repository's snapshots"); }
void AddRestoreCommand(CommandTable& table) { AddUnavailable(table, "restore", "restore a snapshot"); }
void AddCheckCommand(CommandTable& table) { AddUnavailable(table, "check", "check the repository"); }
void AddForgetCommand(CommandTable& table) { AddUnavailable(table, "forget", "remove snapshots"); }
void AddPruneCommand(CommandTable& table) { AddUnavailable(table, "prune", "remove chunks no snapshot needs"); }
void AddDiffCommand(CommandTable& table) { AddUnavailable(table, "diff", "what changed between two snapshots"); }
void AddLsCommand(CommandTable& table) { AddUnavailable(table, "ls", "the entries of a snapshot"); }
void AddFindCommand(CommandTable& table) { AddUnavailable(table, "find", "find files in snapshots"); }
void AddDumpCommand(CommandTable& table) { AddUnavailable(table, "dump", "a file or folder of a snapshot"); }
void AddStatsCommand(CommandTable& table) { AddUnavailable(table, "stats", "how big snapshots are"); }
void AddTagCommand(CommandTable& table) { AddUnavailable(table, "tag", "change snapshots' tags"); }
void AddLocksCommands(CommandTable& table) {
    AddUnavailable(table, "locks", "the repository's locks");
    AddUnavailable(table, "unlock", "remove stale locks");
}
void AddKeyCommands(CommandTable& table) {
    table.Group("key", "the repository's passwords", "The repository's key objects, one per password.");
    AddUnavailable(table, "key list", "the repository's keys");
    AddUnavailable(table, "key add", "add a password");
    AddUnavailable(table, "key passwd", "change the password");
    AddUnavailable(table, "key remove", "remove a key");
}
void AddRehydrateCommand(CommandTable& table) { AddUnavailable(table, "rehydrate", "rehydrate a snapshot"); }
void AddCacheCommand(CommandTable& table) { AddUnavailable(table, "cache", "the local caches"); }
void AddRepairCommands(CommandTable& table) {
    table.Group("repair", "rebuild the index, repair snapshots", "Repairs of a damaged repository.");
    AddUnavailable(table, "repair index", "rebuild the index from the packs");
    AddUnavailable(table, "repair snapshots", "repair snapshots that name lost data");
}

}  // namespace qvhost::cli
