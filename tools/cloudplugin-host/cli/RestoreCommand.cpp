// restore: a snapshot, or one path of it, into a folder, every chunk checked.
#include "cli/RepositorySupport.h"
#include "host/PluginObjectStore.h"
#include "host/PluginSession.h"
#include "local/Destination.h"
#include "repository/Locks.h"
#include "repository/Restore.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct RestoreCommandOptions {
    std::string snapshot;
    std::string destination;
    repo::SnapshotFilter filter;
    DestinationOptions destination_;
};

CommandResult RunRestore(Context& context, const RestoreCommandOptions& options) {
    repo::Repository repository = OpenRepository(context);
    const size_t colon = options.snapshot.find(':');
    const std::string subPath = colon == std::string::npos ? "" : options.snapshot.substr(colon + 1);
    repo::RepositoryLock lock(repository, "restore", false, context.options().lockWaitSeconds);
    const repo::Snapshot snapshot =
        repository.LoadSnapshot(ResolveSnapshot(repository, options.snapshot.substr(0, colon), options.filter));
    const repo::MasterIndex index = repository.LoadIndex();
    repo::RestoreOptions restore;
    restore.jobs = context.options().host.jobs;
    restore.progress = context.Display();
    restore.subPath = subPath;
    context.Say("restore " + ShortId(snapshot.id) + (subPath.empty() ? "" : ":" + Printable(subPath)) + " of " +
                repo::PathsText(snapshot.paths) + " into " + Printable(options.destination));
    Destination destination(options.destination, options.destination_);
    const double pluginBefore = context.Session().PluginSeconds();
    const repo::RestoreReport report = repo::RunRestore(repository, index, snapshot, &destination, restore);
    const Json damaged = ReportDamaged(context, report.damaged);
    ReportSetIdDropped(context, report.setIdDropped);
    for (const std::string& note : report.notes) context.Warn(note);
    context.Say("restored " + std::to_string(report.files - report.damaged.size()) + " of " +
                std::to_string(report.files) + " files, " + FormatBytes(static_cast<double>(report.bytes)) + " in " +
                FormatDuration(report.seconds) + " (" +
                FormatBytes(MiBPerSecond(report.bytes, report.seconds) * 1048576) + "/s)" +
                (report.damaged.empty() ? "" : "; " + std::to_string(report.damaged.size()) + " damaged"));
    context.SayPluginShare(context.Session().PluginSeconds() - pluginBefore, report.seconds, restore.jobs);
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
                       {"damaged", damaged},
                       {"folders", report.folders},
                       {"links", report.links},
                       {"set_id_bits_dropped", report.setIdDropped},
                       {"not_kept", report.notes}};
    return result;
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
         "keep is named in one line each (not kept for ...).\n\nA restore refuses any path that could leave DEST_DIR and never writes through a symbolic link "
         "inside it; existing files are refused unless --overwrite is given (a folder is never replaced). "
         "Set-user-ID and set-group-ID bits are not restored.\n\nArchived data (the Archive tier) cannot be read: "
         "the restore stops in one line naming 'rehydrate'."},
        [options](Context& context) { return RunRestore(context, *options); });
    command->add_option("SNAPSHOT[:PATH]", options->snapshot, "the snapshot, and optionally a path in it")->required();
    command->add_option("DEST_DIR", options->destination, "the folder to restore into")->required();
    command->add_flag("--overwrite", options->destination_.overwrite,
                      "replace files and links that exist (never a folder)");
    command->add_flag("--numeric-owner", options->destination_.numericOwner,
                      "as root: give files their recorded owner and group ids, not the ids their names have here");
    AddFilterOptions(command, options->filter, "snapshots");
}

}  // namespace qvhost::cli
