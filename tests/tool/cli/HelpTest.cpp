// What the command line says of itself, written from its one table: each
// command's help holds its own options and no other command's, the
// overview names every command, the man page and the completions cover
// them all, and a parse failure is one line naming the command.
#include <gtest/gtest.h>

#include <fstream>

#include "cli/Help.h"

using namespace qvhost;
using namespace qvhost::cli;

namespace {

class HelpTest : public ::testing::Test {
protected:
    HelpTest() : app_("", "cloudplugin-host"), table_(app_) { DefineCommandLine(app_, options_, table_); }

    std::string Help(const std::string& command) { return CommandHelp(table_, *table_.Find(command)); }

    GlobalOptions options_;
    CLI::App app_;
    CommandTable table_;
};

TEST_F(HelpTest, ACommandsHelpHoldsItsOwnOptionsAndNoOtherCommands) {
    const std::string backup = Help("backup");
    EXPECT_NE(backup.find("usage: cloudplugin-host backup [options] [PATH...]"), std::string::npos) << backup;
    EXPECT_NE(backup.find("-n, --dry-run"), std::string::npos) << backup;
    EXPECT_EQ(backup.find("--keep-daily"), std::string::npos) << backup;
    EXPECT_EQ(backup.find("--read-data"), std::string::npos) << backup;
    const std::string forget = Help("forget");
    EXPECT_NE(forget.find("--keep-daily N"), std::string::npos) << forget;
    EXPECT_NE(forget.find("--group-by"), std::string::npos) << forget;
    EXPECT_EQ(forget.find("--dry-run"), forget.rfind("--dry-run")) << "once";
    EXPECT_NE(Help("legacy").find("legacy restore"), std::string::npos);
}

TEST_F(HelpTest, TheOverviewNamesEveryCommandAndTheExitStatuses) {
    const std::string overview = OverviewHelp(table_);
    for (const CommandTable::Entry& entry : table_.entries()) {
        if (entry.runner) {
            EXPECT_NE(overview.find("  " + entry.text.name + " "), std::string::npos) << entry.text.name;
        }
    }
    EXPECT_NE(overview.find("130  interrupted"), std::string::npos) << overview;
}

TEST_F(HelpTest, TheManPageAndTheCompletionsCoverEveryCommand) {
    const std::string man = ManPage(table_);
    const std::string bash = BashCompletion(table_);
    const std::string zsh = ZshCompletion(table_);
    EXPECT_EQ(man.rfind(".TH CLOUDPLUGIN\\-HOST 1", 0), 0u);
    for (const CommandTable::Entry& entry : table_.entries()) {
        if (!entry.runner) continue;
        std::string roff;
        for (char c : entry.text.name) roff += c == '-' ? std::string("\\-") : std::string(1, c);
        EXPECT_NE(man.find(".SS \"" + roff + "\""), std::string::npos) << entry.text.name;
        EXPECT_NE(bash.find("\"" + entry.text.name + "\")"), std::string::npos) << entry.text.name;
    }
    EXPECT_NE(bash.find("complete -F _cloudplugin_host cloudplugin-host"), std::string::npos);
    EXPECT_NE(bash.find("--dry-run"), std::string::npos);
    EXPECT_EQ(zsh.rfind("#compdef cloudplugin-host", 0), 0u);
}

TEST_F(HelpTest, AnOptionACommandDoesNotTakeIsOneLineNamingTheCommand) {
    std::vector<std::string> arguments = {"backup", "/tmp", "--keep-daily", "7"};
    std::reverse(arguments.begin(), arguments.end());  // CLI11 takes them in reverse
    try {
        app_.parse(arguments);
        FAIL() << "parsed";
    } catch (const CLI::ParseError& error) {
        const std::string text = ParseErrorText(app_, error, table_);
        EXPECT_EQ(text, "backup does not take the option --keep-daily") << text;
    }
}

TEST_F(HelpTest, TheReadmesCommandReferenceIsTheOneHelpIsWrittenFrom) {
    std::ifstream in(QV_SOURCE_DIR "/README.md", std::ios::binary);
    const std::string readme((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string begin = "<!-- command reference -->\n";
    const size_t start = readme.find(begin);
    const size_t end = readme.find("<!-- end of command reference -->");
    ASSERT_NE(start, std::string::npos);
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(readme.substr(start + begin.size(), end - start - begin.size()), MarkdownReference(table_))
        << "run: cloudplugin-host generate --reference - (and put it between the markers in README.md)";
}

}  // namespace
