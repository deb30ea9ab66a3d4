// Where a restore writes: a destination folder that nothing a manifest names
// can leave.
//
// Paths reaching here have passed PathRules, so they are relative and have
// no ".." component; what remains is the file system itself. A symbolic link
// inside the destination (left there before, or made meanwhile) could lead a
// write anywhere, so every folder on the way to an entry is opened without
// following links (openat with O_NOFOLLOW, one component at a time) and a
// link found on the way is refused. A file is written under a temporary
// name in its folder and renamed into place only once complete; the rename
// replaces an existing file or link itself (with --overwrite), never
// what a link points to.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "local/LocalFiles.h"
#include "repository/RestoreTarget.h"

namespace qvhost {

class Destination : public repo::RestoreTarget {
public:
    // Makes the folder when missing. Throws Error (local file).
    Destination(const std::string& root, bool overwrite);
    ~Destination();
    Destination(const Destination&) = delete;
    Destination& operator=(const Destination&) = delete;

    // Refuses, before anything is written, what the restore could not do
    // safely: a symbolic link or a file on the way to the entry, or an
    // existing entry that would be replaced (unless overwriting; a folder
    // in place of a file or a link is never replaced). Throws Error
    // (local file) naming the entry.
    void Check(const std::string& relativePath, EntryKind kind) const override;

    std::unique_ptr<repo::RestoredFile> MakeFile(const std::string& relativePath) override;
    void MakeFolder(const FolderRecord& folder) override;
    void MakeLink(const LinkRecord& link) override;

    const std::string& root() const { return root_; }

private:
    struct Handle;

    std::string root_;
    bool overwrite_;
    std::unique_ptr<Handle> handle_;
};

}  // namespace qvhost
