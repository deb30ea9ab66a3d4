// check: the repository's structure, or with --read-data every byte.
#include "cli/RepositorySupport.h"
#include "repository/Check.h"
#include "repository/Locks.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct CheckCommandOptions {
    bool readData = false;
};

CommandResult RunCheck(Context& context, const CheckCommandOptions& options) {
    repo::Repository repository = OpenRepository(context, LocalCacheUse::Bypass);
    repo::RepositoryLock lock(repository, "check", false, context.options().lockWaitSeconds);
    repo::CheckOptions check;
    check.readData = options.readData;
    check.jobs = context.options().host.jobs;
    check.progress = context.Display();
    const repo::CheckReport report = repo::RunCheck(repository, check);
    for (const std::string& warning : report.warnings) context.Warn("note: " + Printable(warning));
    for (const std::string& error : report.errors) context.Warn("ERROR " + Printable(error));
    for (const std::string& file : report.affected) context.Warn("affected: snapshot " + Printable(file));
    for (const std::string& repair : report.repairs) context.Warn("to repair: " + repair);
    context.Say(std::string("checked ") + std::to_string(report.snapshots) + " snapshots, " +
                std::to_string(report.indexObjects) + " index objects, " + std::to_string(report.packs) + " packs, " +
                std::to_string(report.blobs) + " blobs" +
                (check.readData ? ", read " + FormatBytes(static_cast<double>(report.bytesRead)) : "") + ": " +
                (report.errors.empty() ? "no errors" : std::to_string(report.errors.size()) + " errors"));
    CommandResult result;
    result.summarised = true;
    result.status = report.errors.empty() ? kExitOk : kExitDamaged;
    result.json = Json{{"command", "check"},
                       {"ok", report.errors.empty()},
                       {"read_data", check.readData},
                       {"snapshots", report.snapshots},
                       {"index_objects", report.indexObjects},
                       {"packs", report.packs},
                       {"blobs", report.blobs},
                       {"bytes_read", report.bytesRead},
                       {"packs_archived", report.packsArchived},
                       {"errors", report.errors},
                       {"warnings", report.warnings},
                       {"affected", report.affected},
                       {"damaged_copies", report.damagedCopies},
                       {"blobs_lost", report.blobsLost},
                       {"repairs", report.repairs}};
    return result;
}

}  // namespace

void AddCheckCommand(CommandTable& table) {
    auto options = std::make_shared<CheckCommandOptions>();
    CLI::App* command = table.Add(
        {"check", "check the repository's structure (--read-data: every pack read and checked)",
         "Checks that every index and snapshot opens, that every chunk a snapshot names is indexed and that every "
         "indexed pack exists; with --read-data it also reads every pack and checks every chunk. Damage is named "
         "with the snapshot files it affects, and the exit status is 1. It says which command repairs what it "
         "found: 'repair index' for a damaged index or lost packs, 'repair snapshots' for snapshots that name lost "
         "data, 'prune' for a damaged copy of data kept intact elsewhere."},
        [options](Context& context) { return RunCheck(context, *options); });
    command->add_flag("--read-data", options->readData, "read every pack and check every chunk");
}

}  // namespace qvhost::cli
