// The tool's calls into the plug-in, in UTF-8 and standard containers. Every
// call that answers a non-zero result code throws PluginError naming the
// operation and the object; the time spent inside the plug-in is summed
// over all threads, so that a command can say how much of its time the
// plug-in (with the JVM and the storage service behind it) took.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "cloudplugin/ICloudPluginInterface.h"
#include "util/Error.h"

namespace qvhost {

// A non-zero result code of a plug-in operation: which operation, on which
// object, with which code.
class PluginError : public Error {
public:
    PluginError(std::string operation, std::string object, uint32_t code)
        : PluginError(operation, object, code, Describe(operation, object, code)) {}
    // The same failure told in the caller's own words.
    PluginError(std::string operation, std::string object, uint32_t code, const std::string& message)
        : Error(KindOf(code), message, std::move(object)), operation_(std::move(operation)), code_(code) {}

    const std::string& operation() const { return operation_; }
    uint32_t code() const { return code_; }

private:
    // An object in the Archive tier is a failure of its own kind: what
    // brings it back is known.
    static ErrorKind KindOf(uint32_t code) { return code == 49 ? ErrorKind::Archived : ErrorKind::Storage; }
    static std::string Describe(const std::string& operation, const std::string& object, uint32_t code) {
        std::string text = "the plug-in's " + operation;
        if (!object.empty()) text += " of object '" + object + "'";
        return text + " failed with result code " + std::to_string(code);
    }

    std::string operation_;
    uint32_t code_;
};

// The plug-in's result code for an object that does not exist.
constexpr uint32_t kResultObjectNotFound = 7;
// ... for an operation the credential is not authorized to do.
constexpr uint32_t kResultAuthorizationFailed = 8;
// ... for an object the storage holds (a retention or a legal hold).
constexpr uint32_t kResultObjectLocked = 26;
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
// ... and an object's time-based retention (an RFC 1123 date in listings;
// SetProperty takes "YYYY-MM-DDTHH:MM:SSZ") and legal hold ("true").
constexpr const char* kImmutableUntilProperty = "x-ms-immutability-policy-until-date";
constexpr const char* kLegalHoldProperty = "x-ms-legal-hold";
// ... and when its tier was last set explicitly (RFC 1123), for objects whose tier was.
constexpr const char* kTierChangeTimeProperty = "x-ms-access-tier-change-time";

// The most one read asks the plug-in for. Each read is a Java array of its
// size in the plug-in's JVM, so a command's memory follows the reads it has
// in flight; the Java library reads ahead up to 8 MiB in one request and
// serves the slices that follow from that answer, so slices cost no more
// requests than whole 8 MiB reads would.
constexpr uint64_t kReadSlice = 2ull << 20;

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

    // Reads up to `length` bytes at `offset` in one call; answers the bytes
    // read. With `properties`, also reads those metadata properties into
    // `metadata`.
    uint64_t Read(const std::string& name, uint8_t* buffer, uint64_t offset, uint64_t length);
    uint64_t Read(const std::string& name, uint8_t* buffer, uint64_t offset, uint64_t length,
                  const std::vector<std::string>& properties, Metadata& metadata);
    // The same in reads of at most kReadSlice bytes, up to `length` bytes or
    // the object's end (the properties come with the first read).
    uint64_t ReadSliced(const std::string& name, uint8_t* buffer, uint64_t offset, uint64_t length,
                        const std::vector<std::string>& properties = {}, Metadata* metadata = nullptr);


    // SetObjectMetaData: one property of the object.
    void SetProperty(const std::string& name, const std::string& property, const std::string& value);

    bool Exists(const std::string& name);
    void Delete(const std::string& name);
    // Delete, where an object that does not exist counts as deleted.
    void DeleteIfPresent(const std::string& name);
    // The whole object into `out` (a std::string or a byte vector), read in
    // slices of kReadSlice; refuses (Error: damaged) an object larger than
    // `limit` bytes, of which it reads at most one byte past the limit. With
    // `properties`, also reads those metadata properties (with the first
    // slice).
    template <class Buffer>
    void ReadAll(const std::string& name, uint64_t limit, Buffer& out, const std::vector<std::string>& properties = {},
                 Metadata* metadata = nullptr);
    std::string ReadAll(const std::string& name, uint64_t limit, const std::vector<std::string>& properties = {},
                        Metadata* metadata = nullptr) {
        std::string out;
        ReadAll(name, limit, out, properties, metadata);
        return out;
    }
    std::vector<ListedObject> List(const std::string& prefix);

    void CheckConnectivity();
    AccountFigures Account();

    [[noreturn]] static void ThrowTooLarge(const std::string& name, uint64_t limit);

    double PluginSeconds() const { return static_cast<double>(pluginNanoseconds_.load()) / 1e9; }

private:
    template <class Call>
    void Run(const char* operation, const std::string& object, Call&& call);

    ICloudPluginInterface& plugin_;
    std::atomic<int64_t> pluginNanoseconds_{0};
};

template <class Buffer>
void PluginSession::ReadAll(const std::string& name, uint64_t limit, Buffer& out,
                            const std::vector<std::string>& properties, Metadata* metadata) {
    out.clear();
    for (;;) {
        const uint64_t at = out.size();
        const uint64_t want = std::min(kReadSlice, limit + 1 - at);
        out.resize(static_cast<size_t>(at + want));
        Metadata first;
        const uint64_t read = Read(name, reinterpret_cast<uint8_t*>(out.data()) + at, at, want,
                                   at == 0 ? properties : std::vector<std::string>{}, first);
        if (at == 0 && metadata) *metadata = std::move(first);
        out.resize(static_cast<size_t>(at + std::min(read, want)));
        if (out.size() > limit) ThrowTooLarge(name, limit);
        if (read < want) return;
    }
}

WideString Wide(const std::string& utf8);
std::string Narrow(const WideString& wide);

}  // namespace qvhost
