#include "repository/Maintenance.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "cli/Commands.h"
#include "util/ParallelRunner.h"
#include "repository/Binary.h"
#include "util/ToolError.h"

namespace qvhost::repo {

namespace {

std::string Short(const Id& id) { return IdHex(id).substr(0, 16); }

// A whole pack, read and checked: its name is the SHA-256 of its bytes, its
// header opens and covers it. Answers the header's entries; throws Damaged.
std::vector<PackEntry> ReadWholePack(Repository& repository, const Id& pack, Bytes& bytes) {
    const std::string name = repository.layout().Pack(pack);
    bytes = repository.store().ReadAll(name, kMaximumPackSize);
    if (Sha256Id(bytes.data(), bytes.size()) != pack) Damaged("the pack " + name + " does not match its name");
    if (bytes.size() < 4) Damaged("the pack " + name + " is too short");
    const uint32_t length = PackHeaderLength(bytes.data() + bytes.size() - 4, bytes.size(), name);
    return DecodePackHeader(repository.keys(), bytes.data() + bytes.size() - 4 - length, length, bytes.size(), name);
}

// The files of every snapshot that need a blob of the given packs.
std::vector<std::string> AffectedFiles(const std::vector<Snapshot>& snapshots, const MasterIndex& index,
                                       const std::set<Id>& badPacks) {
    std::vector<std::string> affected;
    if (badPacks.empty()) return affected;
    for (const Snapshot& snapshot : snapshots) {
        for (const SnapshotFile& file : snapshot.files) {
            for (const Id& chunk : file.chunks) {
                const BlobLocation* location = index.Find(chunk);
                if (location && badPacks.count(location->pack)) {
                    affected.push_back(snapshot.id.substr(0, 8) + " " + file.path);
                    break;
                }
            }
        }
    }
    return affected;
}

}  // namespace

CheckReport RunCheck(Repository& repository, const CheckOptions& options) {
    CheckReport report;
    const RepositoryLayout& layout = repository.layout();
    // Each index object on its own, so that one damaged object is named and
    // the rest still checked.
    MasterIndex index;
    std::vector<std::string> strays;
    for (const NamedObject& object : repository.ListIds(layout.IndexPrefix(), &strays)) {
        try {
            const Bytes sealed = repository.store().ReadAll(object.name, kMaximumIndexSize);
            if (Sha256Id(sealed.data(), sealed.size()) != object.id) Damaged("the index " + object.name + " does not match its name");
            for (const IndexedPack& pack : DecodeIndex(repository.keys(), sealed, object.name)) index.Add(pack);
            ++report.indexObjects;
        } catch (const ToolError& failure) {
            report.errors.push_back(failure.what());
        }
    }
    std::vector<Snapshot> snapshots;
    for (const NamedObject& object : repository.ListIds(layout.SnapshotsPrefix(), &strays)) {
        try {
            snapshots.push_back(repository.LoadSnapshot(IdHex(object.id)));
        } catch (const ToolError& failure) {
            report.errors.push_back(failure.what());
        }
    }
    report.snapshots = snapshots.size();
    std::set<Id> stored;
    for (const NamedObject& object : repository.ListIds(layout.DataPrefix(), &strays)) stored.insert(object.id);
    for (const std::string& stray : strays) report.warnings.push_back("an object of no known kind: " + stray);

    std::set<Id> badPacks;
    for (const Id& pack : index.packs()) {
        if (!stored.count(pack)) {
            report.errors.push_back("the pack " + layout.Pack(pack) + " is named by the index but missing");
            badPacks.insert(pack);
        }
    }
    size_t unindexed = 0;
    for (const Id& pack : stored) unindexed += index.HasPack(pack) ? 0 : 1;
    if (unindexed) {
        report.warnings.push_back(std::to_string(unindexed) +
                                  " packs are named by no index (left by a backup that did not finish): the next "
                                  "backup uses them, 'prune' removes them");
    }
    for (const Snapshot& snapshot : snapshots) {
        for (const SnapshotFile& file : snapshot.files) {
            for (const Id& chunk : file.chunks) {
                if (!index.Has(chunk)) {
                    report.errors.push_back("the snapshot " + snapshot.id.substr(0, 8) + " names a chunk of '" +
                                            Printable(file.path) + "' that no index holds (" + Short(chunk) + ")");
                    report.affected.push_back(snapshot.id.substr(0, 8) + " " + file.path);
                    break;
                }
            }
        }
    }
    report.packs = index.packs().size();
    report.blobs = index.BlobCount();

    if (options.readData) {
        std::map<Id, std::vector<PackEntry>> indexed;
        for (const IndexedPack& pack : index.all()) {
            auto& entries = indexed[pack.pack];
            entries.insert(entries.end(), pack.blobs.begin(), pack.blobs.end());
        }
        std::vector<Id> packs;
        for (const auto& entry : indexed) {
            if (stored.count(entry.first)) packs.push_back(entry.first);
        }
        uint64_t total = 0;
        for (const NamedObject& object : repository.ListIds(layout.DataPrefix())) {
            if (indexed.count(object.id)) total += object.size;
        }
        std::mutex mutex;
        Progress progress("check", total, packs.size(), options.progress);
        try {
            RunInParallel(std::max(1u, options.jobs), packs.size(), [&](size_t item, unsigned) {
                const Id& pack = packs[item];
                Bytes bytes;
                Bytes plain;
                std::string problem;
                try {
                    const std::vector<PackEntry> header = ReadWholePack(repository, pack, bytes);
                    std::map<Id, PackEntry> byId;
                    for (const PackEntry& entry : header) byId[entry.id] = entry;
                    for (const PackEntry& entry : indexed[pack]) {
                        const auto found = byId.find(entry.id);
                        if (found == byId.end() || found->second.offset != entry.offset ||
                            found->second.length != entry.length || found->second.plainLength != entry.plainLength ||
                            found->second.compressed != entry.compressed) {
                            Damaged("the pack " + layout.Pack(pack) + " does not hold the blob " + Short(entry.id) +
                                    " where the index says");
                        }
                    }
                    for (const PackEntry& entry : header) {
                        std::string why;
                        if (!OpenBlob(repository.keys(), entry, bytes.data() + entry.offset, entry.length, plain, why)) {
                            Damaged("the pack " + layout.Pack(pack) + ": the blob " + Short(entry.id) + " " + why);
                        }
                    }
                } catch (const ObjectMissing&) {
                    problem = "the pack " + layout.Pack(pack) + " went missing while being checked";
                } catch (const ToolError& failure) {
                    if (failure.exitStatus() != kExitDamaged) throw;
                    problem = failure.what();
                }
                std::lock_guard<std::mutex> lock(mutex);
                report.bytesRead += bytes.size();
                progress.BytesDone(bytes.size());
                progress.FileDone(IdHex(pack).substr(0, 16), bytes.size());
                if (!problem.empty()) {
                    report.errors.push_back(problem);
                    badPacks.insert(pack);
                }
            });
        } catch (...) {
            progress.Finish();
            throw;
        }
        progress.Finish();
    }
    for (std::string& file : AffectedFiles(snapshots, index, badPacks)) report.affected.push_back(std::move(file));
    std::sort(report.errors.begin(), report.errors.end());
    std::sort(report.affected.begin(), report.affected.end());
    report.affected.erase(std::unique(report.affected.begin(), report.affected.end()), report.affected.end());
    return report;
}

PruneReport RunPrune(Repository& repository, const PruneOptions& options) {
    PruneReport report;
    const RepositoryLayout& layout = repository.layout();
    // What the snapshots need. A snapshot that does not open stops prune:
    // what it needs cannot be known.
    std::unordered_set<Id, IdHash> used;
    for (const Snapshot& snapshot : repository.LoadSnapshots()) {
        for (const SnapshotFile& file : snapshot.files) used.insert(file.chunks.begin(), file.chunks.end());
    }
    const MasterIndex index = repository.LoadIndex();
    std::map<Id, uint64_t> stored;  // pack -> size
    for (const NamedObject& object : repository.ListIds(layout.DataPrefix())) stored[object.id] = object.size;

    // One copy of each used blob is kept: the first of an existing pack.
    std::unordered_map<Id, std::pair<Id, PackEntry>, IdHash> keeper;
    std::map<Id, std::vector<PackEntry>> packBlobs;
    for (const IndexedPack& pack : index.all()) {
        if (!stored.count(pack.pack)) continue;
        auto& blobs = packBlobs[pack.pack];
        blobs.insert(blobs.end(), pack.blobs.begin(), pack.blobs.end());
        for (const PackEntry& blob : pack.blobs) {
            if (used.count(blob.id)) keeper.emplace(blob.id, std::make_pair(pack.pack, blob));
        }
    }
    size_t missing = 0;
    for (const Id& id : used) missing += keeper.count(id) ? 0 : 1;
    if (missing) {
        Damaged("prune stopped, nothing deleted: the snapshots name " + std::to_string(missing) +
                " chunks that no stored pack holds ('cloudplugin-host check' names the files)");
    }

    std::vector<IndexedPack> kept;
    std::vector<Id> rewrite;
    std::vector<Id> remove;
    for (auto& [pack, blobs] : packBlobs) {
        std::vector<PackEntry> needed;
        std::set<Id> seen;
        for (const PackEntry& blob : blobs) {
            const auto found = keeper.find(blob.id);
            if (found != keeper.end() && found->second.first == pack && seen.insert(blob.id).second) {
                needed.push_back(blob);
            }
        }
        std::set<uint32_t> offsets;
        for (const PackEntry& blob : blobs) offsets.insert(blob.offset);
        if (needed.empty()) {
            remove.push_back(pack);
            ++report.packsDeleted;
            report.blobsRemoved += offsets.size();
        } else if (needed.size() == offsets.size()) {
            kept.push_back({pack, needed});
            ++report.packsKept;
        } else {
            rewrite.push_back(pack);
            report.blobsRemoved += offsets.size() - needed.size();
            ++report.packsRewritten;
        }
    }
    for (const auto& [pack, size] : stored) {
        if (!index.HasPack(pack)) {
            remove.push_back(pack);
            ++report.packsUnindexed;
        }
    }
    for (const Id& pack : remove) report.bytesFreed += stored[pack];
    for (const Id& pack : rewrite) report.bytesFreed += stored[pack];
    if (options.dryRun || (remove.empty() && rewrite.empty())) return report;

    // The used blobs of partly used packs, copied as they are (sealed) into
    // new packs, each checked on the way so that damage is not copied.
    std::vector<IndexedPack> written;
    PackBuilder builder;
    auto flush = [&] {
        PackBuilder::Finished pack = builder.Finish(repository.keys());
        repository.WritePack(pack);
        report.bytesRewritten += pack.bytes.size();
        report.bytesFreed -= std::min<uint64_t>(report.bytesFreed, pack.bytes.size());
        written.push_back({pack.id, std::move(pack.entries)});
        ++report.packsWritten;
    };
    uint64_t rewriteBytes = 0;
    for (const Id& pack : rewrite) rewriteBytes += stored[pack];
    Progress progress("prune", rewriteBytes, rewrite.size(), options.progress);
    for (const Id& pack : rewrite) {
        Bytes bytes;
        Bytes plain;
        ReadWholePack(repository, pack, bytes);
        for (const PackEntry& blob : packBlobs[pack]) {
            const auto found = keeper.find(blob.id);
            if (found == keeper.end() || found->second.first != pack || found->second.second.offset != blob.offset) {
                continue;
            }
            std::string why;
            if (!OpenBlob(repository.keys(), blob, bytes.data() + blob.offset, blob.length, plain, why)) {
                Damaged("prune stopped before deleting anything: in the pack " + layout.Pack(pack) + " the blob " +
                        Short(blob.id) + " " + why);
            }
            SealedBlob copy;
            copy.id = blob.id;
            copy.compressed = blob.compressed;
            copy.plainLength = blob.plainLength;
            copy.bytes.assign(bytes.begin() + blob.offset, bytes.begin() + blob.offset + blob.length);
            builder.Add(std::move(copy));
            if (builder.size() >= repository.config().packSize) flush();
        }
        progress.BytesDone(bytes.size());
        progress.FileDone(IdHex(pack).substr(0, 16), bytes.size());
    }
    if (!builder.empty()) flush();
    progress.Finish();

    // The new index first, then the old one goes, then the packs: a prune
    // that stops anywhere leaves every used blob named by some index.
    std::vector<IndexedPack> all = kept;
    all.insert(all.end(), written.begin(), written.end());
    std::vector<IndexedPack> part;
    size_t blobs = 0;
    std::set<std::string> newIndex;
    for (size_t i = 0; i <= all.size(); ++i) {
        if (i == all.size() || (blobs + all[i].blobs.size() > kBlobsPerIndexObject && !part.empty())) {
            if (!part.empty()) newIndex.insert(repository.SaveIndex(part));
            part.clear();
            blobs = 0;
            if (i == all.size()) break;
        }
        part.push_back(all[i]);
        blobs += all[i].blobs.size();
    }
    for (const std::string& object : index.objects) {
        if (!newIndex.count(object)) {
            repository.store().Delete(object);
            ++report.indexObjectsReplaced;
        }
    }
    for (const Id& pack : rewrite) repository.store().Delete(layout.Pack(pack));
    for (const Id& pack : remove) repository.store().Delete(layout.Pack(pack));
    return report;
}

}  // namespace qvhost::repo
