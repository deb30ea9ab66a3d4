// help COMMAND, and generate: the man page and the shell completions,
// written from the same table as --help (the packages install what the
// build generates with it).
#include <cstdio>
#include <fstream>

#include "cli/Help.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

// Text for roff: backslashes, leading dots and quotes, and every hyphen
// that stands for a minus in an option.
std::string Roff(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\\') out += "\\e";
        else if (c == '-') out += "\\-";
        else if ((c == '.' || c == '\'') && (i == 0 || text[i - 1] == '\n')) out += "\\&" + std::string(1, c);
        else out += c;
    }
    return out;
}

std::string ManOptions(const std::vector<OptionText>& flags) {
    std::string out;
    for (const OptionText& flag : flags) out += ".TP\n.B " + Roff(flag.left) + "\n" + Roff(flag.help) + "\n";
    return out;
}

std::string ManParagraphs(const std::string& text) {
    std::string out;
    for (const std::string& paragraph : Split(text, '\n')) {
        if (!paragraph.empty()) out += Roff(paragraph) + "\n.PP\n";
    }
    return out;
}

std::string CommandWords(const CommandTable& table, const std::string& group) {
    std::string words;
    for (const CommandTable::Entry& entry : table.entries()) {
        const std::string& name = entry.text.name;
        const bool member = name.rfind(group + " ", 0) == 0;
        if (group.empty() ? name.find(' ') == std::string::npos : member) {
            words += (words.empty() ? "" : " ") + (group.empty() ? name : name.substr(group.size() + 1));
        }
    }
    return words;
}

std::string OptionWords(const CLI::App& app, const std::string& group = "") {
    std::string words;
    for (const OptionText& flag : OptionsOf(app, group)) {
        for (const std::string& name : flag.names) words += (words.empty() ? "" : " ") + name;
    }
    return words;
}

void WriteTo(const std::string& path, const std::string& text) {
    if (path == "-") {
        std::fputs(text.c_str(), stdout);
        return;
    }
    std::ofstream out(path, std::ios::binary);
    out << text;
    if (!out.flush()) throw Error(ErrorKind::LocalFile, "cannot write " + path);
}

struct GenerateOptions {
    std::string man;
    std::string bash;
    std::string zsh;
    std::string reference;
};

// A command's arguments as its usage shows them: "SOURCE_DIR", "[PREFIX]".
std::string ArgumentsOf(const CLI::App& app) {
    std::string text;
    for (const CLI::Option* option : app.get_options()) {
        if (!option->get_positional()) continue;
        const std::string name = option->get_name() + (option->get_items_expected_max() > 1 ? "..." : "");
        text += (text.empty() ? "" : " ") + (option->get_required() ? name : "[" + name + "]");
    }
    return text;
}

std::string MarkdownCell(const std::string& text) {
    std::string out;
    for (const char c : text) out += c == '|' ? std::string("\\|") : std::string(1, c);
    return out;
}

}  // namespace

std::string ManPage(const CommandTable& table) {
    CLI::App& app = const_cast<CommandTable&>(table).app();
    std::string out = ".TH CLOUDPLUGIN\\-HOST 1 \"\" \"cloudplugin\\-host " + Roff(kToolVersion) + "\" \"User Commands\"\n";
    out += ".SH NAME\ncloudplugin\\-host \\- a backup program on the cloud\\-storage plug\\-in\n";
    out += ".SH SYNOPSIS\n.B cloudplugin\\-host\n[\\fIglobal options\\fR] \\fICOMMAND\\fR [\\fIoptions\\fR] "
           "[\\fIarguments\\fR]\n";
    out += ".SH DESCRIPTION\n" +
           ManParagraphs("cloudplugin-host drives the cloud-storage plug-in for real work: an encrypted, "
                         "deduplicating, compressing repository of snapshots under a prefix of one container.");
    out += ".SH COMMANDS\n";
    for (const CommandTable::Entry& entry : table.entries()) {
        if (!entry.runner) continue;
        out += ".SS \"" + Roff(entry.text.name) + "\"\n" +
               ManParagraphs(entry.text.description.empty() ? entry.text.summary : entry.text.description);
        out += ManOptions(OptionsOf(*entry.app));
    }
    out += ".SH GLOBAL OPTIONS\n" + ManOptions(OptionsOf(app, "global options"));
    out += ".SH SET\\-UP OPTIONS\n" + ManOptions(OptionsOf(app, "set-up options"));
    out += ".SH ENVIRONMENT\n.TP\n.B CLOUDPLUGIN_CONNECTION\nthe storage library's init string\n"
           ".TP\n.B CLOUDPLUGIN_PASSWORD\nthe repository's password\n"
           ".TP\n.B CLOUDPLUGIN_INSTALL\nthe install folder holding Plugin/Azure/\n";
    out += ".SH EXIT STATUS\n";
    for (const auto& [status, meaning] : ExitStatusTable()) {
        out += ".TP\n.B " + std::to_string(status) + "\n" + Roff(meaning) + "\n";
    }
    return out;
}

std::string BashCompletion(const CommandTable& table) {
    CLI::App& app = const_cast<CommandTable&>(table).app();
    std::string cases;
    for (const CommandTable::Entry& entry : table.entries()) {
        const std::string words = entry.runner ? OptionWords(*entry.app) : CommandWords(table, entry.text.name);
        cases += "        \"" + entry.text.name + "\") words=\"" + words + "\" ;;\n";
    }
    return "# bash completion for cloudplugin-host, generated by 'cloudplugin-host generate'\n"
           "_cloudplugin_host() {\n"
           "    local cur=\"${COMP_WORDS[COMP_CWORD]}\" command=\"\" word i words\n"
           "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
           "        word=\"${COMP_WORDS[i]}\"\n"
           "        [[ $word == -* ]] && continue\n"
           "        if [[ -z $command ]]; then command=$word\n"
           "        elif [[ $command == object || $command == legacy ]]; then command=\"$command $word\"; break\n"
           "        else break; fi\n"
           "    done\n"
           "    case \"$command\" in\n"
           "        \"\") words=\"" + CommandWords(table, "") + "\" ;;\n" + cases +
           "    esac\n"
           "    if [[ $cur == -* ]]; then words=\"$words " + OptionWords(app, "global options") + " " +
           OptionWords(app, "set-up options") + "\"; fi\n"
           "    COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
           "    [[ ${#COMPREPLY[@]} -eq 0 && $cur != -* ]] && COMPREPLY=($(compgen -f -- \"$cur\"))\n"
           "    return 0\n"
           "}\n"
           "complete -F _cloudplugin_host cloudplugin-host\n";
}

std::string ZshCompletion(const CommandTable& table) {
    std::string commands;
    for (const CommandTable::Entry& entry : table.entries()) {
        if (entry.text.name.find(' ') != std::string::npos) continue;
        std::string summary = entry.text.summary;
        for (char& c : summary) c = (c == '\'' || c == ':') ? ' ' : c;
        commands += "        '" + entry.text.name + ":" + summary + "'\n";
    }
    // zsh runs the bash completion through bashcompinit for the options of
    // each command; the command words come with their summaries.
    return "#compdef cloudplugin-host\n"
           "# zsh completion for cloudplugin-host, generated by 'cloudplugin-host generate'\n"
           "_cloudplugin_host_commands() {\n"
           "    local -a commands\n"
           "    commands=(\n" + commands +
           "    )\n"
           "    _describe 'command' commands\n"
           "}\n"
           "autoload -U +X bashcompinit && bashcompinit\n" +
           BashCompletion(table) +
           "_cloudplugin_host_zsh() {\n"
           "    if (( CURRENT == 2 )) && [[ $words[CURRENT] != -* ]]; then _cloudplugin_host_commands; return; fi\n"
           "    _bash_complete -F _cloudplugin_host\n"
           "}\n"
           "compdef _cloudplugin_host_zsh cloudplugin-host\n";
}

std::string MarkdownReference(const CommandTable& table) {
    std::string out = "| command | what it does | its options |\n|---|---|---|\n";
    for (const CommandTable::Entry& entry : table.entries()) {
        if (!entry.runner) continue;
        const std::string arguments = ArgumentsOf(*entry.app);
        std::string options;
        for (const OptionText& flag : OptionsOf(*entry.app)) {
            if (!flag.positional) options += (options.empty() ? "" : ", ") + ("`" + flag.left + "`");
        }
        out += "| `" + entry.text.name + (arguments.empty() ? "" : " " + arguments) + "` | " +
               MarkdownCell(entry.text.summary) + " | " + MarkdownCell(options) + " |\n";
    }
    CLI::App& app = const_cast<CommandTable&>(table).app();
    out += "\n| option (any command) | what it does |\n|---|---|\n";
    for (const std::string group : {"global options", "set-up options"}) {
        for (const OptionText& flag : OptionsOf(app, group)) {
            out += "| `" + MarkdownCell(flag.left) + "` | " + MarkdownCell(flag.help) + " |\n";
        }
    }
    return out;
}

void AddHelpCommands(CommandTable& table) {
    auto words = std::make_shared<std::vector<std::string>>();
    CLI::App* help = table.Add(
        {"help", "describe a command (or, alone, every command)",
         "Describes a command, its arguments and its options, as COMMAND --help does."},
        [&table, words](Context&) {
            std::string name;
            for (const std::string& word : *words) name += (name.empty() ? "" : " ") + word;
            const CommandTable::Entry* entry = name.empty() ? nullptr : table.Find(name);
            if (!name.empty() && !entry) throw Error(ErrorKind::Usage, "no command " + name);
            PrintHelp(table, entry);
            return CommandResult{};
        });
    help->add_option("COMMAND", *words, "the command (two words for 'object' and 'legacy' commands)");
    auto options = std::make_shared<GenerateOptions>();
    CLI::App* generate = table.Add(
        {"generate", "write the man page, the bash and zsh completions and the command reference",
         "Writes the man page (roff), the completion scripts for bash and zsh and README's command reference "
         "(Markdown), each to a file ('-': standard output). The packages install what the build generates with "
         "it."},
        [&table, options](Context&) {
            if (options->man.empty() && options->bash.empty() && options->zsh.empty() && options->reference.empty()) {
                throw Error(ErrorKind::Usage, "generate takes --man, --bash-completion, --zsh-completion or --reference");
            }
            if (!options->reference.empty()) WriteTo(options->reference, MarkdownReference(table));
            if (!options->man.empty()) WriteTo(options->man, ManPage(table));
            if (!options->bash.empty()) WriteTo(options->bash, BashCompletion(table));
            if (!options->zsh.empty()) WriteTo(options->zsh, ZshCompletion(table));
            return CommandResult{};
        });
    generate->add_option("--man", options->man, "the man page")->type_name("FILE");
    generate->add_option("--bash-completion", options->bash, "the bash completion script")->type_name("FILE");
    generate->add_option("--zsh-completion", options->zsh, "the zsh completion script")->type_name("FILE");
    generate->add_option("--reference", options->reference, "README's command reference (Markdown)")->type_name("FILE");
}

}  // namespace qvhost::cli
