#include "cli/Help.h"

#include <cstdio>

#include "repository/Keys.h"
#include "util/Text.h"

#ifndef QV_TOOL_VERSION
#define QV_TOOL_VERSION "unknown"
#endif

namespace qvhost::cli {

const char* const kToolVersion = QV_TOOL_VERSION;

std::vector<OptionText> OptionsOf(const CLI::App& app, const std::string& group) {
    std::vector<OptionText> out;
    for (const CLI::Option* option : app.get_options()) {
        if (!group.empty() && option->get_group() != group) continue;
        OptionText text;
        text.positional = option->get_positional();
        text.help = option->get_description();
        if (text.positional) {
            text.left = option->get_name();
        } else {
            text.names = Split(option->get_name(false, true), ',');
            for (const std::string& name : text.names) text.left += (text.left.empty() ? "" : ", ") + name;
            const std::string value = option->get_type_name();
            if (option->get_type_size_max() > 0 && !value.empty()) text.left += " " + value;
        }
        out.push_back(std::move(text));
    }
    return out;
}

namespace {

constexpr size_t kWidth = 80;

// Words laid out in lines of at most kWidth columns, each starting with `indent`.
std::string Wrapped(const std::string& text, size_t indent, size_t firstColumn) {
    std::string out;
    size_t column = firstColumn;
    for (const std::string& word : Split(text, ' ')) {
        if (word.empty()) continue;
        if (column > indent && column + 1 + word.size() > kWidth) {
            out += "\n" + std::string(indent, ' ');
            column = indent;
        } else if (column > indent || (column == indent && !out.empty())) {
            out += ' ';
            ++column;
        }
        out += word;
        column += word.size();
    }
    return out;
}

std::string OptionLines(const std::vector<OptionText>& options) {
    std::string out;
    for (const OptionText& option : options) {
        std::string line = "  " + option.left;
        if (line.size() < 26) line += std::string(26 - line.size(), ' ');
        else line += "\n" + std::string(26, ' ');
        out += line + Wrapped(option.help, 26, 26) + "\n";
    }
    return out;
}

std::string Paragraphs(const std::string& text) {
    std::string out;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find("\n\n", start);
        if (end == std::string::npos) end = text.size();
        std::string paragraph = text.substr(start, end - start);
        for (char& c : paragraph) c = c == '\n' ? ' ' : c;
        out += Wrapped(paragraph, 0, 0) + "\n\n";
        start = end + 2;
    }
    return out;
}

std::string UsageOf(const CommandTable::Entry& entry) {
    std::string usage = "cloudplugin-host " + entry.text.name;
    if (!entry.runner) return usage + " COMMAND [options] [arguments]";
    usage += " [options]";
    for (const CLI::Option* option : entry.app->get_options()) {
        if (!option->get_positional()) continue;
        std::string name = option->get_name() + (option->get_items_expected_max() > 1 ? "..." : "");
        usage += " " + (option->get_required() ? name : "[" + name + "]");
    }
    return usage;
}

std::string ExitStatusLines() {
    std::string out;
    for (const auto& [status, meaning] : ExitStatusTable()) {
        char number[8];
        std::snprintf(number, sizeof number, "%3d", status);
        out += "  " + std::string(number) + "  " + Wrapped(meaning, 7, 7) + "\n";
    }
    return out;
}

}  // namespace

std::string OverviewHelp(const CommandTable& table) {
    std::string out = "usage: cloudplugin-host [global options] COMMAND [options] [arguments]\n\n";
    out += Paragraphs(
        "A backup program on the cloud-storage plug-in: an encrypted, deduplicating repository of snapshots "
        "under a prefix of one container. 'cloudplugin-host help COMMAND' (or COMMAND --help) describes a "
        "command and its options.");
    out += "commands:\n";
    for (const CommandTable::Entry& entry : table.entries()) {
        if (!entry.runner) continue;
        std::string line = "  " + entry.text.name;
        if (line.size() < 22) line += std::string(22 - line.size(), ' ');
        else line += "\n" + std::string(22, ' ');
        out += line + Wrapped(entry.text.summary, 22, 22) + "\n";
    }
    CLI::App& app = const_cast<CommandTable&>(table).app();
    out += "\nglobal options (before or after the command):\n" + OptionLines(OptionsOf(app, "global options"));
    out += "\nset-up options (the plug-in, the JVM, the storage):\n" + OptionLines(OptionsOf(app, "set-up options"));
    out += "\nenvironment: CLOUDPLUGIN_CONNECTION, CLOUDPLUGIN_PASSWORD, CLOUDPLUGIN_INSTALL, JAVA_HOME\n";
    out += "\nexit status:\n" + ExitStatusLines();
    out += "  (0, 1, 3, 10, 11, 12 and 130 mean what they mean in restic's table)\n";
    return out;
}

std::string CommandHelp(const CommandTable& table, const CommandTable::Entry& entry) {
    std::string out = "usage: " + UsageOf(entry) + "\n\n";
    out += Paragraphs(entry.text.description.empty() ? entry.text.summary : entry.text.description);
    if (!entry.runner) {
        out += "commands:\n";
        for (const CommandTable::Entry& member : table.entries()) {
            if (member.text.name.rfind(entry.text.name + " ", 0) == 0) {
                out += "  " + member.text.name + "\n      " + Wrapped(member.text.summary, 6, 6) + "\n";
            }
        }
        return out;
    }
    std::vector<OptionText> arguments, options;
    for (OptionText& option : OptionsOf(*entry.app)) (option.positional ? arguments : options).push_back(option);
    if (!arguments.empty()) out += "arguments:\n" + OptionLines(arguments) + "\n";
    if (!options.empty()) out += "options:\n" + OptionLines(options) + "\n";
    out += Paragraphs("Global options (--json, -q, -v, -r, --password-file, --connection, ...) go before or after "
                      "the command: see 'cloudplugin-host --help'.");
    return out;
}

void PrintHelp(const CommandTable& table, const CommandTable::Entry* entry) {
    const std::string text = entry ? CommandHelp(table, *entry) : OverviewHelp(table);
    std::fputs(text.c_str(), stdout);
}

void PrintVersion() {
    std::printf("cloudplugin-host %s\n", kToolVersion);
    std::printf("repository format %u (written and read)\n", static_cast<unsigned>(repo::kRepositoryFormat));
    std::printf("built with the plug-in %s and the Java storage library %s (XNAzurePlugIn.jar) of the same source\n",
                kToolVersion, kToolVersion);
}

std::string ParseErrorText(const CLI::App& app, const CLI::ParseError& error, const CommandTable& table) {
    const CommandTable::Entry* selected = table.Selected();
    const std::string command = selected ? selected->text.name : "";
    std::vector<std::string> extras = app.remaining();
    if (selected && extras.empty()) extras = selected->app->remaining();
    if (dynamic_cast<const CLI::ExtrasError*>(&error) && !extras.empty()) {
        const std::string& first = extras.front();
        if (first.size() > 1 && first[0] == '-') {
            return command.empty() ? "unknown option " + first : command + " does not take the option " + first;
        }
        return command.empty() ? "unknown command " + first : command + " takes no further argument " + first;
    }
    return error.what();
}

}  // namespace qvhost::cli
