// The tool's commands. Each runs against an initialised plug-in session and
// answers a result for --json together with the exit status; the human
// summary is printed as it goes (unless --json or --quiet).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Json.h"
#include "LocalFiles.h"
#include "Manifest.h"
#include "PluginSession.h"
#include "Progress.h"

namespace qvhost {

struct CommandOptions {
    BackupLayout layout;
    uint64_t partSize = 64ull << 20;
    unsigned jobs = 2;
    bool json = false;
    bool quiet = false;
    std::string backupName;  // backup: the id to use instead of a new one
    bool overwrite = false;  // restore: replace existing files
    std::vector<uint64_t> benchSizes = {1ull << 20, 16ull << 20, 64ull << 20};
    std::vector<unsigned> benchThreads = {1, 2};
    uint64_t benchBytes = 256ull << 20;  // bytes written per size and thread count
};

struct CommandResult {
    Json json = Json::Object();
    int status = 0;
};

class Commands {
public:
    Commands(PluginSession& session, const CommandOptions& options);

    CommandResult Backup(const std::string& sourceFolder);
    CommandResult Restore(const std::string& backupId, const std::string& destinationFolder);
    CommandResult Verify(const std::string& backupId);
    CommandResult List();
    CommandResult Delete(const std::string& backupId);
    CommandResult Info();
    CommandResult Bench();
    CommandResult ObjectPut(const std::string& name, const std::string& file);
    CommandResult ObjectGet(const std::string& name, const std::string& file);
    CommandResult ObjectDelete(const std::string& name);
    CommandResult ObjectList(const std::string& prefix);

private:
    struct Problem {
        std::string file;
        std::string object;
        std::string what;
    };
    using Sink = std::function<void(const uint8_t* data, size_t size)>;

    Manifest ReadManifest(const std::string& backupId);
    // Reads every part of one file back, checks each against the manifest,
    // hands the bytes to `sink`; answers the first problem found, if any.
    bool ReadFileBack(const Manifest& manifest, const ManifestFile& file, Progress& progress,
                      std::vector<uint8_t>& buffer, const Sink& sink, Problem& problem);
    CommandResult CheckBackup(const std::string& command, const std::string& backupId,
                              const std::string* destinationFolder);
    void BackupFile(const std::string& sourceFolder, const SourceFile& source, uint32_t index,
                    const std::string& backupId, ManifestFile& entry, Progress& progress,
                    std::vector<uint8_t>& buffer, const std::function<void(const std::string&)>& wrote);
    void Say(const std::string& text) const;
    // How much of the command's thread time went into plug-in calls.
    void SayPluginShare(double pluginSeconds, double seconds) const;
    ProgressStyle Style() const;

    PluginSession& session_;
    CommandOptions options_;
};

// Runs work(index, worker) for every index in 0..count-1 on `jobs` threads
// (worker 0..jobs-1 names the thread, for per-thread buffers). The first
// failure, or an interrupt, stops the others after the item in hand and is
// rethrown.
void RunInParallel(unsigned jobs, size_t count, const std::function<void(size_t index, unsigned worker)>& work);

// "64M", "1G", "4096", "512K" (binary units); 0 for text that is not a size.
uint64_t ParseSize(const std::string& text);

}  // namespace qvhost
