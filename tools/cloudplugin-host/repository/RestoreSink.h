// What every restore does around its data, whichever layout the data comes
// from: each path checked against the target before anything is written;
// each file written piece by piece, the pieces in any order and on any
// job, and moved into place (with its metadata) only when every piece of it
// arrived and checked, else removed and named as damaged; set-user-ID and
// set-group-ID bits reported as not restored; then the other names of hard
// links, the links, the FIFOs and devices, and last every folder's metadata,
// deepest first, so that nothing written later changes what was set. Without
// a target the same work reads everything back and writes nothing (verify,
// check).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "repository/RestoreTarget.h"
#include "util/Progress.h"

namespace qvhost::repo {

// An entry a restore makes: where, and what it was.
struct RestoreEntry {
    std::string relativePath;
    Node node;
};

// A file a restore makes: of its node only what making it takes (a full
// node is three times the size, and a plan holds one for every file).
struct RestoreFile {
    std::string relativePath;
    std::vector<Id> content;
    std::vector<Xattr> xattrs;
    uint64_t size = 0;
    int64_t modifiedNs = 0;
    int64_t accessedNs = 0;
    uint32_t mode = 0;
    uint32_t uid = 0;
    uint32_t gid = 0;
    uint32_t owner = 0;  // its user and group names: RestorePlan::ownerNames
    bool hasOwner = false;
    bool sparse = false;
};

// A second name of a file restored under another (a hard link).
struct RestoreHardLink {
    std::string relativePath;
    std::string existing;
};

// A file that could not be restored, and why.
struct RestoreProblem {
    std::string file;
    std::string object;  // the stored object to blame, when there is one
    std::string what;
};

// What a restore makes.
struct RestorePlan {
    // A deque: a plan of a million files grows without copying itself or
    // holding room it does not use.
    std::deque<RestoreFile> files;
    // The user and group names the files name, each pair once.
    std::vector<std::pair<std::string, std::string>> ownerNames;
    std::vector<RestoreEntry> folders;
    std::vector<RestoreEntry> links;
    std::vector<RestoreEntry> specials;  // FIFOs and devices
    std::vector<RestoreHardLink> hardLinks;
    // Entries left out because this system cannot give them their names
    // (a folder with everything beneath it): a Windows restore of a name
    // such as CON or "ends." that a POSIX system stored.
    std::vector<RestoreProblem> refused;
    // DEST_DIR's own metadata: the snapshot's root folder, or the folder
    // chosen of it; given last, after everything beneath it.
    std::optional<Node> root;

    void AddFile(std::string relativePath, const Node& node);
    // The file's node as it was stored, but for its name, inode and change time.
    Node NodeOf(const RestoreFile& file) const;

private:
    std::map<std::pair<std::string, std::string>, uint32_t> ownerNumbers_;  // in ownerNames
};

class RestoreSink {
public:
    // `target` may be null: a read-back.
    RestoreSink(RestoreTarget* target, RestorePlan plan);

    // Refuses (Error, local file) what the target would refuse, before
    // anything is written.
    void CheckPaths() const;

    const std::deque<RestoreFile>& files() const { return plan_.files; }
    Node NodeOf(size_t file) const { return plan_.NodeOf(plan_.files[file]); }
    size_t FolderCount() const { return plan_.folders.size(); }
    size_t LinkCount() const { return plan_.links.size(); }
    uint64_t TotalBytes() const;
    // Lets the files' chunk lists go once the reads are planned (a restore
    // that reads nothing back needs them no longer).
    void ForgetContent();

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
    // Hard links, links, FIFOs and devices, then the folders deepest first.
    void MakeTheRest();

    // Sorted by file.
    std::vector<RestoreProblem> Damaged() const;
    std::vector<std::string> SetIdDropped() const;
    // What the target could not keep (owners, attributes, devices).
    std::vector<std::string> Notes();

private:
    // Kept small: a restore holds one for every file. Its lock is one of
    // kLocks, shared by files far apart in the plan.
    struct FileState {
        std::atomic<uint64_t> pieces{0};
        std::unique_ptr<RestoredFile> output;  // made by the first piece written
        std::atomic<bool> failed{false};
        std::atomic<bool> finished{false};
        std::unique_ptr<RestoreProblem> problem;  // once failed
    };

    static constexpr size_t kLocks = 64;

    void Finish(size_t file, Progress& progress);
    RestoredFile& OutputOf(size_t file);
    std::mutex& LockOf(size_t file) { return locks_[file % kLocks]; }

    RestoreTarget* target_;
    RestorePlan plan_;
    std::vector<FileState> states_;
    std::array<std::mutex, kLocks> locks_;
    mutable std::mutex mutex_;  // guards what follows
    std::vector<RestoreProblem> damaged_;
    std::vector<std::string> setIdDropped_;
    std::vector<std::string> notes_;
};

}  // namespace qvhost::repo
