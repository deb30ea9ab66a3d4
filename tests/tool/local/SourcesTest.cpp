// What a backup can be told to read besides PATH: lists of paths in files
// (lines with comments and globs, lines as they stand, NUL-separated), and
// one stream, standard input or a command's output.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include "local/FilesFrom.h"
#include "local/StreamSource.h"
#include "util/Error.h"
#include "support/TempFolder.h"

using namespace qvhost;
namespace fs = std::filesystem;

namespace {

using testsupport::WriteText;

// Reads the whole stream in small steps; the error, if any, that ends it.
std::string ReadAll(StreamSource& source, std::optional<Error>& failure) {
    std::string text;
    try {
        const std::unique_ptr<repo::SourceReader> reader = source.Open(source.List("").nodes.at(0).name);
        char buffer[7];
        while (const size_t got = reader->Read(buffer, sizeof buffer)) text.append(buffer, got);
    } catch (const Error& error) {
        failure = error;
    }
    return text;
}

TEST(PathLists, LinesSkipBlanksAndCommentsAndTrimTheirEnds) {
    EXPECT_EQ(ParsePathList("/srv/a\n\n# a comment\n  /srv/b c  \r\n\t#indented comment\n/srv/d", PathListForm::Lines),
              (std::vector<std::string>{"/srv/a", "/srv/b c", "/srv/d"}));
}

TEST(PathLists, VerbatimLinesAreTakenAsTheyStand) {
    EXPECT_EQ(ParsePathList("/srv/#not a comment\n\n /srv/lead and trail \n/srv/*", PathListForm::Verbatim),
              (std::vector<std::string>{"/srv/#not a comment", " /srv/lead and trail ", "/srv/*"}));
}

TEST(PathLists, RawListsAreSplitAtNulOnly) {
    const std::string text("/srv/new\nline\0/srv/#hash\0\0/srv/last\0", 36);
    EXPECT_EQ(ParsePathList(text, PathListForm::Raw),
              (std::vector<std::string>{"/srv/new\nline", "/srv/#hash", "/srv/last"}));
}

TEST(PathLists, GlobsInLinesAreExpandedAndOneThatMatchesNothingIsKept) {
    testsupport::TempFolder folder;
    const std::string root = folder.PathUtf8();
    for (const char* name : {"a.log", "b.log", "c.txt"}) WriteText(root + "/" + name, "x");
    EXPECT_EQ(ParsePathList(root + "/*.log\n" + root + "/none-*.log\n", PathListForm::Lines),
              (std::vector<std::string>{root + "/a.log", root + "/b.log", root + "/none-*.log"}));
    // Verbatim: the glob stays a name.
    EXPECT_EQ(ParsePathList(root + "/*.log\n", PathListForm::Verbatim), (std::vector<std::string>{root + "/*.log"}));
}

TEST(PathLists, AListThatCannotBeReadIsALocalFileFailure) {
    testsupport::TempFolder folder;
    try {
        ReadPathList(folder.PathUtf8() + "/missing.txt", PathListForm::Lines);
        FAIL() << "no failure";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind(), ErrorKind::LocalFile);
        EXPECT_NE(std::string(error.what()).find("missing.txt"), std::string::npos) << error.what();
    }
}

TEST(StreamSource, ACommandsOutputIsOneFileUnderItsNameWithTheFoldersOnItsWay) {
    StreamSource source("dumps/db.sql", {"printf", "%s", "hello, stream"});
    EXPECT_EQ(source.Paths(), (std::vector<std::string>{"/dumps/db.sql"}));
    EXPECT_FALSE(source.SizesKnownBeforeReading());
    const repo::Listing root = source.List("");
    ASSERT_EQ(root.nodes.size(), 1u);
    EXPECT_EQ(root.nodes[0].name, "dumps");
    EXPECT_EQ(root.nodes[0].type, repo::NodeType::Folder);
    EXPECT_TRUE(root.nodes[0].implicit);
    const repo::Listing dumps = source.List("dumps");
    ASSERT_EQ(dumps.nodes.size(), 1u);
    EXPECT_EQ(dumps.nodes[0].name, "db.sql");
    EXPECT_EQ(dumps.nodes[0].type, repo::NodeType::File);
    EXPECT_EQ(dumps.nodes[0].mode, 0644u);
    EXPECT_GT(dumps.nodes[0].modifiedNs, 0);
    const std::unique_ptr<repo::SourceReader> reader = source.Open("dumps/db.sql");
    std::string text(64, '\0');
    text.resize(reader->Read(text.data(), text.size()));
    EXPECT_EQ(text, "hello, stream");
    EXPECT_EQ(reader->Read(text.data(), text.size()), 0u);
}

TEST(StreamSource, ACommandThatFailsAfterItsOutputFailsTheStreamAtItsEnd) {
    StreamSource source("out", {"sh", "-c", "echo partial; exit 3"});
    std::optional<Error> failure;
    EXPECT_EQ(ReadAll(source, failure), "partial\n");
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->kind(), ErrorKind::SourceFailed);
    EXPECT_NE(std::string(failure->what()).find("exited with status 3"), std::string::npos) << failure->what();
}

TEST(StreamSource, ACommandEndedByASignalFailsTheStream) {
    StreamSource source("out", {"sh", "-c", "kill -TERM $$"});
    std::optional<Error> failure;
    EXPECT_EQ(ReadAll(source, failure), "");
    ASSERT_TRUE(failure.has_value());
    EXPECT_NE(std::string(failure->what()).find("signal 15"), std::string::npos) << failure->what();
}

TEST(StreamSource, ACommandThatCannotStartFailsAtOnce) {
    try {
        StreamSource source("out", {"/nonexistent/command-that-is-not-there"});
        FAIL() << "started";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind(), ErrorKind::SourceFailed);
        EXPECT_NE(std::string(error.what()).find("cannot start"), std::string::npos) << error.what();
    }
}

TEST(StreamSource, NamesARestoreWouldRefuseAndAMissingCommandAreUsageErrors) {
    for (const std::string name : {"", "/", "a/../b", "a//b", "."}) {
        try {
            StreamSource source(name);
            FAIL() << "accepted '" << name << "'";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind(), ErrorKind::Usage) << name;
        }
    }
    try {
        StreamSource source("out", std::vector<std::string>{});
        FAIL() << "accepted no command";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind(), ErrorKind::Usage);
    }
}

TEST(StreamSource, AStreamIsReadOnceOnly) {
    StreamSource source("out", {"true"});
    const std::unique_ptr<repo::SourceReader> first = source.Open("out");
    EXPECT_THROW(source.Open("out"), Error);
}

TEST(StreamSource, ABackupThatStopsEarlyEndsTheCommand) {
    // `yes` writes for ever; the source is dropped after a few bytes, and
    // its destructor must not wait for an end that never comes.
    auto source = std::make_unique<StreamSource>("out", std::vector<std::string>{"yes"});
    const std::unique_ptr<repo::SourceReader> reader = source->Open("out");
    char buffer[16];
    EXPECT_EQ(reader->Read(buffer, sizeof buffer), sizeof buffer);
    source.reset();
}

}  // namespace
