// restore: a snapshot, or one path of it, into a folder, every chunk checked.
#include "cli/RepositorySupport.h"
#include "host/PluginObjectStore.h"
#include "host/PluginSession.h"
#include "local/Destination.h"
#include "repository/Locks.h"
#include "repository/Restore.h"
#include "util/Pattern.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct RestoreCommandOptions {
    std::string snapshot;
    std::string destination;
    repo::SnapshotFilter filter;
    DestinationOptions destination_;
    std::vector<std::string> includes;
    std::vector<std::string> excludes;
    std::string overwrite = "if-changed";
    bool deleteOthers = false;
    bool verify = false;
    RehydrateChoice rehydrate;
};

repo::OverwriteMode OverwriteModeOf(const std::string& text) {
    if (text == "always") return repo::OverwriteMode::Always;
    if (text == "if-newer") return repo::OverwriteMode::IfNewer;
    if (text == "never") return repo::OverwriteMode::Never;
    return repo::OverwriteMode::IfChanged;
}

repo::RestoreOptions RestoreOptionsOf(Context& context, const RestoreCommandOptions& options, std::string subPath) {
    repo::RestoreOptions restore;
    restore.jobs = context.options().host.jobs;
    restore.progress = context.Display();
    restore.subPath = std::move(subPath);
    for (const std::string& text : options.includes) restore.selection.includes.Add(PathPattern(text));
    for (const std::string& text : options.excludes) restore.selection.excludes.Add(PathPattern(text));
    restore.overwrite = OverwriteModeOf(options.overwrite);
    restore.deleteOthers = options.deleteOthers;
    restore.verify = options.verify;
    return restore;
}

// Files read back unlike their chunks (--verify), one warning line each.
Json ReportMismatched(const Context& context, const std::vector<repo::RestoreProblem>& mismatched) {
    Json list = Json::array();
    for (const repo::RestoreProblem& problem : mismatched) {
        context.Warn("MISMATCH " + Printable(problem.file) + ": " + problem.what);
        list.push_back(Json{{"file", problem.file}, {"problem", problem.what}});
    }
    return list;
}

void SayChoices(const Context& context, const repo::RestoreReport& report) {
    if (report.skipped) context.Say("left " + std::to_string(report.skipped) + " existing entries as they were");
    for (const std::string& path : report.removed) context.Verbose("removed " + Printable(path));
    if (!report.removed.empty()) context.Say("removed " + std::to_string(report.removed.size()) + " other entries");
    if (!report.mismatched.empty()) {
        context.Say(std::to_string(report.mismatched.size()) + " files read back unlike their chunks");
    }
}

// What this system cannot name, one line each: a restore that leaves
// something out says so and fails.
Json ReportRefused(const Context& context, const std::vector<repo::RestoreProblem>& refused) {
    Json list = Json::array();
    for (const repo::RestoreProblem& problem : refused) {
        context.Warn("NOT RESTORED " + Printable(problem.file) + ": " + problem.what);
        list.push_back(Json{{"file", problem.file}, {"problem", problem.what}});
    }
    return list;
}

CommandResult ResultOf(const std::string& snapshotId, const std::string& subPath, const repo::RestoreReport& report,
                       const Json& damaged, const Json& mismatched, const Json& refused) {
    const bool ok = report.damaged.empty() && report.mismatched.empty() && report.refused.empty();
    CommandResult result;
    result.summarised = true;
    result.status = ok ? kExitOk : kExitDamaged;
    result.json = Json{{"command", "restore"},
                       {"ok", ok},
                       {"snapshot", snapshotId},
                       {"sub_path", subPath},
                       {"files", report.files},
                       {"bytes", report.bytes},
                       {"seconds", report.seconds},
                       {"mib_per_s", MiBPerSecond(report.bytes, report.seconds)},
                       {"damaged", damaged},
                       {"folders", report.folders},
                       {"links", report.links},
                       {"set_id_bits_dropped", report.setIdDropped},
                       {"not_kept", report.notes},
                       {"skipped", report.skipped},
                       {"removed", report.removed},
                       {"mismatched", mismatched},
                       {"refused", refused}};
    return result;
}

CommandResult RunRestore(Context& context, const RestoreCommandOptions& options) {
    const size_t colon = options.snapshot.find(':');
    const std::string subPath = colon == std::string::npos ? "" : options.snapshot.substr(colon + 1);
    const repo::RestoreOptions restore = RestoreOptionsOf(context, options, subPath);
    const std::string snapshotArgument = options.snapshot.substr(0, colon);
    if (options.rehydrate.rehydrate &&
        !BringBack(context, options.rehydrate, Printable(snapshotArgument), [&](repo::Rehydration& state) {
            return RehydrateSnapshot(context, snapshotArgument, options.rehydrate.request, state);
        })) {
        const std::string next = "the snapshot's data is on its way back from the Archive tier (Azure takes hours): run "
                                 "the same restore again once it is online, or add --wait";
        context.Warn(next);
        CommandResult result;
        result.status = kExitStorage;
        result.json = Json{{"command", "restore"}, {"ok", false}, {"rehydrating", true}, {"next", next}};
        return result;
    }
    repo::Repository repository = OpenRepository(context);
    repo::RepositoryLock lock(repository, "restore", false, context.options().lockWaitSeconds);
    const repo::Snapshot snapshot =
        repository.LoadSnapshot(ResolveSnapshot(repository, options.snapshot.substr(0, colon), options.filter));
    const repo::MasterIndex index = repository.LoadIndex();
    context.Say("restore " + ShortId(snapshot.id) + (subPath.empty() ? "" : ":" + Printable(subPath)) + " of " +
                repo::PathsText(snapshot.paths) + " into " + Printable(options.destination));
    DestinationOptions destinationOptions = options.destination_;
    destinationOptions.overwrite = restore.overwrite != repo::OverwriteMode::Never;
    Destination destination(options.destination, destinationOptions);
    const double pluginBefore = context.PluginSeconds();
    const repo::RestoreReport report = repo::RunRestore(repository, index, snapshot, &destination, restore);
    const Json damaged = ReportDamaged(context, report.damaged);
    const Json refused = ReportRefused(context, report.refused);
    ReportSetIdDropped(context, report.setIdDropped);
    for (const std::string& note : report.notes) context.Warn(note);
    context.Say("restored " + std::to_string(report.files - report.damaged.size()) + " of " +
                std::to_string(report.files) + " files, " + FormatBytes(static_cast<double>(report.bytes)) + " in " +
                FormatDuration(report.seconds) + " (" +
                FormatBytes(MiBPerSecond(report.bytes, report.seconds) * 1048576) + "/s)" +
                (report.damaged.empty() ? "" : "; " + std::to_string(report.damaged.size()) + " damaged") +
                (report.refused.empty() ? ""
                                        : "; " + std::to_string(report.refused.size()) +
                                              " entries not restored (names this system cannot have)"));
    SayChoices(context, report);
    const Json mismatched = ReportMismatched(context, report.mismatched);
    context.SayPluginShare(context.PluginSeconds() - pluginBefore, report.seconds, restore.jobs);
    return ResultOf(snapshot.id, subPath, report, damaged, mismatched, refused);
}

}  // namespace

void AddRestoreCommand(CommandTable& table) {
    auto options = std::make_shared<RestoreCommandOptions>();
    CLI::App* command = table.Add(
        {"restore", "restore SNAPSHOT[:PATH] into DEST_DIR, checking every chunk",
         "Restores a snapshot ('latest', an id or its first 8 digits), or with :PATH one file or folder of it, into "
         "DEST_DIR (made when missing). Every chunk is checked against its keyed hash: a file with a damaged or "
         "missing chunk is named (DAMAGED ...) and not written, the others are restored, and the exit status is "
         "1.\n\nEvery entry gets back its mode, times and extended attributes, each folder after its contents; "
         "hard links become links again, sparse files get their holes; as root also owners (by name where the "
         "name exists here, --numeric-owner: by id) and device nodes. What the system does not let a restore "
         "keep is named in one line each (not kept for ...).\n\n--include and --exclude choose entries by their path in the "
         "snapshot (/docs/a.txt, as ls shows it; restic-style patterns): an excluded folder drops all beneath it, and "
         "with --include only what an include matches is restored, with the folders on the way to it.\n\nWhat exists "
         "in DEST_DIR is replaced as --overwrite says: always; if-changed (the default: a file of the same size and "
         "modification time is left without reading its chunks); if-newer (only when the snapshot's file is newer); "
         "never. A bare --overwrite (last, or before another option) is always. --delete then removes from DEST_DIR what the snapshot (as chosen) "
         "does not hold, never following a link; --verify reads every file written back against its chunk "
         "hashes (and a file left as unchanged before it is left), names each that differs (MISMATCH ...) and "
         "exits 1. To bring an existing folder to a snapshot: --overwrite if-changed --delete.\n\nA restore refuses any "
         "path that could leave DEST_DIR and never writes through a symbolic link inside it; a folder is never "
         "replaced. "
         "Set-user-ID and set-group-ID bits are restored only with the owner they were set for (as root); "
         "otherwise they are dropped, and a line names the file.\n\nArchived data (the Archive tier) cannot be read: "
         "the restore stops in one line naming 'rehydrate'. With --rehydrate it first asks for exactly what the "
         "snapshot needs to come back (as 'rehydrate' does) and, when something is still on its way, stops with "
         "status 8; with --wait as well it asks again every --wait-interval (default 10m) until everything is "
         "online, saying where it stands each time, then restores."},
        [options](Context& context) { return RunRestore(context, *options); });
    command->add_option("SNAPSHOT[:PATH]", options->snapshot, "the snapshot, and optionally a path in it")->required();
    command->add_option("DEST_DIR", options->destination, "the folder to restore into")->required();
    command
        ->add_option("--overwrite", options->overwrite,
                     "MODE: always, if-changed (default; same size and time: left), if-newer or never; bare (last): always")
        ->expected(0, 1)
        ->default_str("always")
        ->check(CLI::IsMember({"always", "if-changed", "if-newer", "never"}).description(""))
        ->type_name("MODE");
    command->add_option("--include", options->includes, "restore only what matches PATTERN (repeatable)")
        ->type_name("PATTERN")
        ->allow_extra_args(false);
    command->add_option("--exclude", options->excludes, "leave out what matches PATTERN (repeatable)")
        ->type_name("PATTERN")
        ->allow_extra_args(false);
    command->add_flag("--delete", options->deleteOthers,
                      "afterwards remove from DEST_DIR what the snapshot (as chosen) does not hold");
    command->add_flag("--verify", options->verify, "read every restored file back and check it against its chunks");
    command->add_flag("--numeric-owner", options->destination_.numericOwner,
                      "as root: give files their recorded owner and group ids, not the ids their names have here");
    AddRehydrateChoiceOptions(command, options->rehydrate, "restore");
    AddFilterOptions(command, options->filter, "snapshots");
}

}  // namespace qvhost::cli
