// Everything the command line says about itself, written from the one
// table of commands (CommandTable) and their CLI11 options: the overview
// (--help), a command's help (COMMAND --help, help COMMAND), the man page,
// the bash and zsh completions, the version, and parse errors in one line.
#pragma once

#include <string>
#include <vector>

#include "cli/Cli.h"

namespace qvhost::cli {

// An option or argument as help shows it.
struct OptionText {
    std::string left;                // "-n, --dry-run", "--keep-daily N", "SOURCE_DIR"
    std::string help;
    std::vector<std::string> names;  // "-n", "--dry-run"
    bool positional = false;
};
// The options and arguments of a command (or of the app, in `group`).
std::vector<OptionText> OptionsOf(const CLI::App& app, const std::string& group = "");

// The tool's version and the repository format it writes.
extern const char* const kToolVersion;

std::string OverviewHelp(const CommandTable& table);
std::string CommandHelp(const CommandTable& table, const CommandTable::Entry& entry);
// The overview, or the entry's help.
void PrintHelp(const CommandTable& table, const CommandTable::Entry* entry);
void PrintVersion();

std::string ManPage(const CommandTable& table);
std::string BashCompletion(const CommandTable& table);
std::string ZshCompletion(const CommandTable& table);
// README's command reference: a Markdown table of every command, its
// arguments, what it does and its options.
std::string MarkdownReference(const CommandTable& table);

// One line for a CLI11 parse failure: the option a command does not take,
// the argument it lacks, the value it refuses.
std::string ParseErrorText(const CLI::App& app, const CLI::ParseError& error, const CommandTable& table);

}  // namespace qvhost::cli
