// Where a restore writes, as the restore sees it. The tool's own target is
// a destination folder that nothing read from storage can leave
// (local/Destination.h); tests may give others.
//
// What the target cannot keep of an entry's metadata (an owner when not
// running as root, an extended attribute the file system refuses, a device
// node without the right to make one) it notes, and goes on.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "repository/Tree.h"
#include "util/Entry.h"

namespace qvhost::repo {

// A file being restored; removed unless committed.
class RestoredFile {
public:
    virtual ~RestoredFile() = default;
    // Writes `size` bytes at `offset` (pieces of one file may arrive in any order).
    virtual void WriteAt(uint64_t offset, const void* data, size_t size) = 0;
    // Sets the file's size, mode (set-user-ID and set-group-ID never),
    // owner, extended attributes and times, then moves it into place.
    virtual void Commit(const Node& metadata) = 0;
};

// An entry found where a restore would make one.
struct ExistingEntry {
    bool folder = false;
    bool regularFile = false;  // neither: a link, a FIFO, a device, a socket
    uint64_t size = 0;
    int64_t modifiedNs = 0;
};

// Reads a file that exists in the target.
class ExistingFile {
public:
    virtual ~ExistingFile() = default;
    // Up to `size` bytes at `offset`; fewer only at the end of the file.
    virtual size_t ReadAt(uint64_t offset, void* data, size_t size) = 0;
};

class RestoreTarget {
public:
    virtual ~RestoreTarget() = default;

    // Refuses, before anything is written, what the restore could not do
    // safely (throws Error, local file, naming the entry).
    virtual void Check(const std::string& relativePath, EntryKind kind) const = 0;
    // A file; a sparse one is written with holes where its data is zeros.
    virtual std::unique_ptr<RestoredFile> MakeFile(const std::string& relativePath, const Node& node) = 0;
    // The folder (made when missing) and its metadata: called once
    // everything beneath it is in place. "" is DEST_DIR itself.
    virtual void MakeFolder(const std::string& relativePath, const Node& node) = 0;
    virtual void MakeLink(const std::string& relativePath, const Node& node) = 0;
    // A FIFO or a device node.
    virtual void MakeSpecial(const std::string& relativePath, const Node& node) = 0;
    // Another name for a file restored already.
    virtual void MakeHardLink(const std::string& relativePath, const std::string& existing) = 0;
    // What could not be kept, one line each, since the last call.
    virtual std::vector<std::string> TakeNotes() = 0;
    // Whether entries get their recorded owners (a POSIX restore as root):
    // only then are set-user-ID and set-group-ID bits restored.
    virtual bool KeepsOwners() const { return false; }

    // What lies at the path, never following a link; none when nothing does
    // (or a link or a file stands on the way).
    virtual std::optional<ExistingEntry> Existing(const std::string& relativePath) const = 0;
    // The regular file at the path, opened without following a link; none
    // when there is no such file.
    virtual std::unique_ptr<ExistingFile> OpenExisting(const std::string& relativePath) const = 0;
    // Removes every entry whose path is not in `kept` (a folder with all
    // beneath it), never following a link; answers what it removed.
    virtual std::vector<std::string> RemoveAllBut(const std::set<std::string>& kept) = 0;
};

}  // namespace qvhost::repo
