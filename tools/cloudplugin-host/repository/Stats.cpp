#include "repository/Stats.h"

namespace qvhost::repo {

namespace {

void CountNode(RestoreSizeStats& stats, const Node& node) {
    switch (node.type) {
    case NodeType::File:
        ++stats.files;
        stats.bytes += node.size;
        break;
    case NodeType::Folder: ++stats.folders; break;
    case NodeType::Link: ++stats.links; break;
    default: ++stats.others; break;
    }
}

// Adds a blob the first time it is seen.
void CountBlob(RawDataStats& stats, const MasterIndex& index, std::set<Id>& seen, const Id& id, bool tree) {
    if (!seen.insert(id).second) return;
    const std::optional<BlobLocation> location = index.Find(id);
    if (!location) {
        ++stats.missing;
        return;
    }
    ++stats.blobs;
    stats.treeBlobs += tree ? 1 : 0;
    stats.storedBytes += location->entry.length;
    stats.uncompressedBytes += location->entry.plainLength;
    if (!tree) stats.dataBytes += location->entry.plainLength;
}

}  // namespace

double RawDataStats::DeduplicationRatio() const {
    return dataBytes == 0 ? 0 : static_cast<double>(restoreBytes) / static_cast<double>(dataBytes);
}

double RawDataStats::CompressionRatio() const {
    return storedBytes == 0 ? 0 : static_cast<double>(uncompressedBytes) / static_cast<double>(storedBytes);
}

RestoreSizeStats CountRestoreSize(TreeReader& reader, const std::vector<Snapshot>& snapshots) {
    RestoreSizeStats stats;
    for (const Snapshot& snapshot : snapshots) {
        ++stats.snapshots;
        WalkTree(reader, snapshot.tree, [&](const std::string&, const Node& node) {
            CountNode(stats, node);
            return true;
        });
    }
    return stats;
}

RawDataStats CountRawData(TreeReader& reader, const MasterIndex& index, const std::vector<Snapshot>& snapshots) {
    RawDataStats stats;
    std::set<Id> seen;
    for (const Snapshot& snapshot : snapshots) {
        ++stats.snapshots;
        for (const Id& id : snapshot.tree) CountBlob(stats, index, seen, id, true);
        WalkTree(reader, snapshot.tree, [&](const std::string&, const Node& node) {
            if (node.type == NodeType::File) stats.restoreBytes += node.size;
            for (const Id& id : node.content) CountBlob(stats, index, seen, id, false);
            for (const Id& id : node.subtree) CountBlob(stats, index, seen, id, true);
            return true;
        });
    }
    return stats;
}

}  // namespace qvhost::repo
