// cache: the local caches of the repositories this user works with, listed,
// and the ones not used for a while removed.
#include <ctime>

#include "cli/Cli.h"
#include "cli/RepositorySupport.h"
#include "repository/LocalCache.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct CacheOptions {
    bool cleanup = false;
    int64_t maxAgeSeconds = 30 * kSecondsPerDay;
    bool removeAll = false;
};

CommandResult RunCache(Context& context, const CacheOptions& options) {
    const std::string root = CacheRoot(context.options());
    if (root.empty()) {
        throw Error(ErrorKind::Usage, "no cache folder: neither HOME nor XDG_CACHE_HOME is set; give --cache-dir");
    }
    const int64_t now = static_cast<int64_t>(std::time(nullptr));
    Json caches = Json::array();
    uint64_t removedBytes = 0;
    size_t removed = 0;
    size_t old = 0;
    const std::vector<repo::CacheFolder> found = repo::ListCaches(root);
    if (found.empty()) context.Say("no caches under " + Printable(root));
    else context.Say("repository              size  last used");
    for (const repo::CacheFolder& cache : found) {
        const bool isOld = now - cache.lastUsed > options.maxAgeSeconds;
        old += isOld;
        const bool remove = options.removeAll || (options.cleanup && isOld);
        if (remove) {
            repo::RemoveCache(cache);
            removedBytes += cache.bytes;
            ++removed;
        }
        char line[160];
        std::snprintf(line, sizeof line, "%-16s  %10s  %s%s", cache.repositoryId.substr(0, 16).c_str(),
                      FormatBytes(static_cast<double>(cache.bytes)).c_str(), LocalTimeText(cache.lastUsed).c_str(),
                      remove ? "  removed" : isOld ? "  old" : "");
        context.Say(line);
        caches.push_back(Json{{"repository", cache.repositoryId},
                              {"path", cache.path},
                              {"bytes", cache.bytes},
                              {"last_used", UtcTimeText(cache.lastUsed)},
                              {"old", isOld},
                              {"removed", remove}});
    }
    if (removed) {
        context.Say("removed " + std::to_string(removed) + " caches, " +
                    FormatBytes(static_cast<double>(removedBytes)));
    } else if (old && !options.cleanup && !options.removeAll) {
        context.Say(std::to_string(old) + " caches are old: 'cloudplugin-host cache --cleanup' removes them");
    }
    CommandResult result;
    result.json = Json{{"command", "cache"}, {"ok", true}, {"root", root}, {"caches", std::move(caches)},
                       {"removed_caches", removed}, {"removed_bytes", removedBytes}};
    return result;
}

}  // namespace

void AddCacheCommand(CommandTable& table) {
    auto options = std::make_shared<CacheOptions>();
    CLI::App* command = table.Add(
        {"cache", "the local caches: list them, remove old ones",
         "Each repository a command opens keeps its index, snapshot and tree objects, as stored (sealed), in a "
         "folder of its own under the cache folder (--cache-dir), checked against their names on every use and "
         "removed when the repository no longer has them. This command lists those folders with their size and "
         "when a command last used each; --cleanup removes the ones not used for --max-age, --remove-all all of "
         "them. A removed cache costs only time: the next command reads what it needs from the storage again."},
        [options](Context& context) { return RunCache(context, *options); });
    command->add_flag("--cleanup", options->cleanup, "remove the caches not used for --max-age");
    command->add_option_function<std::string>(
               "--max-age",
               [options](const std::string& text) { options->maxAgeSeconds = AgeArgument("--max-age", text); },
               "how long a cache may go unused before it is old (default: 30d)")
        ->type_name("AGE");
    command->add_flag("--remove-all", options->removeAll, "remove every cache under the cache folder");
}

}  // namespace qvhost::cli
