// Account and storage keys: what the Java library knows about the storage
// account (its description, its size, its names), the account's storage
// keys, the server names and the two sizing and backup questions.
//
// Storage keys are Java's answers handed straight to the host: no line of
// this file carries a key (the lines of GetQVCloudStorageKey name only its
// first text).
#include <cstdint>
#include <optional>
#include <utility>

#include "bridge/CallFrame.h"
#include "bridge/JNIBridge.h"
#include "marshal/ResultConversions.h"

namespace {

// The exception line that most operations of this family share (the host has
// always seen this name here).
constexpr const char16_t* kSharedExceptionLine = u"CreateObject::Exception is occured...";
constexpr const char16_t* kUniqueAccountExceptionLine = u"GetUniqueAccountName::Exception is occured...";

constexpr OperationTraits kGetAccountInfo =
    Operation("GetAccountInfo", "()Lcom/qv/AzureLibrary/CGetAccountInfoFnValue;", MissingMethodRule::ReturnSuccess,
              kSharedExceptionLine)
        .FailingWithoutClass(kMissingPluginClassLine)
        .MissingMethodLine(u"GET_ACCOUNT_INFO_NAME::method is not found...");

constexpr OperationTraits kGetAllObjectsSize =
    Operation("GetAllObjectsSize", "()Lcom/qv/AzureLibrary/CGetAccountSizeValue;", MissingMethodRule::TakeNullResult,
              u"GetAllObjectsSize::Exception is occured...");

// GetUniqueAccountName and GetOwnerName: a missing class ends with 40 and no
// line of its own; both write GetUniqueAccountName's exception line.
constexpr OperationTraits kGetUniqueAccountName =
    Operation("GetUniqueAccountName", "()Lcom/qv/AzureLibrary/CUniqueAccountValue;",
              MissingMethodRule::TakeNullResult, kUniqueAccountExceptionLine)
        .FailingWithoutClass();
constexpr OperationTraits kGetOwnerName =
    Operation("GetOwnerName", "()Lcom/qv/AzureLibrary/CUniqueAccountValue;", MissingMethodRule::TakeNullResult,
              kUniqueAccountExceptionLine)
        .FailingWithoutClass();

constexpr OperationTraits kIsSameAccount =
    Operation("IsSameAccount", "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;",
              MissingMethodRule::TakeNullResult, u"IsSameAccount::Exception is occured...");

constexpr OperationTraits kGetStorageKey =
    Operation("getStorageKey", "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/plugin/model/CString;",
              MissingMethodRule::TakeNullResult, u"GetQVCloudStorageKey::Exception is occured...")
        .CalledLine(u"GetQVCloudStorageKey::Java called ...")
        .EndedLine(u"GetQVCloudStorageKey::Java ended ...");

constexpr OperationTraits kUpdateStorageKey =
    Operation("updateStorageKey", "()Lcom/qv/plugin/model/CString;", MissingMethodRule::ReturnSuccess,
              kSharedExceptionLine)
        .MissingMethodLine(u"UPDATE_STORAGE_KEY_NAME::method is not found...");

constexpr OperationTraits kServerNameList =
    Operation("getServerNameList", "()Lcom/qv/plugin/model/CArrayOfString;", MissingMethodRule::ReturnSuccess,
              kSharedExceptionLine)
        .MissingMethodLine(u"GET_MACHINE_NAME_LIST_NAME::method is not found...");

constexpr OperationTraits kCanBackup =
    Operation("canBackup", "()Lcom/qv/plugin/model/CInt;", MissingMethodRule::ReturnSuccess, kSharedExceptionLine)
        .MissingMethodLine(u"CANBACKUP_NAME::method is not found...");

constexpr const char* kObjectActualSizeName = "GetObjectActualSize";
constexpr const char* kObjectActualSizeSignature = "(JJ)J";
constexpr const char16_t* kObjectActualSizeMissingLine = u"GET_OBJECT_ACTUAL_SIZE_NAME::method is not found...";

// The operations without arguments.
void NoArguments(JavaArguments&) {}

}  // namespace

uint32_t JNIBridge::GetAccountInfo(AccountInfoRecord* info) {
    return RunCallFrame(Context(), kGetAccountInfo, NoArguments, [&](JNIEnv* env, jobject result) {
        uint32_t ordinal = 0;
        ConvertCGetAccountInfoFnValue(env, result, &ordinal, info);
        return MapErrorOrdinal(static_cast<int32_t>(ordinal));
    });
}

uint32_t JNIBridge::GetAllObjectsSize(int64_t* size) {
    return RunCallFrame(Context(), kGetAllObjectsSize, NoArguments, [&](JNIEnv* env, jobject result) {
        // Without a result the size stays as the host left it.
        if (!result) return kResultBridgeFailure;
        uint32_t ordinal = 0;
        ConvertCGetAccountSizeValue(env, result, &ordinal, size);
        return MapErrorOrdinal(static_cast<int32_t>(ordinal));
    });
}

namespace {

// GetUniqueAccountName and GetOwnerName: a null result gives 40 with the name
// untouched; otherwise the name Java gave (empty when it gave none) is
// assigned, also when Java reports an error.
uint32_t RunAccountName(const BridgeContext& bridge, const OperationTraits& op, WideString& name) {
    return RunCallFrame(bridge, op, NoArguments, [&](JNIEnv* env, jobject result) {
        if (!result) return kResultBridgeFailure;
        uint32_t ordinal = 0;
        WideString accountName;
        ConvertCUniqueAccountValue(env, result, &ordinal, &accountName);
        const uint32_t code = MapErrorOrdinal(static_cast<int32_t>(ordinal));
        name = std::move(accountName);
        return code;
    });
}

}  // namespace

uint32_t JNIBridge::GetUniqueAccountName(WideString& name) {
    return RunAccountName(Context(), kGetUniqueAccountName, name);
}

uint32_t JNIBridge::GetOwnerName(WideString& name) { return RunAccountName(Context(), kGetOwnerName, name); }

uint32_t JNIBridge::IsSameAccount(const WideString& first, const WideString& second, uint32_t* same) {
    return RunCallFrame(
        Context(), kIsSameAccount,
        [&](JavaArguments& arguments) {
            arguments.AddString(first);
            arguments.AddString(second);
        },
        [&](JNIEnv* env, jobject result) {
            // The flag starts at 0, so a null result answers "not the same".
            uint32_t ordinal = 0;
            uint32_t flag = 0;
            ConvertCIsObjectExistFnValue(env, result, &ordinal, &flag);
            if (same) *same = flag;
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

uint32_t JNIBridge::GetQVCloudStorageKey(const WideString& first, const WideString& second, WideString& key) {
    // The called and ended lines name the first text only: the key never reaches the log.
    return RunCallFrame(
        Context(), kGetStorageKey, first,
        [&](JavaArguments& arguments) {
            arguments.AddString(first);
            arguments.AddString(second);
        },
        [&](JNIEnv* env, jobject result) {
            if (!result) {
                key.clear();
                return kResultBridgeFailure;
            }
            uint32_t ordinal = 0;
            ConvertCString(env, result, &ordinal, &key);
            return MapErrorOrdinal(static_cast<int32_t>(ordinal));
        });
}

uint32_t JNIBridge::updateStorageKey(WideString& key) {
    return RunCallFrame(Context(), kUpdateStorageKey, NoArguments, [&](JNIEnv* env, jobject result) {
        uint32_t ordinal = 0;
        ConvertCString(env, result, &ordinal, &key);
        return MapErrorOrdinal(static_cast<int32_t>(ordinal));
    });
}

uint32_t JNIBridge::getServerNameList(StringList* names) {
    return RunCallFrame(Context(), kServerNameList, NoArguments, [&](JNIEnv* env, jobject result) {
        uint32_t ordinal = 0;
        ConvertCArrayOfString(env, result, &ordinal, names);
        return MapErrorOrdinal(static_cast<int32_t>(ordinal));
    });
}

uint32_t JNIBridge::CanBackup(int32_t* value) {
    return RunCallFrame(Context(), kCanBackup, NoArguments, [&](JNIEnv* env, jobject result) {
        // The value starts at 0, so a null result answers 0; any other integer is Java's to give.
        uint32_t ordinal = 0;
        int32_t answer = 0;
        ConvertCInt(env, result, &ordinal, &answer);
        if (value) *value = answer;
        return MapErrorOrdinal(static_cast<int32_t>(ordinal));
    });
}

// The Java method answers a long, not a value object, so the call is made
// here with CallLongMethodA instead of through RunCallFrame; the frame opens
// as for every operation: the class is tested (its line, 40), a missing
// method writes its line and ends with 0 (40 while an exception is pending).
// A Java exception out of the method counts as a failure of the operation:
// it is cleared, the exception line is written and the result is 40, the
// output untouched.
uint32_t JNIBridge::GetObjectActualSize(uint64_t first, uint64_t second, int64_t* actualSize) {
    FrameOpening frame(Context());
    if (!frame.Ready()) return kResultBridgeFailure;
    JNIEnv* const env = frame.Env();
    try {
        if (const std::optional<uint32_t> end =
                frame.TakePluginClass(MissingClassRule::Fail, kMissingPluginClassLine))
            return *end;
        const jmethodID method = frame.LookUpMethod(kObjectActualSizeName, kObjectActualSizeSignature);
        if (!method) {
            LogError(m_pLog, kObjectActualSizeMissingLine);
            return DescribePendingException(env, m_pLog) ? kResultBridgeFailure : kResultSuccess;
        }
        JavaArguments arguments(env);
        arguments.AddLong(static_cast<int64_t>(first));
        arguments.AddLong(static_cast<int64_t>(second));
        const jlong answer = env->CallLongMethodA(PluginObject(), method, arguments.Values());
        if (ClearPendingException(env)) {
            LogError(m_pLog, kSharedExceptionLine);
            return kResultBridgeFailure;
        }
        if (actualSize) *actualSize = static_cast<int64_t>(answer);
        return kResultSuccess;
    } catch (...) {
        ClearPendingException(env);
        LogError(m_pLog, kSharedExceptionLine);
        return kResultBridgeFailure;
    }
}
