// find: which snapshots hold entries whose names (or paths) match patterns.
#include <algorithm>

#include "cli/RepositorySupport.h"
#include "repository/Listing.h"
#include "repository/Locks.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct FindOptions {
    std::vector<std::string> patterns;
    std::vector<std::string> snapshots;
    std::string newest;
    std::string oldest;
    bool ignoreCase = false;
    bool longFormat = false;
    repo::SnapshotFilter filter;
};

// A time bound in nanoseconds; a --newest of a day alone takes in the whole day.
int64_t TimeBound(const std::string& option, const std::string& text, bool newest) {
    const int64_t seconds = ParseLocalTime(text);
    if (seconds < 0) {
        throw Error(ErrorKind::Usage, option + " takes a time such as 2024-05-07, '2024-05-07 18:30' or "
                                               "'2024-05-07 18:30:00' (local), not " + text);
    }
    const int64_t day = newest && text.size() == 10 ? kSecondsPerDay : 0;
    return (seconds + day) * 1000000000 - (day ? 1 : 0);
}

repo::FindQuery QueryOf(const FindOptions& options) {
    repo::FindQuery query;
    for (const std::string& text : options.patterns) {
        if (!text.empty() && text[0] == '!') throw Error(ErrorKind::Usage, "find takes no negated pattern: " + text);
        query.patterns.emplace_back(text, options.ignoreCase);
    }
    if (!options.oldest.empty()) query.oldestNs = TimeBound("--oldest", options.oldest, false);
    if (!options.newest.empty()) query.newestNs = TimeBound("--newest", options.newest, true);
    return query;
}

// The snapshots searched, oldest first: those named, else all the filter selects.
std::vector<repo::SnapshotInfo> Searched(repo::Repository& repository, const FindOptions& options) {
    std::vector<std::string> named;
    for (const std::string& argument : options.snapshots) {
        named.push_back(ResolveSnapshot(repository, argument, options.filter));
    }
    std::vector<repo::SnapshotInfo> searched;
    for (const repo::SnapshotInfo& info : repository.ListSnapshotInfos()) {
        const bool chosen = named.empty() ? options.filter.Matches(info)
                                          : std::find(named.begin(), named.end(), info.id) != named.end();
        if (chosen) searched.push_back(info);
    }
    return searched;
}

Json SearchSnapshot(Context& context, repo::TreeReader& reader, const repo::Snapshot& snapshot,
                    const repo::FindQuery& query, bool longFormat) {
    const std::vector<repo::ListedEntry> found = repo::FindInSnapshot(reader, snapshot, query);
    Json matches = Json::array();
    if (!found.empty() && !context.options().json) {
        PrintLine("Found matching entries in snapshot " + ShortId(snapshot.id) + " from " +
                  LocalTimeText(snapshot.Seconds()) + " (" + Printable(snapshot.host) + ", " +
                  repo::PathsText(snapshot.paths) + ")");
    }
    for (const repo::ListedEntry& entry : found) {
        if (!context.options().json) PrintLine(longFormat ? LongEntryLine(entry) : Printable(entry.path));
        matches.push_back(EntryJson(entry));
    }
    if (!found.empty() && !context.options().json) PrintLine("");
    return Json{{"snapshot", snapshot.id}, {"short_id", ShortId(snapshot.id)}, {"time", snapshot.time},
                {"hits", found.size()}, {"matches", std::move(matches)}};
}

CommandResult RunFind(Context& context, const FindOptions& options) {
    const repo::FindQuery query = QueryOf(options);
    repo::Repository repository = OpenRepository(context);
    repo::RepositoryLock lock(repository, "find", false, context.options().lockWaitSeconds);
    const repo::MasterIndex index = repository.LoadIndex();
    repo::TreeReader reader(repository, index);
    Json snapshots = Json::array();
    size_t hits = 0;
    for (const repo::SnapshotInfo& info : Searched(repository, options)) {
        Json found = SearchSnapshot(context, reader, repository.LoadSnapshot(info.id), query, options.longFormat);
        hits += found["hits"].get<size_t>();
        if (found["hits"].get<size_t>() > 0) snapshots.push_back(std::move(found));
    }
    if (hits == 0) context.Say("no entry matches");
    CommandResult result;
    result.json = Json{{"command", "find"}, {"ok", true}, {"patterns", options.patterns}, {"hits", hits},
                       {"snapshots", std::move(snapshots)}};
    return result;
}

}  // namespace

void AddFindCommand(CommandTable& table) {
    auto options = std::make_shared<FindOptions>();
    CLI::App* command = table.Add(
        {"find", "which snapshots hold entries whose names match patterns",
         "Searches snapshots (all that --host, --tag and --path select, or those of --snapshot) for entries whose "
         "name matches a PATTERN, or whose path does for a pattern with a '/' (a leading '/' anchors it at the "
         "snapshot's root); '*', '?', '[a-z]' and '**' as in backup's excludes. --oldest and --newest keep entries "
         "modified within those times (local; a --newest of a day alone takes in the whole day). Matches are "
         "listed by snapshot, oldest first; with --json, an object per snapshot with its matches."},
        [options](Context& context) { return RunFind(context, *options); });
    command->add_option("PATTERN", options->patterns, "a name or path pattern (repeatable: any matches)")
        ->required();
    command->add_option("-s,--snapshot", options->snapshots, "search only this snapshot (repeatable)")
        ->type_name("ID")
        ->allow_extra_args(false);
    command->add_option("--oldest", options->oldest, "only entries modified at TIME or later")->type_name("TIME");
    command->add_option("--newest", options->newest, "only entries modified at TIME or earlier")->type_name("TIME");
    command->add_flag("-i,--ignore-case", options->ignoreCase, "match patterns whatever the case");
    command->add_flag("-l,--long", options->longFormat, "mode, owner, group, size and time of each entry");
    AddFilterOptions(command, options->filter, "snapshots");
}

}  // namespace qvhost::cli
