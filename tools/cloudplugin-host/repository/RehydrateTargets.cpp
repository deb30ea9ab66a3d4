// What a rehydration of a snapshot asks for: the repository's own objects,
// then the packs the snapshot needs.
#include <set>

#include "repository/Rehydrate.h"
#include "repository/TreeReader.h"

namespace qvhost::repo {

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
    std::vector<StoredObject> out;
    for (StoredObject& object : repository.store().List(repository.layout().DataPrefix())) {
        if (packs.count(object.name)) out.push_back(std::move(object));
    }
    return out;
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
    std::vector<StoredObject> out;
    for (StoredObject& object : repository.store().List(repository.layout().DataPrefix())) {
        if (packs.count(object.name)) out.push_back(std::move(object));
    }
    return out;
}

}  // namespace qvhost::repo
