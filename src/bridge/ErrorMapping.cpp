#include "bridge/ErrorMapping.h"

#include "bridge/BridgeLog.h"
#include "bridge/LocalRef.h"
#include "marshal/JniValues.h"

namespace {

constexpr const char* kErrorValueClass = "com/qv/QVCloudPluginInterface/CErrorValue";
constexpr const char* kGetErrorIdName = "getErrorID";
constexpr const char* kGetErrorIdSignature = "()Lcom/qv/QVCloudPluginInterface/ERRORID;";
constexpr const char* kGetOrdinalName = "getOrdinalValue";
constexpr const char* kGetOrdinalSignature = "()I";

// The lines name the plug-in class whatever failed; hosts' log readers
// know them so.
constexpr const char16_t* kCantFindClass = u"Can't FindClass(com/qv/AzureLibrary/QVAzurePlugInLibrary)";
constexpr const char16_t* kCantGetMethod = u"Can't GetMethod(com/qv/AzureLibrary/QVAzurePlugInLibrary)";

// Host result code by ERRORID ordinal. The table is irregular on purpose:
// it is what hosts have always received for each Java error.
constexpr uint32_t kCodeByOrdinal[] = {
    0,  1,  2,  7,  4,  5,  6,  8,  9,  10, 11, 12, 13, 14, 15, 16, 17,  // 0..16
    18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 30, 29, 30, 31, 32, 33,      // 17..32
    34, 35, 36, 37, 38, 1,  1,  47, 1,  42, 43, 44, 23, 49, 45, 46,      // 33..48
};
// Ordinal 40, what a failed conversion reports, reaches the host as 47.
static_assert(kCodeByOrdinal[40] == kResultFailedConversion, "ordinal 40 maps to 47");

}  // namespace

uint32_t MapErrorOrdinal(int32_t ordinal) {
    constexpr int32_t count = static_cast<int32_t>(sizeof kCodeByOrdinal / sizeof kCodeByOrdinal[0]);
    static_assert(count == 49, "one code for each ERRORID ordinal 0..48");
    return ordinal >= 0 && ordinal < count ? kCodeByOrdinal[ordinal] : kResultUnmappedOrdinal;
}

bool DescribePendingException(JNIEnv* env, JNIWrapperLog* log) {
    try {
        if (!env->ExceptionCheck()) return false;
        const LocalRef<jthrowable> thrown(env, env->ExceptionOccurred());
        env->ExceptionClear();
        std::optional<WideString> text;
        if (thrown) {
            const LocalRef<jclass> cls(env, env->GetObjectClass(thrown.get()));
            const jmethodID toString =
                cls ? env->GetMethodID(cls.get(), "toString", "()Ljava/lang/String;") : nullptr;
            if (toString) {
                const LocalRef<jstring> javaText(
                    env, static_cast<jstring>(env->CallObjectMethod(thrown.get(), toString)));
                if (!ClearPendingException(env)) text = GetWideStringFromJString(env, javaText.get());
            } else {
                ClearPendingException(env);
            }
        }
        if (!log) return true;
        LogDetail(log, u"Descrption is failed");
        LogDetail(log, text ? *text : WideString());
        return true;
    } catch (...) {
        LogError(log, u"DescribeException::Exception is occured...");
        return true;
    }
}

uint32_t GetErrorId(JNIEnv* env, JNIWrapperLog* log, jobject errorValue) {
    try {
        if (!errorValue) return kResultBridgeFailure;
        LocalRef<jclass> cls(env, env->FindClass(kErrorValueClass));
        if (!cls) {
            DescribePendingException(env, log);
            LogError(log, WideString(kCantFindClass) + u"\n");
            return kResultBridgeFailure;
        }
        const jmethodID getErrorId = env->GetMethodID(cls.get(), kGetErrorIdName, kGetErrorIdSignature);
        if (!getErrorId) {
            DescribePendingException(env, log);
            LogError(log, WideString(kCantGetMethod) + u"\n");
            return kResultBridgeFailure;
        }
        const jmethodID getOrdinal = env->GetMethodID(cls.get(), kGetOrdinalName, kGetOrdinalSignature);
        if (!getOrdinal) {
            DescribePendingException(env, log);
            LogError(log, WideString(kCantGetMethod) + u"\n");
            return kResultBridgeFailure;
        }
        LocalRef<jobject> errorId(env, env->CallObjectMethod(errorValue, getErrorId));
        if (!errorId) {
            ClearPendingException(env);
            LogError(log, kCantFindClass);
            return kResultBridgeFailure;
        }
        // The ordinal is asked of the CErrorValue itself, not of its ERRORID.
        const jint ordinal = env->CallIntMethod(errorValue, getOrdinal);
        ClearPendingException(env);
        return MapErrorOrdinal(ordinal);
    } catch (...) {
        LogError(log, u"GetErrorId:: Exception is occured");
        return kResultBridgeFailure;
    }
}

void ReadErrorOrdinal(JNIEnv* env, jobject errorValue, uint32_t* ordinalOut) {
    try {
        LocalRef<jclass> cls(env, env->FindClass(kErrorValueClass));
        if (!cls) {
            TracePendingException(env);
            TraceToStdout("Can't FindClass(com/qv/AzureLibrary/QVAzurePlugInLibrary)\n");
        }
        // A missing class makes both method lookups fail.
        const jmethodID getErrorId = GetMethodIdWithReport(env, cls.get(), kGetErrorIdName, kGetErrorIdSignature);
        const jmethodID getOrdinal = GetMethodIdWithReport(env, cls.get(), kGetOrdinalName, kGetOrdinalSignature);
        if (!getErrorId || !getOrdinal) {
            TraceToStdout("Can't GetMethod(com/qv/AzureLibrary/QVAzurePlugInLibrary)\n");
            return;
        }
        if (!ordinalOut) return;
        if (!errorValue) {
            *ordinalOut = kResultBridgeFailure;
            return;
        }
        const jint ordinal = env->CallIntMethod(errorValue, getOrdinal);
        ClearPendingException(env);
        *ordinalOut = static_cast<uint32_t>(ordinal);
    } catch (...) {
        if (ordinalOut) *ordinalOut = kResultBridgeFailure;
    }
}
