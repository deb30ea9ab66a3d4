// Exclude patterns on absolute paths: the examples of restic's manual
// ("Excluding Files"), then the pieces one at a time.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "util/Error.h"
#include "util/Pattern.h"

using namespace qvhost;

namespace {

bool Matches(const std::string& pattern, const std::string& path, bool ignoreCase = false) {
    return PathPattern(pattern, ignoreCase).Matches(path);
}

ErrorKind KindOfRefusal(const std::string& pattern) {
    try {
        PathPattern refused(pattern);
    } catch (const Error& error) {
        return error.kind();
    }
    ADD_FAILURE() << "accepted " << pattern;
    return ErrorKind::Damaged;
}

TEST(PatternFromResticsManual, AWordMatchesWholeComponentsAtAnyDepth) {
    EXPECT_TRUE(Matches("foo", "/dir1/foo/dir2/file"));
    EXPECT_TRUE(Matches("foo", "/dir/foo"));
    EXPECT_FALSE(Matches("foo", "/dir/foobar"));
    EXPECT_FALSE(Matches("foo", "/barfoo"));
}

TEST(PatternFromResticsManual, ALeadingSlashAnchorsAtTheRootAndATrailingOneIsIgnored) {
    EXPECT_TRUE(Matches("/bin", "/bin/bash"));
    EXPECT_TRUE(Matches("/bin", "/bin"));
    EXPECT_FALSE(Matches("/bin", "/usr/bin/restic"));
    EXPECT_TRUE(Matches("bin/", "/usr/bin/restic"));
    EXPECT_TRUE(Matches("/bin/", "/bin/bash"));
}

TEST(PatternFromResticsManual, AWildcardNeverMatchesASlash) {
    EXPECT_TRUE(Matches("b*ash", "/bin/bash"));
    EXPECT_FALSE(Matches("b*ash", "/bin/ash"));
}

TEST(PatternFromResticsManual, TwoStarsMatchAnyNumberOfFolders) {
    for (const char* path : {"/dir1/foo/dir2/bar/file", "/foo/bar/file", "/tmp/foo/bar", "/foo/x/y/z/bar",
                             "/foo/x/bar", "/foo/bar"}) {
        EXPECT_TRUE(Matches("foo/**/bar", path)) << path;
    }
    EXPECT_FALSE(Matches("foo/**/bar", "/foo/barn"));
    EXPECT_FALSE(Matches("foo/**/bar", "/bar/foo"));
}

TEST(PatternFromResticsManual, TheExcludeFileExample) {
    // "*.c" on the command line, "*.go" and "foo/**/bar" in excludes.txt.
    PatternList list;
    for (const char* pattern : {"*.c", "*.go", "foo/**/bar"}) list.Add(PathPattern(pattern));
    for (const char* path : {"/home/user/project/main.c", "/home/user/project/cmd/main.go", "/home/user/foo/x/y/z/bar",
                             "/home/user/foo/bar/inside.txt"}) {
        EXPECT_NE(list.Match(path), nullptr) << path;
    }
    for (const char* path : {"/home/user/project/main.cpp", "/home/user/project/go.mod", "/home/user/bar/foo"}) {
        EXPECT_EQ(list.Match(path), nullptr) << path;
    }
    EXPECT_EQ(list.Match("/home/user/project/main.c")->text(), "*.c");
}

TEST(PatternFromResticsManual, ANegationTakesBackAMatchButNotThatOfAFolderAbove) {
    // Everything in the home folder but a few folders, then the usual clutter.
    PatternList list;
    for (const char* pattern : {"/home/user/*", "!/home/user/Documents", "!/home/user/code", "node_modules", "*~",
                                "*.o"}) {
        list.Add(PathPattern(pattern));
    }
    EXPECT_EQ(list.Match("/home/user"), nullptr) << "the home folder itself is kept";
    EXPECT_EQ(list.Match("/home/user/Documents/report.odt"), nullptr);
    EXPECT_EQ(list.Match("/home/user/code/main.c"), nullptr);
    EXPECT_NE(list.Match("/home/user/Music/song.ogg"), nullptr);
    EXPECT_NE(list.Match("/home/user/.bashrc"), nullptr) << "* matches names that start with a dot";
    EXPECT_NE(list.Match("/home/user/code/web/node_modules/left-pad/index.js"), nullptr);
    EXPECT_NE(list.Match("/home/user/code/main.o"), nullptr);
    EXPECT_NE(list.Match("/home/user/Documents/report.odt~"), nullptr);
    EXPECT_EQ(list.Match("/home/user/code/main.o")->text(), "*.o");
}

TEST(Pattern, QuestionMarksSetsAndEscapesMatchOneCharacter) {
    EXPECT_TRUE(Matches("file?.txt", "/a/file1.txt"));
    EXPECT_FALSE(Matches("file?.txt", "/a/file10.txt"));
    EXPECT_FALSE(Matches("a?b", "/a/b"));
    EXPECT_TRUE(Matches("[a-c]x", "/bx"));
    EXPECT_FALSE(Matches("[a-c]x", "/dx"));
    EXPECT_TRUE(Matches("[!a-c]x", "/dx"));
    EXPECT_TRUE(Matches("[^a-c]x", "/dx"));
    EXPECT_FALSE(Matches("[^a-c]x", "/ax"));
    EXPECT_TRUE(Matches("[]]", "/]"));
    EXPECT_TRUE(Matches("\\*", "/*"));
    EXPECT_FALSE(Matches("\\*", "/x"));
    EXPECT_TRUE(Matches("a\\[b", "/a[b"));
}

TEST(Pattern, AQuestionMarkIsOneUtf8CharacterNotOneByte) {
    EXPECT_TRUE(Matches("gr??e", "/home/Grüße/gr\xC3\xBC\xC3\x9F" "e"));
    EXPECT_TRUE(Matches("[äöü]ber", "/x/\xC3\xBC" "ber"));
    EXPECT_TRUE(Matches("文件 ?.txt", "/文件 名.txt"));
}

TEST(Pattern, IgnoringCaseFoldsAsciiAndBeyond) {
    EXPECT_TRUE(Matches("*.JPG", "/photos/a.jpg", true));
    EXPECT_FALSE(Matches("*.JPG", "/photos/a.jpg", false));
    EXPECT_TRUE(Matches("/Home/*/CACHE", "/home/me/cache/x", true));
    EXPECT_TRUE(Matches("ÄRGER", "/x/\xC3\xA4rger", true));
    EXPECT_TRUE(Matches("Ärger", "/x/ärger", true));
    EXPECT_FALSE(Matches("Ärger", "/x/ärger", false));
}

TEST(Pattern, AnAnchoredPatternMatchesFromTheRootOnly) {
    EXPECT_TRUE(Matches("/home/*/tmp", "/home/me/tmp/a"));
    EXPECT_FALSE(Matches("/home/*/tmp", "/srv/home/me/tmp"));
    EXPECT_FALSE(Matches("/home/*/tmp", "/home/me/x/tmp"));
    EXPECT_TRUE(Matches("/home/**/tmp", "/home/me/x/tmp"));
    EXPECT_TRUE(Matches("home/*/tmp", "/srv/home/me/tmp"));
}

TEST(Pattern, AStarAfterAFolderKeepsTheFolderAndTwoStarsDoNot) {
    EXPECT_FALSE(Matches("/proc/*", "/proc"));
    EXPECT_TRUE(Matches("/proc/*", "/proc/1/status"));
    EXPECT_TRUE(Matches("/proc/**", "/proc"));
    EXPECT_TRUE(Matches("**", "/anything/at/all"));
}

TEST(Pattern, ExtraSlashesAndDotComponentsChangeNothing) {
    EXPECT_TRUE(Matches("/a//b/./c", "/a/b/c"));
    EXPECT_TRUE(Matches("a/b", "/x//a/b/"));
}

TEST(Pattern, MalformedPatternsAreRefusedAsABadCommandLine) {
    for (const char* pattern : {"[abc", "a[", "x\\", "", "/", "!", "./", "!/"}) {
        EXPECT_EQ(KindOfRefusal(pattern), ErrorKind::Usage) << pattern;
    }
    EXPECT_TRUE(PathPattern("!x").negated());
    EXPECT_FALSE(PathPattern("x").negated());
}

TEST(Pattern, TheLastPatternThatMatchesDecides) {
    PatternList list;
    list.Add(PathPattern("*.log"));
    list.Add(PathPattern("!keep.log"));
    list.Add(PathPattern("/var/keep.log"));
    EXPECT_NE(list.Match("/srv/a.log"), nullptr);
    EXPECT_EQ(list.Match("/srv/keep.log"), nullptr);
    EXPECT_NE(list.Match("/var/keep.log"), nullptr);
    EXPECT_TRUE(PatternList().empty());
    EXPECT_EQ(PatternList().Match("/x"), nullptr);
}

}  // namespace

namespace {

bool MatchesWhole(const std::string& pattern, const std::string& path) {
    return PathPattern(pattern).MatchesWhole(PathPattern::Components(path));
}

}  // namespace

TEST(PatternWhole, AWordMatchesTheNameNotAFolderAbove) {
    EXPECT_TRUE(MatchesWhole("foo", "/dir/foo"));
    EXPECT_TRUE(MatchesWhole("*.txt", "/a/b/notes.txt"));
    EXPECT_FALSE(MatchesWhole("foo", "/dir1/foo/dir2/file"));
    EXPECT_FALSE(MatchesWhole("*.txt", "/a/notes.txt/inner"));
}

TEST(PatternWhole, APathPatternMatchesTheWholePath) {
    EXPECT_TRUE(MatchesWhole("b/*.txt", "/a/b/c.txt"));
    EXPECT_FALSE(MatchesWhole("b/*.txt", "/a/x/c.txt"));
    EXPECT_TRUE(MatchesWhole("/a/**", "/a/b/c"));
    EXPECT_TRUE(MatchesWhole("/a/**/c", "/a/c"));
    EXPECT_FALSE(MatchesWhole("/b", "/a/b"));
}
