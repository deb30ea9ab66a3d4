#include "util/Tar.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "util/Text.h"

namespace qvhost {

namespace {

constexpr size_t kBlock = 512;

// The largest value an octal field of `width` bytes holds (digits and a NUL).
uint64_t OctalLimit(size_t width) { return (uint64_t{1} << (3 * (width - 1))) - 1; }

void PutOctal(char* field, size_t width, uint64_t value) {
    if (value > OctalLimit(width)) value = 0;  // carried by the pax header instead
    std::snprintf(field, width, "%0*llo", static_cast<int>(width - 1), static_cast<unsigned long long>(value));
}

void PutText(char* field, size_t width, const std::string& text) {
    std::memcpy(field, text.data(), std::min(width, text.size()));
}

std::string SecondsText(int64_t nanoseconds) {
    const uint64_t magnitude = nanoseconds < 0 ? 0 - static_cast<uint64_t>(nanoseconds) : static_cast<uint64_t>(nanoseconds);
    char text[48];
    std::snprintf(text, sizeof text, "%s%llu.%09llu", nanoseconds < 0 ? "-" : "",
                  static_cast<unsigned long long>(magnitude / 1000000000),
                  static_cast<unsigned long long>(magnitude % 1000000000));
    std::string value = text;
    while (value.back() == '0') value.pop_back();
    if (value.back() == '.') value.pop_back();
    return value;
}

bool FitsUstarTime(int64_t nanoseconds) {
    return nanoseconds >= 0 && nanoseconds % 1000000000 == 0 &&
           static_cast<uint64_t>(nanoseconds / 1000000000) <= OctalLimit(12);
}

// What ustar's fields cannot carry, as pax records.
std::string PaxRecords(const TarEntry& entry, const std::string& path) {
    std::string records;
    if (!IsUtf8(path) || !IsUtf8(entry.linkTarget)) records += PaxRecord("hdrcharset", "BINARY");
    if (path.size() > 100) records += PaxRecord("path", path);
    if (entry.linkTarget.size() > 100) records += PaxRecord("linkpath", entry.linkTarget);
    if (entry.user.size() > 31) records += PaxRecord("uname", entry.user);
    if (entry.group.size() > 31) records += PaxRecord("gname", entry.group);
    if (entry.uid > OctalLimit(8)) records += PaxRecord("uid", std::to_string(entry.uid));
    if (entry.gid > OctalLimit(8)) records += PaxRecord("gid", std::to_string(entry.gid));
    if (entry.size > OctalLimit(12)) records += PaxRecord("size", std::to_string(entry.size));
    if (!FitsUstarTime(entry.modifiedNs)) records += PaxRecord("mtime", SecondsText(entry.modifiedNs));
    for (const auto& [name, value] : entry.xattrs) records += PaxRecord("SCHILY.xattr." + name, value);
    return records;
}

void FillHeader(char* header, const TarEntry& entry, const std::string& path) {
    std::memset(header, 0, kBlock);
    PutText(header, 100, path);
    PutOctal(header + 100, 8, entry.mode & 07777);
    PutOctal(header + 108, 8, entry.uid);
    PutOctal(header + 116, 8, entry.gid);
    const bool carries = entry.type == TarType::File || entry.type == TarType::PaxHeader;
    PutOctal(header + 124, 12, carries ? entry.size : 0);
    PutOctal(header + 136, 12, entry.modifiedNs < 0 ? 0 : static_cast<uint64_t>(entry.modifiedNs / 1000000000));
    header[156] = static_cast<char>(entry.type);
    PutText(header + 157, 100, entry.linkTarget);
    std::memcpy(header + 257, "ustar\0" "00", 8);
    PutText(header + 265, 31, entry.user);
    PutText(header + 297, 31, entry.group);
    PutOctal(header + 329, 8, entry.deviceMajor);
    PutOctal(header + 337, 8, entry.deviceMinor);
    std::memset(header + 148, ' ', 8);
    unsigned sum = 0;
    for (size_t i = 0; i < kBlock; ++i) sum += static_cast<unsigned char>(header[i]);
    std::snprintf(header + 148, 8, "%06o", sum);
    header[155] = ' ';
}

}  // namespace

std::string PaxRecord(const std::string& key, const std::string& value) {
    const std::string body = " " + key + "=" + value + "\n";
    size_t length = body.size() + 1;
    while (std::to_string(length).size() + body.size() != length) length = std::to_string(length).size() + body.size();
    return std::to_string(length) + body;
}

void TarWriter::Add(const TarEntry& entry) {
    EndContent();
    std::string path = entry.path;
    if (entry.type == TarType::Folder && (path.empty() || path.back() != '/')) path += '/';
    const std::string records = PaxRecords(entry, path);
    char header[kBlock];
    if (!records.empty()) {
        TarEntry pax;
        pax.type = TarType::PaxHeader;
        pax.mode = 0644;
        pax.size = records.size();
        const size_t slash = path.find_last_of('/', path.size() - 2);
        const std::string name = path.substr(slash == std::string::npos ? 0 : slash + 1);
        FillHeader(header, pax, ("PaxHeaders/" + name).substr(0, 99));
        Block(header);
        expected_ = records.size();
        pad_ = (kBlock - records.size() % kBlock) % kBlock;
        Content(reinterpret_cast<const uint8_t*>(records.data()), records.size());
        EndContent();
    }
    FillHeader(header, entry, path);
    Block(header);
    expected_ = entry.type == TarType::File ? entry.size : 0;
    pad_ = (kBlock - expected_ % kBlock) % kBlock;
}

void TarWriter::Content(const uint8_t* data, size_t size) {
    if (written_ + size > expected_) throw std::logic_error("more tar content than the entry's size");
    sink_(data, size);
    written_ += size;
}

void TarWriter::EndContent() {
    if (written_ != expected_) throw std::logic_error("less tar content than the entry's size");
    static const char zeros[kBlock] = {};
    if (pad_) sink_(reinterpret_cast<const uint8_t*>(zeros), pad_);
    expected_ = written_ = pad_ = 0;
}

void TarWriter::Finish() {
    EndContent();
    static const char zeros[kBlock] = {};
    Block(zeros);
    Block(zeros);
}

void TarWriter::Block(const char* block) { sink_(reinterpret_cast<const uint8_t*>(block), kBlock); }

}  // namespace qvhost
