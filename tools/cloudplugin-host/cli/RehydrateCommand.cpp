// rehydrate: the archived objects a snapshot needs, back to an online tier.
#include "cli/Reporting.h"
#include "cli/RepositorySupport.h"
#include "host/PluginObjectStore.h"
#include "repository/Rehydrate.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct RehydrateOptions {
    std::string snapshot;
    repo::RehydrateRequest request;
};

CommandResult RunRehydrate(Context& context, const RehydrateOptions& options) {
    repo::Rehydration state;
    const std::string stage = RehydrateSnapshot(context, options.snapshot, options.request, state);
    if (stage == "repository" && !state.Ready()) {
        context.Say("the repository's own objects (keys, config, index, snapshots) are coming back first: run "
                    "'cloudplugin-host rehydrate " + options.snapshot + "' again once they are online");
    } else if (stage == "trees" && !state.Ready()) {
        context.Say("the packs of the repository's trees are coming back next: run 'cloudplugin-host rehydrate " +
                    options.snapshot + "' again once they are online");
    }
    return RehydrationResult(context, options.snapshot, stage, options.request, state);
}

}  // namespace

void AddRehydrateCommand(CommandTable& table) {
    auto options = std::make_shared<RehydrateOptions>();
    CLI::App* command = table.Add(
        {"rehydrate", "bring the archived objects of a snapshot back to an online tier",
         "Archived objects (written with AccessTier=Archive, or moved there by a lifecycle rule) cannot be read "
         "until they are rehydrated. This asks for every archived object the snapshot needs to come back, the "
         "repository's own objects first (without them nothing says which packs the snapshot needs), then the "
         "snapshot's packs. Azure takes hours: run it again to see what is still on its way, then restore."},
        [options](Context& context) { return RunRehydrate(context, *options); });
    command->add_option("SNAPSHOT", options->snapshot, "the snapshot ('latest' or an id)")->required();
    AddRehydrateOptions(command, options->request);
}

}  // namespace qvhost::cli
