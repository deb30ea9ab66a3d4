// The path checker that stands between a manifest from storage and the file
// system: every rule on POSIX, and the Windows rules checked here on any
// platform.
#include <gtest/gtest.h>

#include "util/PathRules.h"

using qvhost::PathRules;
using qvhost::WhyLinkTargetIsRefused;
using qvhost::WhyPathIsRefused;

namespace {

struct RefusedPath {
    const char* name;
    std::string path;
    const char* because;  // a part of the reason given
};

std::string NameOf(const ::testing::TestParamInfo<RefusedPath>& info) { return info.param.name; }

class PathsRefusedEverywhere : public ::testing::TestWithParam<RefusedPath> {};

const RefusedPath kRefusedEverywhere[] = {
    {"Empty", "", "empty"},
    {"Absolute", "/etc/passwd", "absolute"},
    {"ParentFirst", "../x", "'..'"},
    {"ParentTwice", "../../x", "'..'"},
    {"ParentInside", "sub/../../x", "'..'"},
    {"ParentLast", "sub/..", "'..'"},
    {"Dot", "./x", "'.'"},
    {"DotInside", "a/./x", "'.'"},
    {"EmptyComponent", "a//x", "empty component"},
    {"TrailingSlash", "a/", "empty component"},
    {"Nul", std::string("a\0b", 3), "control character"},
    {"Newline", "a\nb", "control character"},
    {"Escape", "a\x1b[2Jb", "control character"},
    {"Delete", "a\x7f", "control character"},
    {"Backslash", "a\\..\\x", "backslash"},
    {"DriveLetter", "C:/Windows/x", "colon"},
    {"DriveRelative", "C:x", "colon"},
    {"StreamName", "file:stream", "colon"},
    {"ComponentTooLong", "a/" + std::string(256, 'n'), "longer than 255"},
    {"PathTooLong", std::string(40000, 'a'), "longer than 32767"},
};

TEST_P(PathsRefusedEverywhere, OnPosix) {
    const std::string why = WhyPathIsRefused(GetParam().path, PathRules::Posix);
    EXPECT_NE(why.find(GetParam().because), std::string::npos) << why;
}

TEST_P(PathsRefusedEverywhere, OnWindows) {
    const std::string why = WhyPathIsRefused(GetParam().path, PathRules::Windows);
    EXPECT_FALSE(why.empty());
}

INSTANTIATE_TEST_SUITE_P(PathRules, PathsRefusedEverywhere, ::testing::ValuesIn(kRefusedEverywhere), NameOf);

class PathsRefusedOnWindowsOnly : public ::testing::TestWithParam<RefusedPath> {};

const RefusedPath kRefusedOnWindows[] = {
    {"Con", "CON", "device"},
    {"ConLowerCase", "dir/con", "device"},
    {"NulWithExtension", "nul.txt", "device"},
    {"AuxWithBlanks", "AUX .log", "device"},
    {"Prn", "a/Prn", "device"},
    {"Com1", "COM1", "device"},
    {"Lpt9", "lpt9.dat", "device"},
    {"ComSuperscriptOne", "COM\xC2\xB9", "device"},
    {"ConIn", "CONIN$", "device"},
    {"TrailingDot", "name.", "dot or a blank"},
    {"TrailingBlank", "dir /x", "dot or a blank"},
    {"LessThan", "a<b", "reserves"},
    {"Question", "what?", "reserves"},
    {"Star", "*.txt", "reserves"},
    {"Pipe", "a|b", "reserves"},
    {"Quote", "a\"b", "reserves"},
    {"NotUtf8", "caf\xE9", "UTF-8"},
};

TEST_P(PathsRefusedOnWindowsOnly, OnWindows) {
    const std::string why = WhyPathIsRefused(GetParam().path, PathRules::Windows);
    EXPECT_FALSE(why.empty());
    EXPECT_NE(why.find(GetParam().because), std::string::npos) << why;
}

TEST_P(PathsRefusedOnWindowsOnly, NotOnPosix) {
    EXPECT_EQ(WhyPathIsRefused(GetParam().path, PathRules::Posix), "");
}

INSTANTIATE_TEST_SUITE_P(PathRules, PathsRefusedOnWindowsOnly, ::testing::ValuesIn(kRefusedOnWindows), NameOf);

TEST(PathRules, OrdinaryRelativePathsAreAccepted) {
    for (const PathRules rules : {PathRules::Posix, PathRules::Windows}) {
        for (const std::string& path : std::vector<std::string>{"a", "a/b/c.txt", "Grüße/文件 名.txt", ".hidden", "a/..b", "...x",
                                       "CONSOLE", "com10", "lpt", "con_x", std::string(255, 'x')}) {
            EXPECT_EQ(WhyPathIsRefused(path, rules), "") << path;
        }
    }
}

TEST(PathRules, AComponentLengthCountsBytesOnPosixAndUtf16UnitsOnWindows) {
    // 100 three-byte characters: 300 bytes, 100 UTF-16 units.
    std::string wide;
    for (int i = 0; i < 100; ++i) wide += "\xE6\x96\x87";
    EXPECT_NE(WhyPathIsRefused(wide, PathRules::Posix), "");
    EXPECT_EQ(WhyPathIsRefused(wide, PathRules::Windows), "");
}

TEST(PathRules, LinkTargetsAreAnyTextButEmptyNulOrOverlong) {
    EXPECT_EQ(WhyLinkTargetIsRefused("../../etc/passwd"), "");  // a link is made, never followed
    EXPECT_EQ(WhyLinkTargetIsRefused("/absolute/target"), "");
    EXPECT_NE(WhyLinkTargetIsRefused(""), "");
    EXPECT_NE(WhyLinkTargetIsRefused(std::string("a\0b", 3)), "");
    EXPECT_NE(WhyLinkTargetIsRefused(std::string(4096, 'a')), "");
}

}  // namespace
