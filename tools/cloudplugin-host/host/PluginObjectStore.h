// The repository's object store on the plug-in: the objects of the plug-in
// session's container, with the plug-in's "not found" and "archived" result
// codes turned into the store's own failures.
#pragma once

#include <atomic>

#include "repository/ObjectStore.h"

namespace qvhost {
class PluginSession;
}

namespace qvhost::repo {

// The objects of the plug-in session's container.
class PluginObjectStore : public ObjectStore {
public:
    explicit PluginObjectStore(PluginSession& session) : session_(session) {}

    using ObjectStore::Write;
    void Write(const std::string& name, const uint8_t* data, size_t size, const Properties& properties) override;
    void ReadRange(const std::string& name, uint64_t offset, uint64_t length, Bytes& out) override;
    Bytes ReadAll(const std::string& name, uint64_t limit) override;
    std::vector<StoredObject> List(const std::string& prefix) override;
    void Delete(const std::string& name) override;
    void SetTier(const std::string& name, const std::string& tier, const std::string& priority) override;
    void SetRetention(const std::string& name, int64_t until) override;

    // Bytes written and read through this store, for the commands' figures.
    uint64_t BytesWritten() const { return written_; }

private:
    PluginSession& session_;
    std::atomic<uint64_t> written_{0};
};

}  // namespace qvhost::repo
