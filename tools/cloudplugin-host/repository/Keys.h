// The repository's keys and its config.
//
// Master keys: three random 256-bit keys made at `init` — encryption
// (AES-256-GCM of every object), MAC (HMAC-SHA-256: a chunk's id) and
// chunker (the gear table, so that chunk boundaries depend on a secret and
// do not leak content). They are stored only sealed, in key objects
// `<root>/keys/<random id>`, by a key derived from the password with
// scrypt. A key object is JSON (its kdf parameters must be readable before
// anything can be opened):
//   {"format":1,"kdf":"scrypt","n":65536,"r":8,"p":1,"salt":"<base64>",
//    "keys":"<base64 of Seal(derived key, 96 key bytes, aad "cloudplugin-host key")>",
//    "created":"<UTC>","host":"<name>"}
// The config `<root>/config` is Seal(encryption key, JSON, aad
// "cloudplugin-host config"): format version, repository id, chunker sizes
// and the pack size new packs aim at.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "repository/Chunker.h"
#include "repository/Crypto.h"

namespace qvhost::repo {

// The repository format this tool writes and reads.
constexpr uint32_t kRepositoryFormat = 1;
// Size limits of what is read before anything is trusted.
constexpr uint64_t kMaximumKeyObjectSize = 64 * 1024;
constexpr uint64_t kMaximumConfigSize = 64 * 1024;

struct MasterKeys {
    Key256 encryption{};
    Key256 mac{};
    Key256 chunker{};

    static MasterKeys Random();
};

struct RepositoryConfig {
    uint32_t format = kRepositoryFormat;
    std::string id;  // 64 hex digits
    ChunkerParameters chunker;
    uint64_t packSize = 16u << 20;
    // The access tier data packs are moved to once written (Hot, Cool, Cold
    // or Archive); empty: they stay where the storage puts them. Keys,
    // config, indexes, snapshots, tree packs and locks stay online.
    std::string dataTier;
    // Days every pack and snapshot (and the first key object) is kept
    // unchanged and undeleted by the storage from when it is written (a
    // time-based retention, where the container has version-level
    // immutability); 0: none. Index objects are not: see docs/repository.md.
    uint32_t immutableDays = 0;
};

// The longest retention a repository sets, in days (100 years).
constexpr uint32_t kMaximumImmutableDays = 36500;

// The access tiers a repository's data packs may take, and whether `tier`
// is one of them.
const std::vector<std::string>& DataTiers();
bool IsDataTier(const std::string& tier);

// The key object's text for `keys` under `password`.
std::string EncodeKeyObject(const MasterKeys& keys, const std::string& password, const KdfParameters& kdf,
                            const std::string& created, const std::string& host);

// A key object as read, before anything is derived: its parameters are
// checked against the format's bounds (WhyKdfParametersAreRefused).
struct KeyObject {
    KdfParameters kdf;
    Bytes sealed;         // the sealed master keys
    std::string created;  // as written; empty when absent
    std::string host;
};
// Throws Error: damaged (not a key object, or parameters out of bounds),
// unsupported (a format version this tool does not read).
KeyObject ParseKeyObject(const std::string& text, const std::string& objectName);
// The master keys, or nothing when `wrapping` (the password's derived key)
// does not open them.
std::optional<MasterKeys> UnsealKeyObject(const KeyObject& key, const Key256& wrapping);
// Both, with the derivation in between.
std::optional<MasterKeys> OpenKeyObject(const std::string& text, const std::string& password,
                                        const std::string& objectName);

Bytes EncodeConfig(const MasterKeys& keys, const RepositoryConfig& config);
// Throws Error: damaged, unsupported.
RepositoryConfig DecodeConfig(const MasterKeys& keys, const Bytes& sealed);

// Seals and opens the repository's own objects (config, index, snapshots,
// locks): the aad names the kind, so that no object passes for another kind.
Bytes SealObject(const MasterKeys& keys, const std::string& kind, const Bytes& plain);
// Throws Damaged naming the object when it does not open.
Bytes OpenObject(const MasterKeys& keys, const std::string& kind, const Bytes& sealed, const std::string& objectName);

}  // namespace qvhost::repo
