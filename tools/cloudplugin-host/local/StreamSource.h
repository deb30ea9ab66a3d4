// A backup of one stream rather than of files: standard input, or what a
// command writes to its standard output (a database dump, say). The
// snapshot holds one file, NAME (folders on its way are implicit), of mode
// 0644 and modified when the backup ran; its path is /NAME. A stream is
// always read whole: it has no inode to compare with the parent's.
//
// A command that cannot be started, or that ends with a non-zero status or
// a signal, fails the backup as a whole (ErrorKind::SourceFailed): no
// snapshot is written, and since the stream is read before anything of it
// is sealed into a pack that fills, a failing command whose output is
// smaller than a pack leaves nothing in the repository at all. Larger
// output leaves the packs already uploaded, as an interrupted backup does:
// the next backup reuses them, `prune` removes them.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "repository/Source.h"

namespace qvhost {

class StreamSource : public repo::Source {
public:
    // Reads standard input. Throws Error (usage) for a name a restore would
    // refuse.
    explicit StreamSource(const std::string& name);
    // Starts `command` (its first word found on PATH, no shell), its
    // standard input and error those of this process. Throws Error (usage)
    // for a bad name or no command, (source failed) when it cannot start.
    StreamSource(const std::string& name, const std::vector<std::string>& command);
    ~StreamSource() override;
    StreamSource(const StreamSource&) = delete;
    StreamSource& operator=(const StreamSource&) = delete;

    std::vector<std::string> Paths() const override { return {"/" + name_}; }
    repo::Listing List(const std::string& folder) override;
    // Once only: a stream cannot be read twice.
    std::unique_ptr<repo::SourceReader> Open(const std::string& path) override;
    bool Unchanged(const std::string&, const repo::Node&) override { return true; }
    bool SizesKnownBeforeReading() const override { return false; }

    // Reads up to `size` bytes; at the end of the stream, waits for the
    // command and throws Error (source failed) when it failed.
    size_t Read(void* buffer, size_t size);

private:
    void Finish();  // closes the stream and collects the command

    std::string name_;  // '/'-separated, relative
    std::string commandText_;
    int fd_ = 0;        // standard input, or the command's output
    pid_t child_ = -1;  // the command, until collected
    bool opened_ = false;
    int64_t startedNs_ = 0;
};

}  // namespace qvhost
