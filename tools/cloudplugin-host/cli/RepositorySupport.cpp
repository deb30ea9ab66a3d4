#include "cli/RepositorySupport.h"

#include "host/PluginObjectStore.h"
#include "util/Text.h"

namespace qvhost::cli {

repo::Repository OpenRepository(Context& context) {
    repo::RepositoryOptions options;
    options.warn = [&context](const std::string& text) { context.Warn("warning: " + Printable(text)); };
    return repo::Repository(context.Store(), context.options().repo, context.options().password, std::move(options));
}

std::string ResolveSnapshot(repo::Repository& repository, const std::string& argument,
                            const repo::SnapshotFilter& filter) {
    const std::string id = repository.FindSnapshot(argument, filter);
    if (id.empty()) {
        throw Error(ErrorKind::NotFound, "no snapshot " + argument + (filter.Empty() ? "" : " of the hosts, tags "
                                                                                              "and paths given"));
    }
    return id;
}

Json SnapshotJson(const repo::SnapshotInfo& snapshot) {
    return Json{{"snapshot", snapshot.id},   {"short_id", ShortId(snapshot.id)}, {"time", snapshot.time},
                {"host", snapshot.host},     {"paths", snapshot.paths},
                {"source", snapshot.paths.empty() ? std::string() : snapshot.paths.front()},
                {"tags", snapshot.tags},
                {"parent", snapshot.parent}, {"files", snapshot.files},          {"bytes", snapshot.bytes}};
}

std::string TagsText(const std::vector<std::string>& tags) {
    std::string text;
    for (const std::string& tag : tags) text += (text.empty() ? "" : ",") + Printable(tag);
    return text;
}

void AddFilterOptions(CLI::App* command, repo::SnapshotFilter& filter, const std::string& what) {
    command->add_option("--host", filter.hosts, "only " + what + " of this host (repeatable)")
        ->type_name("HOST")
        ->allow_extra_args(false);
    command->add_option_function<std::vector<std::string>>(
               "--tag",
               [&filter](const std::vector<std::string>& values) {
                   for (const std::string& value : values) filter.tagSets.push_back(Split(value, ','));
               },
               "only " + what + " with these tags (a,b: both; repeatable: either)")
        ->type_name("TAG[,TAG]")
        ->allow_extra_args(false);
    command->add_option("--path", filter.paths, "only " + what + " of this source folder (absolute; repeatable)")
        ->type_name("PATH")
        ->allow_extra_args(false);
}

}  // namespace qvhost::cli
