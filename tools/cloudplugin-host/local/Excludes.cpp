#include "local/Excludes.h"


#include <cctype>
#include <cstdlib>

#include "local/LocalEntry.h"
#include "local/LocalFiles.h"
#include "util/Error.h"
#include "util/Text.h"

namespace qvhost {

namespace {

std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r\n\f\v");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t\r\n\f\v") - first + 1);
}

bool IsNameCharacter(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// $NAME, ${NAME} and $$ as restic's exclude files take them (a '$' before
// anything else stays). Written here rather than with wordexp(3), which
// would also split words, expand globs and tildes and run commands.
std::string ExpandEnvironment(const std::string& line) {
    std::string out;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] != '$' || i + 1 == line.size()) {
            out += line[i];
            continue;
        }
        std::string name;
        size_t end = i + 1;
        if (line[end] == '$') {
            out += '$';
            i = end;
            continue;
        }
        if (line[end] == '{' && line.find('}', end) != std::string::npos) {
            name = line.substr(end + 1, line.find('}', end) - end - 1);
            end = line.find('}', end) + 1;
        } else {
            while (end < line.size() && IsNameCharacter(line[end])) name += line[end++];
        }
        if (name.empty()) {
            out += '$';
            continue;
        }
        if (const char* value = std::getenv(name.c_str())) out += value;
        i = end - 1;
    }
    return out;
}

// Pattern files are lists a person keeps; 64 MiB is far beyond any.
std::string ReadPatternFile(const std::string& path) { return ReadUserFile(path, "exclude file", 64u << 20); }

void AddPatterns(PatternList& list, const std::vector<std::string>& patterns, bool ignoreCase) {
    for (const std::string& pattern : patterns) list.Add(PathPattern(pattern, ignoreCase));
}

// Whether the file starts with `header` (an empty header: whether it exists
// at all, of any kind). A link is not followed.
bool TagFileMatches(const std::string& path, const std::string& header) {
    localentry::EntryStatus status;
    std::string error;
    if (!localentry::StatusOf(path, status, error)) return false;
    if (header.empty()) return true;
    if (!status.isFile) return false;
    try {
        InputFile file(path);
        std::string start(header.size(), '\0');
        return file.Read(start.data(), start.size()) == start.size() && start == header;
    } catch (const Error&) {
        return false;  // unreadable: not a tag this backup can trust
    }
}

}  // namespace

std::vector<std::string> PatternLines(const std::string& text) {
    std::vector<std::string> patterns;
    for (const std::string& raw : Split(text, '\n')) {
        const std::string line = Trimmed(raw);
        if (line.empty() || line[0] == '#') continue;
        patterns.push_back(ExpandEnvironment(line));
    }
    return patterns;
}

Excludes::Excludes(const ExcludeOptions& options, const std::string& root)
    : root_(AbsolutePath(root)), oneFileSystem_(options.oneFileSystem), largerThan_(options.largerThan) {
    while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
    AddPatterns(patterns_, options.patterns, false);
    for (const std::string& file : options.patternFiles) AddPatterns(patterns_, PatternLines(ReadPatternFile(file)), false);
    AddPatterns(caselessPatterns_, options.caselessPatterns, true);
    for (const std::string& file : options.caselessFiles) {
        AddPatterns(caselessPatterns_, PatternLines(ReadPatternFile(file)), true);
    }
    if (options.caches) tags_.push_back({"CACHEDIR.TAG", kCacheDirSignature});
    for (const std::string& rule : options.ifPresent) {
        const size_t colon = rule.find(':');
        TagRule tag{rule.substr(0, colon), colon == std::string::npos ? "" : rule.substr(colon + 1)};
        if (tag.name.empty() || tag.name == "." || tag.name == ".." || tag.name.find('/') != std::string::npos) {
            throw Error(ErrorKind::Usage, "--exclude-if-present takes a file name (NAME or NAME:HEADER), not " + rule);
        }
        tags_.push_back(std::move(tag));
    }
    localentry::EntryStatus top;
    std::string error;
    if (oneFileSystem_ && localentry::StatusOf(root_, top, error)) rootDevice_ = top.device;
}

ScanChoice Excludes::Judge(const ScanCandidate& entry) {
    const std::string absolute = root_ == "/" ? "/" + entry.relativePath : root_ + "/" + entry.relativePath;
    if (const PathPattern* pattern = patterns_.Match(absolute)) {
        return Exclude(entry, "matches --exclude " + pattern->text());
    }
    if (const PathPattern* pattern = caselessPatterns_.Match(absolute)) {
        return Exclude(entry, "matches --iexclude " + pattern->text());
    }
    if (!tags_.empty() && ParentTagged(entry)) {
        const std::string name = entry.path.filename().u8string();
        for (const std::string& tag : tagFiles_) {
            if (tag == name) return ScanChoice::Keep;
        }
        return Exclude(entry, "in a folder holding " + tagFiles_.front());
    }
    return oneFileSystem_ || largerThan_ ? JudgeByStatus(entry) : ScanChoice::Keep;
}

// The scan judges the entries of one folder after another, so the tag
// files of the folder in hand are looked for once.
bool Excludes::ParentTagged(const ScanCandidate& entry) {
    const size_t slash = entry.relativePath.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : entry.relativePath.substr(0, slash);
    if (folder != taggedFolder_) {
        taggedFolder_ = folder;
        tagFiles_.clear();
        const std::string base = entry.path.parent_path().u8string() + "/";
        for (const TagRule& tag : tags_) {
            if (TagFileMatches(base + tag.name, tag.header)) tagFiles_.push_back(tag.name);
        }
    }
    return !tagFiles_.empty();
}

// Another file system: a folder there (a mount point) is kept empty and
// not listed, as tar and restic do; any other entry is left out.
ScanChoice Excludes::JudgeByStatus(const ScanCandidate& entry) {
    localentry::EntryStatus status;
    std::string error;
    if (!localentry::StatusOf(entry.path.u8string(), status, error)) return ScanChoice::Keep;  // the scan reports it
    if (oneFileSystem_ && status.device != rootDevice_) {
        if (status.isFolder) {
            excluded_.push_back({entry.relativePath, "another file system: kept as an empty folder"});
            return ScanChoice::KeepEmpty;
        }
        return Exclude(entry, "on another file system");
    }
    if (largerThan_ && status.isFile && status.size > largerThan_) {
        return Exclude(entry, "larger than " + FormatBytes(static_cast<double>(largerThan_)));
    }
    return ScanChoice::Keep;
}

ScanChoice Excludes::Exclude(const ScanCandidate& entry, const std::string& reason) {
    excluded_.push_back({entry.relativePath, reason});
    return ScanChoice::Exclude;
}

}  // namespace qvhost
