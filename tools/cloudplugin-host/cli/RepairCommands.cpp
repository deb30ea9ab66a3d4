// repair index and repair snapshots: a damaged repository made usable again.
#include "cli/RepositorySupport.h"
#include "repository/Locks.h"
#include "repository/RepairIndex.h"
#include "repository/RepairSnapshots.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct RepairSnapshotsCommandOptions {
    std::vector<std::string> snapshots;
    bool dryRun = false;
    bool forget = false;
};

CommandResult RunRepairIndex(Context& context) {
    repo::Repository repository = OpenRepository(context, LocalCacheUse::Bypass);
    repo::RepositoryLock lock(repository, "repair index", true, context.options().lockWaitSeconds);
    repo::RepairIndexOptions options;
    options.jobs = context.options().host.jobs;
    options.progress = context.Display();
    const repo::RepairIndexReport report = repo::RepairIndex(repository, options);
    Json refused = Json::array();
    for (const repo::RefusedPack& pack : report.packsRefused) {
        context.Warn("left out: " + Printable(pack.name) + ": " + Printable(pack.why));
        refused.push_back(Json{{"name", pack.name}, {"why", pack.why}});
    }
    context.Say("indexed " + std::to_string(report.packsIndexed) + " packs (" + std::to_string(report.blobsIndexed) +
                " blobs, " + FormatBytes(static_cast<double>(report.bytesRead)) + " read) in " +
                std::to_string(report.indexObjectsWritten) + " new index objects; removed " +
                std::to_string(report.indexObjectsRemoved) + " old ones; " +
                std::to_string(report.packsRefused.size()) + " packs left out");
    if (!report.packsRefused.empty()) {
        context.Say("the packs left out are damaged: 'cloudplugin-host check' names the files they held, "
                    "'cloudplugin-host repair snapshots' repairs the snapshots that name them");
    }
    CommandResult result;
    result.json = Json{{"command", "repair index"},       {"ok", true},
                       {"packs_indexed", report.packsIndexed}, {"blobs_indexed", report.blobsIndexed},
                       {"bytes_read", report.bytesRead},    {"packs_refused", std::move(refused)},
                       {"index_objects_written", report.indexObjectsWritten},
                       {"index_objects_removed", report.indexObjectsRemoved}};
    return result;
}

Json SayRepair(Context& context, const repo::SnapshotRepair& repair, bool dryRun) {
    const std::string original = ShortId(repair.original);
    if (!repair.damaged) {
        context.Say(original + ": nothing lost");
    } else if (repair.repairedBefore) {
        context.Say(original + ": repaired before as " + ShortId(repair.repaired));
    } else {
        context.Say(original + ": " + std::to_string(repair.dropped.size()) + " files dropped, " +
                    std::to_string(repair.emptied.size()) + " folders emptied; " +
                    (dryRun ? std::string("would write a repaired snapshot")
                            : "the repaired snapshot is " + ShortId(repair.repaired)));
    }
    for (const std::string& path : repair.dropped) context.Verbose("  dropped " + Printable(path));
    for (const std::string& path : repair.emptied) context.Verbose("  emptied " + Printable(path) + "/");
    if (repair.forgotten) context.Say(original + ": forgotten");
    Json json{{"original", repair.original}, {"damaged", repair.damaged}, {"dropped", repair.dropped},
              {"emptied", repair.emptied},   {"forgotten", repair.forgotten}, {"repaired_before", repair.repairedBefore}};
    json["new"] = repair.repaired.empty() ? Json() : Json(repair.repaired);
    return json;
}

CommandResult RunRepairSnapshots(Context& context, const RepairSnapshotsCommandOptions& options) {
    repo::Repository repository = OpenRepository(context, LocalCacheUse::Bypass);
    repo::RepositoryLock lock(repository, "repair snapshots", !options.dryRun, context.options().lockWaitSeconds);
    const std::vector<repo::SnapshotRepair> repairs =
        repo::RepairSnapshots(repository, options.snapshots, {options.dryRun, options.forget});
    Json snapshots = Json::array();
    size_t damaged = 0;
    for (const repo::SnapshotRepair& repair : repairs) {
        snapshots.push_back(SayRepair(context, repair, options.dryRun));
        damaged += repair.damaged ? 1 : 0;
    }
    context.Say(std::string(options.dryRun ? "would repair " : "repaired ") + std::to_string(damaged) + " of " +
                std::to_string(repairs.size()) + " snapshots");
    CommandResult result;
    result.json = Json{{"command", "repair snapshots"}, {"ok", true}, {"dry_run", options.dryRun},
                       {"snapshots", std::move(snapshots)}};
    return result;
}

}  // namespace

void AddRepairCommands(CommandTable& table) {
    table.Group("repair", "rebuild the index, repair snapshots that name lost data",
                "Makes a damaged repository usable again. 'repair index' rebuilds the index from the packs; "
                "'repair snapshots' writes new snapshots without the files whose data is lost. 'check' says "
                "which one what it found calls for.");
    table.Add({"repair index", "rebuild the index from the packs themselves",
               "Reads every pack whole and verifies it (its name is the SHA-256 of its bytes, its header opens, "
               "every chunk opens to its id), writes new index objects naming every pack that passes, and only "
               "then deletes the old index objects: stopped at any point it leaves a usable index. Packs that "
               "fail are named and left out of the index, not deleted ('prune' removes them). It takes the "
               "exclusive lock."},
              [](Context& context) { return RunRepairIndex(context); });
    auto options = std::make_shared<RepairSnapshotsCommandOptions>();
    CLI::App* command = table.Add(
        {"repair snapshots", "write repaired copies of snapshots that name lost data",
         "Walks each SNAPSHOT (default: every one) and, where a file's data is in no index or only in packs "
         "that are gone, leaves the file out; a folder whose trees cannot be read keeps what can be read of it "
         "(it is empty when nothing can). Each damaged "
         "snapshot gets a new one (same time, host, paths and tags, with the tag 'repaired' and the original's "
         "id), written after the trees it names. The original stays unless --forget is given. Where packs exist "
         "that the index lacks, run 'repair index' first. It takes the exclusive lock (shared with --dry-run)."},
        [options](Context& context) { return RunRepairSnapshots(context, *options); });
    command->add_option("SNAPSHOT", options->snapshots, "snapshots to repair (an id, a unique prefix, or latest)");
    command->add_flag("-n,--dry-run", options->dryRun, "say what would be repaired, write nothing");
    command->add_flag("--forget", options->forget, "remove each original once its repaired snapshot is stored");
}

}  // namespace qvhost::cli
