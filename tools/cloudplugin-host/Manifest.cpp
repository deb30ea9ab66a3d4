#include "Manifest.h"

#include <cstdio>
#include <sstream>
#include <type_traits>

#include "ToolError.h"

namespace qvhost {

namespace {

constexpr const char* kHeader = "cloudplugin-host-manifest 1";

std::string Escape(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c == '%' || c < 0x20 || c == 0x7F) {
            char escaped[4];
            std::snprintf(escaped, sizeof escaped, "%%%02X", c);
            out += escaped;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out;
}

[[noreturn]] void Damaged(const std::string& why) {
    throw ToolError(kExitDamaged, "the manifest is damaged: " + why);
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

std::string Unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out.push_back(text[i]);
            continue;
        }
        const int high = i + 2 < text.size() ? HexValue(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? HexValue(text[i + 2]) : -1;
        if (high < 0 || low < 0) Damaged("bad escape in " + text);
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return out;
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(separator, start);
        fields.push_back(text.substr(start, end - start));
        if (end == std::string::npos) return fields;
        start = end + 1;
    }
}

template <class Number>
Number ParseNumber(const std::string& text) {
    if (text.empty()) Damaged("empty number");
    if (std::is_unsigned<Number>::value && text[0] == '-') Damaged("negative number " + text);
    size_t used = 0;
    long long value = 0;
    try {
        value = std::stoll(text, &used);
    } catch (const std::exception&) {
        Damaged("bad number " + text);
    }
    if (used != text.size()) Damaged("bad number " + text);
    return static_cast<Number>(value);
}

bool IsSha256Hex(const std::string& text) {
    if (text.size() != 64) return false;
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
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

uint64_t PartCount(uint64_t size, uint64_t partSize) { return (size + partSize - 1) / partSize; }

std::string BackupLayout::PartName(const std::string& backupId, uint32_t fileIndex, uint64_t part) const {
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, "%06u.%04llu", fileIndex, static_cast<unsigned long long>(part));
    return DataPrefix(backupId) + suffix;
}

bool IsValidBackupId(const std::string& id) {
    if (id.empty() || id.size() > 100 || id[0] == '.') return false;
    for (char c : id) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                        c == '_' || c == '-';
        if (!ok) return false;
    }
    return true;
}

std::string EncodeManifest(const Manifest& manifest) {
    std::ostringstream out;
    out << kHeader << '\n'
        << "backup\t" << Escape(manifest.backupId) << '\n'
        << "source\t" << Escape(manifest.source) << '\n'
        << "created\t" << Escape(manifest.created) << '\n'
        << "part-size\t" << manifest.partSize << '\n';
    for (const ManifestFile& file : manifest.files) {
        out << "file\t" << file.index << '\t' << Escape(file.relativePath) << '\t' << file.size << '\t'
            << file.modifiedNs << '\t' << file.sha256 << '\t';
        for (size_t i = 0; i < file.partSha256.size(); ++i) out << (i ? "," : "") << file.partSha256[i];
        out << '\n';
    }
    return out.str();
}

Manifest DecodeManifest(const std::string& text) {
    std::vector<std::string> lines = Split(text, '\n');
    if (lines.empty() || lines[0] != kHeader) Damaged("no manifest header");
    if (!lines.back().empty()) Damaged("the last line is cut off");
    lines.pop_back();
    Manifest manifest;
    for (size_t i = 1; i < lines.size(); ++i) {
        const std::vector<std::string> fields = Split(lines[i], '\t');
        const std::string& kind = fields[0];
        if (kind == "file") {
            if (fields.size() != 7) Damaged("a file record has " + std::to_string(fields.size()) + " fields");
            ManifestFile file;
            file.index = ParseNumber<uint32_t>(fields[1]);
            file.relativePath = Unescape(fields[2]);
            file.size = ParseNumber<uint64_t>(fields[3]);
            file.modifiedNs = ParseNumber<int64_t>(fields[4]);
            file.sha256 = fields[5];
            if (!fields[6].empty()) file.partSha256 = Split(fields[6], ',');
            if (!IsSha256Hex(file.sha256)) Damaged("bad hash of " + file.relativePath);
            for (const std::string& hash : file.partSha256) {
                if (!IsSha256Hex(hash)) Damaged("bad part hash of " + file.relativePath);
            }
            if (manifest.partSize == 0 || file.partSha256.size() != PartCount(file.size, manifest.partSize)) {
                Damaged("wrong part count for " + file.relativePath);
            }
            manifest.files.push_back(std::move(file));
        } else if (fields.size() != 2) {
            Damaged("bad record " + kind);
        } else if (kind == "backup") {
            manifest.backupId = Unescape(fields[1]);
        } else if (kind == "source") {
            manifest.source = Unescape(fields[1]);
        } else if (kind == "created") {
            manifest.created = Unescape(fields[1]);
        } else if (kind == "part-size") {
            manifest.partSize = ParseNumber<uint64_t>(fields[1]);
            if (manifest.partSize == 0) Damaged("part size 0");
        } else {
            Damaged("unknown record " + kind);
        }
    }
    if (!IsValidBackupId(manifest.backupId)) Damaged("bad backup id");
    return manifest;
}

}  // namespace qvhost
