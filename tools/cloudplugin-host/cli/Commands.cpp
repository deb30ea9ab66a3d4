// The table of every command, in the order help lists them.
#include "cli/Help.h"

namespace qvhost::cli {

void AddCommands(CommandTable& table) {
    AddInitCommand(table);
    AddBackupCommand(table);
    AddSnapshotsCommand(table);
    AddRestoreCommand(table);
    AddDiffCommand(table);
    AddLsCommand(table);
    AddFindCommand(table);
    AddDumpCommand(table);
    AddStatsCommand(table);
    AddTagCommand(table);
    AddCheckCommand(table);
    AddForgetCommand(table);
    AddPruneCommand(table);
    AddRepairCommands(table);
    AddLocksCommands(table);
    AddKeyCommands(table);
    AddRehydrateCommand(table);
    AddCacheCommand(table);
    AddLegacyCommands(table);
    AddInfoCommands(table);
    AddObjectCommands(table);
    AddHelpCommands(table);
}

}  // namespace qvhost::cli
