// A backup's manifest and the names of its objects.
//
// Layout in the container, under a root prefix (default "cloudplugin-host"):
//   <root>/backups/<id>/<file index>.<part index>   the file parts (6 and 4 digits)
//   <root>/manifests/<id>                           the manifest, written last
// A backup without its manifest is incomplete: `list` shows it only with
// --all, and `prune` removes it.
//
// The manifest is UTF-8 text, one record per line, fields separated by tabs;
// '%', tab, CR, LF and other control characters in texts are written as %XX.
//   cloudplugin-host-manifest 2
//   backup <id>
//   source <source folder>
//   created <UTC time, ISO 8601>
//   part-size <bytes>
//   file <index> <relative path> <size> <modified ns> <file digest> <part sha256,...> <mode, octal>
//   folder <relative path> <modified ns> <mode, octal>          (an empty folder)
//   link <relative path> <link target> <modified ns>            (a symbolic link)
// The file digest is FileDigestOf(the part hashes): each part is read and
// hashed once, by whichever job takes it, so no job ever sees a whole
// large file. (Version 1 manifests, which still decode, hold the SHA-256
// of the whole content instead, and have no modes, folders or links.) The
// part hashes are what a restore checks every byte against.
//
// Everything decoded comes from storage and is checked before use: the
// paths (PathRules.h), no path twice, no file index twice, part counts that
// fit the sizes, file digests that fit the part hashes, no entry beneath a
// file or a link, a part size one plug-in call can carry.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "util/PathRules.h"

namespace qvhost {

// The largest object one plug-in call carries: 2 GiB - 1.
constexpr uint64_t kMaximumPartSize = (2ull << 30) - 1;
// Permission bits with set-user-ID, set-group-ID and sticky.
constexpr uint32_t kModeBits = 07777;

struct ManifestFile {
    uint32_t index = 0;
    std::string relativePath;
    uint64_t size = 0;
    int64_t modifiedNs = 0;
    std::string sha256;                   // the file digest (version 1: SHA-256 of the content)
    std::vector<std::string> partSha256;  // one per part; none for an empty file
    std::optional<uint32_t> mode;         // absent in version 1 manifests
};

struct ManifestFolder {
    std::string relativePath;
    int64_t modifiedNs = 0;
    uint32_t mode = 0755;
};

struct ManifestLink {
    std::string relativePath;
    std::string target;
    int64_t modifiedNs = 0;
};

struct Manifest {
    int version = 2;  // of the text it was decoded from
    std::string backupId;
    std::string source;
    std::string created;
    uint64_t partSize = 0;
    std::vector<ManifestFile> files;
    std::vector<ManifestFolder> folders;
    std::vector<ManifestLink> links;

    uint64_t TotalBytes() const;
    size_t ObjectCount() const;  // file parts
    size_t EntryCount() const { return files.size() + folders.size() + links.size(); }
};

std::string EncodeManifest(const Manifest& manifest);
// Throws ToolError (damaged), naming the entry, for text that is not a
// well-formed manifest or names a path that `rules` refuse.
Manifest DecodeManifest(const std::string& text, PathRules rules = kNativePathRules);

// SHA-256 of the part hashes (lower-case hex) one after the other.
std::string FileDigestOf(const std::vector<std::string>& partSha256);

// The number of parts of a file of `size` bytes.
uint64_t PartCount(uint64_t size, uint64_t partSize);
// The bytes of part `part` of a file of `size` bytes.
uint64_t PartBytes(uint64_t size, uint64_t partSize, uint64_t part);

// Metadata written with every file part.
namespace part_property {
constexpr const char* kPath = "path";
constexpr const char* kSize = "size";
constexpr const char* kModified = "modified_ns";
constexpr const char* kPart = "part";
constexpr const char* kParts = "parts";
constexpr const char* kPartSha = "part_sha256";
constexpr const char* kBackup = "backup";
constexpr const char* kPartSize = "part_size";  // the backup's part size
constexpr const char* kWritten = "written";     // UTC time of the write, ISO 8601
}  // namespace part_property

// Metadata of the manifest object.
namespace manifest_property {
constexpr const char* kFiles = "files";
constexpr const char* kBytes = "bytes";
constexpr const char* kCreated = "created";
constexpr const char* kSource = "source";
constexpr const char* kSha = "manifest_sha256";
}  // namespace manifest_property

struct BackupLayout {
    std::string root = "cloudplugin-host";

    std::string ManifestsPrefix() const { return root + "/manifests/"; }
    std::string ManifestName(const std::string& backupId) const { return ManifestsPrefix() + backupId; }
    std::string BackupsPrefix() const { return root + "/backups/"; }
    std::string DataPrefix(const std::string& backupId) const { return BackupsPrefix() + backupId + "/"; }
    std::string PartName(const std::string& backupId, uint32_t fileIndex, uint64_t part) const;
    // The backup id of an object under BackupsPrefix(); empty for any other name.
    std::string BackupOfPart(const std::string& objectName) const;
};

// '%', control characters (and with `highBytes` every byte from 0x80 on)
// as %XX; PercentUnescape answers false for a bad escape.
std::string PercentEscape(const std::string& text, bool highBytes);
bool PercentUnescape(const std::string& text, std::string& out);

// Backup ids: letters, digits, '.', '_' and '-', 1 to 100 characters, not
// starting with '.'.
bool IsValidBackupId(const std::string& id);

}  // namespace qvhost
