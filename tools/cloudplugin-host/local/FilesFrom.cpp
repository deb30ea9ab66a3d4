#include "local/FilesFrom.h"

#ifndef _WIN32
#include <glob.h>
#endif

#include <cerrno>
#include <cstring>
#include <iostream>
#include <iterator>

#include "local/LocalFiles.h"
#include "util/Error.h"
#include "util/Text.h"

namespace qvhost {

namespace {

// The paths a glob names, sorted; the glob itself when it names none.
// Windows has no glob(3): there a line is taken as it stands.
std::vector<std::string> Expand(const std::string& pattern) {
#ifdef _WIN32
    return {pattern};
#else
    glob_t matches{};
    std::vector<std::string> paths;
    if (glob(pattern.c_str(), GLOB_NOCHECK, nullptr, &matches) == 0) {
        for (size_t i = 0; i < matches.gl_pathc; ++i) paths.emplace_back(matches.gl_pathv[i]);
    } else {
        paths.push_back(pattern);
    }
    globfree(&matches);
    return paths;
#endif
}

}  // namespace

std::vector<std::string> ParsePathList(const std::string& text, PathListForm form) {
    std::vector<std::string> paths;
    for (std::string entry : Split(text, form == PathListForm::Raw ? '\0' : '\n')) {
        if (form != PathListForm::Raw && !entry.empty() && entry.back() == '\r') entry.pop_back();
        if (entry.empty()) continue;
        if (form != PathListForm::Lines) {
            paths.push_back(entry);
            continue;
        }
        const size_t first = entry.find_first_not_of(" \t");
        if (first == std::string::npos || entry[first] == '#') continue;
        const size_t last = entry.find_last_not_of(" \t");
        for (std::string& path : Expand(entry.substr(first, last - first + 1))) paths.push_back(std::move(path));
    }
    return paths;
}

std::vector<std::string> ReadPathList(const std::string& file, PathListForm form) {
    std::string text;
    if (file == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
        if (std::cin.bad()) throw Error(ErrorKind::LocalFile, "cannot read the list of paths from standard input");
    } else {
        // A million paths of a hundred bytes are 100 MB; 4 GiB allows for forty times that.
        text = ReadUserFile(file, "list of paths", size_t{4} << 30);
    }
    return ParsePathList(text, form);
}

}  // namespace qvhost
