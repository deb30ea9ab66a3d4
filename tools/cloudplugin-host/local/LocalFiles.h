// The local side of a backup: walking a source tree, reading files, writing
// single files, modification times in nanoseconds since 1970 (UTC). Paths
// are UTF-8 text; relative paths use '/'.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "util/Entry.h"

namespace qvhost {

// The path of UTF-8 text, in the platform's own form.
std::filesystem::path PathOf(const std::string& utf8);

// What a scan does with an entry it meets, asked before anything of the
// entry is read: keep it, leave it out (a folder is then not listed), or
// keep a folder without listing it (as an empty folder).
enum class ScanChoice { Keep, Exclude, KeepEmpty };
struct ScanCandidate {
    const std::string& relativePath;
    const std::filesystem::path& path;     // the root joined with the relative path
    std::filesystem::file_type type;       // not following a link; none when unknown
};
using ScanFilter = std::function<ScanChoice(const ScanCandidate&)>;

// Throws Error (local file) when root is not a readable folder. Without a
// filter everything is kept.
SourceTree ScanTree(const std::string& root, const ScanFilter& filter = {});

// The absolute, normalised form of a path (the path itself when that fails).
std::string AbsolutePath(const std::string& path);

// The whole of a small file the user names (a password, a price table, a
// list of patterns or of paths). Throws Error (local file) naming `what`
// when it cannot be read or holds more than `limit` bytes.
std::string ReadUserFile(const std::string& path, const std::string& what, size_t limit);

// root + relative path, with the platform's separators.
std::string JoinPath(const std::string& root, const std::string& relativePath);

// Of the entry itself: a link's own time, not its target's.
int64_t ModifiedNs(const std::string& path);
void SetModifiedNs(const std::string& path, int64_t modifiedNs);

// A file open for reading; a symbolic link is not followed. Throws
// Error (local file) on failure.
class InputFile {
public:
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // Reads exactly `size` bytes at the current position unless the file
    // ends first; answers the bytes read.
    size_t Read(void* buffer, size_t size);
    // The same at `offset`, leaving the position alone (threads may share
    // nothing but the path: each opens its own InputFile).
    size_t ReadAt(uint64_t offset, void* buffer, size_t size);

private:
    std::string path_;
#ifdef _WIN32
    void* handle_ = nullptr;
#else
    int fd_ = -1;
#endif
    uint64_t position_ = 0;
};

// Windows counts file times in 100 ns ticks since 1601; we count
// nanoseconds since 1970.
constexpr int64_t kEpochDifference100ns = 116444736000000000LL;
constexpr int64_t WindowsTicksOf(int64_t ns) { return ns / 100 + kEpochDifference100ns; }
constexpr int64_t NanosecondsOfWindowsTicks(int64_t ticks) { return (ticks - kEpochDifference100ns) * 100; }

// The size of a file (not following a link); throws Error (local file).
uint64_t FileSize(const std::string& path);

// A new file written from the start, for single-object commands; made (with
// its folders) by the constructor, which refuses to replace an existing
// file unless told to. Restores use Destination instead.
class OutputFile {
public:
    OutputFile(const std::string& path, bool replace);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void Write(const void* data, size_t size);
    void Close();  // flushes; throws on failure

private:
    std::string path_;
    std::FILE* file_ = nullptr;
};

void MakeFolders(const std::string& path);

}  // namespace qvhost
