// An entry of the local file system as Windows gives it, read through a
// handle opened without following reparse points:
// - kind: file or folder; a reparse point (a symbolic link, a junction, a
//   cloud placeholder) is left out with a line, never followed;
// - times (last write, and the change time from
//   FILE_BASIC_INFO, which tells a changed file as the POSIX ctime does);
// - the file id (the file index within its volume) and the volume's serial
//   number, with the link count: hard links are found as on POSIX;
// - the attributes read-only, hidden, system and archive, kept as the
//   extended attribute "windows.attributes" (hexadecimal), and the mode a
//   POSIX restore gives (0644, 0444 when read-only; folders 0755);
// - the security descriptor's owner, group and DACL, kept as the extended
//   attribute "windows.security" (SDDL text);
// - alternate data streams are named as not kept.
// Paths of any length: every call goes through the \\?\ form.
#include "local/LocalEntry.h"

#include <windows.h>
#include <sddl.h>

#include <algorithm>

#include "local/LocalFiles.h"
#include "util/Error.h"
#include "util/PathRules.h"
#include "util/Text.h"

namespace qvhost::localentry {

namespace {

using repo::Node;
using repo::NodeType;

// The attributes kept.
constexpr DWORD kKeptAttributes =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;

std::string LastErrorText() { return "error " + std::to_string(GetLastError()); }

// The \\?\ form of the path made absolute, which lifts MAX_PATH.
std::wstring LongPath(const std::string& full) {
    if (full.rfind("\\\\?\\", 0) == 0) return PathOf(full).wstring();  // already one (a shadow copy's)
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(PathOf(full), error).lexically_normal();
    std::wstring wide = (error ? PathOf(full) : absolute).wstring();
    std::replace(wide.begin(), wide.end(), L'/', L'\\');
    if (wide.rfind(L"\\\\?\\", 0) == 0) return wide;
    if (wide.rfind(L"\\\\", 0) == 0) return L"\\\\?\\UNC\\" + wide.substr(2);
    return L"\\\\?\\" + wide;
}

std::string Utf8(const std::wstring& wide) { return std::filesystem::path(wide).u8string(); }

int64_t Nanoseconds(const FILETIME& time) {
    const int64_t ticks = static_cast<int64_t>(uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime);
    return ticks == 0 ? 0 : NanosecondsOfWindowsTicks(ticks);
}

int64_t Nanoseconds(const LARGE_INTEGER& time) {
    return time.QuadPart == 0 ? 0 : NanosecondsOfWindowsTicks(time.QuadPart);
}

struct Handle {
    HANDLE value = INVALID_HANDLE_VALUE;
    explicit Handle(HANDLE opened) : value(opened) {}
    ~Handle() {
        if (value != INVALID_HANDLE_VALUE) CloseHandle(value);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
};

// The entry itself, not what a reparse point leads to; folders too.
HANDLE OpenEntry(const std::wstring& path, DWORD access) {
    return CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
}

struct Information {
    BY_HANDLE_FILE_INFORMATION byHandle{};
    int64_t changedNs = 0;
};

bool ReadInformation(const std::string& full, Information& information, std::string& error) {
    const Handle entry(OpenEntry(LongPath(full), FILE_READ_ATTRIBUTES));
    if (entry.value == INVALID_HANDLE_VALUE) {
        error = LastErrorText();
        return false;
    }
    if (!GetFileInformationByHandle(entry.value, &information.byHandle)) {
        error = LastErrorText();
        return false;
    }
    FILE_BASIC_INFO basic{};
    information.changedNs = GetFileInformationByHandleEx(entry.value, FileBasicInfo, &basic, sizeof basic)
                                ? Nanoseconds(basic.ChangeTime)
                                : Nanoseconds(information.byHandle.ftLastWriteTime);
    return true;
}

uint64_t SizeOf(const BY_HANDLE_FILE_INFORMATION& byHandle) {
    return uint64_t{byHandle.nFileSizeHigh} << 32 | byHandle.nFileSizeLow;
}

// The owner, group and DACL as SDDL text; empty when they cannot be read
// (no right to, or a file system without them).
std::string SecurityText(const std::string& full) {
    constexpr SECURITY_INFORMATION kWhat =
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    const std::wstring path = LongPath(full);
    DWORD needed = 0;
    GetFileSecurityW(path.c_str(), kWhat, nullptr, 0, &needed);
    if (needed == 0 || needed > repo::kMaximumXattrBytes) return {};
    std::vector<uint8_t> descriptor(needed);
    if (!GetFileSecurityW(path.c_str(), kWhat, descriptor.data(), needed, &needed)) return {};
    LPWSTR text = nullptr;
    if (!ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor.data(), SDDL_REVISION_1, kWhat, &text,
                                                              nullptr)) {
        return {};
    }
    const std::string sddl = Utf8(text);
    LocalFree(text);
    return sddl;
}

// Whether the file has a data stream besides its own (an alternate data
// stream, such as Zone.Identifier).
bool HasAlternateStreams(const std::string& full) {
    WIN32_FIND_STREAM_DATA stream{};
    const HANDLE found = FindFirstStreamW(LongPath(full).c_str(), FindStreamInfoStandard, &stream, 0);
    if (found == INVALID_HANDLE_VALUE) return false;
    bool others = false;
    do {
        if (std::wstring(stream.cStreamName) != L"::$DATA") others = true;
    } while (!others && FindNextStreamW(found, &stream));
    FindClose(found);
    return others;
}

}  // namespace

std::vector<std::string> FolderNames(const std::string& full, std::string& error) {
    std::vector<std::string> names;
    WIN32_FIND_DATAW entry{};
    const HANDLE found = FindFirstFileExW((LongPath(full) + L"\\*").c_str(), FindExInfoBasic, &entry,
                                          FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH);
    if (found == INVALID_HANDLE_VALUE) {
        if (GetLastError() != ERROR_FILE_NOT_FOUND) error = LastErrorText();
        return names;
    }
    do {
        const std::wstring name = entry.cFileName;
        if (name != L"." && name != L"..") names.push_back(Utf8(name));
    } while (FindNextFileW(found, &entry));
    if (GetLastError() != ERROR_NO_MORE_FILES) error = LastErrorText();
    FindClose(found);
    std::sort(names.begin(), names.end());
    return names;
}

bool StatusOf(const std::string& full, EntryStatus& status, std::string& error) {
    Information information;
    if (!ReadInformation(full, information, error)) return false;
    const DWORD attributes = information.byHandle.dwFileAttributes;
    const bool plain = !(attributes & FILE_ATTRIBUTE_REPARSE_POINT);
    status.isFolder = plain && (attributes & FILE_ATTRIBUTE_DIRECTORY);
    status.isFile = plain && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
    status.size = SizeOf(information.byHandle);
    status.device = information.byHandle.dwVolumeSerialNumber;
    return true;
}

FileState StateOf(const std::string& full) {
    Information information;
    std::string error;
    if (!ReadInformation(full, information, error)) {
        throw Error(ErrorKind::LocalFile, "cannot read the status of " + full + ": " + error);
    }
    return {SizeOf(information.byHandle), Nanoseconds(information.byHandle.ftLastWriteTime), information.changedNs};
}

bool EntryReader::Read(const std::string& full, const std::string& relative, Node& node, repo::Listing& listing,
                       bool isRoot) {
    Information information;
    std::string error;
    if (!ReadInformation(full, information, error)) {
        listing.skipped.push_back({relative, "cannot read its status: " + error, true});
        return false;
    }
    const BY_HANDLE_FILE_INFORMATION& info = information.byHandle;
    const DWORD attributes = info.dwFileAttributes;
    if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        listing.skipped.push_back(
            {relative, "is a reparse point (a symbolic link, junction or placeholder), which the Windows build "
                       "does not follow or keep", true});
        return false;
    }
    if (std::string why = isRoot ? std::string() : WhyPathIsRefused(relative); !why.empty()) {
        listing.skipped.push_back({relative, "its path " + why + ", which a restore would refuse", true});
        return false;
    }
    const bool folder = attributes & FILE_ATTRIBUTE_DIRECTORY;
    node.type = folder ? NodeType::Folder : NodeType::File;
    node.mode = folder ? 0755 : (attributes & FILE_ATTRIBUTE_READONLY) ? 0444 : 0644;
    node.modifiedNs = Nanoseconds(info.ftLastWriteTime);
    // Not the access time: reading the file for the backup may change it, and with it the folder's tree
    // blob in every snapshot (the POSIX build reads with O_NOATIME instead).
    node.accessedNs = 0;
    node.changedNs = information.changedNs;
    node.hasOwner = false;  // Windows owners are SIDs: kept in the security text, not as POSIX ids
    node.inode = uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow;
    node.device = info.dwVolumeSerialNumber;
    node.links = info.nNumberOfLinks;
    if (!folder) {
        node.size = SizeOf(info);
        node.sparse = attributes & FILE_ATTRIBUTE_SPARSE_FILE;
    }
    char text[16];
    std::snprintf(text, sizeof text, "%lx", static_cast<unsigned long>(attributes & kKeptAttributes));
    node.xattrs.push_back({kWindowsAttributesXattr, text});
    if (std::string security = SecurityText(full); !security.empty()) {
        node.xattrs.push_back({kWindowsSecurityXattr, std::move(security)});
    }
    std::sort(node.xattrs.begin(), node.xattrs.end(),
              [](const repo::Xattr& a, const repo::Xattr& b) { return a.name < b.name; });
    if (!folder && HasAlternateStreams(full)) {
        listing.skipped.push_back({relative, "has alternate data streams: only its main stream is kept", false});
    }
    return true;
}

}  // namespace qvhost::localentry
