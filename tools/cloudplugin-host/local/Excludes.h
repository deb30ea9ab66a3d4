// What a backup leaves out of its source tree, as restic's backup options
// say it: patterns on the absolute path (--exclude, --iexclude and their
// files), folders tagged as caches or by a file of a given name, other
// file systems, files larger than a size. The scan asks before it reads
// anything of an entry, so nothing excluded is read, and an excluded
// folder is not listed at all.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "local/LocalFiles.h"
#include "util/PathRules.h"
#include "util/Pattern.h"

namespace qvhost {

struct ExcludeOptions {
    std::vector<std::string> patterns;       // --exclude
    std::vector<std::string> caselessPatterns;  // --iexclude
    std::vector<std::string> patternFiles;   // --exclude-file
    std::vector<std::string> caselessFiles;  // --iexclude-file
    bool caches = false;                     // --exclude-caches
    std::vector<std::string> ifPresent;      // --exclude-if-present NAME[:HEADER]
    bool oneFileSystem = false;              // -x, --one-file-system
    uint64_t largerThan = 0;                 // --exclude-larger-than; 0: no limit
};

// The lines of an exclude file as patterns: blanks around a line trimmed,
// empty lines and lines starting with '#' left out, $NAME and ${NAME}
// replaced by the environment's value (empty when unset), $$ by '$'.
std::vector<std::string> PatternLines(const std::string& text);

struct ExcludedEntry {
    std::string relativePath;
    std::string reason;
};

class Excludes {
public:
    // `root` is the source folder. Reads the pattern files (Error, local
    // file) and checks every pattern and name (Error, usage).
    Excludes(const ExcludeOptions& options, const std::string& root);

    // What the scan does with an entry.
    ScanChoice Judge(const ScanCandidate& entry);
    // Judge, for ScanTree; this object must outlive the scan.
    ScanFilter Filter() {
        return [this](const ScanCandidate& entry) { return Judge(entry); };
    }

    // The entries left out (not what lies beneath an excluded folder) and
    // the folders kept empty as mount points of other file systems, in the
    // order the scan met them.
    const std::vector<ExcludedEntry>& excluded() const { return excluded_; }

private:
    struct TagRule {
        std::string name;
        std::string header;  // the file must start with it; empty: any file of that name
    };

    bool ParentTagged(const ScanCandidate& entry);
    ScanChoice JudgeByStatus(const ScanCandidate& entry);
    ScanChoice Exclude(const ScanCandidate& entry, const std::string& reason);

    std::string root_;  // absolute, without a trailing '/'
    PatternList patterns_;
    PatternList caselessPatterns_;
    std::vector<TagRule> tags_;
    bool oneFileSystem_ = false;
    uint64_t rootDevice_ = 0;
    uint64_t largerThan_ = 0;
    // The folder whose entries the scan is judging, and the names of the
    // tag files found in it (empty: not tagged).
    std::string taggedFolder_ = "\n";
    std::vector<std::string> tagFiles_;
    std::vector<ExcludedEntry> excluded_;
};

}  // namespace qvhost
