// Writing a tar stream: POSIX ustar headers, with a pax extended header
// before an entry whose path, link target, owner names, ids, size or
// sub-second time does not fit ustar's fields, or that carries extended
// attributes (as SCHILY.xattr.*, which GNU tar and libarchive read).
//
// The stream is written as it goes: a header, then the entry's content
// (files only) in as many pieces as the caller likes, then the next entry.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace qvhost {

using ByteSink = std::function<void(const uint8_t* data, size_t size)>;

// ustar's type flags.
enum class TarType : char {
    File = '0',
    HardLink = '1',
    Symlink = '2',
    CharDevice = '3',
    BlockDevice = '4',
    Folder = '5',
    Fifo = '6',
    PaxHeader = 'x',  // written by the writer itself
};

struct TarEntry {
    std::string path;  // relative, '/'-separated; a folder's gets its trailing '/' here
    TarType type = TarType::File;
    uint32_t mode = 0;  // permission, set-ID and sticky bits
    uint64_t uid = 0;
    uint64_t gid = 0;
    std::string user;
    std::string group;
    uint64_t size = 0;  // files only
    int64_t modifiedNs = 0;
    std::string linkTarget;  // symlinks: their text; hard links: the earlier entry's path
    uint32_t deviceMajor = 0;
    uint32_t deviceMinor = 0;
    std::vector<std::pair<std::string, std::string>> xattrs;
};

// One pax record: "<length> <key>=<value>\n", the length counting itself.
std::string PaxRecord(const std::string& key, const std::string& value);

class TarWriter {
public:
    explicit TarWriter(ByteSink sink) : sink_(std::move(sink)) {}

    // The entry's header (and its pax header when it needs one). A file's
    // `size` bytes follow through Content before the next Add or Finish.
    void Add(const TarEntry& entry);
    void Content(const uint8_t* data, size_t size);
    // The two empty blocks that end the stream. Throws std::logic_error
    // when a file's content is short.
    void Finish();

private:
    void EndContent();
    void Block(const char* block);

    ByteSink sink_;
    uint64_t expected_ = 0;  // content still owed by the current file
    uint64_t written_ = 0;   // content of the current file so far
    uint64_t pad_ = 0;       // zeros after the current file's content
};

}  // namespace qvhost
