// What the local source tests compare: the relative paths of scanned entries.
#pragma once

#include <string>
#include <vector>

#include "local/LocalFiles.h"

namespace localtest {

inline std::vector<std::string> PathsOf(const std::vector<qvhost::SourceEntry>& entries) {
    std::vector<std::string> paths;
    for (const qvhost::SourceEntry& entry : entries) paths.push_back(entry.relativePath);
    return paths;
}

}  // namespace localtest
