// An object store in memory for the repository's unit tests: the same
// contract as the plug-in's (objects written whole, read by range, listed by
// prefix), and a way to damage what it holds.
#pragma once

#include <map>
#include <mutex>
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
            out.push_back({it->first, it->second.size(), tiers_[it->first], {}, properties_[it->first]});
        }
        return out;
    }
    void Delete(const std::string& name) override {
        if (refuseDeletes) throw qvhost::repo::AccessDenied("delete", name, "a credential without delete");
        std::lock_guard<std::mutex> lock(mutex_);
        objects_.erase(name);
        properties_.erase(name);
        tiers_.erase(name);
    }
    // Tier changes take effect at once (Azurite's way); a rehydration is
    // counted with its priority.
    void SetTier(const std::string& name, const std::string& tier, const std::string& priority) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!objects_.count(name)) throw qvhost::repo::ObjectMissing(name);
        if (tiers_[name] == "Archive" && tier != "Archive") rehydrations_.push_back(name + " " + priority);
        tiers_[name] = tier;
    }

    std::map<std::string, qvhost::repo::Bytes>& objects() { return objects_; }
    std::map<std::string, qvhost::repo::Properties>& properties() { return properties_; }
    std::map<std::string, std::string>& tiers() { return tiers_; }
    const std::vector<std::string>& rehydrations() const { return rehydrations_; }
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
    std::mutex mutex_;
    std::map<std::string, qvhost::repo::Bytes> objects_;
    std::map<std::string, qvhost::repo::Properties> properties_;
    std::map<std::string, std::string> tiers_;  // none: the default tier
    std::vector<std::string> rehydrations_;
    size_t writes_ = 0;
    size_t reads_ = 0;
    std::vector<std::string> readNames_;
};

}  // namespace repotest
