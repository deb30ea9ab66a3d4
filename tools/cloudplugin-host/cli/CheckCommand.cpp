// check: the repository's structure, or with --read-data every byte.
#include "cli/RepositorySupport.h"
#include "repository/Check.h"
#include "repository/Locks.h"
#include "repository/Rehydrate.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct CheckCommandOptions {
    bool readData = false;
    RehydrateChoice rehydrate;
};

CommandResult RunCheck(Context& context, const CheckCommandOptions& options) {
    repo::Repository repository = OpenRepository(context, LocalCacheUse::Bypass);
    // Before the check's lock: a wait of hours holds up no prune. Without
    // --wait the check goes on and reads what is online.
    if (options.rehydrate.rehydrate) {
        BringBack(context, options.rehydrate, "the indexed packs", [&](repo::Rehydration& state) {
            repo::RepositoryLock asking(repository, "check", false, context.options().lockWaitSeconds);
            const repo::MasterIndex index = repository.LoadIndex();
            repo::RehydrateObjects(repository.store(), repo::IndexedPacks(repository, index), options.rehydrate.request,
                                   state);
            return std::string("packs");
        });
    }
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
         "data, 'prune' for a damaged copy of data kept intact elsewhere.\n\nPacks in the Archive tier cannot be read: "
         "--read-data counts them and goes on. With --rehydrate it first asks for every archived pack the index "
         "names to come back (as 'rehydrate' does for a snapshot) and reads what is online; with --wait as well it "
         "asks again every --wait-interval until all of them are back, then reads everything."},
        [options](Context& context) { return RunCheck(context, *options); });
    CLI::Option* readData =
        command->add_flag("--read-data", options->readData, "read every pack and check every chunk");
    AddRehydrateChoiceOptions(command, options->rehydrate, "check");
    command->get_option("--rehydrate")->needs(readData);
}

}  // namespace qvhost::cli
