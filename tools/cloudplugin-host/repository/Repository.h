// A repository: the objects under a root prefix of the container, opened
// with the password.
//
//   <root>/config                 sealed config (format, id, chunker, pack size)
//   <root>/keys/<random id>       the master keys, sealed by the password (Keys.h)
//   <root>/data/<SHA-256>         packs of blobs (Pack.h)
//   <root>/index/<SHA-256>        which pack holds which blob (Index.h)
//   <root>/snapshots/<SHA-256>    snapshots, each with its tree (Snapshot.h)
//   <root>/locks/<random id>      who works on the repository (Locks.h)
//
// No object name says anything of the data: packs, indexes and snapshots are
// named by the SHA-256 of their sealed bytes, keys and locks at random.
// Writes are ordered so that a process that dies at any point leaves only
// objects nothing names (packs without an index, an index without a
// snapshot), which the next backup adopts or `prune` removes: packs first,
// then the index naming them, then the snapshot naming their blobs.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "repository/Index.h"
#include "repository/KeyRing.h"
#include "repository/LocalCache.h"
#include "repository/Keys.h"
#include "repository/ObjectStore.h"
#include "repository/Snapshot.h"
#include "repository/SnapshotFilter.h"

namespace qvhost::repo {

struct RepositoryLayout {
    std::string root;

    std::string Config() const { return root + "/config"; }
    std::string KeysPrefix() const { return root + "/keys/"; }
    std::string DataPrefix() const { return root + "/data/"; }
    std::string IndexPrefix() const { return root + "/index/"; }
    std::string SnapshotsPrefix() const { return root + "/snapshots/"; }
    std::string LocksPrefix() const { return root + "/locks/"; }
    std::string Pack(const Id& id) const { return DataPrefix() + IdHex(id); }
};

struct InitOptions {
    uint64_t kdfMemory = 64ull << 20;  // memory of the password's key derivation (scrypt)
    uint64_t packSize = 16ull << 20;
    ChunkerParameters chunker;
    std::string dataTier;  // RepositoryConfig::dataTier
    uint32_t immutableDays = 0;  // RepositoryConfig::immutableDays
};

// How a repository is opened.
struct RepositoryOptions {
    KeyDerivationLimits limits = KeyDerivationLimits::OfThisMachine();
    // Where warnings go as they happen (damaged key objects skipped); they
    // are also kept (warnings()).
    WarningSink warn;
    // The folder of the local caches (LocalCache.h); empty: no cache.
    std::string cacheRoot;
};

// A listed pack, index or snapshot object: its id from its name.
struct NamedObject : StoredObject {
    Id id{};
};

class Repository {
public:
    // Makes a new repository; refuses (usage) where one exists already.
    static void Init(ObjectStore& store, const std::string& root, const std::string& password,
                     const InitOptions& options, const std::string& host);
    // Whether a repository exists under `root` (its config object does).
    static bool Exists(ObjectStore& store, const std::string& root);
    // Opens with the password (KeyRing.h says how the key objects are
    // tried). Throws Error: no repository, unsupported (a format this tool
    // does not read, a key derivation refused), wrong password, damaged (a
    // config without a key object, keys without a config, no usable key).
    Repository(ObjectStore& store, const std::string& root, const std::string& password,
               RepositoryOptions options = {});

    ObjectStore& store() { return store_; }
    const RepositoryLayout& layout() const { return layout_; }
    const MasterKeys& keys() const { return keys_; }
    const RepositoryConfig& config() const { return config_; }
    const GearTable& gear() const { return gear_; }
    // The key object the password opened, and its derivation's parameters.
    const std::string& keyName() const { return keyName_; }
    const KdfParameters& keyKdf() const { return keyKdf_; }

    // A warning: kept, and given to the options' sink. Thread-safe.
    void Warn(const std::string& text);
    std::vector<std::string> warnings() const;

    // Listings of `prefix` objects whose names are ids; anything else under
    // the prefix is left alone (reported by `check`).
    std::vector<NamedObject> ListIds(const std::string& prefix, std::vector<std::string>* strays = nullptr);

    // Every index object, merged; objects that do not open are damage.
    MasterIndex LoadIndex();
    // Writes an index object of the packs; answers its name (and adds the
    // bytes written to `written`).
    std::string SaveIndex(const std::vector<IndexedPack>& packs, uint64_t* written = nullptr) {
        return SaveIndex(packs.data(), packs.size(), written);
    }
    std::string SaveIndex(const IndexedPack* packs, size_t count, uint64_t* written = nullptr);
    // The same in objects of at most kBlobsPerIndexObject blobs each (a
    // pack is never split); answers their names.
    std::set<std::string> SaveIndexParts(const std::vector<IndexedPack>& packs, uint64_t* written = nullptr);
    // A pack of data blobs goes on to the config's data tier.
    void WritePack(const PackBuilder::Finished& pack);
    // Changes the tier of the data packs written from now on (empty: none);
    // the caller holds an exclusive lock.
    void SetDataTier(const std::string& tier);

    // From here on, index, snapshot and tree-pack objects are kept in
    // `cache` and read from it (LocalCache.h); null: all from the storage.
    void UseCache(std::shared_ptr<LocalCache> cache) { cache_ = std::move(cache); }
    LocalCache* cache() const { return cache_.get(); }
    // A pack of tree blobs whole, from the cache or the storage. False when
    // it cannot be had whole and checked against its name (too large, or
    // damaged somewhere): its blobs are then read one by one, each opened
    // and checked on its own. Throws ObjectMissing, ObjectArchived.
    bool ReadTreePack(const Id& pack, Bytes& bytes);

    std::vector<NamedObject> ListSnapshots();

    // Throws Error (storage) in one line when the credential may not delete
    // objects, which `command` must do: asked by deleting a name no object
    // has, which the storage refuses for who asks before it looks for it.
    void CheckMayDelete(const std::string& command);
    // A snapshot of format version 1 leaves the trees its lists became
    // here (SyntheticTree).
    Snapshot LoadSnapshot(const std::string& id);
    // The plain bytes of a tree that exists only in memory; false for any other.
    bool SyntheticTree(const Id& id, Bytes& plain);
    // Every snapshot (sorted oldest first).
    std::vector<Snapshot> LoadSnapshots();
    // What a listing shows of every snapshot, from one listing where the
    // snapshots carry their info (sorted oldest first).
    std::vector<SnapshotInfo> ListSnapshotInfos();
    // Stores the snapshot; sets and answers its id (and adds the bytes
    // written to `written`).
    std::string SaveSnapshot(Snapshot& snapshot, uint64_t* written = nullptr);
    // The snapshot an argument names: a unique prefix of an id (4 hex digits
    // at least), or "latest" (the newest the filter selects). Empty when
    // none. Throws Error (usage) for an ambiguous prefix.
    std::string FindSnapshot(const std::string& argument, const SnapshotFilter& filter = {});

private:
    // An object named by the SHA-256 of its bytes, from the cache when it
    // holds it, else from the storage (and then kept).
    Bytes ReadNamed(CachedKind kind, const std::string& name, const Id& id, uint64_t limit);
    void Keep(CachedKind kind, const Id& id, const Bytes& bytes);
    // The retention the config asks for, set on an object just written.
    void Retain(const std::string& name);

    ObjectStore& store_;
    std::shared_ptr<LocalCache> cache_;
    RepositoryLayout layout_;
    MasterKeys keys_;
    RepositoryConfig config_;
    GearTable gear_{};
    std::mutex syntheticMutex_;
    std::map<Id, Bytes> synthetic_;
    std::string keyName_;
    KdfParameters keyKdf_;
    struct WarningLog;
    std::shared_ptr<WarningLog> warnings_;
};

}  // namespace qvhost::repo
