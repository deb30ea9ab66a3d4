// What a backup's scan leaves out: patterns on the absolute path, exclude
// files, tagged folders, other file systems and large files; an excluded
// folder is never listed, and what is left out is named with its reason.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>

#include "local/Excludes.h"
#include "util/Error.h"
#include "local/SourceEntries.h"
#include "support/TempFolder.h"

using namespace qvhost;
namespace fs = std::filesystem;

namespace {

using testsupport::WriteText;

using localtest::PathsOf;

bool Has(const std::vector<std::string>& items, const std::string& item) {
    return std::find(items.begin(), items.end(), item) != items.end();
}

std::optional<ErrorKind> FailureOf(const ExcludeOptions& options, const std::string& root) {
    try {
        Excludes excludes(options, root);
    } catch (const Error& error) {
        return error.kind();
    }
    return std::nullopt;
}

class ExcludesTest : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = temp_.PathUtf8() + "/home/me";
        WriteText(root_ + "/notes.txt", "notes");
        WriteText(root_ + "/build/main.o", "object");
        WriteText(root_ + "/build/main.c", "source");
        WriteText(root_ + "/src/app.c", "source");
        WriteText(root_ + "/src/app.o", "object");
        WriteText(root_ + "/src/node_modules/left-pad/index.js", "js");
        WriteText(root_ + "/Photos/A.JPG", "jpeg");
        WriteText(root_ + "/Photos/b.png", "png");
    }

    // The scan with the excludes, and every entry the scan asked about.
    SourceTree Scan(Excludes& excludes) {
        asked_.clear();
        return ScanTree(root_, [&](const ScanCandidate& entry) {
            asked_.push_back(entry.relativePath);
            return excludes.Judge(entry);
        });
    }

    testsupport::TempFolder temp_;
    std::string root_;
    std::vector<std::string> asked_;
};

TEST_F(ExcludesTest, PatternsMatchTheAbsolutePathAndAnExcludedFolderIsNeverListed) {
    ExcludeOptions options;
    options.patterns = {"*.o", "node_modules", root_ + "/build"};
    Excludes excludes(options, root_);
    const SourceTree tree = Scan(excludes);
    EXPECT_EQ(PathsOf(tree.files),
              (std::vector<std::string>{"Photos/A.JPG", "Photos/b.png", "notes.txt", "src/app.c"}));
    EXPECT_TRUE(tree.skipped.empty());
    EXPECT_TRUE(Has(asked_, "build"));
    EXPECT_FALSE(Has(asked_, "build/main.c")) << "an excluded folder is not listed";
    EXPECT_FALSE(Has(asked_, "src/node_modules/left-pad"));
    ASSERT_EQ(excludes.excluded().size(), 3u);
    std::vector<std::string> reasons;
    for (const ExcludedEntry& entry : excludes.excluded()) reasons.push_back(entry.relativePath + ": " + entry.reason);
    std::sort(reasons.begin(), reasons.end());
    EXPECT_EQ(reasons, (std::vector<std::string>{"build: matches --exclude " + root_ + "/build",
                                                 "src/app.o: matches --exclude *.o",
                                                 "src/node_modules: matches --exclude node_modules"}));
}

TEST_F(ExcludesTest, AnchoredPatternsOfARelativeSourceStillMatchItsAbsolutePath) {
    const fs::path before = fs::current_path();
    fs::current_path(fs::u8path(temp_.PathUtf8()));
    ExcludeOptions options;
    options.patterns = {root_ + "/src"};
    Excludes excludes(options, "home/me");
    const SourceTree tree = ScanTree("home/me", excludes.Filter());
    fs::current_path(before);
    EXPECT_FALSE(Has(PathsOf(tree.files), "src/app.c"));
    EXPECT_TRUE(Has(PathsOf(tree.files), "build/main.c"));
}

TEST_F(ExcludesTest, CaselessPatternsIgnoreCaseAndTheOthersDoNot) {
    ExcludeOptions options;
    options.patterns = {"*.jpg"};
    Excludes sensitive(options, root_);
    EXPECT_TRUE(Has(PathsOf(Scan(sensitive).files), "Photos/A.JPG"));
    options.patterns.clear();
    options.caselessPatterns = {"*.jpg"};
    Excludes caseless(options, root_);
    EXPECT_FALSE(Has(PathsOf(Scan(caseless).files), "Photos/A.JPG"));
    EXPECT_EQ(caseless.excluded().at(0).reason, "matches --iexclude *.jpg");
}

TEST_F(ExcludesTest, ExcludeFilesTakeOnePatternALineWithCommentsBlanksAndTheEnvironment) {
    setenv("QV_EXCLUDES_TEST_HOME", root_.c_str(), 1);
    unsetenv("QV_EXCLUDES_TEST_UNSET");
    EXPECT_EQ(PatternLines("# a comment\n\n  *.o  \r\n$QV_EXCLUDES_TEST_HOME/build\n${QV_EXCLUDES_TEST_HOME}/x\n"
                           "a$$b\n$QV_EXCLUDES_TEST_UNSET/y\nfoo bar star.txt\n$ 5\n"),
              (std::vector<std::string>{"*.o", root_ + "/build", root_ + "/x", "a$b", "/y", "foo bar star.txt",
                                        "$ 5"}));

    WriteText(temp_.PathUtf8() + "/excludes.txt", "# build output\n*.o\n$QV_EXCLUDES_TEST_HOME/src/node_modules\n");
    WriteText(temp_.PathUtf8() + "/iexcludes.txt", "*.JPG\n");
    ExcludeOptions options;
    options.patternFiles = {temp_.PathUtf8() + "/excludes.txt"};
    options.caselessFiles = {temp_.PathUtf8() + "/iexcludes.txt"};
    Excludes excludes(options, root_);
    EXPECT_EQ(PathsOf(Scan(excludes).files),
              (std::vector<std::string>{"Photos/b.png", "build/main.c", "notes.txt", "src/app.c"}));
}

TEST_F(ExcludesTest, BadPatternsAndUnreadableExcludeFilesStopBeforeAnyScan) {
    ExcludeOptions options;
    options.patterns = {"[oops"};
    EXPECT_EQ(FailureOf(options, root_), ErrorKind::Usage);
    options.patterns.clear();
    options.patternFiles = {temp_.PathUtf8() + "/no such file"};
    EXPECT_EQ(FailureOf(options, root_), ErrorKind::LocalFile);
    WriteText(temp_.PathUtf8() + "/bad.txt", "fine\nnot[fine\n");
    options.patternFiles = {temp_.PathUtf8() + "/bad.txt"};
    EXPECT_EQ(FailureOf(options, root_), ErrorKind::Usage);
    options.patternFiles.clear();
    for (const char* name : {"a/b", "", ":header", ".."}) {
        options.ifPresent = {name};
        EXPECT_EQ(FailureOf(options, root_), ErrorKind::Usage) << name;
    }
}

TEST_F(ExcludesTest, ACacheFoldersContentIsLeftOutButItsTagIsKept) {
    WriteText(root_ + "/.cache/CACHEDIR.TAG", std::string(kCacheDirSignature) + "\n# made by a browser\n");
    WriteText(root_ + "/.cache/thumbnails/1.png", "png");
    WriteText(root_ + "/.cache/data.bin", "cached");
    // A tag without the signature is no tag.
    WriteText(root_ + "/fake/CACHEDIR.TAG", "Signature: something else\n");
    WriteText(root_ + "/fake/kept.txt", "kept");
    ExcludeOptions options;
    options.caches = true;
    Excludes excludes(options, root_);
    const SourceTree tree = Scan(excludes);
    const std::vector<std::string> files = PathsOf(tree.files);
    EXPECT_TRUE(Has(files, ".cache/CACHEDIR.TAG"));
    EXPECT_FALSE(Has(files, ".cache/data.bin"));
    EXPECT_FALSE(Has(asked_, ".cache/thumbnails/1.png")) << "the cache's folders are not listed";
    EXPECT_TRUE(Has(files, "fake/kept.txt"));
    EXPECT_TRUE(Has(files, "fake/CACHEDIR.TAG"));
    EXPECT_EQ(excludes.excluded().size(), 2u);
    EXPECT_EQ(excludes.excluded().at(0).reason, "in a folder holding CACHEDIR.TAG");
}

TEST_F(ExcludesTest, AFolderHoldingANamedFileLosesItsContentOptionallyByTheFilesFirstBytes) {
    WriteText(root_ + "/scratch/.nobackup", "");
    WriteText(root_ + "/scratch/big.iso", "iso");
    WriteText(root_ + "/vm/.marker", "skip me please");
    WriteText(root_ + "/vm/disk.img", "img");
    WriteText(root_ + "/other/.marker", "keep me");
    WriteText(root_ + "/other/doc.txt", "doc");
    ExcludeOptions options;
    options.ifPresent = {".nobackup", ".marker:skip me"};
    Excludes excludes(options, root_);
    const std::vector<std::string> files = PathsOf(Scan(excludes).files);
    EXPECT_TRUE(Has(files, "scratch/.nobackup"));
    EXPECT_FALSE(Has(files, "scratch/big.iso"));
    EXPECT_TRUE(Has(files, "vm/.marker"));
    EXPECT_FALSE(Has(files, "vm/disk.img"));
    EXPECT_TRUE(Has(files, "other/doc.txt"));
}

TEST_F(ExcludesTest, FilesLargerThanTheLimitAreLeftOutAndOfTheLimitKept) {
    WriteText(root_ + "/exactly", std::string(1024, 'x'));
    WriteText(root_ + "/larger", std::string(1025, 'x'));
    ExcludeOptions options;
    options.largerThan = 1024;
    Excludes excludes(options, root_);
    const std::vector<std::string> files = PathsOf(Scan(excludes).files);
    EXPECT_TRUE(Has(files, "exactly"));
    EXPECT_FALSE(Has(files, "larger"));
    ASSERT_EQ(excludes.excluded().size(), 1u);
    EXPECT_EQ(excludes.excluded()[0].reason, "larger than 1.0 KiB");
}

// /dev/pts is a file system of its own on Linux: with -x it is kept as an
// empty folder and never listed.
TEST(ExcludesOneFileSystem, AMountPointIsKeptAsAnEmptyFolderAndNotListed) {
    struct stat dev, pts;
    if (stat("/dev", &dev) != 0 || stat("/dev/pts", &pts) != 0 || dev.st_dev == pts.st_dev) {
        GTEST_SKIP() << "/dev/pts is not a mount point here";
    }
    ExcludeOptions options;
    options.oneFileSystem = true;
    Excludes excludes(options, "/dev");
    std::vector<std::string> asked;
    const SourceTree tree = ScanTree("/dev", [&](const ScanCandidate& entry) {
        asked.push_back(entry.relativePath);
        return excludes.Judge(entry);
    });
    EXPECT_TRUE(Has(PathsOf(tree.folders), "pts"));
    EXPECT_FALSE(std::any_of(asked.begin(), asked.end(), [](const std::string& p) { return p.rfind("pts/", 0) == 0; }));
    bool named = false;
    for (const ExcludedEntry& entry : excludes.excluded()) {
        named = named || (entry.relativePath == "pts" && entry.reason.find("another file system") != std::string::npos);
    }
    EXPECT_TRUE(named);

    // Without -x the same scan lists it.
    std::vector<std::string> all;
    ScanTree("/dev", [&](const ScanCandidate& entry) {
        all.push_back(entry.relativePath);
        return ScanChoice::Keep;
    });
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [](const std::string& p) { return p.rfind("pts/", 0) == 0; }));
}

}  // namespace
