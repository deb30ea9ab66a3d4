#include "repository/KeyAdmin.h"

#include <algorithm>

#include "util/Text.h"

namespace qvhost::repo {

namespace {

const uint8_t* Bytes8(const std::string& text) { return reinterpret_cast<const uint8_t*>(text.data()); }

KeyInfo ReadKey(Repository& repository, const StoredObject& object) {
    KeyInfo info;
    info.name = object.name;
    info.id = object.name.substr(repository.layout().KeysPrefix().size());
    info.current = object.name == repository.keyName();
    try {
        if (object.size > kMaximumKeyObjectSize) Damaged("larger than a key object");
        const Bytes text = repository.store().ReadAll(object.name, kMaximumKeyObjectSize);
        const KeyObject key = ParseKeyObject(std::string(text.begin(), text.end()), object.name);
        info.kdf = key.kdf;
        info.created = key.created;
        info.host = key.host;
    } catch (const Error& failure) {
        if (failure.kind() != ErrorKind::Damaged && failure.kind() != ErrorKind::Unsupported &&
            failure.kind() != ErrorKind::ObjectMissing) {
            throw;
        }
        info.damage = failure.what();
    }
    return info;
}

// The key object `name` opens with `password` to the repository's own keys.
bool OpensWith(Repository& repository, const std::string& name, const std::string& password) {
    const Bytes text = repository.store().ReadAll(name, kMaximumKeyObjectSize);
    const std::optional<MasterKeys> keys = OpenKeyObject(std::string(text.begin(), text.end()), password, name);
    const MasterKeys& own = repository.keys();
    return keys && keys->encryption == own.encryption && keys->mac == own.mac && keys->chunker == own.chunker;
}

const KeyInfo& FindKey(const std::vector<KeyInfo>& keys, const std::string& id) {
    if (id.size() < 4) throw Error(ErrorKind::Usage, "a key id needs 4 characters at least: " + id);
    const KeyInfo* found = nullptr;
    for (const KeyInfo& key : keys) {
        if (key.id.compare(0, id.size(), id) != 0) continue;
        if (found) throw Error(ErrorKind::Usage, "more than one key starts with " + id);
        found = &key;
    }
    if (!found) throw Error(ErrorKind::NotFound, "no key " + id);
    return *found;
}

}  // namespace

std::vector<KeyInfo> ListKeys(Repository& repository) {
    std::vector<StoredObject> objects = repository.store().List(repository.layout().KeysPrefix());
    std::sort(objects.begin(), objects.end(),
              [](const StoredObject& a, const StoredObject& b) { return a.name < b.name; });
    std::vector<KeyInfo> keys;
    for (const StoredObject& object : objects) keys.push_back(ReadKey(repository, object));
    return keys;
}

std::string AddKey(Repository& repository, const std::string& password, const KdfParameters& kdf,
                   const std::string& host) {
    if (password.empty()) throw Error(ErrorKind::WrongPassword, "refusing an empty password");
    const Key256 random = RandomKey();
    const std::string id = ToHex(random.data(), 16);
    const std::string name = repository.layout().KeysPrefix() + id;
    const std::string text = EncodeKeyObject(repository.keys(), password, kdf, UtcNow("%Y-%m-%dT%H:%M:%SZ"), host);
    repository.store().Write(name, Bytes8(text), text.size());
    if (!OpensWith(repository, name, password)) {
        repository.store().Delete(name);
        Damaged("the new key " + id + " did not read back as written; it was removed");
    }
    return id;
}

std::string ChangePassword(Repository& repository, const std::string& password, const KdfParameters& kdf,
                           const std::string& host) {
    const std::string old = repository.keyName();
    const std::string id = AddKey(repository, password, kdf, host);
    repository.store().Delete(old);
    return id;
}

std::string RemoveKey(Repository& repository, const std::string& id, bool force) {
    const std::vector<KeyInfo> keys = ListKeys(repository);
    const KeyInfo& key = FindKey(keys, id);
    const size_t wellFormed = static_cast<size_t>(
        std::count_if(keys.begin(), keys.end(), [](const KeyInfo& each) { return each.damage.empty(); }));
    if (key.damage.empty() && wellFormed <= 1) {
        throw Error(ErrorKind::Usage, "the key " + key.id + " is the repository's last: without it nothing could "
                                      "be opened");
    }
    if (key.current && !force) {
        throw Error(ErrorKind::Usage, "the key " + key.id + " is the one this password opened; --force removes it "
                                      "(make sure another password works first)");
    }
    repository.store().Delete(key.name);
    return key.id;
}

}  // namespace qvhost::repo
