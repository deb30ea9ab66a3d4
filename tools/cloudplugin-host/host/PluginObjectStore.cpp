#include "host/PluginObjectStore.h"

#include <algorithm>

#include "host/PluginSession.h"
#include "util/Error.h"
#include "util/Text.h"

namespace qvhost::repo {

namespace {

// Written with every object: its size, so that a listing shows it without
// a request per object. Informative only: readers bound what they read.
constexpr const char* kSizeProperty = "size";

template <class Call>
auto MissingAsObjectMissing(const std::string& name, Call&& call) {
    try {
        return call();
    } catch (const PluginError& failure) {
        if (failure.code() == kResultObjectNotFound) throw ObjectMissing(name);
        if (failure.code() == kResultArchived) throw ObjectArchived(name);
        throw;
    }
}

}  // namespace

void PluginObjectStore::Write(const std::string& name, const uint8_t* data, size_t size,
                              const Properties& properties) {
    Metadata metadata(properties.begin(), properties.end());
    metadata[kSizeProperty] = std::to_string(size);
    session_.Write(name, data, size, metadata);
    written_ += size;
}

void PluginObjectStore::ReadRange(const std::string& name, uint64_t offset, uint64_t length, Bytes& out) {
    out.resize(static_cast<size_t>(length));
    const uint64_t read =
        MissingAsObjectMissing(name, [&] { return session_.ReadSliced(name, out.data(), offset, length); });
    out.resize(static_cast<size_t>(read));
}

Bytes PluginObjectStore::ReadAll(const std::string& name, uint64_t limit) {
    Bytes out;
    MissingAsObjectMissing(name, [&] { session_.ReadAll(name, limit, out); });
    return out;
}

std::vector<StoredObject> PluginObjectStore::List(const std::string& prefix) {
    std::vector<StoredObject> objects;
    for (const ListedObject& listed : session_.List(prefix)) {
        StoredObject object;
        object.name = listed.name;
        object.properties = Properties(listed.metadata.begin(), listed.metadata.end());
        const auto tier = listed.metadata.find(kAccessTierProperty);
        if (tier != listed.metadata.end()) object.tier = tier->second;
        const auto status = listed.metadata.find(kArchiveStatusProperty);
        if (status != listed.metadata.end()) object.archiveStatus = status->second;
        const auto until = listed.metadata.find(kImmutableUntilProperty);
        if (until != listed.metadata.end()) {
            // A date that does not parse is a retention of unknown end: held.
            const int64_t seconds = ParseHttpDate(until->second);
            object.heldUntil = seconds > 0 ? seconds : kHeldIndefinitely;
        }
        const auto tierChanged = listed.metadata.find(kTierChangeTimeProperty);
        if (tierChanged != listed.metadata.end()) {
            object.tierSince = std::max<int64_t>(0, ParseHttpDate(tierChanged->second));
        }
        const auto hold = listed.metadata.find(kLegalHoldProperty);
        if (hold != listed.metadata.end() && hold->second == "true") object.heldUntil = kHeldIndefinitely;
        const auto size = listed.metadata.find(kSizeProperty);
        if (size != listed.metadata.end() && !size->second.empty() && size->second.size() < 19 &&
            size->second.find_first_not_of("0123456789") == std::string::npos) {
            object.size = std::stoull(size->second);
        }
        objects.push_back(std::move(object));
    }
    return objects;
}

void PluginObjectStore::Delete(const std::string& name) {
    try {
        session_.DeleteIfPresent(name);
    } catch (const PluginError& failure) {
        if (failure.code() == kResultAuthorizationFailed) throw AccessDenied("delete", name, failure.what());
        if (failure.code() == kResultObjectLocked) throw ObjectHeld(name, failure.what());
        throw;
    }
}

void PluginObjectStore::SetRetention(const std::string& name, int64_t until) {
    MissingAsObjectMissing(name, [&] { session_.SetProperty(name, kImmutableUntilProperty, UtcTimeText(until)); });
}

void PluginObjectStore::SetTier(const std::string& name, const std::string& tier, const std::string& priority) {
    MissingAsObjectMissing(name, [&] {
        session_.SetProperty(name, kAccessTierProperty, priority.empty() ? tier : tier + ";" + priority);
    });
}

}  // namespace qvhost::repo
