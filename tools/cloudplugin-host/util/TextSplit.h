// A text cut at every separator: Split("a/b", '/') is {"a", "b"}, an empty
// text one empty piece, and a separator at either end an empty piece there.
#pragma once

#include <string>
#include <vector>

namespace qvhost {

inline std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(separator, start);
        pieces.push_back(text.substr(start, end - start));
        if (end == std::string::npos) return pieces;
        start = end + 1;
    }
}

}  // namespace qvhost
