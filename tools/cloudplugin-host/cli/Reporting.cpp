#include "cli/Reporting.h"

#include "util/Text.h"

namespace qvhost::cli {

std::string ShortId(const std::string& id) { return id.substr(0, 8); }

Json ReportSkipped(const Context& context, const std::vector<SkippedEntry>& skipped) {
    Json list = Json::array();
    for (const SkippedEntry& entry : skipped) {
        context.Warn(std::string(entry.unreadable ? "NOT BACKED UP " : "skipped ") + Printable(entry.relativePath) +
                     ": " + Printable(entry.reason));
        list.push_back(Json{{"path", entry.relativePath}, {"reason", entry.reason}, {"unreadable", entry.unreadable}});
    }
    return list;
}

Json ReportDamaged(const Context& context, const std::vector<repo::RestoreProblem>& damaged) {
    Json list = Json::array();
    for (const repo::RestoreProblem& problem : damaged) {
        context.Warn("DAMAGED " + Printable(problem.file) +
                     (problem.object.empty() ? "" : " (object " + problem.object + ")") + ": " + problem.what +
                     "; not restored");
        list.push_back(Json{{"file", problem.file}, {"object", problem.object}, {"problem", problem.what}});
    }
    return list;
}

void ReportSetIdDropped(const Context& context, const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
        context.Warn("restored " + Printable(path) + " without its set-user-ID and set-group-ID bits");
    }
}

std::string RehydrationText(const repo::Rehydration& state) {
    return std::to_string(state.requested.size()) + " objects asked to come back now, " +
           std::to_string(state.pending.size()) + " on their way, " + std::to_string(state.online) + " online";
}

CommandResult RehydrationResult(Context& context, const std::string& target, const std::string& stage,
                                const repo::RehydrateRequest& request, const repo::Rehydration& state) {
    context.Say("rehydrate " + Printable(target) + " to " + request.tier + " (" + request.priority +
                " priority): " + RehydrationText(state) + (state.Ready() ? ": ready to restore" : ""));
    CommandResult result;
    result.json = Json{{"command", "rehydrate"},
                       {"ok", true},
                       {"target", target},
                       {"stage", stage},
                       {"tier", request.tier},
                       {"priority", request.priority},
                       {"requested", state.requested},
                       {"pending", state.pending},
                       {"online", state.online},
                       {"ready", state.Ready()}};
    return result;
}

void AddRehydrateOptions(CLI::App* command, repo::RehydrateRequest& request) {
    command->add_option("--tier", request.tier, "Hot or Cool (default: Hot)")
        ->check(CLI::IsMember({"Hot", "Cool"}))
        ->type_name("TIER");
    command->add_option("--priority", request.priority, "Standard or High (default: Standard; High costs more)")
        ->check(CLI::IsMember({"Standard", "High"}))
        ->type_name("PRIORITY");
}

}  // namespace qvhost::cli
