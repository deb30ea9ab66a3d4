// Opening a repository's keys: every key object under `<root>/keys/` is a
// way in, each the master keys sealed by one password (Keys.h). Anyone who
// can write to the container can add, damage or delete key objects, so
// none of them is trusted before it is checked:
//
// - a key object that is not one (too large, not JSON, a member missing or
//   of the wrong type, parameters outside the format's bounds) is skipped
//   with a warning;
// - a key whose derivation this machine cannot afford (more memory than
//   half of what is available, or an estimated time beyond the budget) is
//   skipped with a warning before anything is allocated;
// - the well-formed, affordable keys are tried in name order, at most
//   kMaximumKeysTried of them (each costs a derivation); copies of one key
//   (same salt and parameters) cost one derivation.
//
// When none opens, the failure says what was found: a wrong password when
// keys were tried, a format this tool does not read, a derivation refused,
// or no usable key at all.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "repository/Keys.h"
#include "repository/ObjectStore.h"

namespace qvhost::repo {

// Well-formed key objects tried at most when opening a repository.
constexpr size_t kMaximumKeysTried = 64;
// A key derivation of at most this much work (scrypt's n·r·p; init's
// default is 2^15 · 8) is never timed: it is cheap on any machine.
constexpr uint64_t kKdfWorkNeverTimed = uint64_t{1} << 18;

// What opening a repository may spend on one key object's derivation.
struct KeyDerivationLimits {
    uint64_t memoryBytes = kKdfMaximumMemory;
    double seconds = 30;

    // Half of the memory available now (at most the format's 1 GiB) and
    // 30 seconds.
    static KeyDerivationLimits OfThisMachine();
};

// Empty when the derivation fits the limits, else why not. The time is
// estimated from a derivation of 4 MiB timed once per process.
std::string WhyKeyDerivationIsUnaffordable(const KdfParameters& kdf, const KeyDerivationLimits& limits);

using WarningSink = std::function<void(const std::string&)>;

struct OpenedKey {
    MasterKeys keys;
    std::string name;  // the key object that opened
    KdfParameters kdf;
};

// Tries the listed key objects (the listing of the keys prefix, not
// empty) with the password. Throws Error: wrong password, unsupported
// (a format this tool does not read, a derivation refused), damaged (no
// key object is usable).
OpenedKey OpenKeyRing(ObjectStore& store, std::vector<StoredObject> keyObjects, const std::string& password,
                      const KeyDerivationLimits& limits, const WarningSink& warn);

}  // namespace qvhost::repo
