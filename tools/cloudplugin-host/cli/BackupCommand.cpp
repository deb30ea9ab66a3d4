// backup: a new snapshot of a folder; only what changed since its parent is
// read, and only chunks the repository lacks are stored.
#include "cli/RepositorySupport.h"
#include "host/PluginObjectStore.h"
#include "host/PluginSession.h"
#include "local/LocalSource.h"
#include "repository/Backup.h"
#include "repository/Locks.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct BackupCommandOptions {
    std::vector<std::string> sources;
    std::string host;
    std::vector<std::string> tags;
    bool force = false;
    bool dryRun = false;
    bool skipUnreadable = false;
};

void SaySummary(Context& context, const repo::BackupReport& report, bool dryRun, double seconds) {
    const repo::Snapshot& snapshot = report.snapshot;
    const std::string would = dryRun ? "would store " : "stored ";
    context.Say((dryRun ? std::string("dry run, nothing stored: ") : "snapshot " + ShortId(snapshot.id) + " ") +
                "of " + repo::PathsText(snapshot.paths) + ": " + std::to_string(snapshot.Files()) + " files (" +
                std::to_string(report.filesNew) + " new, " + std::to_string(report.filesChanged) + " changed, " +
                std::to_string(report.filesUnmodified) + " unmodified), " +
                FormatBytes(static_cast<double>(snapshot.TotalBytes())));
    context.Say("read " + FormatBytes(static_cast<double>(report.bytesProcessed)) + " in " + FormatDuration(seconds) +
                "; " + std::to_string(report.blobsNew) + " new chunks (" +
                FormatBytes(static_cast<double>(report.blobBytesNew)) + "), " + would +
                FormatBytes(static_cast<double>(report.bytesAdded)) + " in " + std::to_string(report.packsWritten) +
                " packs" +
                (report.packsAdopted ? "; " + std::to_string(report.packsAdopted) +
                                           " packs of an interrupted backup reused"
                                     : std::string()));
}

Json BackupJson(const repo::BackupReport& report, bool dryRun, double seconds, int status) {
    const repo::Snapshot& snapshot = report.snapshot;
    return Json{{"command", "backup"},
                {"ok", status == kExitOk},
                {"dry_run", dryRun},
                {"snapshot", snapshot.id},
                {"short_id", ShortId(snapshot.id)},
                {"parent", snapshot.parent},
                {"paths", snapshot.paths},
                {"files", snapshot.Files()},
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
                {"trees_new", report.treesNew},
                {"folders", snapshot.summary.value("folders", uint64_t{0})},
                {"links", snapshot.summary.value("links", uint64_t{0})},
                {"special_files", snapshot.summary.value("special_files", uint64_t{0})}};
}

CommandResult RunBackup(Context& context, const BackupCommandOptions& options) {
    repo::Repository repository = OpenRepository(context);
    LocalSource source(options.sources);
    repo::BackupOptions backup;
    backup.jobs = context.options().host.jobs;
    backup.host = options.host.empty() ? repo::HostName() : options.host;
    backup.tags = options.tags;
    backup.ignoreParent = options.force;
    backup.dryRun = options.dryRun;
    backup.progress = context.Display();
    const double pluginBefore = context.Session().PluginSeconds();
    repo::BackupReport report;
    if (options.dryRun) {
        report = repo::RunBackup(repository, source, backup);
    } else {
        repo::RepositoryLock lock(repository, "backup " + repo::PathsText(source.Paths()), false,
                                  context.options().lockWaitSeconds);
        report = repo::RunBackup(repository, source, backup);
    }
    for (const std::string& path : report.toRead) context.Verbose((options.dryRun ? "would read " : "read ") + Printable(path));
    const Json skipped = ReportSkipped(context, report.skipped);
    const double seconds = report.snapshot.summary.value("seconds", 0.0);
    SaySummary(context, report, options.dryRun, seconds);
    context.SayPluginShare(context.Session().PluginSeconds() - pluginBefore, seconds, backup.jobs);
    CommandResult result;
    result.status = report.Unreadable() && !options.skipUnreadable ? kExitIncomplete : kExitOk;
    result.json = BackupJson(report, options.dryRun, seconds, result.status);
    result.json["skipped"] = skipped;
    result.json["unreadable"] = report.Unreadable();
    if (options.dryRun) result.json["would_read"] = report.toRead;
    return result;
}

}  // namespace

void AddBackupCommand(CommandTable& table) {
    auto options = std::make_shared<BackupCommandOptions>();
    CLI::App* command = table.Add(
        {"backup", "back up PATH... as a new snapshot (only what changed is read and stored)",
         "Backs up the folders and files given as one snapshot; with one folder the snapshot is that folder, with "
         "several the snapshot's root holds the folders on the way to each, by its absolute path. A file whose "
         "size, modification and change times and inode are those of the parent snapshot (the newest of the same "
         "host and paths) is not read at all; the others are cut into content-defined chunks, and only chunks the "
         "repository lacks are compressed, encrypted and stored. Each folder is stored as a tree of its own, so "
         "a folder that did not change costs nothing.\n\nWhat a backup keeps: every regular file with its "
         "content, every folder, symbolic links as links (their text, never followed), FIFOs and device nodes; "
         "for each its mode, modification and access times, owner and group (ids and names), extended attributes "
         "(POSIX ACLs among them, up to 1 MiB an entry), hard links (one content, several names) and whether a "
         "file is sparse. Sockets are skipped. Every skipped or unreadable entry is reported; a backup that could "
         "not read an entry (or found a name a restore would refuse) saves its snapshot of everything else and "
         "ends with exit status 3 (restic's number for it) unless --skip-unreadable is given.\n\nWith --dry-run the files are read and chunked as "
         "for a backup, but nothing is stored: the summary says what the backup would add (with -v, which files "
         "it would read)."},
        [options](Context& context) { return RunBackup(context, *options); });
    command->add_option("PATH", options->sources, "the folders and files to back up, each kept with its absolute path")
        ->required();
    command->add_option("--host", options->host, "the host the snapshot names (default: this machine's name)")
        ->type_name("NAME");
    command->add_option("--tag", options->tags, "a tag of the snapshot (repeatable)")
        ->type_name("TAG")
        ->allow_extra_args(false);
    command->add_flag("--force", options->force, "read every file, even those unchanged since the parent snapshot");
    command->add_flag("-n,--dry-run", options->dryRun, "read and chunk, store nothing; say what would be added");
    command->add_flag("--skip-unreadable", options->skipUnreadable,
                      "entries that cannot be read do not make the exit status 3");
}

}  // namespace qvhost::cli
