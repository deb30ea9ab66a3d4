// A backup of the version 2 layout as the source of a repository backup:
// its files, empty folders and links as the tree, each file read part by
// part from the storage. A part is handed to the backup only once it has
// been read whole and matched the manifest's hash, so nothing unverified
// reaches a snapshot: a file with a part that does not match is reported
// as unreadable and left out, and what the backup stored of it is garbage
// the next prune removes.
#include <algorithm>
#include <map>
#include <set>

#include "host/PluginSession.h"
#include "legacy/Legacy.h"
#include "legacy/Manifest.h"
#include "util/Error.h"
#include "util/PathRules.h"

namespace qvhost::legacy {

namespace {

using repo::Node;
using repo::NodeType;

// What a job holds of one file at a time: one part.
constexpr uint64_t kMaximumMigratedPartSize = 256ull << 20;

class PartsReader : public repo::SourceReader {
public:
    PartsReader(const Context& context, const Manifest& manifest, const ManifestFile& entry)
        : context_(context), manifest_(manifest), entry_(entry) {}

    size_t Read(void* buffer, size_t size) override {
        size_t done = 0;
        while (done < size) {
            if (at_ == part_.size()) {
                if (next_ == entry_.partSha256.size()) break;
                LoadPart(next_++);
                continue;
            }
            const size_t piece = std::min(size - done, part_.size() - at_);
            std::copy_n(part_.data() + at_, piece, static_cast<uint8_t*>(buffer) + done);
            at_ += piece, done += piece;
        }
        return done;
    }

private:
    void LoadPart(uint64_t part) {
        part_.clear();
        at_ = 0;
        std::string object;
        const std::string why = ReadPart(context_, manifest_, entry_, part, buffer_, object,
                                         [this](uint64_t, const uint8_t* data, size_t size) {
                                             part_.insert(part_.end(), data, data + size);
                                         });
        if (!why.empty()) {
            part_.clear();
            // To the backup, a source file that cannot be read: left out and reported.
            throw Error(ErrorKind::LocalFile, "its part " + object + " " + why, object);
        }
    }

    const Context& context_;
    const Manifest& manifest_;
    const ManifestFile& entry_;
    AlignedBuffer buffer_;
    std::vector<uint8_t> part_;  // the part in hand, checked
    size_t at_ = 0;
    uint64_t next_ = 0;
};

class BackupSource : public repo::Source {
public:
    BackupSource(const Context& context, Manifest manifest) : context_(context), manifest_(std::move(manifest)) {
        for (size_t i = 0; i < manifest_.files.size(); ++i) {
            const ManifestFile& file = manifest_.files[i];
            files_[file.relativePath] = i;
            Add(file.relativePath, NodeOf(file));
        }
        for (const ManifestFolder& folder : manifest_.folders) Add(folder.relativePath, NodeOf(folder));
        for (const ManifestLink& link : manifest_.links) Add(link.relativePath, NodeOf(link));
    }

    std::vector<std::string> Paths() const override { return {manifest_.source}; }

    repo::Listing List(const std::string& folder) override {
        repo::Listing listing;
        const auto found = folders_.find(folder);
        if (found == folders_.end()) return listing;
        for (const auto& [name, node] : found->second) listing.nodes.push_back(node);
        return listing;
    }

    std::unique_ptr<repo::SourceReader> Open(const std::string& path) override {
        const auto found = files_.find(path);
        if (found == files_.end()) throw Error(ErrorKind::NotFound, "the backup has no file " + path);
        return std::make_unique<PartsReader>(context_, manifest_, manifest_.files[found->second]);
    }

    // What is stored does not change while it is read (every part is checked).
    bool Unchanged(const std::string&, const Node&) override { return true; }

private:
    // The entry in its folder, and every folder on its way (known only as
    // the place of their entries) in theirs.
    void Add(const std::string& path, Node node) {
        const std::string folder = FolderOf(path);
        auto& entries = folders_[folder];
        const auto existing = entries.find(node.name);
        // An empty folder the manifest names keeps its own metadata over the implicit one.
        if (existing == entries.end() || existing->second.implicit) entries[node.name] = std::move(node);
        if (folder.empty()) return;
        if (folders_[FolderOf(folder)].count(NameOf(folder))) return;
        Node way = NodeOf(ManifestFolder{folder, 0, 0755});
        way.implicit = true;
        Add(folder, std::move(way));
    }

    const Context& context_;
    const Manifest manifest_;
    std::map<std::string, size_t> files_;                             // by path: the manifest's index
    std::map<std::string, std::map<std::string, Node>> folders_;  // by folder, by name
};

}  // namespace

Migration OpenForMigration(const Context& context, const std::string& backupId) {
    Manifest manifest = ReadManifest(context, backupId);
    if (manifest.partSize > kMaximumMigratedPartSize) {
        throw Error(ErrorKind::Usage, "the backup " + backupId + " has parts of " + std::to_string(manifest.partSize) +
                                          " bytes, more than the 256 MiB a migration holds at once: restore it and "
                                          "back the folder up instead");
    }
    Migration migration;
    migration.created = manifest.created;
    migration.files = manifest.files.size();
    migration.bytes = manifest.TotalBytes();
    migration.source = std::make_unique<BackupSource>(context, std::move(manifest));
    return migration;
}

}  // namespace qvhost::legacy
