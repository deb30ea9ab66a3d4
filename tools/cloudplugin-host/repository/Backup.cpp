#include "repository/Backup.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "repository/PackVerify.h"
#include "repository/TreeReader.h"
#include "util/Error.h"
#include "util/Interrupt.h"
#include "util/ParallelRunner.h"
#include "util/Text.h"

namespace qvhost::repo {

namespace {

// Bytes read from a file at a time, beyond the chunker's maximum.
constexpr size_t kReadBlock = 4u << 20;

// A folder of the source as the walk found it: its entries, and where its
// subfolders are in the walk.
struct Folder {
    std::string path;
    std::vector<Node> nodes;
    std::vector<std::pair<size_t, size_t>> children;  // (index of the node, index of its folder)
    std::vector<Id> trees;                            // once encoded
};

// A file to read: where its node is.
struct FileWork {
    size_t folder = 0;
    size_t node = 0;
    std::string path;
    uint64_t size = 0;
};

// The same file under another name (a hard link): it takes the chunks of
// the first name read.
struct LinkedFile {
    size_t folder = 0;
    size_t node = 0;
    size_t first = 0;  // index of the work item read
};

bool SameFile(const Node& was, const Node& now) {
    // A parent written before change times were kept (format version 1) has none.
    return was.type == NodeType::File && was.size == now.size && was.modifiedNs == now.modifiedNs &&
           was.inode == now.inode && now.inode != 0 && (was.changedNs == 0 || was.changedNs == now.changedNs);
}

class BackupRun {
public:
    BackupRun(Repository& repository, Source& source, const BackupOptions& options)
        : repository_(repository), source_(source), options_(options),
          chunker_(repository.gear(), repository.config().chunker) {}

    BackupReport Run();

private:
    void Walk(const std::optional<Snapshot>& parent);
    void WalkFolder(size_t folder, const std::vector<Id>& parentTrees, TreeReader* reader);
    void Compare(size_t folder, size_t index, const Node* was);
    void ReadFiles();
    void EncodeTrees();
    void StoreTree(const Bytes& plain, std::vector<Id>& ids);
    void FinishSnapshot(double seconds);
    void AdoptInterruptedPacks();
    std::optional<Snapshot> FindParent();
    void ReadFile(const FileWork& work, std::vector<uint8_t>& buffer, KeyedHasher& hasher, Progress& progress);
    std::vector<Id> ChunkFile(const FileWork& work, std::vector<uint8_t>& buffer, KeyedHasher& hasher,
                              Progress& progress);
    void StoreChunk(const uint8_t* data, size_t size, const Id& id);
    void Upload(PackBuilder::Finished&& pack);
    void FlushLastPacks();
    void Unreadable(const std::string& path, const std::string& why);

    Repository& repository_;
    Source& source_;
    const BackupOptions options_;
    const Chunker chunker_;
    MasterIndex index_;
    BackupReport report_;
    std::vector<Folder> folders_;  // the root first, every folder after its parent
    std::vector<FileWork> work_;
    std::vector<LinkedFile> linked_;
    uint64_t files_ = 0;  // in the snapshot
    uint64_t bytes_ = 0;
    std::map<NodeType, uint64_t> kinds_;  // entries of each kind found
    std::map<std::pair<uint64_t, uint64_t>, size_t> firstLink_;  // (device, inode) -> work item

    std::mutex mutex_;  // guards what follows
    std::unordered_set<Id, IdHash> stored_;  // blobs of this backup
    std::set<std::string> unreadable_;      // paths of files that could not be read
    PackBuilder pack_;
    PackBuilder treePack_;
    std::vector<IndexedPack> newPacks_;
    std::atomic<uint64_t> bytesAdded_{0};
    std::atomic<uint64_t> bytesProcessed_{0};
};

BackupReport BackupRun::Run() {
    index_ = repository_.LoadIndex();
    if (!options_.dryRun) AdoptInterruptedPacks();
    const std::optional<Snapshot> parent = options_.ignoreParent ? std::nullopt : FindParent();
    Snapshot& snapshot = report_.snapshot;
    snapshot.host = options_.host;
    snapshot.paths = source_.Paths();
    snapshot.tags = options_.tags;
    snapshot.parent = parent ? parent->id : "";
    snapshot.root = source_.RootFolder(report_.skipped);
    const auto start = std::chrono::steady_clock::now();
    Walk(parent);
    ReadFiles();
    EncodeTrees();
    FlushLastPacks();
    FinishSnapshot(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    return std::move(report_);
}

// The whole source, folder by folder, each beside the same folder of the
// parent snapshot (read only where the source has that folder).
void BackupRun::Walk(const std::optional<Snapshot>& parent) {
    std::unique_ptr<TreeReader> reader;
    if (parent) reader = std::make_unique<TreeReader>(repository_, index_);
    folders_.push_back({"", {}, {}, {}});
    std::vector<std::pair<size_t, std::vector<Id>>> pending = {{0, parent ? parent->tree : std::vector<Id>{}}};
    while (!pending.empty()) {
        auto [folder, parentTrees] = std::move(pending.back());
        pending.pop_back();
        WalkFolder(folder, parentTrees, reader.get());
        const Folder& walked = folders_[folder];
        for (auto child = walked.children.rbegin(); child != walked.children.rend(); ++child) {
            const Node& node = folders_[folder].nodes[child->first];
            pending.push_back({child->second, node.subtree});  // the parent's trees of that folder, if any
            folders_[folder].nodes[child->first].subtree.clear();
        }
    }
    std::sort(report_.skipped.begin(), report_.skipped.end(),
              [](const SkippedEntry& a, const SkippedEntry& b) { return a.relativePath < b.relativePath; });
}

void BackupRun::WalkFolder(size_t folder, const std::vector<Id>& parentTrees, TreeReader* reader) {
    Listing listing = source_.List(folders_[folder].path);
    report_.skipped.insert(report_.skipped.end(), listing.skipped.begin(), listing.skipped.end());
    std::unordered_map<std::string, Node> before;
    if (reader && !parentTrees.empty()) {
        for (Node& node : reader->Entries(parentTrees)) before.emplace(node.name, std::move(node));
    }
    folders_[folder].nodes = std::move(listing.nodes);
    std::vector<std::pair<size_t, std::string>> subfolders;
    for (size_t i = 0; i < folders_[folder].nodes.size(); ++i) {
        Node& node = folders_[folder].nodes[i];
        const auto was = before.find(node.name);
        const Node* old = was == before.end() ? nullptr : &was->second;
        ++kinds_[node.type];
        if (node.IsFolder()) {
            // The walk reads the parent's trees of this folder from here.
            node.subtree = old && old->IsFolder() ? old->subtree : std::vector<Id>{};
            subfolders.push_back({i, folders_[folder].path.empty() ? node.name : folders_[folder].path + "/" + node.name});
        } else if (node.type == NodeType::File) {
            Compare(folder, i, old);
        }
    }
    for (auto& [node, path] : subfolders) {
        folders_[folder].children.push_back({node, folders_.size()});
        folders_.push_back({std::move(path), {}, {}, {}});
    }
}

// A file whose size, times and inode are those of the parent takes the
// parent's chunks unread (when the index still holds them all).
void BackupRun::Compare(size_t folder, size_t index, const Node* was) {
    Node& node = folders_[folder].nodes[index];
    const std::string path = folders_[folder].path.empty() ? node.name : folders_[folder].path + "/" + node.name;
    if (was && SameFile(*was, node) &&
        std::all_of(was->content.begin(), was->content.end(), [this](const Id& id) { return index_.Has(id); })) {
        node.content = was->content;
        ++report_.filesUnmodified;
        return;
    }
    ++(was ? report_.filesChanged : report_.filesNew);
    if (node.links > 1) {
        const auto first = firstLink_.emplace(std::make_pair(node.device, node.inode), work_.size());
        if (!first.second) return linked_.push_back({folder, index, first.first->second});
    }
    work_.push_back({folder, index, path, node.size});
    report_.toRead.push_back(path);
}

void BackupRun::ReadFiles() {
    std::vector<size_t> order(work_.size());
    uint64_t bytesToRead = 0;
    for (size_t i = 0; i < order.size(); ++i) order[i] = i, bytesToRead += work_[i].size;
    // Large files first, so that the last file does not run alone.
    std::stable_sort(order.begin(), order.end(), [this](size_t a, size_t b) { return work_[a].size > work_[b].size; });
    Progress progress(options_.progress, options_.dryRun ? "dry run" : "backup", bytesToRead, work_.size());
    const unsigned jobs = std::max(1u, options_.jobs);
    std::vector<std::vector<uint8_t>> buffers(jobs);
    std::vector<std::unique_ptr<KeyedHasher>> hashers(jobs);
    RunInParallel(jobs, order.size(), [&](size_t item, unsigned worker) {
        if (!hashers[worker]) hashers[worker] = std::make_unique<KeyedHasher>(repository_.keys().mac);
        ReadFile(work_[order[item]], buffers[worker], *hashers[worker], progress);
    });
    for (const LinkedFile& link : linked_) {
        const FileWork& first = work_[link.first];
        folders_[link.folder].nodes[link.node].content = folders_[first.folder].nodes[first.node].content;
    }
}

// Deepest folders first: a folder's tree names the trees of its subfolders.
// Files that could not be read are left out.
void BackupRun::EncodeTrees() {
    for (size_t folder = folders_.size(); folder-- > 0;) {
        Folder& entry = folders_[folder];
        for (const auto& [node, child] : entry.children) entry.nodes[node].subtree = folders_[child].trees;
        std::vector<Node> kept;
        kept.reserve(entry.nodes.size());
        for (Node& node : entry.nodes) {
            const std::string path = entry.path.empty() ? node.name : entry.path + "/" + node.name;
            if (node.type == NodeType::File) {
                if (unreadable_.count(path)) continue;
                ++files_;  // what the snapshot holds, not what was listed
                bytes_ += node.size;
            }
            kept.push_back(std::move(node));
        }
        for (const Bytes& plain : EncodeTree(kept)) StoreTree(plain, entry.trees);
        entry.nodes.clear();
        entry.nodes.shrink_to_fit();
    }
    report_.snapshot.tree = folders_[0].trees;
}

void BackupRun::StoreTree(const Bytes& plain, std::vector<Id>& ids) {
    const Id id = KeyedHash(repository_.keys().mac, plain.data(), plain.size());
    ids.push_back(id);
    if (index_.Has(id) || !stored_.insert(id).second) return;
    SealedBlob blob = SealBlob(repository_.keys(), id, plain.data(), plain.size(), BlobType::Tree);
    ++report_.treesNew;
    treePack_.Add(std::move(blob));
    if (treePack_.size() >= repository_.config().packSize) Upload(treePack_.Finish(repository_.keys()));
}

// Packs, then the index naming them, then the snapshot naming their blobs.
void BackupRun::FinishSnapshot(double seconds) {
    uint64_t written = 0;
    if (!newPacks_.empty() && !options_.dryRun) repository_.SaveIndex(newPacks_, &written);
    std::sort(report_.skipped.begin(), report_.skipped.end(),
              [](const SkippedEntry& a, const SkippedEntry& b) { return a.relativePath < b.relativePath; });
    report_.bytesProcessed = bytesProcessed_;
    Snapshot& snapshot = report_.snapshot;
    const auto now = std::chrono::system_clock::now();
    snapshot.timeNs = std::chrono::duration_cast<std::chrono::nanoseconds>(now.time_since_epoch()).count();
    snapshot.time = UtcTimeText(snapshot.timeNs / 1000000000);
    snapshot.summary.update(Json{{"files", files_},
                                 {"bytes", bytes_},
                                 {"folders", kinds_[NodeType::Folder]},
                                 {"links", kinds_[NodeType::Link]},
                                 {"special_files", kinds_[NodeType::Fifo] + kinds_[NodeType::CharDevice] +
                                                       kinds_[NodeType::BlockDevice]},
                                 {"files_new", report_.filesNew},
                                 {"files_changed", report_.filesChanged},
                                 {"files_unmodified", report_.filesUnmodified},
                                 {"bytes_processed", report_.bytesProcessed},
                                 {"blobs_new", report_.blobsNew},
                                 {"trees_new", report_.treesNew},
                                 {"packs_written", report_.packsWritten},
                                 {"seconds", seconds}});
    if (options_.dryRun) {
        written += EncodeSnapshot(repository_.keys(), snapshot).size();
    } else {
        repository_.SaveSnapshot(snapshot, &written);
    }
    report_.bytesAdded = bytesAdded_ + written;
}

// Packs that no index names were stored by a backup that did not finish
// (or by one running now), or by anyone else who can write to the
// container: each is read whole and verified (PackVerify.h) before its
// blobs are indexed with this backup and not uploaded again.
void BackupRun::AdoptInterruptedPacks() {
    for (const NamedObject& object : repository_.ListIds(repository_.layout().DataPrefix())) {
        // The listed size is not trusted either (an object written by
        // other means may list none): the whole read decides.
        if (index_.HasPack(object.id) || object.size > kMaximumPackSize) continue;
        try {
            IndexedPack pack{object.id, ReadVerifiedPack(repository_, object.id)};
            index_.Add(pack);
            newPacks_.push_back(std::move(pack));
            ++report_.packsAdopted;
        } catch (const Error& failure) {
            // Damaged, not ours, or removed meanwhile: left to check and prune.
            if (failure.kind() != ErrorKind::Damaged && failure.kind() != ErrorKind::ObjectMissing) throw;
            ++report_.packsRefused;
        }
    }
}

// The newest snapshot of the same host and the same paths.
std::optional<Snapshot> BackupRun::FindParent() {
    std::string parent;  // the newest: listed oldest first
    const std::vector<std::string> paths = source_.Paths();
    for (const SnapshotInfo& snapshot : repository_.ListSnapshotInfos()) {
        if (snapshot.paths == paths && snapshot.host == options_.host) parent = snapshot.id;
    }
    if (parent.empty()) return std::nullopt;
    return repository_.LoadSnapshot(parent);
}

// A file that cannot be read, or changes while it is read, is not kept (and
// reported); any other failure ends the backup.
void BackupRun::ReadFile(const FileWork& work, std::vector<uint8_t>& buffer, KeyedHasher& hasher, Progress& progress) {
    Node& node = folders_[work.folder].nodes[work.node];
    try {
        node.content = ChunkFile(work, buffer, hasher, progress);
        if (!source_.Unchanged(work.path, node)) {
            throw Error(ErrorKind::LocalFile, work.path + " changed while it was being read");
        }
    } catch (const Error& failure) {
        if (failure.kind() != ErrorKind::LocalFile) throw;
        progress.FileFailed();
        return Unreadable(work.path, failure.what());
    }
    progress.FileDone(work.path, work.size);
}

std::vector<Id> BackupRun::ChunkFile(const FileWork& work, std::vector<uint8_t>& buffer, KeyedHasher& hasher,
                                     Progress& progress) {
    const size_t maximum = chunker_.parameters().maximum;
    buffer.resize(maximum + kReadBlock);
    std::vector<Id> chunks;
    uint64_t total = 0;
    const std::unique_ptr<SourceReader> input = source_.Open(work.path);
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
    if (!source_.SizesKnownBeforeReading()) {
        folders_[work.folder].nodes[work.node].size = total;
    } else if (total != work.size) {
        throw Error(ErrorKind::LocalFile, work.path + " changed while it was being read");
    }
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

void BackupRun::FlushLastPacks() {
    PackBuilder::Finished last;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!pack_.empty()) last = pack_.Finish(repository_.keys());
    }
    if (!last.entries.empty()) Upload(std::move(last));
    if (!treePack_.empty()) Upload(treePack_.Finish(repository_.keys()));
}

void BackupRun::Unreadable(const std::string& path, const std::string& why) {
    std::lock_guard<std::mutex> guard(mutex_);
    report_.skipped.push_back({path, why, true});
    unreadable_.insert(path);
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
