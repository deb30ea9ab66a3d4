#include "repository/Check.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "util/Text.h"
#include "util/ParallelRunner.h"
#include "repository/Binary.h"
#include "util/Error.h"

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
        } catch (const Error& failure) {
            report.errors.push_back(failure.what());
        }
    }
    std::vector<Snapshot> snapshots;
    for (const NamedObject& object : repository.ListIds(layout.SnapshotsPrefix(), &strays)) {
        try {
            snapshots.push_back(repository.LoadSnapshot(IdHex(object.id)));
        } catch (const Error& failure) {
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
        Progress progress(options.progress, "check", total, packs.size());
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
                } catch (const Error& failure) {
                    if (failure.kind() != ErrorKind::Damaged) throw;
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

}  // namespace qvhost::repo
