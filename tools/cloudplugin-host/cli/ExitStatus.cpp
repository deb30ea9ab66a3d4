#include "cli/ExitStatus.h"

#include "host/PluginSession.h"

namespace qvhost {

namespace {

struct KindRow {
    ErrorKind kind;
    int status;
    const char* name;  // in --json
};

// Every kind of failure, its exit status and its name.
constexpr KindRow kKinds[] = {
    {ErrorKind::Usage, kExitUsage, "usage"},
    {ErrorKind::Damaged, kExitDamaged, "damaged"},
    {ErrorKind::NotFound, kExitNoSuchBackup, "not_found"},
    {ErrorKind::WrongPassword, kExitWrongPassword, "wrong_password"},
    {ErrorKind::Locked, kExitLocked, "locked"},
    {ErrorKind::NoRepository, kExitNoRepository, "no_repository"},
    {ErrorKind::Unsupported, kExitUnsupported, "unsupported"},
    {ErrorKind::Exists, kExitUsage, "exists"},
    {ErrorKind::LocalFile, kExitLocalFile, "local_file"},
    {ErrorKind::Storage, kExitStorage, "storage"},
    {ErrorKind::ObjectMissing, kExitDamaged, "object_missing"},
    {ErrorKind::Archived, kExitStorage, "archived"},
    {ErrorKind::SetUp, kExitSetUpFailed, "set_up"},
    {ErrorKind::Interrupted, kExitInterrupted, "interrupted"},
    {ErrorKind::SourceFailed, kExitFailed, "source_failed"},
};

const KindRow& RowOf(ErrorKind kind) {
    for (const KindRow& row : kKinds) {
        if (row.kind == kind) return row;
    }
    return kKinds[0];
}

std::string HintFor(const Error& error, const std::string& command, const std::string& target) {
    switch (error.kind()) {
    case ErrorKind::Usage:
        return command.empty() ? "see --help" : "see 'cloudplugin-host " + command + " --help'";
    case ErrorKind::NoRepository:
        return "make one with 'cloudplugin-host init'";
    case ErrorKind::WrongPassword:
        return "the password comes from CLOUDPLUGIN_PASSWORD or --password-file";
    case ErrorKind::Locked:
        return "'cloudplugin-host locks' lists the locks, 'cloudplugin-host unlock' removes stale ones";
    case ErrorKind::Archived: {
        const bool legacy = command.rfind("legacy ", 0) == 0;
        const std::string what = target.empty() ? (legacy ? "BACKUP" : "SNAPSHOT") : target.substr(0, target.find(':'));
        return "run 'cloudplugin-host " + std::string(legacy ? "legacy " : "") + "rehydrate " + what +
               "', wait until it reports nothing pending (hours), then run '" + command + "' again";
    }
    default:
        return "";
    }
}

}  // namespace

const std::vector<std::pair<int, std::string>>& ExitStatusTable() {
    static const std::vector<std::pair<int, std::string>> table = {
        {kExitOk, "done"},
        {kExitFailed, "the command failed: damaged data found (restore, check, verify: the files named were not "
                      "restored), or a failure of no other kind"},
        {kExitUsage, "a bad command line"},
        {kExitIncomplete, "a backup saved its snapshot (or manifest), but some source entries could not be read "
                          "and are not in it (not with --skip-unreadable)"},
        {kExitLocalFile, "a local file or folder could not be read or written"},
        {kExitSetUpFailed, "the JVM or the plug-in could not be set up"},
        {kExitNoSuchBackup, "no such snapshot, backup or path"},
        {kExitStorage, "the plug-in answered an operation with a non-zero result code: the storage refused or "
                       "could not be reached, or an object is archived and must be rehydrated first"},
        {kExitUnsupported, "a repository of a format this tool does not read, or a command this build lacks"},
        {kExitNoRepository, "no repository under --repo"},
        {kExitLocked, "the repository is locked by another process"},
        {kExitWrongPassword, "no password, or a wrong one"},
        {kExitInterrupted, "interrupted (Ctrl-C, SIGTERM)"},
    };
    return table;
}

ExitVerdict ExitFor(const Error& error, const std::string& command, const std::string& target) {
    return {RowOf(error.kind()).status, HintFor(error, command, target)};
}

Json ErrorJson(const Error& error, int status) {
    Json json{{"status", status}, {"message", error.what()}, {"kind", RowOf(error.kind()).name}};
    if (!error.object().empty()) json["object"] = error.object();
    if (const auto* plugin = dynamic_cast<const PluginError*>(&error)) {
        json["operation"] = plugin->operation();
        json["code"] = plugin->code();
    }
    return json;
}

}  // namespace qvhost
