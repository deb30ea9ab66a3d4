// ls: the entries of a snapshot, or of a folder in it, recursively.
#include <cstdio>

#include "cli/RepositorySupport.h"
#include "repository/Listing.h"
#include "repository/Locks.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct LsOptions {
    std::string snapshot;
    std::string path = "/";
    bool longFormat = false;
    repo::SnapshotFilter filter;
};

CommandResult RunLs(Context& context, const LsOptions& options) {
    repo::Repository repository = OpenRepository(context);
    repo::RepositoryLock lock(repository, "ls", false, context.options().lockWaitSeconds);
    const repo::Snapshot snapshot = repository.LoadSnapshot(ResolveSnapshot(repository, options.snapshot, options.filter));
    const repo::MasterIndex index = repository.LoadIndex();
    repo::TreeReader reader(repository, index);
    const bool json = context.options().json;
    if (json) {
        Json head = SnapshotJson(repo::InfoOf(snapshot));
        head["struct_type"] = "snapshot";
        PrintLine(JsonText(head));
    }
    repo::ListSnapshot(reader, snapshot, options.path, [&](const repo::ListedEntry& entry) {
        if (json) return PrintLine(JsonText(EntryJson(entry)));
        PrintLine(options.longFormat ? LongEntryLine(entry) : Printable(entry.path));
    });
    CommandResult result;
    result.printed = true;
    return result;
}

}  // namespace

void AddLsCommand(CommandTable& table) {
    auto options = std::make_shared<LsOptions>();
    CLI::App* command = table.Add(
        {"ls", "the entries of a snapshot, or of a folder in it",
         "Lists every entry of a snapshot below PATH (default: the whole snapshot), the entry at PATH first, then "
         "depth first in name order. Paths are shown from the snapshot's root, as restore's SNAPSHOT:PATH and "
         "dump take them. -l adds the mode (as ls -l shows it), owner and group (their ids where the names were "
         "not known), size and modification time (local), and a link's target. With --json, one JSON object a "
         "line: the snapshot first, then each entry with path, type, mode, permissions, uid, gid, user, group, "
         "size, mtime (RFC 3339, UTC) and link_target. 'latest' is the newest snapshot that --host, --tag and "
         "--path select."},
        [options](Context& context) { return RunLs(context, *options); });
    command->add_option("SNAPSHOT", options->snapshot, "the snapshot (an id, a prefix of one, or 'latest')")->required();
    command->add_option("PATH", options->path, "the folder (or file) to list (default: /)");
    command->add_flag("-l,--long", options->longFormat, "mode, owner, group, size and time of each entry");
    AddFilterOptions(command, options->filter, "snapshots");
}

}  // namespace qvhost::cli
