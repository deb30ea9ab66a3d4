// Object metadata and sub-lists: setting one property of an object, reading
// one property or all of them, and listing the objects below a path with
// their metadata. Each operation is one call of the Java plug-in object
// through the call frame (CallFrame.h); what differs between them is
// declared here.
#include <utility>

#include "bridge/JNIBridge.h"
#include "marshal/ResultConversions.h"

namespace {

// SetObjectMetaData: a missing method counts as success; the CErrorValue
// that Java returns is the result (40 for null).
constexpr OperationTraits kSetObjectMetaData =
    Operation("SetObjectMetaData",
              "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;",
              MissingMethodRule::ReturnSuccess, u"SetObjectMetaData::Exception is occured...");

// GetObjectMetaData of one property: a missing method reads as a null
// result; the object's name follows the lines written around the call.
constexpr OperationTraits kGetObjectProperty =
    Operation("GetObjectMetaData", "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/AzureLibrary/CGetObjectMetaData;",
              MissingMethodRule::TakeNullResult, u"GetObjectMetaData::Exception is occured...")
        .CalledLine(u"GetObjectMetaData::Java called ...")
        .EndedLine(u"GetObjectMetaData::Java ended ...");

// GetObjectMetaData of all properties: a missing method reads as a null result.
constexpr OperationTraits kGetObjectMetaData =
    Operation("GetObjectMetaData", "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CGObjectMetaDataFnValue;",
              MissingMethodRule::TakeNullResult, u"GetObjectMetaData::Exception is occured...");

// GetObjectSubList: a missing method reads as a null result, which gives 40.
constexpr OperationTraits kGetObjectSubList =
    Operation("GetObjectSubList", "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CRetGetSubMetaDataList;",
              MissingMethodRule::TakeNullResult, u"GetObjectSubList::Exception is occured...");

}  // namespace

uint32_t JNIBridge::SetObjectMetaData(const WideString& name, const ObjectMetaData::value_type& property) {
    JNIWrapperLog* const log = m_pLog;
    return RunCallFrame(
        Context(), kSetObjectMetaData,
        [&](JavaArguments& args) {
            // The property's name goes before its value.
            args.AddString(name);
            args.AddString(property.first);
            args.AddString(property.second.szProperty);
        },
        [log](JNIEnv* env, jobject result) { return GetErrorId(env, log, result); });
}

uint32_t JNIBridge::GetObjectMetaData(const WideString& name, const WideString& propertyName, WideString& value) {
    return RunCallFrame(
        Context(), kGetObjectProperty, name,
        [&](JavaArguments& args) {
            args.AddString(name);
            args.AddString(propertyName);
        },
        [&](JNIEnv* env, jobject result) {
            // The text is read into a fresh string and handed over only when
            // Java reports no error, so that an error leaves the caller's
            // value as it was.
            WideString text;
            uint32_t ordinal = 0;
            ConvertCGetObjectMetaData(env, result, &ordinal, &text);
            if (ordinal == 0) value = std::move(text);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

uint32_t JNIBridge::GetObjectMetaData(const WideString& object, ObjectMetaData* metaData) {
    return RunCallFrame(
        Context(), kGetObjectMetaData, [&](JavaArguments& args) { args.AddString(object); },
        [metaData](JNIEnv* env, jobject result) {
            uint32_t ordinal = 0;
            ConvertCGObjectMetaDataFnValue(env, result, &ordinal, metaData);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

uint32_t JNIBridge::GetObjectSubList(const WideString& path, ObjectSubList** subList) {
    return RunCallFrame(
        Context(), kGetObjectSubList, [&](JavaArguments& args) { args.AddString(path); },
        [subList](JNIEnv* env, jobject result) {
            // Without a result no sub-list is made and the host's pointer is not written.
            if (!result) return kResultBridgeFailure;
            // Any non-null result gives the host a new sub-list (empty when
            // Java has no entries), which the host owns from here on.
            uint32_t ordinal = 0;
            ConvertCRetGetSubMetaDataList(env, result, &ordinal, subList);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}
