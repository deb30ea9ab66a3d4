// Pruning, as prune and forget --prune run it.
#pragma once

#include "cli/Cli.h"
#include "cli/RepositorySupport.h"
#include "repository/Prune.h"

namespace qvhost::cli {

// Plans, says the plan, and (unless a dry run) executes it and says what
// it did; answers the --json figures. The caller holds the exclusive lock.
Json Prune(Context& context, repo::Repository& repository, bool dryRun);

// Asks for the partly used archived packs a prune would rewrite, each time
// under a shared lock of `command`'s (a wait of hours holds up no backup),
// asking again as `choice` says. The caller holds no lock.
void BringBackPacksToRewrite(Context& context, repo::Repository& repository, const RehydrateChoice& choice,
                             const std::string& command);

}  // namespace qvhost::cli
