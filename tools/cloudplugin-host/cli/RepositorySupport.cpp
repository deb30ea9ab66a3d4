#include "cli/RepositorySupport.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "host/HostRuntime.h"
#include "host/PluginObjectStore.h"
#include "repository/Listing.h"
#include "repository/Rehydrate.h"
#include "util/Interrupt.h"
#include "util/Text.h"

namespace qvhost::cli {

void RefuseArchivingConnection(const Context& context) {
    const std::string tier = ConnectionValue(context.options().host.connectionString, "AccessTier").value_or("");
    if (AsciiLower(tier) == AsciiLower(repo::kArchiveTier)) {
        throw Error(ErrorKind::Usage,
                    "AccessTier=Archive in the connection string would archive the repository's keys, config, "
                    "indexes and snapshots too, and no command could read them: remove it, and give 'init "
                    "--data-tier Archive' (or 'data-tier Archive') to archive the data packs alone");
    }
}

repo::Repository OpenRepository(Context& context, LocalCacheUse cacheUse) {
    RefuseArchivingConnection(context);
    repo::RepositoryOptions options;
    options.warn = [&context](const std::string& text) { context.Warn("warning: " + Printable(text)); };
    // A repository in a local folder is read from the disk anyway: no cache.
    if (cacheUse == LocalCacheUse::Use && !context.options().noCache && context.options().folder.empty()) {
        options.cacheRoot = CacheRoot(context.options());
    }
    return repo::Repository(context.Store(), context.options().repo, context.options().password, std::move(options));
}

std::string CacheRoot(const GlobalOptions& options) {
    return options.cacheDir.empty() ? repo::LocalCache::DefaultRoot() : options.cacheDir;
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

namespace {

std::string OwnerText(const std::string& name, uint32_t id) { return name.empty() ? std::to_string(id) : name; }

}  // namespace

void PrintLine(const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
}

// One entry as ls -l shows it: mode, owner, group, size, time, path (-> target).
std::string LongEntryLine(const repo::ListedEntry& entry) {
    const repo::Node& node = entry.node;
    char head[256];
    std::snprintf(head, sizeof head, "%s %-8s %-8s %12llu %s ", repo::ModeText(node).c_str(),
                  Printable(OwnerText(node.user, node.uid)).c_str(), Printable(OwnerText(node.group, node.gid)).c_str(),
                  static_cast<unsigned long long>(node.size),
                  LocalTimeText(node.modifiedNs / 1000000000 - (node.modifiedNs % 1000000000 < 0)).c_str());
    std::string line = head + Printable(entry.path);
    if (node.type == repo::NodeType::Link) line += " -> " + Printable(node.linkTarget);
    return line;
}

// One entry as --json shows it (a line of its own).
Json EntryJson(const repo::ListedEntry& entry) {
    const repo::Node& node = entry.node;
    const size_t slash = entry.path.find_last_of('/');
    Json json{{"struct_type", "node"},
              {"name", entry.path.substr(slash + 1)},
              {"type", repo::NodeTypeName(node.type)},
              {"path", entry.path},
              {"mode", node.mode},
              {"permissions", repo::ModeText(node)},
              {"uid", node.uid},
              {"gid", node.gid},
              {"user", node.user},
              {"group", node.group},
              {"size", node.size},
              {"mtime", Rfc3339Nanos(node.modifiedNs)}};
    if (node.type == repo::NodeType::Link) json["link_target"] = node.linkTarget;
    return json;
}

std::string RehydrateSnapshot(Context& context, const std::string& snapshotArgument,
                              const repo::RehydrateRequest& request, repo::Rehydration& state) {
    repo::ObjectStore& store = context.Store();
    const repo::RepositoryLayout layout{context.options().repo};
    repo::RehydrateObjects(store, repo::OwnObjects(store, layout), request, state);
    if (!state.Ready()) return "repository";
    repo::Repository repository = OpenRepository(context);
    const repo::MasterIndex index = repository.LoadIndex();
    state.online = 0;
    repo::RehydrateObjects(store, repo::TreePacks(repository, index), request, state);
    if (!state.Ready()) return "trees";
    const repo::Snapshot snapshot = repository.LoadSnapshot(ResolveSnapshot(repository, snapshotArgument));
    state.online = 0;
    repo::RehydrateObjects(store, repo::PacksOf(repository, snapshot, index), request, state);
    return "packs";
}

void AddRehydrateChoiceOptions(CLI::App* command, RehydrateChoice& choice, const std::string& then) {
    CLI::Option* rehydrate =
        command->add_flag("--rehydrate", choice.rehydrate, "first ask for what it needs back from the Archive tier (see 'rehydrate')");
    command->add_flag("--wait", choice.wait, "with --rehydrate: wait until they are back, then " + then)
        ->needs(rehydrate);
    command
        ->add_option_function<std::string>(
            "--wait-interval",
            [&choice](const std::string& text) {
                choice.waitSeconds = static_cast<uint64_t>(std::max<int64_t>(1, AgeArgument("--wait-interval", text)));
            },
            "how often --wait asks again (30s, 10m; default: 10m)")
        ->type_name("AGE");
    AddRehydrateOptions(command, choice.request);
}

bool BringBack(Context& context, const RehydrateChoice& choice, const std::string& what,
               const std::function<std::string(repo::Rehydration& state)>& ask) {
    for (;;) {
        repo::Rehydration state;
        const std::string stage = ask(state);
        if (stage == "packs" && state.Ready()) return true;
        context.Say("rehydrating " + what + " (" + stage + "): " + RehydrationText(state));
        if (!choice.wait) return false;
        for (uint64_t waited = 0; waited < choice.waitSeconds; ++waited) {
            if (Interrupted()) throw Error(ErrorKind::Interrupted, "interrupted");
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
    }
}

}  // namespace qvhost::cli
