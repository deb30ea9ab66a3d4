// dump: a file of a snapshot to standard output, or a folder as a tar stream.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli/RepositorySupport.h"
#include "repository/Dump.h"
#include "repository/Locks.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct DumpOptions {
    std::string snapshot;
    std::string path;
    std::string output;  // empty: standard output
    repo::SnapshotFilter filter;
};

// Where the bytes go: standard output, or a file made for them and removed
// again when the dump fails.
class DumpOutput {
public:
    explicit DumpOutput(const std::string& path) : path_(path) {
        file_ = path.empty() ? stdout : std::fopen(path.c_str(), "wb");
        if (!file_) throw Error(ErrorKind::LocalFile, "cannot write " + path + ": " + std::strerror(errno));
    }
    ~DumpOutput() {
        if (file_ && file_ != stdout) std::fclose(file_);
    }
    DumpOutput(const DumpOutput&) = delete;
    DumpOutput& operator=(const DumpOutput&) = delete;

    void Write(const uint8_t* data, size_t size) {
        if (std::fwrite(data, 1, size, file_) != size) {
            throw Error(ErrorKind::LocalFile, "cannot write " + Name() + ": " + std::strerror(errno));
        }
    }
    void Close(bool failed);

private:
    std::string Name() const { return path_.empty() ? "standard output" : path_; }

    std::string path_;
    std::FILE* file_ = nullptr;
};

void DumpOutput::Close(bool failed) {
    const bool flushed = std::fflush(file_) == 0;
    if (file_ != stdout) {
        std::fclose(file_);
        file_ = nullptr;
        if (failed) std::remove(path_.c_str());
    }
    if (!flushed && !failed) throw Error(ErrorKind::LocalFile, "cannot write " + Name() + ": " + std::strerror(errno));
}

repo::DumpReport Dump(Context& context, repo::Repository& repository, const repo::Snapshot& snapshot,
                      const DumpOptions& options) {
    const repo::MasterIndex index = repository.LoadIndex();
    DumpOutput output(options.output);
    try {
        const repo::DumpReport report = repo::DumpPath(repository, index, snapshot, options.path,
                                                       [&output](const uint8_t* data, size_t size) {
                                                           output.Write(data, size);
                                                       });
        output.Close(false);
        return report;
    } catch (...) {
        // What was written goes out before the failure's message, nothing after it.
        output.Close(true);
        if (!options.output.empty()) context.Warn("removed " + options.output + ", which the dump did not finish");
        throw;
    }
}

CommandResult RunDump(Context& context, const DumpOptions& options) {
    if (context.options().json && options.output.empty()) {
        throw Error(ErrorKind::Usage, "dump --json takes --output FILE: its content and the JSON document would "
                                      "both go to standard output");
    }
    repo::Repository repository = OpenRepository(context);
    repo::RepositoryLock lock(repository, "dump", false, context.options().lockWaitSeconds);
    const repo::Snapshot snapshot = repository.LoadSnapshot(ResolveSnapshot(repository, options.snapshot, options.filter));
    const repo::DumpReport report = Dump(context, repository, snapshot, options);
    CommandResult result;
    result.json = Json{{"command", "dump"}, {"ok", true},          {"snapshot", snapshot.id},
                       {"path", repo::RootedPath(options.path)}, {"tar", report.tar}, {"files", report.files},
                       {"folders", report.folders},                {"links", report.links},
                       {"skipped", report.skipped},                {"bytes", report.bytes}};
    if (report.skipped) context.Warn(std::to_string(report.skipped) + " sockets left out: tar has no type for them");
    return result;
}

}  // namespace

void AddDumpCommand(CommandTable& table) {
    auto options = std::make_shared<DumpOptions>();
    CLI::App* command = table.Add(
        {"dump", "a file of a snapshot to standard output, or a folder as a tar stream",
         "Writes what a snapshot holds at PATH to standard output (or --output FILE): a file's content, or a "
         "folder (or '/', the whole snapshot) as a POSIX tar stream of everything below it, with modes, times, "
         "owners, links and extended attributes (pax headers where ustar's fields are too small). Every chunk is "
         "checked before it is written; a damaged one ends the dump with exit status 1, nothing more written "
         "(an --output FILE is removed). With --json, which needs --output, a summary document."},
        [options](Context& context) { return RunDump(context, *options); });
    command->add_option("SNAPSHOT", options->snapshot, "the snapshot (an id, a prefix of one, or 'latest')")->required();
    command->add_option("PATH", options->path, "the file or folder, from the snapshot's root ('/': all of it)")
        ->required();
    command->add_option("-o,--output", options->output, "write to FILE, not to standard output")->type_name("FILE");
    AddFilterOptions(command, options->filter, "snapshots");
}

}  // namespace qvhost::cli
