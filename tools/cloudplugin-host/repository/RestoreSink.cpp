#include "repository/RestoreSink.h"

#include <algorithm>
#include <set>
#include <tuple>

#include "util/Error.h"

namespace qvhost::repo {

namespace {

size_t Depth(const std::string& path) { return static_cast<size_t>(std::count(path.begin(), path.end(), '/')); }

// The fields a planned file keeps of its node, copied the same way both
// ways: one list, so a field added to both cannot be copied one way only.
template <typename From, typename To>
void CopyFileFields(const From& from, To& to) {
    to.content = from.content;
    to.xattrs = from.xattrs;
    to.size = from.size;
    to.modifiedNs = from.modifiedNs;
    to.accessedNs = from.accessedNs;
    to.mode = from.mode;
    to.uid = from.uid;
    to.gid = from.gid;
    to.hasOwner = from.hasOwner;
    to.sparse = from.sparse;
}

}  // namespace

void RestorePlan::AddFile(std::string relativePath, const Node& node) {
    RestoreFile file;
    file.relativePath = std::move(relativePath);
    CopyFileFields(node, file);
    const auto number =
        ownerNumbers_.try_emplace({node.user, node.group}, static_cast<uint32_t>(ownerNames.size())).first;
    if (number->second == ownerNames.size()) ownerNames.emplace_back(node.user, node.group);
    file.owner = number->second;
    files.push_back(std::move(file));
}

Node RestorePlan::NodeOf(const RestoreFile& file) const {
    Node node;
    node.type = NodeType::File;
    CopyFileFields(file, node);
    if (file.owner < ownerNames.size()) std::tie(node.user, node.group) = ownerNames[file.owner];
    return node;
}

RestoreSink::RestoreSink(RestoreTarget* target, RestorePlan plan)
    : target_(target), plan_(std::move(plan)), states_(plan_.files.size()) {}

void RestoreSink::CheckPaths() const {
    if (!target_) return;
    for (const RestoreFile& file : plan_.files) target_->Check(file.relativePath, EntryKind::File);
    for (const RestoreHardLink& link : plan_.hardLinks) target_->Check(link.relativePath, EntryKind::File);
    for (const RestoreEntry& special : plan_.specials) target_->Check(special.relativePath, EntryKind::File);
    for (const RestoreEntry& folder : plan_.folders) target_->Check(folder.relativePath, EntryKind::Folder);
    for (const RestoreEntry& link : plan_.links) target_->Check(link.relativePath, EntryKind::Link);
}

uint64_t RestoreSink::TotalBytes() const {
    uint64_t total = 0;
    for (const RestoreFile& file : plan_.files) total += file.size;
    return total;
}

void RestoreSink::ForgetContent() {
    for (RestoreFile& file : plan_.files) std::vector<Id>().swap(file.content);
}

void RestoreSink::Expect(size_t file, uint64_t pieces) { states_[file].pieces = pieces; }

void RestoreSink::Write(size_t file, uint64_t offset, const void* data, size_t size) {
    if (target_ && size > 0) OutputOf(file).WriteAt(offset, data, size);
}

void RestoreSink::Fail(size_t file, const std::string& object, const std::string& what) {
    FileState& state = states_[file];
    std::lock_guard<std::mutex> lock(LockOf(file));
    if (!state.failed.exchange(true)) {
        state.problem = std::make_unique<RestoreProblem>(RestoreProblem{plan_.files[file].relativePath, object, what});
    }
}

void RestoreSink::PieceDone(size_t file, Progress& progress) {
    if (--states_[file].pieces == 0) Finish(file, progress);
}

void RestoreSink::FinishIdle(Progress& progress) {
    for (size_t file = 0; file < states_.size(); ++file) {
        if (states_[file].pieces == 0) Finish(file, progress);
    }
}

void RestoreSink::MakeTheRest() {
    if (!target_) return;
    std::set<std::string> damaged;
    for (const RestoreProblem& problem : Damaged()) damaged.insert(problem.file);
    for (const RestoreHardLink& link : plan_.hardLinks) {
        if (damaged.count(link.existing)) {
            std::lock_guard<std::mutex> lock(mutex_);
            damaged_.push_back({link.relativePath, "", "its other name " + link.existing + " is damaged"});
            continue;
        }
        target_->MakeHardLink(link.relativePath, link.existing);
    }
    for (const RestoreEntry& link : plan_.links) target_->MakeLink(link.relativePath, link.node);
    for (const RestoreEntry& special : plan_.specials) target_->MakeSpecial(special.relativePath, special.node);
    std::vector<const RestoreEntry*> folders;
    for (const RestoreEntry& folder : plan_.folders) folders.push_back(&folder);
    std::stable_sort(folders.begin(), folders.end(), [](const RestoreEntry* a, const RestoreEntry* b) {
        return Depth(a->relativePath) > Depth(b->relativePath);
    });
    for (const RestoreEntry* folder : folders) target_->MakeFolder(folder->relativePath, folder->node);
    if (plan_.root) target_->MakeFolder("", *plan_.root);
}

std::vector<RestoreProblem> RestoreSink::Damaged() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<RestoreProblem> damaged = damaged_;
    std::sort(damaged.begin(), damaged.end(),
              [](const RestoreProblem& a, const RestoreProblem& b) { return a.file < b.file; });
    return damaged;
}

std::vector<std::string> RestoreSink::SetIdDropped() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> dropped = setIdDropped_;
    std::sort(dropped.begin(), dropped.end());
    return dropped;
}

std::vector<std::string> RestoreSink::Notes() {
    std::vector<std::string> notes = target_ ? target_->TakeNotes() : std::vector<std::string>{};
    std::sort(notes.begin(), notes.end());
    return notes;
}

// The file's output, made by the first piece to get here.
RestoredFile& RestoreSink::OutputOf(size_t file) {
    FileState& state = states_[file];
    std::lock_guard<std::mutex> lock(LockOf(file));
    if (!state.output) state.output = target_->MakeFile(plan_.files[file].relativePath, NodeOf(file));
    return *state.output;
}

// After the file's last piece: a file whose every piece checked is moved
// into place; a damaged one is never left as if restored.
void RestoreSink::Finish(size_t file, Progress& progress) {
    FileState& state = states_[file];
    if (state.finished.exchange(true)) return;
    const RestoreFile& entry = plan_.files[file];
    if (state.failed) {
        {
            std::lock_guard<std::mutex> lock(LockOf(file));
            state.output.reset();  // removes the partial file
        }
        progress.FileFailed();
        std::lock_guard<std::mutex> lock(mutex_);
        damaged_.push_back(*state.problem);
        return;
    }
    if (target_) {
        OutputOf(file).Commit(NodeOf(file));
        {
            std::lock_guard<std::mutex> lock(LockOf(file));
            state.output.reset();
        }
        if ((entry.mode & kSetIdBits) && !(entry.hasOwner && target_->KeepsOwners())) {
            std::lock_guard<std::mutex> lock(mutex_);
            setIdDropped_.push_back(entry.relativePath);
        }
    }
    progress.FileDone(entry.relativePath, entry.size);
}

}  // namespace qvhost::repo
