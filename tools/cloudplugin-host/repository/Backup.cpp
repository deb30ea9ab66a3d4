#include "repository/Backup.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_set>

#include "cli/Commands.h"
#include "util/Interrupt.h"
#include "util/ParallelRunner.h"
#include "util/ToolError.h"

namespace qvhost::repo {

namespace {

// Bytes read from a file at a time, beyond the chunker's maximum.
constexpr size_t kReadBlock = 4u << 20;

class BackupRun {
public:
    BackupRun(Repository& repository, const std::string& source, const BackupOptions& options)
        : repository_(repository), options_(options), root_(source), source_(AbsolutePath(source)),
          chunker_(repository.gear(), repository.config().chunker) {}

    BackupReport Run();

private:
    struct FileWork {
        const SourceEntry* entry = nullptr;
        SnapshotFile* file = nullptr;
    };

    void AdoptInterruptedPacks();
    std::optional<Snapshot> FindParent();
    void ReadFile(const FileWork& work, std::vector<uint8_t>& buffer, KeyedHasher& hasher, Progress& progress);
    void StoreChunk(const uint8_t* data, size_t size, const Id& id);
    void Upload(PackBuilder::Finished&& pack);
    void Unreadable(const std::string& path, const std::string& why);

    Repository& repository_;
    const BackupOptions options_;
    const std::string root_;
    const std::string source_;
    const Chunker chunker_;
    MasterIndex index_;
    BackupReport report_;

    std::mutex mutex_;  // guards what follows
    std::unordered_set<Id, IdHash> stored_;  // blobs of this backup
    PackBuilder pack_;
    std::vector<IndexedPack> newPacks_;
    std::atomic<uint64_t> bytesAdded_{0};
    std::atomic<uint64_t> bytesProcessed_{0};
};

size_t CountUnreadable(const std::vector<SkippedEntry>& skipped) {
    return static_cast<size_t>(
        std::count_if(skipped.begin(), skipped.end(), [](const SkippedEntry& e) { return e.unreadable; }));
}

BackupReport BackupRun::Run() {
    SourceTree tree = ScanTree(root_);
    index_ = repository_.LoadIndex();
    AdoptInterruptedPacks();
    const std::optional<Snapshot> parent = options_.ignoreParent ? std::nullopt : FindParent();
    std::map<std::string, const SnapshotFile*> before;
    if (parent) {
        for (const SnapshotFile& file : parent->files) before[file.path] = &file;
    }

    Snapshot& snapshot = report_.snapshot;
    snapshot.host = options_.host;
    snapshot.source = source_;
    snapshot.tags = options_.tags;
    snapshot.parent = parent ? parent->id : "";
    snapshot.files.resize(tree.files.size());
    std::vector<FileWork> work;
    uint64_t bytesToRead = 0;
    for (size_t i = 0; i < tree.files.size(); ++i) {
        const SourceEntry& entry = tree.files[i];
        SnapshotFile& file = snapshot.files[i];
        file.path = entry.relativePath;
        file.size = entry.size;
        file.modifiedNs = entry.modifiedNs;
        file.mode = entry.mode;
        file.fileId = entry.fileId;
        const auto old = before.find(entry.relativePath);
        if (old != before.end()) {
            const SnapshotFile& was = *old->second;
            const bool same = was.size == entry.size && was.modifiedNs == entry.modifiedNs &&
                              was.fileId == entry.fileId && entry.fileId != 0 &&
                              std::all_of(was.chunks.begin(), was.chunks.end(),
                                          [this](const Id& id) { return index_.Has(id); });
            if (same) {
                file.chunks = was.chunks;
                ++report_.filesUnmodified;
                continue;
            }
            ++report_.filesChanged;
        } else {
            ++report_.filesNew;
        }
        work.push_back({&entry, &file});
        bytesToRead += entry.size;
    }
    // Large files first, so that the last file does not run alone.
    std::stable_sort(work.begin(), work.end(),
                     [](const FileWork& a, const FileWork& b) { return a.entry->size > b.entry->size; });

    Progress progress("backup", bytesToRead, work.size(), options_.progress);
    try {
        const unsigned jobs = std::max(1u, options_.jobs);
        std::vector<std::vector<uint8_t>> buffers(jobs);
        std::vector<std::unique_ptr<KeyedHasher>> hashers(jobs);
        RunInParallel(jobs, work.size(), [&](size_t index, unsigned worker) {
            if (!hashers[worker]) hashers[worker] = std::make_unique<KeyedHasher>(repository_.keys().mac);
            ReadFile(work[index], buffers[worker], *hashers[worker], progress);
        });
        PackBuilder::Finished last;
        bool haveLast = false;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (!pack_.empty()) last = pack_.Finish(repository_.keys()), haveLast = true;
        }
        if (haveLast) Upload(std::move(last));
    } catch (...) {
        progress.Finish();
        throw;
    }
    progress.Finish();

    // Packs, then the index naming them, then the snapshot naming their blobs.
    uint64_t written = 0;
    if (!newPacks_.empty()) repository_.SaveIndex(newPacks_, &written);
    // Files that could not be read are not in the snapshot.
    tree.skipped.insert(tree.skipped.end(), report_.skipped.begin(), report_.skipped.end());
    std::sort(tree.skipped.begin(), tree.skipped.end(),
              [](const SkippedEntry& a, const SkippedEntry& b) { return a.relativePath < b.relativePath; });
    report_.skipped = tree.skipped;
    std::set<std::string> unreadable;
    for (const SkippedEntry& entry : report_.skipped) unreadable.insert(entry.relativePath);
    snapshot.files.erase(std::remove_if(snapshot.files.begin(), snapshot.files.end(),
                                        [&](const SnapshotFile& file) { return unreadable.count(file.path) != 0; }),
                         snapshot.files.end());
    for (const SourceEntry& folder : tree.folders) {
        snapshot.folders.push_back({folder.relativePath, folder.modifiedNs, folder.mode});
    }
    for (const SourceEntry& link : tree.links) {
        snapshot.links.push_back({link.relativePath, link.linkTarget, link.modifiedNs});
    }
    report_.bytesProcessed = bytesProcessed_;
    const auto now = std::chrono::system_clock::now();
    snapshot.timeNs = std::chrono::duration_cast<std::chrono::nanoseconds>(now.time_since_epoch()).count();
    snapshot.time = UtcTimeText(snapshot.timeNs / 1000000000);
    snapshot.summary = Json{{"files_new", report_.filesNew},
                            {"files_changed", report_.filesChanged},
                            {"files_unmodified", report_.filesUnmodified},
                            {"bytes_processed", report_.bytesProcessed},
                            {"blobs_new", report_.blobsNew},
                            {"packs_written", report_.packsWritten},
                            {"seconds", progress.Seconds()}};
    repository_.SaveSnapshot(snapshot, &written);
    report_.bytesAdded = bytesAdded_ + written;
    return std::move(report_);
}

// Packs that no index names were stored by a backup that did not finish
// (or by one running now). Their headers say what they hold: indexed with
// this backup, their blobs are not uploaded again.
void BackupRun::AdoptInterruptedPacks() {
    for (const NamedObject& object : repository_.ListIds(repository_.layout().DataPrefix())) {
        if (index_.HasPack(object.id) || object.size < 4 || object.size > kMaximumPackSize) continue;
        try {
            Bytes tail;
            repository_.store().ReadRange(object.name, object.size - 4, 4, tail);
            if (tail.size() != 4) continue;
            const uint32_t length = PackHeaderLength(tail.data(), object.size, object.name);
            repository_.store().ReadRange(object.name, object.size - 4 - length, length, tail);
            if (tail.size() != length) continue;
            IndexedPack pack{object.id, DecodePackHeader(repository_.keys(), tail.data(), tail.size(), object.size,
                                                         object.name)};
            index_.Add(pack);
            newPacks_.push_back(std::move(pack));
            ++report_.packsAdopted;
        } catch (const ToolError&) {
            // Not a pack of ours that can be used (or removed meanwhile):
            // left to prune and check.
        }
    }
}

std::optional<Snapshot> BackupRun::FindParent() {
    std::string parent;  // the newest: listed oldest first
    for (const SnapshotInfo& snapshot : repository_.ListSnapshotInfos()) {
        if (snapshot.source == source_ && snapshot.host == options_.host) parent = snapshot.id;
    }
    if (parent.empty()) return std::nullopt;
    return repository_.LoadSnapshot(parent);
}

void BackupRun::ReadFile(const FileWork& work, std::vector<uint8_t>& buffer, KeyedHasher& hasher, Progress& progress) {
    const SourceEntry& entry = *work.entry;
    const std::string path = JoinPath(root_, entry.relativePath);
    const size_t maximum = chunker_.parameters().maximum;
    buffer.resize(maximum + kReadBlock);
    std::vector<Id> chunks;
    uint64_t total = 0;
    try {
        InputFile input(path);
        size_t start = 0, end = 0;
        bool eof = false;
        for (;;) {
            if (!eof && end - start < maximum) {
                std::memmove(buffer.data(), buffer.data() + start, end - start);
                end -= start;
                start = 0;
                const size_t read = input.Read(buffer.data() + end, buffer.size() - end);
                end += read;
                eof = read == 0;
                if (!eof) continue;
            }
            if (start == end) break;
            const size_t length = chunker_.NextBoundary(buffer.data() + start, end - start, eof);
            if (length == 0) continue;
            const Id id = hasher.Hash(buffer.data() + start, length);
            StoreChunk(buffer.data() + start, length, id);
            chunks.push_back(id);
            start += length;
            total += length;
            bytesProcessed_ += length;
            progress.BytesDone(length);
            if (Interrupted()) throw ToolError(kExitInterrupted, "interrupted");
        }
        if (total != entry.size || FileSize(path) != entry.size || ModifiedNs(path) != entry.modifiedNs) {
            throw ToolError(kExitLocalFile, path + " changed while it was being read");
        }
    } catch (const ToolError& failure) {
        if (failure.exitStatus() != kExitLocalFile) throw;
        progress.FileFailed();
        return Unreadable(entry.relativePath, failure.what());
    }
    work.file->chunks = std::move(chunks);
    progress.FileDone(entry.relativePath, entry.size);
}

void BackupRun::StoreChunk(const uint8_t* data, size_t size, const Id& id) {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (index_.Has(id) || !stored_.insert(id).second) return;
    }
    SealedBlob blob = SealBlob(repository_.keys(), id, data, size);
    PackBuilder::Finished full;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        ++report_.blobsNew;
        report_.blobBytesNew += size;
        if (pack_.empty()) pack_.Reserve(repository_.config().packSize + kMaximumBlobSealedSize + (64u << 10));
        pack_.Add(std::move(blob));
        if (pack_.size() < repository_.config().packSize) return;
        full = pack_.Finish(repository_.keys());
    }
    Upload(std::move(full));
}

// On the job's own thread: the jobs that fill packs also upload them, so
// at most `jobs` packs are in memory and in flight at once.
void BackupRun::Upload(PackBuilder::Finished&& pack) {
    repository_.WritePack(pack);
    bytesAdded_ += pack.bytes.size();
    std::lock_guard<std::mutex> guard(mutex_);
    ++report_.packsWritten;
    newPacks_.push_back({pack.id, std::move(pack.entries)});
}

void BackupRun::Unreadable(const std::string& path, const std::string& why) {
    std::lock_guard<std::mutex> guard(mutex_);
    report_.skipped.push_back({path, why, true});
}

}  // namespace

size_t BackupReport::Unreadable() const { return CountUnreadable(skipped); }

BackupReport RunBackup(Repository& repository, const std::string& source, const BackupOptions& options) {
    return BackupRun(repository, source, options).Run();
}

}  // namespace qvhost::repo
