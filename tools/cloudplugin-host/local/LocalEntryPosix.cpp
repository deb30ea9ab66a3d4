// An entry of the local file system as a POSIX system gives it: every entry
// read with lstat (a link is never followed), with what a restore needs to
// give it back: kind, mode, times, owner and group (ids and names), size,
// inode and device (hard links, changes), link counts, the link's text,
// device numbers, whether a file is sparse, and its extended attributes
// (POSIX ACLs among them) up to kMaximumXattrBytes. Sockets are left out
// with a line; names a restore would refuse are reported as not backed up.
#include "local/LocalEntry.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "local/LocalFiles.h"
#include "util/Error.h"
#include "util/PathRules.h"

namespace qvhost::localentry {

namespace {

using repo::Node;
using repo::NodeType;

int64_t Nanoseconds(const timespec& time) { return static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec; }

// The kind of an entry; false for one a backup leaves out (a socket).
bool TypeOf(mode_t mode, NodeType& type) {
    if (S_ISREG(mode)) type = NodeType::File;
    else if (S_ISDIR(mode)) type = NodeType::Folder;
    else if (S_ISLNK(mode)) type = NodeType::Link;
    else if (S_ISFIFO(mode)) type = NodeType::Fifo;
    else if (S_ISCHR(mode)) type = NodeType::CharDevice;
    else if (S_ISBLK(mode)) type = NodeType::BlockDevice;
    else return false;
    return true;
}

void FillFromStatus(const struct stat& info, Node& node) {
    node.mode = static_cast<uint32_t>(info.st_mode) & 07777;
    node.modifiedNs = Nanoseconds(info.st_mtim);
    // Reading a link's text sets its access time, so a link's is not kept:
    // it would differ in every backup.
    node.accessedNs = node.type == NodeType::Link ? 0 : Nanoseconds(info.st_atim);
    node.changedNs = Nanoseconds(info.st_ctim);
    node.hasOwner = true;
    node.uid = info.st_uid;
    node.gid = info.st_gid;
    node.inode = static_cast<uint64_t>(info.st_ino);
    node.device = static_cast<uint64_t>(info.st_dev);
    node.links = static_cast<uint64_t>(info.st_nlink);
    if (node.type == NodeType::File) {
        node.size = static_cast<uint64_t>(info.st_size);
        node.sparse = static_cast<uint64_t>(info.st_blocks) * 512 < node.size;
    }
    if (node.type == NodeType::CharDevice || node.type == NodeType::BlockDevice) {
        node.deviceNumber = static_cast<uint64_t>(info.st_rdev);
    }
}

bool ReadLink(const std::string& full, const std::string& relative, const struct stat& info, Node& node,
              repo::Listing& listing) {
    std::string target(static_cast<size_t>(std::max<off_t>(info.st_size, 0)) + 1, '\0');
    const ssize_t length = readlink(full.c_str(), &target[0], target.size());
    if (length < 0 || static_cast<size_t>(length) >= target.size()) {
        listing.skipped.push_back({relative, "cannot read the link: " + ErrnoText(), true});
        return false;
    }
    node.linkTarget = target.substr(0, static_cast<size_t>(length));
    if (std::string why = WhyLinkTargetIsRefused(node.linkTarget); !why.empty()) {
        listing.skipped.push_back({relative, why, true});
        return false;
    }
    return true;
}

void ReadOwner(Node& node, std::map<uint32_t, std::string>& users, std::map<uint32_t, std::string>& groups) {
    auto name = [](std::map<uint32_t, std::string>& cache, uint32_t id, bool user) {
        const auto found = cache.find(id);
        if (found != cache.end()) return found->second;
        char buffer[16384];
        std::string text;
        if (user) {
            passwd entry;
            passwd* result = nullptr;
            if (getpwuid_r(id, &entry, buffer, sizeof buffer, &result) == 0 && result) text = result->pw_name;
        } else {
            group entry;
            group* result = nullptr;
            if (getgrgid_r(id, &entry, buffer, sizeof buffer, &result) == 0 && result) text = result->gr_name;
        }
        return cache[id] = text;
    };
    node.user = name(users, node.uid, true);
    node.group = name(groups, node.gid, false);
}

// Extended attributes (POSIX ACLs are the system.posix_acl_* ones), up to
// kMaximumXattrBytes an entry; a file system without them has none.
void ReadXattrs(const std::string& full, const std::string& relative, Node& node, repo::Listing& listing) {
    const ssize_t listSize = llistxattr(full.c_str(), nullptr, 0);
    if (listSize <= 0) return;
    std::string names(static_cast<size_t>(listSize), '\0');
    const ssize_t got = llistxattr(full.c_str(), &names[0], names.size());
    if (got <= 0) return;
    names.resize(static_cast<size_t>(got));
    size_t total = 0;
    for (size_t at = 0; at < names.size();) {
        const std::string name = names.c_str() + at;
        at += name.size() + 1;
        if (name.empty()) continue;
        const ssize_t size = lgetxattr(full.c_str(), name.c_str(), nullptr, 0);
        if (size < 0) continue;  // gone meanwhile, or not ours to read
        std::string value(static_cast<size_t>(size), '\0');
        const ssize_t read = size ? lgetxattr(full.c_str(), name.c_str(), &value[0], value.size()) : 0;
        if (read < 0) continue;
        value.resize(static_cast<size_t>(read));
        total += name.size() + value.size() + 2;
        if (total > repo::kMaximumXattrBytes) {
            listing.skipped.push_back({relative, "its extended attributes exceed 1 MiB: none of them kept", false});
            node.xattrs.clear();
            return;
        }
        node.xattrs.push_back({name, value});
    }
    std::sort(node.xattrs.begin(), node.xattrs.end(),
              [](const repo::Xattr& a, const repo::Xattr& b) { return a.name < b.name; });
}

}  // namespace

// The names in a folder, sorted; listing it leaves its access time alone
// where the system allows (see InputFile).
std::vector<std::string> FolderNames(const std::string& full, std::string& error) {
    std::vector<std::string> names;
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int fd = open(full.c_str(), kFlags | O_NOATIME);
    if (fd < 0 && errno == EPERM) fd = open(full.c_str(), kFlags);
    DIR* folder = fd >= 0 ? fdopendir(fd) : nullptr;
    if (!folder) {
        error = ErrnoText();
        if (fd >= 0) close(fd);
        return names;
    }
    errno = 0;
    while (const dirent* entry = readdir(folder)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
        errno = 0;
    }
    if (errno != 0) error = ErrnoText();
    closedir(folder);
    std::sort(names.begin(), names.end());
    return names;
}


bool EntryReader::Read(const std::string& full, const std::string& relative, Node& node, repo::Listing& listing,
                       bool isRoot) {
    struct stat info;
    if (lstat(full.c_str(), &info) != 0) {
        listing.skipped.push_back({relative, "cannot read its status: " + ErrnoText(), true});
        return false;
    }
    if (!TypeOf(info.st_mode, node.type)) {
        listing.skipped.push_back({relative, "is a socket", false});
        return false;
    }
    if (std::string why = isRoot ? std::string() : WhyPathIsRefused(relative); !why.empty()) {
        listing.skipped.push_back({relative, "its path " + why + ", which a restore would refuse", true});
        return false;
    }
    FillFromStatus(info, node);
    if (node.type == NodeType::Link && !ReadLink(full, relative, info, node, listing)) return false;
    ReadOwner(node, users_, groups_);
    ReadXattrs(full, relative, node, listing);
    return true;
}

bool StatusOf(const std::string& full, EntryStatus& status, std::string& error) {
    struct stat info;
    if (lstat(full.c_str(), &info) != 0) {
        error = ErrnoText();
        return false;
    }
    status.isFolder = S_ISDIR(info.st_mode);
    status.isFile = S_ISREG(info.st_mode);
    status.size = static_cast<uint64_t>(info.st_size);
    status.device = static_cast<uint64_t>(info.st_dev);
    return true;
}

FileState StateOf(const std::string& full) {
    struct stat info;
    if (lstat(full.c_str(), &info) != 0) {
        throw Error(ErrorKind::LocalFile, "cannot read the status of " + full + ": " + ErrnoText());
    }
    return {static_cast<uint64_t>(info.st_size), Nanoseconds(info.st_mtim), Nanoseconds(info.st_ctim)};
}

}  // namespace qvhost::localentry
