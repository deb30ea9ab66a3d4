// The tool's calls into the plug-in, in UTF-8 and standard containers. Every
// call that answers a non-zero result code throws PluginError naming the
// operation and the object; the time spent inside the plug-in is summed
// over all threads, so that a command can say how much of its time the
// plug-in (with the JVM and the storage service behind it) took.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "cloudplugin/ICloudPluginInterface.h"

namespace qvhost {

// The plug-in's result code for an object that does not exist.
constexpr uint32_t kResultObjectNotFound = 7;
// ... for an object in the Archive tier, which cannot be read until it is
// rehydrated to an online tier.
constexpr uint32_t kResultArchived = 49;

// Properties the storage library answers in listings besides an object's
// own metadata: its access tier and, while it is being rehydrated, the
// archive status; SetProperty of kAccessTierProperty changes the tier
// ("Hot", "Cool", "Cold", "Archive", optionally ";High" or ";Standard":
// the rehydrate priority).
constexpr const char* kAccessTierProperty = "x-ms-access-tier";
constexpr const char* kArchiveStatusProperty = "x-ms-archive-status";

// Object metadata in UTF-8: property name to value.
using Metadata = std::map<std::string, std::string>;

struct ListedObject {
    std::string name;
    Metadata metadata;
};

struct AccountFigures {
    std::string accountName;
    std::string identity;
    std::string type;
    std::string displayName;
    int64_t usedBytes = 0;
    int64_t remainingBytes = 0;
    int64_t allObjectsBytes = 0;
    int64_t minimumObjectSize = 0;
    int64_t defaultObjectSize = 0;
    int64_t maximumObjectSize = 0;
    std::map<std::string, std::string> capabilities;
};

class PluginSession {
public:
    explicit PluginSession(ICloudPluginInterface& plugin) : plugin_(plugin) {}

    // Writes (creates or replaces) an object with its metadata.
    void Write(const std::string& name, const uint8_t* data, uint64_t size, const Metadata& metadata);

    // Reads up to `length` bytes at `offset`; answers the bytes read. With
    // `properties`, also reads those metadata properties into `metadata`.
    uint64_t Read(const std::string& name, uint8_t* buffer, uint64_t offset, uint64_t length);
    uint64_t Read(const std::string& name, uint8_t* buffer, uint64_t offset, uint64_t length,
                  const std::vector<std::string>& properties, Metadata& metadata);


    // SetObjectMetaData: one property of the object.
    void SetProperty(const std::string& name, const std::string& property, const std::string& value);

    bool Exists(const std::string& name);
    void Delete(const std::string& name);
    // Delete, where an object that does not exist counts as deleted.
    void DeleteIfPresent(const std::string& name);
    // The whole object, read in slices; refuses (ToolError damaged) an object
    // larger than `limit` bytes instead of reading it all. With `properties`,
    // also reads those metadata properties (with the first slice).
    std::string ReadAll(const std::string& name, uint64_t limit, const std::vector<std::string>& properties = {},
                        Metadata* metadata = nullptr);
    std::vector<ListedObject> List(const std::string& prefix);

    void CheckConnectivity();
    AccountFigures Account();

    double PluginSeconds() const { return static_cast<double>(pluginNanoseconds_.load()) / 1e9; }

private:
    template <class Call>
    void Run(const char* operation, const std::string& object, Call&& call);

    ICloudPluginInterface& plugin_;
    std::atomic<int64_t> pluginNanoseconds_{0};
};

WideString Wide(const std::string& utf8);
std::string Narrow(const WideString& wide);

}  // namespace qvhost
