#include "repository/TreeReader.h"

#include "util/Text.h"

namespace qvhost::repo {

TreeReader::TreeReader(Repository& repository, const MasterIndex& index, size_t cachedTrees, size_t heldPacks)
    : repository_(repository), index_(index), capacity_(std::max<size_t>(1, cachedTrees)), heldPacks_(heldPacks) {}

std::shared_ptr<const Bytes> TreeReader::HeldPack(const Id& pack) {
    std::lock_guard<std::mutex> lock(packMutex_);
    for (auto it = packs_.begin(); it != packs_.end(); ++it) {
        if (it->first != pack) continue;
        packs_.splice(packs_.begin(), packs_, it);
        return packs_.front().second;
    }
    if (heldPacks_ == 0) return nullptr;
    auto bytes = std::make_shared<Bytes>();
    std::shared_ptr<const Bytes> held;
    if (repository_.ReadTreePack(pack, *bytes)) held = std::move(bytes);
    // A pack that cannot be had whole is remembered too, so it is not asked for again.
    packs_.emplace_front(pack, held);
    if (packs_.size() > heldPacks_) packs_.pop_back();
    return held;
}

Bytes TreeReader::SealedBlob(const BlobLocation& location) {
    const std::shared_ptr<const Bytes> pack = HeldPack(location.pack);
    const uint64_t end = location.entry.offset + location.entry.length;
    if (pack && end <= pack->size()) {
        return Bytes(pack->begin() + static_cast<ptrdiff_t>(location.entry.offset),
                     pack->begin() + static_cast<ptrdiff_t>(end));
    }
    Bytes sealed;
    repository_.store().ReadRange(repository_.layout().Pack(location.pack), location.entry.offset,
                                  location.entry.length, sealed);
    return sealed;
}

Nodes TreeReader::Load(const Id& id) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = cache_.find(id);
        if (found != cache_.end()) {
            recent_.splice(recent_.begin(), recent_, found->second.second);
            return found->second.first;
        }
    }
    const std::string what = "the tree " + IdHex(id).substr(0, 16);
    Bytes plain;
    if (!repository_.SyntheticTree(id, plain)) {
        const std::optional<BlobLocation> location = index_.Find(id);
        // Not the index's type but the snapshot names a blob a tree, and
        // its id (the keyed hash of its plain bytes) proves which bytes it
        // is. An earlier prune copied the trees it kept as data blobs:
        // repositories it pruned stay readable.
        if (!location) Damaged(what + " is in no index");
        const Bytes sealed = SealedBlob(*location);
        std::string why;
        if (sealed.size() != location->entry.length ||
            !OpenBlob(repository_.keys(), location->entry, sealed.data(), sealed.size(), plain, why)) {
            Damaged(what + " " + (why.empty() ? "ends early" : why));
        }
    }
    const Nodes nodes = std::make_shared<const std::vector<Node>>(DecodeTree(plain.data(), plain.size(), what));
    std::lock_guard<std::mutex> lock(mutex_);
    if (!cache_.count(id)) {
        recent_.push_front(id);
        cache_[id] = {nodes, recent_.begin()};
        if (cache_.size() > capacity_) {
            cache_.erase(recent_.back());
            recent_.pop_back();
        }
    }
    return nodes;
}

std::vector<Node> TreeReader::Entries(const std::vector<Id>& trees) {
    std::vector<Node> entries;
    for (const Id& id : trees) {
        const Nodes nodes = Load(id);
        entries.insert(entries.end(), nodes->begin(), nodes->end());
    }
    return entries;
}

namespace {

void WalkFolder(TreeReader& reader, const std::vector<Id>& trees, const std::string& prefix, const TreeVisitor& visit) {
    for (const Id& id : trees) {
        const Nodes nodes = reader.Load(id);
        for (const Node& node : *nodes) {
            const std::string path = prefix.empty() ? node.name : prefix + "/" + node.name;
            if (visit(path, node) && node.IsFolder()) WalkFolder(reader, node.subtree, path, visit);
        }
    }
}

}  // namespace

void WalkTree(TreeReader& reader, const std::vector<Id>& root, const TreeVisitor& visit) {
    WalkFolder(reader, root, "", visit);
}

std::optional<Node> FindNode(TreeReader& reader, const std::vector<Id>& root, const std::string& path) {
    std::vector<Id> trees = root;
    const std::vector<std::string> names = Split(path, '/');
    for (size_t i = 0; i < names.size(); ++i) {
        std::optional<Node> found;
        for (const Node& node : reader.Entries(trees)) {
            if (node.name == names[i]) found = node;
        }
        if (!found || i + 1 == names.size()) return found;
        if (!found->IsFolder()) return std::nullopt;
        trees = found->subtree;
    }
    return std::nullopt;
}

}  // namespace qvhost::repo
