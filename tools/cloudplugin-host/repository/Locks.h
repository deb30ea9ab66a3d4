// Locks: who works on a repository, so that `prune` never removes what a
// running backup is about to name.
//
// A lock is an object `<root>/locks/<random id>`, Seal(encryption key, JSON
// {"host","pid","command","exclusive","time"}, aad "cloudplugin-host lock").
// Backups, restores and checks hold shared locks; prune, forget and repair an
// exclusive one. Taking a lock: write one's own, then list the others;
// when one conflicts (an exclusive one, or any when taking an exclusive
// one), remove one's own and try again later, up to the wait allowed. Two
// processes that write at once both see each other and both step back;
// the storage's listing is consistent, so never both go on.
//
// A holder rewrites its lock every `kLockRefreshSeconds`; a lock not
// rewritten for `kLockStaleSeconds`, or held by a process of this host
// that no longer runs, is stale: it counts for nobody, `locks` lists it and
// `unlock` removes it. A crashed process therefore cannot hold a
// repository for ever.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "repository/Repository.h"

namespace qvhost::repo {

constexpr int64_t kLockRefreshSeconds = 5 * 60;
constexpr int64_t kLockStaleSeconds = 30 * 60;
constexpr uint64_t kMaximumLockSize = 64 * 1024;

struct LockInfo {
    std::string name;  // the object's name
    std::string host;
    int64_t pid = 0;
    std::string command;
    bool exclusive = false;
    int64_t time = 0;   // seconds since 1970, of the last rewrite
    bool stale = false;
    bool readable = true;  // false: the lock does not open (another key, or damage); such a lock counts as held
};

// Whether a process of this host runs: a lock of this host whose process
// is gone is stale at once.
using ProcessAlive = std::function<bool(int64_t pid)>;
bool ProcessRuns(int64_t pid);
std::string HostName();

// Every lock of the repository, with its staleness at `now`.
std::vector<LockInfo> ListLocks(Repository& repository, int64_t now, const ProcessAlive& alive = ProcessRuns);

// Removes the stale locks (with `all`, every lock: only for a repository
// nobody works on); answers what it removed.
std::vector<LockInfo> RemoveLocks(Repository& repository, bool all, int64_t now, const ProcessAlive& alive = ProcessRuns);

class RepositoryLock {
public:
    // Takes the lock or throws Error (locked) naming the holder, after
    // waiting up to `waitSeconds` for it. Keeps it fresh from a thread of
    // its own until destroyed, which removes it.
    RepositoryLock(Repository& repository, const std::string& command, bool exclusive, int64_t waitSeconds,
                   const ProcessAlive& alive = ProcessRuns);
    ~RepositoryLock();
    RepositoryLock(const RepositoryLock&) = delete;
    RepositoryLock& operator=(const RepositoryLock&) = delete;

    const std::string& name() const { return name_; }

private:
    void Write();
    void Refresh();

    Repository& repository_;
    std::string name_;
    std::string command_;
    bool exclusive_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread refresher_;
};

}  // namespace qvhost::repo
