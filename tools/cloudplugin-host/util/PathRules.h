// Which relative paths a backup may store and a restore may create.
//
// A restore takes every path from a manifest, and a manifest comes from
// storage that others may be able to write to (a leaked SAS token, a
// compromised host, a damaged object). So a path is accepted only when it
// cannot leave the destination folder and names the same thing on every
// system: relative, '/'-separated, non-empty components that are neither
// "." nor "..", no control character, backslash or colon, and no component
// longer than the file system takes. Windows adds its own rules (device
// names, a trailing dot or blank, characters it reserves).
//
// A backup applies the same rules, so that it never stores what a restore
// would refuse: such a file is reported as not backed up.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace qvhost {

enum class PathRules { Posix, Windows };

#ifdef _WIN32
constexpr PathRules kNativePathRules = PathRules::Windows;
#else
constexpr PathRules kNativePathRules = PathRules::Posix;
#endif

// The longest component a file system of the platform takes: 255 bytes
// (POSIX NAME_MAX) or 255 UTF-16 code units (Windows).
constexpr size_t kMaximumComponentLength = 255;
// The longest path accepted at all (the Windows limit for long paths).
constexpr size_t kMaximumPathLength = 32767;

// Empty when `path` is acceptable under `rules`; else why it is not, as a
// phrase such as "has a '..' component".
std::string WhyPathIsRefused(const std::string& path, PathRules rules = kNativePathRules);

// The folder of a '/'-separated relative path ("" for one at the top) and
// its last component.
std::string FolderOf(const std::string& path);
std::string NameOf(const std::string& path);

// The text of a symbolic link: any bytes but NUL, 1 to 4095 of them.
std::string WhyLinkTargetIsRefused(const std::string& target);

// A tree of entries as a backup record lists them: each path, and whether
// it is a folder (anything else is a file or a link, which nothing may lie
// beneath). Empty when every path is acceptable, named once and not beneath
// a file or a link; else the first entry refused and why.
struct TreePath {
    std::string path;
    bool folder = false;
};
std::pair<std::string, std::string> FirstTreeProblem(const std::vector<TreePath>& entries,
                                                     PathRules rules = kNativePathRules);

// The first line of a cache folder's CACHEDIR.TAG (https://bford.info/cachedir/).
constexpr const char* kCacheDirSignature = "Signature: 8a477f597d28d172789f06886806bc55";

}  // namespace qvhost
