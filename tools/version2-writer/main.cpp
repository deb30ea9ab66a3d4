// version2-writer: writes backups of the version 2 layout, one object per
// part of each file and a manifest, through the plug-in, for the tests and
// benchmarks of the commands that read such backups (cloudplugin-host
// legacy ...) and of the plug-in's own throughput. cloudplugin-host writes
// no new ones. It takes cloudplugin-host's global options and one command:
//
//   version2-writer [global options] backup SOURCE_DIR [--name ID]
//                   [--part-size SIZE] [--skip-unreadable]
//
// Built beside the tool (stage/fixtures/), never installed.
#include <memory>

#include "Version2Writer.h"
#include "cli/Cli.h"
#include "cli/Reporting.h"
#include "host/PluginSession.h"
#include "local/LocalFiles.h"
#include "util/Text.h"

namespace {

using namespace qvhost;
using namespace qvhost::cli;

struct WriterOptions {
    std::string source;
    std::string name;
    uint64_t partSize = legacy::kDefaultPartSize;
    bool skipUnreadable = false;
};

CommandResult RunBackup(Context& context, const WriterOptions& options) {
    context.host().partSize = options.partSize;  // sizes the JVM: each part is an array in it
    const std::string backupId = options.name.empty() ? legacy::NewBackupId() : options.name;
    context.Say("backup " + backupId + " of " + AbsolutePath(options.source));
    PluginSession& session = context.VerifyingSession();
    const double pluginBefore = session.PluginSeconds();
    const legacy::Context legacy{session, {context.options().repo}, context.options().host.jobs, context.Display(),
                                 [&context](const std::string& line) { context.Warn(line); }};
    const legacy::BackupReport report = legacy::Backup(legacy, options.source, {backupId, options.partSize});
    const Json skipped = ReportSkipped(context, report.skipped);
    const double pluginSeconds = session.PluginSeconds() - pluginBefore;
    context.Say("backup " + backupId + " complete: " + std::to_string(report.files) + " files, " +
                std::to_string(report.folders) + " empty folders, " + std::to_string(report.links) + " links, " +
                FormatBytes(static_cast<double>(report.bytes)) + " in " + FormatDuration(report.seconds) + " (" +
                FormatBytes(MiBPerSecond(report.bytes, report.seconds) * 1048576) + "/s); " +
                std::to_string(report.skipped.size()) + " skipped, " + std::to_string(report.Unreadable()) +
                " of them unreadable");
    context.SayPluginShare(pluginSeconds, report.seconds, context.options().host.jobs);
    CommandResult result;
    result.status = report.Unreadable() && !options.skipUnreadable ? kExitIncomplete : kExitOk;
    result.json = Json{{"command", "backup"},
                       {"ok", result.status == kExitOk},
                       {"backup", backupId},
                       {"files", report.files},
                       {"bytes", report.bytes},
                       {"objects", report.objects},
                       {"seconds", report.seconds},
                       {"mib_per_s", MiBPerSecond(report.bytes, report.seconds)},
                       {"plugin_seconds", pluginSeconds},
                       {"folders", report.folders},
                       {"links", report.links},
                       {"skipped", skipped},
                       {"unreadable", report.Unreadable()}};
    return result;
}

void AddWriterCommands(CommandTable& table) {
    auto options = std::make_shared<WriterOptions>();
    CLI::App* command = table.Add(
        {"backup", "back up SOURCE_DIR in the version 2 layout (an object per part)",
         "Backs up SOURCE_DIR as one object per part of each file (--part-size) and a manifest written last, "
         "without deduplication or encryption. A backup that stops writes no manifest and removes its parts."},
        [options](Context& context) { return RunBackup(context, *options); });
    command->add_option("SOURCE_DIR", options->source, "the folder to back up")->required();
    command->add_option("--name", options->name, "the backup id to use (letters, digits, '.', '_', '-')")
        ->type_name("ID");
    command->add_option_function<std::string>(
             "--part-size",
             [options](const std::string& text) {
                 options->partSize = SizeArgument("--part-size", text, 1, legacy::kMaximumPartSize);
             },
             "object size files are split into (default: 8M); the JVM's heap is sized from it and --jobs")
        ->type_name("SIZE");
    command->add_flag("--skip-unreadable", options->skipUnreadable,
                      "entries that cannot be read do not make the exit status 3");
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, {"version2-writer", AddWriterCommands}); }
