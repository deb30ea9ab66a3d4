#include "repository/Locks.h"

#include <chrono>
#include <ctime>
#include <random>

#include "util/Text.h"
#include "util/Interrupt.h"
#include "repository/BoundedJson.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#endif

namespace qvhost::repo {

namespace {

int64_t Now() { return static_cast<int64_t>(std::time(nullptr)); }

int64_t OwnPid() {
#ifdef _WIN32
    return static_cast<int64_t>(GetCurrentProcessId());
#else
    return static_cast<int64_t>(getpid());
#endif
}

std::optional<LockInfo> ReadLock(Repository& repository, const std::string& name) {
    LockInfo lock;
    lock.name = name;
    Bytes sealed;
    try {
        sealed = repository.store().ReadAll(name, kMaximumLockSize);
    } catch (const ObjectMissing&) {
        return std::nullopt;  // removed since it was listed
    }
    try {
        const Bytes plain = OpenObject(repository.keys(), "lock", sealed, name);
        const Json json = ParseBoundedJson(std::string(plain.begin(), plain.end()), "the lock " + name);
        lock.host = StringMember(json, "host", name);
        lock.pid = SignedMember(json, "pid", name);
        lock.command = StringMember(json, "command", name);
        lock.exclusive = BoolMember(json, "exclusive", name);
        lock.time = SignedMember(json, "time", name);
    } catch (const Error&) {
        lock.readable = false;
    }
    return lock;
}

std::string Describe(const LockInfo& lock) {
    if (!lock.readable) return "a lock that does not open (" + lock.name + ")";
    char age[64];
    std::snprintf(age, sizeof age, "%lld s ago", static_cast<long long>(Now() - lock.time));
    return std::string(lock.exclusive ? "an exclusive" : "a") + " lock of '" + Printable(lock.command) + "' on " +
           Printable(lock.host) + " (process " + std::to_string(lock.pid) + "), refreshed " + age;
}

}  // namespace

bool ProcessRuns(int64_t pid) {
#ifdef _WIN32
    HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(pid));
    if (!process) return GetLastError() == ERROR_ACCESS_DENIED;
    DWORD code = 0;
    const bool running = GetExitCodeProcess(process, &code) && code == STILL_ACTIVE;
    CloseHandle(process);
    return running;
#else
    return pid > 0 && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
#endif
}

std::string HostName() {
#ifdef _WIN32
    wchar_t name[256];
    DWORD size = 256;
    if (!GetComputerNameW(name, &size)) return "unknown";
    std::string out;
    for (DWORD i = 0; i < size; ++i) out.push_back(name[i] < 0x80 ? static_cast<char>(name[i]) : '?');
    return out;
#else
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0) return "unknown";
    return name;
#endif
}

std::vector<LockInfo> ListLocks(Repository& repository, int64_t now, const ProcessAlive& alive) {
    std::vector<LockInfo> locks;
    const std::string host = HostName();
    for (const StoredObject& object : repository.store().List(repository.layout().LocksPrefix())) {
        std::optional<LockInfo> lock = ReadLock(repository, object.name);
        if (!lock) continue;
        if (lock->readable) {
            lock->stale = now - lock->time > kLockStaleSeconds || (lock->host == host && !alive(lock->pid));
        }
        locks.push_back(std::move(*lock));
    }
    return locks;
}

std::vector<LockInfo> RemoveLocks(Repository& repository, bool all, int64_t now, const ProcessAlive& alive) {
    std::vector<LockInfo> removed;
    for (LockInfo& lock : ListLocks(repository, now, alive)) {
        if (!lock.stale && !all) continue;
        repository.store().Delete(lock.name);
        removed.push_back(std::move(lock));
    }
    return removed;
}

RepositoryLock::RepositoryLock(Repository& repository, const std::string& command, bool exclusive,
                               int64_t waitSeconds, const ProcessAlive& alive)
    : repository_(repository), command_(command), exclusive_(exclusive) {
    const Key256 random = RandomKey();
    name_ = repository.layout().LocksPrefix() + ToHex(random.data(), 16);
    std::mt19937 jitter(random[20] | random[21] << 8);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(waitSeconds);
    for (int attempt = 0;; ++attempt) {
        Write();
        std::string holder;
        for (const LockInfo& other : ListLocks(repository, Now(), alive)) {
            if (other.name == name_ || other.stale) continue;
            if (exclusive || other.exclusive || !other.readable) {
                holder = Describe(other);
                break;
            }
        }
        if (holder.empty()) break;
        try {
            repository.store().Delete(name_);
        } catch (const AccessDenied&) {
            // A credential that may not delete leaves its lock to go stale.
        }
        // Both of two processes that wrote at once step back: wait a little
        // and differently before trying again.
        const auto pause = std::chrono::milliseconds(std::min(200 << std::min(attempt, 4), 3000) + jitter() % 500);
        if (std::chrono::steady_clock::now() + pause > deadline) {
            throw Error(ErrorKind::Locked, "the repository is locked: " + holder);
        }
        std::this_thread::sleep_for(pause);
        if (Interrupted()) throw Error(ErrorKind::Interrupted, "interrupted");
    }
    refresher_ = std::thread([this] { Refresh(); });
}

RepositoryLock::~RepositoryLock() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (refresher_.joinable()) refresher_.join();
    try {
        repository_.store().Delete(name_);
    } catch (const AccessDenied&) {
        repository_.Warn("the lock " + name_ + " stays: this credential may not delete objects. It counts for "
                         "nobody once this process has ended (on this host) or after " +
                         std::to_string(kLockStaleSeconds / 60) + " minutes (anywhere)");
    } catch (const std::exception&) {
        // Left behind, the lock goes stale and counts for nobody.
    }
}

void RepositoryLock::Write() {
    const Json json = {{"host", HostName()},
                       {"pid", OwnPid()},
                       {"command", command_},
                       {"exclusive", exclusive_},
                       {"time", Now()}};
    const std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
    const Bytes sealed = SealObject(repository_.keys(), "lock", Bytes(text.begin(), text.end()));
    repository_.store().Write(name_, sealed.data(), sealed.size());
}

void RepositoryLock::Refresh() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, std::chrono::seconds(kLockRefreshSeconds), [this] { return stopping_; })) {
        lock.unlock();
        try {
            Write();
        } catch (const std::exception&) {
            // Tried again at the next refresh; the lock goes stale only
            // after several refreshes failed.
        }
        lock.lock();
    }
}

}  // namespace qvhost::repo
