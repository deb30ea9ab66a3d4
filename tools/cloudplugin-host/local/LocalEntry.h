// What the backup's source reads of one entry of the local file system, in
// the system's own terms: LocalEntryPosix.cpp (lstat, readlink, the owner's
// names, extended attributes) and LocalEntryWin32.cpp (the file's
// information by handle, its attributes and security descriptor). The walk
// over folders and paths (LocalSource.cpp) is the same on both.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "repository/Source.h"

namespace qvhost::localentry {

// What a Windows entry has beyond a POSIX one, kept as extended attributes
// of its node: its attributes (read-only, hidden, system, archive) as a
// hexadecimal number, and its security descriptor's owner, group and DACL
// as SDDL text. A Windows restore gives both back.
constexpr const char* kWindowsAttributesXattr = "windows.attributes";
constexpr const char* kWindowsSecurityXattr = "windows.security";

// The names in a folder, sorted (not "." and ".."); `error` says why they
// could not all be read.
std::vector<std::string> FolderNames(const std::string& full, std::string& error);

// What a scan's filter and the walk ask of an entry (a link not followed:
// neither folder nor file).
struct EntryStatus {
    bool isFolder = false;
    bool isFile = false;
    uint64_t size = 0;    // files
    uint64_t device = 0;  // the file system (POSIX st_dev; a Windows volume's serial number)
};
// False, with `error` saying why, when the entry's status cannot be read.
bool StatusOf(const std::string& full, EntryStatus& status, std::string& error);

// What tells a file changed since its listing.
struct FileState {
    uint64_t size = 0;
    int64_t modifiedNs = 0;
    int64_t changedNs = 0;
};
// Throws Error (local file) when the entry's status cannot be read.
FileState StateOf(const std::string& full);
inline bool SameState(const FileState& state, const repo::Node& file) {
    return state.size == file.size && state.modifiedNs == file.modifiedNs && state.changedNs == file.changedNs;
}

// Reads entries, remembering the names of owners it has looked up.
class EntryReader {
public:
    // Fills `node` (its name already set) from the entry at `full`; answers
    // false, with the reason in `listing`, when the entry is left out.
    // `relative` is its path in the tree, checked against what a restore
    // would refuse unless `isRoot` (the tree's own root folder).
    bool Read(const std::string& full, const std::string& relative, repo::Node& node, repo::Listing& listing,
              bool isRoot = false);

private:
    std::map<uint32_t, std::string> users_;
    std::map<uint32_t, std::string> groups_;
};

}  // namespace qvhost::localentry
