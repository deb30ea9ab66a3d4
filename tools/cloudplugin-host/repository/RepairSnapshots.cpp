#include "repository/RepairSnapshots.h"

#include <algorithm>
#include <map>
#include <set>
#include <unordered_set>
#include <utility>

#include "repository/TreeReader.h"
#include "util/Error.h"

namespace qvhost::repo {

namespace {

// The blobs that can still be read: those an index places in a pack that
// is stored.
MasterIndex ReadableIndex(Repository& repository) {
    const MasterIndex all = repository.LoadIndex();
    std::set<Id> stored;
    for (const NamedObject& object : repository.ListIds(repository.layout().DataPrefix())) stored.insert(object.id);
    MasterIndex readable;
    for (const IndexedPack& pack : all.all()) {
        if (stored.count(pack.pack)) readable.Add(pack);
    }
    return readable;
}

// The snapshots to repair: those the arguments name, or every one.
std::vector<Snapshot> Selected(Repository& repository, const std::vector<std::string>& ids) {
    if (ids.empty()) return repository.LoadSnapshots();
    std::vector<std::string> found;
    for (const std::string& argument : ids) {
        const std::string id = repository.FindSnapshot(argument);
        if (id.empty()) throw Error(ErrorKind::NotFound, "no snapshot " + argument);
        if (std::find(found.begin(), found.end(), id) == found.end()) found.push_back(id);
    }
    std::vector<Snapshot> snapshots;
    for (const std::string& id : found) snapshots.push_back(repository.LoadSnapshot(id));
    return snapshots;
}

// Snapshots made by an earlier repair, by the id of the one each repairs.
std::map<std::string, std::string> EarlierRepairs(Repository& repository) {
    std::map<std::string, std::string> repairs;
    for (const Snapshot& snapshot : repository.LoadSnapshots()) {
        if (!snapshot.original.empty()) repairs[snapshot.original] = snapshot.id;
    }
    return repairs;
}

// The work of one repair: the trees it rebuilds, then what it stores.
class RepairRun {
public:
    RepairRun(Repository& repository, const RepairSnapshotsOptions& options)
        : repository_(repository), options_(options), index_(ReadableIndex(repository)), reader_(repository, index_) {}

    // Finds what the snapshot lost; a damaged one's new trees are queued
    // and its new snapshot made (stored by Store()).
    SnapshotRepair Examine(const Snapshot& snapshot) {
        SnapshotRepair repair;
        repair.original = snapshot.id;
        trees_.clear();
        droppedBytes_ = 0;
        // The trees of a snapshot of format version 1 live in memory only:
        // a repaired one must store every one of them.
        storeAll_ = snapshot.version == 1;
        const std::vector<Id> root = RepairFolder(snapshot.tree, "", repair);
        repair.damaged = !repair.dropped.empty() || !repair.emptied.empty();
        if (repair.damaged) {
            Queue();
            repaired_.push_back(Repaired(snapshot, root, repair));
        }
        return repair;
    }

    // The queued trees' packs, the index naming them, then the snapshots;
    // answers the snapshots' ids in the order examined.
    std::vector<std::string> Store() {
        if (!pack_.empty()) WritePack();
        if (!packs_.empty()) repository_.SaveIndex(packs_);
        std::vector<std::string> ids;
        for (Snapshot& snapshot : repaired_) ids.push_back(repository_.SaveSnapshot(snapshot));
        return ids;
    }

private:
    // The folder's trees, new ones where something below it was lost.
    std::vector<Id> RepairFolder(const std::vector<Id>& trees, const std::string& path, SnapshotRepair& repair) {
        if (!storeAll_ && intact_.count(trees)) return trees;
        const size_t lost = repair.dropped.size() + repair.emptied.size();
        std::vector<Node> kept;
        for (Node& node : Entries(trees, path, repair)) {
            const std::string child = path.empty() ? node.name : path + "/" + node.name;
            if (node.type == NodeType::File && !Readable(node)) {
                repair.dropped.push_back(child);
                droppedBytes_ += node.size;
                continue;
            }
            if (node.IsFolder()) node.subtree = RepairFolder(node.subtree, child, repair);
            kept.push_back(std::move(node));
        }
        if (!storeAll_ && repair.dropped.size() + repair.emptied.size() == lost) {
            intact_.insert(trees);
            return trees;
        }
        return NewTrees(kept);
    }

    // The entries of the folder's trees that can be read; a tree that
    // cannot marks the folder.
    std::vector<Node> Entries(const std::vector<Id>& trees, const std::string& path, SnapshotRepair& repair) {
        std::vector<Node> entries;
        bool lost = false;
        for (const Id& id : trees) {
            try {
                const Nodes nodes = reader_.Load(id);
                entries.insert(entries.end(), nodes->begin(), nodes->end());
            } catch (const Error& failure) {
                if (failure.kind() != ErrorKind::Damaged && failure.kind() != ErrorKind::ObjectMissing) throw;
                lost = true;
            }
        }
        if (lost) repair.emptied.push_back(path.empty() ? "." : path);
        return entries;
    }

    bool Readable(const Node& file) const {
        return std::all_of(file.content.begin(), file.content.end(), [this](const Id& chunk) {
            const std::optional<BlobLocation> location = index_.Find(chunk);
            return location && location->entry.type == BlobType::Data;
        });
    }

    std::vector<Id> NewTrees(const std::vector<Node>& nodes) {
        std::vector<Id> ids;
        for (Bytes& plain : EncodeTree(nodes)) {
            const Id id = KeyedHash(repository_.keys().mac, plain.data(), plain.size());
            ids.push_back(id);
            if (!index_.Has(id)) trees_.emplace_back(id, std::move(plain));
        }
        return ids;
    }

    // The trees of the snapshot just examined, into packs (none in a dry run).
    void Queue() {
        if (options_.dryRun) return;
        for (const auto& [id, plain] : trees_) {
            if (!written_.insert(id).second) continue;
            pack_.Add(SealBlob(repository_.keys(), id, plain.data(), plain.size(), BlobType::Tree));
            if (pack_.size() >= repository_.config().packSize) WritePack();
        }
        trees_.clear();
    }

    void WritePack() {
        PackBuilder::Finished pack = pack_.Finish(repository_.keys());
        repository_.WritePack(pack);
        packs_.push_back({pack.id, std::move(pack.entries)});
    }

    Snapshot Repaired(const Snapshot& snapshot, const std::vector<Id>& root, const SnapshotRepair& repair) const {
        Snapshot repaired = snapshot;
        repaired.id.clear();
        repaired.version = kSnapshotVersion;
        repaired.tree = root;
        repaired.original = snapshot.id;
        if (std::find(repaired.tags.begin(), repaired.tags.end(), kRepairedTag) == repaired.tags.end()) {
            repaired.tags.push_back(kRepairedTag);
        }
        const uint64_t files = snapshot.Files(), bytes = snapshot.TotalBytes();
        repaired.summary["files"] = files - std::min<uint64_t>(files, repair.dropped.size());
        repaired.summary["bytes"] = bytes - std::min(bytes, droppedBytes_);
        return repaired;
    }

    Repository& repository_;
    const RepairSnapshotsOptions options_;
    const MasterIndex index_;
    TreeReader reader_;
    bool storeAll_ = false;
    uint64_t droppedBytes_ = 0;
    std::set<std::vector<Id>> intact_;               // folders nothing below which is lost
    std::vector<std::pair<Id, Bytes>> trees_;        // new trees of the snapshot being examined
    std::unordered_set<Id, IdHash> written_;         // trees queued in packs
    PackBuilder pack_;
    std::vector<IndexedPack> packs_;                 // written
    std::vector<Snapshot> repaired_;                 // to store
};

}  // namespace

std::vector<SnapshotRepair> RepairSnapshots(Repository& repository, const std::vector<std::string>& ids,
                                            const RepairSnapshotsOptions& options) {
    const std::vector<Snapshot> snapshots = Selected(repository, ids);
    const std::map<std::string, std::string> earlier = EarlierRepairs(repository);
    RepairRun run(repository, options);
    std::vector<SnapshotRepair> repairs;
    std::vector<size_t> stored;  // the repairs whose new snapshot Store() writes, in order
    for (const Snapshot& snapshot : snapshots) {
        const auto done = earlier.find(snapshot.id);
        if (done != earlier.end()) {
            // Repaired before: that snapshot stands for it (and is examined itself when selected).
            SnapshotRepair repair;
            repair.original = snapshot.id;
            repair.damaged = true;
            repair.repaired = done->second;
            repair.repairedBefore = true;
            repairs.push_back(std::move(repair));
            continue;
        }
        repairs.push_back(run.Examine(snapshot));
        if (repairs.back().damaged) stored.push_back(repairs.size() - 1);
    }
    if (options.dryRun) return repairs;
    const std::vector<std::string> written = run.Store();
    for (size_t i = 0; i < stored.size(); ++i) repairs[stored[i]].repaired = written[i];
    if (!options.forget) return repairs;
    for (SnapshotRepair& repair : repairs) {
        if (!repair.damaged || repair.repaired.empty()) continue;
        repository.store().Delete(repository.layout().SnapshotsPrefix() + repair.original);
        repair.forgotten = true;
    }
    return repairs;
}

}  // namespace qvhost::repo
