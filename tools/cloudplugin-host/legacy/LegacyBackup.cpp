// backup SOURCE_DIR: every regular file (content, time, mode) in parts of
// --part-size, with its empty folders and symbolic links, then the manifest.
// Every part of every file is a piece of work of its own, read once and
// hashed once by whichever job takes it. A backup that stops writes no
// manifest and removes the parts it wrote.
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <mutex>

#include "util/AlignedBuffer.h"
#include "cli/Commands.h"
#include "util/Interrupt.h"
#include "local/LocalFiles.h"
#include "util/ParallelRunner.h"
#include "util/Sha256.h"
#include "util/ToolError.h"

namespace qvhost {

namespace {

// Consecutive failed deletes after which clean-up stops: the storage is
// then most likely out of reach, and `prune` removes the rest later.
constexpr int kCleanUpFailuresToStop = 3;

[[noreturn]] void ChangedWhileReading(const std::string& path) {
    throw ToolError(kExitLocalFile, path + " changed while it was being read");
}

class BackupRun {
public:
    BackupRun(CommandContext& context, const std::string& source, std::string backupId)
        : context_(context), session_(context.session), source_(source), backupId_(std::move(backupId)),
          tree_(ScanTree(source)), files_(tree_.files.size()), stored_(tree_.files.size()) {}

    CommandResult Run();

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
    CommandResult Report(const Manifest& manifest, double seconds, double pluginSeconds);

    CommandContext& context_;
    PluginSession& session_;
    const std::string source_;
    const std::string backupId_;
    SourceTree tree_;
    std::vector<FileState> files_;                     // per file of tree_.files
    std::vector<std::optional<ManifestFile>> stored_;  // per file of tree_.files; empty when not stored
    std::mutex mutex_;
    std::vector<std::string> written_;      // every part name a write was started for
    std::vector<SkippedEntry> unreadable_;  // files that failed while being read
};

CommandResult BackupRun::Run() {
    if (session_.Exists(context_.options.layout.ManifestName(backupId_))) {
        throw ToolError(kExitUsage, "a backup named " + backupId_ + " exists already");
    }
    uint64_t totalBytes = 0;
    for (const SourceEntry& file : tree_.files) totalBytes += file.size;
    context_.Say("backup " + backupId_ + ": " + std::to_string(tree_.files.size()) + " files, " +
                 FormatBytes(static_cast<double>(totalBytes)) + " from " + AbsolutePath(source_));
    const double pluginBefore = session_.PluginSeconds();
    Progress progress("backup", totalBytes, tree_.files.size(), context_.Style());
    try {
        StoreFiles(progress);
    } catch (const ToolError&) {
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
    session_.Write(context_.options.layout.ManifestName(backupId_), reinterpret_cast<const uint8_t*>(text.data()),
                   text.size(), metadata);
    return Report(manifest, progress.Seconds(), session_.PluginSeconds() - pluginBefore);
}

void BackupRun::StoreFiles(Progress& progress) {
    const uint64_t partSize = context_.options.partSize;
    std::vector<uint64_t> partCounts;
    for (size_t file = 0; file < tree_.files.size(); ++file) {
        partCounts.push_back(PartCount(tree_.files[file].size, partSize));
        files_[file].partSha256.resize(partCounts.back());
    }
    PartPlan plan(partCounts);
    std::vector<AlignedBuffer> buffers(context_.options.jobs);
    RunInParallel(context_.options.jobs, plan.size(), [&](size_t index, unsigned worker) {
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
    const uint64_t partSize = context_.options.partSize;
    const size_t size = static_cast<size_t>(PartBytes(source.size, partSize, part));
    try {
        const std::string path = JoinPath(source_, source.relativePath);
        InputFile input(path);
        if (input.ReadAt(part * partSize, buffer.data(), size) != size) ChangedWhileReading(path);
    } catch (const ToolError& failure) {
        if (failure.exitStatus() != kExitLocalFile) throw;
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
    const std::string name = context_.options.layout.PartName(backupId_, static_cast<uint32_t>(file), part);
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
    } catch (const ToolError& failure) {
        if (failure.exitStatus() != kExitLocalFile) throw;
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
        } catch (const ToolError& failure) {
            if (firstFailure.empty()) firstFailure = failure.what();
            ++failuresInARow;
        }
    }
    std::string line = "backup " + backupId_ + " stopped: no manifest written, " + std::to_string(removed) + " of " +
                       std::to_string(written_.size()) + " parts removed";
    if (removed < written_.size()) {
        line += " (" + firstFailure + "); 'cloudplugin-host prune' removes the rest once the storage answers";
    }
    context_.Warn(line);
}

Manifest BackupRun::BuildManifest() const {
    Manifest manifest;
    manifest.backupId = backupId_;
    manifest.source = AbsolutePath(source_);
    manifest.created = UtcNow("%Y-%m-%dT%H:%M:%SZ");
    manifest.partSize = context_.options.partSize;
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

CommandResult BackupRun::Report(const Manifest& manifest, double seconds, double pluginSeconds) {
    std::vector<SkippedEntry> skipped = tree_.skipped;
    skipped.insert(skipped.end(), unreadable_.begin(), unreadable_.end());
    std::sort(skipped.begin(), skipped.end(),
              [](const SkippedEntry& a, const SkippedEntry& b) { return a.relativePath < b.relativePath; });
    size_t unreadable = 0;
    for (const SkippedEntry& entry : skipped) {
        unreadable += entry.unreadable ? 1 : 0;
        context_.Warn(std::string(entry.unreadable ? "NOT BACKED UP " : "skipped ") + Printable(entry.relativePath) +
                      ": " + Printable(entry.reason));
    }
    const uint64_t bytes = manifest.TotalBytes();
    context_.Say("backup " + backupId_ + " complete: " + std::to_string(manifest.files.size()) + " files, " +
                 std::to_string(manifest.folders.size()) + " empty folders, " + std::to_string(manifest.links.size()) +
                 " links, " + FormatBytes(static_cast<double>(bytes)) + " in " + FormatDuration(seconds) + " (" +
                 FormatBytes(MiBPerSecond(bytes, seconds) * 1048576) + "/s); " + std::to_string(skipped.size()) +
                 " skipped, " + std::to_string(unreadable) + " of them unreadable");
    context_.SayPluginShare(pluginSeconds, seconds);
    CommandResult result;
    result.status = unreadable && !context_.options.skipUnreadable ? kExitLocalFile : kExitOk;
    result.json = Json{{"command", "backup"},
                       {"ok", result.status == kExitOk},
                       {"backup", backupId_},
                       {"files", manifest.files.size()},
                       {"bytes", bytes},
                       {"objects", manifest.ObjectCount()},
                       {"seconds", seconds},
                       {"mib_per_s", MiBPerSecond(bytes, seconds)},
                       {"plugin_seconds", pluginSeconds},
                       {"folders", manifest.folders.size()},
                       {"links", manifest.links.size()},
                       {"skipped", SkippedJson(skipped)},
                       {"unreadable", unreadable}};
    return result;
}

}  // namespace

CommandResult LegacyBackupCommand(CommandContext& context, const Arguments& arguments) {
    const std::string backupId = context.options.backupName.empty() ? NewBackupId() : context.options.backupName;
    if (!IsValidBackupId(backupId)) throw ToolError(kExitUsage, "not a usable backup name: " + backupId);
    return BackupRun(context, arguments[0], backupId).Run();
}

}  // namespace qvhost
