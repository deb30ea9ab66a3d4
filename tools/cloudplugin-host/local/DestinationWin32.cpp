// The destination of a restore on Windows: every folder on the way is
// checked for a reparse point (a symbolic link or a junction) before it is
// used, and a file is made with CREATE_NEW under a name of its own, then
// moved into place. Windows has no openat, so a link made inside the
// destination between the check and the use of a folder is not caught as
// it is on POSIX; the destination should not be shared with untrusted
// writers while a restore runs.
#include <windows.h>
#include <sddl.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

#include "local/Destination.h"
#include "local/LocalEntry.h"
#include "util/Text.h"
#include "util/Error.h"

namespace qvhost {

namespace {

[[noreturn]] void Refuse(const std::string& where, const std::string& why) {
    throw Error(ErrorKind::LocalFile, "refusing to restore " + where + ": " + why);
}

[[noreturn]] void Fail(const std::string& what, const std::string& where) {
    throw Error(ErrorKind::LocalFile, "cannot " + what + " " + where + ": error " + std::to_string(GetLastError()));
}

std::wstring WidePath(const std::string& path) { return PathOf(path).wstring(); }

// INVALID_FILE_ATTRIBUTES when the entry does not exist.
DWORD AttributesOf(const std::string& path) { return GetFileAttributesW(WidePath(path).c_str()); }

std::string TemporaryName(const std::string& leaf) {
    thread_local std::mt19937_64 random{std::random_device{}()};
    char suffix[40];
    std::snprintf(suffix, sizeof suffix, ".cloudplugin-partial-%016llx", static_cast<unsigned long long>(random()));
    return leaf.substr(0, 200) + suffix;
}

FILETIME FileTimeOf(int64_t modifiedNs) {
    const int64_t ticks = WindowsTicksOf(modifiedNs);
    return FILETIME{static_cast<DWORD>(ticks & 0xFFFFFFFF), static_cast<DWORD>(ticks >> 32)};
}

// The folder holding the entry, every folder on the way checked (and made
// when `create`); sets `leaf` and the entry's full path `shown`.
std::string ParentOf(const std::string& root, const std::string& relativePath, bool create, std::string& leaf,
                     std::string& shown) {
    const std::vector<std::string> components = Split(relativePath, '/');
    std::string folder = root;
    for (size_t i = 0; i + 1 < components.size(); ++i) {
        folder = JoinPath(folder, components[i]);
        DWORD attributes = AttributesOf(folder);
        if (attributes == INVALID_FILE_ATTRIBUTES && create) {
            if (!CreateDirectoryW(WidePath(folder).c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
                Fail("create the folder", folder);
            }
            attributes = AttributesOf(folder);
        }
        if (attributes == INVALID_FILE_ATTRIBUTES) Fail("open the folder", folder);
        if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
            Refuse(folder, "it is a link or junction, and a restore never writes through one");
        }
        if (!(attributes & FILE_ATTRIBUTE_DIRECTORY)) Refuse(folder, "it is a file where the backup has a folder");
    }
    leaf = components.back();
    shown = JoinPath(folder, leaf);
    return folder;
}

void MoveIntoPlace(const std::string& from, const std::string& to, bool replace) {
    const DWORD attributes = AttributesOf(to);
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)) {
        Refuse(to, "it is a folder");
    }
    if (!MoveFileExW(WidePath(from).c_str(), WidePath(to).c_str(), replace ? MOVEFILE_REPLACE_EXISTING : 0)) {
        if (GetLastError() == ERROR_ALREADY_EXISTS || GetLastError() == ERROR_FILE_EXISTS) {
            Refuse(to, "it exists (--overwrite replaces it)");
        }
        Fail("move into place", to);
    }
}

// What Windows keeps of an entry beyond its content and time: the
// attributes and the DACL a Windows backup recorded (local/LocalEntry.h).
// Extended attributes of other systems, and a DACL Windows refuses, are
// noted as not kept.
void KeepWindowsMetadata(Destination& destination, const std::string& shown, const repo::Node& node) {
    const std::wstring path = WidePath(shown);
    for (const repo::Xattr& xattr : node.xattrs) {
        if (xattr.name == localentry::kWindowsAttributesXattr) {
            const unsigned long kept = std::strtoul(xattr.value.c_str(), nullptr, 16) &
                                       (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                                        FILE_ATTRIBUTE_ARCHIVE);
            const DWORD now = GetFileAttributesW(path.c_str());
            const DWORD wanted = (now & FILE_ATTRIBUTE_DIRECTORY) | (kept ? kept : FILE_ATTRIBUTE_NORMAL);
            if (now == INVALID_FILE_ATTRIBUTES || !SetFileAttributesW(path.c_str(), wanted)) {
                destination.Note("not kept for " + shown + ": its attributes (error " + std::to_string(GetLastError()) +
                                 ")");
            }
        } else if (xattr.name == localentry::kWindowsSecurityXattr) {
            PSECURITY_DESCRIPTOR descriptor = nullptr;
            const std::wstring text = PathOf(xattr.value).wstring();
            const bool kept =
                ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1, &descriptor,
                                                                     nullptr) &&
                SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, descriptor);
            const DWORD error = GetLastError();
            if (descriptor) LocalFree(descriptor);
            if (!kept) destination.Note("not kept for " + shown + ": its access control list (error " +
                                        std::to_string(error) + ")");
        } else {
            destination.Note("not kept for " + shown + ": its extended attribute " + Printable(xattr.name) +
                             " (Windows has none)");
        }
    }
}

class Win32RestoredFile : public repo::RestoredFile {
public:
    Win32RestoredFile(Destination& destination, std::string temporary, std::string shown, bool overwrite)
        : destination_(destination), temporary_(std::move(temporary)), shown_(std::move(shown)),
          overwrite_(overwrite) {
        file_ = CreateFileW(WidePath(temporary_).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL,
                            nullptr);
        if (file_ == INVALID_HANDLE_VALUE) Fail("create a file for", shown_);
    }

    ~Win32RestoredFile() override {
        if (file_ != INVALID_HANDLE_VALUE) CloseHandle(file_);
        if (!committed_) DeleteFileW(WidePath(temporary_).c_str());
    }

    void WriteAt(uint64_t offset, const void* data, size_t size) override {
        const auto* bytes = static_cast<const uint8_t*>(data);
        while (size > 0) {
            OVERLAPPED at{};
            at.Offset = static_cast<DWORD>(offset & 0xFFFFFFFF);
            at.OffsetHigh = static_cast<DWORD>(offset >> 32);
            const DWORD chunk = static_cast<DWORD>(std::min<size_t>(size, 1u << 30));
            DWORD written = 0;
            if (!WriteFile(file_, bytes, chunk, &written, &at) || written == 0) Fail("write", shown_);
            bytes += written, offset += written, size -= written;
        }
    }

    void Commit(const repo::Node& node) override {
        // Windows keeps no POSIX mode; the time is set on the open file.
        const FILETIME time = FileTimeOf(node.modifiedNs);
        if (!SetFileTime(file_, nullptr, nullptr, &time)) Fail("set the time of", shown_);
        const BOOL closed = CloseHandle(file_);
        file_ = INVALID_HANDLE_VALUE;
        if (!closed) Fail("write", shown_);
        MoveIntoPlace(temporary_, shown_, overwrite_);
        committed_ = true;
        KeepWindowsMetadata(destination_, shown_, node);
    }

private:
    Destination& destination_;
    std::string temporary_;
    std::string shown_;
    bool overwrite_;
    HANDLE file_ = INVALID_HANDLE_VALUE;
    bool committed_ = false;
};

}  // namespace

struct Destination::Handle {};

Destination::Destination(const std::string& root, const DestinationOptions& options)
    : root_(root), options_(options), handle_(std::make_unique<Handle>()) {
    MakeFolders(root);
}

Destination::~Destination() = default;

void Destination::Check(const std::string& relativePath, EntryKind kind) const {
    std::string path = root_;
    const std::vector<std::string> components = Split(relativePath, '/');
    for (size_t i = 0; i < components.size(); ++i) {
        path = JoinPath(path, components[i]);
        const DWORD attributes = AttributesOf(path);
        if (attributes == INVALID_FILE_ATTRIBUTES) return;
        const bool last = i + 1 == components.size();
        if (!last && (attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
            Refuse(path, "it is a link or junction, and a restore never writes through one");
        }
        if (!last && !(attributes & FILE_ATTRIBUTE_DIRECTORY)) Refuse(path, "it is a file where the backup has a folder");
        if (!last) continue;
        const bool folder = (attributes & FILE_ATTRIBUTE_DIRECTORY) && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT);
        if (folder && kind != EntryKind::Folder) Refuse(path, "it is a folder, and a restore never replaces one");
        if (!folder && kind == EntryKind::Folder) Refuse(path, "it is not a folder");
        if (!folder && !options_.overwrite) Refuse(path, "it exists (--overwrite replaces it)");
    }
}

std::unique_ptr<repo::RestoredFile> Destination::MakeFile(const std::string& relativePath, const repo::Node&) {
    std::string leaf;
    std::string shown;
    const std::string folder = ParentOf(root_, relativePath, true, leaf, shown);
    return std::make_unique<Win32RestoredFile>(*this, JoinPath(folder, TemporaryName(leaf)), shown, options_.overwrite);
}

void Destination::MakeFolder(const std::string& relativePath, const repo::Node& node) {
    if (relativePath.empty()) {
        if (!node.implicit) SetModifiedNs(root_, node.modifiedNs);
        if (!node.implicit) KeepWindowsMetadata(*this, root_, node);
        return;
    }
    std::string leaf;
    std::string shown;
    ParentOf(root_, relativePath, true, leaf, shown);
    if (!CreateDirectoryW(WidePath(shown).c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
        Fail("create the folder", shown);
    }
    if (AttributesOf(shown) & FILE_ATTRIBUTE_REPARSE_POINT) Refuse(shown, "it is a link or junction");
    if (!node.implicit) SetModifiedNs(shown, node.modifiedNs);
    if (!node.implicit) KeepWindowsMetadata(*this, shown, node);
}

void Destination::MakeLink(const std::string& relativePath, const repo::Node& node) {
    std::string leaf;
    std::string shown;
    const std::string folder = ParentOf(root_, relativePath, true, leaf, shown);
    const std::string temporary = JoinPath(folder, TemporaryName(leaf));
    std::error_code error;
    std::filesystem::create_symlink(PathOf(node.linkTarget), PathOf(temporary), error);
    if (error) throw Error(ErrorKind::LocalFile, "cannot create the link " + shown + ": " + error.message());
    try {
        MoveIntoPlace(temporary, shown, options_.overwrite);
    } catch (...) {
        DeleteFileW(WidePath(temporary).c_str());
        throw;
    }
    SetModifiedNs(shown, node.modifiedNs);
}

void Destination::MakeSpecial(const std::string& relativePath, const repo::Node&) {
    Note("not restored: " + JoinPath(root_, relativePath) + " (a FIFO or device node, which Windows does not have)");
}

void Destination::MakeHardLink(const std::string& relativePath, const std::string& existing) {
    std::string leaf, shown, existingLeaf, existingShown;
    ParentOf(root_, relativePath, true, leaf, shown);
    ParentOf(root_, existing, false, existingLeaf, existingShown);
    if (!CreateHardLinkW(WidePath(shown).c_str(), WidePath(existingShown).c_str(), nullptr)) Fail("create the link", shown);
}

namespace {

class Win32ExistingFile : public repo::ExistingFile {
public:
    explicit Win32ExistingFile(const std::string& path) : in_(PathOf(path), std::ios::binary) {}
    bool good() const { return in_.good(); }
    size_t ReadAt(uint64_t offset, void* data, size_t size) override {
        in_.clear();
        in_.seekg(static_cast<std::streamoff>(offset));
        in_.read(static_cast<char*>(data), static_cast<std::streamsize>(size));
        return static_cast<size_t>(in_.gcount());
    }

private:
    std::ifstream in_;
};

// Whether a folder on the way to the entry is missing, a file, or a link or junction.
bool BlockedOnTheWay(const std::string& root, const std::string& relativePath) {
    std::string path = root;
    const std::vector<std::string> components = Split(relativePath, '/');
    for (size_t i = 0; i + 1 < components.size(); ++i) {
        path = JoinPath(path, components[i]);
        const DWORD attributes = AttributesOf(path);
        if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) ||
            !(attributes & FILE_ATTRIBUTE_DIRECTORY)) {
            return true;
        }
    }
    return false;
}

void RemoveOthers(const std::string& folder, const std::string& relative, const std::set<std::string>& kept,
                  std::vector<std::string>& removed) {
    std::vector<std::filesystem::path> entries;
    for (const auto& entry : std::filesystem::directory_iterator(PathOf(folder))) entries.push_back(entry.path());
    for (const std::filesystem::path& entry : entries) {
        const std::string name = entry.filename().u8string();
        const std::string path = relative.empty() ? name : relative + "/" + name;
        const DWORD attributes = AttributesOf(JoinPath(folder, name));
        const bool realFolder = (attributes & FILE_ATTRIBUTE_DIRECTORY) && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT);
        if (!kept.count(path)) {
            std::filesystem::remove_all(entry);  // removes a link or junction itself
            removed.push_back(path);
        } else if (realFolder) {
            RemoveOthers(JoinPath(folder, name), path, kept, removed);
        }
    }
}

}  // namespace

std::optional<repo::ExistingEntry> Destination::Existing(const std::string& relativePath) const {
    if (BlockedOnTheWay(root_, relativePath)) return std::nullopt;
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(WidePath(JoinPath(root_, relativePath)).c_str(), GetFileExInfoStandard, &data)) {
        return std::nullopt;
    }
    repo::ExistingEntry entry;
    const bool link = data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT;
    entry.folder = !link && (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY);
    entry.regularFile = !link && !entry.folder;
    entry.size = (uint64_t{data.nFileSizeHigh} << 32) | data.nFileSizeLow;
    const int64_t ticks = static_cast<int64_t>((uint64_t{data.ftLastWriteTime.dwHighDateTime} << 32) |
                                               data.ftLastWriteTime.dwLowDateTime);
    entry.modifiedNs = NanosecondsOfWindowsTicks(ticks);
    return entry;
}

std::unique_ptr<repo::ExistingFile> Destination::OpenExisting(const std::string& relativePath) const {
    const std::optional<repo::ExistingEntry> existing = Existing(relativePath);
    if (!existing || !existing->regularFile) return nullptr;
    auto file = std::make_unique<Win32ExistingFile>(JoinPath(root_, relativePath));
    if (!file->good()) return nullptr;
    return file;
}

std::vector<std::string> Destination::RemoveAllBut(const std::set<std::string>& kept) {
    std::vector<std::string> removed;
    RemoveOthers(root_, "", kept, removed);
    std::sort(removed.begin(), removed.end());
    return removed;
}

void Destination::Note(const std::string& text) {
    std::lock_guard<std::mutex> lock(notesMutex_);
    notes_.push_back(text);
}

// Owners are not restored on Windows.
bool Destination::KeepsOwners() const { return false; }

std::vector<std::string> Destination::TakeNotes() {
    std::lock_guard<std::mutex> lock(notesMutex_);
    std::vector<std::string> notes;
    notes.swap(notes_);
    return notes;
}

}  // namespace qvhost
