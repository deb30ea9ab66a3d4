#include "repository/KeyRing.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <optional>

#include "util/SystemMemory.h"
#include "util/Text.h"

namespace qvhost::repo {

namespace {

uint64_t WorkOf(const KdfParameters& kdf) {
    // n ≤ 2^22, r ≤ 32, p ≤ 16 once the format's bounds hold: no overflow.
    return kdf.n * kdf.r * kdf.p;
}

// Seconds per unit of scrypt work (n·r·p) on this machine, from one
// derivation of n = 2^12, r = 8 (4 MiB) timed the first time it is asked.
double SecondsPerWork() {
    static const double seconds = [] {
        KdfParameters probe;
        probe.n = uint64_t{1} << 12;
        probe.r = 8;
        probe.p = 1;
        probe.salt.assign(kKdfMinimumSalt, 0x5a);
        const auto start = std::chrono::steady_clock::now();
        DeriveKey("a derivation timed to estimate others", probe);
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        return elapsed / static_cast<double>(WorkOf(probe));
    }();
    return seconds;
}

// The search through the key objects: what it tried, skipped and found.
class KeySearch {
public:
    KeySearch(ObjectStore& store, const std::string& password, const KeyDerivationLimits& limits,
              const WarningSink& warn)
        : store_(store), password_(password), limits_(limits), warn_(warn) {}

    std::optional<OpenedKey> Try(const StoredObject& object);
    [[noreturn]] void Fail(size_t notTried) const;
    size_t tried() const { return tried_; }

private:
    std::optional<KeyObject> Read(const StoredObject& object);
    void Skip(size_t& count, std::string& first, const std::string& why) {
        if (count++ == 0) first = why;
        if (warn_) warn_(why + "; skipped");
    }

    ObjectStore& store_;
    const std::string& password_;
    const KeyDerivationLimits& limits_;
    const WarningSink& warn_;
    std::map<std::string, Key256> derived_;  // by salt and parameters: copies of a key cost one derivation
    size_t tried_ = 0, damaged_ = 0, unknownFormat_ = 0, unaffordable_ = 0;
    std::string firstDamage_, firstUnknownFormat_, firstUnaffordable_;
};

std::optional<KeyObject> KeySearch::Read(const StoredObject& object) {
    try {
        if (object.size > kMaximumKeyObjectSize) {
            Damaged("the key " + object.name + " is damaged: " + std::to_string(object.size) +
                    " bytes, more than a key object has");
        }
        const Bytes text = store_.ReadAll(object.name, kMaximumKeyObjectSize);
        return ParseKeyObject(std::string(text.begin(), text.end()), object.name);
    } catch (const ObjectMissing&) {
        return std::nullopt;  // removed since the listing
    } catch (const Error& failure) {
        if (failure.kind() == ErrorKind::Unsupported) {
            Skip(unknownFormat_, firstUnknownFormat_, failure.what());
        } else if (failure.kind() == ErrorKind::Damaged) {
            Skip(damaged_, firstDamage_, failure.what());
        } else {
            throw;
        }
    }
    return std::nullopt;
}

std::optional<OpenedKey> KeySearch::Try(const StoredObject& object) {
    const std::optional<KeyObject> key = Read(object);
    if (!key) return std::nullopt;
    if (const std::string why = WhyKeyDerivationIsUnaffordable(key->kdf, limits_); !why.empty()) {
        Skip(unaffordable_, firstUnaffordable_, "the key " + object.name + " asks for a key derivation " + why);
        return std::nullopt;
    }
    ++tried_;
    const std::string parameters = ToHex(key->kdf.salt.data(), key->kdf.salt.size()) + " " +
                                   std::to_string(key->kdf.n) + " " + std::to_string(key->kdf.r) + " " +
                                   std::to_string(key->kdf.p);
    auto wrapping = derived_.find(parameters);
    if (wrapping == derived_.end()) wrapping = derived_.emplace(parameters, DeriveKey(password_, key->kdf)).first;
    const std::optional<MasterKeys> keys = UnsealKeyObject(*key, wrapping->second);
    if (!keys) return std::nullopt;
    return OpenedKey{*keys, object.name, key->kdf};
}

void KeySearch::Fail(size_t notTried) const {
    const size_t skipped = damaged_ + unknownFormat_ + unaffordable_;
    if (tried_ > 0) {
        throw Error(ErrorKind::WrongPassword,
                    "wrong password: none of the " + std::to_string(tried_) + " keys tried opens with it" +
                        (skipped ? " (" + std::to_string(skipped) + " key objects skipped as unusable)" : "") +
                        (notTried ? "; " + std::to_string(notTried) + " more key objects were not tried (at most " +
                                        std::to_string(kMaximumKeysTried) +
                                        " are): remove the key objects you do not know"
                                  : ""));
    }
    if (unknownFormat_) throw Error(ErrorKind::Unsupported, firstUnknownFormat_);
    if (unaffordable_) throw Error(ErrorKind::Unsupported, firstUnaffordable_);
    Damaged("no key object of the repository can be used: " + std::to_string(damaged_) +
            " are damaged (" + firstDamage_ + ")");
}

}  // namespace

KeyDerivationLimits KeyDerivationLimits::OfThisMachine() {
    KeyDerivationLimits limits;
    const uint64_t available = AvailableMemoryBytes();
    if (available > 0) limits.memoryBytes = std::min<uint64_t>(kKdfMaximumMemory, available / 2);
    return limits;
}

std::string WhyKeyDerivationIsUnaffordable(const KdfParameters& kdf, const KeyDerivationLimits& limits) {
    if (kdf.MemoryBytes() > limits.memoryBytes) {
        return "of " + FormatBytes(static_cast<double>(kdf.MemoryBytes())) + " of memory, more than the " +
               FormatBytes(static_cast<double>(limits.memoryBytes)) +
               " this machine allows (half of its available memory)";
    }
    if (WorkOf(kdf) <= kKdfWorkNeverTimed) return "";
    const double seconds = SecondsPerWork() * static_cast<double>(WorkOf(kdf));
    if (seconds > limits.seconds) {
        char text[160];
        std::snprintf(text, sizeof text, "of about %.3g s on this machine, more than the %.3g s allowed", seconds,
                      limits.seconds);
        return text;
    }
    return "";
}

OpenedKey OpenKeyRing(ObjectStore& store, std::vector<StoredObject> keyObjects, const std::string& password,
                      const KeyDerivationLimits& limits, const WarningSink& warn) {
    std::sort(keyObjects.begin(), keyObjects.end(),
              [](const StoredObject& a, const StoredObject& b) { return a.name < b.name; });
    KeySearch search(store, password, limits, warn);
    size_t object = 0;
    for (; object < keyObjects.size() && search.tried() < kMaximumKeysTried; ++object) {
        if (std::optional<OpenedKey> opened = search.Try(keyObjects[object])) return std::move(*opened);
    }
    search.Fail(keyObjects.size() - object);
}

}  // namespace qvhost::repo
