// Everything the command line says about itself, written from the one
// table of commands (CommandTable) and their CLI11 options: the overview
// (--help), a command's help (COMMAND --help, help COMMAND), the man page,
// the bash and zsh completions, the version, and parse errors in one line.
#pragma once

#include <string>

#include "cli/Cli.h"

namespace qvhost::cli {

// The tool's version and the repository format it writes.
extern const char* const kToolVersion;

// Every command of the tool (cli/Commands.cpp).
void AddCommands(CommandTable& table);

std::string OverviewHelp(const CommandTable& table);
std::string CommandHelp(const CommandTable& table, const CommandTable::Entry& entry);
// The overview, or the entry's help.
void PrintHelp(const CommandTable& table, const CommandTable::Entry* entry);
void PrintVersion();

std::string ManPage(const CommandTable& table);
std::string BashCompletion(const CommandTable& table);
std::string ZshCompletion(const CommandTable& table);

// One line for a CLI11 parse failure: the option a command does not take,
// the argument it lacks, the value it refuses.
std::string ParseErrorText(const CLI::App& app, const CLI::ParseError& error, const CommandTable& table);

}  // namespace qvhost::cli
