// list [--all], delete BACKUP, prune [--older-than AGE] and the object
// commands: what is stored, and removing it.
#include <algorithm>
#include <ctime>
#include <map>
#include <set>

#include "cli/Commands.h"
#include "local/LocalFiles.h"
#include "util/ParallelRunner.h"
#include "util/ToolError.h"

namespace qvhost {

namespace {

// The parts of a backup that has no manifest: one that stopped (a crash,
// kill -9, a lost machine) or one still running elsewhere.
struct IncompleteBackup {
    std::string id;
    std::vector<std::string> objects;
    uint64_t bytes = 0;
    int64_t newestWritten = -1;  // seconds since 1970; -1 when no part says
};

std::optional<uint64_t> NumberOf(const Metadata& metadata, const char* property) {
    const auto found = metadata.find(property);
    if (found == metadata.end() || found->second.empty() || found->second.size() > 19 ||
        found->second.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    return std::stoull(found->second);
}

std::string TextOf(const Metadata& metadata, const char* property) {
    const auto found = metadata.find(property);
    return found == metadata.end() ? std::string() : found->second;
}

// The bytes of a part, from its metadata (parts of older versions carry no
// part size: then only a file's only part is known).
uint64_t PartBytesOf(const Metadata& metadata) {
    const auto size = NumberOf(metadata, part_property::kSize);
    const auto part = NumberOf(metadata, part_property::kPart);
    const auto parts = NumberOf(metadata, part_property::kParts);
    const auto partSize = NumberOf(metadata, part_property::kPartSize);
    if (!size || !part) return 0;
    if (partSize && *partSize > 0) return PartBytes(*size, *partSize, *part);
    return parts == uint64_t{1} ? *size : 0;
}

std::vector<IncompleteBackup> FindIncompleteBackups(CommandContext& context) {
    const BackupLayout& layout = context.options.layout;
    std::set<std::string> complete;
    for (const ListedObject& manifest : context.session.List(layout.ManifestsPrefix())) {
        complete.insert(manifest.name.substr(layout.ManifestsPrefix().size()));
    }
    std::map<std::string, IncompleteBackup> found;
    for (const ListedObject& object : context.session.List(layout.BackupsPrefix())) {
        const std::string id = layout.BackupOfPart(object.name);
        if (id.empty() || complete.count(id)) continue;
        IncompleteBackup& backup = found[id];
        backup.id = id;
        backup.objects.push_back(object.name);
        backup.bytes += PartBytesOf(object.metadata);
        backup.newestWritten = std::max(backup.newestWritten, ParseUtcTime(TextOf(object.metadata, part_property::kWritten)));
    }
    std::vector<IncompleteBackup> backups;
    for (auto& entry : found) backups.push_back(std::move(entry.second));
    return backups;
}

Json IncompleteJson(const IncompleteBackup& backup) {
    return Json{{"backup", backup.id},
                {"parts", backup.objects.size()},
                {"bytes", backup.bytes},
                {"newest_part", UtcTimeText(backup.newestWritten)}};
}

Json ListComplete(CommandContext& context) {
    const std::string prefix = context.options.layout.ManifestsPrefix();
    std::vector<ListedObject> manifests = context.session.List(prefix);
    std::sort(manifests.begin(), manifests.end(),
              [](const ListedObject& a, const ListedObject& b) { return a.name < b.name; });
    Json backups = Json::array();
    if (!manifests.empty()) context.Say("backup                          files        size  created               source");
    for (const ListedObject& object : manifests) {
        const std::string id = object.name.substr(prefix.size());
        const uint64_t files = NumberOf(object.metadata, manifest_property::kFiles).value_or(0);
        const uint64_t bytes = NumberOf(object.metadata, manifest_property::kBytes).value_or(0);
        const std::string created = TextOf(object.metadata, manifest_property::kCreated);
        const std::string source = TextOf(object.metadata, manifest_property::kSource);
        char line[512];
        std::snprintf(line, sizeof line, "%-30s %7llu %11s  %-20s  %s", Printable(id).c_str(),
                      static_cast<unsigned long long>(files), FormatBytes(static_cast<double>(bytes)).c_str(),
                      Printable(created).c_str(), Printable(source).c_str());
        context.Say(line);
        backups.push_back(Json{{"backup", id}, {"files", files}, {"bytes", bytes}, {"created", created}, {"source", source}});
    }
    if (manifests.empty()) context.Say("no backups");
    return backups;
}

Json ListIncomplete(CommandContext& context) {
    Json list = Json::array();
    const std::vector<IncompleteBackup> backups = FindIncompleteBackups(context);
    if (!backups.empty()) {
        context.Say("incomplete backups (no manifest; 'prune' removes them):");
        context.Say("backup                          parts        size  newest part");
    }
    for (const IncompleteBackup& backup : backups) {
        char line[256];
        std::snprintf(line, sizeof line, "%-30s %7zu %11s  %s", backup.id.c_str(), backup.objects.size(),
                      FormatBytes(static_cast<double>(backup.bytes)).c_str(), UtcTimeText(backup.newestWritten).c_str());
        context.Say(line);
        list.push_back(IncompleteJson(backup));
    }
    return list;
}

void DeleteObjects(CommandContext& context, const std::vector<std::string>& names) {
    RunInParallel(context.options.jobs, names.size(),
                  [&](size_t index, unsigned) { context.session.DeleteIfPresent(names[index]); });
}

}  // namespace

CommandResult ListCommand(CommandContext& context, const Arguments&) {
    CommandResult result;
    result.json = Json{{"command", "list"}, {"ok", true}, {"backups", ListComplete(context)}};
    if (context.options.all) result.json["incomplete"] = ListIncomplete(context);
    return result;
}

CommandResult DeleteCommand(CommandContext& context, const Arguments& arguments) {
    const std::string& backupId = arguments[0];
    if (!IsValidBackupId(backupId)) throw ToolError(kExitUsage, "not a backup name: " + backupId);
    const std::string manifestName = context.options.layout.ManifestName(backupId);
    const bool complete = context.session.Exists(manifestName);
    std::vector<std::string> parts;
    for (const ListedObject& part : context.session.List(context.options.layout.DataPrefix(backupId))) {
        parts.push_back(part.name);
    }
    if (!complete && parts.empty()) throw ToolError(kExitNoSuchBackup, "no backup named " + backupId);
    // The manifest goes first: from then on the backup is no longer listed,
    // whatever happens to its parts.
    if (complete) context.session.Delete(manifestName);
    DeleteObjects(context, parts);
    context.Say("deleted " + backupId + (complete ? "" : " (incomplete)") + ": " + std::to_string(parts.size()) +
                " parts" + (complete ? " and its manifest" : ""));
    CommandResult result;
    result.json = Json{{"command", "delete"},
                       {"ok", true},
                       {"backup", backupId},
                       {"complete", complete},
                       {"objects", parts.size() + (complete ? 1 : 0)}};
    return result;
}

// Removes incomplete backups whose newest part is older than --older-than
// (24 hours unless told: a backup still running elsewhere is left alone).
// A backup whose parts carry no time (written by an older version) is
// removed only with --older-than 0.
CommandResult LegacyPruneCommand(CommandContext& context, const Arguments&) {
    const int64_t olderThan = context.options.olderThanSeconds;
    const int64_t now = static_cast<int64_t>(std::time(nullptr));
    Json removed = Json::array();
    Json kept = Json::array();
    size_t objects = 0;
    uint64_t bytes = 0;
    for (const IncompleteBackup& backup : FindIncompleteBackups(context)) {
        const bool old = olderThan == 0 || (backup.newestWritten >= 0 && now - backup.newestWritten > olderThan);
        if (!old) {
            context.Say("kept " + backup.id + ": newest part written " + UtcTimeText(backup.newestWritten) +
                        ", not older than the limit");
            kept.push_back(IncompleteJson(backup));
            continue;
        }
        DeleteObjects(context, backup.objects);
        objects += backup.objects.size();
        bytes += backup.bytes;
        context.Say("removed incomplete backup " + backup.id + ": " + std::to_string(backup.objects.size()) +
                    " parts, " + FormatBytes(static_cast<double>(backup.bytes)));
        removed.push_back(IncompleteJson(backup));
    }
    context.Say("pruned " + std::to_string(removed.size()) + " incomplete backups (" + std::to_string(objects) +
                " objects, " + FormatBytes(static_cast<double>(bytes)) + "); " + std::to_string(kept.size()) + " kept");
    CommandResult result;
    result.json = Json{{"command", "prune"},
                       {"ok", true},
                       {"older_than_seconds", olderThan},
                       {"removed", std::move(removed)},
                       {"kept", std::move(kept)},
                       {"objects", objects},
                       {"bytes", bytes}};
    return result;
}

CommandResult ObjectPutCommand(CommandContext& context, const Arguments& arguments) {
    const std::string& name = arguments[0];
    InputFile input(arguments[1]);
    std::vector<uint8_t> content;
    std::vector<uint8_t> slice(1 << 20);
    for (size_t read; (read = input.Read(slice.data(), slice.size())) > 0;) {
        if (content.size() + read > kMaximumPartSize) {
            throw ToolError(kExitLocalFile, arguments[1] + " is larger than one object can be (2 GiB - 1)");
        }
        content.insert(content.end(), slice.begin(), slice.begin() + static_cast<std::ptrdiff_t>(read));
    }
    context.session.Write(name, content.data(), content.size(), context.options.objectMetadata);
    context.Say("wrote " + name + " (" + FormatBytes(static_cast<double>(content.size())) + ")");
    CommandResult result;
    result.json = Json{{"command", "object put"}, {"ok", true}, {"object", name}, {"bytes", content.size()}};
    return result;
}

// Read in slices straight into the file: an object of any size fits.
CommandResult ObjectGetCommand(CommandContext& context, const Arguments& arguments) {
    const std::string& name = arguments[0];
    constexpr uint64_t kSlice = 4u << 20;
    std::vector<uint8_t> slice(kSlice);
    OutputFile output(arguments[1], true);
    uint64_t total = 0;
    for (;;) {
        const uint64_t read = std::min(context.session.Read(name, slice.data(), total, kSlice), kSlice);
        output.Write(slice.data(), static_cast<size_t>(read));
        total += read;
        if (read < kSlice) break;
    }
    output.Close();
    context.Say("read " + name + " (" + FormatBytes(static_cast<double>(total)) + ") into " + arguments[1]);
    CommandResult result;
    result.json = Json{{"command", "object get"}, {"ok", true}, {"object", name}, {"bytes", total}};
    return result;
}

CommandResult ObjectDeleteCommand(CommandContext& context, const Arguments& arguments) {
    context.session.Delete(arguments[0]);
    context.Say("deleted " + arguments[0]);
    CommandResult result;
    result.json = Json{{"command", "object delete"}, {"ok", true}, {"object", arguments[0]}};
    return result;
}

CommandResult ObjectTierCommand(CommandContext& context, const Arguments& arguments) {
    context.session.SetProperty(arguments[0], kAccessTierProperty, arguments[1]);
    context.Say("asked for " + arguments[0] + " to move to the tier " + arguments[1]);
    CommandResult result;
    result.json = Json{{"command", "object tier"}, {"ok", true}, {"object", arguments[0]}, {"tier", arguments[1]}};
    return result;
}

CommandResult ObjectListCommand(CommandContext& context, const Arguments& arguments) {
    std::vector<ListedObject> objects = context.session.List(arguments.empty() ? "" : arguments[0]);
    std::sort(objects.begin(), objects.end(),
              [](const ListedObject& a, const ListedObject& b) { return a.name < b.name; });
    Json list = Json::array();
    for (const ListedObject& object : objects) {
        context.Say(Printable(object.name));
        Json metadata = Json::object();
        for (const auto& [key, value] : object.metadata) metadata[key] = value;
        list.push_back(Json{{"name", object.name}, {"metadata", std::move(metadata)}});
    }
    CommandResult result;
    result.json = Json{{"command", "object list"}, {"ok", true}, {"objects", std::move(list)}};
    return result;
}

}  // namespace qvhost
