// Operating-system services used by the plug-in.
//
// This header and the files beside it are the only code that knows which
// operating system it runs on. Everything above this layer speaks UTF-16
// (`WideString`) and calls the functions below; PlatformWin32.cpp implements
// them with the Win32 API, PlatformPosix.cpp with POSIX, and Platform.cpp
// holds what both share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "TextCodec.h"

namespace qvplatform {

#ifdef _WIN32
constexpr char16_t kPathSeparator = u'\\';
#else
constexpr char16_t kPathSeparator = u'/';
#endif

// ---------------------------------------------------------------- time and ids

struct LocalTime {
    uint16_t year = 0;
    uint16_t month = 0;  // 1..12
    uint16_t day = 0;    // 1..31
    uint16_t hour = 0;
    uint16_t minute = 0;
    uint16_t second = 0;
    uint16_t millisecond = 0;
};

// The wall-clock time of the local time zone, with milliseconds.
LocalTime GetLocalTimeNow();

uint32_t CurrentProcessId();
uint32_t CurrentThreadId();

// ---------------------------------------------------------------- text

// The textual form of a fresh random UUID, lower case, 36 characters
// ("xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx").
WideString NewUuidText();

// ---------------------------------------------------------------- locks

// A recursive lock for threads of this process (a critical section on
// Windows): the owning thread may enter it again.
class CriticalSection {
public:
    CriticalSection();
    ~CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void Enter();
    void Leave();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// Who may open a named mutex by its name.
enum class MutexScope {
    // Other processes share it by name (full access for everyone).
    SharedBetweenProcesses,
    // The name is unique to its creator; only this process uses it.
    ThisProcessOnly,
};

// A named mutex, created not initially owned. On Windows it is a kernel
// mutex whose security descriptor has a null DACL (any process may open it).
// On POSIX a process-shared one is a lock file in the temporary folder held
// with flock(), which the kernel releases when its owner dies; a
// process-local one is an in-process mutex. Waiting has no time-out.
class NamedMutex {
public:
    // Null when the operating system refused to create it.
    static std::unique_ptr<NamedMutex> Create(const WideString& name, MutexScope scope);
    virtual ~NamedMutex() = default;

    virtual void Lock() = 0;
    virtual void Unlock() = 0;
};

// Holds a NamedMutex (or nothing, if the pointer is null) for one scope.
class NamedMutexLock {
public:
    explicit NamedMutexLock(NamedMutex* mutex) : m_mutex(mutex) {
        if (m_mutex) m_mutex->Lock();
    }
    ~NamedMutexLock() {
        if (m_mutex) m_mutex->Unlock();
    }
    NamedMutexLock(const NamedMutexLock&) = delete;
    NamedMutexLock& operator=(const NamedMutexLock&) = delete;

private:
    NamedMutex* m_mutex;
};

// ---------------------------------------------------------------- files

// A path in the form that the operating system's file calls take (UTF-8 on
// POSIX, UTF-16 on Windows), converted once for callers that open the same
// file again and again.
class NativePath {
public:
    NativePath() = default;
    explicit NativePath(const WideString& path);

private:
    friend class SharedFile;
#ifdef _WIN32
    WideString m_path;
#else
    std::string m_path;
#endif
};

// A file opened for reading and writing, shared with other openers for
// reading and writing, created when missing (Win32 OPEN_ALWAYS). Writes go
// to the current position; `AppendAtEnd` first moves to the end, so that
// writers in other processes that take turns under a mutex never overwrite
// each other.
class SharedFile {
public:
    SharedFile() = default;
    ~SharedFile();
    SharedFile(const SharedFile&) = delete;
    SharedFile& operator=(const SharedFile&) = delete;

    bool OpenOrCreate(const WideString& path);
    bool OpenOrCreate(const NativePath& path);
    // The 8-bit form: the bytes name the file as they stand on POSIX; on
    // Windows they are text of the ANSI code page.
    bool OpenOrCreate(const std::string& path);
    bool IsOpen() const;
    bool SeekToEnd();
    bool Write(const void* data, size_t bytes);
    bool AppendAtEnd(const void* data, size_t bytes);
    // The size in bytes, or -1 when it cannot be read (or no file is open).
    int64_t Size() const;
    void Close();

private:
#ifdef _WIN32
    void* m_handle = reinterpret_cast<void*>(static_cast<intptr_t>(-1));
#else
    int m_fd = -1;
#endif
};

// ---------------------------------------------------------------- folders

// Creates one folder (its parent must exist). True when it exists afterwards.
bool CreateFolder(const WideString& path);
// Creates a folder and every missing folder above it. True when it exists afterwards.
bool CreateFolderPath(const WideString& path);
bool DeleteFileAt(const WideString& path);
// Removes a folder that holds nothing.
bool RemoveEmptyFolder(const WideString& path);
// The folder for temporary files, without a trailing separator.
WideString TempFolderPath();
bool FileExists(const WideString& path);

struct FoundFile {
    WideString name;         // the name alone, without the folder
    uint64_t lastWriteTime;  // orders files by last write; unit is the platform's
};

// Files (not folders) whose names match a wildcard pattern ('*' any run of
// characters, '?' one character) in the folder that the pattern names, as in
// "C:\\logs\\JNIWrapper*.log". An unreadable or missing folder gives none.
std::vector<FoundFile> ListFiles(const WideString& pattern);
std::vector<FoundFile> ListFiles(const std::string& pattern);

// Sets a file's last-write time, in the unit of FoundFile::lastWriteTime,
// expressed as seconds since 1970 for portability of callers.
bool SetLastWriteTimeSeconds(const WideString& path, int64_t secondsSince1970);

// ---------------------------------------------------------------- memory

// The size of a page of virtual memory.
size_t PageSize();
// Reserves (without committing) an address range of the given size with
// read-write protection; null when the range cannot be had. Release it with
// ReleaseAddressSpace and the same size.
void* ReserveAddressSpace(size_t bytes);
void ReleaseAddressSpace(void* address, size_t bytes);

}  // namespace qvplatform
