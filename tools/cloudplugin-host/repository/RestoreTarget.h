// Where a restore writes, as the restore sees it. The tool's own target is
// a destination folder that nothing read from storage can leave
// (local/Destination.h); tests may give others.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "util/Entry.h"

namespace qvhost::repo {

// A file being restored; removed unless committed.
class RestoredFile {
public:
    virtual ~RestoredFile() = default;
    // Writes `size` bytes at `offset` (pieces of one file may arrive in any order).
    virtual void WriteAt(uint64_t offset, const void* data, size_t size) = 0;
    // Sets the mode (permission and sticky bits; set-user-ID and
    // set-group-ID are never restored) and the time, then moves the file
    // into place.
    virtual void Commit(std::optional<uint32_t> mode, int64_t modifiedNs) = 0;
};

class RestoreTarget {
public:
    virtual ~RestoreTarget() = default;

    // Refuses, before anything is written, what the restore could not do
    // safely (throws Error, local file, naming the entry).
    virtual void Check(const std::string& relativePath, EntryKind kind) const = 0;
    virtual std::unique_ptr<RestoredFile> MakeFile(const std::string& relativePath) = 0;
    virtual void MakeFolder(const FolderRecord& folder) = 0;
    virtual void MakeLink(const LinkRecord& link) = 0;
};

}  // namespace qvhost::repo
