// A backup's manifest and the metadata of its objects (Legacy.h has the
// object names).
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
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "legacy/Legacy.h"
#include "repository/Tree.h"
#include "util/AlignedBuffer.h"
#include "util/Entry.h"
#include "util/PathRules.h"
#include "util/Text.h"

namespace qvhost::legacy {

struct ManifestFile {
    uint32_t index = 0;
    std::string relativePath;
    uint64_t size = 0;
    int64_t modifiedNs = 0;
    std::string sha256;                   // the file digest (version 1: SHA-256 of the content)
    std::vector<std::string> partSha256;  // one per part; none for an empty file
    std::optional<uint32_t> mode;         // absent in version 1 manifests
};

// Empty folders and symbolic links, as both layouts keep them.
using ManifestFolder = FolderRecord;
using ManifestLink = LinkRecord;

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
// Throws Error (damaged), naming the entry, for text that is not a
// well-formed manifest or names a path that `rules` refuse.
Manifest DecodeManifest(const std::string& text, PathRules rules = kNativePathRules);

// The manifest of a complete backup, read whole and checked against the
// hash stored with it. Throws Error (not found, damaged, usage for a bad id).
Manifest ReadManifest(const Context& context, const std::string& backupId);

// Reads one part of a file in reads of at most kReadSlice bytes, each hashed
// and handed to `slice` (its offset in the file, its bytes), then checks the
// part against the manifest. Empty when it matches, else why not; `object`
// names the part's object either way. `slice` sees bytes before the part is
// checked: a caller keeps nothing of a part that fails.
std::string ReadPart(const Context& context, const Manifest& manifest, const ManifestFile& entry, uint64_t part,
                     AlignedBuffer& buffer, std::string& object,
                     const std::function<void(uint64_t offset, const uint8_t* data, size_t size)>& slice);

// Each entry as a node of the repository's trees, named by the last
// component of its path: what a restore makes of it and a migration
// stores. A file of a version 1 manifest (no mode) gets 0644.
repo::Node NodeOf(const ManifestFile& file);
repo::Node NodeOf(const ManifestFolder& folder);
repo::Node NodeOf(const ManifestLink& link);

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

}  // namespace qvhost::legacy
