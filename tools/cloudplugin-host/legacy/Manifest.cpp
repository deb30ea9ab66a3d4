#include "legacy/Manifest.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>
#include <type_traits>

#include "util/Sha256.h"
#include "util/Text.h"
#include "util/Error.h"

namespace qvhost::legacy {

namespace {

constexpr const char* kHeaderStem = "cloudplugin-host-manifest ";
constexpr int kVersion = 2;

std::string Escape(const std::string& text) { return PercentEscape(text, false); }

[[noreturn]] void ManifestDamaged(const std::string& why) {
    throw Error(ErrorKind::Damaged, "the manifest is damaged: " + why);
}

[[noreturn]] void DamagedEntry(const std::string& path, const std::string& why) {
    ManifestDamaged("entry '" + Escape(path) + "' " + why);
}

std::string Unescape(const std::string& text) {
    std::string out;
    if (!PercentUnescape(text, out)) ManifestDamaged("bad escape in " + text);
    return out;
}

template <class Number>
Number ParseNumber(const std::string& text) {
    if (text.empty()) ManifestDamaged("empty number");
    if (std::is_unsigned<Number>::value && text[0] == '-') ManifestDamaged("negative number " + text);
    size_t used = 0;
    long long value = 0;
    try {
        value = std::stoll(text, &used);
    } catch (const std::exception&) {
        ManifestDamaged("bad number " + text);
    }
    if (used != text.size()) ManifestDamaged("bad number " + text);
    if (std::is_same<Number, uint32_t>::value && value > 0xFFFFFFFFLL) ManifestDamaged("number out of range " + text);
    return static_cast<Number>(value);
}

uint32_t ParseMode(const std::string& text) {
    if (text.empty() || text.size() > 4 || text.find_first_not_of("01234567") != std::string::npos) {
        ManifestDamaged("bad mode " + text);
    }
    return static_cast<uint32_t>(std::stoul(text, nullptr, 8));
}

std::string ModeText(uint32_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", mode & kModeBits);
    return text;
}

bool IsSha256Hex(const std::string& text) {
    if (text.size() != 64) return false;
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

// "file" records: 7 fields in version 1, 8 (with the mode) in version 2.
ManifestFile DecodeFile(const std::vector<std::string>& fields, int version) {
    const size_t expected = version == 1 ? 7 : 8;
    if (fields.size() != expected) ManifestDamaged("a file record has " + std::to_string(fields.size()) + " fields");
    ManifestFile file;
    file.index = ParseNumber<uint32_t>(fields[1]);
    file.relativePath = Unescape(fields[2]);
    file.size = ParseNumber<uint64_t>(fields[3]);
    file.modifiedNs = ParseNumber<int64_t>(fields[4]);
    file.sha256 = fields[5];
    if (!fields[6].empty()) file.partSha256 = Split(fields[6], ',');
    if (version > 1) file.mode = ParseMode(fields[7]);
    if (!IsSha256Hex(file.sha256)) DamagedEntry(file.relativePath, "has a bad hash");
    for (const std::string& hash : file.partSha256) {
        if (!IsSha256Hex(hash)) DamagedEntry(file.relativePath, "has a bad part hash");
    }
    return file;
}

ManifestFolder DecodeFolder(const std::vector<std::string>& fields) {
    if (fields.size() != 4) ManifestDamaged("a folder record has " + std::to_string(fields.size()) + " fields");
    return {Unescape(fields[1]), ParseNumber<int64_t>(fields[2]), ParseMode(fields[3])};
}

ManifestLink DecodeLink(const std::vector<std::string>& fields) {
    if (fields.size() != 4) ManifestDamaged("a link record has " + std::to_string(fields.size()) + " fields");
    return {Unescape(fields[1]), Unescape(fields[2]), ParseNumber<int64_t>(fields[3])};
}

void DecodeSetting(Manifest& manifest, const std::vector<std::string>& fields) {
    const std::string& kind = fields[0];
    if (fields.size() != 2) ManifestDamaged("bad record " + kind);
    if (kind == "backup") manifest.backupId = Unescape(fields[1]);
    else if (kind == "source") manifest.source = Unescape(fields[1]);
    else if (kind == "created") manifest.created = Unescape(fields[1]);
    else if (kind == "part-size") manifest.partSize = ParseNumber<uint64_t>(fields[1]);
    else ManifestDamaged("unknown record " + kind);
}

int DecodeVersion(const std::string& header) {
    const std::string stem = kHeaderStem;
    if (header == stem + "1") return 1;
    if (header == stem + "2") return 2;
    ManifestDamaged(header.compare(0, stem.size(), stem) == 0 ? "unknown version: " + header : "no manifest header");
}

// Every entry's path is usable, named once, and not beneath a file or a
// link (which a restore would otherwise have to write through).
void CheckPaths(const Manifest& manifest, PathRules rules) {
    std::vector<TreePath> entries;
    for (const ManifestFile& file : manifest.files) entries.push_back({file.relativePath, false});
    for (const ManifestFolder& folder : manifest.folders) entries.push_back({folder.relativePath, true});
    for (const ManifestLink& link : manifest.links) entries.push_back({link.relativePath, false});
    const auto [path, why] = FirstTreeProblem(entries, rules);
    if (!why.empty()) DamagedEntry(path, why);
}

void CheckManifest(const Manifest& manifest, PathRules rules) {
    if (!IsValidBackupId(manifest.backupId)) ManifestDamaged("bad backup id");
    if (manifest.partSize == 0 || manifest.partSize > kMaximumPartSize) {
        ManifestDamaged("part size " + std::to_string(manifest.partSize) + " is outside 1.." + std::to_string(kMaximumPartSize));
    }
    std::set<uint32_t> indexes;
    for (const ManifestFile& file : manifest.files) {
        if (file.partSha256.size() != PartCount(file.size, manifest.partSize)) {
            DamagedEntry(file.relativePath, "has " + std::to_string(file.partSha256.size()) +
                                                " parts for " + std::to_string(file.size) + " bytes");
        }
        if (manifest.version > 1 && file.sha256 != FileDigestOf(file.partSha256)) {
            DamagedEntry(file.relativePath, "has a file digest that does not fit its part hashes");
        }
        if (!indexes.insert(file.index).second) {
            DamagedEntry(file.relativePath, "reuses file index " + std::to_string(file.index));
        }
    }
    for (const ManifestLink& link : manifest.links) {
        if (std::string why = WhyLinkTargetIsRefused(link.target); !why.empty()) DamagedEntry(link.relativePath, why);
    }
    CheckPaths(manifest, rules);
}

}  // namespace

uint64_t Manifest::TotalBytes() const {
    uint64_t total = 0;
    for (const ManifestFile& file : files) total += file.size;
    return total;
}

size_t Manifest::ObjectCount() const {
    size_t total = 0;
    for (const ManifestFile& file : files) total += file.partSha256.size();
    return total;
}

std::string FileDigestOf(const std::vector<std::string>& partSha256) {
    Sha256 hash;
    for (const std::string& part : partSha256) hash.Update(part.data(), part.size());
    return ToHex(hash.Final());
}

namespace {

repo::Node EntryNode(const std::string& path, repo::NodeType type, uint32_t mode, int64_t modifiedNs) {
    repo::Node node;
    node.name = NameOf(path);
    node.type = type;
    node.mode = mode;
    node.modifiedNs = modifiedNs;
    return node;
}

}  // namespace

repo::Node NodeOf(const ManifestFile& file) {
    repo::Node node = EntryNode(file.relativePath, repo::NodeType::File, file.mode.value_or(0644), file.modifiedNs);
    node.size = file.size;
    return node;
}

repo::Node NodeOf(const ManifestFolder& folder) {
    return EntryNode(folder.relativePath, repo::NodeType::Folder, folder.mode, folder.modifiedNs);
}

repo::Node NodeOf(const ManifestLink& link) {
    repo::Node node = EntryNode(link.relativePath, repo::NodeType::Link, 0777, link.modifiedNs);
    node.linkTarget = link.target;
    return node;
}

uint64_t PartCount(uint64_t size, uint64_t partSize) { return size / partSize + (size % partSize ? 1 : 0); }

uint64_t PartBytes(uint64_t size, uint64_t partSize, uint64_t part) {
    const uint64_t start = part * partSize;
    return start >= size ? 0 : std::min(partSize, size - start);
}

std::string EncodeManifest(const Manifest& manifest) {
    std::ostringstream out;
    out << kHeaderStem << kVersion << '\n'
        << "backup\t" << Escape(manifest.backupId) << '\n'
        << "source\t" << Escape(manifest.source) << '\n'
        << "created\t" << Escape(manifest.created) << '\n'
        << "part-size\t" << manifest.partSize << '\n';
    for (const ManifestFile& file : manifest.files) {
        out << "file\t" << file.index << '\t' << Escape(file.relativePath) << '\t' << file.size << '\t'
            << file.modifiedNs << '\t' << file.sha256 << '\t';
        for (size_t i = 0; i < file.partSha256.size(); ++i) out << (i ? "," : "") << file.partSha256[i];
        out << '\t' << ModeText(file.mode.value_or(0644)) << '\n';
    }
    for (const ManifestFolder& folder : manifest.folders) {
        out << "folder\t" << Escape(folder.relativePath) << '\t' << folder.modifiedNs << '\t' << ModeText(folder.mode)
            << '\n';
    }
    for (const ManifestLink& link : manifest.links) {
        out << "link\t" << Escape(link.relativePath) << '\t' << Escape(link.target) << '\t' << link.modifiedNs << '\n';
    }
    return out.str();
}

Manifest DecodeManifest(const std::string& text, PathRules rules) {
    std::vector<std::string> lines = Split(text, '\n');
    const int version = DecodeVersion(lines[0]);
    if (!lines.back().empty()) ManifestDamaged("the last line is cut off");
    lines.pop_back();
    Manifest manifest;
    manifest.version = version;
    for (size_t i = 1; i < lines.size(); ++i) {
        const std::vector<std::string> fields = Split(lines[i], '\t');
        const std::string& kind = fields[0];
        if (kind == "file") manifest.files.push_back(DecodeFile(fields, version));
        else if (kind == "folder" && version > 1) manifest.folders.push_back(DecodeFolder(fields));
        else if (kind == "link" && version > 1) manifest.links.push_back(DecodeLink(fields));
        else DecodeSetting(manifest, fields);
    }
    CheckManifest(manifest, rules);
    return manifest;
}

}  // namespace qvhost::legacy
