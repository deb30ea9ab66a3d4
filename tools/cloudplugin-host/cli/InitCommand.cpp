// init: a new encrypted repository under --repo; data-tier: where its data
// packs go.
#include "cli/RepositorySupport.h"
#include "host/PluginObjectStore.h"
#include "repository/Locks.h"
#include "repository/Rehydrate.h"

namespace qvhost::cli {

namespace {

struct InitOptions {
    uint64_t kdfMemory = 64ull << 20;
    uint64_t packSize = 16ull << 20;
    std::string dataTier;
    uint32_t immutableDays = 0;
};

const char* const kDataTierText =
    "Keys, config, indexes, snapshots, tree packs and locks stay online whatever the tier; packs of file data are "
    "moved to the data tier as they are written. In the Archive tier they cannot be read until rehydrated: "
    "'cloudplugin-host rehydrate SNAPSHOT' brings back exactly the packs a snapshot needs, 'check --read-data' "
    "skips archived packs and says how many, and prune keeps partly used archived packs whole (it cannot read "
    "them to rewrite) and notes when a deletion is charged for leaving a cool, cold or archived blob early.";

CommandResult RunInit(Context& context, const InitOptions& options) {
    repo::InitOptions init;
    init.kdfMemory = options.kdfMemory;
    init.packSize = options.packSize;
    init.dataTier = options.dataTier;
    init.immutableDays = options.immutableDays;
    const std::string& root = context.options().repo;
    RefuseArchivingConnection(context);
    repo::Repository::Init(context.Store(), root, context.options().password, init, repo::HostName());
    const repo::Repository repository = OpenRepository(context);
    context.Say("created the repository " + ShortId(repository.config().id) + " under " + root +
                "; keep the password safe: without it nothing can be read");
    CommandResult result;
    result.json = Json{{"command", "init"},
                       {"ok", true},
                       {"repository", repository.config().id},
                       {"root", root},
                       {"pack_size", repository.config().packSize},
                       {"data_tier", repository.config().dataTier},
                       {"immutable_days", repository.config().immutableDays}};
    if (options.immutableDays != 0) {
        context.Say("packs, snapshots and the key object are kept unchanged and undeleted for " +
                    std::to_string(options.immutableDays) + " days from when each is written");
    }
    return result;
}

struct DataTierOptions {
    std::string tier;  // empty: show
    bool none = false;
    bool move = false;  // --move: the packs already written too
    std::string priority = "Standard";
};

CommandResult RunDataTier(Context& context, const DataTierOptions& options) {
    repo::Repository repository = OpenRepository(context);
    if (options.move && options.tier.empty() && repository.config().dataTier.empty()) {
        throw Error(ErrorKind::Usage, "--move needs a data tier: give TIER");
    }
    const std::string before = repository.config().dataTier;
    if (!options.tier.empty() || options.none) {
        repo::RepositoryLock lock(repository, "data-tier", true, context.options().lockWaitSeconds);
        repository.SetDataTier(options.none ? "" : options.tier);
    }
    const std::string& tier = repository.config().dataTier;
    const std::string shown = tier.empty() ? "none (data packs stay where the storage puts them)" : tier;
    context.Say(tier == before ? "data tier: " + shown
                               : "data tier: " + shown + " for the data packs written from now on (was " +
                                     (before.empty() ? "none" : before) + ")");
    CommandResult result;
    result.json = Json{{"command", "data-tier"}, {"ok", true}, {"data_tier", tier}, {"was", before}};
    if (options.move) {
        repo::RepositoryLock lock(repository, "data-tier", false, context.options().lockWaitSeconds);
        const repo::TierMove move = repo::MoveDataPacks(repository, repository.LoadIndex(), tier, options.priority);
        context.Say("data packs: " + std::to_string(move.moved) + " moved to " + tier + ", " +
                    std::to_string(move.already) + " there already" +
                    (move.rehydrating ? ", " + std::to_string(move.rehydrating) +
                                            " asked to leave the Archive tier (Azure takes hours)"
                                      : "") +
                    (move.pending ? ", " + std::to_string(move.pending) + " on their way out of the Archive tier"
                                  : "") +
                    "; " + std::to_string(move.treePacks) + " packs of trees stay online");
        if (move.moved && repo::EarlyDeletionDays(before) > 0) {
            context.Say("note: Azure charges for moving a blob out of the " + before + " tier before it spent " +
                        std::to_string(repo::EarlyDeletionDays(before)) + " days there");
        }
        result.json["moved"] = Json{{"moved", move.moved},
                                    {"already", move.already},
                                    {"rehydrating", move.rehydrating},
                                    {"pending", move.pending},
                                    {"tree_packs", move.treePacks}};
    }
    return result;
}

}  // namespace

void AddInitCommand(CommandTable& table) {
    auto options = std::make_shared<InitOptions>();
    CLI::App* command = table.Add(
        {"init", "make a new encrypted repository under --repo",
         "Makes a new repository under the prefix --repo (default cloudplugin-host) of the container: its master "
         "keys, sealed by a key derived from the password (CLOUDPLUGIN_PASSWORD or --password-file) with scrypt, "
         "and its config. Nothing can be read without the password, and nothing recovers a lost one.\n\n"
         "--data-tier chooses the access tier of the data packs (see 'data-tier'). " + std::string(kDataTierText) +
             "\n\n--immutable-days N asks the storage to keep every pack and snapshot (and the key object init "
             "writes) unchanged and undeleted for N days from when each is written: a time-based retention, which "
             "Azure applies where the container (or account) has version-level immutability; init fails if it "
             "does not. Nobody can then delete a backup younger than N days, the credential that wrote it "
             "included; forget and prune leave what is still held and say until when. Index objects are not "
             "held: 'repair index' makes them again from the packs."},
        [options](Context& context) { return RunInit(context, *options); });
    command
        ->add_option_function<std::string>(
            "--kdf-memory",
            [options](const std::string& text) {
                options->kdfMemory = SizeArgument("--kdf-memory", text, 1ull << 20, 1ull << 30);
            },
            "memory of the password's key derivation, scrypt (default: 64M)")
        ->type_name("SIZE");
    command
        ->add_option_function<std::string>(
            "--pack-size",
            [options](const std::string& text) {
                options->packSize = SizeArgument("--pack-size", text, 1ull << 20, 256ull << 20);
            },
            "the size of the repository's packs (default: 16M)")
        ->type_name("SIZE");
    command->add_option("--data-tier", options->dataTier, "the access tier of the data packs (default: none)")
        ->check(CLI::IsMember(repo::DataTiers()))
        ->type_name("TIER");
    command
        ->add_option_function<std::string>(
            "--immutable-days",
            [options](const std::string& text) {
                options->immutableDays =
                    static_cast<uint32_t>(CountArgument("--immutable-days", text, repo::kMaximumImmutableDays));
            },
            "keep every pack and snapshot unchanged and undeleted for N days from when it is written "
            "(a container with version-level immutability; default: none)")
        ->type_name("N");

    auto tier = std::make_shared<DataTierOptions>();
    command = table.Add({"data-tier", "show or change the tier the repository's data packs go to",
                         std::string("Without TIER, shows the data tier; with TIER (Hot, Cool, Cold or Archive) "
                                     "or --none, changes it for the packs written from then on. --move moves the "
                                     "data packs already written to the tier too (out of the Archive tier that is "
                                     "a rehydration, at --priority, which Azure finishes hours later); packs of "
                                     "trees stay online. It takes the exclusive lock to change the tier.\n\n") +
                             kDataTierText},
                        [tier](Context& context) { return RunDataTier(context, *tier); });
    command->add_option("TIER", tier->tier, "Hot, Cool, Cold or Archive")->check(CLI::IsMember(repo::DataTiers()));
    CLI::Option* none =
        command->add_flag("--none", tier->none, "no data tier: data packs stay where the storage puts them")
            ->excludes(command->get_option("TIER"));
    command->add_flag("--move", tier->move, "also move the data packs already written to the tier")->excludes(none);
    command->add_option("--priority", tier->priority, "out of the Archive tier: Standard or High (default: Standard)")
        ->check(CLI::IsMember({"Standard", "High"}))
        ->type_name("PRIORITY");
}

}  // namespace qvhost::cli
