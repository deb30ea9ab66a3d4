#include "repository/Restore.h"

#include <algorithm>
#include <map>

#include "util/ParallelRunner.h"
#include "util/Error.h"

namespace qvhost::repo {

namespace {


// Blobs of one pack read in one request: neighbours, or near enough that
// reading the gap costs less than another request.
constexpr uint64_t kGapReadThrough = 256u << 10;

// Where a blob's bytes go: a file and the offset in it.
struct BlobUse {
    size_t file = 0;
    uint64_t offset = 0;
};

struct PlannedBlob {
    PackEntry entry;
    std::vector<BlobUse> uses;
};

// One request: a span of one pack and the blobs in it.
struct Range {
    Id pack{};
    uint64_t start = 0;
    uint64_t length = 0;
    std::vector<const PlannedBlob*> blobs;
};

std::vector<RestoreFile> FilesOf(const Snapshot& snapshot) {
    std::vector<RestoreFile> files;
    files.reserve(snapshot.files.size());
    for (const SnapshotFile& file : snapshot.files) {
        files.push_back({file.path, file.size, file.mode, file.modifiedNs});
    }
    return files;
}

class RestoreRun {
public:
    RestoreRun(Repository& repository, const MasterIndex& index, const Snapshot& snapshot, RestoreTarget* target,
               const RestoreOptions& options)
        : repository_(repository), index_(index), snapshot_(snapshot), options_(options),
          sink_(target, FilesOf(snapshot), snapshot.folders, snapshot.links) {}

    RestoreReport Run(bool writing);

private:
    void Plan();
    void RestoreRange(const Range& range, Bytes& buffer, Bytes& plain, Progress& progress);

    Repository& repository_;
    const MasterIndex& index_;
    const Snapshot& snapshot_;
    const RestoreOptions options_;
    RestoreSink sink_;
    std::map<Id, std::map<uint32_t, PlannedBlob>> packs_;  // pack -> offset -> blob
    std::vector<Range> ranges_;
};

RestoreReport RestoreRun::Run(bool writing) {
    sink_.CheckPaths();
    Plan();
    Progress progress(options_.progress, writing ? "restore" : "read", sink_.TotalBytes(), sink_.files().size());
    const unsigned jobs = std::max(1u, options_.jobs);
    std::vector<Bytes> buffers(jobs);
    std::vector<Bytes> plains(jobs);
    RunInParallel(jobs, ranges_.size(), [&](size_t item, unsigned worker) {
        RestoreRange(ranges_[item], buffers[worker], plains[worker], progress);
    });
    sink_.FinishIdle(progress);
    progress.Finish();
    sink_.MakeFoldersAndLinks();
    RestoreReport report;
    report.files = sink_.files().size();
    report.bytes = sink_.TotalBytes();
    report.folders = sink_.FolderCount();
    report.links = sink_.LinkCount();
    report.seconds = progress.Seconds();
    report.damaged = sink_.Damaged();
    report.setIdDropped = sink_.SetIdDropped();
    return report;
}

// Which blob goes where, grouped by pack, so that each pack is read once
// (in spans of up to kRestoreRangeBytes) whatever files share it; packs in
// the order the files first need them, so that a file is open briefly. A
// file whose chunks are not all indexed, or whose chunk sizes do not add
// up to its size, is damaged before anything is read.
void RestoreRun::Plan() {
    std::vector<Id> order;
    for (size_t file = 0; file < snapshot_.files.size(); ++file) {
        const SnapshotFile& entry = snapshot_.files[file];
        std::vector<const BlobLocation*> locations;
        uint64_t total = 0;
        for (const Id& chunk : entry.chunks) {
            const BlobLocation* location = index_.Find(chunk);
            if (!location) {
                sink_.Fail(file, "", "its chunk " + IdHex(chunk).substr(0, 16) + " is in no index");
                break;
            }
            locations.push_back(location);
            total += location->entry.plainLength;
        }
        if (sink_.Failed(file)) continue;
        if (total != entry.size) {
            sink_.Fail(file, "", "its chunks hold " + std::to_string(total) + " bytes, not " + std::to_string(entry.size));
            continue;
        }
        uint64_t offset = 0;
        for (const BlobLocation* location : locations) {
            auto& blobs = packs_[location->pack];
            if (blobs.empty()) order.push_back(location->pack);
            PlannedBlob& blob = blobs[location->entry.offset];
            blob.entry = location->entry;
            blob.uses.push_back({file, offset});
            offset += location->entry.plainLength;
        }
        sink_.Expect(file, locations.size());
    }
    for (const Id& pack : order) {
        for (const auto& [offset, blob] : packs_[pack]) {
            const uint64_t end = uint64_t{offset} + blob.entry.length;
            if (!ranges_.empty()) {
                Range& last = ranges_.back();
                if (last.pack == pack && offset <= last.start + last.length + kGapReadThrough &&
                    end - last.start <= kRestoreRangeBytes) {
                    last.length = end - last.start;
                    last.blobs.push_back(&blob);
                    continue;
                }
            }
            ranges_.push_back({pack, offset, blob.entry.length, {&blob}});
        }
    }
}

void RestoreRun::RestoreRange(const Range& range, Bytes& buffer, Bytes& plain, Progress& progress) {
    const std::string pack = repository_.layout().Pack(range.pack);
    std::string problem;
    try {
        repository_.store().ReadRange(pack, range.start, range.length, buffer);
        if (buffer.size() != range.length) problem = "its pack ends early";
    } catch (const ObjectMissing&) {
        problem = "its pack is missing";
    }
    for (const PlannedBlob* blob : range.blobs) {
        std::string why = problem;
        if (why.empty() && !OpenBlob(repository_.keys(), blob->entry, buffer.data() + (blob->entry.offset - range.start),
                                     blob->entry.length, plain, why)) {
            why = "a chunk " + why;
        }
        for (const BlobUse& use : blob->uses) {
            if (!why.empty()) {
                sink_.Fail(use.file, pack, why);
            } else if (!sink_.Failed(use.file)) {
                sink_.Write(use.file, use.offset, plain.data(), plain.size());
                progress.BytesDone(plain.size());
            }
            sink_.PieceDone(use.file, progress);
        }
    }
}

bool Within(const std::string& path, const std::string& folder) {
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == '/';
}

}  // namespace

Snapshot SelectSubPath(const Snapshot& snapshot, const std::string& subPath) {
    if (subPath.empty()) return snapshot;
    std::string sub = subPath;
    while (!sub.empty() && sub.back() == '/') sub.pop_back();
    while (!sub.empty() && sub.front() == '/') sub.erase(0, 1);
    Snapshot selected = snapshot;
    selected.files.clear();
    selected.folders.clear();
    selected.links.clear();
    const std::string name = sub.substr(sub.rfind('/') == std::string::npos ? 0 : sub.rfind('/') + 1);
    auto relative = [&](const std::string& path) -> std::optional<std::string> {
        if (path == sub) return name;
        if (Within(path, sub)) return path.substr(sub.size() + 1);
        return std::nullopt;
    };
    for (const SnapshotFile& file : snapshot.files) {
        if (auto path = relative(file.path)) selected.files.push_back(file), selected.files.back().path = *path;
    }
    for (const FolderRecord& folder : snapshot.folders) {
        if (folder.relativePath == sub) continue;  // the empty folder itself: the destination is it
        if (auto path = relative(folder.relativePath)) {
            selected.folders.push_back(folder), selected.folders.back().relativePath = *path;
        }
    }
    for (const LinkRecord& link : snapshot.links) {
        if (auto path = relative(link.relativePath)) selected.links.push_back(link), selected.links.back().relativePath = *path;
    }
    const bool emptyFolder = std::any_of(snapshot.folders.begin(), snapshot.folders.end(),
                                         [&](const FolderRecord& f) { return f.relativePath == sub; });
    if (selected.files.empty() && selected.folders.empty() && selected.links.empty() && !emptyFolder) {
        throw Error(ErrorKind::NotFound, "the snapshot holds nothing at " + subPath);
    }
    return selected;
}

RestoreReport RunRestore(Repository& repository, const MasterIndex& index, const Snapshot& snapshot,
                         RestoreTarget* target, const RestoreOptions& options) {
    return RestoreRun(repository, index, snapshot, target, options).Run(target != nullptr);
}

}  // namespace qvhost::repo
