// Managing the repository's key objects: listing them, adding a password,
// changing the password of the key in use, removing one.
//
// Every key object seals the same master keys, so any of them opens the
// whole repository. A new key object is written, read back and opened with
// its password before anything else changes; a password change writes the
// new key object before it deletes the old. The last well-formed key object
// is never removed (nothing could open the repository), nor the one the
// current password opened unless the caller forces it.
#pragma once

#include <string>
#include <vector>

#include "repository/Repository.h"

namespace qvhost::repo {

struct KeyInfo {
    std::string id;    // the object's name under the keys prefix
    std::string name;  // the whole object name
    std::string created;
    std::string host;
    KdfParameters kdf;
    bool current = false;  // the one the password opened
    std::string damage;    // why it cannot be used; empty when well-formed
};

// Every object under the keys prefix, in name order.
std::vector<KeyInfo> ListKeys(Repository& repository);

// A new key object for `password` sealing the repository's master keys;
// answers its id. Throws Error: wrong password (empty), damaged (it did not
// read back).
std::string AddKey(Repository& repository, const std::string& password, const KdfParameters& kdf,
                   const std::string& host);

// Replaces the key in use by one for `password`; answers the new id.
std::string ChangePassword(Repository& repository, const std::string& password, const KdfParameters& kdf,
                           const std::string& host);

// Removes the key object `id` (a unique beginning of one, 4 characters at
// least); answers the id removed. Throws Error: not found, usage (more
// than one key starts so; the last well-formed key; the key in use without
// `force`).
std::string RemoveKey(Repository& repository, const std::string& id, bool force);

}  // namespace qvhost::repo
