// Path patterns as restic's documentation describes its exclude patterns,
// matched against absolute, '/'-separated paths:
//
// - `*` is any run of characters within one path component, `?` one
//   character (a UTF-8 character, not a byte), `[abc]`, `[a-z]` and
//   `[!a-z]` (or `[^a-z]`) one character of a set; `\` takes the next
//   character as it is. These never match a '/'.
// - A component that is exactly `**` matches any number of components,
//   none included: `foo/**/bar` matches /foo/bar and /x/foo/y/z/bar.
// - A pattern matches whole components, and a path matches when the
//   pattern matches it or a folder above it: `foo` matches /a/foo and
//   /a/foo/b, not /a/foobar.
// - A leading '/' anchors the pattern at the root (`/bin` matches /bin/bash,
//   not /usr/bin); without one it may match at any depth. A trailing '/'
//   is ignored.
// - A leading '!' negates: in a list, such a pattern takes back the match
//   of the patterns before it (the last pattern that matches decides).
//
// Components are matched by fnmatch(3) (POSIX's own bracket expressions,
// escapes and, for patterns that ignore case, FNM_CASEFOLD), in a UTF-8
// locale where a name is not ASCII; fnmatch knows nothing of `**` or of
// matching a folder above, which is what this unit adds.
#pragma once

#include <string>
#include <vector>

namespace qvhost {

class PathPattern {
public:
    // Throws Error (usage) for a pattern that has no component, or a '['
    // without its ']', or ends in a lone '\'.
    explicit PathPattern(const std::string& text, bool ignoreCase = false);

    // Whether the pattern (its negation aside) matches the absolute path
    // or a folder above it.
    bool Matches(const std::string& path) const { return MatchesComponents(Components(path)); }
    // The same for a path already cut into its components.
    bool MatchesComponents(const std::vector<std::string>& names) const;
    // Whether the pattern matches the path itself, down to its last
    // component (not only a folder above it): what `find` asks. An
    // unanchored pattern of one component so matches the entry's name.
    bool MatchesWhole(const std::vector<std::string>& names) const;
    // "/a//b/" is {"a", "b"}.
    static std::vector<std::string> Components(const std::string& path);

    bool negated() const { return negated_; }
    bool ignoresCase() const { return ignoreCase_; }
    const std::string& text() const { return text_; }

private:
    struct Component {
        std::string text;
        bool any = false;      // "**": any number of components
        bool literal = false;  // no wildcard, no escape
        bool ascii = false;
    };
    bool ComponentMatches(const Component& component, const std::string& name) const;
    // reach[k]: the pattern can match the first k components of the path.
    std::vector<char> Reach(const std::vector<std::string>& names) const;

    std::string text_;  // as given
    std::vector<Component> components_;  // an unanchored pattern starts with "**"
    bool negated_ = false;
    bool ignoreCase_ = false;
};

// Patterns in order: a path is matched when the last pattern that matches
// it is not negated.
class PatternList {
public:
    void Add(PathPattern pattern) { patterns_.push_back(std::move(pattern)); }
    bool empty() const { return patterns_.empty(); }
    // The pattern that decides a match, or null when the path is not matched.
    const PathPattern* Match(const std::string& path) const;

private:
    std::vector<PathPattern> patterns_;
};

}  // namespace qvhost
