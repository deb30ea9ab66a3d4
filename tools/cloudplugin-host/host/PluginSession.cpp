#include "host/PluginSession.h"

#include <algorithm>
#include <chrono>
#include <memory>

#include "util/Error.h"
#include "platform/TextCodec.h"

namespace qvhost {

namespace {

ObjectMetaData ToPluginMetadata(const Metadata& metadata) {
    ObjectMetaData out;
    for (const auto& [name, value] : metadata) out[Wide(name)] = MetaDataValue{Wide(value), 0};
    return out;
}

Metadata FromPluginMetadata(const ObjectMetaData& metadata) {
    Metadata out;
    for (const auto& [name, value] : metadata) out[Narrow(name)] = Narrow(value.szProperty);
    return out;
}

}  // namespace

WideString Wide(const std::string& utf8) { return qvplatform::FromUtf8(utf8); }
std::string Narrow(const WideString& wide) { return qvplatform::ToUtf8(wide); }

template <class Call>
void PluginSession::Run(const char* operation, const std::string& object, Call&& call) {
    const auto start = std::chrono::steady_clock::now();
    const uint32_t result = call();
    pluginNanoseconds_ +=
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count();
    if (result != 0) throw PluginError(operation, object, result);
}

void PluginSession::Write(const std::string& name, const uint8_t* data, uint64_t size, const Metadata& metadata) {
    ObjectMetaData pluginMetadata = ToPluginMetadata(metadata);
    WideString handle;
    Run("WriteObject", name, [&] { return plugin_.WriteObject(Wide(name), data, size, &pluginMetadata, handle); });
}

// Through ReadObjectByName: the interface's ReadObject answers 0 whatever
// the Java side reported, so a missing or archived object would only show
// as a short read.
uint64_t PluginSession::Read(const std::string& name, uint8_t* buffer, uint64_t offset, uint64_t length) {
    Metadata ignored;
    return Read(name, buffer, offset, length, {}, ignored);
}

uint64_t PluginSession::Read(const std::string& name, uint8_t* buffer, uint64_t offset, uint64_t length,
                             const std::vector<std::string>& properties, Metadata& metadata) {
    std::vector<WideString> names;
    for (const std::string& property : properties) names.push_back(Wide(property));
    ObjectMetaData pluginMetadata;
    uint64_t read = length;
    Run("ReadObjectByName", name, [&] {
        return plugin_.ReadObjectByName(Wide(name), buffer, offset, &read, names.data(),
                                        static_cast<uint32_t>(names.size()), &pluginMetadata);
    });
    metadata = FromPluginMetadata(pluginMetadata);
    return read;
}

uint64_t PluginSession::ReadSliced(const std::string& name, uint8_t* buffer, uint64_t offset, uint64_t length,
                                   const std::vector<std::string>& properties, Metadata* metadata) {
    uint64_t done = 0;
    while (done < length) {
        const uint64_t want = std::min(kReadSlice, length - done);
        Metadata first;
        const uint64_t read =
            Read(name, buffer + done, offset + done, want, done == 0 ? properties : std::vector<std::string>{}, first);
        if (done == 0 && metadata) *metadata = std::move(first);
        done += std::min(read, want);
        if (read < want) break;
    }
    return done;
}

void PluginSession::ThrowTooLarge(const std::string& name, uint64_t limit) {
    throw Error(ErrorKind::Damaged, "object " + name + " is larger than " + std::to_string(limit) + " bytes");
}

void PluginSession::SetProperty(const std::string& name, const std::string& property, const std::string& value) {
    Run("SetObjectMetaData", name, [&] {
        return plugin_.SetObjectMetaData(Wide(name), ObjectMetaData::value_type(Wide(property), MetaDataValue{Wide(value), 0}));
    });
}

bool PluginSession::Exists(const std::string& name) {
    uint32_t exists = 0;
    Run("IsObjectExist", name, [&] { return plugin_.IsObjectExist(Wide(name), &exists); });
    return exists != 0;
}

void PluginSession::Delete(const std::string& name) {
    Run("DeleteObjectByName", name, [&] { return plugin_.DeleteObjectByName(Wide(name)); });
}

void PluginSession::DeleteIfPresent(const std::string& name) {
    try {
        Delete(name);
    } catch (const PluginError& failure) {
        if (failure.code() != kResultObjectNotFound) throw;
    }
}

std::vector<ListedObject> PluginSession::List(const std::string& prefix) {
    ObjectSubList* raw = nullptr;
    // The sub-list belongs to the plug-in; it is handed back even when the
    // operation failed after making it.
    auto release = [this](ObjectSubList* list) {
        if (list) plugin_.FreeObjectSubListMemory(list);
    };
    std::unique_ptr<ObjectSubList, decltype(release)> owned(nullptr, release);
    Run("GetObjectSubList", prefix, [&] {
        const uint32_t result = plugin_.GetObjectSubList(Wide(prefix), &raw);
        owned.reset(raw);
        return result;
    });
    std::vector<ListedObject> objects;
    if (!raw) return objects;
    objects.reserve(raw->size());
    for (const auto& [name, metadata] : *raw) {
        objects.push_back({Narrow(name), metadata ? FromPluginMetadata(*metadata) : Metadata{}});
    }
    return objects;
}

void PluginSession::CheckConnectivity() {
    Run("CheckConnectivity", "", [&] { return plugin_.CheckConnectivity(); });
}

AccountFigures PluginSession::Account() {
    AccountFigures figures;
    WideString accountName;
    Run("GetUniqueAccountName", "", [&] { return plugin_.GetUniqueAccountName(accountName); });
    figures.accountName = Narrow(accountName);
    AccountInfoRecord info;
    Run("GetAccountInfo", "", [&] { return plugin_.GetAccountInfo(&info); });
    figures.identity = Narrow(info.accountIndentity);
    figures.type = Narrow(info.accountType);
    figures.displayName = Narrow(info.displayName);
    figures.usedBytes = info.usedSizeInByteTotal;
    figures.remainingBytes = info.remainedSizeInByteTotal;
    Run("GetAllObjectsSize", "", [&] { return plugin_.GetAllObjectsSize(&figures.allObjectsBytes); });
    Run("GetDefaultObjectSizeRange", "", [&] {
        return plugin_.GetDefaultObjectSizeRange(&figures.minimumObjectSize, &figures.defaultObjectSize,
                                                 &figures.maximumObjectSize);
    });
    CapabilitiesRecord capabilities;
    Run("GetPluginCapabilities", "", [&] { return plugin_.GetPluginCapabilities(&capabilities); });
    for (const auto& [key, value] : capabilities.capabilities) figures.capabilities[Narrow(key)] = Narrow(value);
    return figures;
}

}  // namespace qvhost
