// The platform layer on POSIX systems (Linux and the like).
#ifndef _WIN32

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "Platform.h"

namespace qvplatform {

// ---------------------------------------------------------------- time and ids

LocalTime GetLocalTimeNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    localtime_r(&now.tv_sec, &parts);
    LocalTime t;
    t.year = static_cast<uint16_t>(parts.tm_year + 1900);
    t.month = static_cast<uint16_t>(parts.tm_mon + 1);
    t.day = static_cast<uint16_t>(parts.tm_mday);
    t.hour = static_cast<uint16_t>(parts.tm_hour);
    t.minute = static_cast<uint16_t>(parts.tm_min);
    t.second = static_cast<uint16_t>(parts.tm_sec);
    t.millisecond = static_cast<uint16_t>(now.tv_nsec / 1000000);
    return t;
}

// The ids are asked of the kernel once per process and thread and kept; a
// fork starts a new generation, so that the child asks again.
namespace {
std::atomic<uint32_t> g_idGeneration{1};
std::atomic<uint32_t> g_processIdGeneration{0};
std::atomic<uint32_t> g_processId{0};
thread_local uint32_t t_threadIdGeneration = 0;
thread_local uint32_t t_threadId = 0;

uint32_t IdGeneration() {
    static const bool registered = [] {
        pthread_atfork(nullptr, nullptr, [] { ++g_idGeneration; });
        return true;
    }();
    (void)registered;
    return g_idGeneration.load(std::memory_order_relaxed);
}
}  // namespace

uint32_t CurrentProcessId() {
    const uint32_t generation = IdGeneration();
    if (g_processIdGeneration.load(std::memory_order_acquire) != generation) {
        g_processId.store(static_cast<uint32_t>(getpid()), std::memory_order_relaxed);
        g_processIdGeneration.store(generation, std::memory_order_release);
    }
    return g_processId.load(std::memory_order_relaxed);
}

uint32_t CurrentThreadId() {
    const uint32_t generation = IdGeneration();
    if (t_threadIdGeneration != generation) {
#ifdef SYS_gettid
        t_threadId = static_cast<uint32_t>(syscall(SYS_gettid));
#else
        t_threadId = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pthread_self()));
#endif
        t_threadIdGeneration = generation;
    }
    return t_threadId;
}

WideString NewUuidText() {
    unsigned char b[16] = {};
    int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    size_t got = 0;
    if (fd >= 0) {
        while (got < sizeof b) {
            ssize_t n = read(fd, b + got, sizeof b - got);
            if (n <= 0) break;
            got += static_cast<size_t>(n);
        }
        close(fd);
    }
    if (got < sizeof b) {
        // No random source: fall back to time, process and address entropy.
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        uint64_t seed[2] = {static_cast<uint64_t>(now.tv_nsec) ^ (static_cast<uint64_t>(now.tv_sec) << 20),
                            (static_cast<uint64_t>(getpid()) << 32) ^ reinterpret_cast<uintptr_t>(&now)};
        for (size_t i = 0; i < sizeof b; ++i) b[i] = static_cast<unsigned char>(seed[i / 8] >> ((i % 8) * 8));
    }
    b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);  // version 4
    b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
    char text[37];
    std::snprintf(text, sizeof text,
                  "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1],
                  b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14],
                  b[15]);
    return FromUtf8(text);
}

// ---------------------------------------------------------------- locks

struct CriticalSection::Impl {
    pthread_mutex_t mutex;
};

CriticalSection::CriticalSection() : m_impl(new Impl) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_impl->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

CriticalSection::~CriticalSection() { pthread_mutex_destroy(&m_impl->mutex); }
void CriticalSection::Enter() { pthread_mutex_lock(&m_impl->mutex); }
void CriticalSection::Leave() { pthread_mutex_unlock(&m_impl->mutex); }

namespace {

class LocalMutex final : public NamedMutex {
public:
    void Lock() override { m_mutex.lock(); }
    void Unlock() override { m_mutex.unlock(); }

private:
    std::mutex m_mutex;
};

// A mutex shared by name between processes: an exclusive flock() on a lock
// file. Threads of this process that share the object take turns on the
// in-process mutex first, because flock() does not tell them apart.
class FileLockMutex final : public NamedMutex {
public:
    explicit FileLockMutex(int fd) : m_fd(fd) {}
    ~FileLockMutex() override { close(m_fd); }
    void Lock() override {
        m_threads.lock();
        while (flock(m_fd, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    void Unlock() override {
        flock(m_fd, LOCK_UN);
        m_threads.unlock();
    }

private:
    int m_fd;
    std::mutex m_threads;
};

std::string LockFilePath(const WideString& name) {
    std::string safe;
    for (char c : ToUtf8(name)) safe.push_back(c == '/' ? '_' : c);
    const char* folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm/" : "/tmp/";
    return folder + safe + ".lock";
}

}  // namespace

std::unique_ptr<NamedMutex> NamedMutex::Create(const WideString& name, MutexScope scope) {
    if (scope == MutexScope::ThisProcessOnly) return std::make_unique<LocalMutex>();
    const std::string path = LockFilePath(name);
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return nullptr;
    fchmod(fd, 0666);  // everyone may use it, whatever the umask (a null DACL)
    return std::make_unique<FileLockMutex>(fd);
}

// ---------------------------------------------------------------- files

SharedFile::~SharedFile() { Close(); }

NativePath::NativePath(const WideString& path) : m_path(ToUtf8(path)) {}

bool SharedFile::OpenOrCreate(const NativePath& path) { return OpenOrCreate(path.m_path); }

bool SharedFile::OpenOrCreate(const std::string& path) {
    Close();
    m_fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    return m_fd >= 0;
}

bool SharedFile::IsOpen() const { return m_fd >= 0; }

bool SharedFile::SeekToEnd() { return m_fd >= 0 && lseek(m_fd, 0, SEEK_END) >= 0; }

bool SharedFile::Write(const void* data, size_t bytes) {
    if (m_fd < 0) return false;
    const char* p = static_cast<const char*>(data);
    while (bytes > 0) {
        ssize_t n = write(m_fd, p, bytes);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        bytes -= static_cast<size_t>(n);
    }
    return true;
}

int64_t SharedFile::Size() const {
    struct stat info {};
    if (m_fd < 0 || fstat(m_fd, &info) != 0) return -1;
    return static_cast<int64_t>(info.st_size);
}

void SharedFile::Close() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
}

// ---------------------------------------------------------------- folders

bool CreateFolder(const WideString& path) {
    const std::string p = ToUtf8(path);
    if (mkdir(p.c_str(), 0777) == 0) return true;
    struct stat info {};
    return stat(p.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool DeleteFileAt(const WideString& path) { return unlink(ToUtf8(path).c_str()) == 0; }

bool RemoveEmptyFolder(const WideString& path) { return rmdir(ToUtf8(path).c_str()) == 0; }

WideString TempFolderPath() {
    const char* value = std::getenv("TMPDIR");
    std::string folder = value && *value ? value : "/tmp";
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    return FromUtf8(folder);
}

bool FileExists(const WideString& path) {
    struct stat info {};
    return stat(ToUtf8(path).c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

namespace {
uint64_t NanosecondsOf(const struct stat& info) {
    return static_cast<uint64_t>(info.st_mtim.tv_sec) * 1000000000ull +
           static_cast<uint64_t>(info.st_mtim.tv_nsec);
}
}  // namespace

std::vector<FoundFile> ListFiles(const std::string& pattern) {
    std::vector<FoundFile> found;
    // Both separators are accepted, as on Windows.
    const size_t cut = pattern.find_last_of("/\\");
    const std::string folder = cut == std::string::npos ? std::string(".") : pattern.substr(0, cut);
    const std::string namePattern = cut == std::string::npos ? pattern : pattern.substr(cut + 1);
    DIR* dir = opendir(folder.empty() ? "/" : folder.c_str());
    if (!dir) return found;
    while (dirent* entry = readdir(dir)) {
        if (fnmatch(namePattern.c_str(), entry->d_name, FNM_PERIOD) != 0) continue;
        struct stat info {};
        const std::string full = (folder.empty() ? std::string() : folder) + "/" + entry->d_name;
        if (stat(full.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
        found.push_back({FromUtf8(entry->d_name), NanosecondsOf(info)});
    }
    closedir(dir);
    return found;
}

std::vector<FoundFile> ListFiles(const WideString& pattern) { return ListFiles(ToUtf8(pattern)); }

bool SetLastWriteTimeSeconds(const WideString& path, int64_t secondsSince1970) {
    timespec times[2];
    times[0].tv_sec = static_cast<time_t>(secondsSince1970);
    times[0].tv_nsec = 0;
    times[1] = times[0];
    return utimensat(AT_FDCWD, ToUtf8(path).c_str(), times, 0) == 0;
}

// ---------------------------------------------------------------- memory

size_t PageSize() {
    long size = sysconf(_SC_PAGESIZE);
    return size > 0 ? static_cast<size_t>(size) : 4096;
}

void* ReserveAddressSpace(size_t bytes) {
    if (bytes == 0) return nullptr;
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                   -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

void ReleaseAddressSpace(void* address, size_t bytes) {
    if (address) munmap(address, bytes);
}

}  // namespace qvplatform

#endif  // !_WIN32
