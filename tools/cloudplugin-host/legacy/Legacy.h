// The version 2 layout: one object per part of each file and a manifest,
// with no repository, no deduplication and no encryption. Backups made
// before the repository keep it; the tool reads, checks, restores, deletes
// and migrates them (`migrate` turns one into a snapshot) but writes no new
// ones. The tests' and benchmarks' fixture program tools/version2-writer
// writes them.
//
// Everything only this layout needs lives in legacy/, and this header is
// all that the rest of the tool sees of it: dropping the layout is deleting
// the folder and the commands that call it.
//
// Layout in the container, under a root prefix (default "cloudplugin-host"):
//   <root>/backups/<id>/<file index>.<part index>   the file parts (6 and 4 digits)
//   <root>/manifests/<id>                           the manifest, written last
// A backup without its manifest is incomplete: it is never restored, and
// pruning removes it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "repository/ObjectStore.h"
#include "repository/RestoreSink.h"
#include "repository/Source.h"
#include "util/Progress.h"

namespace qvhost {
class PluginSession;
}

namespace qvhost::legacy {

// The largest object one plug-in call carries: 2 GiB - 1.
constexpr uint64_t kMaximumPartSize = (2ull << 30) - 1;

struct Layout {
    std::string root = "cloudplugin-host";

    std::string ManifestsPrefix() const { return root + "/manifests/"; }
    std::string ManifestName(const std::string& backupId) const { return ManifestsPrefix() + backupId; }
    std::string BackupsPrefix() const { return root + "/backups/"; }
    std::string DataPrefix(const std::string& backupId) const { return BackupsPrefix() + backupId + "/"; }
    std::string PartName(const std::string& backupId, uint32_t fileIndex, uint64_t part) const;
    // The backup id of an object under BackupsPrefix(); empty for any other name.
    std::string BackupOfPart(const std::string& objectName) const;
};

// Backup ids: letters, digits, '.', '_' and '-', 1 to 100 characters, not
// starting with '.'.
bool IsValidBackupId(const std::string& id);
// A new backup id: the UTC time and four random hex digits.
std::string NewBackupId();

// What the layout's work runs with.
struct Context {
    PluginSession& session;
    Layout layout;
    unsigned jobs = 4;
    ProgressSink* progress = nullptr;               // none: nothing is shown
    std::function<void(const std::string&)> note;  // a line for the user about what happened
};

// ---- restore and verify

struct RestoreReport {
    std::string backupId;
    size_t files = 0;
    uint64_t bytes = 0;
    size_t folders = 0;
    size_t links = 0;
    double seconds = 0;
    std::vector<repo::RestoreProblem> damaged;
    std::vector<std::string> setIdDropped;
    std::vector<std::string> notes;  // what could not be kept
};

// Every part read back and checked against the manifest's hash of it, and
// written into the destination folder (made when missing, once the
// manifest checked); Verify writes nothing.
RestoreReport Restore(const Context& context, const std::string& backupId, const std::string& destination,
                      bool overwrite);
RestoreReport Verify(const Context& context, const std::string& backupId);

// ---- what is stored

struct BackupSummary {
    std::string id;
    uint64_t files = 0;
    uint64_t bytes = 0;
    std::string created;
    std::string source;
};

// The parts of a backup that has no manifest: one that stopped (a crash,
// kill -9, a lost machine) or one still running elsewhere.
struct IncompleteBackup {
    std::string id;
    std::vector<std::string> objects;
    uint64_t bytes = 0;
    int64_t newestWritten = -1;  // seconds since 1970; -1 when no part says
};

// Complete backups, by id.
std::vector<BackupSummary> ListBackups(const Context& context);
std::vector<IncompleteBackup> ListIncomplete(const Context& context);

struct DeleteReport {
    bool complete = false;
    size_t objects = 0;
};
// Throws Error (not found) when no object of the backup exists.
DeleteReport Delete(const Context& context, const std::string& backupId);

struct PruneReport {
    std::vector<IncompleteBackup> removed;
    std::vector<IncompleteBackup> kept;  // written to within the limit
};
// Removes incomplete backups whose newest part is older than the limit
// (0: every incomplete backup). A backup whose parts carry no time (written
// by an older version) is removed only with a limit of 0.
PruneReport PruneIncomplete(const Context& context, int64_t olderThanSeconds, int64_t now);

// ---- migrate

// A complete backup as the tree a repository backup reads (the command
// migrate): its files read part by part, each part handed on only once it
// matches the manifest's hash; a file with a part that does not is, to the
// backup, a source file that cannot be read: left out and reported.
struct Migration {
    std::unique_ptr<repo::Source> source;
    std::string created;  // the backup's UTC time, as its manifest says
    size_t files = 0;
    uint64_t bytes = 0;
};
// Throws Error (not found, damaged; usage for parts over 256 MiB, which a
// job would hold whole).
Migration OpenForMigration(const Context& context, const std::string& backupId);

// The objects of a backup (its parts and manifest), with their tiers, for
// rehydration. Throws Error (not found) when there are none.
std::vector<repo::StoredObject> ObjectsOf(const Context& context, const std::string& backupId);

}  // namespace qvhost::legacy
