#include "repository/RestoreSink.h"

#include <algorithm>

namespace qvhost::repo {

RestoreSink::RestoreSink(RestoreTarget* target, std::vector<RestoreFile> files, std::vector<FolderRecord> folders,
                         std::vector<LinkRecord> links)
    : target_(target), files_(std::move(files)), folders_(std::move(folders)), links_(std::move(links)),
      states_(files_.size()) {}

void RestoreSink::CheckPaths() const {
    if (!target_) return;
    for (const RestoreFile& file : files_) target_->Check(file.relativePath, EntryKind::File);
    for (const FolderRecord& folder : folders_) target_->Check(folder.relativePath, EntryKind::Folder);
    for (const LinkRecord& link : links_) target_->Check(link.relativePath, EntryKind::Link);
}

uint64_t RestoreSink::TotalBytes() const {
    uint64_t total = 0;
    for (const RestoreFile& file : files_) total += file.size;
    return total;
}

void RestoreSink::Expect(size_t file, uint64_t pieces) { states_[file].pieces = pieces; }

void RestoreSink::Write(size_t file, uint64_t offset, const void* data, size_t size) {
    if (target_ && size > 0) OutputOf(file).WriteAt(offset, data, size);
}

void RestoreSink::Fail(size_t file, const std::string& object, const std::string& what) {
    FileState& state = states_[file];
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.failed.exchange(true)) state.problem = {files_[file].relativePath, object, what};
}

void RestoreSink::PieceDone(size_t file, Progress& progress) {
    if (--states_[file].pieces == 0) Finish(file, progress);
}

void RestoreSink::FinishIdle(Progress& progress) {
    for (size_t file = 0; file < states_.size(); ++file) {
        if (states_[file].pieces == 0) Finish(file, progress);
    }
}

void RestoreSink::MakeFoldersAndLinks() {
    if (!target_) return;
    for (const FolderRecord& folder : folders_) target_->MakeFolder(folder);
    for (const LinkRecord& link : links_) target_->MakeLink(link);
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

// The file's output, made by the first piece to get here.
RestoredFile& RestoreSink::OutputOf(size_t file) {
    FileState& state = states_[file];
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.output) state.output = target_->MakeFile(files_[file].relativePath);
    return *state.output;
}

// After the file's last piece: a file whose every piece checked is moved
// into place; a damaged one is never left as if restored.
void RestoreSink::Finish(size_t file, Progress& progress) {
    FileState& state = states_[file];
    if (state.finished.exchange(true)) return;
    const RestoreFile& entry = files_[file];
    if (state.failed) {
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            state.output.reset();  // removes the partial file
        }
        progress.FileFailed();
        std::lock_guard<std::mutex> lock(mutex_);
        damaged_.push_back(state.problem);
        return;
    }
    if (target_) {
        OutputOf(file).Commit(entry.mode, entry.modifiedNs);
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            state.output.reset();
        }
        if (entry.mode && (*entry.mode & kSetIdBits)) {
            std::lock_guard<std::mutex> lock(mutex_);
            setIdDropped_.push_back(entry.relativePath);
        }
    }
    progress.FileDone(entry.relativePath, entry.size);
}

}  // namespace qvhost::repo
