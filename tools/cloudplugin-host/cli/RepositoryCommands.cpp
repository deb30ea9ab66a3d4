// The repository's commands: init, backup, snapshots, restore, check,
// forget, prune, diff, locks, unlock. Each opens the repository, takes the
// lock its work needs, runs the library's piece (repository/) and reports.
// backup, restore and prune also serve backups of the version 2 layout
// (one object per part): backup with --legacy, restore given such a
// backup's id, prune when there is no repository.
#include <algorithm>
#include <map>
#include <set>

#include "cli/Commands.h"
#include "host/PluginObjectStore.h"
#include "local/Destination.h"
#include "util/ToolError.h"
#include "repository/Backup.h"
#include "repository/Locks.h"
#include "repository/Maintenance.h"
#include "repository/Restore.h"
#include "repository/Retention.h"

namespace qvhost {

using namespace repo;

namespace {

// The repository of the command: the store, the repository opened with the
// password. The store is kept beside it for the byte counts.
struct OpenRepository {
    explicit OpenRepository(CommandContext& context)
        : store(context.session), repository(store, context.options.layout.root, context.options.password) {}
    PluginObjectStore store;
    Repository repository;
};

std::string ShortId(const std::string& id) { return id.substr(0, 8); }

std::string Resolve(Repository& repository, const std::string& argument, const std::string& source = "") {
    const std::string id = repository.FindSnapshot(argument, source);
    if (id.empty()) throw ToolError(kExitNoSuchBackup, "no snapshot " + argument);
    return id;
}

Json SnapshotJson(const SnapshotInfo& snapshot) {
    return Json{{"snapshot", snapshot.id},   {"short_id", ShortId(snapshot.id)}, {"time", snapshot.time},
                {"host", snapshot.host},     {"source", snapshot.source},     {"tags", snapshot.tags},
                {"parent", snapshot.parent}, {"files", snapshot.files},       {"bytes", snapshot.bytes}};
}

std::string TagsText(const std::vector<std::string>& tags) {
    std::string text;
    for (const std::string& tag : tags) text += (text.empty() ? "" : ",") + Printable(tag);
    return text;
}

}  // namespace

namespace {

// A restore that meets an archived object stops with one line saying what
// brings it back.
[[noreturn]] void ArchivedHint(const std::string& target, const std::string& object) {
    throw PluginError("ReadObjectByName", object, kResultArchived,
                      "the data of " + target + " is in the Archive tier (object " + object +
                          ", result code 49): run 'cloudplugin-host rehydrate " + target +
                          "', wait until it reports nothing pending (hours), then restore again");
}

}  // namespace

bool NamesSnapshot(const std::string& argument) {
    const std::string id = argument.substr(0, argument.find(':'));
    return id == "latest" ||
           (id.size() >= 4 && id.size() <= 64 && id.find_first_not_of("0123456789abcdef") == std::string::npos);
}

CommandResult InitCommand(CommandContext& context, const Arguments&) {
    PluginObjectStore store(context.session);
    InitOptions options;
    options.kdfMemory = context.options.kdfMemory;
    options.packSize = context.options.packSize;
    Repository::Init(store, context.options.layout.root, context.options.password, options, HostName());
    Repository repository(store, context.options.layout.root, context.options.password);
    context.Say("created the repository " + repository.config().id.substr(0, 8) + " under " +
                context.options.layout.root + "; keep the password safe: without it nothing can be read");
    CommandResult result;
    result.json = Json{{"command", "init"},
                       {"ok", true},
                       {"repository", repository.config().id},
                       {"root", context.options.layout.root},
                       {"pack_size", repository.config().packSize}};
    return result;
}

CommandResult BackupCommand(CommandContext& context, const Arguments& arguments) {
    if (context.options.legacy) return LegacyBackupCommand(context, arguments);
    OpenRepository open(context);
    BackupOptions options;
    options.jobs = context.options.jobs;
    options.host = context.options.host.empty() ? HostName() : context.options.host;
    options.tags = context.options.tags;
    options.ignoreParent = context.options.ignoreParent;
    options.progress = context.Style();
    const double pluginBefore = context.session.PluginSeconds();
    BackupReport report;
    {
        RepositoryLock lock(open.repository, "backup " + arguments[0], false, context.options.lockWaitSeconds);
        report = RunBackup(open.repository, arguments[0], options);
    }
    const Snapshot& snapshot = report.snapshot;
    const size_t unreadable = report.Unreadable();
    for (const SkippedEntry& entry : report.skipped) {
        context.Warn(std::string(entry.unreadable ? "NOT BACKED UP " : "skipped ") + Printable(entry.relativePath) +
                     ": " + Printable(entry.reason));
    }
    const double seconds = snapshot.summary.value("seconds", 0.0);
    context.Say("snapshot " + ShortId(snapshot.id) + " of " + Printable(snapshot.source) + ": " +
                std::to_string(snapshot.files.size()) + " files (" + std::to_string(report.filesNew) + " new, " +
                std::to_string(report.filesChanged) + " changed, " + std::to_string(report.filesUnmodified) +
                " unmodified), " + FormatBytes(static_cast<double>(snapshot.TotalBytes())));
    context.Say("read " + FormatBytes(static_cast<double>(report.bytesProcessed)) + " in " + FormatDuration(seconds) +
                "; " + std::to_string(report.blobsNew) + " new chunks (" +
                FormatBytes(static_cast<double>(report.blobBytesNew)) + "), stored " +
                FormatBytes(static_cast<double>(report.bytesAdded)) + " in " + std::to_string(report.packsWritten) +
                " packs" + (report.packsAdopted ? "; " + std::to_string(report.packsAdopted) +
                                                      " packs of an interrupted backup reused"
                                                : std::string()));
    context.SayPluginShare(context.session.PluginSeconds() - pluginBefore, seconds);
    CommandResult result;
    result.status = unreadable && !context.options.skipUnreadable ? kExitLocalFile : kExitOk;
    result.json = Json{{"command", "backup"},
                       {"ok", result.status == kExitOk},
                       {"snapshot", snapshot.id},
                       {"short_id", ShortId(snapshot.id)},
                       {"parent", snapshot.parent},
                       {"files", snapshot.files.size()},
                       {"files_new", report.filesNew},
                       {"files_changed", report.filesChanged},
                       {"files_unmodified", report.filesUnmodified},
                       {"bytes", snapshot.TotalBytes()},
                       {"bytes_processed", report.bytesProcessed},
                       {"bytes_added", report.bytesAdded},
                       {"blobs_new", report.blobsNew},
                       {"blob_bytes_new", report.blobBytesNew},
                       {"packs_written", report.packsWritten},
                       {"packs_adopted", report.packsAdopted},
                       {"seconds", seconds},
                       {"folders", snapshot.folders.size()},
                       {"links", snapshot.links.size()},
                       {"skipped", SkippedJson(report.skipped)},
                       {"unreadable", unreadable}};
    return result;
}

CommandResult SnapshotsCommand(CommandContext& context, const Arguments&) {
    Json snapshots = Json::array();
    PluginObjectStore store(context.session);
    if (Repository::Exists(store, context.options.layout.root)) {
        Repository repository(store, context.options.layout.root, context.options.password);
        const std::vector<SnapshotInfo> all = repository.ListSnapshotInfos();
        if (!all.empty()) context.Say("snapshot  time                  host             files        size  source");
        for (const SnapshotInfo& snapshot : all) {
            char line[512];
            std::snprintf(line, sizeof line, "%-8s  %-20s  %-15s %6llu %11s  %s%s%s", ShortId(snapshot.id).c_str(),
                          Printable(snapshot.time).c_str(), Printable(snapshot.host).c_str(),
                          static_cast<unsigned long long>(snapshot.files),
                          FormatBytes(static_cast<double>(snapshot.bytes)).c_str(),
                          Printable(snapshot.source).c_str(), snapshot.tags.empty() ? "" : "  tags ",
                          TagsText(snapshot.tags).c_str());
            context.Say(line);
            snapshots.push_back(SnapshotJson(snapshot));
        }
    } else {
        context.Say("no repository under " + context.options.layout.root + " ('cloudplugin-host init' makes one)");
    }
    // Backups of the version 2 layout stay listed and restorable.
    Json legacy = Json::array();
    if (!context.session.List(context.options.layout.ManifestsPrefix()).empty()) {
        context.Say("backups of the version 2 layout:");
        legacy = ListCommand(context, {}).json.value("backups", Json::array());
    }
    CommandResult result;
    result.json = Json{{"command", "snapshots"},
                       {"ok", true},
                       {"snapshots", std::move(snapshots)},
                       {"legacy_backups", std::move(legacy)}};
    return result;
}

namespace {

CommandResult RestoreSnapshot(CommandContext& context, const Arguments& arguments);

}  // namespace

CommandResult RestoreCommand(CommandContext& context, const Arguments& arguments) {
    bool legacy = !NamesSnapshot(arguments[0]);
    if (!legacy) {
        // A version 2 backup may have been given a name of hex digits.
        PluginObjectStore store(context.session);
        legacy = !Repository::Exists(store, context.options.layout.root);
    }
    try {
        return legacy ? LegacyRestoreCommand(context, arguments) : RestoreSnapshot(context, arguments);
    } catch (const ObjectArchived& archived) {
        ArchivedHint(arguments[0], archived.name());
    } catch (const PluginError& failure) {
        if (failure.code() == kResultArchived) ArchivedHint(arguments[0], failure.object());
        throw;
    }
}

namespace {

CommandResult RestoreSnapshot(CommandContext& context, const Arguments& arguments) {
    OpenRepository open(context);
    const size_t colon = arguments[0].find(':');
    const std::string subPath = colon == std::string::npos ? "" : arguments[0].substr(colon + 1);
    RepositoryLock lock(open.repository, "restore", false, context.options.lockWaitSeconds);
    const Snapshot whole = open.repository.LoadSnapshot(Resolve(open.repository, arguments[0].substr(0, colon)));
    const Snapshot snapshot = SelectSubPath(whole, subPath);
    const MasterIndex index = open.repository.LoadIndex();
    Destination destination(arguments[1], context.options.overwrite);
    context.Say("restore " + ShortId(snapshot.id) + (subPath.empty() ? "" : ":" + Printable(subPath)) + ": " +
                std::to_string(snapshot.files.size()) + " files, " +
                FormatBytes(static_cast<double>(snapshot.TotalBytes())));
    RestoreOptions options;
    options.jobs = context.options.jobs;
    options.progress = context.Style();
    const double pluginBefore = context.session.PluginSeconds();
    const RestoreReport report = RunRestore(open.repository, index, snapshot, &destination, options);
    Json damaged = Json::array();
    for (const RestoreProblem& problem : report.damaged) {
        context.Warn("DAMAGED " + Printable(problem.file) +
                     (problem.object.empty() ? "" : " (object " + problem.object + ")") + ": " + problem.what +
                     "; not restored");
        damaged.push_back(Json{{"file", problem.file}, {"object", problem.object}, {"problem", problem.what}});
    }
    for (const std::string& path : report.setIdDropped) {
        context.Warn("restored " + Printable(path) + " without its set-user-ID and set-group-ID bits");
    }
    context.Say("restored " + std::to_string(report.files - report.damaged.size()) + " of " +
                std::to_string(report.files) + " files, " + FormatBytes(static_cast<double>(report.bytes)) + " in " +
                FormatDuration(report.seconds) + " (" +
                FormatBytes(MiBPerSecond(report.bytes, report.seconds) * 1048576) + "/s)" +
                (report.damaged.empty() ? "" : "; " + std::to_string(report.damaged.size()) + " damaged"));
    context.SayPluginShare(context.session.PluginSeconds() - pluginBefore, report.seconds);
    CommandResult result;
    result.status = report.damaged.empty() ? kExitOk : kExitDamaged;
    result.json = Json{{"command", "restore"},
                       {"ok", report.damaged.empty()},
                       {"snapshot", snapshot.id},
                       {"sub_path", subPath},
                       {"files", report.files},
                       {"bytes", report.bytes},
                       {"seconds", report.seconds},
                       {"mib_per_s", MiBPerSecond(report.bytes, report.seconds)},
                       {"damaged", std::move(damaged)},
                       {"folders", report.folders},
                       {"links", report.links},
                       {"set_id_bits_dropped", report.setIdDropped}};
    return result;
}

}  // namespace

CommandResult CheckCommand(CommandContext& context, const Arguments&) {
    OpenRepository open(context);
    RepositoryLock lock(open.repository, "check", false, context.options.lockWaitSeconds);
    CheckOptions options;
    options.readData = context.options.readData;
    options.jobs = context.options.jobs;
    options.progress = context.Style();
    const CheckReport report = RunCheck(open.repository, options);
    for (const std::string& warning : report.warnings) context.Warn("note: " + Printable(warning));
    for (const std::string& error : report.errors) context.Warn("ERROR " + Printable(error));
    for (const std::string& file : report.affected) context.Warn("affected: snapshot " + Printable(file));
    context.Say(std::string("checked ") + std::to_string(report.snapshots) + " snapshots, " +
                std::to_string(report.indexObjects) + " index objects, " + std::to_string(report.packs) + " packs, " +
                std::to_string(report.blobs) + " blobs" +
                (options.readData ? ", read " + FormatBytes(static_cast<double>(report.bytesRead)) : "") + ": " +
                (report.errors.empty() ? "no errors" : std::to_string(report.errors.size()) + " errors"));
    CommandResult result;
    result.status = report.errors.empty() ? kExitOk : kExitDamaged;
    result.json = Json{{"command", "check"},
                       {"ok", report.errors.empty()},
                       {"read_data", options.readData},
                       {"snapshots", report.snapshots},
                       {"index_objects", report.indexObjects},
                       {"packs", report.packs},
                       {"blobs", report.blobs},
                       {"bytes_read", report.bytesRead},
                       {"errors", report.errors},
                       {"warnings", report.warnings},
                       {"affected", report.affected}};
    return result;
}

namespace {

Json PruneJson(const PruneReport& report) {
    return Json{{"packs_kept", report.packsKept},
                {"packs_deleted", report.packsDeleted},
                {"packs_rewritten", report.packsRewritten},
                {"packs_unindexed_deleted", report.packsUnindexed},
                {"packs_written", report.packsWritten},
                {"blobs_removed", report.blobsRemoved},
                {"bytes_freed", report.bytesFreed},
                {"bytes_rewritten", report.bytesRewritten},
                {"index_objects_replaced", report.indexObjectsReplaced}};
}

PruneReport Prune(CommandContext& context, Repository& repository) {
    PruneOptions options;
    options.jobs = context.options.jobs;
    options.dryRun = context.options.dryRun;
    options.progress = context.Style();
    const PruneReport report = RunPrune(repository, options);
    context.Say(std::string(options.dryRun ? "would remove " : "removed ") + std::to_string(report.blobsRemoved) +
                " unused chunks: " + std::to_string(report.packsDeleted + report.packsUnindexed) +
                " packs deleted (" + std::to_string(report.packsUnindexed) + " of interrupted backups), " +
                std::to_string(report.packsRewritten) + " rewritten into " + std::to_string(report.packsWritten) +
                "; " + FormatBytes(static_cast<double>(report.bytesFreed)) + " freed");
    return report;
}

}  // namespace

CommandResult PruneCommand(CommandContext& context, const Arguments& arguments) {
    PluginObjectStore store(context.session);
    if (!Repository::Exists(store, context.options.layout.root)) return LegacyPruneCommand(context, arguments);
    Repository repository(store, context.options.layout.root, context.options.password);
    RepositoryLock lock(repository, "prune", true, context.options.lockWaitSeconds);
    const PruneReport report = Prune(context, repository);
    CommandResult result;
    result.json = Json{{"command", "prune"}, {"ok", true}, {"dry_run", context.options.dryRun}};
    result.json.update(PruneJson(report));
    return result;
}

CommandResult ForgetCommand(CommandContext& context, const Arguments& arguments) {
    const CommandOptions& o = context.options;
    RetentionPolicy policy;
    policy.keepLast = o.keepLast;
    policy.keepHourly = o.keepHourly;
    policy.keepDaily = o.keepDaily;
    policy.keepWeekly = o.keepWeekly;
    policy.keepMonthly = o.keepMonthly;
    policy.keepYearly = o.keepYearly;
    const std::string named = arguments.empty() ? "" : arguments[0];
    if (policy.Empty() == named.empty()) {
        throw ToolError(kExitUsage, "forget takes either a SNAPSHOT or a policy (--keep-last, --keep-daily, ...)");
    }
    OpenRepository open(context);
    RepositoryLock lock(open.repository, "forget", true, o.lockWaitSeconds);
    std::vector<std::string> forget;
    Json groups = Json::array();
    if (!named.empty()) {
        forget.push_back(Resolve(open.repository, named));
    } else {
        // The policy applies to each host and source on its own.
        std::map<std::pair<std::string, std::string>, std::vector<DatedSnapshot>> byGroup;
        for (const SnapshotInfo& snapshot : open.repository.ListSnapshotInfos()) {
            byGroup[{snapshot.host, snapshot.source}].push_back({snapshot.id, snapshot.timeNs / 1000000000});
        }
        for (auto& [group, snapshots] : byGroup) {
            const RetentionDecision decision = ApplyRetention(snapshots, policy);
            context.Say(Printable(group.first) + " " + Printable(group.second) + ": keeping " +
                        std::to_string(decision.keep.size()) + ", forgetting " +
                        std::to_string(decision.forget.size()));
            for (const std::string& id : decision.keep) {
                std::string reasons;
                for (const std::string& reason : decision.reasons.at(id)) reasons += (reasons.empty() ? "" : ",") + reason;
                context.Say("  keep   " + ShortId(id) + " (" + reasons + ")");
            }
            for (const std::string& id : decision.forget) context.Say("  forget " + ShortId(id));
            forget.insert(forget.end(), decision.forget.begin(), decision.forget.end());
            groups.push_back(Json{{"host", group.first}, {"source", group.second}, {"keep", decision.keep},
                                  {"forget", decision.forget}});
        }
    }
    if (!o.dryRun) {
        for (const std::string& id : forget) open.store.Delete(open.repository.layout().SnapshotsPrefix() + id);
    }
    context.Say(std::string(o.dryRun ? "would forget " : "forgot ") + std::to_string(forget.size()) + " snapshots");
    CommandResult result;
    result.json = Json{{"command", "forget"}, {"ok", true}, {"dry_run", o.dryRun}, {"forgotten", forget},
                       {"groups", std::move(groups)}};
    if (o.prune) result.json["prune"] = PruneJson(Prune(context, open.repository));
    return result;
}

CommandResult DiffCommand(CommandContext& context, const Arguments& arguments) {
    OpenRepository open(context);
    const Snapshot first = open.repository.LoadSnapshot(Resolve(open.repository, arguments[0]));
    const Snapshot second = open.repository.LoadSnapshot(Resolve(open.repository, arguments[1]));
    Json changes = Json::array();
    std::map<char, size_t> counts;
    int64_t added = 0, removed = 0;
    for (const TreeChange& change : DiffSnapshots(first, second)) {
        context.Say(std::string(1, change.kind) + "  " + Printable(change.path));
        changes.push_back(Json{{"change", std::string(1, change.kind)}, {"path", change.path}, {"bytes", change.bytes}});
        ++counts[change.kind];
        (change.bytes >= 0 ? added : removed) += change.bytes;
    }
    context.Say(std::to_string(counts['+']) + " added, " + std::to_string(counts['-']) + " removed, " +
                std::to_string(counts['M']) + " modified, " + std::to_string(counts['T']) + " of another kind, " +
                std::to_string(counts['U']) + " with other metadata");
    CommandResult result;
    result.json = Json{{"command", "diff"},   {"ok", true},           {"first", first.id},
                       {"second", second.id}, {"changes", changes},   {"added", counts['+']},
                       {"removed", counts['-']}, {"modified", counts['M']}, {"type_changed", counts['T']},
                       {"metadata_changed", counts['U']}, {"bytes_added", added}, {"bytes_removed", -removed}};
    return result;
}

namespace {

Json LockJson(const LockInfo& lock) {
    return Json{{"lock", lock.name},           {"host", lock.host},   {"pid", lock.pid}, {"command", lock.command},
                {"exclusive", lock.exclusive}, {"time", lock.time},   {"stale", lock.stale},
                {"readable", lock.readable}};
}

}  // namespace

CommandResult LocksCommand(CommandContext& context, const Arguments&) {
    OpenRepository open(context);
    Json locks = Json::array();
    for (const LockInfo& lock : ListLocks(open.repository, static_cast<int64_t>(std::time(nullptr)))) {
        context.Say(Printable(lock.name) + ": " +
                    (lock.readable ? std::string(lock.exclusive ? "exclusive" : "shared") + " lock of '" +
                                         Printable(lock.command) + "' on " + Printable(lock.host) + ", process " +
                                         std::to_string(lock.pid) + (lock.stale ? ", STALE" : "")
                                   : std::string("does not open")));
        locks.push_back(LockJson(lock));
    }
    CommandResult result;
    result.json = Json{{"command", "locks"}, {"ok", true}, {"locks", std::move(locks)}};
    return result;
}

CommandResult UnlockCommand(CommandContext& context, const Arguments&) {
    OpenRepository open(context);
    Json removed = Json::array();
    for (const LockInfo& lock : ListLocks(open.repository, static_cast<int64_t>(std::time(nullptr)))) {
        if (!lock.stale && !context.options.all) continue;
        open.store.Delete(lock.name);
        context.Say("removed " + std::string(lock.stale ? "the stale lock " : "the lock ") + Printable(lock.name));
        removed.push_back(LockJson(lock));
    }
    CommandResult result;
    result.json = Json{{"command", "unlock"}, {"ok", true}, {"removed", std::move(removed)}};
    return result;
}

namespace {

// Where a rehydration stands: objects asked to come back now, objects on
// their way, objects online.
struct Rehydration {
    std::vector<std::string> requested;
    std::vector<std::string> pending;
    size_t online = 0;
};

void Rehydrate(CommandContext& context, const std::vector<StoredObject>& objects, Rehydration& state) {
    const std::string value = context.options.rehydrateTier + ";" + context.options.rehydratePriority;
    for (const StoredObject& object : objects) {
        if (!object.archiveStatus.empty()) {
            state.pending.push_back(object.name);
        } else if (object.tier == "Archive") {
            context.session.SetProperty(object.name, kAccessTierProperty, value);
            state.requested.push_back(object.name);
        } else {
            ++state.online;
        }
    }
}

std::vector<StoredObject> Listed(ObjectStore& store, const std::string& prefix, const std::set<std::string>* only) {
    std::vector<StoredObject> out;
    for (StoredObject& object : store.List(prefix)) {
        if (!only || only->count(object.name)) out.push_back(std::move(object));
    }
    return out;
}

}  // namespace

CommandResult RehydrateCommand(CommandContext& context, const Arguments& arguments) {
    const std::string& target = arguments[0];
    const std::string& tier = context.options.rehydrateTier;
    PluginObjectStore store(context.session);
    Rehydration state;
    std::string stage;
    if (NamesSnapshot(target) && Repository::Exists(store, context.options.layout.root)) {
        // The repository's own objects first: without them nothing says
        // which packs the snapshot needs.
        const RepositoryLayout layout{context.options.layout.root};
        std::vector<StoredObject> own = Listed(store, layout.KeysPrefix(), nullptr);
        for (const std::string& prefix : {layout.Config(), layout.IndexPrefix(), layout.SnapshotsPrefix()}) {
            for (StoredObject& object : Listed(store, prefix, nullptr)) own.push_back(std::move(object));
        }
        Rehydrate(context, own, state);
        if (!state.requested.empty() || !state.pending.empty()) {
            stage = "repository";
            context.Say("the repository's own objects (keys, config, index, snapshots) are coming back first: run "
                        "'cloudplugin-host rehydrate " + target + "' again once they are online");
        } else {
            stage = "packs";
            Repository repository(store, layout.root, context.options.password);
            const Snapshot snapshot = repository.LoadSnapshot(Resolve(repository, target.substr(0, target.find(':'))));
            const MasterIndex index = repository.LoadIndex();
            std::set<std::string> packs;
            for (const SnapshotFile& file : snapshot.files) {
                for (const Id& chunk : file.chunks) {
                    if (const BlobLocation* location = index.Find(chunk)) packs.insert(layout.Pack(location->pack));
                }
            }
            state.online = 0;
            Rehydrate(context, Listed(store, layout.DataPrefix(), &packs), state);
        }
    } else {
        if (!IsValidBackupId(target)) throw ToolError(kExitUsage, "not a snapshot or a backup name: " + target);
        stage = "backup";
        const BackupLayout& layout = context.options.layout;
        std::vector<StoredObject> objects = Listed(store, layout.DataPrefix(target), nullptr);
        const std::set<std::string> manifest = {layout.ManifestName(target)};
        for (StoredObject& object : Listed(store, layout.ManifestsPrefix(), &manifest)) objects.push_back(std::move(object));
        if (objects.empty()) throw ToolError(kExitNoSuchBackup, "no backup named " + target);
        Rehydrate(context, objects, state);
    }
    context.Say("rehydrate " + Printable(target) + " to " + tier + " (" + context.options.rehydratePriority +
                " priority): " + std::to_string(state.requested.size()) + " objects asked to come back now, " +
                std::to_string(state.pending.size()) + " on their way, " + std::to_string(state.online) + " online" +
                (state.requested.empty() && state.pending.empty() ? ": ready to restore" : ""));
    CommandResult result;
    result.json = Json{{"command", "rehydrate"},
                       {"ok", true},
                       {"target", target},
                       {"stage", stage},
                       {"tier", tier},
                       {"priority", context.options.rehydratePriority},
                       {"requested", state.requested},
                       {"pending", state.pending},
                       {"online", state.online},
                       {"ready", state.requested.empty() && state.pending.empty()}};
    return result;
}

}  // namespace qvhost
