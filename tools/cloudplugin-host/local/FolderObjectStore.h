// A repository's objects in a local folder instead of the storage (the
// global option --folder): no plug-in and no JVM, for a copy on a disk of
// one's own, and for the repository's tests on a system without a JVM (the
// Windows build under Wine). The objects are the same bytes as in the
// storage, so a repository's folder and its container are interchangeable.
//
//   <folder>/objects/<object name>      the object, '/' in its name a folder
//   <folder>/properties/<object name>   its properties (JSON), when it has any
//
// Objects are written under a temporary name and renamed into place. There
// are no access tiers and no retentions: asking for either is refused.
#pragma once

#include <filesystem>
#include <string>

#include "repository/ObjectStore.h"

namespace qvhost::repo {

class FolderObjectStore : public ObjectStore {
public:
    // Makes the folder when missing. Throws Error (local file).
    explicit FolderObjectStore(const std::string& folder);

    using ObjectStore::Write;
    void Write(const std::string& name, const uint8_t* data, size_t size, const Properties& properties) override;
    void ReadRange(const std::string& name, uint64_t offset, uint64_t length, Bytes& out) override;
    Bytes ReadAll(const std::string& name, uint64_t limit) override;
    std::vector<StoredObject> List(const std::string& prefix) override;
    void Delete(const std::string& name) override;
    void SetTier(const std::string& name, const std::string& tier, const std::string& priority) override;
    void SetRetention(const std::string& name, int64_t until) override;

private:
    // The object's file; throws Error (usage) for a name that is no
    // relative path of plain components.
    std::filesystem::path ObjectPath(const std::string& name) const;
    // The properties' file of the object at `objectPath`.
    std::filesystem::path PropertiesPath(const std::filesystem::path& objectPath) const;

    std::filesystem::path objects_;
    std::filesystem::path properties_;
};

}  // namespace qvhost::repo
