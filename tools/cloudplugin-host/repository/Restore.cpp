#include "repository/Restore.h"

#include "repository/RestoreChoices.h"

#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>

#include "util/ParallelRunner.h"
#include "util/Error.h"

namespace qvhost::repo {

namespace {


// Blobs of one pack read in one request: neighbours, or near enough that
// reading the gap costs less than another request.
constexpr uint64_t kGapReadThrough = 256u << 10;

// One chunk of one file: where it is stored and where it goes. Sorted by
// pack (in the order the files first need them) and offset, so that the
// uses of one blob lie side by side.
struct PlannedUse {
    PackEntry entry;
    uint32_t pack = 0;  // in packs_
    size_t file = 0;
    uint64_t offset = 0;  // in the file
};

// One request: a span of one pack, and the uses of the blobs in it.
struct Range {
    uint32_t pack = 0;
    uint64_t start = 0;
    uint64_t length = 0;
    size_t first = 0;  // uses_[first, end)
    size_t end = 0;
};

class RestoreRun {
public:
    RestoreRun(Repository& repository, const MasterIndex& index, RestorePlan plan, RestoreTarget* target,
               const RestoreOptions& options)
        : repository_(repository), index_(index), options_(options), sink_(target, std::move(plan)) {}

    RestoreReport Run(bool writing);
    // Reads back every file restored (not damaged): those unlike their chunks.
    std::vector<RestoreProblem> ReadBack(const RestoreTarget& target, const std::vector<RestoreProblem>& damaged);

private:
    void Plan();
    void RestoreRange(const Range& range, Bytes& buffer, Bytes& plain, Progress& progress);

    Repository& repository_;
    const MasterIndex& index_;
    const RestoreOptions options_;
    RestoreSink sink_;
    std::vector<Id> packs_;
    std::vector<PlannedUse> uses_;
    std::vector<Range> ranges_;
};

RestoreReport RestoreRun::Run(bool writing) {
    sink_.CheckPaths();
    Plan();
    if (!options_.verify) sink_.ForgetContent();
    Progress progress(options_.progress, writing ? "restore" : "read", sink_.TotalBytes(), sink_.files().size());
    const unsigned jobs = std::max(1u, options_.jobs);
    // Each job's buffer made once for the longest span: grown as spans
    // come, it would reach twice that.
    uint64_t longest = 0;
    for (const Range& range : ranges_) longest = std::max(longest, range.length);
    std::vector<Bytes> buffers(jobs);
    for (Bytes& buffer : buffers) buffer.reserve(static_cast<size_t>(longest));
    std::vector<Bytes> plains(jobs);
    RunInParallel(jobs, ranges_.size(), [&](size_t item, unsigned worker) {
        RestoreRange(ranges_[item], buffers[worker], plains[worker], progress);
    });
    sink_.FinishIdle(progress);
    progress.Finish();
    sink_.MakeTheRest();
    RestoreReport report;
    report.files = sink_.files().size();
    report.bytes = sink_.TotalBytes();
    report.folders = sink_.FolderCount();
    report.links = sink_.LinkCount();
    report.seconds = progress.Seconds();
    report.damaged = sink_.Damaged();
    report.setIdDropped = sink_.SetIdDropped();
    report.notes = sink_.Notes();
    return report;
}

// Which blob goes where, grouped by pack, so that each pack is read once
// (in spans of up to kRestoreRangeBytes) whatever files share it; packs in
// the order the files first need them, so that a file is open briefly. A
// file whose chunks are not all indexed, or whose chunk sizes do not add
// up to its size, is damaged before anything is read.
void RestoreRun::Plan() {
    size_t chunks = 0;
    for (const RestoreFile& file : sink_.files()) chunks += file.content.size();
    uses_.reserve(chunks);
    std::unordered_map<Id, uint32_t, IdHash> packNumbers;
    std::vector<BlobLocation> locations;
    for (size_t file = 0; file < sink_.files().size(); ++file) {
        const RestoreFile& entry = sink_.files()[file];
        locations.clear();
        uint64_t total = 0;
        for (const Id& chunk : entry.content) {
            const std::optional<BlobLocation> location = index_.Find(chunk);
            if (!location) {
                sink_.Fail(file, "", "its chunk " + IdHex(chunk).substr(0, 16) + " is in no index");
                break;
            }
            locations.push_back(*location);
            total += location->entry.plainLength;
        }
        if (sink_.Failed(file)) continue;
        if (total != entry.size) {
            sink_.Fail(file, "", "its chunks hold " + std::to_string(total) + " bytes, not " + std::to_string(entry.size));
            continue;
        }
        uint64_t offset = 0;
        for (const BlobLocation& location : locations) {
            const auto number = packNumbers.try_emplace(location.pack, static_cast<uint32_t>(packs_.size())).first;
            if (number->second == packs_.size()) packs_.push_back(location.pack);
            uses_.push_back({location.entry, number->second, file, offset});
            offset += location.entry.plainLength;
        }
        sink_.Expect(file, locations.size());
    }
    std::stable_sort(uses_.begin(), uses_.end(), [](const PlannedUse& a, const PlannedUse& b) {
        return a.pack != b.pack ? a.pack < b.pack : a.entry.offset < b.entry.offset;
    });
    for (size_t i = 0; i < uses_.size(); ++i) {
        const PlannedUse& use = uses_[i];
        const uint64_t end = uint64_t{use.entry.offset} + use.entry.length;
        if (!ranges_.empty()) {
            Range& last = ranges_.back();
            if (last.pack == use.pack && use.entry.offset <= last.start + last.length + kGapReadThrough &&
                end - last.start <= kRestoreRangeBytes) {
                last.length = std::max(last.length, end - last.start);
                last.end = i + 1;
                continue;
            }
        }
        ranges_.push_back({use.pack, use.entry.offset, use.entry.length, i, i + 1});
    }
}

std::vector<RestoreProblem> RestoreRun::ReadBack(const RestoreTarget& target,
                                                const std::vector<RestoreProblem>& damaged) {
    std::set<std::string> skip;
    for (const RestoreProblem& problem : damaged) skip.insert(problem.file);
    std::vector<RestoreProblem> mismatched;
    for (const RestoreFile& file : sink_.files()) {
        if (skip.count(file.relativePath)) continue;
        const std::unique_ptr<ExistingFile> opened = target.OpenExisting(file.relativePath);
        std::string why = opened ? CompareWithChunks(*opened, file.content, index_, repository_.keys().mac)
                                 : "it cannot be read back";
        if (!why.empty()) mismatched.push_back({file.relativePath, "", why});
    }
    return mismatched;
}

void RestoreRun::RestoreRange(const Range& range, Bytes& buffer, Bytes& plain, Progress& progress) {
    const std::string pack = repository_.layout().Pack(packs_[range.pack]);
    std::string problem;
    try {
        repository_.store().ReadRange(pack, range.start, range.length, buffer);
        if (buffer.size() != range.length) problem = "its pack ends early";
    } catch (const ObjectMissing&) {
        problem = "its pack is missing";
    }
    std::string why;
    for (size_t i = range.first; i < range.end; ++i) {
        const PlannedUse& use = uses_[i];
        if (i == range.first || use.entry.offset != uses_[i - 1].entry.offset) {  // the next blob
            why = problem;
            if (why.empty() && !OpenBlob(repository_.keys(), use.entry, buffer.data() + (use.entry.offset - range.start),
                                         use.entry.length, plain, why)) {
                why = "a chunk " + why;
            }
        }
        if (!why.empty()) {
            sink_.Fail(use.file, pack, why);
        } else if (!sink_.Failed(use.file)) {
            sink_.Write(use.file, use.offset, plain.data(), plain.size());
            progress.BytesDone(plain.size());
        }
        sink_.PieceDone(use.file, progress);
    }
}

// Adds an entry to the plan by its kind; a second name of a file the plan
// has already becomes a hard link to it.
void Place(RestorePlan& plan, std::map<std::pair<uint64_t, uint64_t>, size_t>& names, const std::string& path,
           const Node& node) {
    switch (node.type) {
    case NodeType::File: {
        if (node.links > 1 && node.inode != 0) {
            const auto key = std::make_pair(node.device, node.inode);
            const auto found = names.find(key);
            if (found == names.end()) {
                names[key] = plan.files.size();
            } else if (const RestoreFile& earlier = plan.files[found->second];
                       earlier.content == node.content && earlier.size == node.size) {
                return plan.hardLinks.push_back({path, earlier.relativePath});
            }
        }
        return plan.AddFile(path, node);
    }
    case NodeType::Folder: return plan.folders.push_back({path, node});
    case NodeType::Link: return plan.links.push_back({path, node});
    default: return plan.specials.push_back({path, node});
    }
}

bool Selected(const RestoreSelection& selection, const std::string& snapshotPath) {
    if (selection.excludes.Match(snapshotPath)) return false;
    return selection.includes.empty() || selection.includes.Match(snapshotPath);
}

// "a/b/c" adds "a" and "a/b"; "a/b/" adds "a" and "a/b".
void AddFoldersAbove(std::set<std::string>& folders, const std::string& path) {
    for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        folders.insert(path.substr(0, slash));
    }
}

}  // namespace

RestorePlan PlanRestore(TreeReader& reader, const Snapshot& snapshot, const std::string& subPath,
                        const RestoreSelection& selection, PathRules rules) {
    std::string sub = subPath;
    while (!sub.empty() && sub.back() == '/') sub.pop_back();
    while (!sub.empty() && sub.front() == '/') sub.erase(0, 1);
    RestorePlan plan;
    std::map<std::pair<uint64_t, uint64_t>, size_t> names;
    std::vector<Id> root = snapshot.tree;
    plan.root = snapshot.root;
    if (!sub.empty()) {
        const std::optional<Node> node = FindNode(reader, snapshot.tree, sub);
        if (!node) throw Error(ErrorKind::NotFound, "the snapshot holds nothing at " + subPath);
        if (!node->IsFolder()) {
            if (Selected(selection, "/" + sub)) Place(plan, names, node->name, *node);
            return plan;
        }
        root = node->subtree;
        plan.root = *node;
        plan.root->subtree.clear();
    }
    const std::string base = sub.empty() ? "/" : "/" + sub + "/";
    std::vector<RestoreEntry> folders;
    std::set<std::string> wanted;  // the folders on the way to what is taken
    WalkTree(reader, root, [&](const std::string& path, const Node& node) {
        if (selection.excludes.Match(base + path)) return false;
        const bool included = selection.includes.empty() || selection.includes.Match(base + path);
        // Trees are read by the POSIX rules; this system's own may refuse more.
        if (const std::string why = rules == PathRules::Posix ? "" : WhyPathIsRefused(node.name, rules);
            !why.empty()) {
            if (included || node.IsFolder()) {
                plan.refused.push_back({path, "", "this system refuses its name (it " + why + ")"});
            }
            return false;
        }
        if (node.IsFolder()) {
            folders.push_back({path, node});
            if (included) AddFoldersAbove(wanted, path + "/");
            return true;
        }
        if (included) {
            Place(plan, names, path, node);
            AddFoldersAbove(wanted, path);
        }
        return true;
    });
    for (RestoreEntry& folder : folders) {
        if (wanted.count(folder.relativePath)) plan.folders.push_back(std::move(folder));
    }
    return plan;
}

RestoreReport RunRestore(Repository& repository, const MasterIndex& index, const Snapshot& snapshot,
                         RestoreTarget* target, const RestoreOptions& options) {
    TreeReader reader(repository, index);
    RestorePlan plan = PlanRestore(reader, snapshot, options.subPath, options.selection);
    std::vector<RestoreProblem> refused = plan.refused;
    const std::set<std::string> held = options.deleteOthers ? PlannedPaths(plan) : std::set<std::string>{};
    const size_t skipped = target ? LeaveExisting(plan, *target, options, index, repository.keys().mac) : 0;
    RestoreRun run(repository, index, std::move(plan), target, options);
    RestoreReport report = run.Run(target != nullptr);
    report.skipped = skipped;
    report.refused = std::move(refused);
    if (target && options.verify) report.mismatched = run.ReadBack(*target, report.damaged);
    if (target && options.deleteOthers) report.removed = target->RemoveAllBut(held);
    return report;
}

}  // namespace qvhost::repo
