// The repository's commands in a build without the repository (the Windows
// cross build: no OpenSSL or zstd for it here). Backups of the version 2
// layout work as before; the rest says plainly that this build lacks it.
#include "cli/Commands.h"
#include "util/ToolError.h"

namespace qvhost {

namespace {

[[noreturn]] CommandResult Unavailable(const char* command) {
    throw ToolError(kExitUnsupported, std::string(command) +
                                          ": this build of cloudplugin-host has no repository support (build it "
                                          "with OpenSSL 3 and zstd); backups of the version 2 layout work "
                                          "(backup --legacy, list, restore, verify)");
}

}  // namespace

bool NamesSnapshot(const std::string&) { return false; }

CommandResult InitCommand(CommandContext&, const Arguments&) { Unavailable("init"); }
CommandResult SnapshotsCommand(CommandContext& context, const Arguments& arguments) {
    return ListCommand(context, arguments);
}
CommandResult CheckCommand(CommandContext&, const Arguments&) { Unavailable("check"); }
CommandResult ForgetCommand(CommandContext&, const Arguments&) { Unavailable("forget"); }
CommandResult DiffCommand(CommandContext&, const Arguments&) { Unavailable("diff"); }
CommandResult LocksCommand(CommandContext&, const Arguments&) { Unavailable("locks"); }
CommandResult UnlockCommand(CommandContext&, const Arguments&) { Unavailable("unlock"); }
CommandResult BackupCommand(CommandContext& context, const Arguments& arguments) {
    if (!context.options.legacy) Unavailable("backup");
    return LegacyBackupCommand(context, arguments);
}
CommandResult RestoreCommand(CommandContext& context, const Arguments& arguments) {
    return LegacyRestoreCommand(context, arguments);
}
CommandResult RehydrateCommand(CommandContext&, const Arguments&) { Unavailable("rehydrate"); }
CommandResult PruneCommand(CommandContext& context, const Arguments& arguments) {
    return LegacyPruneCommand(context, arguments);
}

}  // namespace qvhost
