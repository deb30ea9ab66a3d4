#include "repository/RepairIndex.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <set>

#include "repository/PackVerify.h"
#include "util/Error.h"
#include "util/ParallelRunner.h"

namespace qvhost::repo {

namespace {

struct VerifiedPacks {
    std::vector<IndexedPack> packs;  // in the order listed
    std::vector<RefusedPack> refused;
    uint64_t bytesRead = 0;
};

// Every listed pack read whole and verified, in parallel.
VerifiedPacks VerifyPacks(Repository& repository, const std::vector<NamedObject>& listed,
                          const RepairIndexOptions& options) {
    std::vector<std::optional<IndexedPack>> verified(listed.size());
    VerifiedPacks result;
    std::mutex mutex;
    uint64_t total = 0;
    for (const NamedObject& object : listed) total += object.size;
    Progress progress(options.progress, "repair index", total, listed.size());
    RunInParallel(std::max(1u, options.jobs), listed.size(), [&](size_t item, unsigned) {
        const NamedObject& object = listed[item];
        Bytes bytes;
        std::string why;
        try {
            std::vector<PackEntry> entries = ReadWholePack(repository, object.id, bytes);
            why = WhyBlobsDoNotOpen(repository, object.id, entries, bytes);
            if (why.empty()) verified[item] = IndexedPack{object.id, std::move(entries)};
        } catch (const Error& failure) {
            if (failure.kind() != ErrorKind::Damaged && failure.kind() != ErrorKind::ObjectMissing) throw;
            why = failure.kind() == ErrorKind::ObjectMissing ? "it went missing while being read" : failure.what();
        }
        std::lock_guard<std::mutex> lock(mutex);
        result.bytesRead += bytes.size();
        progress.BytesDone(bytes.size());
        progress.FileDone(IdHex(object.id).substr(0, 16), bytes.size());
        if (!why.empty()) result.refused.push_back({object.name, why});
    });
    for (std::optional<IndexedPack>& pack : verified) {
        if (pack) result.packs.push_back(std::move(*pack));
    }
    return result;
}

}  // namespace

RepairIndexReport RepairIndex(Repository& repository, const RepairIndexOptions& options) {
    const std::vector<NamedObject> old = repository.ListIds(repository.layout().IndexPrefix());
    const std::vector<NamedObject> listed = repository.ListIds(repository.layout().DataPrefix());
    VerifiedPacks verified = VerifyPacks(repository, listed, options);
    RepairIndexReport report;
    report.bytesRead = verified.bytesRead;
    report.packsIndexed = verified.packs.size();
    for (const IndexedPack& pack : verified.packs) report.blobsIndexed += pack.blobs.size();
    const std::set<std::string> written = repository.SaveIndexParts(verified.packs);
    report.indexObjectsWritten = written.size();
    // Only once every new index object is stored do the old ones go.
    for (const NamedObject& object : old) {
        if (written.count(object.name)) continue;
        repository.store().Delete(object.name);
        ++report.indexObjectsRemoved;
    }
    std::sort(verified.refused.begin(), verified.refused.end(),
              [](const RefusedPack& a, const RefusedPack& b) { return a.name < b.name; });
    report.packsRefused = std::move(verified.refused);
    return report;
}

}  // namespace qvhost::repo
