#include "cli/Cli.h"

#include <cstdio>

#include "host/PluginObjectStore.h"
#include "local/FolderObjectStore.h"
#include "host/PluginSession.h"
#include "util/Text.h"

namespace qvhost::cli {

Context::Context(GlobalOptions& options)
    : options_(options), display_(options.json || options.quiet ? ProgressStyle::Silent : DefaultProgressStyle()) {}

Context::~Context() = default;

PluginSession& Context::Session() {
    if (session_) return *session_;
    if (options_.host.connectionString.empty()) {
        throw Error(ErrorKind::Usage, "no connection string: give --connection or set CLOUDPLUGIN_CONNECTION");
    }
    HostSettings settings = options_.host;
    if (callerVerifiesReads_) {
        settings.connectionString = WithConnectionDefault(settings.connectionString, kVerifyDownloadMd5Key, "false");
    }
    runtime_ = std::make_unique<HostRuntime>(settings);
    session_ = std::make_unique<PluginSession>(runtime_->plugin());
    return *session_;
}

PluginSession& Context::VerifyingSession() {
    callerVerifiesReads_ = true;
    return Session();
}

repo::ObjectStore& Context::Store() {
    if (store_) return *store_;
    if (!options_.folder.empty()) {
        store_ = std::make_unique<repo::FolderObjectStore>(options_.folder);
    } else {
        store_ = std::make_unique<repo::PluginObjectStore>(VerifyingSession());
    }
    return *store_;
}

double Context::PluginSeconds() { return options_.folder.empty() ? Session().PluginSeconds() : 0.0; }

std::optional<StorageTraffic> Context::Traffic() const {
    return runtime_ ? runtime_->Traffic() : std::nullopt;
}

void Context::Close() {
    store_.reset();
    if (runtime_) runtime_->Close();
}

void Context::Say(const std::string& text) const {
    if (options_.json || options_.quiet) return;
    std::fputs(text.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void Context::Verbose(const std::string& text) const {
    if (options_.verbose > 0) Say(text);
}

void Context::Warn(const std::string& text) const {
    if (options_.json) return;
    std::fprintf(stderr, "%s\n", text.c_str());
}

void Context::SayPluginShare(double pluginSeconds, double seconds, unsigned jobs) const {
    if (!options_.folder.empty()) return;
    char line[160];
    std::snprintf(line, sizeof line,
                  "inside the plug-in (with the JVM and the storage service): %.1f s of thread time, "
                  "%.0f%% of %u jobs x %.1f s",
                  pluginSeconds, seconds > 0 ? 100.0 * pluginSeconds / (seconds * jobs) : 0.0, jobs, seconds);
    Say(line);
}

CLI::App* CommandTable::Group(const std::string& name, const std::string& summary, const std::string& description) {
    CLI::App* group = app_.add_subcommand(name, summary);
    group->fallthrough()->require_subcommand(0, 1);
    entries_.push_back({{name, summary, description}, group, nullptr});
    return group;
}

CLI::App* CommandTable::Add(const CommandText& text, Runner runner) {
    CLI::App* parent = &app_;
    std::string word = text.name;
    const size_t space = text.name.find(' ');
    if (space != std::string::npos) {
        const Entry* group = Find(text.name.substr(0, space));
        parent = group ? group->app : Group(text.name.substr(0, space), "", "");
        word = text.name.substr(space + 1);
    }
    CLI::App* sub = parent->add_subcommand(word, text.summary);
    sub->fallthrough();
    entries_.push_back({text, sub, std::move(runner)});
    return sub;
}

const CommandTable::Entry* CommandTable::Find(const std::string& name) const {
    for (const Entry& entry : entries_) {
        if (entry.text.name == name) return &entry;
    }
    return nullptr;
}

const CommandTable::Entry* CommandTable::Selected() const {
    const Entry* selected = nullptr;
    for (const Entry& entry : entries_) {
        // Parsed subcommands: a group's and then its member's; the member wins.
        if (entry.app->parsed() && (!selected || entry.text.name.size() > selected->text.name.size())) {
            selected = &entry;
        }
    }
    return selected;
}

uint64_t SizeArgument(const std::string& option, const std::string& text, uint64_t minimum, uint64_t maximum) {
    const uint64_t size = ParseSize(text);
    if (size == 0 || size < minimum || size > maximum) {
        throw Error(ErrorKind::Usage, option + " takes a size from " + FormatBytes(double(minimum)) + " to " +
                                          FormatBytes(double(maximum)) + " such as 64M, not " + text);
    }
    return size;
}

unsigned CountArgument(const std::string& option, const std::string& text, unsigned maximum) {
    const uint64_t count = ParseSize(text);
    if (count == 0 || count > maximum || text.find_first_not_of("0123456789") != std::string::npos) {
        throw Error(ErrorKind::Usage, option + " takes a number from 1 to " + std::to_string(maximum) + ", not " + text);
    }
    return static_cast<unsigned>(count);
}

int64_t AgeArgument(const std::string& option, const std::string& text) {
    const int64_t age = ParseAge(text);
    if (age < 0) throw Error(ErrorKind::Usage, option + " takes an age such as 30s, 10m, 24h or 7d, not " + text);
    return age;
}

}  // namespace qvhost::cli
