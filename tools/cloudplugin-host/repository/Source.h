// The tree a backup reads, as the backup sees it: one folder at a time, each
// entry with everything a restore needs to give it back. The tool's own
// source is the local file system (local/LocalSource.h); tests may give
// others.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "repository/Tree.h"
#include "util/Entry.h"

namespace qvhost::repo {

// A file of the tree, open for reading from its start.
class SourceReader {
public:
    virtual ~SourceReader() = default;
    // Reads `size` bytes unless the file ends first; answers the bytes read.
    virtual size_t Read(void* buffer, size_t size) = 0;
};

// One folder of the tree: its entries (files without content, folders
// without entries: the backup fills those in) sorted by name, and what it
// leaves out (paths relative to the tree's root).
struct Listing {
    std::vector<Node> nodes;
    std::vector<SkippedEntry> skipped;
};

class Source {
public:
    virtual ~Source() = default;

    // The absolute paths the tree is made of, as a snapshot records them.
    virtual std::vector<std::string> Paths() const = 0;
    // A folder of the tree ("" for its root, else a '/'-separated relative
    // path). Throws Error (local file) when the root cannot be read at all;
    // a folder below it that cannot be read is listed empty, with the
    // reason among `skipped`.
    virtual Listing List(const std::string& folder) = 0;
    // Opens a file the listing gave (a link is never followed). Throws
    // Error (local file).
    virtual std::unique_ptr<SourceReader> Open(const std::string& path) = 0;
    // Whether the file is still as its listing found it (size and times):
    // one that changed while it was read is not kept. Throws Error (local
    // file).
    virtual bool Unchanged(const std::string& path, const Node& file) = 0;
    // When the tree is one folder: that folder's own node (mode, times,
    // owner, extended attributes; named kRootFolderName), for a restore to
    // give DEST_DIR; what of it cannot be kept goes to `skipped`.
    virtual std::optional<Node> RootFolder(std::vector<SkippedEntry>& skipped) {
        (void)skipped;
        return std::nullopt;
    }
    // Whether a file's listing gives its size (else, for a stream, the size
    // is what reading it gives).
    virtual bool SizesKnownBeforeReading() const { return true; }
};

}  // namespace qvhost::repo
