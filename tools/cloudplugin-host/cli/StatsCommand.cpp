// stats: how big snapshots are, restored or as stored.
#include <cstdio>

#include "cli/RepositorySupport.h"
#include "repository/Locks.h"
#include "repository/Stats.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct StatsOptions {
    std::vector<std::string> snapshots;
    std::string mode = "restore-size";
    bool cost = false;
    repo::SnapshotFilter filter;
};

std::string SizeText(uint64_t bytes) {
    return FormatBytes(static_cast<double>(bytes)) + " (" + std::to_string(bytes) + " bytes)";
}

std::string RatioText(double ratio) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", ratio);
    return text;
}

// The snapshots counted, oldest first: those named, else all the filter selects.
std::vector<repo::Snapshot> Chosen(repo::Repository& repository, const StatsOptions& options) {
    std::vector<repo::Snapshot> chosen;
    for (const std::string& argument : options.snapshots) {
        chosen.push_back(repository.LoadSnapshot(ResolveSnapshot(repository, argument, options.filter)));
    }
    if (!options.snapshots.empty()) return chosen;
    for (const repo::SnapshotInfo& info : repository.ListSnapshotInfos()) {
        if (options.filter.Matches(info)) chosen.push_back(repository.LoadSnapshot(info.id));
    }
    return chosen;
}

Json RestoreSize(Context& context, repo::TreeReader& reader, const std::vector<repo::Snapshot>& snapshots) {
    const repo::RestoreSizeStats stats = repo::CountRestoreSize(reader, snapshots);
    context.Say("snapshots:    " + std::to_string(stats.snapshots));
    context.Say("files:        " + std::to_string(stats.files) + " (and " + std::to_string(stats.folders) +
                " folders, " + std::to_string(stats.links) + " links, " + std::to_string(stats.others) + " others)");
    context.Say("restore size: " + SizeText(stats.bytes));
    return Json{{"snapshots", stats.snapshots}, {"files", stats.files}, {"folders", stats.folders},
                {"links", stats.links},         {"others", stats.others}, {"bytes", stats.bytes}};
}

Json RawData(Context& context, repo::TreeReader& reader, const repo::MasterIndex& index,
             const std::vector<repo::Snapshot>& snapshots) {
    const repo::RawDataStats stats = repo::CountRawData(reader, index, snapshots);
    context.Say("snapshots:           " + std::to_string(stats.snapshots));
    context.Say("unique blobs:        " + std::to_string(stats.blobs) + " (" + std::to_string(stats.treeBlobs) +
                " of them trees)");
    context.Say("stored:              " + SizeText(stats.storedBytes));
    context.Say("uncompressed:        " + SizeText(stats.uncompressedBytes));
    context.Say("compression ratio:   " + RatioText(stats.CompressionRatio()));
    context.Say("restore size:        " + SizeText(stats.restoreBytes));
    context.Say("deduplication ratio: " + RatioText(stats.DeduplicationRatio()));
    if (stats.missing) context.Warn(std::to_string(stats.missing) + " referenced blobs are in no index ('check')");
    return Json{{"snapshots", stats.snapshots},
                {"blobs", stats.blobs},
                {"tree_blobs", stats.treeBlobs},
                {"stored_bytes", stats.storedBytes},
                {"uncompressed_bytes", stats.uncompressedBytes},
                {"data_bytes", stats.dataBytes},
                {"restore_bytes", stats.restoreBytes},
                {"compression_ratio", stats.CompressionRatio()},
                {"deduplication_ratio", stats.DeduplicationRatio()},
                {"missing_blobs", stats.missing}};
}

// Every object of the repository, by access tier, and what a month of it
// costs; locks left out (they last minutes, this one included).
Json StorageCost(Context& context, repo::Repository& repository) {
    const std::string locks = repository.layout().LocksPrefix();
    std::vector<std::pair<std::string, uint64_t>> objects;
    for (const repo::StoredObject& object : repository.store().List(repository.layout().root + "/")) {
        if (object.name.compare(0, locks.size(), locks) != 0) objects.emplace_back(object.tier, object.size);
    }
    const PriceTable& prices = context.options().prices;
    const std::vector<TierStorage> tiers = StorageByTier(objects, prices);
    context.Say("storage a month, at " + prices.source + ":");
    Json list = Json::array();
    double total = 0;
    uint64_t bytes = 0;
    for (const TierStorage& tier : tiers) {
        const std::string name = tier.tier.empty() ? "the account's default tier (priced as Hot)" : tier.tier;
        context.Say("  " + name + ": " + std::to_string(tier.objects) + " objects, " + SizeText(tier.bytes) + ", " +
                    CostText(tier.monthlyCost, prices.currency));
        list.push_back(Json{{"tier", tier.tier}, {"objects", tier.objects}, {"bytes", tier.bytes},
                            {"monthly_cost", tier.monthlyCost}});
        total += tier.monthlyCost;
        bytes += tier.bytes;
    }
    context.Say("  in all: " + SizeText(bytes) + ", about " + CostText(total, prices.currency) + " a month");
    return Json{{"storage_by_tier", std::move(list)},
                {"monthly_cost", total},
                {"currency", prices.currency},
                {"prices", prices.source}};
}

CommandResult RunStats(Context& context, const StatsOptions& options) {
    if (options.mode != "restore-size" && options.mode != "raw-data") {
        throw Error(ErrorKind::Usage, "--mode takes restore-size or raw-data, not " + options.mode);
    }
    repo::Repository repository = OpenRepository(context);
    repo::RepositoryLock lock(repository, "stats", false, context.options().lockWaitSeconds);
    const std::vector<repo::Snapshot> snapshots = Chosen(repository, options);
    const repo::MasterIndex index = repository.LoadIndex();
    repo::TreeReader reader(repository, index);
    context.Say("stats in " + options.mode + " mode");
    CommandResult result;
    result.json = Json{{"command", "stats"}, {"ok", true}, {"mode", options.mode}};
    const Json figures = options.mode == "raw-data" ? RawData(context, reader, index, snapshots)
                                                    : RestoreSize(context, reader, snapshots);
    result.json.update(figures);
    if (options.cost) result.json.update(StorageCost(context, repository));
    return result;
}

}  // namespace

void AddStatsCommand(CommandTable& table) {
    auto options = std::make_shared<StatsOptions>();
    CLI::App* command = table.Add(
        {"stats", "how big snapshots are: restored, or as stored",
         "Counts the snapshots named (default: all that --host, --tag and --path select). --mode restore-size "
         "(the default): the files, folders and links a restore of each would make and the bytes of the files, "
         "every snapshot counted in full. --mode raw-data: the unique blobs the snapshots reference (trees and "
         "file chunks, each once), their bytes as stored and uncompressed, the compression ratio, and the "
         "deduplication ratio (the files' bytes over the bytes of the unique chunks that hold them). --cost adds "
         "every object the repository holds (but locks), summed by access tier, and what a month of each costs at the price "
         "table (--prices)."},
        [options](Context& context) { return RunStats(context, *options); });
    command->add_option("SNAPSHOT", options->snapshots, "snapshots to count (ids, prefixes, 'latest')");
    command->add_option("--mode", options->mode, "restore-size (default) or raw-data")->type_name("MODE");
    command->add_flag("--cost", options->cost,
                      "also every object of the repository by access tier, and what a month of it costs");
    AddFilterOptions(command, options->filter, "snapshots");
}

}  // namespace qvhost::cli
