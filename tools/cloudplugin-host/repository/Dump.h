// Writing what a snapshot holds at a path to a stream: a file's content, or
// a folder (or the whole snapshot) as a tar stream of everything below it,
// with modes, times, owners, links and extended attributes.
//
// Every chunk is read on its own, opened and checked against its id before
// a byte of it is written, as a restore checks it; the first chunk that
// fails ends the dump with Error (damaged), nothing of it written.
#pragma once

#include <cstdint>
#include <string>

#include "repository/TreeReader.h"
#include "util/Tar.h"

namespace qvhost::repo {

struct DumpReport {
    bool tar = false;  // a folder, written as tar
    uint64_t files = 0;
    uint64_t folders = 0;
    uint64_t links = 0;   // symbolic and hard links
    uint64_t skipped = 0; // sockets: tar has no type for them
    uint64_t bytes = 0;   // file content written
};

// A file's content. Throws Error (damaged) naming `path` when a chunk is
// in no index, its chunks do not add up to the file's size (before
// anything is written), or a chunk does not read or open.
uint64_t DumpFile(Repository& repository, const MasterIndex& index, const Node& file, const std::string& path,
                  const ByteSink& sink);

// What lies at `path` ("/" or empty: the whole snapshot, as tar): a file's
// content, else a tar stream. Throws Error (not found) when nothing is there.
DumpReport DumpPath(Repository& repository, const MasterIndex& index, const Snapshot& snapshot,
                    const std::string& path, const ByteSink& sink);

}  // namespace qvhost::repo
