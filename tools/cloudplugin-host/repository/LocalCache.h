// The local cache: the objects every command reads again, kept on this
// machine as they are stored (sealed), so that a command reads them from
// the disk instead of the storage.
//
//   <cache dir>/CACHEDIR.TAG                 marks the folder a cache (backups skip it)
//   <cache dir>/<repository id>/index/<id>   index objects
//   <cache dir>/<repository id>/snapshots/<id>
//   <cache dir>/<repository id>/trees/<id>   packs that hold tree blobs
//
// Every object kept here is named by the SHA-256 of its sealed bytes, so a
// file is used only when its bytes hash to its name: a file that does not
// (damaged, cut short, or put there from elsewhere) is removed and the
// object read from the repository. What the repository no longer lists is
// removed when a listing shows it gone. Nothing is kept in plain, and a
// cache that cannot be written costs only speed: one warning, and the
// command goes on without it.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "repository/Crypto.h"
#include "repository/KeyRing.h"

namespace qvhost::repo {

enum class CachedKind { Index, Snapshot, TreePack };

// What a cache did in one command, for the report and the tests.
struct CacheCounts {
    uint64_t hits = 0;     // objects read from the cache
    uint64_t misses = 0;   // objects read from the storage (and then kept)
    uint64_t damaged = 0;  // files that did not match their names, removed
    uint64_t removed = 0;  // files of objects the repository no longer lists, removed
};

class LocalCache {
public:
    // The cache of the repository `repositoryId` under `root` (made when
    // missing, with a CACHEDIR.TAG). Marks it used now.
    LocalCache(const std::string& root, const std::string& repositoryId, WarningSink warn);

    // The default root: $CLOUDPLUGIN_CACHE_DIR, else $XDG_CACHE_HOME/cloudplugin-host,
    // else $HOME/.cache/cloudplugin-host; empty when none of them is set.
    static std::string DefaultRoot();

    // The cached bytes of an object, when a file holds exactly them.
    bool Get(CachedKind kind, const Id& id, Bytes& bytes);
    // Keeps the object's bytes (which must hash to `id`: anything else is not kept).
    void Put(CachedKind kind, const Id& id, const uint8_t* data, size_t size);
    // Removes the files of `kind` whose ids are not in `listed`.
    void KeepOnly(CachedKind kind, const std::set<Id>& listed);

    const std::string& folder() const { return folder_; }
    CacheCounts counts() const;

private:
    std::string PathOf(CachedKind kind, const Id& id) const;
    void Failed(const std::string& what);

    std::string folder_;
    WarningSink warn_;
    mutable std::mutex mutex_;
    CacheCounts counts_;
    bool broken_ = false;  // a write failed: the command goes on without the cache
};

// One repository's cache folder, as the cache command lists it.
struct CacheFolder {
    std::string repositoryId;
    std::string path;
    uint64_t bytes = 0;
    int64_t lastUsed = 0;  // seconds since 1970: when a command last opened it
};

// The repositories' caches under a root (none when there is no such folder).
std::vector<CacheFolder> ListCaches(const std::string& root);
// Removes one repository's cache folder.
void RemoveCache(const CacheFolder& cache);

}  // namespace qvhost::repo
