// What a rehydration of a snapshot asks for: the repository's own objects,
// then the packs the snapshot needs.
#include <algorithm>
#include <set>

#include "repository/Rehydrate.h"
#include "repository/TreeReader.h"

namespace qvhost::repo {

namespace {

// The stored packs among `names` (listed: each says its tier).
std::vector<StoredObject> Listed(Repository& repository, const std::set<std::string>& names) {
    std::vector<StoredObject> out;
    for (StoredObject& object : repository.store().List(repository.layout().DataPrefix())) {
        if (names.count(object.name)) out.push_back(std::move(object));
    }
    return out;
}

}  // namespace

std::vector<StoredObject> OwnObjects(ObjectStore& store, const RepositoryLayout& layout) {
    std::vector<StoredObject> own;
    for (const std::string& prefix : {layout.KeysPrefix(), layout.Config(), layout.IndexPrefix(), layout.SnapshotsPrefix()}) {
        for (StoredObject& object : store.List(prefix)) own.push_back(std::move(object));
    }
    return own;
}

std::vector<StoredObject> TreePacks(Repository& repository, const MasterIndex& index) {
    std::set<std::string> packs;
    for (const IndexedPack& pack : index.all()) {
        for (const PackEntry& blob : pack.blobs) {
            if (blob.type == BlobType::Tree) packs.insert(repository.layout().Pack(pack.pack));
        }
    }
    return Listed(repository, packs);
}

std::vector<StoredObject> PacksOf(Repository& repository, const Snapshot& snapshot, const MasterIndex& index) {
    std::set<std::string> packs;
    auto add = [&](const Id& blob) {
        if (const std::optional<BlobLocation> location = index.Find(blob)) packs.insert(repository.layout().Pack(location->pack));
    };
    for (const Id& tree : snapshot.tree) add(tree);
    TreeReader reader(repository, index);
    WalkTree(reader, snapshot.tree, [&](const std::string&, const Node& node) {
        for (const Id& chunk : node.content) add(chunk);
        for (const Id& tree : node.subtree) add(tree);
        return true;
    });
    return Listed(repository, packs);
}

std::vector<StoredObject> IndexedPacks(Repository& repository, const MasterIndex& index) {
    std::set<std::string> packs;
    for (const IndexedPack& pack : index.all()) packs.insert(repository.layout().Pack(pack.pack));
    return Listed(repository, packs);
}

std::vector<StoredObject> StoredPacks(Repository& repository, const std::vector<Id>& packs) {
    std::set<std::string> names;
    for (const Id& pack : packs) names.insert(repository.layout().Pack(pack));
    return Listed(repository, names);
}

TierMove MoveDataPacks(Repository& repository, const MasterIndex& index, const std::string& tier,
                       const std::string& priority) {
    std::set<std::string> data, trees;
    for (const IndexedPack& pack : index.all()) {
        const bool tree = std::any_of(pack.blobs.begin(), pack.blobs.end(),
                                      [](const PackEntry& blob) { return blob.type == BlobType::Tree; });
        (tree ? trees : data).insert(repository.layout().Pack(pack.pack));
    }
    TierMove move;
    move.treePacks = trees.size();
    for (const std::string& name : trees) data.erase(name);
    for (const StoredObject& pack : Listed(repository, data)) {
        if (!pack.archiveStatus.empty()) {
            ++move.pending;
        } else if (pack.tier == tier) {
            ++move.already;
        } else {
            const bool fromArchive = pack.tier == kArchiveTier;
            repository.store().SetTier(pack.name, tier, fromArchive ? priority : "");
            ++(fromArchive ? move.rehydrating : move.moved);
        }
    }
    return move;
}

}  // namespace qvhost::repo
