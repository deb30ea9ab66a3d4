// The platform layer on Windows (Win32 API).
#ifdef _WIN32

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <rpc.h>

#include "Platform.h"

namespace qvplatform {

namespace {

const wchar_t* W(const WideString& s) { return reinterpret_cast<const wchar_t*>(s.c_str()); }

WideString FromAnsi(const std::string& text) {
    if (text.empty()) return WideString();
    int n = MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    WideString out(static_cast<size_t>(n > 0 ? n : 0), u'\0');
    if (n > 0) {
        MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()),
                            reinterpret_cast<wchar_t*>(&out[0]), n);
    }
    return out;
}

// Security attributes whose descriptor has a null DACL: full access for
// everyone, not inheritable. The descriptor lives as long as the call.
struct NullDaclAttributes {
    SECURITY_DESCRIPTOR descriptor;
    SECURITY_ATTRIBUTES attributes;
    NullDaclAttributes() {
        InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
        SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE);
        attributes.nLength = sizeof attributes;
        attributes.lpSecurityDescriptor = &descriptor;
        attributes.bInheritHandle = FALSE;
    }
};

}  // namespace

// ---------------------------------------------------------------- time and ids

LocalTime GetLocalTimeNow() {
    SYSTEMTIME now;
    GetLocalTime(&now);
    LocalTime t;
    t.year = now.wYear;
    t.month = now.wMonth;
    t.day = now.wDay;
    t.hour = now.wHour;
    t.minute = now.wMinute;
    t.second = now.wSecond;
    t.millisecond = now.wMilliseconds;
    return t;
}

uint32_t CurrentProcessId() { return GetCurrentProcessId(); }
uint32_t CurrentThreadId() { return GetCurrentThreadId(); }

WideString NewUuidText() {
    UUID id;
    UuidCreate(&id);
    RPC_WSTR text = nullptr;
    WideString out;
    if (UuidToStringW(&id, &text) == RPC_S_OK && text) {
        out = reinterpret_cast<const char16_t*>(text);
        RpcStringFreeW(&text);
    }
    return out;
}

// ---------------------------------------------------------------- locks

struct CriticalSection::Impl {
    CRITICAL_SECTION section;
};

CriticalSection::CriticalSection() : m_impl(new Impl) { InitializeCriticalSection(&m_impl->section); }
CriticalSection::~CriticalSection() { DeleteCriticalSection(&m_impl->section); }
void CriticalSection::Enter() { EnterCriticalSection(&m_impl->section); }
void CriticalSection::Leave() { LeaveCriticalSection(&m_impl->section); }

namespace {

class KernelMutex final : public NamedMutex {
public:
    explicit KernelMutex(HANDLE handle) : m_handle(handle) {}
    ~KernelMutex() override { CloseHandle(m_handle); }
    // An abandoned mutex (its owner ended while holding it) is owned now too.
    void Lock() override { WaitForSingleObject(m_handle, INFINITE); }
    void Unlock() override { ReleaseMutex(m_handle); }

private:
    HANDLE m_handle;
};

}  // namespace

// Both scopes are kernel mutexes on Windows: a name unique to its creator
// is simply never opened by anyone else.
std::unique_ptr<NamedMutex> NamedMutex::Create(const WideString& name, MutexScope) {
    NullDaclAttributes security;
    HANDLE handle = CreateMutexW(&security.attributes, FALSE, W(name));
    if (!handle) return nullptr;
    return std::make_unique<KernelMutex>(handle);
}

// ---------------------------------------------------------------- files

SharedFile::~SharedFile() { Close(); }

NativePath::NativePath(const WideString& path) : m_path(path) {}

bool SharedFile::OpenOrCreate(const NativePath& path) {
    Close();
    m_handle = CreateFileW(W(path.m_path), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                           nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    return IsOpen();
}

bool SharedFile::OpenOrCreate(const std::string& path) { return OpenOrCreate(NativePath(FromAnsi(path))); }

bool SharedFile::IsOpen() const { return m_handle != INVALID_HANDLE_VALUE; }

bool SharedFile::SeekToEnd() {
    LARGE_INTEGER zero{};
    return IsOpen() && SetFilePointerEx(m_handle, zero, nullptr, FILE_END);
}

bool SharedFile::Write(const void* data, size_t bytes) {
    if (!IsOpen()) return false;
    const char* p = static_cast<const char*>(data);
    while (bytes > 0) {
        const DWORD chunk = bytes > 0x40000000u ? 0x40000000u : static_cast<DWORD>(bytes);
        DWORD written = 0;
        if (!WriteFile(m_handle, p, chunk, &written, nullptr) || written == 0) return false;
        p += written;
        bytes -= written;
    }
    return true;
}

int64_t SharedFile::Size() const {
    LARGE_INTEGER size{};
    if (!IsOpen() || !GetFileSizeEx(m_handle, &size)) return -1;
    return size.QuadPart;
}

void SharedFile::Close() {
    if (IsOpen()) CloseHandle(m_handle);
    m_handle = INVALID_HANDLE_VALUE;
}

// ---------------------------------------------------------------- folders

bool CreateFolder(const WideString& path) {
    if (CreateDirectoryW(W(path), nullptr)) return true;
    const DWORD attributes = GetFileAttributesW(W(path));
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool DeleteFileAt(const WideString& path) { return DeleteFileW(W(path)) != 0; }

bool RemoveEmptyFolder(const WideString& path) { return RemoveDirectoryW(W(path)) != 0; }

WideString TempFolderPath() {
    wchar_t buffer[MAX_PATH + 1];
    const DWORD n = GetTempPathW(MAX_PATH + 1, buffer);
    WideString folder(reinterpret_cast<const char16_t*>(buffer), n <= MAX_PATH ? n : 0);
    while (folder.size() > 3 && (folder.back() == u'\\' || folder.back() == u'/')) folder.pop_back();
    return folder;
}

bool FileExists(const WideString& path) {
    const DWORD attributes = GetFileAttributesW(W(path));
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

std::vector<FoundFile> ListFiles(const WideString& pattern) {
    std::vector<FoundFile> found;
    WIN32_FIND_DATAW data;
    HANDLE search = FindFirstFileW(W(pattern), &data);
    if (search == INVALID_HANDLE_VALUE) return found;
    do {
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) continue;
        const uint64_t time = (static_cast<uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
                              data.ftLastWriteTime.dwLowDateTime;
        found.push_back({reinterpret_cast<const char16_t*>(data.cFileName), time});
    } while (FindNextFileW(search, &data));
    FindClose(search);
    return found;
}

std::vector<FoundFile> ListFiles(const std::string& pattern) { return ListFiles(FromAnsi(pattern)); }

bool SetLastWriteTimeSeconds(const WideString& path, int64_t secondsSince1970) {
    HANDLE file = CreateFileW(W(path), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    // FILETIME counts 100 ns units since 1601-01-01.
    const uint64_t ticks = static_cast<uint64_t>(secondsSince1970 + 11644473600LL) * 10000000ull;
    FILETIME time;
    time.dwLowDateTime = static_cast<DWORD>(ticks);
    time.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
    const BOOL ok = SetFileTime(file, nullptr, nullptr, &time);
    CloseHandle(file);
    return ok != 0;
}

// ---------------------------------------------------------------- memory

size_t PageSize() {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwPageSize;
}

void* ReserveAddressSpace(size_t bytes) {
    if (bytes == 0) return nullptr;
    return VirtualAlloc(nullptr, bytes, MEM_RESERVE, PAGE_READWRITE);
}

void ReleaseAddressSpace(void* address, size_t) {
    if (address) VirtualFree(address, 0, MEM_RELEASE);
}

}  // namespace qvplatform

#endif  // _WIN32
