#include "LocalFiles.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "ToolError.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#endif

namespace qvhost {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void Fail(const std::string& what, const std::string& path, const std::string& reason) {
    throw ToolError(kExitLocalFile, "cannot " + what + " " + path + ": " + reason);
}

std::string ErrnoText() { return std::strerror(errno); }

std::FILE* OpenFile(const std::string& path, const char* mode) {
#ifdef _WIN32
    const std::wstring widePath = PathOf(path).wstring();
    const std::wstring wideMode(mode, mode + std::strlen(mode));
    return _wfopen(widePath.c_str(), wideMode.c_str());
#else
    return std::fopen(path.c_str(), mode);
#endif
}

#ifdef _WIN32
// Windows file times count 100 ns steps since 1601.
constexpr int64_t kEpochDifference100ns = 116444736000000000LL;
#endif

}  // namespace

std::filesystem::path PathOf(const std::string& utf8) { return fs::u8path(utf8); }

std::vector<SourceFile> ListTree(const std::string& root) {
    std::error_code error;
    if (!fs::is_directory(PathOf(root), error)) Fail("back up", root, "not a folder");
    std::vector<SourceFile> files;
    fs::recursive_directory_iterator it(PathOf(root), fs::directory_options::none, error);
    if (error) Fail("read the folder", root, error.message());
    for (const fs::recursive_directory_iterator end; it != end; it.increment(error)) {
        if (error) Fail("read the folder", root, error.message());
        const fs::file_status status = it->symlink_status(error);
        if (error || !fs::is_regular_file(status)) continue;
        SourceFile file;
        file.relativePath = it->path().lexically_relative(PathOf(root)).generic_u8string();
        file.size = it->file_size(error);
        if (error) Fail("read the size of", it->path().u8string(), error.message());
        file.modifiedNs = ModifiedNs(it->path().u8string());
        files.push_back(std::move(file));
    }
    if (error) Fail("read the folder", root, error.message());
    std::sort(files.begin(), files.end(),
              [](const SourceFile& a, const SourceFile& b) { return a.relativePath < b.relativePath; });
    return files;
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
    return (ticks - kEpochDifference100ns) * 100;
#else
    struct stat info;
    if (stat(path.c_str(), &info) != 0) Fail("read the time of", path, ErrnoText());
    return static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
#endif
}

void SetModifiedNs(const std::string& path, int64_t modifiedNs) {
#ifdef _WIN32
    HANDLE file = CreateFileW(PathOf(path).wstring().c_str(), FILE_WRITE_ATTRIBUTES,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                              nullptr);
    if (file == INVALID_HANDLE_VALUE) Fail("set the time of", path, "error " + std::to_string(GetLastError()));
    const int64_t ticks = modifiedNs / 100 + kEpochDifference100ns;
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
    if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) Fail("set the time of", path, ErrnoText());
#endif
}

InputFile::InputFile(const std::string& path) : path_(path), file_(OpenFile(path, "rb")) {
    if (!file_) Fail("open", path, ErrnoText());
}

InputFile::~InputFile() {
    if (file_) std::fclose(file_);
}

size_t InputFile::Read(void* buffer, size_t size) {
    const size_t read = std::fread(buffer, 1, size, file_);
    if (read < size && std::ferror(file_)) Fail("read", path_, ErrnoText());
    return read;
}

void InputFile::Rewind() {
    if (std::fseek(file_, 0, SEEK_SET) != 0) Fail("rewind", path_, ErrnoText());
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

bool PathExists(const std::string& path) {
    std::error_code error;
    return fs::exists(fs::symlink_status(PathOf(path), error));
}

void RemoveFile(const std::string& path) {
    std::error_code error;
    fs::remove(PathOf(path), error);
}

void RenameFile(const std::string& from, const std::string& to) {
    std::error_code error;
    fs::rename(PathOf(from), PathOf(to), error);
    if (error) Fail("rename", from, error.message());
}

void MakeFolders(const std::string& path) {
    if (path.empty()) return;
    std::error_code error;
    fs::create_directories(PathOf(path), error);
    if (error) Fail("create the folder", path, error.message());
}

}  // namespace qvhost
