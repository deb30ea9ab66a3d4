// The destination of a restore on POSIX systems: every folder on the way is
// opened relative to the one above it with O_NOFOLLOW, so no symbolic link
// inside the destination is ever followed, whatever appears there while
// the restore runs.
//
// Files are written with direct I/O where the system has it (O_DIRECT):
// the parts go from the job's buffer to the disk without a copy into the
// page cache, which a restore would only fill with data nobody reads soon.
// Direct I/O needs offsets, lengths and buffers on 4 KiB boundaries; the
// first write that is not (a file's last part, a part size that is not a
// multiple of 4 KiB) turns it off for that file, and so does a file system
// that refuses it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "local/Destination.h"
#include "util/Text.h"
#include "util/Error.h"

namespace qvhost {

namespace {

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { Reset(); }
    Fd(Fd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            Reset();
            fd_ = other.fd_;
            other.fd_ = -1;
        }
        return *this;
    }
    int get() const { return fd_; }
    // Closes now; answers close()'s result (0 when nothing was open).
    int Reset() {
        const int result = fd_ >= 0 ? close(fd_) : 0;
        fd_ = -1;
        return result;
    }

private:
    int fd_;
};

[[noreturn]] void Refuse(const std::string& where, const std::string& why) {
    throw Error(ErrorKind::LocalFile, "refusing to restore " + where + ": " + why);
}

[[noreturn]] void Fail(const std::string& what, const std::string& where) {
    throw Error(ErrorKind::LocalFile, "cannot " + what + " " + where + ": " + std::strerror(errno));
}

#ifdef O_DIRECT
constexpr int kDirect = O_DIRECT;
#else
constexpr int kDirect = 0;
#endif
constexpr uint64_t kDirectAlignment = 4096;

timespec TimeOf(int64_t modifiedNs) {
    // Floor division keeps times before 1970 right.
    int64_t seconds = modifiedNs / 1000000000;
    int64_t nanoseconds = modifiedNs % 1000000000;
    if (nanoseconds < 0) nanoseconds += 1000000000, --seconds;
    return {static_cast<time_t>(seconds), static_cast<long>(nanoseconds)};
}

// A name of its own in the entry's folder for the entry being made: no
// other entry of any manifest can take it, and it still fits NAME_MAX.
std::string TemporaryName(const std::string& leaf) {
    thread_local std::mt19937_64 random{std::random_device{}()};
    char suffix[40];
    std::snprintf(suffix, sizeof suffix, ".cloudplugin-partial-%016llx", static_cast<unsigned long long>(random()));
    return leaf.substr(0, 200) + suffix;
}

// After a failed open of `name` in `folder`: a link or a non-folder found
// there is refused by name; anything else is a plain failure.
[[noreturn]] void RefuseOrFail(int folder, const std::string& name, const std::string& shown) {
    const int saved = errno;
    struct stat info;
    if (fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISLNK(info.st_mode)) Refuse(shown, "it is a symbolic link, and a restore never writes through one");
        if (!S_ISDIR(info.st_mode)) Refuse(shown, "it is a file where the backup has a folder");
    }
    errno = saved;
    Fail("open the folder", shown);
}

Fd OpenFolder(int folder, const std::string& name, const std::string& shown, bool create) {
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int fd = openat(folder, name.c_str(), kFlags);
    if (fd < 0 && errno == ENOENT && create) {
        if (mkdirat(folder, name.c_str(), 0777) != 0 && errno != EEXIST) Fail("create the folder", shown);
        fd = openat(folder, name.c_str(), kFlags);
    }
    if (fd < 0) RefuseOrFail(folder, name, shown);
    return Fd(fd);
}

// Renames `from` to `to` in one folder; without `replace`, an existing `to`
// is refused (atomically: RENAME_NOREPLACE, or link-and-unlink where the
// file system lacks it).
void Rename(int folder, const std::string& from, const std::string& to, bool replace, const std::string& shown) {
    if (replace) {
        if (renameat(folder, from.c_str(), folder, to.c_str()) == 0) return;
        if (errno == EISDIR || errno == ENOTEMPTY || errno == EEXIST) Refuse(shown, "it is a folder");
        Fail("move into place", shown);
    }
    if (renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE) == 0) return;
    if (errno == EINVAL || errno == ENOSYS) {
        if (linkat(folder, from.c_str(), folder, to.c_str(), 0) == 0) {
            unlinkat(folder, from.c_str(), 0);
            return;
        }
    }
    if (errno == EEXIST) Refuse(shown, "it exists (--overwrite replaces it)");
    Fail("move into place", shown);
}

class PosixRestoredFile : public repo::RestoredFile {
public:
    PosixRestoredFile(Fd folder, std::string leaf, std::string shown, bool overwrite)
        : folder_(std::move(folder)), leaf_(std::move(leaf)), shown_(std::move(shown)), overwrite_(overwrite) {
        constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        for (int attempt = 0; file_.get() < 0; ++attempt) {
            temporary_ = TemporaryName(leaf_);
            file_ = Fd(openat(folder_.get(), temporary_.c_str(), kFlags | kDirect, 0600));
            if (file_.get() < 0 && errno == EINVAL && kDirect) {
                direct_ = false;
                file_ = Fd(openat(folder_.get(), temporary_.c_str(), kFlags, 0600));
            }
            if (file_.get() < 0 && (errno != EEXIST || attempt == 10)) Fail("create a file for", shown_);
        }
    }

    ~PosixRestoredFile() override {
        if (committed_) return;
        file_.Reset();
        unlinkat(folder_.get(), temporary_.c_str(), 0);
    }

    void WriteAt(uint64_t offset, const void* data, size_t size) override {
        const auto* bytes = static_cast<const uint8_t*>(data);
        const bool aligned = offset % kDirectAlignment == 0 && size % kDirectAlignment == 0 &&
                             reinterpret_cast<uintptr_t>(data) % kDirectAlignment == 0;
        if (direct_ && !aligned) StopDirect();
        bool throughTheCache = !direct_;
        while (size > 0) {
            const ssize_t written = pwrite(file_.get(), bytes, size, static_cast<off_t>(offset));
            if (written < 0 && errno == EINTR) continue;
            if (written < 0 && errno == EINVAL && kDirect && !throughTheCache) {  // refused as direct I/O
                StopDirect();
                throughTheCache = true;
                continue;
            }
            if (written <= 0) Fail("write", shown_);
            bytes += written, offset += static_cast<uint64_t>(written), size -= static_cast<size_t>(written);
        }
    }

    void Commit(std::optional<uint32_t> mode, int64_t modifiedNs) override {
        if (mode && fchmod(file_.get(), static_cast<mode_t>(*mode & 01777)) != 0) Fail("set the mode of", shown_);
        const timespec times[2] = {{0, UTIME_OMIT}, TimeOf(modifiedNs)};
        if (futimens(file_.get(), times) != 0) Fail("set the time of", shown_);
        if (file_.Reset() != 0) Fail("write", shown_);
        Rename(folder_.get(), temporary_, leaf_, overwrite_, shown_);
        committed_ = true;
    }

private:
    // Turns direct I/O off for the file; writes of other jobs on the way
    // work either way.
    void StopDirect() {
        direct_ = false;
        const int flags = fcntl(file_.get(), F_GETFL);
        if (flags >= 0 && (flags & kDirect)) fcntl(file_.get(), F_SETFL, flags & ~kDirect);
    }

    Fd folder_;
    std::string leaf_;
    std::string shown_;
    bool overwrite_;
    std::string temporary_;
    Fd file_;
    std::atomic<bool> direct_{kDirect != 0};
    bool committed_ = false;
};

}  // namespace

struct Destination::Handle {
    Fd root;

    // The folder holding the entry, every folder on the way opened without
    // following links (and made when `create`); sets `leaf` to the entry's
    // own name and `shown` to its path for messages.
    Fd OpenParent(const std::string& rootText, const std::string& relativePath, bool create, std::string& leaf,
                  std::string& shown) const {
        const std::vector<std::string> components = Split(relativePath, '/');
        Fd folder(fcntl(root.get(), F_DUPFD_CLOEXEC, 0));
        if (folder.get() < 0) Fail("open the folder", rootText);
        shown = rootText;
        for (size_t i = 0; i + 1 < components.size(); ++i) {
            shown += "/" + components[i];
            folder = OpenFolder(folder.get(), components[i], shown, create);
        }
        leaf = components.back();
        shown += "/" + leaf;
        return folder;
    }
};

Destination::Destination(const std::string& root, bool overwrite)
    : root_(root), overwrite_(overwrite), handle_(std::make_unique<Handle>()) {
    MakeFolders(root);
    handle_->root = Fd(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (handle_->root.get() < 0) Fail("open the folder", root);
}

Destination::~Destination() = default;

void Destination::Check(const std::string& relativePath, EntryKind kind) const {
    const std::vector<std::string> components = Split(relativePath, '/');
    Fd folder(fcntl(handle_->root.get(), F_DUPFD_CLOEXEC, 0));
    std::string shown = root_;
    struct stat info;
    for (size_t i = 0; i < components.size(); ++i) {
        shown += "/" + components[i];
        if (fstatat(folder.get(), components[i].c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) return;  // nothing below exists either
            Fail("look at", shown);
        }
        if (i + 1 == components.size()) break;
        folder = OpenFolder(folder.get(), components[i], shown, false);
    }
    if (S_ISDIR(info.st_mode)) {
        if (kind != EntryKind::Folder) Refuse(shown, "it is a folder, and a restore never replaces one");
    } else if (kind == EntryKind::Folder) {
        Refuse(shown, "it is not a folder");
    } else if (!overwrite_) {
        Refuse(shown, "it exists (--overwrite replaces it)");
    }
}

std::unique_ptr<repo::RestoredFile> Destination::MakeFile(const std::string& relativePath) {
    std::string leaf;
    std::string shown;
    Fd folder = handle_->OpenParent(root_, relativePath, true, leaf, shown);
    return std::make_unique<PosixRestoredFile>(std::move(folder), leaf, shown, overwrite_);
}

void Destination::MakeFolder(const FolderRecord& record) {
    const std::string& relativePath = record.relativePath;
    std::string leaf;
    std::string shown;
    const Fd parent = handle_->OpenParent(root_, relativePath, true, leaf, shown);
    const Fd folder = OpenFolder(parent.get(), leaf, shown, true);
    if (fchmod(folder.get(), static_cast<mode_t>(record.mode & 01777)) != 0) Fail("set the mode of", shown);
    const timespec times[2] = {{0, UTIME_OMIT}, TimeOf(record.modifiedNs)};
    if (futimens(folder.get(), times) != 0) Fail("set the time of", shown);
}

void Destination::MakeLink(const LinkRecord& link) {
    const std::string& relativePath = link.relativePath;
    const std::string& target = link.target;
    std::string leaf;
    std::string shown;
    const Fd folder = handle_->OpenParent(root_, relativePath, true, leaf, shown);
    if (!overwrite_) {
        if (symlinkat(target.c_str(), folder.get(), leaf.c_str()) != 0) {
            if (errno == EEXIST) Refuse(shown, "it exists (--overwrite replaces it)");
            Fail("create the link", shown);
        }
    } else {
        const std::string temporary = TemporaryName(leaf);
        if (symlinkat(target.c_str(), folder.get(), temporary.c_str()) != 0) Fail("create the link", shown);
        try {
            Rename(folder.get(), temporary, leaf, true, shown);
        } catch (...) {
            unlinkat(folder.get(), temporary.c_str(), 0);
            throw;
        }
    }
    const timespec times[2] = {{0, UTIME_OMIT}, TimeOf(link.modifiedNs)};
    if (utimensat(folder.get(), leaf.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) Fail("set the time of", shown);
}

}  // namespace qvhost
