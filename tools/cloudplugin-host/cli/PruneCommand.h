// Pruning, as prune and forget --prune run it.
#pragma once

#include "cli/Cli.h"
#include "repository/Prune.h"

namespace qvhost::cli {

// Plans, says the plan, and (unless a dry run) executes it and says what
// it did; answers the --json figures. The caller holds the exclusive lock.
Json Prune(Context& context, repo::Repository& repository, bool dryRun);

}  // namespace qvhost::cli
