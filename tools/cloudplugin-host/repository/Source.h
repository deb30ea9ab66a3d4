// The tree a backup reads, as the backup sees it. The tool's own source is
// a folder of the local file system (local/LocalSource.h); tests may give
// others.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "util/Entry.h"

namespace qvhost::repo {

// A file of the tree, open for reading from its start.
class SourceReader {
public:
    virtual ~SourceReader() = default;
    // Reads `size` bytes unless the file ends first; answers the bytes read.
    virtual size_t Read(void* buffer, size_t size) = 0;
};

class Source {
public:
    virtual ~Source() = default;

    // Where the tree is, as a snapshot records it (an absolute path).
    virtual std::string Path() const = 0;
    // What the tree holds and what a backup leaves out of it. Throws Error
    // (local file) when the tree cannot be read at all.
    virtual SourceTree Scan() = 0;
    // Opens a file the scan found (a link is never followed). Throws Error
    // (local file).
    virtual std::unique_ptr<SourceReader> Open(const SourceEntry& file) = 0;
    // Whether the file is still as the scan found it (size and time): one
    // that changed while it was read is not kept. Throws Error (local file).
    virtual bool Unchanged(const SourceEntry& file) = 0;
};

}  // namespace qvhost::repo
