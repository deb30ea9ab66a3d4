#include "repository/Restore.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>

#include "Commands.h"
#include "ParallelRunner.h"
#include "ToolError.h"

namespace qvhost::repo {

namespace {

constexpr uint32_t kSetIdBits = 06000;

// Neighbouring blobs of one pack, read in one request.
struct Range {
    size_t firstChunk = 0;
    size_t chunks = 0;
    uint64_t fileOffset = 0;
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
        std::vector<const BlobLocation*> locations;
        std::vector<Range> ranges;
        std::mutex mutex;
        std::unique_ptr<RestoredFile> output;
        std::atomic<bool> failed{false};
        RestoreProblem problem;
    };

    void Plan(size_t file);
    void Fail(size_t file, const std::string& object, const std::string& what);
    void RestoreRange(size_t file, const Range& range, Bytes& buffer, Bytes& plain, Progress& progress);
    RestoredFile& OutputOf(size_t file);
    void FinishFile(size_t file, Progress& progress);

    Repository& repository_;
    const MasterIndex& index_;
    const Snapshot& snapshot_;
    Destination* destination_;
    const RestoreOptions options_;
    std::vector<FileState> files_;
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
    std::vector<uint64_t> rangeCounts;
    for (size_t file = 0; file < files_.size(); ++file) {
        Plan(file);
        rangeCounts.push_back(files_[file].ranges.size());
    }
    Progress progress(destination_ ? "restore" : "read", snapshot_.TotalBytes(), snapshot_.files.size(),
                      options_.progress);
    try {
        PartPlan plan(rangeCounts);
        const unsigned jobs = std::max(1u, options_.jobs);
        std::vector<Bytes> buffers(jobs);
        std::vector<Bytes> plains(jobs);
        RunInParallel(jobs, plan.size(), [&](size_t item, unsigned worker) {
            const PartPlan::Item& step = plan[item];
            if (step.hasPart) {
                RestoreRange(step.file, files_[step.file].ranges[step.part], buffers[worker], plains[worker],
                             progress);
            }
            if (plan.Done(step.file)) FinishFile(step.file, progress);
        });
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

// Where each chunk lies, grouped into ranges; a file whose chunks are not
// all indexed, or whose chunk sizes do not add up to its size, is damaged
// before anything is read.
void RestoreRun::Plan(size_t file) {
    const SnapshotFile& entry = snapshot_.files[file];
    FileState& state = files_[file];
    uint64_t total = 0;
    for (const Id& chunk : entry.chunks) {
        const BlobLocation* location = index_.Find(chunk);
        if (!location) return Fail(file, "", "its chunk " + IdHex(chunk).substr(0, 16) + " is in no index");
        state.locations.push_back(location);
        total += location->entry.plainLength;
    }
    if (total != entry.size) {
        return Fail(file, "", "its chunks hold " + std::to_string(total) + " bytes, not " + std::to_string(entry.size));
    }
    uint64_t offset = 0;
    for (size_t i = 0; i < entry.chunks.size(); ++i) {
        const BlobLocation* here = state.locations[i];
        if (!state.ranges.empty()) {
            Range& last = state.ranges.back();
            const BlobLocation* before = state.locations[last.firstChunk + last.chunks - 1];
            const BlobLocation* first = state.locations[last.firstChunk];
            if (before->pack == here->pack &&
                uint64_t{before->entry.offset} + before->entry.length == here->entry.offset &&
                uint64_t{here->entry.offset} + here->entry.length - first->entry.offset <= kRestoreRangeBytes) {
                ++last.chunks;
                offset += here->entry.plainLength;
                continue;
            }
        }
        state.ranges.push_back({i, 1, offset});
        offset += here->entry.plainLength;
    }
}

void RestoreRun::Fail(size_t file, const std::string& object, const std::string& what) {
    FileState& state = files_[file];
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.failed.exchange(true)) state.problem = {snapshot_.files[file].path, object, what};
}

void RestoreRun::RestoreRange(size_t file, const Range& range, Bytes& buffer, Bytes& plain, Progress& progress) {
    FileState& state = files_[file];
    if (state.failed) return;
    const BlobLocation* first = state.locations[range.firstChunk];
    const BlobLocation* last = state.locations[range.firstChunk + range.chunks - 1];
    const std::string pack = repository_.layout().Pack(first->pack);
    const uint64_t length = uint64_t{last->entry.offset} + last->entry.length - first->entry.offset;
    try {
        repository_.store().ReadRange(pack, first->entry.offset, length, buffer);
    } catch (const ObjectMissing&) {
        return Fail(file, pack, "its pack is missing");
    }
    if (buffer.size() != length) return Fail(file, pack, "its pack ends early");
    uint64_t offset = range.fileOffset;
    for (size_t i = range.firstChunk; i < range.firstChunk + range.chunks; ++i) {
        const PackEntry& entry = state.locations[i]->entry;
        std::string why;
        if (!OpenBlob(repository_.keys(), entry, buffer.data() + (entry.offset - first->entry.offset), entry.length,
                      plain, why)) {
            return Fail(file, pack, "a chunk " + why);
        }
        if (destination_ && !plain.empty()) OutputOf(file).WriteAt(offset, plain.data(), plain.size());
        offset += plain.size();
        progress.BytesDone(plain.size());
    }
}

RestoredFile& RestoreRun::OutputOf(size_t file) {
    FileState& state = files_[file];
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.output) state.output = destination_->MakeFile(snapshot_.files[file].path);
    return *state.output;
}

void RestoreRun::FinishFile(size_t file, Progress& progress) {
    FileState& state = files_[file];
    const SnapshotFile& entry = snapshot_.files[file];
    if (state.failed) {
        state.output.reset();  // removes the partial file
        progress.FileFailed();
        std::lock_guard<std::mutex> lock(mutex_);
        report_.damaged.push_back(state.problem);
        return;
    }
    if (destination_) {
        OutputOf(file).Commit(entry.mode, entry.modifiedNs);
        state.output.reset();
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
