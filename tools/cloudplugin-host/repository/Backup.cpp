#include "repository/Backup.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <stdexcept>
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
// How far the walk may run ahead of the reads: files found, not yet taken
// by a job. Folders stay in memory from their listing until their last file
// is read, so this bounds them too.
constexpr size_t kQueuedFiles = 1024;

struct FolderState;

// A file of several names (hard links): the first name found is read, the
// others take its chunks, waiting for them when the read is not done yet.
struct LinkGroup {
    bool done = false;
    bool failed = false;
    std::string why;  // when failed
    std::vector<Id> content;
    struct Waiter {
        FolderState* folder;
        size_t node;
        std::string path;
    };
    std::vector<Waiter> waiting;
};

// A folder between its listing and its tree: its entries, and how much of it
// is not done (files being read, names waiting for another's read,
// subfolders not finished, and one for the walk while it lists the folder).
// It is encoded and let go as soon as that reaches none, so memory holds the
// folders on the walk's way down and those with files in the queue, never
// the whole tree.
struct FolderState {
    std::string path;
    std::vector<Node> nodes;
    std::vector<uint8_t> unreadable;  // per node: could not be read, left out of the tree
    FolderState* parent = nullptr;    // none: the root
    size_t nodeInParent = 0;
    size_t pending = 1;
    std::list<FolderState>::iterator self;
};

// A folder the walk has still to list: where it goes, and the parent
// snapshot's trees of it (none when the parent had no such folder).
struct ToWalk {
    std::string path;
    std::vector<Id> parentTrees;
    FolderState* parent = nullptr;
    size_t nodeInParent = 0;
};

// A file to read: where its node is.
struct FileWork {
    FolderState* folder = nullptr;
    size_t node = 0;
    std::string path;
    uint64_t size = 0;
    LinkGroup* link = nullptr;  // other names wait for this read
};

using Push = std::function<void(FileWork&&)>;

bool SameFile(const Node& was, const Node& now) {
    // A parent written before change times were kept (format version 1) has none.
    return was.type == NodeType::File && was.size == now.size && was.modifiedNs == now.modifiedNs &&
           was.inode == now.inode && now.inode != 0 && (was.changedNs == 0 || was.changedNs == now.changedNs);
}

std::string ChildPath(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : folder + "/" + name;
}

// The walk, the reads and the trees overlap: one thread lists folders
// (depth first, each beside the parent snapshot's same folder) and queues
// the files that changed; the jobs read, chunk and store them; whichever
// thread finishes a folder's last piece encodes its tree and hands it to the
// folder above.
class BackupRun {
public:
    BackupRun(Repository& repository, Source& source, const BackupOptions& options)
        : repository_(repository), source_(source), options_(options),
          chunker_(repository.gear(), repository.config().chunker) {}

    BackupReport Run();

private:
    void Walk(const std::optional<Snapshot>& parent, const Push& push);
    void WalkFolder(ToWalk&& next, TreeReader* reader, std::vector<ToWalk>& stack, const Push& push);
    // Whether the file must be read; else it takes the parent's chunks.
    bool Compare(Node& node, const Node* was);
    void Release(FolderState* folder);
    void FinishFolder(FolderState& folder, std::vector<Id>& trees);
    void StoreTree(const Bytes& plain, std::vector<Id>& ids);
    void FinishSnapshot(double seconds);
    void AdoptInterruptedPacks();
    std::optional<Snapshot> FindParent();
    void ReadFile(const FileWork& work, std::vector<uint8_t>& buffer, KeyedHasher& hasher);
    std::vector<Id> ChunkFile(const FileWork& work, std::vector<uint8_t>& buffer, KeyedHasher& hasher);
    void LinkRead(LinkGroup& group, const std::vector<Id>* content, const std::string& why);
    void StoreChunk(const uint8_t* data, size_t size, const Id& id);
    // Under mutex_: a pack just finished is indexed with what it holds.
    void Finished(const PackBuilder::Finished& pack);
    void Upload(PackBuilder::Finished&& pack);
    void FlushLastPacks();
    void Unreadable(const std::string& path, const std::string& why);

    Repository& repository_;
    Source& source_;
    const BackupOptions options_;
    const Chunker chunker_;
    MasterIndex index_;  // read only once the walk begins
    BackupReport report_;
    std::map<NodeType, uint64_t> kinds_;  // entries of each kind found (the walk's)
    std::unique_ptr<Progress> progress_;

    std::mutex foldersMutex_;  // guards what follows
    std::list<FolderState> open_;
    std::map<std::pair<uint64_t, uint64_t>, LinkGroup> links_;  // (device, inode) of files read with other names
    std::vector<Id> rootTrees_;
    uint64_t files_ = 0;  // in the snapshot
    uint64_t bytes_ = 0;

    std::mutex mutex_;  // guards what follows
    // The packs this backup wrote or adopted, indexed as the repository's
    // index is (some 64 bytes a blob, where a set of ids took more than 80
    // on top of the entries); and the blobs of the packs still being
    // filled, until their pack is finished.
    MasterIndex added_;
    std::unordered_set<Id, IdHash> pending_;
    PackBuilder pack_;
    PackBuilder treePack_;
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
    progress_ = std::make_unique<Progress>(options_.progress, options_.dryRun ? "dry run" : "backup", 0, 0);
    const unsigned jobs = std::max(1u, options_.jobs);
    std::vector<std::vector<uint8_t>> buffers(jobs);
    std::vector<std::unique_ptr<KeyedHasher>> hashers(jobs);
    RunWhileProducing<FileWork>(
        jobs, kQueuedFiles, [&](const Push& push) { Walk(parent, push); },
        [&](FileWork& work, unsigned worker) {
            if (!hashers[worker]) hashers[worker] = std::make_unique<KeyedHasher>(repository_.keys().mac);
            ReadFile(work, buffers[worker], *hashers[worker]);
        });
    progress_->Finish();
    if (!open_.empty()) throw std::logic_error("the backup ended with folders not finished");
    snapshot.tree = std::move(rootTrees_);
    FlushLastPacks();
    FinishSnapshot(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    return std::move(report_);
}

// The whole source, depth first, each folder beside the same folder of the
// parent snapshot (read only where the source has that folder).
void BackupRun::Walk(const std::optional<Snapshot>& parent, const Push& push) {
    std::unique_ptr<TreeReader> reader;
    if (parent) reader = std::make_unique<TreeReader>(repository_, index_);
    std::vector<ToWalk> stack;
    stack.push_back({"", parent ? parent->tree : std::vector<Id>{}, nullptr, 0});
    while (!stack.empty()) {
        ToWalk next = std::move(stack.back());
        stack.pop_back();
        WalkFolder(std::move(next), reader.get(), stack, push);
    }
}

void BackupRun::WalkFolder(ToWalk&& next, TreeReader* reader, std::vector<ToWalk>& stack, const Push& push) {
    Listing listing = source_.List(next.path);
    if (!listing.skipped.empty()) {
        std::lock_guard<std::mutex> lock(mutex_);
        report_.skipped.insert(report_.skipped.end(), listing.skipped.begin(), listing.skipped.end());
    }
    std::unordered_map<std::string, Node> before;
    if (reader && !next.parentTrees.empty()) {
        for (Node& node : reader->Entries(next.parentTrees)) before.emplace(node.name, std::move(node));
    }
    FolderState* folder;
    {
        std::lock_guard<std::mutex> lock(foldersMutex_);
        folder = &open_.emplace_back();
        folder->self = std::prev(open_.end());
        report_.foldersHeldAtMost = std::max(report_.foldersHeldAtMost, open_.size());
    }
    folder->path = std::move(next.path);
    folder->nodes = std::move(listing.nodes);
    folder->unreadable.assign(folder->nodes.size(), 0);
    folder->parent = next.parent;
    folder->nodeInParent = next.nodeInParent;

    std::vector<ToWalk> subfolders;
    std::vector<FileWork> reads;
    std::vector<size_t> linked;  // files read with other names
    for (size_t i = 0; i < folder->nodes.size(); ++i) {
        Node& node = folder->nodes[i];
        const auto was = before.find(node.name);
        const Node* old = was == before.end() ? nullptr : &was->second;
        ++kinds_[node.type];
        if (node.IsFolder()) {
            // The walk reads the parent's trees of this folder when it gets there.
            subfolders.push_back({ChildPath(folder->path, node.name),
                                  old && old->IsFolder() ? old->subtree : std::vector<Id>{}, folder, i});
        } else if (node.type == NodeType::File && Compare(node, old)) {
            if (node.links > 1) {
                linked.push_back(i);
            } else {
                reads.push_back({folder, i, ChildPath(folder->path, node.name), node.size, nullptr});
            }
        }
    }
    before.clear();
    {
        // A name of a file read under another name takes its chunks, now or
        // when that read ends; the first name found is read.
        std::lock_guard<std::mutex> lock(foldersMutex_);
        for (size_t i : linked) {
            Node& node = folder->nodes[i];
            auto [group, first] = links_.try_emplace(std::make_pair(node.device, node.inode));
            if (first) {
                reads.push_back({folder, i, ChildPath(folder->path, node.name), node.size, &group->second});
            } else if (!group->second.done) {
                group->second.waiting.push_back({folder, i, ChildPath(folder->path, node.name)});
                ++folder->pending;
            } else if (group->second.failed) {
                folder->unreadable[i] = 1;
                Unreadable(ChildPath(folder->path, node.name), group->second.why);
            } else {
                node.content = group->second.content;
            }
        }
        folder->pending += subfolders.size() + reads.size();
    }
    std::sort(reads.begin(), reads.end(), [](const FileWork& a, const FileWork& b) { return a.node < b.node; });
    uint64_t bytes = 0;
    for (const FileWork& work : reads) {
        bytes += work.size;
        if (options_.listReads) report_.toRead.push_back(work.path);
    }
    // Large files first, so that a folder's last file does not run alone.
    std::stable_sort(reads.begin(), reads.end(), [](const FileWork& a, const FileWork& b) { return a.size > b.size; });
    progress_->Grow(bytes, reads.size());
    for (auto child = subfolders.rbegin(); child != subfolders.rend(); ++child) stack.push_back(std::move(*child));
    for (FileWork& work : reads) push(std::move(work));
    Release(folder);  // the walk's part
}

// A file whose size, times and inode are those of the parent takes the
// parent's chunks unread (when the index still holds them all).
bool BackupRun::Compare(Node& node, const Node* was) {
    if (was && SameFile(*was, node) &&
        std::all_of(was->content.begin(), was->content.end(), [this](const Id& id) { return index_.Has(id); })) {
        node.content = was->content;
        ++report_.filesUnmodified;
        return false;
    }
    ++(was ? report_.filesChanged : report_.filesNew);
    return true;
}

// One piece of a folder done; the last one encodes its tree, which may be
// the last piece of the folder above.
void BackupRun::Release(FolderState* folder) {
    while (folder) {
        {
            std::lock_guard<std::mutex> lock(foldersMutex_);
            if (--folder->pending > 0) return;
        }
        std::vector<Id> trees;
        FinishFolder(*folder, trees);
        std::lock_guard<std::mutex> lock(foldersMutex_);
        FolderState* parent = folder->parent;
        if (parent) {
            parent->nodes[folder->nodeInParent].subtree = std::move(trees);
        } else {
            rootTrees_ = std::move(trees);
        }
        open_.erase(folder->self);
        folder = parent;
    }
}

// Every piece of the folder is done: its tree, without the files that could
// not be read.
void BackupRun::FinishFolder(FolderState& folder, std::vector<Id>& trees) {
    std::vector<Node> kept;
    kept.reserve(folder.nodes.size());
    uint64_t files = 0, bytes = 0;
    for (size_t i = 0; i < folder.nodes.size(); ++i) {
        Node& node = folder.nodes[i];
        if (node.type == NodeType::File) {
            if (folder.unreadable[i]) continue;
            ++files;  // what the snapshot holds, not what was listed
            bytes += node.size;
        }
        kept.push_back(std::move(node));
    }
    folder.nodes.clear();
    for (const Bytes& plain : EncodeTree(kept)) StoreTree(plain, trees);
    std::lock_guard<std::mutex> lock(foldersMutex_);
    files_ += files;
    bytes_ += bytes;
}

void BackupRun::StoreTree(const Bytes& plain, std::vector<Id>& ids) {
    const Id id = KeyedHash(repository_.keys().mac, plain.data(), plain.size());
    ids.push_back(id);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (index_.Has(id) || added_.Has(id) || !pending_.insert(id).second) return;
    }
    SealedBlob blob = SealBlob(repository_.keys(), id, plain.data(), plain.size(), BlobType::Tree);
    PackBuilder::Finished full;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++report_.treesNew;
        treePack_.Add(std::move(blob));
        if (treePack_.size() < repository_.config().packSize) return;
        full = treePack_.Finish(repository_.keys());
        Finished(full);
    }
    Upload(std::move(full));
}

void BackupRun::FinishSnapshot(double seconds) {
    uint64_t written = 0;
    if (!added_.all().empty() && !options_.dryRun) repository_.SaveIndexParts(added_.all(), &written);
    std::sort(report_.skipped.begin(), report_.skipped.end(),
              [](const SkippedEntry& a, const SkippedEntry& b) { return a.relativePath < b.relativePath; });
    report_.bytesProcessed = bytesProcessed_;
    Snapshot& snapshot = report_.snapshot;
    const auto now = std::chrono::system_clock::now();
    snapshot.timeNs = options_.timeNs != 0
                          ? options_.timeNs
                          : std::chrono::duration_cast<std::chrono::nanoseconds>(now.time_since_epoch()).count();
    snapshot.time = UtcTimeText(snapshot.timeNs / 1000000000 - (snapshot.timeNs % 1000000000 < 0));
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
            added_.Add(pack);
            ++report_.packsAdopted;
        } catch (const Error& failure) {
            // Damaged, not ours, removed meanwhile, or archived (the data
            // tier): left to check and prune.
            if (failure.kind() != ErrorKind::Damaged && failure.kind() != ErrorKind::ObjectMissing &&
                failure.kind() != ErrorKind::Archived) {
                throw;
            }
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
void BackupRun::ReadFile(const FileWork& work, std::vector<uint8_t>& buffer, KeyedHasher& hasher) {
    Node& node = work.folder->nodes[work.node];
    try {
        node.content = ChunkFile(work, buffer, hasher);
        if (!source_.Unchanged(work.path, node)) {
            throw Error(ErrorKind::LocalFile, work.path + " changed while it was being read");
        }
    } catch (const Error& failure) {
        if (failure.kind() != ErrorKind::LocalFile) throw;
        progress_->FileFailed();
        work.folder->unreadable[work.node] = 1;
        Unreadable(work.path, failure.what());
        if (work.link) LinkRead(*work.link, nullptr, failure.what());
        return Release(work.folder);
    }
    progress_->FileDone(work.path, work.size);
    if (work.link) LinkRead(*work.link, &node.content, "");
    Release(work.folder);
}

// The read of a file with other names ended: those waiting take its chunks,
// or are not kept either.
void BackupRun::LinkRead(LinkGroup& group, const std::vector<Id>* content, const std::string& why) {
    std::vector<LinkGroup::Waiter> waiting;
    {
        std::lock_guard<std::mutex> lock(foldersMutex_);
        group.done = true;
        group.failed = content == nullptr;
        group.why = why;
        if (content) group.content = *content;
        waiting.swap(group.waiting);
    }
    for (const LinkGroup::Waiter& name : waiting) {
        if (content) {
            name.folder->nodes[name.node].content = *content;
        } else {
            name.folder->unreadable[name.node] = 1;
            Unreadable(name.path, why);
        }
        Release(name.folder);
    }
}

std::vector<Id> BackupRun::ChunkFile(const FileWork& work, std::vector<uint8_t>& buffer, KeyedHasher& hasher) {
    const size_t maximum = chunker_.parameters().maximum;
    // A small file needs no more than itself and a byte to see its end: a
    // job that meets only small files keeps a small buffer.
    const uint64_t wanted = source_.SizesKnownBeforeReading() ? std::min<uint64_t>(maximum + kReadBlock, work.size + 1)
                                                             : maximum + kReadBlock;
    if (buffer.size() < wanted) buffer.resize(static_cast<size_t>(wanted));
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
        progress_->BytesDone(length);
        if (Interrupted()) throw Error(ErrorKind::Interrupted, "interrupted");
    }
    if (!source_.SizesKnownBeforeReading()) {
        work.folder->nodes[work.node].size = total;
    } else if (total != work.size) {
        throw Error(ErrorKind::LocalFile, work.path + " changed while it was being read");
    }
    return chunks;
}

void BackupRun::StoreChunk(const uint8_t* data, size_t size, const Id& id) {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (index_.Has(id) || added_.Has(id) || !pending_.insert(id).second) return;
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
        Finished(full);
    }
    Upload(std::move(full));
}

void BackupRun::Finished(const PackBuilder::Finished& pack) {
    added_.Add({pack.id, pack.entries});
    for (const PackEntry& entry : pack.entries) pending_.erase(entry.id);
}

// On the job's own thread: the jobs that fill packs also upload them, so
// at most `jobs` packs are in memory and in flight at once. A dry run
// counts what it would upload.
void BackupRun::Upload(PackBuilder::Finished&& pack) {
    if (!options_.dryRun) repository_.WritePack(pack);
    bytesAdded_ += pack.bytes.size();
    std::lock_guard<std::mutex> guard(mutex_);
    ++report_.packsWritten;
}

void BackupRun::FlushLastPacks() {
    for (PackBuilder* builder : {&pack_, &treePack_}) {
        PackBuilder::Finished last;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (builder->empty()) continue;
            last = builder->Finish(repository_.keys());
            Finished(last);
        }
        Upload(std::move(last));
    }
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
