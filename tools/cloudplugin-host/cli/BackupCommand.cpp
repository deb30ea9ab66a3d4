// backup: a new snapshot of a folder; only what changed since its parent is
// read, and only chunks the repository lacks are stored.
#include "cli/RepositorySupport.h"
#include "host/PluginObjectStore.h"
#include "host/PluginSession.h"
#include "local/Excludes.h"
#include "local/FilesFrom.h"
#include "local/LocalSource.h"
#include "local/ShadowCopy.h"
#include "local/StreamSource.h"
#include "repository/Backup.h"
#include "repository/Locks.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct BackupCommandOptions {
    std::vector<std::string> sources;  // with --stdin-from-command: the command's words
    std::vector<std::pair<std::string, PathListForm>> pathLists;  // --files-from*, in order
    bool fromStdin = false;
    bool fromCommand = false;
    std::string stdinName = "stdin";
    std::string host;
    std::vector<std::string> tags;
    bool force = false;
    bool dryRun = false;
    bool skipUnreadable = false;
    bool useFsSnapshot = false;  // read from a Volume Shadow Copy (Windows)
    ExcludeOptions excludes;
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
                                     : std::string()) +
                (report.packsRefused ? "; " + std::to_string(report.packsRefused) +
                                           " packs no index names did not verify and were not used (see check)"
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
                {"packs_refused", report.packsRefused},
                {"seconds", seconds},
                {"trees_new", report.treesNew},
                {"folders", snapshot.summary.value("folders", uint64_t{0})},
                {"links", snapshot.summary.value("links", uint64_t{0})},
                {"special_files", snapshot.summary.value("special_files", uint64_t{0})}};
}

// What the excludes left out: with -v each entry and why; in --json how
// many (and, for a dry run, which).
void ReportExcluded(Context& context, const Excludes& excludes, bool dryRun, Json& json) {
    Json entries = Json::array();
    for (const ExcludedEntry& entry : excludes.excluded()) {
        context.Verbose("excluded " + Printable(entry.relativePath) + " (" + entry.reason + ")");
        if (dryRun) entries.push_back(Json{{"path", entry.relativePath}, {"reason", entry.reason}});
    }
    if (!excludes.excluded().empty()) {
        context.Say("excluded " + std::to_string(excludes.excluded().size()) +
                    " entries (not what lies beneath an excluded folder; -v names them)");
    }
    json["excluded"] = excludes.excluded().size();
    if (dryRun) json["excluded_entries"] = std::move(entries);
}

repo::BackupReport Back(Context& context, repo::Repository& repository, repo::Source& source,
                        const BackupCommandOptions& options, const repo::BackupOptions& backup) {
    if (options.dryRun) return repo::RunBackup(repository, source, backup);
    repo::RepositoryLock lock(repository, "backup " + repo::PathsText(source.Paths()), false, context.options().lockWaitSeconds);
    return repo::RunBackup(repository, source, backup);
}

// What the snapshot is made of: the stream, or the paths given and listed.
// Before the plug-in starts, so that a missing path, a bad pattern or
// exclude file, or a command that cannot start fails at once.
struct ChosenSource {
    std::unique_ptr<ShadowCopy> shadow;  // with --use-fs-snapshot; goes after the source
    std::unique_ptr<repo::Source> source;
    std::unique_ptr<Excludes> excludes;  // none for a stream
};

ChosenSource ChooseSource(const BackupCommandOptions& options) {
    ChosenSource chosen;
    const bool stream = options.fromStdin || options.fromCommand;
    if (options.fromStdin && options.fromCommand) {
        throw Error(ErrorKind::Usage, "--stdin and --stdin-from-command exclude each other");
    }
    if (stream && !options.pathLists.empty()) {
        throw Error(ErrorKind::Usage, "a backup of a stream takes no --files-from");
    }
    if (stream && options.useFsSnapshot) {
        throw Error(ErrorKind::Usage, "a backup of a stream takes no --use-fs-snapshot");
    }
    if (options.fromStdin) {
        if (!options.sources.empty()) throw Error(ErrorKind::Usage, "--stdin takes no PATH");
        chosen.source = std::make_unique<StreamSource>(options.stdinName);
        return chosen;
    }
    if (options.fromCommand) {
        chosen.source = std::make_unique<StreamSource>(options.stdinName, options.sources);
        return chosen;
    }
    std::vector<std::string> paths = options.sources;
    for (const auto& [file, form] : options.pathLists) {
        for (std::string& path : ReadPathList(file, form)) paths.push_back(std::move(path));
    }
    if (paths.empty()) {
        throw Error(ErrorKind::Usage, options.pathLists.empty() ? "no path to back up (PATH, --files-from or --stdin)"
                                                                : "the --files-from lists name no path");
    }
    auto local = std::make_unique<LocalSource>(paths);
    chosen.excludes = std::make_unique<Excludes>(options.excludes, local->Root());
    local->SetFilter(chosen.excludes->Filter());
    if (options.useFsSnapshot) {
        chosen.shadow = std::make_unique<ShadowCopy>(local->Root());
        local->ReadFrom(chosen.shadow->Folder());
    }
    chosen.source = std::move(local);
    return chosen;
}

CommandResult RunBackup(Context& context, const BackupCommandOptions& options) {
    const ChosenSource chosen = ChooseSource(options);
    if (chosen.shadow) context.Say("reading from the shadow copy " + chosen.shadow->Device());
    repo::Repository repository = OpenRepository(context);
    repo::BackupOptions backup;
    backup.jobs = context.options().host.jobs;
    backup.host = options.host.empty() ? repo::HostName() : options.host;
    backup.tags = options.tags;
    backup.ignoreParent = options.force;
    backup.dryRun = options.dryRun;
    backup.listReads = options.dryRun || context.options().verbose > 0;
    backup.progress = context.Display();
    const double pluginBefore = context.PluginSeconds();
    const repo::BackupReport report = Back(context, repository, *chosen.source, options, backup);
    Json excluded = Json::object();
    if (chosen.excludes) ReportExcluded(context, *chosen.excludes, options.dryRun, excluded);
    for (const std::string& path : report.toRead) {
        context.Verbose((options.dryRun ? "would read " : "read ") + Printable(path));
    }
    const Json skipped = ReportSkipped(context, report.skipped);
    const double seconds = report.snapshot.summary.value("seconds", 0.0);
    SaySummary(context, report, options.dryRun, seconds);
    context.SayPluginShare(context.PluginSeconds() - pluginBefore, seconds, backup.jobs);
    CommandResult result;
    result.summarised = true;
    result.status = report.Unreadable() && !options.skipUnreadable ? kExitIncomplete : kExitOk;
    result.json = BackupJson(report, options.dryRun, seconds, result.status);
    result.json["skipped"] = skipped;
    result.json["unreadable"] = report.Unreadable();
    result.json.update(excluded);
    if (options.dryRun) result.json["would_read"] = report.toRead;
    if (chosen.shadow) result.json["shadow_copy"] = chosen.shadow->Device();
    return result;
}

void AddSourceOptions(CLI::App* command, BackupCommandOptions& options) {
    const std::pair<const char*, PathListForm> lists[] = {
        {"--files-from", PathListForm::Lines},
        {"--files-from-verbatim", PathListForm::Verbatim},
        {"--files-from-raw", PathListForm::Raw},
    };
    const char* texts[] = {
        "back up the paths FILE lists, one a line ('-': standard input); blank lines and lines starting with # "
        "are skipped, globs (*, ?, [...]) expanded (repeatable, with PATH or without)",
        "the same, each line taken as it stands: no comments, no globs (repeatable)",
        "the same, the paths separated by NUL bytes (find -print0) (repeatable)",
    };
    for (size_t i = 0; i < std::size(lists); ++i) {
        const PathListForm form = lists[i].second;
        command
            ->add_option_function<std::vector<std::string>>(
                lists[i].first,
                [&options, form](const std::vector<std::string>& files) {
                    for (const std::string& file : files) options.pathLists.emplace_back(file, form);
                },
                texts[i])
            ->type_name("FILE")
            ->allow_extra_args(false);
    }
    command->add_flag("--stdin", options.fromStdin,
                      "back up standard input as one file, /NAME (see --stdin-filename)");
    command->add_flag("--stdin-from-command", options.fromCommand,
                      "back up what the command after -- writes to its standard output, as one file; a command "
                      "that fails (non-zero status) fails the backup, and no snapshot is made");
    command->add_option("--stdin-filename", options.stdinName, "the name of the file --stdin makes (default: stdin)")
        ->type_name("NAME");
}

void AddExcludeOptions(CLI::App* command, ExcludeOptions& excludes) {
    command->add_option("--exclude", excludes.patterns, "leave out what matches PATTERN (repeatable)")
        ->type_name("PATTERN")
        ->allow_extra_args(false);
    command->add_option("--iexclude", excludes.caselessPatterns, "the same, ignoring case (repeatable)")
        ->type_name("PATTERN")
        ->allow_extra_args(false);
    command->add_option("--exclude-file", excludes.patternFiles,
                        "leave out what matches a pattern of FILE, one a line (repeatable)")
        ->type_name("FILE")
        ->allow_extra_args(false);
    command->add_option("--iexclude-file", excludes.caselessFiles, "the same, ignoring case (repeatable)")
        ->type_name("FILE")
        ->allow_extra_args(false);
    command->add_flag("--exclude-caches", excludes.caches,
                      "leave out the content of folders holding a CACHEDIR.TAG with its signature (the tag is kept)");
    command->add_option("--exclude-if-present", excludes.ifPresent,
                        "leave out the content of folders holding a file NAME (starting with HEADER, if given; the "
                        "file is kept; repeatable)")
        ->type_name("NAME[:HEADER]")
        ->allow_extra_args(false);
    command->add_flag("-x,--one-file-system", excludes.oneFileSystem,
                      "stay on the source folder's file system: mount points are kept as empty folders");
    command->add_option_function<std::string>(
               "--exclude-larger-than",
               [&excludes](const std::string& text) {
                   excludes.largerThan = SizeArgument("--exclude-larger-than", text, 1, UINT64_MAX);
               },
               "leave out files larger than SIZE (2048, 500K, 1M, 2G, 1T)")
        ->type_name("SIZE");
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
         "a folder that did not change costs nothing.\n\nWhat to back up: the PATHs, and the paths listed in "
         "--files-from (one a line, # comments, globs), --files-from-verbatim (lines as they stand) or "
         "--files-from-raw (NUL-separated) files, all in one snapshot. --stdin backs up standard input, and "
         "--stdin-from-command -- CMD ARG... what CMD writes to its standard output, as one file /NAME "
         "(--stdin-filename, default stdin); a command that ends with a non-zero status fails the backup and no "
         "snapshot is made (exit status 1).\n\nWhat a backup keeps: every regular file with its "
         "content, every folder, symbolic links as links (their text, never followed), FIFOs and device nodes; "
         "for each its mode, modification and access times, owner and group (ids and names), extended attributes "
         "(POSIX ACLs among them, up to 1 MiB an entry), hard links (one content, several names) and whether a "
         "file is sparse. Sockets are skipped. Every skipped or unreadable entry is reported; a backup that could "
         "not read an entry (or found a name a restore would refuse) saves its snapshot of everything else and "
         "ends with exit status 3 (restic's number for it) unless --skip-unreadable is given.\n\n"
         "What it leaves out: "
         "patterns (--exclude, --iexclude, and one a line in --exclude-file) match the absolute path of each "
         "entry: * and ? within one component, [a-z] sets, ** any number of components; a pattern matches whole "
         "components at any depth (node_modules, *.o), or from the root with a leading / (/home/me/tmp); a "
         "leading ! takes back a match of the patterns before it. An excluded folder is not read at all. "
         "--exclude-caches and --exclude-if-present leave out the content of tagged folders, -x other file "
         "systems, --exclude-larger-than large files. What is left out is not in the snapshot, even when the "
         "parent holds it; -v names it.\n\nWith --dry-run the files are read and chunked as for a backup, but "
         "nothing is stored: the summary says what the backup would add (with -v, which files it would read).\n\n"
         "On Windows, --use-fs-snapshot reads the folder from a Volume Shadow Copy of its volume, so that files "
         "that other programs hold open or change during the backup are read as they all were at one moment; "
         "the snapshot still names the folder itself. Where no copy can be made (no rights, the service not "
         "running, Wine) the backup stores nothing and says which step failed (exit status 4)."},
        [options](Context& context) { return RunBackup(context, *options); });
    command->add_option("PATH", options->sources,
                        "the folders and files to back up, each kept with its absolute path (with "
                        "--stdin-from-command, after --: the command and its arguments)");
    command->add_option("--host", options->host, "the host the snapshot names (default: this machine's name)")
        ->type_name("NAME");
    command->add_option("--tag", options->tags, "a tag of the snapshot (repeatable)")
        ->type_name("TAG")
        ->allow_extra_args(false);
    command->add_flag("--force", options->force, "read every file, even those unchanged since the parent snapshot");
    command->add_flag("-n,--dry-run", options->dryRun, "read and chunk, store nothing; say what would be added");
    command->add_flag("--skip-unreadable", options->skipUnreadable,
                      "entries that cannot be read do not make the exit status 3");
    command->add_flag("--use-fs-snapshot", options->useFsSnapshot,
                      "Windows: read the folder from a Volume Shadow Copy of its volume, made for the backup and "
                      "deleted after it (files held open by others are read as they were at one moment; needs an "
                      "administrator's rights); no copy, no backup (exit status 4)");
    AddSourceOptions(command, *options);
    AddExcludeOptions(command, options->excludes);
}

}  // namespace qvhost::cli
