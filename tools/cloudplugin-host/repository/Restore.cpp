#include "repository/Restore.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>

#include "cli/Commands.h"
#include "util/ParallelRunner.h"
#include "util/ToolError.h"

namespace qvhost::repo {

namespace {

constexpr uint32_t kSetIdBits = 06000;

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

class RestoreRun {
public:
    RestoreRun(Repository& repository, const MasterIndex& index, const Snapshot& snapshot, Destination* destination,
               const RestoreOptions& options)
        : repository_(repository), index_(index), snapshot_(snapshot), destination_(destination),
          options_(options), files_(snapshot.files.size()) {}

    RestoreReport Run();

private:
    struct FileState {
        std::atomic<uint64_t> uses{0};  // blob uses not yet done; the file is finished at 0
        std::mutex mutex;
        std::unique_ptr<RestoredFile> output;
        std::atomic<bool> failed{false};
        std::atomic<bool> finished{false};
        RestoreProblem problem;
    };

    void Plan();
    void Fail(size_t file, const std::string& object, const std::string& what);
    void RestoreRange(const Range& range, Bytes& buffer, Bytes& plain, Progress& progress);
    void UseDone(size_t file, Progress& progress);
    RestoredFile& OutputOf(size_t file);
    void FinishFile(size_t file, Progress& progress);

    Repository& repository_;
    const MasterIndex& index_;
    const Snapshot& snapshot_;
    Destination* destination_;
    const RestoreOptions options_;
    std::vector<FileState> files_;
    std::map<Id, std::map<uint32_t, PlannedBlob>> packs_;  // pack -> offset -> blob
    std::vector<Range> ranges_;
    std::mutex mutex_;
    RestoreReport report_;
};

RestoreReport RestoreRun::Run() {
    if (destination_) {
        // Everything that would be refused is refused before the first write.
        for (const SnapshotFile& file : snapshot_.files) destination_->Check(file.path, EntryKind::File);
        for (const ManifestFolder& folder : snapshot_.folders) destination_->Check(folder.relativePath, EntryKind::Folder);
        for (const ManifestLink& link : snapshot_.links) destination_->Check(link.relativePath, EntryKind::Link);
    }
    Plan();
    Progress progress(destination_ ? "restore" : "read", snapshot_.TotalBytes(), snapshot_.files.size(),
                      options_.progress);
    try {
        const unsigned jobs = std::max(1u, options_.jobs);
        std::vector<Bytes> buffers(jobs);
        std::vector<Bytes> plains(jobs);
        RunInParallel(jobs, ranges_.size(), [&](size_t item, unsigned worker) {
            RestoreRange(ranges_[item], buffers[worker], plains[worker], progress);
        });
        // Files with no blob to wait for (empty, or found damaged before
        // reading), once the data came through.
        for (size_t file = 0; file < files_.size(); ++file) {
            if (files_[file].uses == 0) FinishFile(file, progress);
        }
    } catch (...) {
        progress.Finish();
        throw;
    }
    progress.Finish();
    if (destination_) {
        // Links last: no file of this restore is ever written beneath one.
        for (const ManifestFolder& folder : snapshot_.folders) {
            destination_->MakeFolder(folder.relativePath, folder.mode, folder.modifiedNs);
        }
        for (const ManifestLink& link : snapshot_.links) {
            destination_->MakeLink(link.relativePath, link.target, link.modifiedNs);
        }
    }
    report_.files = snapshot_.files.size();
    report_.bytes = snapshot_.TotalBytes();
    report_.folders = snapshot_.folders.size();
    report_.links = snapshot_.links.size();
    report_.seconds = progress.Seconds();
    std::sort(report_.damaged.begin(), report_.damaged.end(),
              [](const RestoreProblem& a, const RestoreProblem& b) { return a.file < b.file; });
    std::sort(report_.setIdDropped.begin(), report_.setIdDropped.end());
    return std::move(report_);
}

// Which blob goes where, grouped by pack, so that each pack is read once
// (in spans of up to kRestoreRangeBytes) whatever files share it; packs in
// the order the files first need them, so that a file is open briefly. A
// file whose chunks are not all indexed, or whose chunk sizes do not add
// up to its size, is damaged before anything is read.
void RestoreRun::Plan() {
    std::vector<Id> order;
    for (size_t file = 0; file < files_.size(); ++file) {
        const SnapshotFile& entry = snapshot_.files[file];
        std::vector<const BlobLocation*> locations;
        uint64_t total = 0;
        for (const Id& chunk : entry.chunks) {
            const BlobLocation* location = index_.Find(chunk);
            if (!location) {
                Fail(file, "", "its chunk " + IdHex(chunk).substr(0, 16) + " is in no index");
                break;
            }
            locations.push_back(location);
            total += location->entry.plainLength;
        }
        if (files_[file].failed) continue;
        if (total != entry.size) {
            Fail(file, "", "its chunks hold " + std::to_string(total) + " bytes, not " + std::to_string(entry.size));
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
        files_[file].uses = locations.size();
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

void RestoreRun::Fail(size_t file, const std::string& object, const std::string& what) {
    FileState& state = files_[file];
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.failed.exchange(true)) state.problem = {snapshot_.files[file].path, object, what};
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
                Fail(use.file, pack, why);
            } else if (!files_[use.file].failed) {
                if (destination_ && !plain.empty()) OutputOf(use.file).WriteAt(use.offset, plain.data(), plain.size());
                progress.BytesDone(plain.size());
            }
            UseDone(use.file, progress);
        }
    }
}

void RestoreRun::UseDone(size_t file, Progress& progress) {
    if (--files_[file].uses == 0) FinishFile(file, progress);
}

RestoredFile& RestoreRun::OutputOf(size_t file) {
    FileState& state = files_[file];
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.output) state.output = destination_->MakeFile(snapshot_.files[file].path);
    return *state.output;
}

// After the file's last blob: a file whose every blob checked is moved into
// place (mode and time set); a damaged one is never left as restored.
void RestoreRun::FinishFile(size_t file, Progress& progress) {
    FileState& state = files_[file];
    if (state.finished.exchange(true)) return;
    const SnapshotFile& entry = snapshot_.files[file];
    if (state.failed) {
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            state.output.reset();  // removes the partial file
        }
        progress.FileFailed();
        std::lock_guard<std::mutex> lock(mutex_);
        report_.damaged.push_back(state.problem);
        return;
    }
    if (destination_) {
        OutputOf(file).Commit(entry.mode, entry.modifiedNs);
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            state.output.reset();
        }
        if (entry.mode & kSetIdBits) {
            std::lock_guard<std::mutex> lock(mutex_);
            report_.setIdDropped.push_back(entry.path);
        }
    }
    progress.FileDone(entry.path, entry.size);
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
    for (const ManifestFolder& folder : snapshot.folders) {
        if (folder.relativePath == sub) continue;  // the empty folder itself: the destination is it
        if (auto path = relative(folder.relativePath)) {
            selected.folders.push_back(folder), selected.folders.back().relativePath = *path;
        }
    }
    for (const ManifestLink& link : snapshot.links) {
        if (auto path = relative(link.relativePath)) selected.links.push_back(link), selected.links.back().relativePath = *path;
    }
    const bool emptyFolder = std::any_of(snapshot.folders.begin(), snapshot.folders.end(),
                                         [&](const ManifestFolder& f) { return f.relativePath == sub; });
    if (selected.files.empty() && selected.folders.empty() && selected.links.empty() && !emptyFolder) {
        throw ToolError(kExitNoSuchBackup, "the snapshot holds nothing at " + subPath);
    }
    return selected;
}

RestoreReport RunRestore(Repository& repository, const MasterIndex& index, const Snapshot& snapshot,
                         Destination* destination, const RestoreOptions& options) {
    return RestoreRun(repository, index, snapshot, destination, options).Run();
}

}  // namespace qvhost::repo
