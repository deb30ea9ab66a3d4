#include "local/FolderObjectStore.h"

#include <algorithm>
#include <fstream>

#include "local/LocalFiles.h"
#include "util/Error.h"
#include "util/Json.h"
#include "util/PathRules.h"
#include "util/WholeFiles.h"

namespace qvhost::repo {

namespace fs = std::filesystem;

namespace {

// Properties are a few short texts; anything larger is not ours.
constexpr uint64_t kMaximumPropertiesBytes = 64 * 1024;

[[noreturn]] void Fail(const std::string& what, const fs::path& path) {
    throw Error(ErrorKind::LocalFile, "cannot " + what + " " + path.u8string());
}

void MakeParent(const fs::path& path) {
    std::error_code error;
    fs::create_directories(path.parent_path(), error);
    if (error) Fail("make the folder", path.parent_path());
}

Properties ReadProperties(const fs::path& path) {
    Bytes bytes;
    if (!ReadWholeFile(path, bytes, kMaximumPropertiesBytes)) return {};
    const Json json = Json::parse(bytes.begin(), bytes.end(), nullptr, false);
    Properties properties;
    if (!json.is_object()) return properties;
    for (const auto& [key, value] : json.items()) {
        if (value.is_string()) properties[key] = value.get<std::string>();
    }
    return properties;
}

}  // namespace

FolderObjectStore::FolderObjectStore(const std::string& folder)
    : objects_(PathOf(folder) / "objects"), properties_(PathOf(folder) / "properties") {
    for (const fs::path& path : {objects_, properties_}) {
        std::error_code error;
        fs::create_directories(path, error);
        if (error) Fail("make the repository folder", path);
    }
}

fs::path FolderObjectStore::ObjectPath(const std::string& name) const {
    if (const std::string why = WhyPathIsRefused(name); !why.empty() || name.find('\\') != std::string::npos) {
        throw Error(ErrorKind::Usage, "no object of a local folder can be named " + name);
    }
    return objects_ / PathOf(name);
}

fs::path FolderObjectStore::PropertiesPath(const fs::path& objectPath) const {
    return properties_ / objectPath.lexically_relative(objects_);
}

void FolderObjectStore::Write(const std::string& name, const uint8_t* data, size_t size,
                              const Properties& properties) {
    const fs::path path = ObjectPath(name);
    const fs::path propertiesPath = PropertiesPath(path);
    MakeParent(path);
    // The properties first: an object is never listed without them.
    std::error_code ignored;
    if (properties.empty()) {
        fs::remove(propertiesPath, ignored);
    } else {
        const std::string text = Json(properties).dump();
        MakeParent(propertiesPath);
        if (!WriteWholeFile(propertiesPath, reinterpret_cast<const uint8_t*>(text.data()), text.size())) {
            Fail("write", propertiesPath);
        }
    }
    if (!WriteWholeFile(path, data, size)) Fail("write", path);
}

void FolderObjectStore::ReadRange(const std::string& name, uint64_t offset, uint64_t length, Bytes& out) {
    const fs::path path = ObjectPath(name);
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::error_code error;
        if (!fs::exists(path, error)) throw ObjectMissing(name);
        Fail("read", path);
    }
    std::error_code error;
    const uint64_t size = fs::file_size(path, error);
    if (error) Fail("read", path);
    const uint64_t available = offset < size ? std::min(length, size - offset) : 0;
    out.resize(static_cast<size_t>(available));
    in.seekg(static_cast<std::streamoff>(offset));
    in.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(out.size()));
    if (in.gcount() != static_cast<std::streamsize>(out.size())) Fail("read all that was asked of", path);
}

Bytes FolderObjectStore::ReadAll(const std::string& name, uint64_t limit) {
    const fs::path path = ObjectPath(name);
    std::error_code error;
    const uint64_t size = fs::file_size(path, error);
    if (error) {
        if (!fs::exists(path, error)) throw ObjectMissing(name);
        Fail("read", path);
    }
    if (size > limit) {
        Damaged("object " + name + " has " + std::to_string(size) + " bytes, more than the " + std::to_string(limit) +
                " it may have");
    }
    Bytes bytes;
    if (!ReadWholeFile(path, bytes, limit)) Fail("read", path);
    return bytes;
}

std::vector<StoredObject> FolderObjectStore::List(const std::string& prefix) {
    std::vector<StoredObject> objects;
    const size_t slash = prefix.rfind('/');
    const std::string folderName = slash == std::string::npos ? "" : prefix.substr(0, slash);
    const fs::path folder = folderName.empty() ? objects_ : ObjectPath(folderName);
    std::error_code error;
    if (!fs::is_directory(folder, error)) return objects;
    fs::recursive_directory_iterator entries(folder, error), end;
    if (error) Fail("list", folder);
    for (; entries != end; entries.increment(error)) {
        if (error) Fail("list", folder);
        if (!entries->is_regular_file(error) || IsTemporaryName(entries->path().filename().u8string())) continue;
        std::string name = entries->path().lexically_relative(objects_).generic_u8string();
        if (name.compare(0, prefix.size(), prefix) != 0) continue;
        StoredObject object;
        object.size = entries->file_size(error);
        object.properties = ReadProperties(PropertiesPath(entries->path()));
        object.name = std::move(name);
        objects.push_back(std::move(object));
    }
    std::sort(objects.begin(), objects.end(),
              [](const StoredObject& a, const StoredObject& b) { return a.name < b.name; });
    return objects;
}

void FolderObjectStore::Delete(const std::string& name) {
    const fs::path path = ObjectPath(name);
    std::error_code error;
    fs::remove(path, error);
    if (error) Fail("delete", path);
    fs::remove(PropertiesPath(path), error);
}

void FolderObjectStore::SetTier(const std::string& name, const std::string& tier, const std::string& priority) {
    (void)priority;
    throw Error(ErrorKind::Usage, "a repository in a local folder has no access tiers: cannot move " + name +
                                      " to " + tier);
}

void FolderObjectStore::SetRetention(const std::string& name, int64_t until) {
    (void)until;
    throw Error(ErrorKind::Usage, "a repository in a local folder cannot hold " + name + " under a retention");
}

}  // namespace qvhost::repo
