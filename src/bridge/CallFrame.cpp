#include "bridge/CallFrame.h"

LocalRef<jclass> GetAzurePlugInClass(JNIEnv* env, JNIWrapperLog* log) {
    try {
        LocalRef<jclass> cls(env, env->FindClass("com/qv/AzureLibrary/QVAzurePlugInLibrary"));
        if (!cls) {
            DescribePendingException(env, log);
            LogError(log, u"GetAzurePlugInClass::Class object is not got...");
        }
        return cls;
    } catch (...) {
        LogError(log, u"GetAzurePlugInClass::Exception is occured...");
        return LocalRef<jclass>(env, nullptr);
    }
}

jmethodID GetAzurePlugInObjectMethod(JNIEnv* env, JNIWrapperLog* log, jclass cls, const char* name,
                                     const char* signature) {
    try {
        const jmethodID method = cls ? env->GetMethodID(cls, name, signature) : nullptr;
        if (!method) {
            DescribePendingException(env, log);
            LogError(log, u"GetAzurePlugInObjectMethod::Method is not got... Method Name:- ");
            LogError(log, NarrowBytesAsWide(name));
            LogError(log, NarrowBytesAsWide(signature));
        }
        return method;
    } catch (...) {
        LogError(log, u"GetAzurePlugInObjectMethod::Exception is occured...");
        return nullptr;
    }
}

std::optional<uint32_t> FrameOpening::TakePluginClass(MissingClassRule rule, const char16_t* missingClassLine) {
    m_class.reset(m_env->GetObjectClass(m_bridge.plugin));
    if (m_class) return std::nullopt;
    switch (rule) {
    case MissingClassRule::NotTested:
        // The lookup on the null class describes a pending exception.
        return std::nullopt;
    case MissingClassRule::Fail:
        ClearPendingException(m_env);
        if (missingClassLine) LogError(m_bridge.log, missingClassLine);
        return kResultBridgeFailure;
    case MissingClassRule::DescribeAndFail:
        DescribePendingException(m_env, m_bridge.log);
        if (missingClassLine) LogError(m_bridge.log, missingClassLine);
        return kResultBridgeFailure;
    case MissingClassRule::DescribeThenGoOn:
        if (DescribePendingException(m_env, m_bridge.log)) return kResultBridgeFailure;
        return std::nullopt;
    }
    return kResultBridgeFailure;
}

bool FrameOpening::FindPluginClass() {
    m_class = GetAzurePlugInClass(m_env, m_bridge.log);
    return static_cast<bool>(m_class);
}
