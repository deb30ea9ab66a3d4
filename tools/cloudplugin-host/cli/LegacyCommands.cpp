// legacy list, verify, restore, delete, prune, rehydrate and migrate: the
// backups of the version 2 layout (one object per part, no repository),
// chosen by name. The tool writes no new ones.
#include <ctime>

#include "cli/Reporting.h"
#include "cli/RepositorySupport.h"
#include "repository/Backup.h"
#include "repository/Locks.h"
#include "host/PluginObjectStore.h"
#include "host/PluginSession.h"
#include "legacy/Legacy.h"
#include "local/LocalFiles.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct LegacyOptions {
    std::string backup;
    std::string path;  // the destination
    bool overwrite = false;
    bool incomplete = false;
    int64_t olderThanSeconds = 24 * 3600;
    repo::RehydrateRequest request;
    std::string host;               // migrate: the snapshot's host
    std::vector<std::string> tags;  // migrate: the snapshot's tags
};

legacy::Context LegacyContext(Context& context) {
    return legacy::Context{context.VerifyingSession(), {context.options().repo}, context.options().host.jobs,
                           context.Display(), [&context](const std::string& line) { context.Warn(line); }};
}

// restore, or verify without a destination.
CommandResult RunRestore(Context& context, const LegacyOptions& options, bool writing) {
    const std::string command = writing ? "legacy restore" : "legacy verify";
    const double pluginBefore = context.VerifyingSession().PluginSeconds();
    const legacy::RestoreReport report =
        writing ? legacy::Restore(LegacyContext(context), options.backup, options.path, options.overwrite)
                : legacy::Verify(LegacyContext(context), options.backup);
    const double pluginSeconds = context.VerifyingSession().PluginSeconds() - pluginBefore;
    const Json damaged = ReportDamaged(context, report.damaged);
    ReportSetIdDropped(context, report.setIdDropped);
    for (const std::string& note : report.notes) context.Warn(note);
    context.Say(std::string(writing ? "restored " : "verified ") + std::to_string(report.files - report.damaged.size()) +
                " of " + std::to_string(report.files) + " files, " + FormatBytes(static_cast<double>(report.bytes)) +
                " in " + FormatDuration(report.seconds) + " (" +
                FormatBytes(MiBPerSecond(report.bytes, report.seconds) * 1048576) + "/s)" +
                (report.damaged.empty() ? "" : "; " + std::to_string(report.damaged.size()) + " damaged"));
    context.SayPluginShare(pluginSeconds, report.seconds, context.options().host.jobs);
    CommandResult result;
    result.status = report.damaged.empty() ? kExitOk : kExitDamaged;
    result.json = Json{{"command", command},
                       {"ok", report.damaged.empty()},
                       {"backup", report.backupId},
                       {"files", report.files},
                       {"bytes", report.bytes},
                       {"seconds", report.seconds},
                       {"mib_per_s", MiBPerSecond(report.bytes, report.seconds)},
                       {"plugin_seconds", pluginSeconds},
                       {"damaged", damaged},
                       {"folders", report.folders},
                       {"links", report.links},
                       {"set_id_bits_dropped", report.setIdDropped}};
    return result;
}

Json IncompleteJson(const legacy::IncompleteBackup& backup) {
    return Json{{"backup", backup.id},
                {"parts", backup.objects.size()},
                {"bytes", backup.bytes},
                {"newest_part", UtcTimeText(backup.newestWritten)}};
}

Json ListIncomplete(Context& context) {
    Json list = Json::array();
    const std::vector<legacy::IncompleteBackup> backups = legacy::ListIncomplete(LegacyContext(context));
    if (!backups.empty()) {
        context.Say("incomplete backups (no manifest; 'legacy prune' removes them):");
        context.Say("backup                          parts        size  newest part");
    }
    for (const legacy::IncompleteBackup& backup : backups) {
        char line[256];
        std::snprintf(line, sizeof line, "%-30s %7zu %11s  %s", Printable(backup.id).c_str(), backup.objects.size(),
                      FormatBytes(static_cast<double>(backup.bytes)).c_str(), UtcTimeText(backup.newestWritten).c_str());
        context.Say(line);
        list.push_back(IncompleteJson(backup));
    }
    return list;
}

CommandResult RunList(Context& context, const LegacyOptions& options) {
    Json backups = Json::array();
    const std::vector<legacy::BackupSummary> all = legacy::ListBackups(LegacyContext(context));
    context.Say(all.empty() ? "no backups" : "backup                          files        size  created               source");
    for (const legacy::BackupSummary& backup : all) {
        char line[512];
        std::snprintf(line, sizeof line, "%-30s %7llu %11s  %-20s  %s", Printable(backup.id).c_str(),
                      static_cast<unsigned long long>(backup.files), FormatBytes(static_cast<double>(backup.bytes)).c_str(),
                      Printable(backup.created).c_str(), Printable(backup.source).c_str());
        context.Say(line);
        backups.push_back(Json{{"backup", backup.id}, {"files", backup.files}, {"bytes", backup.bytes},
                               {"created", backup.created}, {"source", backup.source}});
    }
    CommandResult result;
    result.json = Json{{"command", "legacy list"}, {"ok", true}, {"backups", std::move(backups)}};
    if (options.incomplete) result.json["incomplete"] = ListIncomplete(context);
    return result;
}

CommandResult RunDelete(Context& context, const LegacyOptions& options) {
    const legacy::DeleteReport report = legacy::Delete(LegacyContext(context), options.backup);
    const size_t parts = report.objects - (report.complete ? 1 : 0);
    context.Say("deleted " + options.backup + (report.complete ? "" : " (incomplete)") + ": " + std::to_string(parts) +
                " parts" + (report.complete ? " and its manifest" : ""));
    CommandResult result;
    result.json = Json{{"command", "legacy delete"},
                       {"ok", true},
                       {"backup", options.backup},
                       {"complete", report.complete},
                       {"objects", report.objects}};
    return result;
}

CommandResult RunPrune(Context& context, const LegacyOptions& options) {
    const legacy::PruneReport report = legacy::PruneIncomplete(LegacyContext(context), options.olderThanSeconds,
                                                               static_cast<int64_t>(std::time(nullptr)));
    Json removed = Json::array();
    Json kept = Json::array();
    size_t objects = 0;
    uint64_t bytes = 0;
    for (const legacy::IncompleteBackup& backup : report.kept) {
        context.Say("kept " + backup.id + ": newest part written " + UtcTimeText(backup.newestWritten) +
                    ", not older than the limit");
        kept.push_back(IncompleteJson(backup));
    }
    for (const legacy::IncompleteBackup& backup : report.removed) {
        objects += backup.objects.size();
        bytes += backup.bytes;
        context.Say("removed incomplete backup " + backup.id + ": " + std::to_string(backup.objects.size()) +
                    " parts, " + FormatBytes(static_cast<double>(backup.bytes)));
        removed.push_back(IncompleteJson(backup));
    }
    context.Say("pruned " + std::to_string(removed.size()) + " incomplete backups (" + std::to_string(objects) +
                " objects, " + FormatBytes(static_cast<double>(bytes)) + "); " + std::to_string(kept.size()) + " kept");
    CommandResult result;
    result.json = Json{{"command", "legacy prune"}, {"ok", true}, {"older_than_seconds", options.olderThanSeconds},
                       {"removed", std::move(removed)}, {"kept", std::move(kept)}, {"objects", objects},
                       {"bytes", bytes}};
    return result;
}

CommandResult RunRehydrate(Context& context, const LegacyOptions& options) {
    repo::Rehydration state;
    repo::RehydrateObjects(context.Store(), legacy::ObjectsOf(LegacyContext(context), options.backup), options.request,
                           state);
    return RehydrationResult(context, options.backup, "backup", options.request, state);
}

// The backup's files, folders and links as a snapshot of the repository,
// with the backup's time and source folder; every part checked on the way.
CommandResult RunMigrate(Context& context, const LegacyOptions& options) {
    const legacy::Context legacy = LegacyContext(context);
    legacy::Migration migration = legacy::OpenForMigration(legacy, options.backup);
    repo::Repository repository = OpenRepository(context);
    repo::BackupOptions backup;
    backup.jobs = context.options().host.jobs;
    backup.host = options.host.empty() ? repo::HostName() : options.host;
    backup.tags = options.tags;
    backup.progress = context.Display();
    const int64_t created = ParseUtcTime(migration.created);
    backup.timeNs = created > 0 ? created * 1000000000 : 0;
    context.Say("migrating " + options.backup + " (" + std::to_string(migration.files) + " files, " +
                FormatBytes(static_cast<double>(migration.bytes)) + ") into the repository");
    repo::RepositoryLock lock(repository, "migrate " + options.backup, false, context.options().lockWaitSeconds);
    const repo::BackupReport report = repo::RunBackup(repository, *migration.source, backup);
    const Json skipped = ReportSkipped(context, report.skipped);
    context.Say("snapshot " + ShortId(report.snapshot.id) + " of " + Printable(repo::PathsText(report.snapshot.paths)) +
                " at " + report.snapshot.time + ": " + std::to_string(report.snapshot.Files()) + " files, " +
                FormatBytes(static_cast<double>(report.bytesAdded)) + " stored" +
                (report.Unreadable() ? "; " + std::to_string(report.Unreadable()) + " files not migrated (damaged)"
                                     : "") +
                "; the version 2 backup is left as it was ('legacy delete " + options.backup + "' removes it)");
    CommandResult result;
    result.summarised = true;
    result.status = report.Unreadable() ? kExitIncomplete : kExitOk;
    result.json = Json{{"command", "legacy migrate"},
                       {"ok", result.status == kExitOk},
                       {"backup", options.backup},
                       {"snapshot", report.snapshot.id},
                       {"time", report.snapshot.time},
                       {"files", report.snapshot.Files()},
                       {"bytes_added", report.bytesAdded},
                       {"unreadable", report.Unreadable()},
                       {"skipped", skipped}};
    return result;
}

using LegacyRun = CommandResult (*)(Context&, const LegacyOptions&);

CLI::App* AddLegacy(CommandTable& table, const CommandText& text, LegacyRun run,
                    std::shared_ptr<LegacyOptions>& options) {
    options = std::make_shared<LegacyOptions>();
    auto held = options;
    return table.Add(text, [held, run](Context& context) { return run(context, *held); });
}

void AddRestoreAndVerify(CommandTable& table) {
    std::shared_ptr<LegacyOptions> options;
    CLI::App* command = AddLegacy(table,
                        {"legacy restore", "restore a version 2 backup into DEST_DIR, checking every hash",
                         "Restores every file of the backup, each part checked against the manifest's hash before "
                         "its file is moved into place, with its empty folders and links."},
                        [](Context& context, const LegacyOptions& o) { return RunRestore(context, o, true); }, options);
    command->add_option("BACKUP", options->backup, "the backup's id")->required();
    command->add_option("DEST_DIR", options->path, "the folder to restore into")->required();
    command->add_flag("--overwrite", options->overwrite, "replace files and links that exist (never a folder)");
    command = AddLegacy(table,
                        {"legacy verify", "read a version 2 backup back and check every hash",
                         "Reads every object of the backup back and checks every hash, writing nothing."},
                        [](Context& context, const LegacyOptions& o) { return RunRestore(context, o, false); }, options);
    command->add_option("BACKUP", options->backup, "the backup's id")->required();
}

void AddCatalogue(CommandTable& table) {
    std::shared_ptr<LegacyOptions> options;
    CLI::App* command = AddLegacy(table,
                                  {"legacy list", "the version 2 backups (--incomplete: also incomplete ones)",
                                   "Lists the complete version 2 backups; with --incomplete also the backups that have "
                                   "parts but no manifest (stopped, or still running elsewhere)."},
                                  RunList, options);
    command->add_flag("--incomplete", options->incomplete, "also backups that have parts but no manifest");
    command = AddLegacy(table, {"legacy delete", "delete a version 2 backup (complete or not)", ""}, RunDelete, options);
    command->add_option("BACKUP", options->backup, "the backup's id")->required();
    command = AddLegacy(table,
                        {"legacy prune", "remove incomplete version 2 backups",
                         "Removes every object of the incomplete backups whose newest part is older than AGE "
                         "(default 24h, so that a backup still running elsewhere is left alone; 0 removes them all)."},
                        RunPrune, options);
    command->add_option_function<std::string>(
             "--older-than",
             [held = options](const std::string& text) { held->olderThanSeconds = AgeArgument("--older-than", text); },
             "only backups whose newest part is older (30m, 24h, 7d; 0: all; default: 24h)")
        ->type_name("AGE");
    command = AddLegacy(table,
                        {"legacy rehydrate", "bring the archived objects of a version 2 backup back online",
                         "Asks for every archived object of the backup to come back to an online tier; run it again "
                         "to see what is still on its way."},
                        RunRehydrate, options);
    command->add_option("BACKUP", options->backup, "the backup's id")->required();
    AddRehydrateOptions(command, options->request);
    command = AddLegacy(table,
                        {"legacy migrate", "turn a version 2 backup into a snapshot of the repository",
                         "Backs up the files, empty folders and links of a complete version 2 backup into the "
                         "repository under --repo as a snapshot with the backup's time and source folder, reading "
                         "every part from the storage and checking it against the manifest before any of it is "
                         "stored; a file with a part that does not match is left out and named (exit status 3). "
                         "The version 2 backup is left as it was."},
                        RunMigrate, options);
    command->add_option("BACKUP", options->backup, "the backup's id")->required();
    command->add_option("--host", options->host, "the snapshot's host (default: this machine's name)")
        ->type_name("NAME");
    command->add_option("--tag", options->tags, "a tag of the snapshot (repeatable)")->type_name("TAG");
}

}  // namespace

void AddLegacyCommands(CommandTable& table) {
    table.Group("legacy", "backups of the version 2 layout (one object per part, no repository)",
                "Backups made before the repository keep one object per part of each file "
                "and a manifest, under <repo>/backups/ and <repo>/manifests/. These commands list, verify, restore, "
                "delete, prune, rehydrate and migrate them.");
    AddRestoreAndVerify(table);
    AddCatalogue(table);
}

}  // namespace qvhost::cli
