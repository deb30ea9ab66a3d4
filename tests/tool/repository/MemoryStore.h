// An object store in memory for the repository's unit tests: the same
// contract as the plug-in's (objects written whole, read by range, listed by
// prefix), and a way to damage what it holds.
#pragma once

#include <algorithm>
#include <ctime>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "util/Error.h"
#include "repository/ObjectStore.h"

namespace repotest {

class MemoryStore : public qvhost::repo::ObjectStore {
public:
    using ObjectStore::Write;
    void Write(const std::string& name, const uint8_t* data, size_t size,
               const qvhost::repo::Properties& properties) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (HeldNow(name)) throw qvhost::repo::ObjectHeld(name, "BlobImmutableDueToPolicy");
        objects_[name].assign(data, data + size);
        properties_[name] = properties;
        ++writes_;
    }
    void ReadRange(const std::string& name, uint64_t offset, uint64_t length, qvhost::repo::Bytes& out) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++reads_;
        readNames_.push_back(name);
        const auto found = objects_.find(name);
        if (found == objects_.end()) throw qvhost::repo::ObjectMissing(name);
        if (tiers_[name] == "Archive") throw qvhost::repo::ObjectArchived(name);
        const qvhost::repo::Bytes& bytes = found->second;
        const uint64_t start = std::min<uint64_t>(offset, bytes.size());
        const uint64_t end = std::min<uint64_t>(bytes.size(), start + length);
        out.assign(bytes.begin() + start, bytes.begin() + end);
    }
    qvhost::repo::Bytes ReadAll(const std::string& name, uint64_t limit) override {
        qvhost::repo::Bytes out;
        ReadRange(name, 0, limit + 1, out);
        if (out.size() > limit) throw qvhost::Error(qvhost::ErrorKind::Damaged, name + " is too large");
        return out;
    }
    std::vector<qvhost::repo::StoredObject> List(const std::string& prefix) override {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<qvhost::repo::StoredObject> out;
        for (auto it = objects_.lower_bound(prefix); it != objects_.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
            qvhost::repo::StoredObject object;
            object.name = it->first;
            object.size = it->second.size();
            object.tier = tiers_[it->first];
            object.properties = properties_[it->first];
            const auto held = retention_.find(it->first);
            if (held != retention_.end()) object.heldUntil = held->second;
            if (legalHolds_.count(it->first)) object.heldUntil = qvhost::repo::kHeldIndefinitely;
            const auto since = tierSince_.find(it->first);
            if (since != tierSince_.end()) object.tierSince = since->second;
            out.push_back(std::move(object));
        }
        return out;
    }
    void Delete(const std::string& name) override {
        if (refuseDeletes) throw qvhost::repo::AccessDenied("delete", name, "a credential without delete");
        std::lock_guard<std::mutex> lock(mutex_);
        if (HeldNow(name)) throw qvhost::repo::ObjectHeld(name, "BlobImmutableDueToPolicy");
        objects_.erase(name);
        properties_.erase(name);
        tiers_.erase(name);
        retention_.erase(name);
        tierSince_.erase(name);
    }
    // A retention may be lengthened only, as on a locked policy.
    void SetRetention(const std::string& name, int64_t until) override {
        if (refuseRetention) throw qvhost::Error(qvhost::ErrorKind::Storage, "no version-level immutability");
        std::lock_guard<std::mutex> lock(mutex_);
        if (!objects_.count(name)) throw qvhost::repo::ObjectMissing(name);
        int64_t& held = retention_[name];
        held = std::max(held, until);
        retentions_.push_back(name);
    }
    // Tier changes take effect at once (Azurite's way); a rehydration is
    // counted with its priority.
    void SetTier(const std::string& name, const std::string& tier, const std::string& priority) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!objects_.count(name)) throw qvhost::repo::ObjectMissing(name);
        if (tiers_[name] == "Archive" && tier != "Archive") rehydrations_.push_back(name + " " + priority);
        tiers_[name] = tier;
        tierSince_[name] = Clock();
    }

    std::map<std::string, qvhost::repo::Bytes>& objects() { return objects_; }
    std::map<std::string, qvhost::repo::Properties>& properties() { return properties_; }
    std::map<std::string, std::string>& tiers() { return tiers_; }
    // When each object's tier was last set (the store's clock).
    std::map<std::string, int64_t>& tierSince() { return tierSince_; }
    const std::vector<std::string>& rehydrations() const { return rehydrations_; }
    // Retentions by object (seconds since 1970), legal holds, and the names
    // retentions were set on, in order (once each time).
    std::map<std::string, int64_t>& retention() { return retention_; }
    std::set<std::string>& legalHolds() { return legalHolds_; }
    const std::vector<std::string>& retentions() const { return retentions_; }
    // The store's clock for retentions, in seconds since 1970; 0: the real one.
    int64_t now = 0;
    // Retentions refused, as by a container without version-level immutability.
    bool refuseRetention = false;
    size_t writes() const { return writes_; }
    size_t reads() const { return reads_; }
    // Deletes refused as for a credential that may not delete.
    bool refuseDeletes = false;
    // Reads of objects whose names start with `prefix` since the last ForgetReads().
    size_t ReadsUnder(const std::string& prefix) {
        std::lock_guard<std::mutex> lock(mutex_);
        size_t count = 0;
        for (const std::string& name : readNames_) count += name.compare(0, prefix.size(), prefix) == 0;
        return count;
    }
    void ForgetReads() {
        std::lock_guard<std::mutex> lock(mutex_);
        readNames_.clear();
    }

private:
    int64_t Clock() const { return now != 0 ? now : static_cast<int64_t>(std::time(nullptr)); }
    bool HeldNow(const std::string& name) const {
        const auto held = retention_.find(name);
        return legalHolds_.count(name) != 0 || (held != retention_.end() && held->second > Clock());
    }

    std::mutex mutex_;
    std::map<std::string, qvhost::repo::Bytes> objects_;
    std::map<std::string, qvhost::repo::Properties> properties_;
    std::map<std::string, std::string> tiers_;  // none: the default tier
    std::vector<std::string> rehydrations_;
    std::map<std::string, int64_t> retention_;
    std::map<std::string, int64_t> tierSince_;
    std::set<std::string> legalHolds_;
    std::vector<std::string> retentions_;
    size_t writes_ = 0;
    size_t reads_ = 0;
    std::vector<std::string> readNames_;
};

}  // namespace repotest
