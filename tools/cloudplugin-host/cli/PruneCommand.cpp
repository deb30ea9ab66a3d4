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

// The latest end of the holds that keep packs; empty for none or a legal hold.
std::string HeldUntilText(const repo::PruneReport& report) {
    return report.heldUntil == 0 || report.heldUntil == repo::kHeldIndefinitely ? "" : UtcTimeText(report.heldUntil);
}

Json HeldUntilJson(const repo::PruneReport& report) {
    const std::string until = HeldUntilText(report);
    return until.empty() ? Json() : Json(until);
}

// What deleting early costs, by tier, at the price table's storage prices.
std::map<std::string, double> EarlyDeletionCosts(const repo::PruneReport& report, const PriceTable& prices) {
    std::map<std::string, double> costs;
    for (const auto& [tier, gibMonths] : report.earlyDeletionGiBMonths) costs[tier] = prices.PerGiBMonth(tier) * gibMonths;
    return costs;
}

Json PruneJson(const repo::PruneReport& report, const PriceTable& prices) {
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
                {"packs_held", report.packsHeld},
                {"held_until", HeldUntilJson(report)},
                {"index_objects_held", report.indexObjectsHeld},
                {"early_deletion_tiers", report.earlyDeletionTiers},
                {"early_deletion_cost", EarlyDeletionCosts(report, prices)}};
}

// What prune could not do because the storage holds it.
void SayHeld(Context& context, const repo::PruneReport& report) {
    if (report.packsHeld) {
        const std::string until = HeldUntilText(report);
        context.Say("note: " + std::to_string(report.packsHeld) + " packs to delete or rewrite are held by the storage" +
                    (until.empty() ? "" : " (until " + until + " at the latest)") +
                    " and kept whole; a prune after that frees them");
    }
    if (report.indexObjectsHeld) {
        context.Say("note: " + std::to_string(report.indexObjectsHeld) + " old index objects are held by the "
                    "storage: no pack was deleted, as they still name them");
    }
}

// What the plan leaves or costs because of tiers.
void SayTiers(Context& context, const repo::PruneReport& planned, bool dryRun) {
    if (planned.packsArchivedKept) {
        context.Say(std::to_string(planned.packsArchivedKept) + " partly used packs are archived and kept whole "
                    "(a rewrite would have to read them); they go once nothing in them is used");
    }
    const PriceTable& prices = context.options().prices;
    const std::map<std::string, double> costs = EarlyDeletionCosts(planned, prices);
    for (const auto& [tier, packs] : planned.earlyDeletionTiers) {
        const auto cost = costs.find(tier);
        const double charge = cost == costs.end() ? 0.0 : cost->second;
        context.Say("note: " + std::to_string(packs) + " packs " + (dryRun ? "would be" : "are") +
                    " deleted from the " + tier + " tier before their " +
                    std::to_string(repo::EarlyDeletionDays(tier)) + " days there are over: Azure charges the days "
                    "left, about " + CostText(charge, prices.currency));
    }
}


CommandResult RunPruneCommand(Context& context, const PruneCommandOptions& options) {
    repo::Repository repository = OpenRepository(context);
    if (!options.dryRun) repository.CheckMayDelete("prune");
    // Without --wait the prune goes on and keeps what is not back whole.
    if (options.rehydrate.rehydrate) BringBackPacksToRewrite(context, repository, options.rehydrate, "prune");
    repo::RepositoryLock lock(repository, "prune", true, context.options().lockWaitSeconds);
    CommandResult result;
    result.summarised = true;
    result.json = Json{{"command", "prune"}, {"ok", true}, {"dry_run", options.dryRun}};
    result.json.update(Prune(context, repository, options.dryRun));
    return result;
}

}  // namespace

void BringBackPacksToRewrite(Context& context, repo::Repository& repository, const RehydrateChoice& choice,
                             const std::string& command) {
    BringBack(context, choice, "the archived packs to rewrite", [&](repo::Rehydration& state) {
        repo::RepositoryLock planning(repository, command, false, context.options().lockWaitSeconds);
        const repo::PrunePlan plan = repo::PlanPrune(repository);
        repo::RehydrateObjects(repository.store(), repo::StoredPacks(repository, plan.archivedKept), choice.request,
                               state);
        return std::string("packs");
    });
}

Json Prune(Context& context, repo::Repository& repository, bool dryRun) {
    const repo::PrunePlan plan = repo::PlanPrune(repository);
    const repo::PruneReport& planned = plan.report;
    context.Say(std::string(dryRun ? "would remove " : "removing ") + std::to_string(planned.blobsRemoved) +
                " unused chunks: " + std::to_string(planned.packsDeleted + planned.packsUnindexed) +
                " packs to delete (" + std::to_string(planned.packsUnindexed) + " of interrupted backups), " +
                std::to_string(planned.packsRewritten) + " to rewrite, " + std::to_string(planned.packsKept) +
                " kept; about " + FormatBytes(static_cast<double>(planned.bytesFreed)) + " to free");
    SayTiers(context, planned, dryRun);
    if (dryRun) {
        SayHeld(context, planned);
        return PruneJson(planned, context.options().prices);
    }
    repo::PruneOptions options;
    options.jobs = context.options().host.jobs;
    options.progress = context.Display();
    const repo::PruneReport report = repo::ExecutePrune(repository, plan, options);
    context.Say("removed " + std::to_string(report.blobsRemoved) + " unused chunks: " +
                std::to_string(report.packsDeleted + report.packsUnindexed) + " packs deleted, " +
                std::to_string(report.packsRewritten) + " rewritten into " + std::to_string(report.packsWritten) +
                "; " + FormatBytes(static_cast<double>(report.bytesFreed)) + " freed");
    SayHeld(context, report);
    return PruneJson(report, context.options().prices);
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
         "them too.\n\nPacks the storage holds (a retention set by 'init --immutable-days', or a legal hold) are "
         "neither deleted nor rewritten: they are kept whole and named, with the latest end of their holds."},
        [options](Context& context) { return RunPruneCommand(context, *options); });
    CLI::Option* dryRun = command->add_flag("-n,--dry-run", options->dryRun, "say what would be removed, remove nothing");
    AddRehydrateChoiceOptions(command, options->rehydrate, "prune");
    command->get_option("--rehydrate")->excludes(dryRun);
}

}  // namespace qvhost::cli
