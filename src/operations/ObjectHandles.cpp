// The operations that hand out and give back object handles: CreateObject
// (with and without metadata), OpenObject (with and without flag),
// CreateCachedObject and CloseObject.
//
// A handle is the objHandle text that Java puts into its CCreateFnValue
// result; the bridge copies it into the caller's string and keeps nothing, so
// nothing native is allocated or freed per handle. A missing Java method is
// not a failure for these operations: with no Java exception pending they end
// with 0 and leave the caller's handle as it was.
#include <utility>

#include "bridge/JNIBridge.h"
#include "marshal/MetaData.h"
#include "marshal/ResultConversions.h"

namespace {

constexpr const char* kCreateObjectSignature = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CCreateFnValue;";
constexpr const char* kCreateObjectWithMetaDataSignature =
    "(Ljava/lang/String;[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/AzureLibrary/CCreateFnValue;";
constexpr const char* kOpenObjectSignature = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CCreateFnValue;";
constexpr const char* kOpenObjectWithFlagSignature = "(Ljava/lang/String;Z)Lcom/qv/AzureLibrary/CCreateFnValue;";
constexpr const char* kCreateCachedObjectSignature = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CCreateFnValue;";
constexpr const char* kCloseObjectSignature = "(Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;";

constexpr const char16_t* kCreateObjectException = u"CreateObject::Exception is occured...";
constexpr const char16_t* kOpenObjectException = u"OpenObject::Exception is occured...";
constexpr const char16_t* kCreateCachedObjectException = u"CreateCachedObject::Exception is occured...";
constexpr const char16_t* kCloseObjectException = u"CloseObject::Exception is occured...";

constexpr OperationTraits kCreateObject = Operation("CreateObject", kCreateObjectSignature,
                                                    MissingMethodRule::ReturnSuccess, kCreateObjectException);
constexpr OperationTraits kCreateObjectWithMetaData =
    Operation("CreateObject", kCreateObjectWithMetaDataSignature, MissingMethodRule::ReturnSuccess,
              kCreateObjectException);
constexpr OperationTraits kOpenObject =
    Operation("OpenObject", kOpenObjectSignature, MissingMethodRule::ReturnSuccess, kOpenObjectException);
constexpr OperationTraits kOpenObjectWithFlag =
    Operation("OpenObject", kOpenObjectWithFlagSignature, MissingMethodRule::ReturnSuccess, kOpenObjectException);
constexpr OperationTraits kCreateCachedObject =
    Operation("CreateCachedObject", kCreateCachedObjectSignature, MissingMethodRule::ReturnSuccess,
              kCreateCachedObjectException);
constexpr OperationTraits kCloseObject =
    Operation("CloseObject", kCloseObjectSignature, MissingMethodRule::ReturnSuccess, kCloseObjectException);

constexpr const char16_t* kCreateObjectEnded = u"CreateObject::is ended...";
constexpr const char16_t* kNullMetaDataLine = u"CreateObject::is called wih null metadata...";

// Converts the CCreateFnValue of a handle-returning method. Once the method
// has been called the caller's handle is always overwritten: with objHandle,
// or with the empty text when Java gave none (null result, missing field).
// `afterHandle(handle)` writes the operation's lines that follow. The result
// is the mapped error ordinal (a null errorValue or a failed conversion reads
// as ordinal 40, which maps to 47).
template <typename AfterHandle>
auto HandleConversion(JNIWrapperLog* log, WideString& handle, AfterHandle&& afterHandle) {
    return [log, &handle, afterHandle = std::forward<AfterHandle>(afterHandle)](JNIEnv* env, jobject result) {
        uint32_t ordinal = 0;
        WideString received;
        ConvertCCreateFnValue(env, result, &ordinal, &received);
        handle = received;
        afterHandle(log, handle);
        return MapErrorOrdinal(static_cast<int32_t>(ordinal));
    };
}

// The detail lines that end both forms of CreateObject: the handle, then the end line.
void LogCreateObjectEnded(JNIWrapperLog* log, const WideString& handle) {
    LogDetail(log, handle);
    LogDetail(log, kCreateObjectEnded);
}

// The handle operations other than CreateObject write nothing after the call.
void NoLinesAfterHandle(JNIWrapperLog*, const WideString&) {}

}  // namespace

uint32_t JNIBridge::CreateObject(const WideString& name, WideString& handle) {
    return RunCallFrame(
        Context(), kCreateObject,
        [&](JavaArguments& arguments) {
            arguments.AddString(name);
            LogDetail(m_pLog, name);
        },
        HandleConversion(m_pLog, handle, LogCreateObjectEnded));
}

uint32_t JNIBridge::CreateObject(const WideString& name, ObjectMetaData* metaData, WideString& handle) {
    return RunCallFrame(
        Context(), kCreateObjectWithMetaData,
        [&](JavaArguments& arguments) {
            arguments.AddString(name);
            LogDetail(m_pLog, name);
            if (metaData) {
                // An empty map gives an array of length 0, never null.
                arguments.AddObject(MakePluginMetaDataArray(arguments.Env(), metaData));
            } else {
                // No metadata still calls Java, with a null array.
                LogError(m_pLog, kNullMetaDataLine + name);
                arguments.AddNull();
            }
        },
        HandleConversion(m_pLog, handle, LogCreateObjectEnded));
}

uint32_t JNIBridge::OpenObject(const WideString& name, WideString& handle) {
    return RunCallFrame(
        Context(), kOpenObject, [&](JavaArguments& arguments) { arguments.AddString(name); },
        HandleConversion(m_pLog, handle, NoLinesAfterHandle));
}

uint32_t JNIBridge::OpenObject(const WideString& name, WideString& handle, bool flag) {
    return RunCallFrame(
        Context(), kOpenObjectWithFlag,
        [&](JavaArguments& arguments) {
            arguments.AddString(name);
            // The flag's meaning is the Java library's; it is passed on as it is.
            arguments.AddBoolean(flag);
        },
        HandleConversion(m_pLog, handle, NoLinesAfterHandle));
}

uint32_t JNIBridge::CreateCachedObject(const WideString& name, WideString& handle) {
    return RunCallFrame(
        Context(), kCreateCachedObject, [&](JavaArguments& arguments) { arguments.AddString(name); },
        HandleConversion(m_pLog, handle, NoLinesAfterHandle));
}

uint32_t JNIBridge::CloseObject(const WideString& handle) {
    return RunCallFrame(
        Context(), kCloseObject, [&](JavaArguments& arguments) { arguments.AddString(handle); },
        [this](JNIEnv* env, jobject result) { return GetErrorId(env, m_pLog, result); });
}
