#include "repository/Prune.h"

#include <algorithm>
#include <set>
#include <unordered_set>

#include "repository/Binary.h"
#include "repository/PackVerify.h"
#include "repository/TreeReader.h"
#include "util/Error.h"
#include "util/Text.h"

namespace qvhost::repo {

namespace {

std::string Short(const Id& id) { return IdHex(id).substr(0, 16); }

// Packs in the Archive tier cannot be read until rehydrated.
bool Archived(const PrunePlan& plan, const Id& pack) {
    const auto tier = plan.tiers.find(pack);
    return tier != plan.tiers.end() && tier->second == kArchiveTier;
}

// Packs the storage holds (a retention or a legal hold) cannot be deleted.
bool Held(const PrunePlan& plan, const Id& pack) { return plan.held.count(pack) != 0; }

// A pack kept whole because it cannot be read or deleted: every blob of it
// stays indexed, so that a later prune, once it can, sees what it holds
// unused and rewrites or deletes it.
void KeepWhole(PrunePlan& plan, const Id& pack, const std::vector<PackEntry>& blobs) {
    std::vector<PackEntry> every;
    std::set<Id> indexed;
    for (const PackEntry& blob : blobs) {
        if (indexed.insert(blob.id).second) every.push_back(blob);
    }
    plan.kept.push_back({pack, std::move(every)});
    ++plan.report.packsKept;
}

// A pack held that prune would have deleted or rewritten.
void CountHeld(PrunePlan& plan, const Id& pack) {
    ++plan.report.packsHeld;
    plan.report.heldUntil = std::max(plan.report.heldUntil, plan.held.at(pack));
}

// A pack that goes from a tier that charges for leaving it before its days
// there are over (EarlyDeletionDays): counted, with what is left of them.
void CountEarlyDeletion(PrunePlan& plan, const Id& pack) {
    const auto tier = plan.tiers.find(pack);
    if (tier == plan.tiers.end()) return;
    const int64_t days = EarlyDeletionDays(tier->second);
    if (days == 0) return;
    const auto since = plan.tierSince.find(pack);
    const int64_t spent = since == plan.tierSince.end() ? 0 : std::max<int64_t>(0, plan.now - since->second);
    const int64_t left = days * kSecondsPerDay - spent;
    if (left <= 0) return;
    ++plan.report.earlyDeletionTiers[tier->second];
    const double gib = static_cast<double>(plan.stored.at(pack)) / kBytesPerGiB;
    plan.report.earlyDeletionGiBMonths[tier->second] += gib * static_cast<double>(left) / (30.0 * kSecondsPerDay);
}

// What the snapshots need: their trees and every chunk the trees name. A
// snapshot or a tree that does not open stops prune: what it needs cannot
// be known.
std::unordered_set<Id, IdHash> UsedBlobs(Repository& repository, const MasterIndex& index) {
    std::unordered_set<Id, IdHash> used;
    TreeReader reader(repository, index);
    std::vector<Id> pending;
    for (const Snapshot& snapshot : repository.LoadSnapshots()) pending.insert(pending.end(), snapshot.tree.begin(), snapshot.tree.end());
    while (!pending.empty()) {
        const Id tree = pending.back();
        pending.pop_back();
        if (!used.insert(tree).second) continue;  // a folder shared by snapshots is walked once
        Nodes nodes;
        try {
            nodes = reader.Load(tree);
        } catch (const ObjectMissing& missing) {
            Damaged("prune stopped, nothing deleted: the tree " + IdHex(tree).substr(0, 16) + " is in a pack that is "
                    "missing (" + missing.name() + ")");
        }
        for (const Node& node : *nodes) {
            used.insert(node.content.begin(), node.content.end());
            pending.insert(pending.end(), node.subtree.begin(), node.subtree.end());
        }
    }
    return used;
}

using Copies = std::vector<std::pair<Id, PackEntry>>;

// Whether the pack passes every check of PackVerify.h.
bool Verifies(Repository& repository, const Id& pack) {
    try {
        ReadVerifiedPack(repository, pack);
        return true;
    } catch (const Error& failure) {
        if (failure.kind() != ErrorKind::Damaged && failure.kind() != ErrorKind::ObjectMissing) throw;
        return false;
    }
}

// Every stored copy of each used blob, one a pack, in the index's order.
std::unordered_map<Id, Copies, IdHash> UsedCopies(const MasterIndex& index, const std::unordered_set<Id, IdHash>& used,
                                                  PrunePlan& plan) {
    std::unordered_map<Id, Copies, IdHash> copies;
    for (const IndexedPack& pack : index.all()) {
        if (!plan.stored.count(pack.pack)) continue;
        auto& blobs = plan.packBlobs[pack.pack];
        blobs.insert(blobs.end(), pack.blobs.begin(), pack.blobs.end());
        for (const PackEntry& blob : pack.blobs) {
            if (!used.count(blob.id)) continue;
            Copies& list = copies[blob.id];
            const bool seen = std::any_of(list.begin(), list.end(), [&](const auto& c) { return c.first == pack.pack; });
            if (!seen) list.emplace_back(pack.pack, blob);
        }
    }
    return copies;
}

// One copy of each used blob is kept. The only copy is kept as it is (a
// rewrite still opens it before copying); of several, the first in a pack
// that verifies (PackVerify.h), so that a damaged or planted copy never
// displaces a good one; when none verifies, every copy is kept.
void ChooseKeepers(Repository& repository, const MasterIndex& index, const std::unordered_set<Id, IdHash>& used,
                   PrunePlan& plan) {
    const std::unordered_map<Id, Copies, IdHash> copies = UsedCopies(index, used, plan);
    if (copies.size() < used.size()) {
        Damaged("prune stopped, nothing deleted: the snapshots name " + std::to_string(used.size() - copies.size()) +
                " chunks that no stored pack holds");
    }
    std::map<Id, bool> verified;
    for (const auto& [blob, list] : copies) {
        const std::pair<Id, PackEntry>* chosen = list.size() == 1 ? &list.front() : nullptr;
        for (size_t i = 0; !chosen && i < list.size(); ++i) {
            auto verdict = verified.find(list[i].first);
            // An archived copy cannot be read to verify: it is not chosen
            // over one that verifies, and kept when none does.
            if (verdict == verified.end()) {
                const bool archived = Archived(plan, list[i].first);
                verdict = verified.emplace(list[i].first, !archived && Verifies(repository, list[i].first)).first;
            }
            if (verdict->second) chosen = &list[i];
        }
        if (!chosen) {
            for (const auto& copy : list) plan.keepWhole.insert(copy.first);
            chosen = &list.front();
        }
        plan.keeper.emplace(blob, *chosen);
    }
}

// Each pack kept whole, rewritten (partly used) or removed (unused).
void SortPacks(const MasterIndex& index, PrunePlan& plan) {
    PruneReport& report = plan.report;
    for (const auto& [pack, blobs] : plan.packBlobs) {
        std::vector<PackEntry> needed;
        std::set<Id> seen;
        const bool whole = plan.keepWhole.count(pack) != 0;
        for (const PackEntry& blob : blobs) {
            const auto found = plan.keeper.find(blob.id);
            const bool keeper = found != plan.keeper.end() && found->second.first == pack;
            if ((whole || keeper) && seen.insert(blob.id).second) needed.push_back(blob);
        }
        std::set<uint32_t> offsets;
        for (const PackEntry& blob : blobs) offsets.insert(blob.offset);
        if (whole) {
            plan.kept.push_back({pack, needed});
            ++report.packsKept;
            continue;
        }
        if (!needed.empty() && needed.size() == offsets.size()) {
            plan.kept.push_back({pack, needed});
            ++report.packsKept;
            continue;
        }
        if (Held(plan, pack)) {
            KeepWhole(plan, pack, blobs);
            CountHeld(plan, pack);
            continue;
        }
        if (needed.empty()) {
            plan.remove.push_back(pack);
            ++report.packsDeleted;
            report.blobsRemoved += offsets.size();
        } else if (Archived(plan, pack)) {
            KeepWhole(plan, pack, blobs);
            plan.archivedKept.push_back(pack);
            ++report.packsArchivedKept;
            continue;
        } else {
            plan.rewrite.push_back(pack);
            report.blobsRemoved += offsets.size() - needed.size();
            ++report.packsRewritten;
        }
        CountEarlyDeletion(plan, pack);
    }
    for (const auto& [pack, size] : plan.stored) {
        if (!index.HasPack(pack) && Held(plan, pack)) {
            CountHeld(plan, pack);  // left for a backup to adopt or a later prune
        } else if (!index.HasPack(pack)) {
            plan.remove.push_back(pack);
            ++report.packsUnindexed;
            CountEarlyDeletion(plan, pack);
        }
    }
    for (const Id& pack : plan.remove) report.bytesFreed += plan.stored.at(pack);
    for (const Id& pack : plan.rewrite) report.bytesFreed += plan.stored.at(pack);
}

// A whole pack. It need not match its name: every blob copied out of it
// is opened and checked against its id first, so the good blobs of a
// damaged pack are saved and nothing damaged is copied.
Bytes ReadPack(Repository& repository, const Id& pack) {
    return repository.store().ReadAll(repository.layout().Pack(pack), kMaximumPackSize);
}

// The used blobs of partly used packs, copied as they are (sealed) into
// new packs, each checked on the way so that damage is not copied.
class Rewriter {
public:
    Rewriter(Repository& repository, const PrunePlan& plan, PruneReport& report)
        : repository_(repository), plan_(plan), report_(report) {}

    std::vector<IndexedPack> Run(const PruneOptions& options) {
        uint64_t rewriteBytes = 0;
        for (const Id& pack : plan_.rewrite) rewriteBytes += plan_.stored.at(pack);
        Progress progress(options.progress, "prune", rewriteBytes, plan_.rewrite.size());
        for (const Id& pack : plan_.rewrite) {
            const Bytes bytes = ReadPack(repository_, pack);
            CopyKeptBlobs(pack, bytes);
            progress.BytesDone(bytes.size());
            progress.FileDone(Short(pack), bytes.size());
        }
        for (PackBuilder* builder : {&data_, &trees_}) {
            if (!builder->empty()) Flush(*builder);
        }
        return std::move(written_);
    }

private:
    void CopyKeptBlobs(const Id& pack, const Bytes& bytes) {
        Bytes plain;
        for (const PackEntry& blob : plan_.packBlobs.at(pack)) {
            const auto found = plan_.keeper.find(blob.id);
            if (found == plan_.keeper.end() || found->second.first != pack ||
                found->second.second.offset != blob.offset) {
                continue;
            }
            std::string why;
            if (uint64_t{blob.offset} + blob.length > bytes.size() ||
                !OpenBlob(repository_.keys(), blob, bytes.data() + blob.offset, blob.length, plain, why)) {
                Damaged("prune stopped before deleting anything: in the pack " + repository_.layout().Pack(pack) +
                        " the blob " + Short(blob.id) + " " + (why.empty() ? "lies past the pack's end" : why));
            }
            SealedBlob copy;
            copy.id = blob.id;
            copy.type = blob.type;
            copy.compressed = blob.compressed;
            copy.plainLength = blob.plainLength;
            copy.bytes.assign(bytes.begin() + blob.offset, bytes.begin() + blob.offset + blob.length);
            // Trees into packs of their own, as a backup writes them.
            PackBuilder& builder = BuilderFor(blob.type);
            builder.Add(std::move(copy));
            if (builder.size() >= repository_.config().packSize) Flush(builder);
        }
    }

    PackBuilder& BuilderFor(BlobType type) { return type == BlobType::Tree ? trees_ : data_; }

    void Flush(PackBuilder& builder) {
        PackBuilder::Finished pack = builder.Finish(repository_.keys());
        repository_.WritePack(pack);
        report_.bytesRewritten += pack.bytes.size();
        report_.bytesFreed -= std::min<uint64_t>(report_.bytesFreed, pack.bytes.size());
        written_.push_back({pack.id, std::move(pack.entries)});
        ++report_.packsWritten;
    }

    Repository& repository_;
    const PrunePlan& plan_;
    PruneReport& report_;
    PackBuilder data_;
    PackBuilder trees_;
    std::vector<IndexedPack> written_;
};

}  // namespace

PrunePlan PlanPrune(Repository& repository, int64_t now) {
    PrunePlan plan;
    plan.now = now;
    const MasterIndex index = repository.LoadIndex();
    const std::unordered_set<Id, IdHash> used = UsedBlobs(repository, index);
    for (const NamedObject& object : repository.ListIds(repository.layout().DataPrefix())) {
        plan.stored[object.id] = object.size;
        if (!object.tier.empty() && object.tier != "Hot") plan.tiers[object.id] = object.tier;
        if (object.heldUntil > now) plan.held[object.id] = object.heldUntil;
        if (object.tierSince > 0) plan.tierSince[object.id] = object.tierSince;
    }
    ChooseKeepers(repository, index, used, plan);
    SortPacks(index, plan);
    plan.indexObjects = index.objects;
    return plan;
}

PruneReport ExecutePrune(Repository& repository, const PrunePlan& plan, const PruneOptions& options) {
    PruneReport report = plan.report;
    if (plan.Empty()) return report;
    std::vector<IndexedPack> all = plan.kept;
    for (IndexedPack& pack : Rewriter(repository, plan, report).Run(options)) all.push_back(std::move(pack));
    // The new index first, then the old one goes, then the packs. An old
    // index object the storage holds still names its packs: then no pack
    // goes, and a later prune, once the hold is over, deletes them.
    const std::set<std::string> newIndex = repository.SaveIndexParts(all);
    bool indexHeld = false;
    for (const std::string& object : plan.indexObjects) {
        if (newIndex.count(object)) continue;
        try {
            repository.store().Delete(object);
            ++report.indexObjectsReplaced;
        } catch (const ObjectHeld&) {
            indexHeld = true;
            ++report.indexObjectsHeld;
        }
    }
    if (indexHeld) {
        report.packsHeld += plan.rewrite.size() + plan.remove.size();
        return report;
    }
    for (const std::vector<Id>* packs : {&plan.rewrite, &plan.remove}) {
        for (const Id& pack : *packs) {
            try {
                repository.store().Delete(repository.layout().Pack(pack));
            } catch (const ObjectHeld&) {
                ++report.packsHeld;  // held since the plan was made: left for a later prune
            }
        }
    }
    return report;
}

}  // namespace qvhost::repo
