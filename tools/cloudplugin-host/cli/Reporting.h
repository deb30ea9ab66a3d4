// How commands of both layouts report what they did the same way: skipped
// entries, damaged files, set-ID bits not restored, rehydrations.
#pragma once

#include <string>
#include <vector>

#include "cli/Cli.h"
#include "repository/Rehydrate.h"
#include "repository/RestoreSink.h"
#include "util/Entry.h"

namespace qvhost::cli {

std::string ShortId(const std::string& id);

// One line each on standard error ("skipped ...", "NOT BACKED UP ..."), and
// the --json list.
Json ReportSkipped(const Context& context, const std::vector<SkippedEntry>& skipped);
// One "DAMAGED ..." line each, and the --json list.
Json ReportDamaged(const Context& context, const std::vector<repo::RestoreProblem>& damaged);
void ReportSetIdDropped(const Context& context, const std::vector<std::string>& paths);

// Where a rehydration stands: "N objects asked to come back now, N on
// their way, N online".
std::string RehydrationText(const repo::Rehydration& state);
// Where a rehydration stands, said and as --json.
CommandResult RehydrationResult(Context& context, const std::string& target, const std::string& stage,
                                const repo::RehydrateRequest& request, const repo::Rehydration& state);
// --tier and --priority.
void AddRehydrateOptions(CLI::App* command, repo::RehydrateRequest& request);

}  // namespace qvhost::cli
