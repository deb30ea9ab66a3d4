#include "local/LocalSource.h"

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

namespace qvhost {

namespace fs = std::filesystem;

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

class LocalReader : public repo::SourceReader {
public:
    explicit LocalReader(const std::string& path) : input_(path) {}
    size_t Read(void* buffer, size_t size) override { return input_.Read(buffer, size); }

private:
    InputFile input_;
};

std::string Join(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : folder + "/" + name;
}

// The names in a folder, sorted; listing it leaves its access time alone
// where the system allows (see InputFile).
std::vector<std::string> Names(const std::string& full, std::string& error) {
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

}  // namespace

LocalSource::LocalSource(const std::vector<std::string>& paths) {
    if (paths.empty()) throw Error(ErrorKind::Usage, "no path to back up");
    std::vector<std::string> absolute;
    for (const std::string& path : paths) {
        struct stat info;
        if (lstat(path.c_str(), &info) != 0) {
            throw Error(ErrorKind::LocalFile, "cannot back up " + path + ": " + ErrnoText());
        }
        absolute.push_back(AbsolutePath(path));
    }
    std::sort(absolute.begin(), absolute.end());
    absolute.erase(std::unique(absolute.begin(), absolute.end()), absolute.end());
    for (const std::string& path : absolute) {
        const bool beneath = std::any_of(paths_.begin(), paths_.end(), [&](const std::string& kept) {
            return kept == "/" || path.compare(0, kept.size() + 1, kept + "/") == 0;
        });
        if (!beneath) paths_.push_back(path);
    }
    struct stat info;
    if (paths_.size() == 1 && lstat(paths_[0].c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        root_ = paths_[0];
        return;
    }
    for (const std::string& path : paths_) {
        const std::string relative = path.substr(1);
        given_.insert(relative);
        for (std::string way = FolderOf(relative); !way.empty(); way = FolderOf(way)) way_.insert(way);
    }
}

std::string LocalSource::FullPath(const std::string& relative) const {
    if (!root_.empty()) return relative.empty() ? root_ : (root_ == "/" ? "/" : root_ + "/") + relative;
    return "/" + relative;
}

bool LocalSource::Given(const std::string& relative) const {
    if (!root_.empty()) return true;
    for (std::string path = relative; !path.empty(); path = FolderOf(path)) {
        if (given_.count(path)) return true;
    }
    return false;
}

repo::Listing LocalSource::List(const std::string& folder) {
    return Given(folder) && !(root_.empty() && folder.empty()) ? ListReal(folder) : ListWay(folder);
}

repo::Listing LocalSource::ListReal(const std::string& folder) {
    repo::Listing listing;
    if (keptEmpty_.count(folder)) return listing;
    std::string error;
    const std::string full = FullPath(folder);
    const std::vector<std::string> names = Names(full, error);
    if (!error.empty() && folder.empty() && names.empty()) {
        throw Error(ErrorKind::LocalFile, "cannot read the folder " + full + ": " + error);
    }
    if (!error.empty()) listing.skipped.push_back({folder, "cannot read the folder: " + error, true});
    for (const std::string& name : names) {
        Node node;
        node.name = name;
        const std::string relative = Join(folder, name);
        if (Filtered(FullPath(relative), relative)) continue;
        if (ReadNode(FullPath(relative), relative, node, listing)) listing.nodes.push_back(std::move(node));
    }
    return listing;
}

// Whether the filter leaves the entry out; a folder it keeps empty is
// remembered so that it is never listed.
bool LocalSource::Filtered(const std::string& full, const std::string& relative) {
    if (!filter_) return false;
    std::error_code error;
    const fs::file_status status = fs::symlink_status(PathOf(full), error);
    const fs::path path = PathOf(full);
    const ScanChoice choice = filter_({relative, path, error ? fs::file_type::none : status.type()});
    if (choice == ScanChoice::KeepEmpty) keptEmpty_.insert(relative);
    return choice == ScanChoice::Exclude;
}

// A folder on the way to the given paths: only the entries on the way.
repo::Listing LocalSource::ListWay(const std::string& folder) {
    repo::Listing listing;
    std::set<std::string> names;
    for (const std::set<std::string>* set : {&given_, &way_}) {
        for (const std::string& path : *set) {
            if (FolderOf(path) == folder) names.insert(path.substr(folder.empty() ? 0 : folder.size() + 1));
        }
    }
    for (const std::string& name : names) {
        Node node;
        node.name = name;
        const std::string relative = Join(folder, name);
        if (ReadNode(FullPath(relative), relative, node, listing)) listing.nodes.push_back(std::move(node));
    }
    return listing;
}

std::optional<Node> LocalSource::RootFolder(std::vector<SkippedEntry>& skipped) {
    struct stat info;
    if (root_.empty() || root_ == "/" || lstat(root_.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        return std::nullopt;
    }
    Node node;
    node.name = repo::kRootFolderName;
    node.type = NodeType::Folder;
    FillFromStatus(info, node);
    ReadOwner(node);
    repo::Listing listing;
    ReadXattrs(root_, ".", node, listing);
    for (SkippedEntry& entry : listing.skipped) skipped.push_back(std::move(entry));
    return node;
}

bool LocalSource::ReadNode(const std::string& full, const std::string& relative, Node& node, repo::Listing& listing) {
    struct stat info;
    if (lstat(full.c_str(), &info) != 0) {
        listing.skipped.push_back({relative, "cannot read its status: " + ErrnoText(), true});
        return false;
    }
    if (!TypeOf(info.st_mode, node.type)) {
        listing.skipped.push_back({relative, "is a socket", false});
        return false;
    }
    if (std::string why = WhyPathIsRefused(relative); !why.empty()) {
        listing.skipped.push_back({relative, "its path " + why + ", which a restore would refuse", true});
        return false;
    }
    FillFromStatus(info, node);
    if (node.type == NodeType::Link && !ReadLink(full, relative, info, node, listing)) return false;
    ReadOwner(node);
    ReadXattrs(full, relative, node, listing);
    return true;
}

void LocalSource::FillFromStatus(const struct stat& info, Node& node) {
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

bool LocalSource::ReadLink(const std::string& full, const std::string& relative, const struct stat& info, Node& node,
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

void LocalSource::ReadOwner(Node& node) {
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
    node.user = name(users_, node.uid, true);
    node.group = name(groups_, node.gid, false);
}

// Extended attributes (POSIX ACLs are the system.posix_acl_* ones), up to
// kMaximumXattrBytes an entry; a file system without them has none.
void LocalSource::ReadXattrs(const std::string& full, const std::string& relative, Node& node,
                             repo::Listing& listing) {
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

std::unique_ptr<repo::SourceReader> LocalSource::Open(const std::string& path) {
    return std::make_unique<LocalReader>(FullPath(path));
}

bool LocalSource::Unchanged(const std::string& path, const Node& file) {
    struct stat info;
    const std::string full = FullPath(path);
    if (lstat(full.c_str(), &info) != 0) {
        throw Error(ErrorKind::LocalFile, "cannot read the status of " + full + ": " + ErrnoText());
    }
    return static_cast<uint64_t>(info.st_size) == file.size && Nanoseconds(info.st_mtim) == file.modifiedNs &&
           Nanoseconds(info.st_ctim) == file.changedNs;
}

}  // namespace qvhost
