// A backup's manifest and the names of its objects.
//
// Layout in the container, under a root prefix (default "cloudplugin-host"):
//   <root>/backups/<id>/<file index>.<part index>   the file parts (6 and 4 digits)
//   <root>/manifests/<id>                           the manifest, written last
// A backup without its manifest is incomplete and is never listed.
//
// The manifest is UTF-8 text, one record per line, fields separated by tabs;
// '%', tab, CR, LF and other control characters in texts are written as %XX.
//   cloudplugin-host-manifest 1
//   backup <id>
//   source <source folder>
//   created <UTC time, ISO 8601>
//   part-size <bytes>
//   file <index> <relative path> <size> <modified ns> <file sha256> <part sha256,...>
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qvhost {

struct ManifestFile {
    uint32_t index = 0;
    std::string relativePath;
    uint64_t size = 0;
    int64_t modifiedNs = 0;
    std::string sha256;
    std::vector<std::string> partSha256;  // one per part; none for an empty file
};

struct Manifest {
    std::string backupId;
    std::string source;
    std::string created;
    uint64_t partSize = 0;
    std::vector<ManifestFile> files;

    uint64_t TotalBytes() const;
    size_t ObjectCount() const;  // file parts
};

std::string EncodeManifest(const Manifest& manifest);
// Throws ToolError (damaged) for text that is not a well-formed manifest.
Manifest DecodeManifest(const std::string& text);

// The number of parts of a file of `size` bytes.
uint64_t PartCount(uint64_t size, uint64_t partSize);

struct BackupLayout {
    std::string root = "cloudplugin-host";

    std::string ManifestsPrefix() const { return root + "/manifests/"; }
    std::string ManifestName(const std::string& backupId) const { return ManifestsPrefix() + backupId; }
    std::string DataPrefix(const std::string& backupId) const { return root + "/backups/" + backupId + "/"; }
    std::string PartName(const std::string& backupId, uint32_t fileIndex, uint64_t part) const;
};

// Backup ids: letters, digits, '.', '_' and '-', 1 to 100 characters, not
// starting with '.'.
bool IsValidBackupId(const std::string& id);

}  // namespace qvhost
