// Lists of paths to back up, read from files: one path a line, or
// NUL-separated, as `find ... -print0` writes them.
#pragma once

#include <string>
#include <vector>

namespace qvhost {

enum class PathListForm {
    Lines,     // one a line; blank lines and lines starting with '#' skipped; globs (*, ?, [...]) expanded
    Verbatim,  // one a line, taken as they stand; only empty lines skipped
    Raw,       // separated by NUL bytes, taken as they stand
};

// The paths `file` lists ("-": standard input), in its order. A glob that
// matches nothing is kept as it stands, so that the backup names it as
// missing. Throws Error (local file) when the file cannot be read.
std::vector<std::string> ReadPathList(const std::string& file, PathListForm form);

// The same from text already read.
std::vector<std::string> ParsePathList(const std::string& text, PathListForm form);

}  // namespace qvhost
