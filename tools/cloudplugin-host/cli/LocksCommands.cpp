// locks and unlock: who holds the repository, and removing stale locks.
#include <ctime>

#include "cli/RepositorySupport.h"
#include "repository/Locks.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

Json LockJson(const repo::LockInfo& lock) {
    return Json{{"lock", lock.name},           {"host", lock.host}, {"pid", lock.pid}, {"command", lock.command},
                {"exclusive", lock.exclusive}, {"time", lock.time}, {"stale", lock.stale},
                {"readable", lock.readable}};
}

CommandResult RunLocks(Context& context) {
    repo::Repository repository = OpenRepository(context);
    Json locks = Json::array();
    for (const repo::LockInfo& lock : repo::ListLocks(repository, static_cast<int64_t>(std::time(nullptr)))) {
        context.Say(Printable(lock.name) + ": " +
                    (lock.readable ? std::string(lock.exclusive ? "exclusive" : "shared") + " lock of '" +
                                         Printable(lock.command) + "' on " + Printable(lock.host) + ", process " +
                                         std::to_string(lock.pid) + (lock.stale ? ", STALE" : "")
                                   : std::string("does not open")));
        locks.push_back(LockJson(lock));
    }
    CommandResult result;
    result.json = Json{{"command", "locks"}, {"ok", true}, {"locks", std::move(locks)}};
    return result;
}

CommandResult RunUnlock(Context& context, bool all) {
    repo::Repository repository = OpenRepository(context);
    Json removed = Json::array();
    for (const repo::LockInfo& lock : repo::RemoveLocks(repository, all, static_cast<int64_t>(std::time(nullptr)))) {
        context.Say("removed " + std::string(lock.stale ? "the stale lock " : "the lock ") + Printable(lock.name));
        removed.push_back(LockJson(lock));
    }
    CommandResult result;
    result.json = Json{{"command", "unlock"}, {"ok", true}, {"removed", std::move(removed)}};
    return result;
}

}  // namespace

void AddLocksCommands(CommandTable& table) {
    table.Add({"locks", "the repository's locks (stale ones marked)",
               "Lists who holds the repository: each lock's command, host, process and kind (shared for backup, "
               "restore and check; exclusive for forget and prune). A lock not refreshed for 30 minutes, or held by "
               "a process of this host that is gone, is stale and stands in nobody's way."},
              [](Context& context) { return RunLocks(context); });
    auto all = std::make_shared<bool>(false);
    CLI::App* unlock = table.Add(
        {"unlock", "remove stale locks (--remove-all: every lock)",
         "Removes the stale locks. --remove-all removes every lock, also those of running processes: only for a "
         "repository nobody works on."},
        [all](Context& context) { return RunUnlock(context, *all); });
    unlock->add_flag("--remove-all", *all, "remove every lock, not only stale ones");
}

}  // namespace qvhost::cli
