// What the repository's commands share: opening the repository, naming
// snapshots, and the snapshot filter options.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/Cli.h"
#include "cli/Reporting.h"
#include "repository/Listing.h"
#include "repository/Repository.h"
#include "repository/SnapshotFilter.h"

namespace qvhost::cli {

// Whether a command reads through the local cache: check and repair read
// what the storage holds, nothing else (as restic's check does).
enum class LocalCacheUse { Use, Bypass };

// Refuses (usage) a connection string whose AccessTier would archive every
// object written, the repository's own objects with them.
void RefuseArchivingConnection(const Context& context);

// The repository under --repo, opened with the password, with its local
// cache unless --no-cache (or there is no place for one).
repo::Repository OpenRepository(Context& context, LocalCacheUse cacheUse = LocalCacheUse::Use);

// The folder holding the local caches: --cache-dir, else the default.
std::string CacheRoot(const GlobalOptions& options);

// The snapshot an argument names ("latest" is the newest the filter selects);
// throws Error (not found) when none.
std::string ResolveSnapshot(repo::Repository& repository, const std::string& argument,
                            const repo::SnapshotFilter& filter = {});
Json SnapshotJson(const repo::SnapshotInfo& snapshot);
std::string TagsText(const std::vector<std::string>& tags);

// --host, --tag and --path: which snapshots the command considers (for
// 'latest' too).
void AddFilterOptions(CLI::App* command, repo::SnapshotFilter& filter, const std::string& what);

// A line of the command's own output on standard output (whatever --quiet says:
// what ls and find list is what was asked for).
void PrintLine(const std::string& line);

// An entry of a snapshot as ls -l shows it: mode, owner, group, size,
// local time, path (-> target); and as --json shows it.
std::string LongEntryLine(const repo::ListedEntry& entry);
Json EntryJson(const repo::ListedEntry& entry);

// Asks for what a snapshot needs to come back, in three stages (the
// repository's own objects, the packs of trees, the snapshot's packs),
// going on to the next only when the one before is online; answers the
// stage reached, with `state` of that stage.
std::string RehydrateSnapshot(Context& context, const std::string& snapshotArgument,
                              const repo::RehydrateRequest& request, repo::Rehydration& state);

// --rehydrate, --wait and --wait-interval (with rehydrate's --tier and
// --priority): a command that reads archived packs first asks for them.
struct RehydrateChoice {
    bool rehydrate = false;
    bool wait = false;
    uint64_t waitSeconds = 600;
    repo::RehydrateRequest request;
};
// `then`: what the command does once the packs are back ("restore").
void AddRehydrateChoiceOptions(CLI::App* command, RehydrateChoice& choice, const std::string& then);

// Asks for what `ask` names (it fills the state and answers the stage
// reached, e.g. "packs") and says where that stands; with --wait asks again
// every --wait-interval until all of it is online. Whether it is.
bool BringBack(Context& context, const RehydrateChoice& choice, const std::string& what,
               const std::function<std::string(repo::Rehydration& state)>& ask);

}  // namespace qvhost::cli
