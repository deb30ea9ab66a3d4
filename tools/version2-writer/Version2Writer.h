// The writer of the version 2 layout (legacy/Legacy.h), kept only to make
// such backups for the tests and benchmarks of the commands that read them:
// cloudplugin-host itself writes no new ones.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "legacy/Legacy.h"
#include "util/Entry.h"

namespace qvhost::legacy {

// 8 MiB: one request per part (the Java library sends up to 8 MiB in one
// Put Blob), little memory per job, and large files still spread over all
// the jobs. Measured in docs/performance.md.
constexpr uint64_t kDefaultPartSize = 8ull << 20;

struct BackupOptions {
    std::string backupId;  // empty: a new one
    uint64_t partSize = kDefaultPartSize;
};

struct BackupReport {
    std::string backupId;
    std::string source;  // absolute
    size_t files = 0;
    size_t folders = 0;
    size_t links = 0;
    size_t objects = 0;  // parts written
    uint64_t bytes = 0;
    double seconds = 0;
    std::vector<SkippedEntry> skipped;  // sorted by path
    size_t Unreadable() const;
};

// Every regular file in parts, its empty folders and links, then the
// manifest. A backup that stops writes no manifest and removes the parts
// it wrote (as far as the storage lets it: a note says how far).
BackupReport Backup(const Context& context, const std::string& source, const BackupOptions& options);

}  // namespace qvhost::legacy
