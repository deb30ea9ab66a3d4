#include "repository/LocalCache.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "util/PathRules.h"
#include "util/Text.h"
#include "util/WholeFiles.h"

namespace fs = std::filesystem;

namespace qvhost::repo {

namespace {

const char* FolderName(CachedKind kind) {
    switch (kind) {
        case CachedKind::Index: return "index";
        case CachedKind::Snapshot: return "snapshots";
        case CachedKind::TreePack: return "trees";
    }
    return "other";
}

// Where a repository's cache marks when a command last opened it.
constexpr const char* kUsedMark = "used";

std::string Environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

}  // namespace

LocalCache::LocalCache(const std::string& root, const std::string& repositoryId, WarningSink warn)
    : folder_((fs::path(root) / repositoryId).string()), warn_(std::move(warn)) {
    // Only sealed bytes are kept, but what a user keeps is theirs alone: a
    // root made here and each repository's folder are the user's only (a
    // root that was there is left as it is: it may be any folder).
    std::error_code error;
    if (fs::create_directories(root, error)) fs::permissions(root, fs::perms::owner_all, error);
    if (!error && fs::create_directories(folder_, error)) fs::permissions(folder_, fs::perms::owner_all, error);
    if (error) {
        Failed("cannot make " + folder_ + ": " + error.message());
        return;
    }
    const fs::path tag = fs::path(root) / "CACHEDIR.TAG";
    if (!fs::exists(tag, error)) {
        const std::string text = std::string(kCacheDirSignature) +
                                 "\n# the cache of cloudplugin-host: objects of its repositories, as stored\n";
        WriteWholeFile(tag, reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }
    for (CachedKind kind : {CachedKind::Index, CachedKind::Snapshot, CachedKind::TreePack}) {
        fs::create_directories(fs::path(folder_) / FolderName(kind), error);
    }
    const fs::path used = fs::path(folder_) / kUsedMark;
    std::ofstream(used, std::ios::trunc).close();
    fs::last_write_time(used, fs::file_time_type::clock::now(), error);
}

std::string LocalCache::DefaultRoot() {
    const std::string given = Environment("CLOUDPLUGIN_CACHE_DIR");
    if (!given.empty()) return given;
    const std::string xdg = Environment("XDG_CACHE_HOME");
    if (!xdg.empty()) return (fs::path(xdg) / "cloudplugin-host").string();
    const std::string home = Environment("HOME");
    if (!home.empty()) return (fs::path(home) / ".cache" / "cloudplugin-host").string();
    return "";
}

std::string LocalCache::PathOf(CachedKind kind, const Id& id) const {
    return (fs::path(folder_) / FolderName(kind) / IdHex(id)).string();
}

bool LocalCache::Get(CachedKind kind, const Id& id, Bytes& bytes) {
    const std::string path = PathOf(kind, id);
    if (!ReadWholeFile(path, bytes, 1ull << 31)) {
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.misses;
        return false;
    }
    if (Sha256Id(bytes.data(), bytes.size()) != id) {
        // Never trusted over the repository: the object is read from there.
        std::error_code ignored;
        fs::remove(path, ignored);
        bytes.clear();
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.damaged;
        ++counts_.misses;
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ++counts_.hits;
    return true;
}

void LocalCache::Put(CachedKind kind, const Id& id, const uint8_t* data, size_t size) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (broken_) return;
    }
    if (Sha256Id(data, size) != id) return;
    if (!WriteWholeFile(PathOf(kind, id), data, size)) {
        Failed("cannot write " + PathOf(kind, id));
    }
}

void LocalCache::KeepOnly(CachedKind kind, const std::set<Id>& listed) {
    std::error_code error;
    fs::directory_iterator entries(fs::path(folder_) / FolderName(kind), error);
    if (error) return;
    uint64_t removed = 0;
    for (const fs::directory_entry& entry : entries) {
        Id id;
        const std::string name = entry.path().filename().string();
        if (IdFromHex(name, id) && listed.count(id)) continue;
        // A temporary file may be another command's write in progress:
        // only one left for an hour is a stopped command's.
        std::error_code ignored;
        if (IsTemporaryName(name) &&
            fs::last_write_time(entry.path(), ignored) > fs::file_time_type::clock::now() - std::chrono::hours(1)) {
            continue;
        }
        // Gone from the repository, or no object's name.
        if (fs::remove(entry.path(), ignored)) ++removed;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    counts_.removed += removed;
}

CacheCounts LocalCache::counts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_;
}

void LocalCache::Failed(const std::string& what) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (broken_) return;
        broken_ = true;
    }
    if (warn_) warn_("the local cache is not used from here on: " + what + " (--no-cache leaves it out)");
}

std::vector<CacheFolder> ListCaches(const std::string& root) {
    std::vector<CacheFolder> caches;
    std::error_code error;
    fs::directory_iterator folders(root, error);
    if (error) return caches;
    for (const fs::directory_entry& folder : folders) {
        Id id;
        if (!folder.is_directory(error) || !IdFromHex(folder.path().filename().string(), id)) continue;
        CacheFolder cache;
        cache.repositoryId = folder.path().filename().string();
        cache.path = folder.path().string();
        for (fs::recursive_directory_iterator it(folder.path(), error), end; !error && it != end; it.increment(error)) {
            if (it->is_regular_file(error)) cache.bytes += it->file_size(error);
        }
        const fs::path used = folder.path() / kUsedMark;
        const fs::file_time_type time = fs::last_write_time(fs::exists(used, error) ? used : folder.path(), error);
        if (!error) {
            // C++17 has no clock_cast: the file clock's distance from now, on the system clock.
            const auto system = std::chrono::system_clock::now() + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                                                       time - fs::file_time_type::clock::now());
            cache.lastUsed =
                std::chrono::duration_cast<std::chrono::seconds>(system.time_since_epoch()).count();
        }
        caches.push_back(std::move(cache));
    }
    std::sort(caches.begin(), caches.end(),
              [](const CacheFolder& a, const CacheFolder& b) { return a.repositoryId < b.repositoryId; });
    return caches;
}

void RemoveCache(const CacheFolder& cache) {
    std::error_code error;
    fs::remove_all(cache.path, error);
    if (error) throw Error(ErrorKind::LocalFile, "cannot remove the cache " + cache.path + ": " + error.message());
}

}  // namespace qvhost::repo
