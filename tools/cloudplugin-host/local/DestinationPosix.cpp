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
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "local/Destination.h"
#include "util/Entry.h"
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

// Gives an entry its metadata, as far as the system lets it. Files and
// folders by their open descriptor; links and special files by their name
// in their folder, never following them.
class MetadataSetter {
public:
    MetadataSetter(Destination& destination, bool numericOwner)
        : destination_(destination), numericOwner_(numericOwner), root_(geteuid() == 0) {}

    void ByDescriptor(int fd, const repo::Node& node, const std::string& shown, bool folder) {
        bool owned = node.hasOwner && root_;
        if (owned && fchown(fd, Uid(node), Gid(node)) != 0) {
            Note(shown, "its owner", ErrnoText());
            owned = false;
        }
        if (!node.implicit && fchmod(fd, Mode(node, owned, shown)) != 0) Fail("set the mode of", shown);
        for (const repo::Xattr& xattr : node.xattrs) {
            if (fsetxattr(fd, xattr.name.c_str(), xattr.value.data(), xattr.value.size(), 0) != 0) {
                Note(shown, "its extended attribute " + xattr.name, ErrnoText());
            }
        }
        if (node.implicit) return;
        const timespec times[2] = {Accessed(node), TimeOf(node.modifiedNs)};
        if (futimens(fd, times) != 0) Fail("set the time of", shown);
        (void)folder;
    }

    void ByName(int folder, const std::string& leaf, const repo::Node& node, const std::string& shown, bool link) {
        bool owned = node.hasOwner && root_;
        if (owned && fchownat(folder, leaf.c_str(), Uid(node), Gid(node), AT_SYMLINK_NOFOLLOW) != 0) {
            Note(shown, "its owner", ErrnoText());
            owned = false;
        }
        if (!link && fchmodat(folder, leaf.c_str(), Mode(node, owned, shown), 0) != 0) {
            Fail("set the mode of", shown);
        }
        const std::string viaFolder = "/proc/self/fd/" + std::to_string(folder) + "/" + leaf;
        for (const repo::Xattr& xattr : node.xattrs) {
            if (lsetxattr(viaFolder.c_str(), xattr.name.c_str(), xattr.value.data(), xattr.value.size(), 0) != 0) {
                Note(shown, "its extended attribute " + xattr.name, ErrnoText());
            }
        }
        const timespec times[2] = {Accessed(node), TimeOf(node.modifiedNs)};
        if (utimensat(folder, leaf.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) Fail("set the time of", shown);
    }

    bool root() const { return root_; }

private:
    // The set-user-ID and set-group-ID bits only on an entry whose owner
    // was restored: on anyone else's file they would hand that user's
    // rights to the program.
    mode_t Mode(const repo::Node& node, bool owned, const std::string& shown) {
        if (owned || !(node.mode & kSetIdBits)) return static_cast<mode_t>(node.mode & 07777);
        // Without an owner to restore the restore reports them as dropped;
        // here the owner could not be set.
        if (node.hasOwner && root_) Note(shown, "its set-user-ID and set-group-ID bits", "its owner was not restored");
        return static_cast<mode_t>(node.mode & 01777);
    }

    static timespec Accessed(const repo::Node& node) {
        return node.accessedNs ? TimeOf(node.accessedNs) : timespec{0, UTIME_OMIT};
    }

    // The owner by name where this machine knows the name, else by id.
    uid_t Uid(const repo::Node& node) {
        if (numericOwner_ || node.user.empty()) return node.uid;
        return IdByName(users_, node.user, node.uid, getpwnam_r, &passwd::pw_uid);
    }
    gid_t Gid(const repo::Node& node) {
        if (numericOwner_ || node.group.empty()) return node.gid;
        return IdByName(groups_, node.group, node.gid, getgrnam_r, &group::gr_gid);
    }

    // The system is asked once a name: a restore of many files of one owner
    // does not read the user database for each.
    template <typename Entry, typename Id>
    Id IdByName(std::map<std::string, std::optional<Id>>& cache, const std::string& name, Id recorded,
                int (*lookup)(const char*, Entry*, char*, size_t, Entry**), Id Entry::*field) {
        std::lock_guard<std::mutex> lock(ownersMutex_);
        auto found = cache.find(name);
        if (found == cache.end()) {
            char buffer[16384];
            Entry entry;
            Entry* result = nullptr;
            std::optional<Id> id;
            if (lookup(name.c_str(), &entry, buffer, sizeof buffer, &result) == 0 && result) id = result->*field;
            found = cache.emplace(name, id).first;
        }
        return found->second.value_or(recorded);
    }

    void Note(const std::string& shown, const std::string& what, const std::string& why) {
        destination_.Note("not kept for " + shown + ": " + what + " (" + why + ")");
    }

    Destination& destination_;
    const bool numericOwner_;
    const bool root_;
    std::mutex ownersMutex_;  // entries are finished on several threads
    std::map<std::string, std::optional<uid_t>> users_;
    std::map<std::string, std::optional<gid_t>> groups_;
};

class PosixRestoredFile : public repo::RestoredFile {
public:
    PosixRestoredFile(Fd folder, std::string leaf, std::string shown, bool overwrite, const repo::Node& node,
                      MetadataSetter& setter)
        : folder_(std::move(folder)), leaf_(std::move(leaf)), shown_(std::move(shown)), overwrite_(overwrite),
          sparse_(node.sparse), setter_(setter) {
        constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        // A sparse file is written through the cache: its holes are the
        // blocks never written, whatever their alignment.
        if (sparse_) direct_ = false;
        for (int attempt = 0; file_.get() < 0; ++attempt) {
            temporary_ = TemporaryName(leaf_);
            file_ = Fd(openat(folder_.get(), temporary_.c_str(), kFlags | (direct_ ? kDirect : 0), 0600));
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
        if (sparse_) return WriteLeavingHoles(offset, bytes, size);
        const bool aligned = offset % kDirectAlignment == 0 && size % kDirectAlignment == 0 &&
                             reinterpret_cast<uintptr_t>(data) % kDirectAlignment == 0;
        if (direct_ && !aligned) StopDirect();
        Write(offset, bytes, size);
    }

    void Commit(const repo::Node& node) override {
        // The size first: a sparse file may end in a hole.
        if (sparse_ && ftruncate(file_.get(), static_cast<off_t>(node.size)) != 0) Fail("set the size of", shown_);
        setter_.ByDescriptor(file_.get(), node, shown_, false);
        if (file_.Reset() != 0) Fail("write", shown_);
        Rename(folder_.get(), temporary_, leaf_, overwrite_, shown_);
        committed_ = true;
    }

private:
    void Write(uint64_t offset, const uint8_t* bytes, size_t size) {
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

    // Only the blocks that hold something other than zeros are written.
    void WriteLeavingHoles(uint64_t offset, const uint8_t* bytes, size_t size) {
        constexpr size_t kBlock = 4096;
        size_t at = 0;
        while (at < size) {
            const size_t block = std::min(kBlock - (offset + at) % kBlock, size - at);
            const bool zeros = std::all_of(bytes + at, bytes + at + block, [](uint8_t b) { return b == 0; });
            size_t run = block;
            while (!zeros && at + run < size) {  // a run of blocks that hold data
                const size_t next = std::min(kBlock, size - at - run);
                if (std::all_of(bytes + at + run, bytes + at + run + next, [](uint8_t b) { return b == 0; })) break;
                run += next;
            }
            if (!zeros) Write(offset + at, bytes + at, run);
            at += run;
        }
    }

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
    bool sparse_;
    MetadataSetter& setter_;
    std::string temporary_;
    Fd file_;
    std::atomic<bool> direct_{kDirect != 0};
    bool committed_ = false;
};

}  // namespace

struct Destination::Handle {
    Handle(Destination& destination, bool numericOwner) : setter(destination, numericOwner) {}

    Fd root;
    MetadataSetter setter;

    bool Look(const std::string& rootText, const std::string& relativePath, struct stat& info, Fd* parent) const;

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

Destination::Destination(const std::string& root, const DestinationOptions& options)
    : root_(root), options_(options), handle_(std::make_unique<Handle>(*this, options.numericOwner)) {
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
    } else if (!options_.overwrite) {
        Refuse(shown, "it exists (--overwrite replaces it)");
    }
}

std::unique_ptr<repo::RestoredFile> Destination::MakeFile(const std::string& relativePath, const repo::Node& node) {
    std::string leaf;
    std::string shown;
    Fd folder = handle_->OpenParent(root_, relativePath, true, leaf, shown);
    return std::make_unique<PosixRestoredFile>(std::move(folder), leaf, shown, options_.overwrite, node,
                                               handle_->setter);
}

void Destination::MakeFolder(const std::string& relativePath, const repo::Node& node) {
    if (relativePath.empty()) {
        handle_->setter.ByDescriptor(handle_->root.get(), node, root_, true);
        return;
    }
    std::string leaf;
    std::string shown;
    const Fd parent = handle_->OpenParent(root_, relativePath, true, leaf, shown);
    const Fd folder = OpenFolder(parent.get(), leaf, shown, true);
    handle_->setter.ByDescriptor(folder.get(), node, shown, true);
}

namespace {

// Makes an entry under a temporary name and moves it into place (replacing
// what is there with --overwrite), or makes it in place.
template <class Make>
void MakeInPlace(int folder, const std::string& leaf, const std::string& shown, bool overwrite, Make make) {
    if (!overwrite) {
        if (make(leaf) != 0) {
            if (errno == EEXIST) Refuse(shown, "it exists (--overwrite replaces it)");
            Fail("create", shown);
        }
        return;
    }
    const std::string temporary = TemporaryName(leaf);
    if (make(temporary) != 0) Fail("create", shown);
    try {
        Rename(folder, temporary, leaf, true, shown);
    } catch (...) {
        unlinkat(folder, temporary.c_str(), 0);
        throw;
    }
}

}  // namespace

void Destination::MakeLink(const std::string& relativePath, const repo::Node& node) {
    std::string leaf;
    std::string shown;
    const Fd folder = handle_->OpenParent(root_, relativePath, true, leaf, shown);
    MakeInPlace(folder.get(), leaf, shown, options_.overwrite,
                [&](const std::string& name) { return symlinkat(node.linkTarget.c_str(), folder.get(), name.c_str()); });
    handle_->setter.ByName(folder.get(), leaf, node, shown, true);
}

void Destination::MakeSpecial(const std::string& relativePath, const repo::Node& node) {
    const bool device = node.type == repo::NodeType::CharDevice || node.type == repo::NodeType::BlockDevice;
    if (device && !handle_->setter.root()) {
        return Note("not restored: " + root_ + "/" + relativePath + " (a device node; making one takes root)");
    }
    std::string leaf;
    std::string shown;
    const Fd folder = handle_->OpenParent(root_, relativePath, true, leaf, shown);
    const mode_t kind = node.type == repo::NodeType::Fifo        ? S_IFIFO
                        : node.type == repo::NodeType::CharDevice ? S_IFCHR
                                                                  : S_IFBLK;
    const dev_t number = static_cast<dev_t>(node.deviceNumber);
    MakeInPlace(folder.get(), leaf, shown, options_.overwrite, [&](const std::string& name) {
        return mknodat(folder.get(), name.c_str(), kind | 0600, device ? number : 0);
    });
    handle_->setter.ByName(folder.get(), leaf, node, shown, false);
}

void Destination::MakeHardLink(const std::string& relativePath, const std::string& existing) {
    std::string leaf, shown, existingLeaf, existingShown;
    const Fd folder = handle_->OpenParent(root_, relativePath, true, leaf, shown);
    const Fd existingFolder = handle_->OpenParent(root_, existing, false, existingLeaf, existingShown);
    MakeInPlace(folder.get(), leaf, shown, options_.overwrite, [&](const std::string& name) {
        return linkat(existingFolder.get(), existingLeaf.c_str(), folder.get(), name.c_str(), 0);
    });
}

namespace {

class PosixExistingFile : public repo::ExistingFile {
public:
    explicit PosixExistingFile(Fd file) : file_(std::move(file)) {}
    size_t ReadAt(uint64_t offset, void* data, size_t size) override {
        size_t done = 0;
        while (done < size) {
            const ssize_t read = pread(file_.get(), static_cast<uint8_t*>(data) + done, size - done,
                                       static_cast<off_t>(offset + done));
            if (read < 0 && errno == EINTR) continue;
            if (read < 0) throw Error(ErrorKind::LocalFile, std::string("cannot read back a file: ") + ErrnoText());
            if (read == 0) break;
            done += static_cast<size_t>(read);
        }
        return done;
    }

private:
    Fd file_;
};

// The names in an open folder, "." and ".." left out.
std::vector<std::string> NamesIn(int folder, const std::string& shown) {
    const int copy = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* listing = copy >= 0 ? fdopendir(copy) : nullptr;
    if (!listing) {
        if (copy >= 0) close(copy);
        Fail("list the folder", shown);
    }
    std::vector<std::string> names;
    while (const dirent* entry = readdir(listing)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(listing);
    return names;
}

// Removes `name` from `folder`, a folder with everything beneath it; a
// link is removed itself, never followed.
void RemoveEntry(int folder, const std::string& name, const std::string& shown) {
    struct stat info;
    if (fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) Fail("look at", shown);
    if (S_ISDIR(info.st_mode)) {
        const Fd inner = OpenFolder(folder, name, shown, false);
        for (const std::string& child : NamesIn(inner.get(), shown)) RemoveEntry(inner.get(), child, shown + "/" + child);
    }
    if (unlinkat(folder, name.c_str(), S_ISDIR(info.st_mode) ? AT_REMOVEDIR : 0) != 0) Fail("remove", shown);
}

// Removes what `kept` does not hold from the folder at `relative` ("" the
// root), descending into the folders it holds.
void RemoveOthers(int folder, const std::string& relative, const std::string& shown,
                  const std::set<std::string>& kept, std::vector<std::string>& removed) {
    for (const std::string& name : NamesIn(folder, shown)) {
        const std::string path = relative.empty() ? name : relative + "/" + name;
        struct stat info;
        if (fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) Fail("look at", shown + "/" + name);
        if (!kept.count(path)) {
            RemoveEntry(folder, name, shown + "/" + name);
            removed.push_back(path);
        } else if (S_ISDIR(info.st_mode)) {
            const Fd inner = OpenFolder(folder, name, shown + "/" + name, false);
            RemoveOthers(inner.get(), path, shown + "/" + name, kept, removed);
        }
    }
}

}  // namespace

// The entry at the path, every folder on the way opened without following
// links; false when something on the way is missing or not a folder.
bool Destination::Handle::Look(const std::string& rootText, const std::string& relativePath, struct stat& info,
                               Fd* parent) const {
    const std::vector<std::string> components = Split(relativePath, '/');
    Fd folder(fcntl(root.get(), F_DUPFD_CLOEXEC, 0));
    std::string shown = rootText;
    for (size_t i = 0; i < components.size(); ++i) {
        shown += "/" + components[i];
        if (fstatat(folder.get(), components[i].c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return false;
        if (i + 1 == components.size()) break;
        if (!S_ISDIR(info.st_mode)) return false;
        folder = Fd(openat(folder.get(), components[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (folder.get() < 0) return false;
    }
    if (parent) *parent = std::move(folder);
    return true;
}

std::optional<repo::ExistingEntry> Destination::Existing(const std::string& relativePath) const {
    struct stat info;
    if (!handle_->Look(root_, relativePath, info, nullptr)) return std::nullopt;
    repo::ExistingEntry entry;
    entry.folder = S_ISDIR(info.st_mode);
    entry.regularFile = S_ISREG(info.st_mode);
    entry.size = static_cast<uint64_t>(info.st_size);
    entry.modifiedNs = int64_t{info.st_mtim.tv_sec} * 1000000000 + info.st_mtim.tv_nsec;
    return entry;
}

std::unique_ptr<repo::ExistingFile> Destination::OpenExisting(const std::string& relativePath) const {
    struct stat info;
    Fd folder;
    if (!handle_->Look(root_, relativePath, info, &folder) || !S_ISREG(info.st_mode)) return nullptr;
    const std::string leaf = Split(relativePath, '/').back();
    Fd file(openat(folder.get(), leaf.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (file.get() < 0) return nullptr;
    return std::make_unique<PosixExistingFile>(std::move(file));
}

std::vector<std::string> Destination::RemoveAllBut(const std::set<std::string>& kept) {
    std::vector<std::string> removed;
    RemoveOthers(handle_->root.get(), "", root_, kept, removed);
    std::sort(removed.begin(), removed.end());
    return removed;
}

void Destination::Note(const std::string& text) {
    std::lock_guard<std::mutex> lock(notesMutex_);
    notes_.push_back(text);
}

bool Destination::KeepsOwners() const { return geteuid() == 0; }

std::vector<std::string> Destination::TakeNotes() {
    std::lock_guard<std::mutex> lock(notesMutex_);
    std::vector<std::string> notes;
    notes.swap(notes_);
    return notes;
}

}  // namespace qvhost
