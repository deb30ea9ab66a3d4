#include "repository/Repository.h"

#include <algorithm>
#include <ctime>
#include <mutex>
#include <set>

#include "util/Text.h"
#include "repository/Binary.h"

namespace qvhost::repo {

struct Repository::WarningLog {
    std::mutex mutex;
    std::vector<std::string> lines;
    WarningSink sink;
};

namespace {

// The end of a retention of `days` days that begins now, in seconds since 1970.
int64_t RetainedUntil(uint32_t days) { return static_cast<int64_t>(std::time(nullptr)) + int64_t{days} * kSecondsPerDay; }

void RefuseUnknownDataTier(const std::string& tier) {
    if (!tier.empty() && !IsDataTier(tier)) {
        throw Error(ErrorKind::Usage, "no data tier " + tier + ": Hot, Cool, Cold or Archive");
    }
}

}  // namespace

bool Repository::Exists(ObjectStore& store, const std::string& root) {
    const RepositoryLayout layout{root};
    for (const StoredObject& object : store.List(layout.Config())) {
        if (object.name == layout.Config()) return true;
    }
    return false;
}

void Repository::Init(ObjectStore& store, const std::string& root, const std::string& password,
                      const InitOptions& options, const std::string& host) {
    const RepositoryLayout layout{root};
    if (Exists(store, root) || !store.List(layout.KeysPrefix()).empty()) {
        throw Error(ErrorKind::Exists, "a repository exists already under " + root);
    }
    if (password.empty()) throw Error(ErrorKind::WrongPassword, "refusing an empty password");
    const MasterKeys keys = MasterKeys::Random();
    RepositoryConfig config;
    const Key256 id = RandomKey();
    config.id = ToHex(id.data(), id.size());
    config.chunker = options.chunker;
    config.packSize = options.packSize;
    RefuseUnknownDataTier(options.dataTier);
    config.dataTier = options.dataTier;
    if (options.immutableDays > kMaximumImmutableDays) {
        throw Error(ErrorKind::Usage, "a retention of at most " + std::to_string(kMaximumImmutableDays) + " days");
    }
    config.immutableDays = options.immutableDays;
    Key256 keyName = RandomKey();
    const std::string keyText = EncodeKeyObject(keys, password, NewKdfParameters(options.kdfMemory),
                                                UtcNow("%Y-%m-%dT%H:%M:%SZ"), host);
    const std::string keyObject = layout.KeysPrefix() + ToHex(keyName.data(), 16);
    store.Write(keyObject, reinterpret_cast<const uint8_t*>(keyText.data()), keyText.size());
    if (config.immutableDays != 0) {
        // The key object is the first kept: a container that cannot keep it
        // is told now, not by the first backup.
        try {
            store.SetRetention(keyObject, RetainedUntil(config.immutableDays));
        } catch (const Error& refused) {
            try {
                store.Delete(keyObject);
            } catch (const Error&) {
                // left for a later init to name as a repository that exists
            }
            throw Error(ErrorKind::Storage, "the storage refused a retention (does the container have version-level "
                                            "immutability?): " + std::string(refused.what()));
        }
    }
    // The config last: a repository exists once it does.
    const Bytes sealed = EncodeConfig(keys, config);
    store.Write(layout.Config(), sealed.data(), sealed.size());
}

Repository::Repository(ObjectStore& store, const std::string& root, const std::string& password,
                       RepositoryOptions options)
    : store_(store), layout_{root}, warnings_(std::make_shared<WarningLog>()) {
    warnings_->sink = std::move(options.warn);
    std::vector<StoredObject> keyObjects = store.List(layout_.KeysPrefix());
    if (keyObjects.empty()) {
        if (!Exists(store, root)) throw Error(ErrorKind::NoRepository, "no repository under " + root);
        Damaged("the repository under " + root + " has no key object (nothing under " + layout_.KeysPrefix() +
                "): without one nothing in it can be opened; put back a copy of a key object if one was kept");
    }
    if (password.empty()) {
        throw Error(ErrorKind::WrongPassword, "no password given");
    }
    OpenedKey opened = OpenKeyRing(store, std::move(keyObjects), password, options.limits,
                                   [this](const std::string& text) { Warn(text); });
    keys_ = opened.keys;
    keyName_ = opened.name;
    keyKdf_ = opened.kdf;
    try {
        config_ = DecodeConfig(keys_, store.ReadAll(layout_.Config(), kMaximumConfigSize));
    } catch (const ObjectMissing&) {
        Damaged("the repository under " + root + " has keys but no config object");
    }
    gear_ = GearTableFor(keys_.chunker);
    Id id;
    if (!options.cacheRoot.empty() && IdFromHex(config_.id, id)) {
        cache_ = std::make_shared<LocalCache>(options.cacheRoot, config_.id, [this](const std::string& text) { Warn(text); });
    }
}

void Repository::Warn(const std::string& text) {
    std::lock_guard<std::mutex> lock(warnings_->mutex);
    warnings_->lines.push_back(text);
    if (warnings_->sink) warnings_->sink(text);
}

std::vector<std::string> Repository::warnings() const {
    std::lock_guard<std::mutex> lock(warnings_->mutex);
    return warnings_->lines;
}

std::vector<NamedObject> Repository::ListIds(const std::string& prefix, std::vector<std::string>* strays) {
    std::vector<NamedObject> objects;
    for (const StoredObject& object : store_.List(prefix)) {
        NamedObject named;
        if (IdFromHex(object.name.substr(prefix.size()), named.id)) {
            static_cast<StoredObject&>(named) = object;
            objects.push_back(std::move(named));
        } else if (strays) {
            strays->push_back(object.name);
        }
    }
    return objects;
}

Bytes Repository::ReadNamed(CachedKind kind, const std::string& name, const Id& id, uint64_t limit) {
    Bytes bytes;
    if (cache_ && cache_->Get(kind, id, bytes)) return bytes;
    bytes = store_.ReadAll(name, limit);
    Keep(kind, id, bytes);
    return bytes;
}

void Repository::Keep(CachedKind kind, const Id& id, const Bytes& bytes) {
    if (cache_) cache_->Put(kind, id, bytes.data(), bytes.size());
}

bool Repository::ReadTreePack(const Id& pack, Bytes& bytes) {
    if (cache_ && cache_->Get(CachedKind::TreePack, pack, bytes)) return true;
    // A pack is filled to the pack size, and may pass it by one blob.
    const uint64_t limit = std::min<uint64_t>(kMaximumPackSize, config_.packSize + kMaximumBlobSealedSize +
                                                                    kMaximumPackHeaderSize);
    try {
        bytes = store_.ReadAll(layout_.Pack(pack), limit);
    } catch (const Error& failure) {
        if (failure.kind() != ErrorKind::Damaged) throw;  // too large to be read whole
        return false;
    }
    if (Sha256Id(bytes.data(), bytes.size()) != pack) return false;
    Keep(CachedKind::TreePack, pack, bytes);
    return true;
}

MasterIndex Repository::LoadIndex() {
    MasterIndex index;
    std::set<Id> listed;
    for (const NamedObject& object : ListIds(layout_.IndexPrefix())) {
        listed.insert(object.id);
        std::vector<IndexedPack> packs;
        try {
            packs = DecodeIndex(keys_, ReadNamed(CachedKind::Index, object.name, object.id, kMaximumIndexSize),
                                object.name);
        } catch (const Error& failure) {
            if (failure.kind() != ErrorKind::Damaged) throw;
            // The index is only a list of what the packs hold: it can be made again.
            throw Error(ErrorKind::Damaged,
                        std::string(failure.what()) +
                            "; 'cloudplugin-host repair index' rebuilds the index from the packs",
                        object.name);
        }
        for (const IndexedPack& pack : packs) index.Add(pack);
        index.objects.push_back(object.name);
    }
    if (cache_) {
        cache_->KeepOnly(CachedKind::Index, listed);
        cache_->KeepOnly(CachedKind::TreePack, index.packs());
    }
    return index;
}

std::string Repository::SaveIndex(const IndexedPack* packs, size_t count, uint64_t* written) {
    const Bytes sealed = EncodeIndex(keys_, packs, count);
    if (written) *written += sealed.size();
    const Id id = Sha256Id(sealed.data(), sealed.size());
    const std::string name = layout_.IndexPrefix() + IdHex(id);
    // Not retained: every prune writes the index of every pack it keeps, and
    // a retention on it would hold those packs again each time (repair
    // index makes it again from the packs, which are retained).
    store_.Write(name, sealed.data(), sealed.size());
    Keep(CachedKind::Index, id, sealed);
    return name;
}

std::set<std::string> Repository::SaveIndexParts(const std::vector<IndexedPack>& packs, uint64_t* written) {
    // Runs of whole packs of at most kBlobsPerIndexObject blobs (a pack larger alone), encoded where they lie.
    std::set<std::string> names;
    size_t first = 0;
    size_t blobs = 0;
    for (size_t i = 0; i < packs.size(); ++i) {
        if (i > first && blobs + packs[i].blobs.size() > kBlobsPerIndexObject) {
            names.insert(SaveIndex(packs.data() + first, i - first, written));
            first = i;
            blobs = 0;
        }
        blobs += packs[i].blobs.size();
    }
    if (first < packs.size()) names.insert(SaveIndex(packs.data() + first, packs.size() - first, written));
    return names;
}

void Repository::Retain(const std::string& name) {
    if (config_.immutableDays == 0) return;
    store_.SetRetention(name, RetainedUntil(config_.immutableDays));
}

void Repository::WritePack(const PackBuilder::Finished& pack) {
    store_.Write(layout_.Pack(pack.id), pack.bytes.data(), pack.bytes.size());
    Retain(layout_.Pack(pack.id));
    const bool trees = !pack.entries.empty() && std::all_of(pack.entries.begin(), pack.entries.end(), [](const PackEntry& e) {
        return e.type == BlobType::Tree;
    });
    if (trees) {
        Keep(CachedKind::TreePack, pack.id, pack.bytes);
    } else if (!config_.dataTier.empty()) {
        store_.SetTier(layout_.Pack(pack.id), config_.dataTier, "");
    }
}

void Repository::SetDataTier(const std::string& tier) {
    RefuseUnknownDataTier(tier);
    RepositoryConfig changed = config_;
    changed.dataTier = tier;
    const Bytes sealed = EncodeConfig(keys_, changed);
    store_.Write(layout_.Config(), sealed.data(), sealed.size());
    config_ = std::move(changed);
}

Snapshot Repository::LoadSnapshot(const std::string& id) {
    Bytes sealed;
    Id named;
    try {
        sealed = IdFromHex(id, named) ? ReadNamed(CachedKind::Snapshot, layout_.SnapshotsPrefix() + id, named,
                                                  kMaximumSnapshotSize)
                                      : store_.ReadAll(layout_.SnapshotsPrefix() + id, kMaximumSnapshotSize);
    } catch (const ObjectMissing&) {
        throw Error(ErrorKind::NotFound, "no snapshot " + id);
    }
    if (IdHex(Sha256Id(sealed.data(), sealed.size())) != id) {
        Damaged("the snapshot " + id.substr(0, 8) + " does not match its name: it was changed");
    }
    DecodedSnapshot decoded = DecodeSnapshot(keys_, sealed, id);
    if (!decoded.trees.empty()) {
        std::lock_guard<std::mutex> lock(syntheticMutex_);
        synthetic_.merge(decoded.trees);
    }
    return std::move(decoded.snapshot);
}

bool Repository::SyntheticTree(const Id& id, Bytes& plain) {
    std::lock_guard<std::mutex> lock(syntheticMutex_);
    const auto found = synthetic_.find(id);
    if (found == synthetic_.end()) return false;
    plain = found->second;
    return true;
}

std::vector<Snapshot> Repository::LoadSnapshots() {
    std::vector<Snapshot> snapshots;
    for (const NamedObject& object : ListSnapshots()) snapshots.push_back(LoadSnapshot(IdHex(object.id)));
    std::sort(snapshots.begin(), snapshots.end(), [](const Snapshot& a, const Snapshot& b) {
        return a.timeNs != b.timeNs ? a.timeNs < b.timeNs : a.id < b.id;
    });
    return snapshots;
}

std::string Repository::SaveSnapshot(Snapshot& snapshot, uint64_t* written) {
    const Bytes sealed = EncodeSnapshot(keys_, snapshot);
    snapshot.id = IdHex(Sha256Id(sealed.data(), sealed.size()));
    Properties properties;
    const std::string info = EncodeSnapshotInfo(keys_, InfoOf(snapshot));
    if (!info.empty()) properties[kSnapshotInfoProperty] = info;
    store_.Write(layout_.SnapshotsPrefix() + snapshot.id, sealed.data(), sealed.size(), properties);
    Retain(layout_.SnapshotsPrefix() + snapshot.id);
    Id id;
    if (IdFromHex(snapshot.id, id)) Keep(CachedKind::Snapshot, id, sealed);
    if (written) *written += sealed.size();
    return snapshot.id;
}

void Repository::CheckMayDelete(const std::string& command) {
    const Key256 random = RandomKey();
    try {
        store_.Delete(layout_.LocksPrefix() + "probe-" + ToHex(random.data(), 16));
    } catch (const AccessDenied&) {
        throw Error(ErrorKind::Storage,
                    command + " removes objects, and this credential may not delete any (a SAS needs the 'd' "
                              "permission, an Entra ID role the delete action): run it with the credential that "
                              "may, as the maintenance host of an append-only set-up does");
    }
}

std::vector<NamedObject> Repository::ListSnapshots() {
    std::vector<NamedObject> snapshots = ListIds(layout_.SnapshotsPrefix());
    std::set<Id> listed;
    for (const NamedObject& snapshot : snapshots) listed.insert(snapshot.id);
    if (cache_) cache_->KeepOnly(CachedKind::Snapshot, listed);
    return snapshots;
}

std::vector<SnapshotInfo> Repository::ListSnapshotInfos() {
    std::vector<SnapshotInfo> infos;
    const std::string prefix = layout_.SnapshotsPrefix();
    std::set<Id> listed;
    for (const StoredObject& object : store_.List(prefix)) {
        const std::string id = object.name.substr(prefix.size());
        Id parsed;
        if (!IdFromHex(id, parsed)) continue;
        listed.insert(parsed);
        const auto property = object.properties.find(kSnapshotInfoProperty);
        std::optional<SnapshotInfo> info;
        if (property != object.properties.end()) info = DecodeSnapshotInfo(keys_, property->second, id);
        infos.push_back(info ? *info : InfoOf(LoadSnapshot(id)));
    }
    if (cache_) cache_->KeepOnly(CachedKind::Snapshot, listed);
    std::sort(infos.begin(), infos.end(), [](const SnapshotInfo& a, const SnapshotInfo& b) {
        return a.timeNs != b.timeNs ? a.timeNs < b.timeNs : a.id < b.id;
    });
    return infos;
}

std::string Repository::FindSnapshot(const std::string& argument, const SnapshotFilter& filter) {
    if (argument == "latest") {
        std::string latest;  // snapshots come oldest first
        for (const SnapshotInfo& snapshot : ListSnapshotInfos()) {
            if (filter.Matches(snapshot)) latest = snapshot.id;
        }
        return latest;
    }
    if (argument.size() < 4 || argument.size() > 64 ||
        argument.find_first_not_of("0123456789abcdef") != std::string::npos) {
        return {};
    }
    std::string found;
    for (const NamedObject& object : ListSnapshots()) {
        const std::string id = IdHex(object.id);
        if (id.compare(0, argument.size(), argument) != 0) continue;
        if (!found.empty()) throw Error(ErrorKind::Usage, "more than one snapshot starts with " + argument);
        found = id;
    }
    return found;
}

}  // namespace qvhost::repo
