// The operations that delete objects and ask whether an object (or a path)
// exists: DeleteObjectByName, DeleteObjectByHandle (one handle, or a list),
// DeleteCachedObjectByName, IsObjectExist and IsObjectPathSupported.

#include "bridge/JNIBridge.h"
#include "marshal/ResultConversions.h"

namespace {

constexpr const char* kDeleteByStringSignature = "(Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kDeleteByHandleListSignature =
    "([Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kIsObjectExistSignature = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;";
constexpr const char* kIsObjectPathSupportedSignature =
    "(Ljava/lang/String;I)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;";

constexpr const char16_t* kDeleteObjectByNameException = u"DeleteObjectByName::Exception is occured...";
constexpr const char16_t* kDeleteObjectByHandleException = u"DeleteObjectByHandle::Exception is occured...";
constexpr const char16_t* kDeleteCachedObjectByNameException = u"DeleteCachedObjectByName::Exception is occured...";
// IsObjectPathSupported has no line of its own and writes this one too.
constexpr const char16_t* kIsObjectExistException = u"IsObjectExist::Exception is occured...";

// DeleteObjectByName tests the plug-in object's class: a null class with a
// Java exception pending describes it and gives 40; with none pending the
// operation goes on, and the method lookup on the null class fails, which
// ends with 0.
constexpr OperationTraits kDeleteObjectByName =
    Operation("DeleteObjectByName", kDeleteByStringSignature, MissingMethodRule::ReturnSuccess,
              kDeleteObjectByNameException)
        .WithoutClass(MissingClassRule::DescribeThenGoOn);

constexpr OperationTraits kDeleteObjectByHandle = Operation(
    "DeleteObjectByHandle", kDeleteByStringSignature, MissingMethodRule::ReturnSuccess, kDeleteObjectByHandleException);

// A missing method reads as a null result here (47 below).
constexpr OperationTraits kDeleteObjectByHandleList =
    Operation("DeleteObjectByHandle", kDeleteByHandleListSignature, MissingMethodRule::TakeNullResult,
              kDeleteObjectByHandleException);

constexpr OperationTraits kDeleteCachedObjectByName =
    Operation("DeleteCachedObjectByName", kDeleteByStringSignature, MissingMethodRule::ReturnSuccess,
              kDeleteCachedObjectByNameException)
        .FailingWithoutClass(kMissingPluginClassLine);

// The existence questions: a missing method reads as a null result (the flag
// becomes 0 and the result 0).
constexpr OperationTraits kIsObjectExist =
    Operation("IsObjectExist", kIsObjectExistSignature, MissingMethodRule::TakeNullResult, kIsObjectExistException)
        .FailingWithoutClass(kMissingPluginClassLine);
constexpr OperationTraits kIsObjectPathSupported =
    Operation("IsObjectPathSupported", kIsObjectPathSupportedSignature, MissingMethodRule::TakeNullResult,
              kIsObjectExistException)
        .FailingWithoutClass(kMissingPluginClassLine);

// Converts the CIsObjectExistFnValue of an existence question: the flag
// (isExist as 1 or 0, 0 when Java gave none) goes to `*flagOut` when there is
// one, and the result is the mapped error ordinal. A Java error still writes
// the flag.
auto ExistenceConversion(uint32_t* flagOut) {
    return [flagOut](JNIEnv* env, jobject result) {
        uint32_t ordinal = 0;
        uint32_t flag = 0;
        ConvertCIsObjectExistFnValue(env, result, &ordinal, &flag);
        if (flagOut) *flagOut = flag;
        return MapErrorOrdinal(static_cast<int32_t>(ordinal));
    };
}

}  // namespace

uint32_t JNIBridge::DeleteObjectByName(const WideString& name) {
    return RunCallFrame(
        Context(), kDeleteObjectByName,
        [&](JavaArguments& arguments) {
            // The trace line of every deletion: the exception text followed by
            // the name, written before Java is called whatever happens next.
            LogError(m_pLog, kDeleteObjectByNameException + name);
            arguments.AddString(name);
        },
        [this](JNIEnv* env, jobject result) { return GetErrorId(env, m_pLog, result); });
}

uint32_t JNIBridge::DeleteObjectByHandle(const WideString& handle) {
    return RunCallFrame(
        Context(), kDeleteObjectByHandle, [&](JavaArguments& arguments) { arguments.AddString(handle); },
        [this](JNIEnv* env, jobject result) { return GetErrorId(env, m_pLog, result); });
}

uint32_t JNIBridge::DeleteObjectByHandle(const WideString* handles, uint32_t count) {
    return RunCallFrame(
        Context(), kDeleteObjectByHandleList,
        [&](JavaArguments& arguments) {
            // A count below 1 (or one beyond a Java array's reach) passes a null array.
            arguments.AddObject(CreateJStringArray(arguments.Env(), static_cast<int32_t>(count), handles));
        },
        [](JNIEnv* env, jobject result) {
            // The ordinal is read straight from the CErrorValue: a null one
            // reads as 40, which maps to 47 (the single-handle form gives 40).
            uint32_t ordinal = 0;
            ReadErrorOrdinal(env, result, &ordinal);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

uint32_t JNIBridge::DeleteCachedObjectByName(const WideString& name) {
    return RunCallFrame(
        Context(), kDeleteCachedObjectByName, [&](JavaArguments& arguments) { arguments.AddString(name); },
        [this](JNIEnv* env, jobject result) { return GetErrorId(env, m_pLog, result); });
}

uint32_t JNIBridge::IsObjectExist(const WideString& name, uint32_t* exists) {
    return RunCallFrame(
        Context(), kIsObjectExist, [&](JavaArguments& arguments) { arguments.AddString(name); }, ExistenceConversion(exists));
}

uint32_t JNIBridge::IsObjectPathSupported(const WideString& path, int32_t pathType, uint32_t* supported) {
    return RunCallFrame(
        Context(), kIsObjectPathSupported,
        [&](JavaArguments& arguments) {
            arguments.AddString(path);
            // The path type's meaning is the Java library's; it is passed on unchanged.
            arguments.AddInt(pathType);
        },
        ExistenceConversion(supported));
}
