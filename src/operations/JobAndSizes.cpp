// Job information, connectivity and sizes: the operations that concern the
// plug-in as a whole rather than one object. The host's job counters go to
// Java, Java's connectivity check and default object sizes come back, and
// the capability map of the storage back end is read.
#include <cstdint>
#include <optional>

#include "bridge/CallFrame.h"
#include "bridge/JNIBridge.h"
#include "marshal/Capabilities.h"
#include "marshal/ResultConversions.h"

namespace {

constexpr const char16_t* kAddJobInfoExceptionLine = u"AddJobInfo::Exception is occured...";

constexpr OperationTraits kAddJobInfo =
    Operation("addJobInfo", "(JJJJJJ)Lcom/qv/QVCloudPluginInterface/CErrorValue;", MissingMethodRule::TakeNullResult,
              kAddJobInfoExceptionLine)
        .MissingMethodLine(u"AddJobInfo::method is not found...");

// A missing class ends with 40 and no line of its own.
constexpr OperationTraits kCheckConnectivity =
    Operation("CheckConnectivity", "()Lcom/qv/QVCloudPluginInterface/CErrorValue;", MissingMethodRule::ReturnSuccess,
              u"CheckConnectivity::Exception is occured...")
        .FailingWithoutClass();

// A missing class ends with 40 and no line of its own.
constexpr OperationTraits kDefaultObjectSizeRange =
    Operation("GetDefaultObjectSizeRange", "()Lcom/qv/AzureLibrary/CGDefaultObjSizeRangeValue;",
              MissingMethodRule::TakeNullResult, u"GetDefaultObjectSizeRange::Exception is occured...")
        .FailingWithoutClass();

constexpr OperationTraits kPluginCapabilities =
    Operation("GetCloudPluginCapabilities", "()Lcom/qv/QVCloudPluginInterface/CloudPluginCapabilities;",
              MissingMethodRule::ReturnSuccess, u"GetPluginCapabilities::Exception is occured...");

void NoArguments(JavaArguments&) {}

void SetIfPresent(int64_t* output, int64_t value) {
    if (output) *output = value;
}

}  // namespace

uint32_t JNIBridge::AddJobInfo(const JobInfoRecord* job) {
    return RunCallFrame(
        Context(), kAddJobInfo,
        [&](JavaArguments& arguments) -> std::optional<uint32_t> {
            // Without a record there are no values to give: the operation fails as on any exception.
            if (!job) {
                LogError(m_pLog, kAddJobInfoExceptionLine);
                return kResultBridgeFailure;
            }
            // Java takes the six values in this fixed order: third, fourth, first, second, sixth, fifth.
            for (const int index : {2, 3, 0, 1, 5, 4}) arguments.AddLong(job->values[index]);
            return std::nullopt;
        },
        [&](JNIEnv* env, jobject result) {
            const uint32_t code = GetErrorId(env, m_pLog, result);
            LogError(m_pLog, u"AddJobInfo::Java ended ...");
            return code;
        });
}

uint32_t JNIBridge::CheckConnectivity() {
    return RunCallFrame(Context(), kCheckConnectivity, NoArguments,
                        [&](JNIEnv* env, jobject result) { return GetErrorId(env, m_pLog, result); });
}

uint32_t JNIBridge::GetDefaultObjectSizeRange(int64_t* minimum, int64_t* defaultSize, int64_t* maximum) {
    return RunCallFrame(
        Context(), kDefaultObjectSizeRange,
        [&](JavaArguments&) {
            // The outputs read 0 from here on, also when Java gives nothing.
            SetIfPresent(maximum, 0);
            SetIfPresent(defaultSize, 0);
            SetIfPresent(minimum, 0);
        },
        [&](JNIEnv* env, jobject result) {
            if (!result) return kResultBridgeFailure;
            uint32_t ordinal = 0;
            SizeRangeRecord range;
            ConvertCGDefaultObjSizeRangeValue(env, result, &ordinal, &range);
            SetIfPresent(minimum, range.minimum);
            SetIfPresent(defaultSize, range.defaultSize);
            SetIfPresent(maximum, range.maximum);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

uint32_t JNIBridge::GetPluginCapabilities(CapabilitiesRecord* capabilities) {
    // The marker is set before anything else, so it stands also when the operation fails.
    if (capabilities) capabilities->marker = 1;
    return RunCallFrame(Context(), kPluginCapabilities, NoArguments, [&](JNIEnv* env, jobject result) {
        // Java reports no error here: only the bridge's own failures reach the host.
        ConvertCloudPluginCapabilities(env, result, capabilities ? &capabilities->capabilities : nullptr);
        return kResultSuccess;
    });
}
