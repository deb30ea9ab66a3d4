// snapshots: the repository's snapshots, oldest first.
#include "cli/RepositorySupport.h"
#include "host/PluginObjectStore.h"
#include "host/PluginSession.h"
#include "legacy/Legacy.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct SnapshotsOptions {
    repo::SnapshotFilter filter;
    unsigned latest = 0;  // 0: every snapshot
    std::string groupBy = "host,paths";
};

// The snapshots listed: those the filter selects, and of them only the
// newest of each group with --latest.
std::vector<repo::SnapshotInfo> Listed(repo::Repository& repository, const SnapshotsOptions& options) {
    std::vector<repo::SnapshotInfo> selected;
    for (const repo::SnapshotInfo& snapshot : repository.ListSnapshotInfos()) {
        if (options.filter.Matches(snapshot)) selected.push_back(snapshot);
    }
    if (options.latest == 0) return selected;
    return repo::NewestOfEachGroup(selected, options.latest, repo::ParseGroupBy(options.groupBy));
}

std::string SnapshotLine(const repo::SnapshotInfo& snapshot) {
    char line[512];
    std::snprintf(line, sizeof line, "%-8s  %-20s  %-15s %6llu %11s  %s%s%s", ShortId(snapshot.id).c_str(),
                  Printable(snapshot.time).c_str(), Printable(snapshot.host).c_str(),
                  static_cast<unsigned long long>(snapshot.files), FormatBytes(static_cast<double>(snapshot.bytes)).c_str(),
                  repo::PathsText(snapshot.paths).c_str(), snapshot.tags.empty() ? "" : "  tags ",
                  TagsText(snapshot.tags).c_str());
    return line;
}

CommandResult RunSnapshots(Context& context, const SnapshotsOptions& options) {
    repo::ParseGroupBy(options.groupBy);  // a bad word is refused before the repository is opened
    repo::Repository repository = OpenRepository(context);
    Json snapshots = Json::array();
    bool header = false;
    for (const repo::SnapshotInfo& snapshot : Listed(repository, options)) {
        if (!header) context.Say("snapshot  time                  host             files        size  paths");
        header = true;
        context.Say(SnapshotLine(snapshot));
        snapshots.push_back(SnapshotJson(snapshot));
    }
    // Backups of the version 2 layout are listed by their own command; a
    // line says that there are some.
    size_t older = 0;
    if (context.options().folder.empty()) {
        const legacy::Context legacy{
            context.VerifyingSession(), {context.options().repo}, context.options().host.jobs, nullptr, {}};
        older = legacy::ListBackups(legacy).size();
    }
    if (older) {
        context.Say(std::to_string(older) + " backups of the version 2 layout: 'cloudplugin-host legacy list'");
    }
    CommandResult result;
    result.json = Json{{"command", "snapshots"}, {"ok", true}, {"snapshots", std::move(snapshots)},
                       {"legacy_backups", older}};
    return result;
}

}  // namespace

void AddSnapshotsCommand(CommandTable& table) {
    auto options = std::make_shared<SnapshotsOptions>();
    CLI::App* command = table.Add(
        {"snapshots", "the repository's snapshots, oldest first",
         "Lists the repository's snapshots, oldest first: id, time, host, files, size, source folder and tags. "
         "--host, --tag and --path narrow the list; --latest N keeps the N newest of each group (by default each "
         "host and source folder; --group-by host,paths,tags or any part of it, or '' for one group)."},
        [options](Context& context) { return RunSnapshots(context, *options); });
    AddFilterOptions(command, options->filter, "snapshots");
    command->add_option_function<std::string>(
               "--latest",
               [options](const std::string& text) { options->latest = CountArgument("--latest", text, 1000000); },
               "only the N newest snapshots of each group")
        ->type_name("N");
    command->add_option("--group-by", options->groupBy, "groups of --latest: host, paths, tags (default: host,paths)")
        ->type_name("GROUPS");
}

}  // namespace qvhost::cli
