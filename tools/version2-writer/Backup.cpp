// A backup of the version 2 layout, for the fixtures of the tests and
// benchmarks: every regular file (content, time, mode) in parts, with its
// empty folders and symbolic links, then the manifest.
// Every part of every file is a piece of work of its own, read once and
// hashed once by whichever job takes it. A backup that stops writes no
// manifest and removes the parts it wrote.
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <mutex>

#include "util/AlignedBuffer.h"
#include "host/PluginSession.h"
#include "legacy/Manifest.h"
#include "legacy/PartPlan.h"
#include "util/Interrupt.h"
#include "local/LocalFiles.h"
#include "util/ParallelRunner.h"
#include "util/Sha256.h"
#include "util/Error.h"
#include "Version2Writer.h"

namespace qvhost::legacy {

namespace {

// Consecutive failed deletes after which clean-up stops: the storage is
// then most likely out of reach, and `prune` removes the rest later.
constexpr int kCleanUpFailuresToStop = 3;

[[noreturn]] void ChangedWhileReading(const std::string& path) {
    throw Error(ErrorKind::LocalFile, path + " changed while it was being read");
}

class BackupRun {
public:
    BackupRun(const Context& context, const std::string& source, std::string backupId, uint64_t partSize)
        : context_(context), session_(context.session), source_(source), backupId_(std::move(backupId)),
          partSize_(partSize), tree_(ScanTree(source)), files_(tree_.files.size()), stored_(tree_.files.size()) {}

    BackupReport Run();

private:
    // Where the parts of one file stand while jobs work on them.
    struct FileState {
        std::vector<std::string> partSha256;  // filled in by the part's job
        std::vector<std::string> written;     // parts whose write was started
        std::atomic<bool> failed{false};
        std::mutex mutex;
        std::string failure;
    };

    void StoreFiles(Progress& progress);
    void StorePart(size_t file, uint64_t part, AlignedBuffer& buffer, Progress& progress);
    void FinishFile(size_t file, Progress& progress);
    void Fail(FileState& state, const std::string& why);
    void Noted(FileState& state, const std::string& objectName);
    void RemoveWrittenParts();
    Manifest BuildManifest() const;
    BackupReport Report(const Manifest& manifest, double seconds);

    const Context& context_;
    PluginSession& session_;
    const std::string source_;
    const std::string backupId_;
    const uint64_t partSize_;
    SourceTree tree_;
    std::vector<FileState> files_;                     // per file of tree_.files
    std::vector<std::optional<ManifestFile>> stored_;  // per file of tree_.files; empty when not stored
    std::mutex mutex_;
    std::vector<std::string> written_;      // every part name a write was started for
    std::vector<SkippedEntry> unreadable_;  // files that failed while being read
};

BackupReport BackupRun::Run() {
    if (session_.Exists(context_.layout.ManifestName(backupId_))) {
        throw Error(ErrorKind::Exists, "a backup named " + backupId_ + " exists already");
    }
    uint64_t totalBytes = 0;
    for (const SourceEntry& file : tree_.files) totalBytes += file.size;
    Progress progress(context_.progress, "backup", totalBytes, tree_.files.size());
    try {
        StoreFiles(progress);
    } catch (const Error&) {
        progress.Finish();
        RemoveWrittenParts();
        throw;
    }
    progress.Finish();
    const Manifest manifest = BuildManifest();
    const std::string text = EncodeManifest(manifest);
    const Metadata metadata = {{manifest_property::kFiles, std::to_string(manifest.files.size())},
                               {manifest_property::kBytes, std::to_string(manifest.TotalBytes())},
                               {manifest_property::kCreated, manifest.created},
                               {manifest_property::kSource, manifest.source},
                               {manifest_property::kSha, ToHex(Sha256Of(text.data(), text.size()))}};
    session_.Write(context_.layout.ManifestName(backupId_), reinterpret_cast<const uint8_t*>(text.data()),
                   text.size(), metadata);
    return Report(manifest, progress.Seconds());
}

void BackupRun::StoreFiles(Progress& progress) {
    const uint64_t partSize = partSize_;
    std::vector<uint64_t> partCounts;
    for (size_t file = 0; file < tree_.files.size(); ++file) {
        partCounts.push_back(PartCount(tree_.files[file].size, partSize));
        files_[file].partSha256.resize(partCounts.back());
    }
    PartPlan plan(partCounts);
    std::vector<AlignedBuffer> buffers(context_.jobs);
    RunInParallel(context_.jobs, plan.size(), [&](size_t index, unsigned worker) {
        const PartPlan::Item& item = plan[index];
        AlignedBuffer& buffer = buffers[worker];
        buffer.Reserve(static_cast<size_t>(partSize));
        if (item.hasPart) StorePart(item.file, item.part, buffer, progress);
        if (plan.Done(item.file)) FinishFile(item.file, progress);
    });
}

// Reads the part (the file opened for this part alone), hashes it and
// writes it with its metadata. A file that cannot be read (or changes
// while it is read) is given up on, not the backup.
void BackupRun::StorePart(size_t file, uint64_t part, AlignedBuffer& buffer, Progress& progress) {
    FileState& state = files_[file];
    if (state.failed) return;
    const SourceEntry& source = tree_.files[file];
    const uint64_t partSize = partSize_;
    const size_t size = static_cast<size_t>(PartBytes(source.size, partSize, part));
    try {
        const std::string path = JoinPath(source_, source.relativePath);
        InputFile input(path);
        if (input.ReadAt(part * partSize, buffer.data(), size) != size) ChangedWhileReading(path);
    } catch (const Error& failure) {
        if (failure.kind() != ErrorKind::LocalFile) throw;
        return Fail(state, failure.what());
    }
    state.partSha256[part] = ToHex(Sha256Of(buffer.data(), size));
    const Metadata metadata = {{part_property::kPath, source.relativePath},
                               {part_property::kSize, std::to_string(source.size)},
                               {part_property::kModified, std::to_string(source.modifiedNs)},
                               {part_property::kPart, std::to_string(part)},
                               {part_property::kParts, std::to_string(state.partSha256.size())},
                               {part_property::kPartSha, state.partSha256[part]},
                               {part_property::kBackup, backupId_},
                               {part_property::kPartSize, std::to_string(partSize)},
                               {part_property::kWritten, UtcNow("%Y-%m-%dT%H:%M:%SZ")}};
    const std::string name = context_.layout.PartName(backupId_, static_cast<uint32_t>(file), part);
    Noted(state, name);  // before the call: a failed write may still leave an object
    session_.Write(name, buffer.data(), size, metadata);
    progress.PartDone(source.relativePath, part, state.partSha256.size(), size);
}

// After the file's last part: a file whose size or time changed meanwhile
// is given up on like one that could not be read, and its parts removed.
void BackupRun::FinishFile(size_t file, Progress& progress) {
    FileState& state = files_[file];
    const SourceEntry& source = tree_.files[file];
    const std::string path = JoinPath(source_, source.relativePath);
    try {
        if (!state.failed && (FileSize(path) != source.size || ModifiedNs(path) != source.modifiedNs)) {
            ChangedWhileReading(path);
        }
    } catch (const Error& failure) {
        if (failure.kind() != ErrorKind::LocalFile) throw;
        Fail(state, failure.what());
    }
    if (state.failed) {
        for (const std::string& name : state.written) session_.DeleteIfPresent(name);
        progress.FileFailed();
        std::lock_guard<std::mutex> lock(mutex_);
        unreadable_.push_back({source.relativePath, state.failure, true});
        return;
    }
    stored_[file] = ManifestFile{static_cast<uint32_t>(file), source.relativePath, source.size, source.modifiedNs,
                                 FileDigestOf(state.partSha256), state.partSha256, source.mode};
    progress.FileDone(source.relativePath, source.size);
}

void BackupRun::Fail(FileState& state, const std::string& why) {
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.failed.exchange(true)) state.failure = why;
}

void BackupRun::Noted(FileState& state, const std::string& objectName) {
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.written.push_back(objectName);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    written_.push_back(objectName);
}

// After a failure: no manifest is written, so the backup never counts as
// complete; its parts are removed as far as the storage lets them be. One
// line says how far that went.
void BackupRun::RemoveWrittenParts() {
    size_t removed = 0;
    int failuresInARow = 0;
    std::string firstFailure;
    for (const std::string& name : written_) {
        if (failuresInARow == kCleanUpFailuresToStop) break;
        try {
            session_.DeleteIfPresent(name);
            ++removed;
            failuresInARow = 0;
        } catch (const Error& failure) {
            if (firstFailure.empty()) firstFailure = failure.what();
            ++failuresInARow;
        }
    }
    std::string line = "backup " + backupId_ + " stopped: no manifest written, " + std::to_string(removed) + " of " +
                       std::to_string(written_.size()) + " parts removed";
    if (removed < written_.size()) {
        line += " (" + firstFailure + "); 'cloudplugin-host legacy prune' removes the rest once the storage answers";
    }
    if (context_.note) context_.note(line);
}

Manifest BackupRun::BuildManifest() const {
    Manifest manifest;
    manifest.backupId = backupId_;
    manifest.source = AbsolutePath(source_);
    manifest.created = UtcNow("%Y-%m-%dT%H:%M:%SZ");
    manifest.partSize = partSize_;
    for (const std::optional<ManifestFile>& file : stored_) {
        if (file) manifest.files.push_back(*file);
    }
    for (const SourceEntry& folder : tree_.folders) {
        manifest.folders.push_back({folder.relativePath, folder.modifiedNs, folder.mode});
    }
    for (const SourceEntry& link : tree_.links) {
        manifest.links.push_back({link.relativePath, link.linkTarget, link.modifiedNs});
    }
    return manifest;
}

BackupReport BackupRun::Report(const Manifest& manifest, double seconds) {
    BackupReport report;
    report.skipped = tree_.skipped;
    report.skipped.insert(report.skipped.end(), unreadable_.begin(), unreadable_.end());
    std::sort(report.skipped.begin(), report.skipped.end(),
              [](const SkippedEntry& a, const SkippedEntry& b) { return a.relativePath < b.relativePath; });
    report.backupId = backupId_;
    report.source = manifest.source;
    report.files = manifest.files.size();
    report.folders = manifest.folders.size();
    report.links = manifest.links.size();
    report.objects = manifest.ObjectCount();
    report.bytes = manifest.TotalBytes();
    report.seconds = seconds;
    return report;
}

}  // namespace

size_t BackupReport::Unreadable() const {
    return static_cast<size_t>(
        std::count_if(skipped.begin(), skipped.end(), [](const SkippedEntry& entry) { return entry.unreadable; }));
}

BackupReport Backup(const Context& context, const std::string& source, const BackupOptions& options) {
    const std::string backupId = options.backupId.empty() ? NewBackupId() : options.backupId;
    if (!IsValidBackupId(backupId)) throw Error(ErrorKind::Usage, "not a usable backup name: " + backupId);
    return BackupRun(context, source, backupId, options.partSize).Run();
}

}  // namespace qvhost::legacy
