// What the layout holds: complete backups (from their manifests' metadata,
// one listing), incomplete ones (parts without a manifest), and removing
// either.
#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "host/PluginObjectStore.h"
#include "host/PluginSession.h"
#include "legacy/Legacy.h"
#include "legacy/Manifest.h"
#include "util/Error.h"
#include "util/ParallelRunner.h"
#include "util/Text.h"

namespace qvhost::legacy {

std::string Layout::PartName(const std::string& backupId, uint32_t fileIndex, uint64_t part) const {
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, "%06u.%04llu", fileIndex, static_cast<unsigned long long>(part));
    return DataPrefix(backupId) + suffix;
}

std::string Layout::BackupOfPart(const std::string& objectName) const {
    const std::string prefix = BackupsPrefix();
    if (objectName.compare(0, prefix.size(), prefix) != 0) return {};
    const size_t slash = objectName.find('/', prefix.size());
    if (slash == std::string::npos) return {};
    const std::string id = objectName.substr(prefix.size(), slash - prefix.size());
    return IsValidBackupId(id) ? id : std::string();
}

bool IsValidBackupId(const std::string& id) {
    if (id.empty() || id.size() > 100 || id[0] == '.') return false;
    for (char c : id) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                        c == '_' || c == '-';
        if (!ok) return false;
    }
    return true;
}

std::string NewBackupId() {
    std::random_device random;
    char suffix[8];
    std::snprintf(suffix, sizeof suffix, "%04x", static_cast<unsigned>(random() & 0xFFFF));
    return UtcNow("%Y%m%d-%H%M%S-") + suffix;
}

namespace {

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

std::vector<IncompleteBackup> FindIncompleteBackups(const Context& context) {
    const Layout& layout = context.layout;
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

void DeleteObjects(const Context& context, const std::vector<std::string>& names) {
    RunInParallel(context.jobs, names.size(), [&](size_t index, unsigned) { context.session.DeleteIfPresent(names[index]); });
}

}  // namespace

std::vector<BackupSummary> ListBackups(const Context& context) {
    const std::string prefix = context.layout.ManifestsPrefix();
    std::vector<BackupSummary> backups;
    for (const ListedObject& object : context.session.List(prefix)) {
        backups.push_back({object.name.substr(prefix.size()),
                           NumberOf(object.metadata, manifest_property::kFiles).value_or(0),
                           NumberOf(object.metadata, manifest_property::kBytes).value_or(0),
                           TextOf(object.metadata, manifest_property::kCreated),
                           TextOf(object.metadata, manifest_property::kSource)});
    }
    std::sort(backups.begin(), backups.end(), [](const BackupSummary& a, const BackupSummary& b) { return a.id < b.id; });
    return backups;
}

std::vector<IncompleteBackup> ListIncomplete(const Context& context) { return FindIncompleteBackups(context); }

DeleteReport Delete(const Context& context, const std::string& backupId) {
    if (!IsValidBackupId(backupId)) throw Error(ErrorKind::Usage, "not a backup name: " + backupId);
    const std::string manifestName = context.layout.ManifestName(backupId);
    DeleteReport report;
    report.complete = context.session.Exists(manifestName);
    std::vector<std::string> parts;
    for (const ListedObject& part : context.session.List(context.layout.DataPrefix(backupId))) parts.push_back(part.name);
    if (!report.complete && parts.empty()) throw Error(ErrorKind::NotFound, "no backup named " + backupId);
    // The manifest goes first: from then on the backup is no longer listed,
    // whatever happens to its parts.
    if (report.complete) context.session.Delete(manifestName);
    DeleteObjects(context, parts);
    report.objects = parts.size() + (report.complete ? 1 : 0);
    return report;
}

PruneReport PruneIncomplete(const Context& context, int64_t olderThanSeconds, int64_t now) {
    PruneReport report;
    for (IncompleteBackup& backup : FindIncompleteBackups(context)) {
        const bool old = olderThanSeconds == 0 ||
                         (backup.newestWritten >= 0 && now - backup.newestWritten > olderThanSeconds);
        if (!old) {
            report.kept.push_back(std::move(backup));
            continue;
        }
        DeleteObjects(context, backup.objects);
        report.removed.push_back(std::move(backup));
    }
    return report;
}

std::vector<repo::StoredObject> ObjectsOf(const Context& context, const std::string& backupId) {
    if (!IsValidBackupId(backupId)) throw Error(ErrorKind::Usage, "not a backup name: " + backupId);
    repo::PluginObjectStore store(context.session);
    std::vector<repo::StoredObject> objects = store.List(context.layout.DataPrefix(backupId));
    for (repo::StoredObject& object : store.List(context.layout.ManifestName(backupId))) {
        if (object.name == context.layout.ManifestName(backupId)) objects.push_back(std::move(object));
    }
    if (objects.empty()) throw Error(ErrorKind::NotFound, "no backup named " + backupId);
    return objects;
}

}  // namespace qvhost::legacy
