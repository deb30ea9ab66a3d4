#include "repository/Keys.h"

#include <algorithm>
#include <cstring>

#include "repository/BoundedJson.h"
#include "repository/Pack.h"

namespace qvhost::repo {

namespace {

constexpr char kKeyAad[] = "cloudplugin-host key";
constexpr size_t kMasterKeyBytes = 3 * 32;

const uint8_t* Text(const char* text) { return reinterpret_cast<const uint8_t*>(text); }

[[noreturn]] void Unsupported(const std::string& what, uint64_t format) {
    throw Error(ErrorKind::Unsupported, what + " is of repository format " + std::to_string(format) +
                                          "; this cloudplugin-host reads format " +
                                          std::to_string(kRepositoryFormat) + " only");
}

}  // namespace

MasterKeys MasterKeys::Random() { return {RandomKey(), RandomKey(), RandomKey()}; }

std::string EncodeKeyObject(const MasterKeys& keys, const std::string& password, const KdfParameters& kdf,
                            const std::string& created, const std::string& host) {
    uint8_t raw[kMasterKeyBytes];
    std::memcpy(raw, keys.encryption.data(), 32);
    std::memcpy(raw + 32, keys.mac.data(), 32);
    std::memcpy(raw + 64, keys.chunker.data(), 32);
    const Key256 wrapping = DeriveKey(password, kdf);
    const Bytes sealed = Seal(wrapping, raw, sizeof raw, Text(kKeyAad), sizeof kKeyAad - 1);
    const Json json = {{"format", kRepositoryFormat},
                       {"kdf", "scrypt"},
                       {"n", kdf.n},
                       {"r", kdf.r},
                       {"p", kdf.p},
                       {"salt", Base64(kdf.salt.data(), kdf.salt.size())},
                       {"keys", Base64(sealed.data(), sealed.size())},
                       {"created", created},
                       {"host", host}};
    return json.dump(2) + "\n";
}

KeyObject ParseKeyObject(const std::string& text, const std::string& objectName) {
    const std::string what = "the key " + objectName;
    const Json json = ParseBoundedJson(text, what);
    const uint64_t format = NumberMember(json, "format", what);
    if (format != kRepositoryFormat) Unsupported(what, format);
    if (StringMember(json, "kdf", what) != "scrypt") Damaged(what + " names an unknown key derivation");
    KeyObject key;
    key.kdf.n = NumberMember(json, "n", what);
    const uint64_t r = NumberMember(json, "r", what);
    const uint64_t p = NumberMember(json, "p", what);
    if (r > UINT32_MAX || p > UINT32_MAX) Damaged(what + " is damaged: bad scrypt parameters");
    key.kdf.r = static_cast<uint32_t>(r);
    key.kdf.p = static_cast<uint32_t>(p);
    if (!FromBase64(StringMember(json, "salt", what), key.kdf.salt) ||
        !FromBase64(StringMember(json, "keys", what), key.sealed)) {
        Damaged(what + " is damaged: bad base64");
    }
    // The parameters decide how much memory the derivation takes: bounded
    // before anything is allocated.
    if (const std::string why = WhyKdfParametersAreRefused(key.kdf); !why.empty()) {
        Damaged(what + " has key derivation parameters this tool refuses: " + why);
    }
    if (key.sealed.size() != kMasterKeyBytes + kSealOverhead) Damaged(what + " is damaged: the sealed keys' size");
    const auto created = json.find("created");
    if (created != json.end() && created->is_string()) key.created = created->get<std::string>();
    const auto host = json.find("host");
    if (host != json.end() && host->is_string()) key.host = host->get<std::string>();
    return key;
}

std::optional<MasterKeys> UnsealKeyObject(const KeyObject& key, const Key256& wrapping) {
    Bytes raw;
    if (!Open(wrapping, key.sealed.data(), key.sealed.size(), Text(kKeyAad), sizeof kKeyAad - 1, raw)) {
        return std::nullopt;
    }
    MasterKeys keys;
    std::memcpy(keys.encryption.data(), raw.data(), 32);
    std::memcpy(keys.mac.data(), raw.data() + 32, 32);
    std::memcpy(keys.chunker.data(), raw.data() + 64, 32);
    return keys;
}

std::optional<MasterKeys> OpenKeyObject(const std::string& text, const std::string& password,
                                        const std::string& objectName) {
    const KeyObject key = ParseKeyObject(text, objectName);
    return UnsealKeyObject(key, DeriveKey(password, key.kdf));
}

Bytes SealObject(const MasterKeys& keys, const std::string& kind, const Bytes& plain) {
    const std::string aad = "cloudplugin-host " + kind;
    return Seal(keys.encryption, plain.data(), plain.size(), Text(aad.c_str()), aad.size());
}

Bytes OpenObject(const MasterKeys& keys, const std::string& kind, const Bytes& sealed, const std::string& objectName) {
    const std::string aad = "cloudplugin-host " + kind;
    Bytes plain;
    if (!Open(keys.encryption, sealed.data(), sealed.size(), Text(aad.c_str()), aad.size(), plain)) {
        Damaged("the " + kind + " " + objectName + " does not open: it was changed or is not this repository's");
    }
    return plain;
}

const std::vector<std::string>& DataTiers() {
    static const std::vector<std::string> tiers = {"Hot", "Cool", "Cold", "Archive"};
    return tiers;
}

bool IsDataTier(const std::string& tier) {
    return std::find(DataTiers().begin(), DataTiers().end(), tier) != DataTiers().end();
}

Bytes EncodeConfig(const MasterKeys& keys, const RepositoryConfig& config) {
    Json json = {{"format", config.format},
                 {"id", config.id},
                 {"chunker_minimum", config.chunker.minimum},
                 {"chunker_average", config.chunker.average},
                 {"chunker_maximum", config.chunker.maximum},
                 {"pack_size", config.packSize}};
    if (!config.dataTier.empty()) json["data_tier"] = config.dataTier;
    if (config.immutableDays != 0) json["immutable_days"] = config.immutableDays;
    const std::string text = json.dump();
    return SealObject(keys, "config", Bytes(text.begin(), text.end()));
}

RepositoryConfig DecodeConfig(const MasterKeys& keys, const Bytes& sealed) {
    const std::string what = "the repository config";
    const Bytes plain = OpenObject(keys, "config", sealed, "object");
    const Json json = ParseBoundedJson(std::string(plain.begin(), plain.end()), what);
    RepositoryConfig config;
    const uint64_t format = NumberMember(json, "format", what);
    if (format != kRepositoryFormat) Unsupported(what, format);
    config.id = StringMember(json, "id", what);
    config.chunker.minimum = NumberMember(json, "chunker_minimum", what);
    config.chunker.average = NumberMember(json, "chunker_average", what);
    config.chunker.maximum = NumberMember(json, "chunker_maximum", what);
    config.packSize = NumberMember(json, "pack_size", what);
    const ChunkerParameters& c = config.chunker;
    if (c.maximum > kMaximumBlobPlainSize / 2 || c.minimum < 64 || c.minimum >= c.average || c.average >= c.maximum ||
        (c.average & (c.average - 1)) != 0) {
        Damaged(what + " has chunker sizes this tool refuses");
    }
    if (config.packSize < (1u << 20) || config.packSize > kMaximumPackSize / 2) {
        Damaged(what + " has a pack size this tool refuses");
    }
    if (json.contains("data_tier")) {
        config.dataTier = StringMember(json, "data_tier", what);
        if (!IsDataTier(config.dataTier)) Damaged(what + " names a data tier this tool does not know");
    }
    if (json.contains("immutable_days")) {
        const uint64_t days = NumberMember(json, "immutable_days", what);
        if (days == 0 || days > kMaximumImmutableDays) Damaged(what + " has a retention this tool refuses");
        config.immutableDays = static_cast<uint32_t>(days);
    }
    return config;
}

}  // namespace qvhost::repo
