// A restore or verify of the version 2 layout: every part read back and
// checked against the manifest's hash of it, which covers every byte. Every
// part is a piece of work of its own, so the parts of one large file are
// read by all the jobs at once and written at their offsets. The manifest
// comes from storage, so it is checked whole (Manifest.h) before anything
// is written; the restore sink does the rest (repository/RestoreSink.h).
#include <algorithm>

#include "host/PluginSession.h"
#include "legacy/Legacy.h"
#include "legacy/Manifest.h"
#include "legacy/PartPlan.h"
#include "local/Destination.h"
#include "util/AlignedBuffer.h"
#include "util/Error.h"
#include "util/ParallelRunner.h"
#include "util/Sha256.h"

namespace qvhost::legacy {

namespace {

// The largest manifest read: a million files take about 200 MiB.
constexpr uint64_t kManifestLimit = 1ull << 30;

}  // namespace

Manifest ReadManifest(const Context& context, const std::string& backupId) {
    if (!IsValidBackupId(backupId)) throw Error(ErrorKind::Usage, "not a backup name: " + backupId);
    // One request gives the manifest and the hash it is checked by.
    const std::string name = context.layout.ManifestName(backupId);
    Metadata metadata;
    std::string text;
    try {
        text = context.session.ReadAll(name, kManifestLimit, {manifest_property::kSha}, &metadata);
    } catch (const PluginError& failure) {
        if (failure.code() != kResultObjectNotFound) throw;
        throw Error(ErrorKind::NotFound, "no complete backup named " + backupId);
    }
    const auto expected = metadata.find(manifest_property::kSha);
    if (expected == metadata.end() || ToHex(Sha256Of(text.data(), text.size())) != expected->second) {
        throw Error(ErrorKind::Damaged, "the manifest of " + backupId + " does not match its hash");
    }
    Manifest manifest = DecodeManifest(text);
    if (manifest.backupId != backupId) throw Error(ErrorKind::Damaged, "the manifest names another backup");
    return manifest;
}

std::string ReadPart(const Context& context, const Manifest& manifest, const ManifestFile& entry, uint64_t part,
                     AlignedBuffer& buffer, std::string& object,
                     const std::function<void(uint64_t offset, const uint8_t* data, size_t size)>& slice) {
    object = context.layout.PartName(manifest.backupId, entry.index, part);
    const uint64_t expected = PartBytes(entry.size, manifest.partSize, part);
    const uint64_t start = part * manifest.partSize;
    buffer.Reserve(static_cast<size_t>(std::min(manifest.partSize, kReadSlice) + 1));
    Sha256 hash;
    Metadata metadata;
    uint64_t done = 0;
    do {
        const uint64_t size = std::min(kReadSlice, expected - done);
        // The last read asks for one byte more, which shows an object that grew.
        const uint64_t asked = done + size == expected ? size + 1 : size;
        const uint64_t read =
            done == 0 ? context.session.Read(object, buffer.data(), 0, asked, {part_property::kPartSha}, metadata)
                      : context.session.Read(object, buffer.data(), done, asked);
        if (read != size) {
            return "holds " + std::to_string(done + std::min(read, asked)) + " bytes, expected " +
                   std::to_string(expected);
        }
        hash.Update(buffer.data(), static_cast<size_t>(read));
        slice(start + done, buffer.data(), static_cast<size_t>(read));
        done += read;
    } while (done < expected);
    if (ToHex(hash.Final()) != entry.partSha256[part]) return "does not match its SHA-256";
    const auto stored = metadata.find(part_property::kPartSha);
    if (stored != metadata.end() && stored->second != entry.partSha256[part]) {
        return "carries a part hash that differs from the manifest";
    }
    return {};
}

namespace {

// What the manifest holds as a restore makes it: no owners (the layout keeps
// none), and for files of the oldest manifests, which kept no mode, 0644.
repo::RestorePlan PlanOf(const Manifest& manifest) {
    repo::RestorePlan plan;
    for (const ManifestFile& file : manifest.files) plan.AddFile(file.relativePath, NodeOf(file));
    for (const ManifestFolder& folder : manifest.folders) plan.folders.push_back({folder.relativePath, NodeOf(folder)});
    for (const ManifestLink& link : manifest.links) plan.links.push_back({link.relativePath, NodeOf(link)});
    return plan;
}

class CheckRun {
public:
    CheckRun(const Context& context, Manifest manifest, repo::RestoreTarget* target)
        : context_(context), manifest_(std::move(manifest)),
          sink_(target, PlanOf(manifest_)) {}

    RestoreReport Run(bool writing);

private:
    void CheckPart(size_t file, uint64_t part, AlignedBuffer& buffer, Progress& progress);
    bool CopyPart(size_t file, uint64_t part, AlignedBuffer& buffer, repo::RestoreProblem& problem);

    const Context& context_;
    const Manifest manifest_;
    repo::RestoreSink sink_;
};

RestoreReport CheckRun::Run(bool writing) {
    sink_.CheckPaths();
    Progress progress(context_.progress, writing ? "restore" : "verify", manifest_.TotalBytes(),
                      manifest_.files.size());
    std::vector<uint64_t> partCounts;
    for (size_t file = 0; file < manifest_.files.size(); ++file) {
        partCounts.push_back(manifest_.files[file].partSha256.size());
        sink_.Expect(file, partCounts.back());
    }
    PartPlan plan(partCounts);
    std::vector<AlignedBuffer> buffers(context_.jobs);
    RunInParallel(context_.jobs, plan.size(), [&](size_t index, unsigned worker) {
        const PartPlan::Item& item = plan[index];
        AlignedBuffer& buffer = buffers[worker];
        buffer.Reserve(static_cast<size_t>(std::min(manifest_.partSize, kReadSlice) + 1));
        if (item.hasPart) CheckPart(item.file, item.part, buffer, progress);
    });
    sink_.FinishIdle(progress);
    progress.Finish();
    sink_.MakeTheRest();
    RestoreReport report;
    report.backupId = manifest_.backupId;
    report.files = manifest_.files.size();
    report.bytes = manifest_.TotalBytes();
    report.folders = manifest_.folders.size();
    report.links = manifest_.links.size();
    report.seconds = progress.Seconds();
    report.damaged = sink_.Damaged();
    report.setIdDropped = sink_.SetIdDropped();
    report.notes = sink_.Notes();
    return report;
}

void CheckRun::CheckPart(size_t file, uint64_t part, AlignedBuffer& buffer, Progress& progress) {
    if (!sink_.Failed(file)) {
        const ManifestFile& entry = manifest_.files[file];
        repo::RestoreProblem problem;
        if (CopyPart(file, part, buffer, problem)) {
            const size_t size = static_cast<size_t>(PartBytes(entry.size, manifest_.partSize, part));
            progress.PartDone(entry.relativePath, part, entry.partSha256.size(), size);
        } else {
            sink_.Fail(file, problem.object, problem.what);
        }
    }
    sink_.PieceDone(file, progress);
}

// A restore writes each slice at its place in the file's output; a file
// with a part that fails is never committed, so what was written of it goes.
bool CheckRun::CopyPart(size_t file, uint64_t part, AlignedBuffer& buffer, repo::RestoreProblem& problem) {
    const ManifestFile& entry = manifest_.files[file];
    problem.file = entry.relativePath;
    problem.what = ReadPart(context_, manifest_, entry, part, buffer, problem.object,
                            [&](uint64_t offset, const uint8_t* data, size_t size) {
                                sink_.Write(file, offset, data, size);
                            });
    return problem.what.empty();
}

}  // namespace

RestoreReport Restore(const Context& context, const std::string& backupId, const std::string& destination,
                      bool overwrite) {
    Manifest manifest = ReadManifest(context, backupId);
    Destination target(destination, DestinationOptions{overwrite, false});
    return CheckRun(context, std::move(manifest), &target).Run(true);
}

RestoreReport Verify(const Context& context, const std::string& backupId) {
    return CheckRun(context, ReadManifest(context, backupId), nullptr).Run(false);
}

}  // namespace qvhost::legacy
