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

LocalRef<jobject> JNIBridge::CreatePluginInitData(JNIEnv* env, const CloudPluginCreateInfo* pInitData) {
    LocalRef<jobject> none(env, nullptr);
    if (!env || !pInitData) return none;
    // A missing class or constructor leaves its Java exception pending for
    // the caller to describe.
    const LocalRef<jclass> cls(env, env->FindClass(kInitDataClass));
    if (!cls) return none;
    const jmethodID constructor = env->GetMethodID(cls.get(), "<init>", "(Ljava/lang/String;Ljava/lang/String;)V");
    if (!constructor) return none;
    const LocalRef<jstring> installFolder = GetJStringFromWideString(env, pInitData->installFolder);
    const LocalRef<jstring> logFolder = GetJStringFromWideString(env, pInitData->logFolder);
    return LocalRef<jobject>(env, env->NewObject(cls.get(), constructor, installFolder.get(), logFolder.get()));
}

uint32_t JNIBridge::StartCommunication() {
    // The plug-in object does not exist yet: its class is found by name.
    FrameOpening frame(Context());
    JNIEnv* const env = frame.Env();
    if (!env) return kResultBridgeFailure;
    try {
        if (!frame.FindPluginClass()) return kResultBridgeFailure;
        const jmethodID constructor = frame.LookUpMethod("<init>", kPluginConstructorSignature);
        if (!constructor && DescribePendingException(env, m_pLog)) {
            LogError(m_pLog, u"StartCommunication::Failed to get the constructor method...");
            return kResultBridgeFailure;
        }
        const LocalRef<jobject> initData = CreatePluginInitData(env, m_pInitData);
        if (!initData) {
            DescribePendingException(env, m_pLog);
            LogError(m_pLog, u"StartCommunication::Failed to jstring...");
            return kResultBridgeFailure;
        }
        // Without a constructor, or with init data that is not the class the
        // constructor names, no object can be made.
        const LocalRef<jclass> baseClass(env, env->FindClass(kInitDataBaseClass));
        const bool initDataFits = baseClass && env->IsInstanceOf(initData.get(), baseClass.get());
        const LocalRef<jobject> plugin(env, constructor && initDataFits
                                                ? env->NewObject(frame.Class(), constructor, initData.get())
                                                : nullptr);
        if (!plugin) {
            DescribePendingException(env, m_pLog);
            LogError(m_pLog, u"StartCommunication::Failed to Create plugin Object...");
            return kResultBridgeFailure;
        }
        m_ObjQVAzurePlugInLibrary.Hold(env, plugin.get());
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
    FrameOpening frame(Context());
    if (!frame.Ready()) return kResultBridgeFailure;
    JNIEnv* const env = frame.Env();
    try {
        if (const std::optional<uint32_t> end = frame.TakePluginClass(MissingClassRule::Fail, nullptr)) return *end;
        const jmethodID method = frame.LookUpMethod(kAzureInitName, kAzureInitSignature);
        const LocalRef<jstring> ja = GetJStringFromWideString(env, a);
        const LocalRef<jstring> jb = GetJStringFromWideString(env, b);
        // A missing AzureInit counts as success here.
        if (!method) return kResultSuccess;
        const LocalRef<jobject> result(env, env->CallObjectMethod(PluginObject(), method, ja.get(), jb.get()));
        // A Java exception out of AzureInit reads as a null result here, without a trace.
        if (!result) {
            ClearPendingException(env);
            return kResultBridgeFailure;
        }
        if (DescribePendingException(env, m_pLog)) return kResultBridgeFailure;
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
    FrameOpening frame(Context());
    if (!frame.Ready()) return kResultBridgeFailure;
    JNIEnv* const env = frame.Env();
    try {
        if (const std::optional<uint32_t> end =
                frame.TakePluginClass(MissingClassRule::DescribeAndFail, u"jclsQVAzurePlugInLibrary is NULL"))
            return *end;
        const jmethodID method = frame.LookUpMethod(kAzureInitName, kAzureInitSignature);
        const LocalRef<jstring> ja = GetJStringFromWideString(env, a);
        const LocalRef<jstring> jb = GetJStringFromWideString(env, m_strHostFolder);
        if (method && ja && jb) {
            const LocalRef<jobject> result(env,
                                           env->CallObjectMethod(PluginObject(), method, ja.get(), jb.get()));
            if (result) return GetErrorId(env, m_pLog, result.get());
        }
        // A Java exception out of AzureInit is described here.
        DescribePendingException(env, m_pLog);
        LogError(m_pLog, u"Init:: Could not get the error object");
        return kResultBridgeFailure;
    } catch (...) {
        ClearPendingException(env);
        LogError(m_pLog, u"Init::Exception is occured...");
        return kResultBridgeFailure;
    }
}

uint32_t JNIBridge::DeInit() {
    FrameOpening frame(Context());
    if (!frame.Ready()) return kResultBridgeFailure;
    JNIEnv* const env = frame.Env();
    try {
        if (const std::optional<uint32_t> end = frame.TakePluginClass(MissingClassRule::Fail, nullptr)) return *end;
        const jmethodID method = frame.LookUpMethod(kAzureDeInitName, kAzureDeInitSignature);
        // A missing AzureDeInit with an exception pending ends at once,
        // keeping the plug-in object.
        if (!method && DescribePendingException(env, m_pLog)) return kResultBridgeFailure;
        uint32_t code = kResultSuccess;
        LocalRef<jobject> result(env, nullptr);
        if (method) {
            result.reset(env->CallObjectMethod(PluginObject(), method));
            // A Java exception out of AzureDeInit gives a null result (40
            // here, without a JNI call) and is described just below.
            code = GetErrorId(env, m_pLog, result.get());
        }
        if (!DescribePendingException(env, m_pLog)) {
            LogDetail(m_pLog, u"DeInit Vm called...");
        } else {
            code = kResultBridgeFailure;
        }
        result.reset();
        m_ObjQVAzurePlugInLibrary.Delete(env);
        return code;
    } catch (...) {
        ClearPendingException(env);
        LogError(m_pLog, u"DeInit::Exception is occured...");
        return kResultBridgeFailure;
    }
}
