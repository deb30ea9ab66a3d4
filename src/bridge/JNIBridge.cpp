#include "bridge/JNIBridge.h"

namespace {
constexpr const char* kPluginConstructorSignature = "(Lcom/qv/AzureLibrary/CPluginInitData;)V";
constexpr const char* kAzureInitName = "AzureInit";
constexpr const char* kAzureInitSignature =
    "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kAzureDeInitName = "AzureDeInit";
constexpr const char* kAzureDeInitSignature = "()Lcom/qv/QVCloudPluginInterface/CErrorValue;";
// The init data is made from the AmazonLibrary class, which extends the
// AzureLibrary class that the plug-in's constructor names.
constexpr const char* kInitDataClass = "com/qv/AmazonLibrary/CPluginInitData";
constexpr const char* kInitDataBaseClass = "com/qv/AzureLibrary/CPluginInitData";
}  // namespace

JNIBridge::JNIBridge(const WideString& hostFolder, CloudPluginCreateInfo* pInitData)
    : m_strHostFolder(hostFolder), m_pInitData(pInitData) {
    m_pJVM = pInitData && pInitData->jvmRef ? *pInitData->jvmRef : nullptr;
    JVMHost::Instance().SetHostJVM(m_pJVM, pInitData ? pInitData->jvmRef : nullptr);
}

uint32_t JNIBridge::InitialiseCommunication(const WideString& hostFolder) {
    try {
        const uint32_t result = JVMHost::Instance().AttachToJVM(hostFolder, &m_pJVM);
        if (m_pJVM && result == kResultSuccess) {
            LogDetail(m_pLog, u"InitialiseCommunication::JVM is intailzed properly...");
            return 1;
        }
        LogError(m_pLog, u"InitialiseCommunication::JVM is not intailzed properly...");
        return 0;
    } catch (...) {
        LogError(m_pLog, u"InitialiseCommunication::Exception is occured...");
        return 0;
    }
}

jobject JNIBridge::CreatePluginInitData(JNIEnv* env, const CloudPluginCreateInfo* pInitData) {
    if (!env || !pInitData) return nullptr;
    // A missing class or constructor leaves its Java exception pending for
    // the caller to describe.
    LocalRef<jclass> cls(env, env->FindClass(kInitDataClass));
    if (!cls) return nullptr;
    const jmethodID constructor = env->GetMethodID(cls.get(), "<init>", "(Ljava/lang/String;Ljava/lang/String;)V");
    if (!constructor) return nullptr;
    LocalRef<jstring> installFolder(env, GetJStringFromWideString(env, pInitData->installFolder));
    LocalRef<jstring> logFolder(env, GetJStringFromWideString(env, pInitData->logFolder));
    return env->NewObject(cls.get(), constructor, installFolder.get(), logFolder.get());
}

uint32_t JNIBridge::StartCommunication() {
    AutoAttachJVM guard(m_pJVM, m_pLog);
    JNIEnv* env = guard.GetJNIEnv();
    if (!env) return kResultBridgeFailure;
    try {
        LocalRef<jclass> cls(env, GetAzurePlugInClass(env, m_pLog));
        if (!cls) return kResultBridgeFailure;
        const jmethodID constructor =
            GetAzurePlugInObjectMethod(env, m_pLog, cls.get(), "<init>", kPluginConstructorSignature);
        if (!constructor && DescribeException(env, m_pLog) == 0) {
            LogError(m_pLog, u"StartCommunication::Failed to get the constructor method...");
            return kResultBridgeFailure;
        }
        LocalRef<jobject> initData(env, CreatePluginInitData(env, m_pInitData));
        if (!initData) {
            DescribeException(env, m_pLog);
            LogError(m_pLog, u"StartCommunication::Failed to jstring...");
            return kResultBridgeFailure;
        }
        // Without a constructor, or with init data that is not the class the
        // constructor names, no object can be made.
        LocalRef<jclass> baseClass(env, env->FindClass(kInitDataBaseClass));
        const bool initDataFits = baseClass && env->IsInstanceOf(initData.get(), baseClass.get());
        LocalRef<jobject> plugin(env, constructor && initDataFits
                                          ? env->NewObject(cls.get(), constructor, initData.get())
                                          : nullptr);
        if (!plugin) {
            DescribeException(env, m_pLog);
            LogError(m_pLog, u"StartCommunication::Failed to Create plugin Object...");
            return kResultBridgeFailure;
        }
        // A second start replaces the reference without releasing the first.
        m_ObjQVAzurePlugInLibrary = env->NewGlobalRef(plugin.get());
        return kResultSuccess;
    } catch (...) {
        ClearPendingException(env);
        LogError(m_pLog, u"StartCommunication::Exception is occured...");
        return kResultBridgeFailure;
    }
}

uint32_t JNIBridge::Init(const WideString& a, const WideString& b) {
    if (!m_pJVM) {
        LogError(m_pLog, u"JVM is not created properly..");
        return kResultBridgeFailure;
    }
    AutoAttachJVM guard(m_pJVM, m_pLog);
    JNIEnv* env = guard.GetJNIEnv();
    if (!env || !m_ObjQVAzurePlugInLibrary) return kResultBridgeFailure;
    try {
        LocalRef<jclass> cls(env, env->GetObjectClass(m_ObjQVAzurePlugInLibrary));
        if (!cls) {
            ClearPendingException(env);
            return kResultBridgeFailure;
        }
        const jmethodID method =
            GetAzurePlugInObjectMethod(env, m_pLog, cls.get(), kAzureInitName, kAzureInitSignature);
        LocalRef<jstring> ja(env, GetJStringFromWideString(env, a));
        LocalRef<jstring> jb(env, GetJStringFromWideString(env, b));
        // A missing AzureInit counts as success here.
        if (!method) return kResultSuccess;
        LocalRef<jobject> result(env, env->CallObjectMethod(m_ObjQVAzurePlugInLibrary, method, ja.get(), jb.get()));
        if (!result) {
            ClearPendingException(env);
            return kResultBridgeFailure;
        }
        if (DescribeException(env, m_pLog) == 0) return kResultBridgeFailure;
        return GetErrorId(env, m_pLog, result.get());
    } catch (...) {
        ClearPendingException(env);
        LogError(m_pLog, u"Init::Exception is occured...");
        return kResultBridgeFailure;
    }
}

uint32_t JNIBridge::Init(const WideString& a) {
    if (!m_pJVM) {
        LogError(m_pLog, u"JVM is not created properly..");
        return kResultBridgeFailure;
    }
    AutoAttachJVM guard(m_pJVM, m_pLog);
    JNIEnv* env = guard.GetJNIEnv();
    if (!env || !m_ObjQVAzurePlugInLibrary) return kResultBridgeFailure;
    try {
        LocalRef<jclass> cls(env, env->GetObjectClass(m_ObjQVAzurePlugInLibrary));
        if (!cls) {
            DescribeException(env, m_pLog);
            LogError(m_pLog, u"jclsQVAzurePlugInLibrary is NULL");
            return kResultBridgeFailure;
        }
        const jmethodID method =
            GetAzurePlugInObjectMethod(env, m_pLog, cls.get(), kAzureInitName, kAzureInitSignature);
        LocalRef<jstring> ja(env, GetJStringFromWideString(env, a));
        LocalRef<jstring> jb(env, GetJStringFromWideString(env, m_strHostFolder));
        LocalRef<jobject> result(env, nullptr);
        if (method && ja && jb) {
            result.reset(env->CallObjectMethod(m_ObjQVAzurePlugInLibrary, method, ja.get(), jb.get()));
            if (result) return GetErrorId(env, m_pLog, result.get());
        }
        DescribeException(env, m_pLog);
        LogError(m_pLog, u"Init:: Could not get the error object");
        return kResultBridgeFailure;
    } catch (...) {
        ClearPendingException(env);
        LogError(m_pLog, u"Init::Exception is occured...");
        return kResultBridgeFailure;
    }
}

uint32_t JNIBridge::DeInit() {
    AutoAttachJVM guard(m_pJVM, m_pLog);
    JNIEnv* env = guard.GetJNIEnv();
    if (!env || !m_ObjQVAzurePlugInLibrary) return kResultBridgeFailure;
    try {
        LocalRef<jclass> cls(env, env->GetObjectClass(m_ObjQVAzurePlugInLibrary));
        if (!cls) {
            ClearPendingException(env);
            return kResultBridgeFailure;
        }
        const jmethodID method =
            GetAzurePlugInObjectMethod(env, m_pLog, cls.get(), kAzureDeInitName, kAzureDeInitSignature);
        // A missing AzureDeInit with an exception pending ends at once,
        // keeping the plug-in object.
        if (!method && DescribeException(env, m_pLog) == 0) return kResultBridgeFailure;
        uint32_t code = kResultSuccess;
        LocalRef<jobject> result(env, nullptr);
        if (method) {
            result.reset(env->CallObjectMethod(m_ObjQVAzurePlugInLibrary, method));
            code = GetErrorId(env, m_pLog, result.get());
        }
        if (DescribeException(env, m_pLog) == 1) {
            LogDetail(m_pLog, u"DeInit Vm called...");
        } else {
            code = kResultBridgeFailure;
        }
        env->DeleteGlobalRef(m_ObjQVAzurePlugInLibrary);
        m_ObjQVAzurePlugInLibrary = nullptr;
        return code;
    } catch (...) {
        ClearPendingException(env);
        LogError(m_pLog, u"DeInit::Exception is occured...");
        return kResultBridgeFailure;
    }
}
