// diff: what changed between two snapshots.
#include <map>

#include "cli/RepositorySupport.h"
#include "repository/Diff.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct DiffOptions {
    std::string first;
    std::string second;
    repo::SnapshotFilter filter;
};

CommandResult RunDiff(Context& context, const DiffOptions& options) {
    repo::Repository repository = OpenRepository(context);
    const repo::Snapshot first = repository.LoadSnapshot(ResolveSnapshot(repository, options.first, options.filter));
    const repo::Snapshot second = repository.LoadSnapshot(ResolveSnapshot(repository, options.second, options.filter));
    Json changes = Json::array();
    std::map<char, size_t> counts;
    int64_t added = 0, removed = 0;
    const repo::MasterIndex index = repository.LoadIndex();
    repo::TreeReader reader(repository, index);
    for (const repo::TreeChange& change : repo::DiffSnapshots(reader, first, second)) {
        context.Say(std::string(1, change.kind) + "  " + Printable(change.path));
        changes.push_back(Json{{"change", std::string(1, change.kind)}, {"path", change.path}, {"bytes", change.bytes}});
        ++counts[change.kind];
        (change.bytes >= 0 ? added : removed) += change.bytes;
    }
    context.Say(std::to_string(counts['+']) + " added, " + std::to_string(counts['-']) + " removed, " +
                std::to_string(counts['M']) + " modified, " + std::to_string(counts['T']) + " of another kind, " +
                std::to_string(counts['U']) + " with other metadata");
    CommandResult result;
    result.json = Json{{"command", "diff"},         {"ok", true},
                       {"first", first.id},         {"second", second.id},
                       {"changes", changes},        {"added", counts['+']},
                       {"removed", counts['-']},    {"modified", counts['M']},
                       {"type_changed", counts['T']}, {"metadata_changed", counts['U']},
                       {"bytes_added", added},      {"bytes_removed", -removed}};
    return result;
}

}  // namespace

void AddDiffCommand(CommandTable& table) {
    auto options = std::make_shared<DiffOptions>();
    CLI::App* command = table.Add(
        {"diff", "what changed between two snapshots",
         "Lists what differs between two snapshots, by path: + only in the second, - only in the first, M a file "
         "whose content differs, T an entry of another kind, U the same content with other metadata (mode, times, owner, extended attributes). "
         "'latest' is the newest snapshot that --host, --tag and --path select."},
        [options](Context& context) { return RunDiff(context, *options); });
    command->add_option("SNAPSHOT1", options->first, "the older snapshot")->required();
    command->add_option("SNAPSHOT2", options->second, "the newer snapshot")->required();
    AddFilterOptions(command, options->filter, "snapshots");
}

}  // namespace qvhost::cli
