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
};

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
    repo::Repository repository = OpenRepository(context);
    Json snapshots = Json::array();
    bool header = false;
    for (const repo::SnapshotInfo& snapshot : repository.ListSnapshotInfos()) {
        if (!options.filter.Matches(snapshot)) continue;
        if (!header) context.Say("snapshot  time                  host             files        size  paths");
        header = true;
        context.Say(SnapshotLine(snapshot));
        snapshots.push_back(SnapshotJson(snapshot));
    }
    // Backups of the version 2 layout are listed by their own command; a
    // line says that there are some.
    const legacy::Context legacy{context.Session(), {context.options().repo}, context.options().host.jobs, nullptr, {}};
    const size_t older = legacy::ListBackups(legacy).size();
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
         "--host, --tag and --path narrow the list."},
        [options](Context& context) { return RunSnapshots(context, *options); });
    AddFilterOptions(command, options->filter, "snapshots");
}

}  // namespace qvhost::cli
