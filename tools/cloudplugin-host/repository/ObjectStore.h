// The storage a repository lives in, as the repository code sees it: named
// objects written whole, read whole or by range, listed by prefix and
// deleted. The tool's implementation goes through the plug-in
// (host/PluginObjectStore.h); the unit tests use an in-memory one.
//
// Nothing read through it is trusted: every reader bounds what it asks for
// and checks what comes back.
#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "util/Error.h"
#include "repository/Crypto.h"

namespace qvhost::repo {

// Small text properties stored with an object and returned by listings
// (the plug-in's object metadata): what a listing must show without a
// request per object.
using Properties = std::map<std::string, std::string>;

// The end of a hold that has none (a legal hold, or a retention whose end
// the storage did not say in a form this tool reads).
constexpr int64_t kHeldIndefinitely = INT64_MAX;

struct StoredObject {
    std::string name;
    uint64_t size = 0;          // 0 when the storage does not say
    std::string tier;           // "Hot", "Cool", "Cold", "Archive"; empty when the storage does not say
    std::string archiveStatus;  // e.g. "rehydrate-pending-to-hot" while an archived object comes back
    int64_t tierSince = 0;      // when its tier was last set (seconds since 1970); 0: not listed
    // The storage keeps the object unchanged and undeleted until then
    // (seconds since 1970: a time-based retention; kHeldIndefinitely: a
    // legal hold); 0: nothing holds it.
    int64_t heldUntil = 0;
    Properties properties;  // as written
};

class ObjectStore {
public:
    virtual ~ObjectStore() = default;

    // Creates or replaces the object.
    virtual void Write(const std::string& name, const uint8_t* data, size_t size, const Properties& properties) = 0;
    void Write(const std::string& name, const uint8_t* data, size_t size) { Write(name, data, size, {}); }
    // Up to `length` bytes at `offset` into `out` (resized to what was read).
    // Throws ObjectMissing when there is no such object.
    virtual void ReadRange(const std::string& name, uint64_t offset, uint64_t length, Bytes& out) = 0;
    // The whole object; throws ObjectMissing, or Damaged when it is larger
    // than `limit` bytes (nothing larger is ever held in memory).
    virtual Bytes ReadAll(const std::string& name, uint64_t limit) = 0;
    virtual std::vector<StoredObject> List(const std::string& prefix) = 0;
    // An object that does not exist counts as deleted.
    virtual void Delete(const std::string& name) = 0;
    // Moves the object to an access tier ("Hot", "Cool", "Cold", "Archive");
    // from the Archive tier an online tier starts a rehydration at
    // `priority` ("Standard" or "High"), which the storage finishes later.
    virtual void SetTier(const std::string& name, const std::string& tier, const std::string& priority) = 0;
    // Keeps the object unchanged and undeleted until `until` (seconds since
    // 1970): a time-based retention, where the container has version-level
    // immutability.
    virtual void SetRetention(const std::string& name, int64_t until) = 0;
};

// Reading an object in the Archive tier: nothing of it can be read until it
// is rehydrated.
class ObjectArchived : public Error {
public:
    explicit ObjectArchived(const std::string& name)
        : Error(ErrorKind::Archived, "object " + name + " is in the Archive tier", name) {}
    const std::string& name() const { return object(); }
};

// The tier whose blobs cannot be read until rehydrated.
constexpr const char* kArchiveTier = "Archive";

// The days a blob must spend in its tier before leaving it (deleted or
// moved) costs nothing more: Azure charges the rest of Cool's 30, Cold's
// 90 and Archive's 180 days; 0 for the others.
inline unsigned EarlyDeletionDays(const std::string& tier) {
    return tier == "Cool" ? 30 : tier == "Cold" ? 90 : tier == kArchiveTier ? 180 : 0;
}

// An operation the credential may not do (a SAS without the permission, a
// role without the action): the storage refused it for who is asking, not
// for what is asked. A backup with a credential that may not delete meets
// it when it removes its lock.
class AccessDenied : public Error {
public:
    AccessDenied(const std::string& operation, const std::string& name, const std::string& detail)
        : Error(ErrorKind::Storage, "the storage refused to " + operation + " " + name + " for this credential" +
                                        (detail.empty() ? "" : ": " + detail),
                name) {}
};

// Deleting an object the storage holds: under a retention not yet over, or
// a legal hold.
class ObjectHeld : public Error {
public:
    ObjectHeld(const std::string& name, const std::string& detail)
        : Error(ErrorKind::Storage, "the storage holds " + name + " (a retention or a legal hold)" +
                                        (detail.empty() ? "" : ": " + detail),
                name) {}
};

// Reading an object that does not exist.
class ObjectMissing : public Error {
public:
    explicit ObjectMissing(const std::string& name)
        : Error(ErrorKind::ObjectMissing, "object " + name + " does not exist", name) {}
    const std::string& name() const { return object(); }
};

}  // namespace qvhost::repo
