#include "util/Pattern.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <fnmatch.h>
#include <locale.h>
#endif

#include <algorithm>
#include <utility>

#include "util/Error.h"
#include "util/Text.h"

namespace qvhost {

namespace {

[[noreturn]] void Refuse(const std::string& pattern, const std::string& why) {
    throw Error(ErrorKind::Usage, "the pattern '" + pattern + "' " + why);
}

bool IsAscii(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// A '[' has its ']' (after an optional '!' or '^' and a ']' taken as a
// member), and a '\' has a character after it.
void CheckComponent(const std::string& pattern, const std::string& component) {
    const size_t size = component.size();
    for (size_t i = 0; i < size; ++i) {
        if (component[i] == '\\') {
            if (++i == size) Refuse(pattern, "ends in a lone '\\'");
        } else if (component[i] == '[') {
            size_t j = i + 1;
            if (j < size && (component[j] == '!' || component[j] == '^')) ++j;
            if (j < size && component[j] == ']') ++j;
            while (j < size && component[j] != ']') j += component[j] == '\\' ? 2 : 1;
            if (j >= size) Refuse(pattern, "has a '[' without its ']'");
            i = j;
        }
    }
}

#ifdef _WIN32
// Windows has no fnmatch: the same matching over code points (a '?' and a
// set take one character), with '*', '?', sets ("[a-z]", "[!x]", "[^x]")
// and '\' escapes, case folded by the system's own table when asked.
std::u32string CodePoints(const std::string& text) {
    std::u32string points;
    for (size_t i = 0; i < text.size();) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        const size_t length = lead < 0x80 ? 1 : lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 1;
        char32_t point = length == 1 ? lead : lead & (0x3f >> (length - 1));
        for (size_t k = 1; k < length && i + k < text.size(); ++k) {
            point = point << 6 | (static_cast<unsigned char>(text[i + k]) & 0x3f);
        }
        points.push_back(point);
        i += length;
    }
    return points;
}

char32_t Folded(char32_t point) {
    if (point > 0xffff) return point;
    wchar_t unit = static_cast<wchar_t>(point);
    CharLowerBuffW(&unit, 1);
    return unit;
}

// The set starting after '[' at `at`: whether `point` is in it; `at` moves past its ']'.
bool InSet(const std::u32string& pattern, size_t& at, char32_t point, bool ignoreCase) {
    bool negated = false;
    if (at < pattern.size() && (pattern[at] == U'!' || pattern[at] == U'^')) negated = true, ++at;
    bool member = false;
    for (bool first = true; at < pattern.size() && (first || pattern[at] != U']'); first = false) {
        char32_t low = pattern[at] == U'\\' && at + 1 < pattern.size() ? pattern[++at] : pattern[at];
        ++at;
        char32_t high = low;
        if (at + 1 < pattern.size() && pattern[at] == U'-' && pattern[at + 1] != U']') {
            high = pattern[at + 1] == U'\\' && at + 2 < pattern.size() ? pattern[at += 2] : pattern[++at];
            ++at;
        }
        if ((point >= low && point <= high) ||
            (ignoreCase && Folded(point) >= Folded(low) && Folded(point) <= Folded(high))) {
            member = true;
        }
    }
    ++at;  // the ']' (CheckComponent made sure there is one)
    return member != negated;
}

bool GlobMatches(const std::u32string& pattern, size_t p, const std::u32string& name, size_t n, bool ignoreCase) {
    while (p < pattern.size()) {
        const char32_t c = pattern[p];
        if (c == U'*') {
            while (p < pattern.size() && pattern[p] == U'*') ++p;
            if (p == pattern.size()) return true;
            for (size_t from = n; from <= name.size(); ++from) {
                if (GlobMatches(pattern, p, name, from, ignoreCase)) return true;
            }
            return false;
        }
        if (n == name.size()) return false;
        if (c == U'?') {
            ++p;
        } else if (c == U'[') {
            ++p;
            if (!InSet(pattern, p, name[n], ignoreCase)) return false;
        } else {
            const char32_t literal = c == U'\\' && p + 1 < pattern.size() ? pattern[++p] : c;
            ++p;
            if (literal != name[n] && !(ignoreCase && Folded(literal) == Folded(name[n]))) return false;
        }
        ++n;
    }
    return n == name.size();
}
#else
// The UTF-8 locale fnmatch runs in for names that are not ASCII, so that
// '?' and a set take one character, not one byte, and case folds beyond
// ASCII. Null when the system has none (then bytes are matched).
locale_t Utf8Locale() {
    static const locale_t locale = [] {
        locale_t made = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
        return made ? made : newlocale(LC_CTYPE_MASK, "en_US.UTF-8", static_cast<locale_t>(nullptr));
    }();
    return locale;
}
#endif

}  // namespace

PathPattern::PathPattern(const std::string& text, bool ignoreCase) : text_(text), ignoreCase_(ignoreCase) {
    std::string body = text;
    if (!body.empty() && body[0] == '!') {
        negated_ = true;
        body.erase(0, 1);
    }
    const bool anchored = !body.empty() && body[0] == '/';
    if (!anchored) components_.push_back({"**", true, false, true});
    bool named = false;  // some component given
    for (const std::string& piece : Split(body, '/')) {
        if (piece.empty() || piece == ".") continue;
        named = true;
        if (piece == "**") {
            if (components_.empty() || !components_.back().any) components_.push_back({"**", true, false, true});
            continue;
        }
        CheckComponent(text, piece);
        const bool literal = piece.find_first_of("*?[\\") == std::string::npos;
        components_.push_back({piece, false, literal, IsAscii(piece)});
    }
    if (!named) Refuse(text, "names no path component");
}

bool PathPattern::ComponentMatches(const Component& component, const std::string& name) const {
    if (component.literal && !ignoreCase_) return component.text == name;
#ifdef _WIN32
    return GlobMatches(CodePoints(component.text), 0, CodePoints(name), 0, ignoreCase_);
#else
    const int flags = ignoreCase_ ? FNM_CASEFOLD : 0;
    const locale_t utf8 = component.ascii && IsAscii(name) ? nullptr : Utf8Locale();
    if (!utf8) return fnmatch(component.text.c_str(), name.c_str(), flags) == 0;
    const locale_t before = uselocale(utf8);
    const bool matched = fnmatch(component.text.c_str(), name.c_str(), flags) == 0;
    uselocale(before);
    return matched;
#endif
}

// reach[k]: the components so far can match the first k components of the
// path. The pattern matches when it can match any first part of the path
// (the path itself or a folder above it).
std::vector<std::string> PathPattern::Components(const std::string& path) {
    std::vector<std::string> names;
    for (std::string& name : Split(path, '/')) {
        if (!name.empty()) names.push_back(std::move(name));
    }
    return names;
}

std::vector<char> PathPattern::Reach(const std::vector<std::string>& names) const {
    std::vector<char> reach(names.size() + 1, 0), next(names.size() + 1, 0);
    reach[0] = 1;
    for (const Component& component : components_) {
        std::fill(next.begin(), next.end(), 0);
        bool any = false;
        for (size_t k = 0; k <= names.size(); ++k) {
            if (component.any) {
                any = any || reach[k];
                next[k] = any;
            } else if (k > 0 && reach[k - 1] && ComponentMatches(component, names[k - 1])) {
                next[k] = 1;
            }
        }
        reach.swap(next);
        if (std::none_of(reach.begin(), reach.end(), [](char c) { return c != 0; })) break;
    }
    return reach;
}

bool PathPattern::MatchesComponents(const std::vector<std::string>& names) const {
    const std::vector<char> reach = Reach(names);
    return std::any_of(reach.begin(), reach.end(), [](char c) { return c != 0; });
}

bool PathPattern::MatchesWhole(const std::vector<std::string>& names) const { return Reach(names).back() != 0; }

const PathPattern* PatternList::Match(const std::string& path) const {
    if (patterns_.empty()) return nullptr;
    const std::vector<std::string> names = PathPattern::Components(path);
    for (auto pattern = patterns_.rbegin(); pattern != patterns_.rend(); ++pattern) {
        if (pattern->MatchesComponents(names)) return pattern->negated() ? nullptr : &*pattern;
    }
    return nullptr;
}

}  // namespace qvhost
