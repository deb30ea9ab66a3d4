#include "local/LocalFiles.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "util/PathRules.h"
#include "util/Error.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace qvhost {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void Fail(const std::string& what, const std::string& path, const std::string& reason) {
    throw Error(ErrorKind::LocalFile, "cannot " + what + " " + path + ": " + reason);
}

#ifdef _WIN32
// Windows file times count 100 ns steps since 1601.

std::FILE* OpenFile(const std::string& path, const char* mode) {
    const std::wstring wideMode(mode, mode + std::strlen(mode));
    return _wfopen(PathOf(path).wstring().c_str(), wideMode.c_str());
}

uint32_t ModeOf(const fs::path& path) {
    std::error_code error;
    return static_cast<uint32_t>(fs::symlink_status(path, error).permissions()) & 07777;
}

// The file index NTFS keeps for a file, which stays while the file is
// renamed; 0 when it cannot be read.
uint64_t FileIdOf(const fs::path& path) {
    HANDLE file = CreateFileW(path.wstring().c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE |
                              FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE) return 0;
    BY_HANDLE_FILE_INFORMATION information;
    const bool read = GetFileInformationByHandle(file, &information) != 0;
    CloseHandle(file);
    return read ? (static_cast<uint64_t>(information.nFileIndexHigh) << 32) | information.nFileIndexLow : 0;
}
#else
std::FILE* OpenFile(const std::string& path, const char* mode) { return std::fopen(path.c_str(), mode); }
#endif

const char* SkippedKind(fs::file_type type) {
    switch (type) {
    case fs::file_type::fifo: return "a FIFO";
    case fs::file_type::socket: return "a socket";
    case fs::file_type::block: return "a block device";
    case fs::file_type::character: return "a character device";
    default: return "of an unknown kind";
    }
}

// Walks one folder at a time, so that a folder that cannot be read is
// reported and the rest of the tree still kept.
class TreeScanner {
public:
    TreeScanner(const std::string& root, const ScanFilter& filter) : root_(PathOf(root)), filter_(filter) {}

    SourceTree Scan() {
        std::vector<std::string> pending = {""};
        while (!pending.empty()) {
            const std::string folder = pending.back();
            pending.pop_back();
            ScanFolder(folder, pending);
        }
        for (auto* entries : {&tree_.files, &tree_.folders, &tree_.links}) {
            std::sort(entries->begin(), entries->end(),
                      [](const SourceEntry& a, const SourceEntry& b) { return a.relativePath < b.relativePath; });
        }
        std::sort(tree_.skipped.begin(), tree_.skipped.end(),
                  [](const SkippedEntry& a, const SkippedEntry& b) { return a.relativePath < b.relativePath; });
        return std::move(tree_);
    }

private:
    void ScanFolder(const std::string& folder, std::vector<std::string>& pending) {
        std::error_code error;
        fs::directory_iterator it(root_ / PathOf(folder), error);
        if (error) {
            if (folder.empty()) Fail("read the folder", root_.u8string(), error.message());
            tree_.skipped.push_back({folder, "cannot read the folder: " + error.message(), true});
            return;
        }
        size_t kept = 0;
        for (const fs::directory_iterator end; !error && it != end; it.increment(error)) {
            const std::string name = it->path().filename().u8string();
            const std::string path = folder.empty() ? name : folder + "/" + name;
            std::error_code statusError;
            const fs::file_status status = it->symlink_status(statusError);
            kept += Add(path, it->path(), status, statusError, pending) ? 1 : 0;
        }
        if (error) tree_.skipped.push_back({folder, "cannot read the whole folder: " + error.message(), true});
        if (kept == 0 && !folder.empty()) AddEmptyFolder(folder);
    }

    // Answers whether the entry is kept (a subfolder counts as kept).
    bool Add(const std::string& path, const fs::path& full, const fs::file_status& status,
             const std::error_code& error, std::vector<std::string>& pending) {
        const ScanChoice choice =
            filter_ ? filter_({path, full, error ? fs::file_type::none : status.type()}) : ScanChoice::Keep;
        if (choice == ScanChoice::Exclude) return false;
        if (error) return Skip(path, "cannot read its status: " + error.message(), true);
        if (std::string why = WhyPathIsRefused(path); !why.empty()) {
            return Skip(path, "its path " + why + ", which a restore would refuse", true);
        }
        try {
            switch (status.type()) {
            case fs::file_type::directory:
                if (choice == ScanChoice::KeepEmpty) AddEmptyFolder(path);  // not listed
                else pending.push_back(path);
                return true;
            case fs::file_type::regular: return AddFile(path, full);
            case fs::file_type::symlink: return AddLink(path, full);
            default: return Skip(path, std::string("is ") + SkippedKind(status.type()), false);
            }
        } catch (const Error& failure) {  // gone or unreadable since it was listed
            return Skip(path, failure.what(), true);
        }
    }

    bool AddFile(const std::string& path, const fs::path& full) {
        std::error_code error;
        SourceEntry entry = Entry(EntryKind::File, path, full);
        entry.size = fs::file_size(full, error);
        if (error) return Skip(path, "cannot read its size: " + error.message(), true);
        tree_.files.push_back(std::move(entry));
        return true;
    }

    bool AddLink(const std::string& path, const fs::path& full) {
        std::error_code error;
        SourceEntry entry = Entry(EntryKind::Link, path, full);
        entry.linkTarget = fs::read_symlink(full, error).u8string();
        if (error) return Skip(path, "cannot read the link: " + error.message(), true);
        if (std::string why = WhyLinkTargetIsRefused(entry.linkTarget); !why.empty()) return Skip(path, why, true);
        tree_.links.push_back(std::move(entry));
        return true;
    }

    void AddEmptyFolder(const std::string& path) {
        try {
            tree_.folders.push_back(Entry(EntryKind::Folder, path, root_ / PathOf(path)));
        } catch (const Error& failure) {
            Skip(path, failure.what(), true);
        }
    }

    bool Skip(const std::string& path, const std::string& reason, bool unreadable) {
        tree_.skipped.push_back({path, reason, unreadable});
        return false;
    }

    static SourceEntry Entry(EntryKind kind, const std::string& path, const fs::path& full) {
        SourceEntry entry;
        entry.kind = kind;
        entry.relativePath = path;
#ifdef _WIN32
        entry.mode = ModeOf(full);
        entry.modifiedNs = ModifiedNs(full.u8string());
        entry.fileId = FileIdOf(full);
#else
        // One lstat for everything: a scan of many files is mostly these calls.
        struct stat info;
        if (lstat(full.c_str(), &info) != 0) Fail("read the status of", full.u8string(), ErrnoText());
        entry.mode = static_cast<uint32_t>(info.st_mode) & 07777;
        entry.modifiedNs = static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
        entry.fileId = static_cast<uint64_t>(info.st_ino);
#endif
        return entry;
    }

    fs::path root_;
    const ScanFilter& filter_;
    SourceTree tree_;
};

}  // namespace

std::filesystem::path PathOf(const std::string& utf8) { return fs::u8path(utf8); }

SourceTree ScanTree(const std::string& root, const ScanFilter& filter) {
    std::error_code error;
    if (!fs::is_directory(PathOf(root), error)) Fail("back up", root, "not a folder");
    return TreeScanner(root, filter).Scan();
}

std::string AbsolutePath(const std::string& path) {
    std::error_code error;
    const fs::path absolute = fs::absolute(PathOf(path), error);
    return error ? path : absolute.lexically_normal().u8string();
}

std::string ReadUserFile(const std::string& path, const std::string& what, size_t limit) {
    std::ifstream in(PathOf(path), std::ios::binary);
    if (!in) throw Error(ErrorKind::LocalFile, "cannot read the " + what + " " + path + ": " + std::strerror(errno));
    std::string text;
    char buffer[65536];
    while (in && text.size() <= limit) {
        in.read(buffer, sizeof buffer);
        text.append(buffer, static_cast<size_t>(in.gcount()));
    }
    if (in.bad()) throw Error(ErrorKind::LocalFile, "cannot read the " + what + " " + path);
    if (text.size() > limit) {
        throw Error(ErrorKind::LocalFile, "the " + what + " " + path + " is over " + std::to_string(limit) + " bytes");
    }
    return text;
}

std::string JoinPath(const std::string& root, const std::string& relativePath) {
    return (PathOf(root) / PathOf(relativePath)).make_preferred().u8string();
}

int64_t ModifiedNs(const std::string& path) {
#ifdef _WIN32
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(PathOf(path).wstring().c_str(), GetFileExInfoStandard, &data)) {
        Fail("read the time of", path, "error " + std::to_string(GetLastError()));
    }
    const int64_t ticks = (static_cast<int64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
                          data.ftLastWriteTime.dwLowDateTime;
    return NanosecondsOfWindowsTicks(ticks);
#else
    struct stat info;
    if (lstat(path.c_str(), &info) != 0) Fail("read the time of", path, ErrnoText());
    return static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
#endif
}

void SetModifiedNs(const std::string& path, int64_t modifiedNs) {
#ifdef _WIN32
    HANDLE file = CreateFileW(PathOf(path).wstring().c_str(), FILE_WRITE_ATTRIBUTES,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE) Fail("set the time of", path, "error " + std::to_string(GetLastError()));
    const int64_t ticks = WindowsTicksOf(modifiedNs);
    FILETIME time{static_cast<DWORD>(ticks & 0xFFFFFFFF), static_cast<DWORD>(ticks >> 32)};
    const BOOL done = SetFileTime(file, nullptr, nullptr, &time);
    CloseHandle(file);
    if (!done) Fail("set the time of", path, "error " + std::to_string(GetLastError()));
#else
    // Floor division keeps times before 1970 right.
    int64_t seconds = modifiedNs / 1000000000;
    int64_t nanoseconds = modifiedNs % 1000000000;
    if (nanoseconds < 0) nanoseconds += 1000000000, --seconds;
    const struct timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), static_cast<long>(nanoseconds)}};
    if (utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) Fail("set the time of", path, ErrnoText());
#endif
}

#ifdef _WIN32
InputFile::InputFile(const std::string& path)
    : path_(path),
      handle_(CreateFileW(PathOf(path).wstring().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr)) {
    if (handle_ == INVALID_HANDLE_VALUE) Fail("open", path, "error " + std::to_string(GetLastError()));
}

InputFile::~InputFile() { CloseHandle(handle_); }

size_t InputFile::ReadAt(uint64_t offset, void* buffer, size_t size) {
    auto* bytes = static_cast<uint8_t*>(buffer);
    size_t done = 0;
    while (done < size) {
        OVERLAPPED at{};
        at.Offset = static_cast<DWORD>((offset + done) & 0xFFFFFFFF);
        at.OffsetHigh = static_cast<DWORD>((offset + done) >> 32);
        DWORD read = 0;
        const DWORD want = static_cast<DWORD>(std::min<size_t>(size - done, 1u << 30));
        if (!ReadFile(handle_, bytes + done, want, &read, &at)) {
            if (GetLastError() == ERROR_HANDLE_EOF) break;
            Fail("read", path_, "error " + std::to_string(GetLastError()));
        }
        if (read == 0) break;
        done += read;
    }
    return done;
}

uint64_t FileSize(const std::string& path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(PathOf(path).wstring().c_str(), GetFileExInfoStandard, &data)) {
        Fail("read the size of", path, "error " + std::to_string(GetLastError()));
    }
    return (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}
#else
namespace {

// O_NOFOLLOW: a file that became a link since the tree was listed is not
// followed out of the tree. O_NOATIME: reading it leaves its access time as
// the backup recorded it (and the next backup finds it unchanged); the
// system allows that to the file's owner and root, so anyone else reads it
// without.
int OpenForReading(const std::string& path) {
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC;
#ifdef O_NOATIME
    const int fd = open(path.c_str(), kFlags | O_NOATIME);
    if (fd >= 0 || errno != EPERM) return fd;
#endif
    return open(path.c_str(), kFlags);
}

}  // namespace

InputFile::InputFile(const std::string& path) : path_(path), fd_(OpenForReading(path)) {
    if (fd_ < 0) Fail("open", path, ErrnoText());
}

InputFile::~InputFile() { close(fd_); }

size_t InputFile::ReadAt(uint64_t offset, void* buffer, size_t size) {
    auto* bytes = static_cast<uint8_t*>(buffer);
    size_t done = 0;
    while (done < size) {
        const ssize_t read = pread(fd_, bytes + done, size - done, static_cast<off_t>(offset + done));
        if (read < 0 && errno == EINTR) continue;
        if (read < 0) Fail("read", path_, ErrnoText());
        if (read == 0) break;
        done += static_cast<size_t>(read);
    }
    return done;
}

uint64_t FileSize(const std::string& path) {
    struct stat info;
    if (lstat(path.c_str(), &info) != 0) Fail("read the size of", path, ErrnoText());
    return static_cast<uint64_t>(info.st_size);
}
#endif

size_t InputFile::Read(void* buffer, size_t size) {
    const size_t read = ReadAt(position_, buffer, size);
    position_ += read;
    return read;
}

OutputFile::OutputFile(const std::string& path, bool replace) : path_(path) {
    MakeFolders(PathOf(path).parent_path().u8string());
    // "x": fail rather than replace a file that appeared meanwhile.
    file_ = OpenFile(path, replace ? "wb" : "wbx");
    if (!file_) Fail("create", path, ErrnoText());
}

OutputFile::~OutputFile() {
    if (file_) std::fclose(file_);
}

void OutputFile::Write(const void* data, size_t size) {
    if (size && std::fwrite(data, 1, size, file_) != size) Fail("write", path_, ErrnoText());
}

void OutputFile::Close() {
    if (!file_) return;
    const bool failed = std::fflush(file_) != 0 || std::ferror(file_);
    const int closed = std::fclose(file_);
    file_ = nullptr;
    if (failed || closed != 0) Fail("write", path_, ErrnoText());
}

void MakeFolders(const std::string& path) {
    if (path.empty()) return;
    std::error_code error;
    fs::create_directories(PathOf(path), error);
    if (error) Fail("create the folder", path, error.message());
}

}  // namespace qvhost
