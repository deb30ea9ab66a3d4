// forget: remove snapshots, named or by a policy, each group on its own.
#include <algorithm>
#include <ctime>
#include <map>
#include <optional>

#include "cli/RepositorySupport.h"
#include "cli/PruneCommand.h"
#include "repository/Forget.h"
#include "repository/Locks.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct ForgetCommandOptions {
    std::vector<std::string> snapshots;
    repo::RetentionPolicy policy;
    repo::SnapshotFilter filter;
    std::string groupBy = "host,paths";
    bool dryRun = false;
    bool prune = false;
    RehydrateChoice rehydrate;  // with --prune
};

std::string GroupText(const repo::SnapshotGroup& group) {
    std::string text;
    if (!group.host.empty()) text += "host " + Printable(group.host);
    if (!group.paths.empty()) text += (text.empty() ? "" : ", ") + std::string("paths ") + repo::PathsText(group.paths);
    if (!group.tags.empty()) text += (text.empty() ? "" : ", ") + std::string("tags ") + TagsText(group.tags);
    return text.empty() ? "all snapshots" : text;
}

Json SayPlan(Context& context, const repo::ForgetPlan& plan) {
    Json groups = Json::array();
    for (const repo::ForgetGroup& group : plan.groups) {
        const repo::RetentionDecision& decision = group.decision;
        context.Say(GroupText(group.group) + ": keeping " + std::to_string(decision.keep.size()) + ", forgetting " +
                    std::to_string(decision.forget.size()));
        for (const std::string& id : decision.keep) {
            std::string reasons;
            for (const std::string& reason : decision.reasons.at(id)) reasons += (reasons.empty() ? "" : ",") + reason;
            context.Say("  keep   " + ShortId(id) + " (" + reasons + ")");
        }
        for (const std::string& id : decision.forget) context.Say("  forget " + ShortId(id));
        groups.push_back(Json{{"host", group.group.host},
                              {"paths", group.group.paths},
                              {"tags", group.group.tags},
                              {"keep", decision.keep},
                              {"forget", decision.forget},
                              {"reasons", decision.reasons}});
    }
    return groups;
}

CommandResult RunForget(Context& context, const ForgetCommandOptions& options) {
    if (options.policy.Empty() == options.snapshots.empty()) {
        throw Error(ErrorKind::Usage,
                    "forget takes either snapshots or a policy (--keep-last, --keep-daily, --keep-within, ...)");
    }
    const unsigned groupBy = repo::ParseGroupBy(options.groupBy);
    repo::Repository repository = OpenRepository(context);
    if (!options.dryRun) repository.CheckMayDelete("forget");
    std::optional<repo::RepositoryLock> lock;
    lock.emplace(repository, "forget", true, context.options().lockWaitSeconds);
    std::vector<std::string> forget;
    Json groups = Json::array();
    if (!options.snapshots.empty()) {
        for (const std::string& named : options.snapshots) forget.push_back(ResolveSnapshot(repository, named, options.filter));
    } else {
        const repo::ForgetPlan plan =
            repo::PlanForget(repository.ListSnapshotInfos(), options.policy, options.filter, groupBy);
        groups = SayPlan(context, plan);
        forget = plan.forget;
    }
    // What the storage still holds stays; a forget once the hold is over takes it.
    const repo::ForgetOutcome outcome =
        repo::ForgetUnlessHeld(repository, forget, static_cast<int64_t>(std::time(nullptr)), options.dryRun);
    forget = outcome.forgotten;
    const std::map<std::string, int64_t>& held = outcome.held;
    Json heldJson = Json::array();
    for (const auto& [id, until] : held) {
        const std::string end = until == repo::kHeldIndefinitely ? "" : UtcTimeText(until);
        context.Say("note: the storage holds " + ShortId(id) + (end.empty() ? "" : " until " + end) +
                    ": it stays");
        heldJson.push_back(Json{{"id", id}, {"until", end.empty() ? Json() : Json(end)}});
    }
    context.Say(std::string(options.dryRun ? "would forget " : "forgot ") + std::to_string(forget.size()) +
                " snapshots" + (held.empty() ? "" : ", " + std::to_string(held.size()) + " held"));
    CommandResult result;
    result.summarised = true;
    result.json = Json{{"command", "forget"}, {"ok", true},           {"dry_run", options.dryRun},
                       {"forgotten", forget}, {"held", heldJson}, {"groups", std::move(groups)}};
    if (options.prune) {
        if (options.rehydrate.rehydrate) {
            // Asked for with no exclusive lock held: a wait of hours holds up no backup.
            lock.reset();
            BringBackPacksToRewrite(context, repository, options.rehydrate, "forget");
            lock.emplace(repository, "forget", true, context.options().lockWaitSeconds);
        }
        result.json["prune"] = Prune(context, repository, options.dryRun);
    }
    return result;
}

void AddKeepOption(CLI::App* command, const std::string& name, unsigned& value, const std::string& help) {
    command->add_option_function<std::string>(
               name, [name, &value](const std::string& text) { value = CountArgument(name, text, 1000000); }, help)
        ->type_name("N");
}

void AddSpanOption(CLI::App* command, const std::string& name, repo::CalendarSpan& span, const std::string& help) {
    command->add_option_function<std::string>(
               name,
               [name, &span](const std::string& text) {
                   const std::optional<repo::CalendarSpan> parsed = repo::ParseCalendarSpan(text);
                   if (!parsed) {
                       throw Error(ErrorKind::Usage, name + " takes a span of years, months, days and hours such "
                                                            "as 1y5m7d2h or 7d (no weeks), not " + text);
                   }
                   span = *parsed;
               },
               help)
        ->type_name("DURATION");
}

void AddPolicyOptions(CLI::App* command, repo::RetentionPolicy& policy) {
    AddKeepOption(command, "--keep-last", policy.keepLast, "keep the N newest snapshots");
    AddKeepOption(command, "--keep-hourly", policy.keepHourly, "keep the newest snapshot of each of the last N hours");
    AddKeepOption(command, "--keep-daily", policy.keepDaily, "... of each of the last N days");
    AddKeepOption(command, "--keep-weekly", policy.keepWeekly, "... of each of the last N weeks");
    AddKeepOption(command, "--keep-monthly", policy.keepMonthly, "... of each of the last N months");
    AddKeepOption(command, "--keep-yearly", policy.keepYearly, "... of each of the last N years");
    AddSpanOption(command, "--keep-within", policy.within,
                  "keep every snapshot made less than DURATION (1y5m7d2h) before the newest");
    AddSpanOption(command, "--keep-within-hourly", policy.withinHourly,
                  "keep the newest snapshot of each hour within DURATION before the newest");
    AddSpanOption(command, "--keep-within-daily", policy.withinDaily, "... of each day within DURATION");
    AddSpanOption(command, "--keep-within-weekly", policy.withinWeekly, "... of each week within DURATION");
    AddSpanOption(command, "--keep-within-monthly", policy.withinMonthly, "... of each month within DURATION");
    AddSpanOption(command, "--keep-within-yearly", policy.withinYearly, "... of each year within DURATION");
    command->add_option_function<std::vector<std::string>>(
               "--keep-tag",
               [&policy](const std::vector<std::string>& values) {
                   for (const std::string& value : values) policy.keepTags.push_back(Split(value, ','));
               },
               "keep every snapshot with these tags (a,b: both; repeatable: either; '': untagged ones)")
        ->type_name("TAG[,TAG]")
        ->allow_extra_args(false);
}

}  // namespace

void AddForgetCommand(CommandTable& table) {
    auto options = std::make_shared<ForgetCommandOptions>();
    CLI::App* command = table.Add(
        {"forget", "remove snapshots: the ones named, or those a --keep-* policy does not keep",
         "Removes the snapshots named, or applies a policy to each group of snapshots (by default each host and "
         "source folder on its own; --group-by host,paths,tags or any part of it, or '' for one group): the "
         "newest N (--keep-last); the newest snapshot of each of the last N hours, days, ISO weeks, months and "
         "years that have one (days and weeks in local time; a rule that asks for more periods than there are "
         "also keeps the oldest snapshot); every snapshot made within a span of the newest (--keep-within 1y5m7d2h) "
         "or the newest of each hour, day, week, month or year within it (--keep-within-daily 7d ...); every "
         "snapshot with the tags of a --keep-tag. A snapshot kept by no rule is forgotten; one dated in the "
         "future is kept; a policy that would forget every snapshot of a group is refused. --host, --tag and "
         "--path limit which snapshots are considered at all. The data only forgotten snapshots used stays "
         "until 'prune' (or --prune; with --rehydrate [--wait] as prune takes them). A snapshot the storage "
         "still holds (see 'init --immutable-days') stays, named with the end of its hold."},
        [options](Context& context) { return RunForget(context, *options); });
    command->add_option("SNAPSHOT", options->snapshots, "snapshots to forget (ids, or 'latest')");
    AddPolicyOptions(command, options->policy);
    AddFilterOptions(command, options->filter, "snapshots");
    command->add_option("--group-by", options->groupBy, "group snapshots by host, paths, tags (default: host,paths)")
        ->type_name("GROUPS");
    CLI::Option* dryRun =
        command->add_flag("-n,--dry-run", options->dryRun, "say what would be forgotten, forget nothing");
    CLI::Option* prune = command->add_flag("--prune", options->prune, "prune afterwards");
    AddRehydrateChoiceOptions(command, options->rehydrate, "prune");
    command->get_option("--rehydrate")->needs(prune)->excludes(dryRun);
}

}  // namespace qvhost::cli
