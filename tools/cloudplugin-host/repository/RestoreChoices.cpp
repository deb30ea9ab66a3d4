#include "repository/RestoreChoices.h"

#include <algorithm>

#include "repository/Crypto.h"

namespace qvhost::repo {

namespace {

// Whether an entry that exists stays as it is; `file`: a regular file of
// the snapshot, which alone may be skipped as unchanged.
bool StaysAsItIs(const ExistingEntry& existing, uint64_t size, int64_t modifiedNs, OverwriteMode mode, bool file) {
    if (existing.folder) return false;  // refused later: a folder is never replaced
    switch (mode) {
    case OverwriteMode::Always: return false;
    case OverwriteMode::Never: return true;
    case OverwriteMode::IfNewer: return modifiedNs <= existing.modifiedNs;
    case OverwriteMode::IfChanged:
        return file && existing.regularFile && existing.size == size && existing.modifiedNs == modifiedNs;
    }
    return false;
}

template <class Entries, class Keep>
size_t DropIf(Entries& entries, Keep stays) {
    const size_t before = entries.size();
    entries.erase(std::remove_if(entries.begin(), entries.end(), stays), entries.end());
    return before - entries.size();
}

}  // namespace

std::string CompareWithChunks(ExistingFile& file, const std::vector<Id>& content, const MasterIndex& index,
                              const Key256& mac) {
    Bytes buffer;
    uint64_t offset = 0;
    for (const Id& chunk : content) {
        const std::optional<BlobLocation> location = index.Find(chunk);
        if (!location) return "its chunk " + IdHex(chunk).substr(0, 16) + " is in no index";
        buffer.resize(location->entry.plainLength);
        const size_t read = file.ReadAt(offset, buffer.data(), buffer.size());
        if (read != buffer.size()) return "it ends at " + std::to_string(offset + read) + " bytes";
        if (KeyedHash(mac, buffer.data(), buffer.size()) != chunk) {
            return "its bytes at " + std::to_string(offset) + " differ from its chunk " + IdHex(chunk).substr(0, 16);
        }
        offset += buffer.size();
    }
    uint8_t more = 0;
    if (file.ReadAt(offset, &more, 1) != 0) return "it is longer than " + std::to_string(offset) + " bytes";
    return "";
}

size_t LeaveExisting(RestorePlan& plan, const RestoreTarget& target, const RestoreOptions& options,
                     const MasterIndex& index, const Key256& mac) {
    const auto staysFile = [&](const RestoreFile& entry) {
        const std::optional<ExistingEntry> existing = target.Existing(entry.relativePath);
        if (!existing || !StaysAsItIs(*existing, entry.size, entry.modifiedNs, options.overwrite, true)) return false;
        if (!options.verify || options.overwrite != OverwriteMode::IfChanged) return true;
        const std::unique_ptr<ExistingFile> opened = target.OpenExisting(entry.relativePath);
        return opened && CompareWithChunks(*opened, entry.content, index, mac).empty();
    };
    const auto stays = [&](const RestoreEntry& entry) {
        const std::optional<ExistingEntry> existing = target.Existing(entry.relativePath);
        return existing && StaysAsItIs(*existing, entry.node.size, entry.node.modifiedNs, options.overwrite, false);
    };
    size_t skipped = DropIf(plan.files, staysFile) + DropIf(plan.links, stays) + DropIf(plan.specials, stays);
    if (options.overwrite == OverwriteMode::Never) {
        const size_t before = plan.hardLinks.size();
        plan.hardLinks.erase(std::remove_if(plan.hardLinks.begin(), plan.hardLinks.end(),
                                            [&](const RestoreHardLink& link) {
                                                return target.Existing(link.relativePath).has_value();
                                            }),
                             plan.hardLinks.end());
        skipped += before - plan.hardLinks.size();
    }
    return skipped;
}

std::set<std::string> PlannedPaths(const RestorePlan& plan) {
    std::set<std::string> paths;
    const auto add = [&](const std::string& path) {
        for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
            paths.insert(path.substr(0, slash));
        }
        paths.insert(path);
    };
    for (const RestoreFile& entry : plan.files) add(entry.relativePath);
    for (const auto* entries : {&plan.folders, &plan.links, &plan.specials}) {
        for (const RestoreEntry& entry : *entries) add(entry.relativePath);
    }
    for (const RestoreHardLink& link : plan.hardLinks) add(link.relativePath);
    return paths;
}

}  // namespace qvhost::repo
