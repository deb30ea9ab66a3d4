// What every restore does around its data, whichever layout the data comes
// from: each path checked against the target before anything is written;
// each file written piece by piece, the pieces in any order and on any
// job, and moved into place (with its mode and time) only when every piece
// of it arrived and checked, else removed and named as damaged; set-user-ID
// and set-group-ID bits reported as not restored; empty folders and links
// made last, so that no file of the restore is ever written beneath a link
// it made. Without a target the same work reads everything back and writes
// nothing (verify, check).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "repository/RestoreTarget.h"
#include "util/Progress.h"

namespace qvhost::repo {

// A file a restore makes.
struct RestoreFile {
    std::string relativePath;
    uint64_t size = 0;
    std::optional<uint32_t> mode;  // none: as the target makes files
    int64_t modifiedNs = 0;
};

// A file that could not be restored, and why.
struct RestoreProblem {
    std::string file;
    std::string object;  // the stored object to blame, when there is one
    std::string what;
};

class RestoreSink {
public:
    // `target` may be null: a read-back.
    RestoreSink(RestoreTarget* target, std::vector<RestoreFile> files, std::vector<FolderRecord> folders,
                std::vector<LinkRecord> links);

    // Refuses (Error, local file) what the target would refuse, before
    // anything is written.
    void CheckPaths() const;

    const std::vector<RestoreFile>& files() const { return files_; }
    size_t FolderCount() const { return folders_.size(); }
    size_t LinkCount() const { return links_.size(); }
    uint64_t TotalBytes() const;

    // How many pieces the file waits for (0 unless set).
    void Expect(size_t file, uint64_t pieces);
    bool Failed(size_t file) const { return states_[file].failed; }
    // Writes a checked piece of the file.
    void Write(size_t file, uint64_t offset, const void* data, size_t size);
    // The file cannot be restored; the first reason given is the one kept.
    void Fail(size_t file, const std::string& object, const std::string& what);
    // A piece of the file is done (written or failed): the last one
    // finishes the file.
    void PieceDone(size_t file, Progress& progress);
    // Finishes the files that wait for no piece (empty ones, ones failed
    // before anything was read).
    void FinishIdle(Progress& progress);
    // The empty folders, then the links.
    void MakeFoldersAndLinks();

    // Sorted by file.
    std::vector<RestoreProblem> Damaged() const;
    std::vector<std::string> SetIdDropped() const;

private:
    struct FileState {
        std::atomic<uint64_t> pieces{0};
        std::mutex mutex;
        std::unique_ptr<RestoredFile> output;  // made by the first piece written
        std::atomic<bool> failed{false};
        std::atomic<bool> finished{false};
        RestoreProblem problem;
    };

    void Finish(size_t file, Progress& progress);
    RestoredFile& OutputOf(size_t file);

    RestoreTarget* target_;
    const std::vector<RestoreFile> files_;
    const std::vector<FolderRecord> folders_;
    const std::vector<LinkRecord> links_;
    std::vector<FileState> states_;
    mutable std::mutex mutex_;  // guards what follows
    std::vector<RestoreProblem> damaged_;
    std::vector<std::string> setIdDropped_;
};

}  // namespace qvhost::repo
