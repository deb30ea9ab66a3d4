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
#include "repository/PackVerify.h"
#include "repository/TreeReader.h"
#include "util/Error.h"

namespace qvhost::repo {

namespace {

std::string Short(const Id& id) { return IdHex(id).substr(0, 16); }

// The work of one check: what it has loaded and what it found.
class CheckRun {
public:
    CheckRun(Repository& repository, const CheckOptions& options)
        : repository_(repository), options_(options), layout_(repository.layout()) {}

    CheckReport Run() {
        LoadIndex();
        LoadSnapshots();
        for (const NamedObject& object : repository_.ListIds(layout_.DataPrefix(), &strays_)) {
            stored_[object.id] = object.size;
            if (object.tier == kArchiveTier) archived_.insert(object.id);
        }
        for (const std::string& stray : strays_) report_.warnings.push_back("an object of no known kind: " + stray);
        CheckPacksExist();
        report_.packs = index_.packs().size();
        report_.blobs = index_.BlobCount();
        for (const IndexedPack& pack : index_.all()) {
            for (const PackEntry& blob : pack.blobs) copies_[blob.id].insert(pack.pack);
        }
        if (options_.readData) ReadData();
        WalkSnapshots();
        ReportDamagedPacks();
        SuggestRepairs();
        std::sort(report_.errors.begin(), report_.errors.end());
        std::sort(report_.affected.begin(), report_.affected.end());
        report_.affected.erase(std::unique(report_.affected.begin(), report_.affected.end()), report_.affected.end());
        return std::move(report_);
    }

private:
    // Each index object on its own, so that one damaged object is named and
    // the rest still checked.
    void LoadIndex() {
        for (const NamedObject& object : repository_.ListIds(layout_.IndexPrefix(), &strays_)) {
            try {
                const Bytes sealed = repository_.store().ReadAll(object.name, kMaximumIndexSize);
                if (Sha256Id(sealed.data(), sealed.size()) != object.id) {
                    Damaged("the index " + object.name + " does not match its name");
                }
                for (const IndexedPack& pack : DecodeIndex(repository_.keys(), sealed, object.name)) index_.Add(pack);
                ++report_.indexObjects;
            } catch (const Error& failure) {
                report_.errors.push_back(failure.what());
                ++indexDamaged_;
            }
        }
    }

    void LoadSnapshots() {
        for (const NamedObject& object : repository_.ListIds(layout_.SnapshotsPrefix(), &strays_)) {
            try {
                snapshots_.push_back(repository_.LoadSnapshot(IdHex(object.id)));
            } catch (const Error& failure) {
                report_.errors.push_back(failure.what());
            }
        }
        report_.snapshots = snapshots_.size();
    }

    void CheckPacksExist() {
        for (const Id& pack : index_.packs()) {
            if (!stored_.count(pack)) {
                report_.errors.push_back("the pack " + layout_.Pack(pack) + " is named by the index but missing");
                badPacks_.insert(pack);
            }
        }
        size_t& unindexed = unindexed_;
        for (const auto& [pack, size] : stored_) unindexed += index_.HasPack(pack) ? 0 : 1;
        if (unindexed) {
            report_.warnings.push_back(std::to_string(unindexed) +
                                       " packs are named by no index (left by a backup that did not finish): the next "
                                       "backup uses them, a prune removes them");
        }
    }

    // Every snapshot's trees, each folder on its own so that one that does
    // not open is named and the rest still checked: every tree and chunk
    // indexed, none in a pack found damaged or missing.
    void WalkSnapshots() {
        TreeReader reader(repository_, index_);
        for (const Snapshot& snapshot : snapshots_) WalkFolder(reader, snapshot, snapshot.tree, "");
    }

    void WalkFolder(TreeReader& reader, const Snapshot& snapshot, const std::vector<Id>& trees,
                    const std::string& prefix) {
        const std::string shortId = snapshot.id.substr(0, 8);
        std::vector<Node> entries;
        try {
            for (const Id& tree : trees) {
                const std::optional<BlobLocation> location = index_.Find(tree);
                if (location && badPacks_.count(location->pack) && !GoodCopy(tree)) Damaged("its pack is damaged or missing");
            }
            entries = reader.Entries(trees);
        } catch (const Error& failure) {
            if (failure.kind() != ErrorKind::Damaged && failure.kind() != ErrorKind::ObjectMissing) throw;
            report_.errors.push_back("the snapshot " + shortId + ": the folder '" + Printable(prefix) + "' cannot be read: " +
                                     failure.what());
            report_.affected.push_back(shortId + " " + (prefix.empty() ? "." : prefix));
            return;
        }
        for (const Node& node : entries) {
            const std::string path = prefix.empty() ? node.name : prefix + "/" + node.name;
            if (node.IsFolder()) WalkFolder(reader, snapshot, node.subtree, path);
            if (node.type == NodeType::File) CheckFile(shortId, path, node);
        }
    }

    void CheckFile(const std::string& shortId, const std::string& path, const Node& node) {
        for (const Id& chunk : node.content) {
            const std::optional<BlobLocation> location = index_.Find(chunk);
            if (!location) {
                report_.errors.push_back("the snapshot " + shortId + " names a chunk of '" + Printable(path) +
                                         "' that no index holds (" + Short(chunk) + ")");
                report_.affected.push_back(shortId + " " + path);
                return;
            }
            if (badPacks_.count(location->pack) && !GoodCopy(chunk)) {
                report_.affected.push_back(shortId + " " + path);
                return;
            }
        }
    }

    // A stored pack holding the blob that was not found damaged; null when none.
    const Id* GoodCopy(const Id& blob) const {
        const auto found = copies_.find(blob);
        if (found == copies_.end()) return nullptr;
        for (const Id& pack : found->second) {
            if (stored_.count(pack) && !badPacks_.count(pack)) return &pack;
        }
        return nullptr;
    }

    // Each damaged pack, told apart: a damaged copy whose every blob has a
    // good copy elsewhere (prune drops it), or one whose loss is data lost.
    void ReportDamagedPacks() {
        for (const auto& [pack, problem] : damage_) {
            size_t lost = 0;
            for (const PackEntry& blob : indexed_.at(pack)) lost += GoodCopy(blob.id) ? 0 : 1;
            if (lost == 0) {
                report_.damagedCopies.push_back(layout_.Pack(pack));
                report_.errors.push_back(problem + "; a damaged copy: a good copy of each of its blobs exists in "
                                         "another pack ('cloudplugin-host prune' keeps the good copies and removes "
                                         "this pack)");
            } else {
                report_.blobsLost += lost;
                report_.errors.push_back(problem + "; data lost: " + std::to_string(lost) +
                                         " of its blobs have no good copy elsewhere (the affected files are named)");
            }
        }
    }

    // Which command repairs what was found. The index first: it is made
    // again from the packs (damaged ones left out, lost ones no longer
    // named); then snapshots that name data that is lost; a damaged copy
    // whose blobs all have good copies is prune's.
    void SuggestRepairs() {
        const bool missingPacks = std::any_of(badPacks_.begin(), badPacks_.end(),
                                              [this](const Id& pack) { return !stored_.count(pack); });
        const bool rebuild = indexDamaged_ > 0 || missingPacks || report_.blobsLost > 0;
        if (rebuild) {
            report_.repairs.push_back("'cloudplugin-host repair index' rebuilds the index from the packs that are "
                                      "stored and whole");
        }
        if (!report_.affected.empty()) {
            report_.repairs.push_back(
                std::string("'cloudplugin-host repair snapshots' writes snapshots without the files whose data is "
                            "lost") +
                (rebuild || unindexed_ > 0 ? " (after 'repair index', which indexes packs the index lacks)" : ""));
        }
        if (!report_.damagedCopies.empty()) {
            report_.repairs.push_back("'cloudplugin-host prune' removes the damaged copies and keeps the good ones");
        }
    }

    // Every indexed pack that exists, read whole: its name, its header, the
    // index's entries against the header, and every blob opened.
    void ReadData() {
        for (const IndexedPack& pack : index_.all()) {
            auto& entries = indexed_[pack.pack];
            entries.insert(entries.end(), pack.blobs.begin(), pack.blobs.end());
        }
        std::vector<Id> packs;
        uint64_t total = 0;
        for (const auto& [pack, entries] : indexed_) {
            if (!stored_.count(pack)) continue;
            if (archived_.count(pack)) {
                ++report_.packsArchived;
                continue;
            }
            packs.push_back(pack);
            total += stored_.at(pack);
        }
        if (report_.packsArchived) {
            report_.warnings.push_back(std::to_string(report_.packsArchived) +
                                       " packs are in the Archive tier and were not read: 'cloudplugin-host rehydrate "
                                       "SNAPSHOT' brings back the packs of a snapshot, 'check --read-data "
                                       "--rehydrate' all of them");
        }
        Progress progress(options_.progress, "check", total, packs.size());
        RunInParallel(std::max(1u, options_.jobs), packs.size(), [&](size_t item, unsigned) {
            Bytes bytes;
            const std::string problem = CheckPack(packs[item], bytes);
            std::lock_guard<std::mutex> lock(mutex_);
            report_.bytesRead += bytes.size();
            progress.BytesDone(bytes.size());
            progress.FileDone(Short(packs[item]), bytes.size());
            if (!problem.empty()) {
                damage_[packs[item]] = problem;
                badPacks_.insert(packs[item]);
            }
        });
    }

    // Empty when the pack is whole; else what is wrong with it.
    std::string CheckPack(const Id& pack, Bytes& bytes) {
        try {
            const std::vector<PackEntry> header = ReadWholePack(repository_, pack, bytes);
            std::map<Id, PackEntry> byId;
            for (const PackEntry& entry : header) byId[entry.id] = entry;
            for (const PackEntry& entry : indexed_.at(pack)) {
                const auto found = byId.find(entry.id);
                if (found == byId.end() || found->second.offset != entry.offset ||
                    found->second.length != entry.length || found->second.plainLength != entry.plainLength ||
                    found->second.compressed != entry.compressed) {
                    Damaged("the pack " + layout_.Pack(pack) + " does not hold the blob " + Short(entry.id) +
                            " where the index says");
                }
            }
            if (const std::string why = WhyBlobsDoNotOpen(repository_, pack, header, bytes); !why.empty()) {
                Damaged(why);
            }
        } catch (const ObjectMissing&) {
            return "the pack " + layout_.Pack(pack) + " went missing while being checked";
        } catch (const Error& failure) {
            if (failure.kind() != ErrorKind::Damaged) throw;
            return failure.what();
        }
        return "";
    }

    Repository& repository_;
    const CheckOptions options_;
    const RepositoryLayout& layout_;
    CheckReport report_;
    MasterIndex index_;
    std::vector<Snapshot> snapshots_;
    std::vector<std::string> strays_;
    std::map<Id, uint64_t> stored_;  // pack -> size
    std::map<Id, std::vector<PackEntry>> indexed_;
    std::set<Id> archived_;  // stored packs in the Archive tier
    std::set<Id> badPacks_;
    std::map<Id, std::string> damage_;  // pack -> what read-data found wrong
    std::unordered_map<Id, std::set<Id>, IdHash> copies_;  // blob -> the packs the index says hold it
    size_t indexDamaged_ = 0;  // index objects that did not open
    size_t unindexed_ = 0;     // stored packs no index names
    std::mutex mutex_;
};

}  // namespace

CheckReport RunCheck(Repository& repository, const CheckOptions& options) { return CheckRun(repository, options).Run(); }

}  // namespace qvhost::repo
