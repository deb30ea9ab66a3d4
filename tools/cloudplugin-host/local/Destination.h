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
//
// Metadata is given back as far as the system lets it: mode (never the
// set-ID bits), times, extended attributes, and owners when running as root
// (by name where the name exists here, unless numericOwner); FIFOs always,
// device nodes as root. What cannot be kept is noted, one line each.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <mutex>
#include <string>
#include <vector>

#include "local/LocalFiles.h"
#include "repository/RestoreTarget.h"

namespace qvhost {

// How a restore treats what it finds and whom it gives files to.
struct DestinationOptions {
    bool overwrite = false;     // replace existing files and links (never a folder); which ones the restore decides
    bool numericOwner = false;  // owners by their recorded ids, not by their names on this machine
};

class Destination : public repo::RestoreTarget {
public:
    // Makes the folder when missing. Throws Error (local file).
    Destination(const std::string& root, const DestinationOptions& options);
    ~Destination() override;
    Destination(const Destination&) = delete;
    Destination& operator=(const Destination&) = delete;

    // Refuses, before anything is written, what the restore could not do
    // safely: a symbolic link or a file on the way to the entry, or an
    // existing entry that would be replaced (unless overwriting; a folder
    // in place of a file or a link is never replaced). Throws Error
    // (local file) naming the entry.
    void Check(const std::string& relativePath, EntryKind kind) const override;

    std::unique_ptr<repo::RestoredFile> MakeFile(const std::string& relativePath, const repo::Node& node) override;
    void MakeFolder(const std::string& relativePath, const repo::Node& node) override;
    void MakeLink(const std::string& relativePath, const repo::Node& node) override;
    void MakeSpecial(const std::string& relativePath, const repo::Node& node) override;
    void MakeHardLink(const std::string& relativePath, const std::string& existing) override;
    std::vector<std::string> TakeNotes() override;
    bool KeepsOwners() const override;
    std::optional<repo::ExistingEntry> Existing(const std::string& relativePath) const override;
    std::unique_ptr<repo::ExistingFile> OpenExisting(const std::string& relativePath) const override;
    std::vector<std::string> RemoveAllBut(const std::set<std::string>& kept) override;

    const std::string& root() const { return root_; }

    // Notes what could not be kept (from any job).
    void Note(const std::string& text);

    struct Handle;

private:
    std::string root_;
    DestinationOptions options_;
    std::unique_ptr<Handle> handle_;
    std::mutex notesMutex_;
    std::vector<std::string> notes_;
};

}  // namespace qvhost
