// restore BACKUP DEST_DIR and verify BACKUP: every part read back and
// checked against the manifest's hash of it, which covers every byte. Every
// part is a piece of work of its own, so the parts of one large file are
// read by all the jobs at once and written at their offsets. The manifest
// comes from storage, so it is checked whole (Manifest.h) before anything
// is written, and the destination never lets a write leave DEST_DIR
// (Destination.h).
#include <algorithm>
#include <atomic>
#include <mutex>

#include "util/AlignedBuffer.h"
#include "cli/Commands.h"
#include "local/Destination.h"
#include "util/Interrupt.h"
#include "util/ParallelRunner.h"
#include "util/Sha256.h"
#include "util/ToolError.h"

namespace qvhost {

namespace {

// The largest manifest read: a million files take about 200 MiB.
constexpr uint64_t kManifestLimit = 1ull << 30;
constexpr uint32_t kSetIdBits = 06000;

struct Problem {
    std::string file;
    std::string object;
    std::string what;
};

Manifest ReadManifest(CommandContext& context, const std::string& backupId) {
    if (!IsValidBackupId(backupId)) throw ToolError(kExitUsage, "not a backup name: " + backupId);
    // One request gives the manifest and the hash it is checked by.
    const std::string name = context.options.layout.ManifestName(backupId);
    Metadata metadata;
    std::string text;
    try {
        text = context.session.ReadAll(name, kManifestLimit, {manifest_property::kSha}, &metadata);
    } catch (const PluginError& failure) {
        if (failure.code() != kResultObjectNotFound) throw;
        throw ToolError(kExitNoSuchBackup, "no complete backup named " + backupId);
    }
    const auto expected = metadata.find(manifest_property::kSha);
    if (expected == metadata.end() || ToHex(Sha256Of(text.data(), text.size())) != expected->second) {
        throw ToolError(kExitDamaged, "the manifest of " + backupId + " does not match its hash");
    }
    Manifest manifest = DecodeManifest(text);
    if (manifest.backupId != backupId) throw ToolError(kExitDamaged, "the manifest names another backup");
    return manifest;
}

class CheckRun {
public:
    CheckRun(CommandContext& context, std::string command, const std::string& backupId)
        : context_(context), command_(std::move(command)), manifest_(ReadManifest(context, backupId)),
          files_(manifest_.files.size()) {}

    // With a destination, a restore; without, a verify.
    CommandResult Run(Destination* destination);

private:
    // Where the parts of one file stand while jobs work on them.
    struct FileState {
        std::mutex mutex;
        std::unique_ptr<RestoredFile> output;  // made by the first part that needs it
        std::atomic<bool> failed{false};
        Problem problem;
    };

    void CheckDestination(const Destination& destination) const;
    void CheckFiles(Destination* destination, Progress& progress);
    void CheckPart(Destination* destination, size_t file, uint64_t part, AlignedBuffer& buffer,
                   Progress& progress);
    bool CopyPart(Destination* destination, size_t file, uint64_t part, AlignedBuffer& buffer, Problem& problem);
    RestoredFile& OutputOf(Destination& destination, size_t file);
    void FinishFile(Destination* destination, size_t file, Progress& progress);
    void MakeFoldersAndLinks(Destination& destination);
    CommandResult Report(double seconds, double pluginSeconds);

    CommandContext& context_;
    const std::string command_;
    const Manifest manifest_;
    std::vector<FileState> files_;  // per file of manifest_.files
    std::mutex mutex_;
    std::vector<Problem> problems_;
    std::vector<std::string> setIdDropped_;
};

CommandResult CheckRun::Run(Destination* destination) {
    if (destination) CheckDestination(*destination);
    context_.Say(command_ + " " + manifest_.backupId + ": " + std::to_string(manifest_.files.size()) + " files, " +
                 FormatBytes(static_cast<double>(manifest_.TotalBytes())));
    const double pluginBefore = context_.session.PluginSeconds();
    Progress progress(command_, manifest_.TotalBytes(), manifest_.files.size(), context_.Style());
    try {
        CheckFiles(destination, progress);
    } catch (const ToolError&) {
        progress.Finish();
        throw;
    }
    progress.Finish();
    // Links last: no file of this restore is ever written beneath one.
    if (destination) MakeFoldersAndLinks(*destination);
    return Report(progress.Seconds(), context_.session.PluginSeconds() - pluginBefore);
}

// Everything that would be refused is refused before the first write.
void CheckRun::CheckDestination(const Destination& destination) const {
    for (const ManifestFile& file : manifest_.files) destination.Check(file.relativePath, EntryKind::File);
    for (const ManifestFolder& folder : manifest_.folders) destination.Check(folder.relativePath, EntryKind::Folder);
    for (const ManifestLink& link : manifest_.links) destination.Check(link.relativePath, EntryKind::Link);
}

void CheckRun::CheckFiles(Destination* destination, Progress& progress) {
    std::vector<uint64_t> partCounts;
    for (const ManifestFile& file : manifest_.files) partCounts.push_back(file.partSha256.size());
    PartPlan plan(partCounts);
    std::vector<AlignedBuffer> buffers(context_.options.jobs);
    RunInParallel(context_.options.jobs, plan.size(), [&](size_t index, unsigned worker) {
        const PartPlan::Item& item = plan[index];
        AlignedBuffer& buffer = buffers[worker];
        buffer.Reserve(static_cast<size_t>(std::min(manifest_.partSize, kReadSlice) + 1));
        if (item.hasPart) CheckPart(destination, item.file, item.part, buffer, progress);
        if (plan.Done(item.file)) FinishFile(destination, item.file, progress);
    });
}

void CheckRun::CheckPart(Destination* destination, size_t file, uint64_t part, AlignedBuffer& buffer,
                         Progress& progress) {
    FileState& state = files_[file];
    if (state.failed) return;
    const ManifestFile& entry = manifest_.files[file];
    Problem problem;
    if (!CopyPart(destination, file, part, buffer, problem)) {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.failed.exchange(true)) state.problem = problem;
        return;
    }
    const size_t size = static_cast<size_t>(PartBytes(entry.size, manifest_.partSize, part));
    progress.PartDone(entry.relativePath, part, entry.partSha256.size(), size);
}

// Reads one part in reads of at most kReadSlice bytes, each hashed and, in a
// restore, written at its place in the file's output, then checks the part
// against the manifest; answers false with the problem found. A file with a
// part that fails is never committed, so what was written of it goes with
// its output.
bool CheckRun::CopyPart(Destination* destination, size_t file, uint64_t part, AlignedBuffer& buffer,
                        Problem& problem) {
    const ManifestFile& entry = manifest_.files[file];
    problem.file = entry.relativePath;
    problem.object = context_.options.layout.PartName(manifest_.backupId, entry.index, part);
    const uint64_t expected = PartBytes(entry.size, manifest_.partSize, part);
    const uint64_t start = part * manifest_.partSize;
    Sha256 hash;
    Metadata metadata;
    uint64_t done = 0;
    do {
        const uint64_t slice = std::min(kReadSlice, expected - done);
        // The last read asks for one byte more, which shows an object that grew.
        const uint64_t asked = done + slice == expected ? slice + 1 : slice;
        const uint64_t read =
            done == 0 ? context_.session.Read(problem.object, buffer.data(), 0, asked, {part_property::kPartSha}, metadata)
                      : context_.session.Read(problem.object, buffer.data(), done, asked);
        if (read != slice) {
            problem.what = "holds " + std::to_string(done + std::min(read, asked)) + " bytes, expected " +
                           std::to_string(expected);
            return false;
        }
        hash.Update(buffer.data(), static_cast<size_t>(read));
        if (destination) OutputOf(*destination, file).WriteAt(start + done, buffer.data(), static_cast<size_t>(read));
        done += read;
    } while (done < expected);
    if (ToHex(hash.Final()) != entry.partSha256[part]) {
        problem.what = "does not match its SHA-256";
        return false;
    }
    const auto stored = metadata.find(part_property::kPartSha);
    if (stored != metadata.end() && stored->second != entry.partSha256[part]) {
        problem.what = "carries a part hash that differs from the manifest";
        return false;
    }
    return true;
}

// The file's output, made by the first of its parts to get here. Parts write
// at their own offsets, so any order works.
RestoredFile& CheckRun::OutputOf(Destination& destination, size_t file) {
    FileState& state = files_[file];
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.output) state.output = destination.MakeFile(manifest_.files[file].relativePath);
    return *state.output;
}

// After the file's last part: a file that passed every check is moved into
// place (mode and time set); a damaged one is never left as restored.
void CheckRun::FinishFile(Destination* destination, size_t file, Progress& progress) {
    FileState& state = files_[file];
    const ManifestFile& entry = manifest_.files[file];
    if (state.failed) {
        state.output.reset();
        progress.FileFailed();
        std::lock_guard<std::mutex> lock(mutex_);
        problems_.push_back(state.problem);
        return;
    }
    if (destination) {
        OutputOf(*destination, file).Commit(entry.mode, entry.modifiedNs);
        state.output.reset();
        if (entry.mode && (*entry.mode & kSetIdBits)) {
            std::lock_guard<std::mutex> lock(mutex_);
            setIdDropped_.push_back(entry.relativePath);
        }
    }
    progress.FileDone(entry.relativePath, entry.size);
}

void CheckRun::MakeFoldersAndLinks(Destination& destination) {
    for (const ManifestFolder& folder : manifest_.folders) {
        destination.MakeFolder(folder.relativePath, folder.mode, folder.modifiedNs);
    }
    for (const ManifestLink& link : manifest_.links) destination.MakeLink(link.relativePath, link.target, link.modifiedNs);
}

CommandResult CheckRun::Report(double seconds, double pluginSeconds) {
    std::sort(problems_.begin(), problems_.end(), [](const Problem& a, const Problem& b) { return a.file < b.file; });
    Json damaged = Json::array();
    for (const Problem& problem : problems_) {
        const std::string where = problem.object.empty() ? "" : " (object " + problem.object + ")";
        context_.Warn("DAMAGED " + Printable(problem.file) + where + ": " + problem.what);
        damaged.push_back(Json{{"file", problem.file}, {"object", problem.object}, {"problem", problem.what}});
    }
    std::sort(setIdDropped_.begin(), setIdDropped_.end());
    for (const std::string& path : setIdDropped_) {
        context_.Warn("restored " + Printable(path) + " without its set-user-ID and set-group-ID bits");
    }
    const uint64_t bytes = manifest_.TotalBytes();
    const size_t goodFiles = manifest_.files.size() - problems_.size();
    context_.Say(std::string(command_ == "restore" ? "restored " : "verified ") + std::to_string(goodFiles) + " of " +
                 std::to_string(manifest_.files.size()) + " files, " + FormatBytes(static_cast<double>(bytes)) +
                 " in " + FormatDuration(seconds) + " (" + FormatBytes(MiBPerSecond(bytes, seconds) * 1048576) +
                 "/s)" + (problems_.empty() ? "" : "; " + std::to_string(problems_.size()) + " damaged"));
    context_.SayPluginShare(pluginSeconds, seconds);
    CommandResult result;
    result.status = problems_.empty() ? kExitOk : kExitDamaged;
    result.json = Json{{"command", command_},
                       {"ok", problems_.empty()},
                       {"backup", manifest_.backupId},
                       {"files", manifest_.files.size()},
                       {"bytes", bytes},
                       {"seconds", seconds},
                       {"mib_per_s", MiBPerSecond(bytes, seconds)},
                       {"plugin_seconds", pluginSeconds},
                       {"damaged", std::move(damaged)},
                       {"folders", manifest_.folders.size()},
                       {"links", manifest_.links.size()},
                       {"set_id_bits_dropped", setIdDropped_}};
    return result;
}

}  // namespace

CommandResult LegacyRestoreCommand(CommandContext& context, const Arguments& arguments) {
    CheckRun run(context, "restore", arguments[0]);
    Destination destination(arguments[1], context.options.overwrite);
    return run.Run(&destination);
}

CommandResult VerifyCommand(CommandContext& context, const Arguments& arguments) {
    return CheckRun(context, "verify", arguments[0]).Run(nullptr);
}

}  // namespace qvhost
