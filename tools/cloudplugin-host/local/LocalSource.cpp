// The local file system as the tree a backup reads: the walk over the given
// paths and their folders; each entry is read the system's own way
// (local/LocalEntry.h).
#include "local/LocalSource.h"

#include <algorithm>

#include "local/LocalEntry.h"
#include "local/LocalFiles.h"
#include "util/Error.h"
#include "util/PathRules.h"

namespace qvhost {

namespace fs = std::filesystem;

namespace {

using repo::Node;
using repo::NodeType;

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

}  // namespace

LocalSource::LocalSource(const std::vector<std::string>& paths) {
    if (paths.empty()) throw Error(ErrorKind::Usage, "no path to back up");
    std::vector<std::string> absolute;
    for (const std::string& path : paths) {
        localentry::EntryStatus status;
        std::string error;
        if (!localentry::StatusOf(path, status, error)) {
            throw Error(ErrorKind::LocalFile, "cannot back up " + path + ": " + error);
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
    localentry::EntryStatus status;
    std::string error;
    if (paths_.size() == 1 && localentry::StatusOf(paths_[0], status, error) && status.isFolder) {
        root_ = paths_[0];
        return;
    }
#ifdef _WIN32
    // Several paths make a tree whose root holds the folders on the way to
    // each, named by their absolute components: a drive ("C:") is no name
    // a folder can have, so the Windows build takes one folder.
    throw Error(ErrorKind::Usage, "the Windows build backs up one folder per snapshot: give one folder, not " +
                                      (paths_.size() == 1 ? std::string("a file") : "several paths"));
#endif
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

std::string LocalSource::ReadPath(const std::string& relative) const {
    if (readRoot_.empty()) return FullPath(relative);
    std::string path = relative.empty() ? readRoot_ : readRoot_ + "/" + relative;
#ifdef _WIN32
    std::replace(path.begin(), path.end(), '/', '\\');  // a shadow copy's \\?\ path takes no '/'
#endif
    return path;
}

void LocalSource::ReadFrom(const std::string& copy) {
    if (root_.empty() || root_ == "/") {
        throw Error(ErrorKind::Usage, "a backup read from a copy of its folder takes one folder");
    }
    readRoot_ = copy;
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
    const std::string full = ReadPath(folder);
    const std::vector<std::string> names = localentry::FolderNames(full, error);
    if (!error.empty() && folder.empty() && names.empty()) {
        throw Error(ErrorKind::LocalFile, "cannot read the folder " + full + ": " + error);
    }
    if (!error.empty()) listing.skipped.push_back({folder, "cannot read the folder: " + error, true});
    for (const std::string& name : names) {
        Node node;
        node.name = name;
        const std::string relative = Join(folder, name);
        if (Filtered(relative)) continue;
        if (entries_.Read(ReadPath(relative), relative, node, listing)) listing.nodes.push_back(std::move(node));
    }
    return listing;
}

// Whether the filter leaves the entry out (asked by the entry's own path,
// whatever it is read from); a folder it keeps empty is remembered so that
// it is never listed.
bool LocalSource::Filtered(const std::string& relative) {
    if (!filter_) return false;
    std::error_code error;
    const fs::file_status status = fs::symlink_status(PathOf(ReadPath(relative)), error);
    const fs::path path = PathOf(FullPath(relative));
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
        if (entries_.Read(ReadPath(relative), relative, node, listing)) listing.nodes.push_back(std::move(node));
    }
    return listing;
}

std::optional<Node> LocalSource::RootFolder(std::vector<SkippedEntry>& skipped) {
    localentry::EntryStatus status;
    std::string error;
    if (root_.empty() || root_ == "/" || !localentry::StatusOf(ReadPath(""), status, error) || !status.isFolder) {
        return std::nullopt;
    }
    Node node;
    node.name = repo::kRootFolderName;
    repo::Listing listing;
    const bool read = entries_.Read(ReadPath(""), ".", node, listing, true);
    for (SkippedEntry& entry : listing.skipped) skipped.push_back(std::move(entry));
    if (!read) return std::nullopt;
    node.name = repo::kRootFolderName;
    return node;
}

std::unique_ptr<repo::SourceReader> LocalSource::Open(const std::string& path) {
    return std::make_unique<LocalReader>(ReadPath(path));
}

bool LocalSource::Unchanged(const std::string& path, const Node& file) {
    return localentry::SameState(localentry::StateOf(ReadPath(path)), file);
}

}  // namespace qvhost
