#include "util/Pattern.h"

#include <fnmatch.h>
#include <locale.h>

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
    const int flags = ignoreCase_ ? FNM_CASEFOLD : 0;
    const locale_t utf8 = component.ascii && IsAscii(name) ? nullptr : Utf8Locale();
    if (!utf8) return fnmatch(component.text.c_str(), name.c_str(), flags) == 0;
    const locale_t before = uselocale(utf8);
    const bool matched = fnmatch(component.text.c_str(), name.c_str(), flags) == 0;
    uselocale(before);
    return matched;
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
