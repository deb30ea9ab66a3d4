// What a rehydration of a snapshot asks for: the repository's own objects,
// then the packs the snapshot needs.
#include <set>

#include "repository/Rehydrate.h"

namespace qvhost::repo {

std::vector<StoredObject> OwnObjects(ObjectStore& store, const RepositoryLayout& layout) {
    std::vector<StoredObject> own;
    for (const std::string& prefix : {layout.KeysPrefix(), layout.Config(), layout.IndexPrefix(), layout.SnapshotsPrefix()}) {
        for (StoredObject& object : store.List(prefix)) own.push_back(std::move(object));
    }
    return own;
}

std::vector<StoredObject> PacksOf(Repository& repository, const Snapshot& snapshot, const MasterIndex& index) {
    std::set<std::string> packs;
    for (const SnapshotFile& file : snapshot.files) {
        for (const Id& chunk : file.chunks) {
            if (const BlobLocation* location = index.Find(chunk)) packs.insert(repository.layout().Pack(location->pack));
        }
    }
    std::vector<StoredObject> out;
    for (StoredObject& object : repository.store().List(repository.layout().DataPrefix())) {
        if (packs.count(object.name)) out.push_back(std::move(object));
    }
    return out;
}

}  // namespace qvhost::repo
