#include "repository/Backup.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_set>

#include "util/Error.h"
#include "util/Interrupt.h"
#include "util/ParallelRunner.h"
#include "util/Text.h"

namespace qvhost::repo {

namespace {

// Bytes read from a file at a time, beyond the chunker's maximum.
constexpr size_t kReadBlock = 4u << 20;

class BackupRun {
public:
    BackupRun(Repository& repository, Source& source, const BackupOptions& options)
        : repository_(repository), source_(source), options_(options), path_(source.Path()),
          chunker_(repository.gear(), repository.config().chunker) {}

    BackupReport Run();

private:
    struct FileWork {
        const SourceEntry* entry = nullptr;
        SnapshotFile* file = nullptr;
    };

    std::vector<FileWork> Compare(const SourceTree& tree, const std::optional<Snapshot>& parent);
    void ReadFiles(std::vector<FileWork>& work);
    void FinishSnapshot(SourceTree& tree, double seconds);
    void AdoptInterruptedPacks();
    std::optional<Snapshot> FindParent();
    void ReadFile(const FileWork& work, std::vector<uint8_t>& buffer, KeyedHasher& hasher, Progress& progress);
    std::vector<Id> ChunkFile(const SourceEntry& entry, std::vector<uint8_t>& buffer, KeyedHasher& hasher,
                              Progress& progress);
    void StoreChunk(const uint8_t* data, size_t size, const Id& id);
    void Upload(PackBuilder::Finished&& pack);
    void FlushLastPack();
    void Unreadable(const std::string& path, const std::string& why);

    Repository& repository_;
    Source& source_;
    const BackupOptions options_;
    const std::string path_;
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

BackupReport BackupRun::Run() {
    SourceTree tree = source_.Scan();
    index_ = repository_.LoadIndex();
    if (!options_.dryRun) AdoptInterruptedPacks();
    const std::optional<Snapshot> parent = options_.ignoreParent ? std::nullopt : FindParent();
    Snapshot& snapshot = report_.snapshot;
    snapshot.host = options_.host;
    snapshot.source = path_;
    snapshot.tags = options_.tags;
    snapshot.parent = parent ? parent->id : "";
    std::vector<FileWork> work = Compare(tree, parent);
    const auto start = std::chrono::steady_clock::now();
    ReadFiles(work);
    FinishSnapshot(tree, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    return std::move(report_);
}

// Which files must be read: those not in the parent, or whose size, time or
// file id differ from it (or whose chunks the index no longer holds). The
// others take the parent's chunks unread.
std::vector<BackupRun::FileWork> BackupRun::Compare(const SourceTree& tree, const std::optional<Snapshot>& parent) {
    std::map<std::string, const SnapshotFile*> before;
    if (parent) {
        for (const SnapshotFile& file : parent->files) before[file.path] = &file;
    }
    Snapshot& snapshot = report_.snapshot;
    snapshot.files.resize(tree.files.size());
    std::vector<FileWork> work;
    for (size_t i = 0; i < tree.files.size(); ++i) {
        const SourceEntry& entry = tree.files[i];
        SnapshotFile& file = snapshot.files[i];
        file = {entry.relativePath, entry.size, entry.modifiedNs, entry.mode, entry.fileId, {}};
        const auto old = before.find(entry.relativePath);
        if (old == before.end()) {
            ++report_.filesNew;
        } else if (const SnapshotFile& was = *old->second;
                   was.size == entry.size && was.modifiedNs == entry.modifiedNs && was.fileId == entry.fileId &&
                   entry.fileId != 0 &&
                   std::all_of(was.chunks.begin(), was.chunks.end(), [this](const Id& id) { return index_.Has(id); })) {
            file.chunks = was.chunks;
            ++report_.filesUnmodified;
            continue;
        } else {
            ++report_.filesChanged;
        }
        work.push_back({&entry, &file});
        report_.toRead.push_back(entry.relativePath);
    }
    // Large files first, so that the last file does not run alone.
    std::stable_sort(work.begin(), work.end(),
                     [](const FileWork& a, const FileWork& b) { return a.entry->size > b.entry->size; });
    return work;
}

void BackupRun::ReadFiles(std::vector<FileWork>& work) {
    uint64_t bytesToRead = 0;
    for (const FileWork& item : work) bytesToRead += item.entry->size;
    Progress progress(options_.progress, options_.dryRun ? "dry run" : "backup", bytesToRead, work.size());
    const unsigned jobs = std::max(1u, options_.jobs);
    std::vector<std::vector<uint8_t>> buffers(jobs);
    std::vector<std::unique_ptr<KeyedHasher>> hashers(jobs);
    RunInParallel(jobs, work.size(), [&](size_t index, unsigned worker) {
        if (!hashers[worker]) hashers[worker] = std::make_unique<KeyedHasher>(repository_.keys().mac);
        ReadFile(work[index], buffers[worker], *hashers[worker], progress);
    });
    FlushLastPack();
}

// Packs, then the index naming them, then the snapshot naming their blobs.
void BackupRun::FinishSnapshot(SourceTree& tree, double seconds) {
    uint64_t written = 0;
    if (!newPacks_.empty() && !options_.dryRun) repository_.SaveIndex(newPacks_, &written);
    // Files that could not be read are not in the snapshot.
    tree.skipped.insert(tree.skipped.end(), report_.skipped.begin(), report_.skipped.end());
    std::sort(tree.skipped.begin(), tree.skipped.end(),
              [](const SkippedEntry& a, const SkippedEntry& b) { return a.relativePath < b.relativePath; });
    report_.skipped = tree.skipped;
    std::set<std::string> unreadable;
    for (const SkippedEntry& entry : report_.skipped) unreadable.insert(entry.relativePath);
    Snapshot& snapshot = report_.snapshot;
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
                            {"seconds", seconds}};
    if (options_.dryRun) {
        written += EncodeSnapshot(repository_.keys(), snapshot).size();
    } else {
        repository_.SaveSnapshot(snapshot, &written);
    }
    report_.bytesAdded = bytesAdded_ + written;
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
        } catch (const Error&) {
            // Not a pack of ours that can be used (or removed meanwhile):
            // left to prune and check.
        }
    }
}

std::optional<Snapshot> BackupRun::FindParent() {
    std::string parent;  // the newest: listed oldest first
    for (const SnapshotInfo& snapshot : repository_.ListSnapshotInfos()) {
        if (snapshot.source == path_ && snapshot.host == options_.host) parent = snapshot.id;
    }
    if (parent.empty()) return std::nullopt;
    return repository_.LoadSnapshot(parent);
}

// A file that cannot be read, or changes while it is read, is not kept (and
// reported); any other failure ends the backup.
void BackupRun::ReadFile(const FileWork& work, std::vector<uint8_t>& buffer, KeyedHasher& hasher, Progress& progress) {
    const SourceEntry& entry = *work.entry;
    try {
        work.file->chunks = ChunkFile(entry, buffer, hasher, progress);
        if (!source_.Unchanged(entry)) {
            throw Error(ErrorKind::LocalFile, entry.relativePath + " changed while it was being read");
        }
    } catch (const Error& failure) {
        if (failure.kind() != ErrorKind::LocalFile) throw;
        progress.FileFailed();
        return Unreadable(entry.relativePath, failure.what());
    }
    progress.FileDone(entry.relativePath, entry.size);
}

std::vector<Id> BackupRun::ChunkFile(const SourceEntry& entry, std::vector<uint8_t>& buffer, KeyedHasher& hasher,
                                     Progress& progress) {
    const size_t maximum = chunker_.parameters().maximum;
    buffer.resize(maximum + kReadBlock);
    std::vector<Id> chunks;
    uint64_t total = 0;
    const std::unique_ptr<SourceReader> input = source_.Open(entry);
    size_t start = 0, end = 0;
    bool eof = false;
    for (;;) {
        if (!eof && end - start < maximum) {
            std::memmove(buffer.data(), buffer.data() + start, end - start);
            end -= start;
            start = 0;
            const size_t read = input->Read(buffer.data() + end, buffer.size() - end);
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
        if (Interrupted()) throw Error(ErrorKind::Interrupted, "interrupted");
    }
    if (total != entry.size) throw Error(ErrorKind::LocalFile, entry.relativePath + " changed while it was being read");
    return chunks;
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
// at most `jobs` packs are in memory and in flight at once. A dry run
// counts what it would upload.
void BackupRun::Upload(PackBuilder::Finished&& pack) {
    if (!options_.dryRun) repository_.WritePack(pack);
    bytesAdded_ += pack.bytes.size();
    std::lock_guard<std::mutex> guard(mutex_);
    ++report_.packsWritten;
    newPacks_.push_back({pack.id, std::move(pack.entries)});
}

void BackupRun::FlushLastPack() {
    PackBuilder::Finished last;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (pack_.empty()) return;
        last = pack_.Finish(repository_.keys());
    }
    Upload(std::move(last));
}

void BackupRun::Unreadable(const std::string& path, const std::string& why) {
    std::lock_guard<std::mutex> guard(mutex_);
    report_.skipped.push_back({path, why, true});
}

}  // namespace

size_t BackupReport::Unreadable() const {
    return static_cast<size_t>(
        std::count_if(skipped.begin(), skipped.end(), [](const SkippedEntry& e) { return e.unreadable; }));
}

BackupReport RunBackup(Repository& repository, Source& source, const BackupOptions& options) {
    return BackupRun(repository, source, options).Run();
}

}  // namespace qvhost::repo
