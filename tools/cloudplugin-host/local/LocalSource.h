// The local file system as the tree a backup reads.
//
// One path that is a folder: the tree is that folder. Several paths (or a
// file): the tree's root holds the folders on the way to each path, named
// by the path's absolute components, each with its own metadata, and only
// the given paths are read whole.
//
// Each entry is read as local/LocalEntry.h says (on POSIX with lstat: a
// link is never followed) with what a restore needs to give it back.
// The Windows build takes one folder.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "local/LocalEntry.h"
#include "local/LocalFiles.h"
#include "repository/Source.h"

namespace qvhost {

class LocalSource : public repo::Source {
public:
    // Throws Error (local file) for a path that does not exist, and (usage)
    // for none.
    explicit LocalSource(const std::vector<std::string>& paths);

    // The folder the tree's relative paths start from: the one folder given,
    // else "/".
    std::string Root() const { return root_.empty() ? "/" : root_; }
    // What the listing leaves out (local/Excludes.h), asked about each entry
    // of a given path before anything of it is read; the folders on the way
    // to several paths are never left out. None: everything is kept.
    void SetFilter(ScanFilter filter) { filter_ = std::move(filter); }
    // Reads the one folder given from `copy`, a copy of it (a shadow copy
    // of its volume), while the tree and the filter still name every entry
    // by the folder given. Throws Error (usage) for several paths.
    void ReadFrom(const std::string& copy);

    std::vector<std::string> Paths() const override { return paths_; }
    repo::Listing List(const std::string& folder) override;
    std::unique_ptr<repo::SourceReader> Open(const std::string& path) override;
    bool Unchanged(const std::string& path, const repo::Node& file) override;
    std::optional<repo::Node> RootFolder(std::vector<SkippedEntry>& skipped) override;

private:
    std::string FullPath(const std::string& relative) const;  // the entry's own path
    std::string ReadPath(const std::string& relative) const;  // where it is read from
    bool Given(const std::string& relative) const;            // a given path or beneath one
    repo::Listing ListReal(const std::string& folder);
    bool Filtered(const std::string& relative);
    repo::Listing ListWay(const std::string& folder);

    std::vector<std::string> paths_;  // absolute, sorted, none beneath another
    std::string root_;                // one folder: the tree's root; else "" ("/" is the root)
    std::string readRoot_;            // the copy root_ is read from; empty: root_ itself
    std::set<std::string> given_;     // several paths: each given path, relative to "/"
    std::set<std::string> way_;       // ... and every folder on the way to one
    localentry::EntryReader entries_;
    ScanFilter filter_;
    std::set<std::string> keptEmpty_;  // folders the filter keeps without their entries
};

}  // namespace qvhost
