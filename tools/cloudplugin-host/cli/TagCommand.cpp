// tag: add, remove or replace the tags of snapshots.
#include <algorithm>

#include "cli/RepositorySupport.h"
#include "repository/Locks.h"
#include "repository/Tags.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct TagOptions {
    std::vector<std::string> snapshots;
    repo::TagChange change;
    repo::SnapshotFilter filter;
};

// The snapshots changed: those named, else all the filter selects.
std::vector<std::string> Targets(repo::Repository& repository, const TagOptions& options) {
    std::vector<std::string> targets;
    for (const std::string& argument : options.snapshots) {
        const std::string id = ResolveSnapshot(repository, argument, options.filter);
        if (std::find(targets.begin(), targets.end(), id) == targets.end()) targets.push_back(id);
    }
    if (!options.snapshots.empty()) return targets;
    for (const repo::SnapshotInfo& info : repository.ListSnapshotInfos()) {
        if (options.filter.Matches(info)) targets.push_back(info.id);
    }
    return targets;
}

CommandResult RunTag(Context& context, const TagOptions& options) {
    const repo::TagChange& change = options.change;
    if (change.Empty()) throw Error(ErrorKind::Usage, "tag takes --add, --remove or --set");
    if (change.replace && (!change.add.empty() || !change.remove.empty())) {
        throw Error(ErrorKind::Usage, "--set replaces every tag: it takes neither --add nor --remove");
    }
    repo::Repository repository = OpenRepository(context);
    repo::RepositoryLock lock(repository, "tag", true, context.options().lockWaitSeconds);
    Json changed = Json::array();
    for (const std::string& id : Targets(repository, options)) {
        const std::string written = repo::ChangeTags(repository, id, change);
        if (written == id) continue;
        context.Say(ShortId(id) + " is now " + ShortId(written));
        changed.push_back(Json{{"old", id}, {"new", written}});
    }
    context.Say("changed the tags of " + std::to_string(changed.size()) + " snapshots");
    CommandResult result;
    result.json = Json{{"command", "tag"}, {"ok", true}, {"changed", std::move(changed)}};
    return result;
}

void AddTagListOption(CLI::App* command, const std::string& name, std::vector<std::string>& tags, bool* given,
                      const std::string& help) {
    command->add_option_function<std::vector<std::string>>(
               name,
               [&tags, given](const std::vector<std::string>& values) {
                   for (const std::string& value : values) {
                       for (const std::string& tag : Split(value, ',')) {
                           if (!tag.empty()) tags.push_back(tag);
                       }
                   }
                   if (given) *given = true;
               },
               help)
        ->type_name("TAG[,TAG]")
        ->allow_extra_args(false);
}

}  // namespace

void AddTagCommand(CommandTable& table) {
    auto options = std::make_shared<TagOptions>();
    CLI::App* command = table.Add(
        {"tag", "add, remove or replace the tags of snapshots",
         "Changes the tags of the snapshots named (default: every snapshot --host, --tag and --path select): "
         "--add and --remove tags, or --set the tags to replace all of them (--set '' removes every tag). Each "
         "option is repeatable and takes comma lists. A snapshot whose tags change is written anew (a new id, "
         "its original id kept in it) and the old one removed, under the repository's exclusive lock."},
        [options](Context& context) { return RunTag(context, *options); });
    command->add_option("SNAPSHOT", options->snapshots, "snapshots to change (ids, prefixes, 'latest')");
    AddTagListOption(command, "--add", options->change.add, nullptr, "add these tags");
    AddTagListOption(command, "--remove", options->change.remove, nullptr, "remove these tags");
    AddTagListOption(command, "--set", options->change.set, &options->change.replace,
                     "replace every tag with these");
    AddFilterOptions(command, options->filter, "snapshots");
}

}  // namespace qvhost::cli
