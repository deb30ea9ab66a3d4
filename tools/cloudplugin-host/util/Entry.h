// What a backup knows of the entries of a file system: what a scan of a
// source tree finds and what it leaves out, and the records of folders and
// links that both backup layouts keep. Paths are UTF-8 text, relative to
// the tree's root, '/'-separated.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qvhost {

// Permission bits with set-user-ID, set-group-ID and sticky.
constexpr uint32_t kModeBits = 07777;
// Set-user-ID and set-group-ID, which a restore never sets.
constexpr uint32_t kSetIdBits = 06000;

enum class EntryKind { File, Folder, Link };

struct SourceEntry {
    EntryKind kind = EntryKind::File;
    std::string relativePath;  // '/'-separated, UTF-8
    uint64_t size = 0;         // files
    int64_t modifiedNs = 0;
    uint32_t mode = 0;         // permission, set-ID and sticky bits
    std::string linkTarget;    // links: the link's own text, never followed
    uint64_t fileId = 0;       // the inode (the file index on Windows); 0 when unknown
};

// An entry that a backup does not keep. FIFOs, sockets and devices are
// skipped by design; an entry that could not be read (or whose name a
// restore would refuse) is `unreadable`, which a backup reports as a
// failure unless told to skip such entries.
struct SkippedEntry {
    std::string relativePath;
    std::string reason;
    bool unreadable = false;
};

// What a backup keeps of a tree: regular files, empty folders (folders in
// which nothing is kept) and symbolic links (as links, never followed),
// each sorted by relative path; and what it skips.
struct SourceTree {
    std::vector<SourceEntry> files;
    std::vector<SourceEntry> folders;
    std::vector<SourceEntry> links;
    std::vector<SkippedEntry> skipped;
};

// A folder as a backup keeps it.
struct FolderRecord {
    std::string relativePath;
    int64_t modifiedNs = 0;
    uint32_t mode = 0755;
};

// A symbolic link as a backup keeps it: its own text, never followed.
struct LinkRecord {
    std::string relativePath;
    std::string target;
    int64_t modifiedNs = 0;
};

}  // namespace qvhost
