// prune: remove what no snapshot needs (a dry run shows the plan).
#include "cli/PruneCommand.h"

#include "cli/RepositorySupport.h"
#include "repository/Locks.h"
#include "repository/Prune.h"
#include "repository/Rehydrate.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct PruneCommandOptions {
    bool dryRun = false;
    RehydrateChoice rehydrate;
};

Json PruneJson(const repo::PruneReport& report) {
    return Json{{"packs_kept", report.packsKept},
                {"packs_deleted", report.packsDeleted},
                {"packs_rewritten", report.packsRewritten},
                {"packs_unindexed_deleted", report.packsUnindexed},
                {"packs_written", report.packsWritten},
                {"blobs_removed", report.blobsRemoved},
                {"bytes_freed", report.bytesFreed},
                {"bytes_rewritten", report.bytesRewritten},
                {"index_objects_replaced", report.indexObjectsReplaced},
                {"packs_archived_kept", report.packsArchivedKept},
                {"early_deletion_tiers", report.earlyDeletionTiers}};
}

// What the plan leaves or costs because of tiers.
void SayTiers(Context& context, const repo::PruneReport& planned, bool dryRun) {
    if (planned.packsArchivedKept) {
        context.Say(std::to_string(planned.packsArchivedKept) + " partly used packs are archived and kept whole "
                    "(a rewrite would have to read them); they go once nothing in them is used");
    }
    for (const auto& [tier, packs] : planned.earlyDeletionTiers) {
        context.Say("note: " + std::to_string(packs) + " packs " + (dryRun ? "would be" : "are") +
                    " deleted from the " + tier + " tier; Azure charges for deleting a blob before it spent " +
                    std::to_string(repo::EarlyDeletionDays(tier)) + " days there");
    }
}

CommandResult RunPruneCommand(Context& context, const PruneCommandOptions& options) {
    repo::Repository repository = OpenRepository(context);
    if (!options.dryRun) repository.CheckMayDelete("prune");
    // The partly used packs it would rewrite but cannot read, asked for
    // under a shared lock (a wait of hours holds up no backup); without
    // --wait the prune goes on and keeps them whole.
    if (options.rehydrate.rehydrate) {
        BringBack(context, options.rehydrate, "the archived packs to rewrite", [&](repo::Rehydration& state) {
            repo::RepositoryLock planning(repository, "prune", false, context.options().lockWaitSeconds);
            const repo::PrunePlan plan = repo::PlanPrune(repository);
            repo::RehydrateObjects(repository.store(), repo::StoredPacks(repository, plan.archivedKept),
                                   options.rehydrate.request, state);
            return std::string("packs");
        });
    }
    repo::RepositoryLock lock(repository, "prune", true, context.options().lockWaitSeconds);
    CommandResult result;
    result.summarised = true;
    result.json = Json{{"command", "prune"}, {"ok", true}, {"dry_run", options.dryRun}};
    result.json.update(Prune(context, repository, options.dryRun));
    return result;
}

}  // namespace

Json Prune(Context& context, repo::Repository& repository, bool dryRun) {
    const repo::PrunePlan plan = repo::PlanPrune(repository);
    const repo::PruneReport& planned = plan.report;
    context.Say(std::string(dryRun ? "would remove " : "removing ") + std::to_string(planned.blobsRemoved) +
                " unused chunks: " + std::to_string(planned.packsDeleted + planned.packsUnindexed) +
                " packs to delete (" + std::to_string(planned.packsUnindexed) + " of interrupted backups), " +
                std::to_string(planned.packsRewritten) + " to rewrite, " + std::to_string(planned.packsKept) +
                " kept; about " + FormatBytes(static_cast<double>(planned.bytesFreed)) + " to free");
    SayTiers(context, planned, dryRun);
    if (dryRun) return PruneJson(planned);
    repo::PruneOptions options;
    options.jobs = context.options().host.jobs;
    options.progress = context.Display();
    const repo::PruneReport report = repo::ExecutePrune(repository, plan, options);
    context.Say("removed " + std::to_string(report.blobsRemoved) + " unused chunks: " +
                std::to_string(report.packsDeleted + report.packsUnindexed) + " packs deleted, " +
                std::to_string(report.packsRewritten) + " rewritten into " + std::to_string(report.packsWritten) +
                "; " + FormatBytes(static_cast<double>(report.bytesFreed)) + " freed");
    return PruneJson(report);
}

void AddPruneCommand(CommandTable& table) {
    auto options = std::make_shared<PruneCommandOptions>();
    CLI::App* command = table.Add(
        {"prune", "remove chunks no snapshot needs",
         "Removes the chunks no snapshot needs: packs nothing uses are deleted, partly used ones rewritten (every "
         "chunk copied is checked first), packs of interrupted backups deleted. It stops and deletes nothing if a "
         "snapshot names data that no pack holds. It takes the exclusive lock: it waits for, or is refused by, "
         "running backups, restores and checks. --dry-run shows the plan and changes nothing.\n\nA partly used pack in "
         "the Archive tier cannot be read to rewrite: it is kept whole until nothing in it is used. With --rehydrate "
         "prune first asks for those packs to come back and prunes the rest; with --wait as well it waits until "
         "they are back (asking again every --wait-interval, under a lock that holds up no backup), then rewrites "
         "them too."},
        [options](Context& context) { return RunPruneCommand(context, *options); });
    CLI::Option* dryRun = command->add_flag("-n,--dry-run", options->dryRun, "say what would be removed, remove nothing");
    AddRehydrateChoiceOptions(command, options->rehydrate, "prune");
    command->get_option("--rehydrate")->excludes(dryRun);
}

}  // namespace qvhost::cli
