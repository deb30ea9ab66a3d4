// Account and storage keys: what the Java library knows about the storage
// account (its description, its size, its names), the account's storage
// keys, the server names and the two sizing and backup questions.
//
// Storage keys are Java's answers handed straight to the host: no line of
// this file carries a key (the lines of GetQVCloudStorageKey name only its
// first text).
#include <cstdint>
#include <utility>

#include "bridge/CallFrame.h"
#include "bridge/JNIBridge.h"
#include "marshal/ResultConversions.h"

namespace {

// The exception line that most operations of this family share (the host has
// always seen this name here).
constexpr const char16_t* kSharedExceptionLine = u"CreateObject::Exception is occured...";
constexpr const char16_t* kUniqueAccountExceptionLine = u"GetUniqueAccountName::Exception is occured...";

OperationTraits GetAccountInfoTraits() {
    OperationTraits op{"GetAccountInfo", "()Lcom/qv/AzureLibrary/CGetAccountInfoFnValue;",
                       MissingMethodRule::ReturnSuccess, kSharedExceptionLine};
    op.testClass = true;
    op.missingMethodLine = u"GET_ACCOUNT_INFO_NAME::method is not found...";
    return op;
}

OperationTraits GetAllObjectsSizeTraits() {
    return {"GetAllObjectsSize", "()Lcom/qv/AzureLibrary/CGetAccountSizeValue;", MissingMethodRule::TakeNullResult,
            u"GetAllObjectsSize::Exception is occured..."};
}

// GetUniqueAccountName and GetOwnerName: a missing class ends with 40 and no
// line of its own; both write GetUniqueAccountName's exception line.
OperationTraits AccountNameTraits(const char* javaName) {
    OperationTraits op{javaName, "()Lcom/qv/AzureLibrary/CUniqueAccountValue;", MissingMethodRule::TakeNullResult,
                       kUniqueAccountExceptionLine};
    op.testClass = true;
    op.missingClassLine = nullptr;
    return op;
}

OperationTraits IsSameAccountTraits() {
    return {"IsSameAccount", "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;",
            MissingMethodRule::TakeNullResult, u"IsSameAccount::Exception is occured..."};
}

OperationTraits GetStorageKeyTraits() {
    OperationTraits op{"getStorageKey", "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/plugin/model/CString;",
                       MissingMethodRule::TakeNullResult, u"GetQVCloudStorageKey::Exception is occured..."};
    op.calledLine = u"GetQVCloudStorageKey::Java called ...";
    op.endedLine = u"GetQVCloudStorageKey::Java ended ...";
    return op;
}

OperationTraits UpdateStorageKeyTraits() {
    OperationTraits op{"updateStorageKey", "()Lcom/qv/plugin/model/CString;", MissingMethodRule::ReturnSuccess,
                       kSharedExceptionLine};
    op.missingMethodLine = u"UPDATE_STORAGE_KEY_NAME::method is not found...";
    return op;
}

OperationTraits ServerNameListTraits() {
    OperationTraits op{"getServerNameList", "()Lcom/qv/plugin/model/CArrayOfString;",
                       MissingMethodRule::ReturnSuccess, kSharedExceptionLine};
    op.missingMethodLine = u"GET_MACHINE_NAME_LIST_NAME::method is not found...";
    return op;
}

OperationTraits CanBackupTraits() {
    OperationTraits op{"canBackup", "()Lcom/qv/plugin/model/CInt;", MissingMethodRule::ReturnSuccess,
                       kSharedExceptionLine};
    op.missingMethodLine = u"CANBACKUP_NAME::method is not found...";
    return op;
}

constexpr const char* kObjectActualSizeName = "GetObjectActualSize";
constexpr const char* kObjectActualSizeSignature = "(JJ)J";
constexpr const char16_t* kObjectActualSizeMissingLine = u"GET_OBJECT_ACTUAL_SIZE_NAME::method is not found...";

// The operations without arguments.
void NoArguments(JavaArguments&) {}

}  // namespace

uint32_t JNIBridge::GetAccountInfo(AccountInfoRecord* info) {
    return RunCallFrame(Context(), GetAccountInfoTraits(), NoArguments, [&](JNIEnv* env, jobject result) {
        uint32_t ordinal = 0;
        ConvertCGetAccountInfoFnValue(env, result, &ordinal, info);
        return MapErrorOrdinal(static_cast<int32_t>(ordinal));
    });
}

uint32_t JNIBridge::GetAllObjectsSize(int64_t* size) {
    return RunCallFrame(Context(), GetAllObjectsSizeTraits(), NoArguments, [&](JNIEnv* env, jobject result) {
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
uint32_t RunAccountName(const BridgeContext& bridge, const char* javaName, WideString& name) {
    return RunCallFrame(bridge, AccountNameTraits(javaName), NoArguments, [&](JNIEnv* env, jobject result) {
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
    return RunAccountName(Context(), "GetUniqueAccountName", name);
}

uint32_t JNIBridge::GetOwnerName(WideString& name) { return RunAccountName(Context(), "GetOwnerName", name); }

uint32_t JNIBridge::IsSameAccount(const WideString& first, const WideString& second, uint32_t* same) {
    return RunCallFrame(
        Context(), IsSameAccountTraits(),
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
        Context(), GetStorageKeyTraits(), first,
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
    return RunCallFrame(Context(), UpdateStorageKeyTraits(), NoArguments, [&](JNIEnv* env, jobject result) {
        uint32_t ordinal = 0;
        ConvertCString(env, result, &ordinal, &key);
        return MapErrorOrdinal(static_cast<int32_t>(ordinal));
    });
}

uint32_t JNIBridge::getServerNameList(StringList* names) {
    return RunCallFrame(Context(), ServerNameListTraits(), NoArguments, [&](JNIEnv* env, jobject result) {
        uint32_t ordinal = 0;
        ConvertCArrayOfString(env, result, &ordinal, names);
        return MapErrorOrdinal(static_cast<int32_t>(ordinal));
    });
}

uint32_t JNIBridge::CanBackup(int32_t* value) {
    return RunCallFrame(Context(), CanBackupTraits(), NoArguments, [&](JNIEnv* env, jobject result) {
        // The value starts at 0, so a null result answers 0; any other integer is Java's to give.
        uint32_t ordinal = 0;
        int32_t answer = 0;
        ConvertCInt(env, result, &ordinal, &answer);
        if (value) *value = answer;
        return MapErrorOrdinal(static_cast<int32_t>(ordinal));
    });
}

// The Java method answers a long, not a value object, so the call is made
// here with CallLongMethodA instead of through RunCallFrame; the steps around
// it are the frame's: the class is tested, a missing method writes its line
// and ends with 0 (40 while an exception is pending). A Java exception out of
// the method counts as a failure of the operation: it is cleared, the
// exception line is written and the result is 40, the output untouched.
uint32_t JNIBridge::GetObjectActualSize(uint64_t first, uint64_t second, int64_t* actualSize) {
    AutoAttachJVM guard(m_pJVM, m_pLog);
    JNIEnv* env = guard.GetJNIEnv();
    if (!env || !m_ObjQVAzurePlugInLibrary) return kResultBridgeFailure;
    try {
        LocalRef<jclass> cls(env, env->GetObjectClass(m_ObjQVAzurePlugInLibrary));
        if (!cls) {
            ClearPendingException(env);
            LogError(m_pLog, u"m_ObjQVAzurePlugInLibrary is failed...");
            return kResultBridgeFailure;
        }
        const jmethodID method =
            GetAzurePlugInObjectMethod(env, m_pLog, cls.get(), kObjectActualSizeName, kObjectActualSizeSignature);
        if (!method) {
            LogError(m_pLog, kObjectActualSizeMissingLine);
            return DescribeException(env, m_pLog) == 0 ? kResultBridgeFailure : kResultSuccess;
        }
        JavaArguments arguments(env);
        arguments.AddLong(static_cast<int64_t>(first));
        arguments.AddLong(static_cast<int64_t>(second));
        const jlong answer = env->CallLongMethodA(m_ObjQVAzurePlugInLibrary, method, arguments.Values());
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
