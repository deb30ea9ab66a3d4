#include "bridge/JVMHost.h"

#include "bridge/BridgeLog.h"
#include "bridge/ErrorMapping.h"

const JarFileRecord JarFileTable[kJarFileCount] = {
    {1, u"XNAzurePlugIn.jar;"},         {2, u"log4j-1.2-api-2.19.0.jar;"}, {3, u"commons-logging-1.1.1.jar;"},
    {4, u"QV-AWSSDK.jar;"},             {5, u"httpclient-4.1.1.jar;"},     {6, u"commons-codec-1.4.jar;"},
    {7, u"jackson-core-asl-1.9.2.jar;"}, {8, u"stax-1.2.0.jar;"},          {9, u"stax-api-1.0.1.jar;"},
    {10, u"log4j-api-2.19.0.jar;"},     {11, u"log4j-core-2.19.0.jar;"},
};

namespace {

// Holds a critical section for one scope.
class SectionLock {
public:
    explicit SectionLock(qvplatform::CriticalSection& section) : m_section(section) { m_section.Enter(); }
    ~SectionLock() { m_section.Leave(); }
    SectionLock(const SectionLock&) = delete;
    SectionLock& operator=(const SectionLock&) = delete;

private:
    qvplatform::CriticalSection& m_section;
};

// What "%s" printed when handed a UTF-16 text: its bytes up to the first
// zero byte (for an ASCII text, its first character).
std::string BytesUpToFirstZero(const WideString& text) {
    std::string out;
    for (char16_t unit : text) {
        const char low = static_cast<char>(unit & 0xFF);
        const char high = static_cast<char>(unit >> 8);
        if (low == 0) break;
        out.push_back(low);
        if (high == 0) break;
        out.push_back(high);
    }
    return out;
}

bool ReserveWithTheSystem(size_t bytes) {
    void* range = qvplatform::ReserveAddressSpace(bytes);
    if (!range) return false;
    qvplatform::ReleaseAddressSpace(range, bytes);
    return true;
}

}  // namespace

// The instance lives from library load to unload.
static JVMHost g_JVMHost;

JVMHost& JVMHost::Instance() { return g_JVMHost; }

JVMHost::JVMHost() : m_lock(std::make_unique<qvplatform::CriticalSection>()) {
    // Exists for the life of the process; never waited on.
    m_hMutex = qvplatform::NamedMutex::Create(u"JVM_MUTEX", qvplatform::MutexScope::SharedBetweenProcesses);
}

JVMHost::~JVMHost() = default;

void JVMHost::SetHostJVM(JavaVM* jvm, JavaVM** hostJvmRef) {
    m_pJVM = jvm;
    m_ppHostJVM = hostJvmRef;
}

uint32_t JVMHost::AttachToJVM(const WideString& hostFolder, JavaVM** jvmOut) {
    SectionLock lock(*m_lock);
    try {
        if (m_nRefCount != 0) {
            ++m_nRefCount;
            if (jvmOut) *jvmOut = m_pJVM;
            return kResultSuccess;
        }
        const char16_t sep = qvplatform::kPathSeparator;
        m_strPluginFolder = hostFolder + sep + u"Plugin" + sep + u"Azure" + sep;
        m_strClassPathOption = u"-Djava.class.path=.;";
        for (int i = 0; i < kJarFileCount; ++i) {
            TraceToStdout("path " + BytesUpToFirstZero(m_strClassPathOption));
            m_strClassPathOption += m_strPluginFolder;
            m_strClassPathOption += JarFileTable[i].fileName;
        }
        JavaVM* created = CreateJVM(m_strClassPathOption);
        if (created && m_pJVM) {
            ++m_nRefCount;
            if (jvmOut) *jvmOut = m_pJVM;
            return kResultSuccess;
        }
        return kResultBridgeFailure;
    } catch (...) {
        return kResultBridgeFailure;
    }
}

JavaVM* JVMHost::CreateJVM(const WideString& classPathOption) {
    SectionLock lock(*m_lock);
    TraceToStdout("Attempting to create JVM.");
    CreationArguments args;
    // The option in the system's 8-bit form (UTF-8 here; the ANSI code page
    // of a Windows host would differ only outside ASCII).
    if (!classPathOption.empty()) {
        args.optionString = qvplatform::ToUtf8(classPathOption);
        args.hasOptionString = true;
    }
    args.version = JNI_VERSION_1_6;
    args.optionCount = 1;
    args.ignoreUnrecognized = JNI_FALSE;
    m_lastCreation = args;
    // No runtime entry point is called: the creation step's result is
    // success without a machine, so m_pCreatedJVM stays as it is (null).
    const jint result = JNI_OK;
    if (result < 0) m_pCreatedJVM = nullptr;
    return m_pCreatedJVM;
}

void JVMHost::ReleaseJVM() {
    SectionLock lock(*m_lock);
    if (m_nRefCount > 0) return;
    TraceToStdout("Deinitialized to JVM.\n");
}

JVMHost::CreationArguments JVMHost::LastCreationArguments() const {
    SectionLock lock(*m_lock);
    return m_lastCreation;
}

uint32_t GetMaxHeapSize(uint32_t baseMB, uint32_t wantedMB, bool (*tryReserve)(size_t bytes)) {
    if (!tryReserve) tryReserve = ReserveWithTheSystem;
    const uint32_t base = baseMB << 20;
    const uint32_t step = static_cast<uint32_t>(qvplatform::PageSize()) * 512u;
    uint32_t size = wantedMB << 20;
    size += size % step;  // the remainder is added, not rounded up to a step
    uint32_t count = size / step;
    const uint32_t initialSize = size;
    uint32_t total = size + base;
    while (!tryReserve(total) && count >= 1) {
        --count;
        size = count * step;
        total = size + base;
    }
    if (count == 0) return 0;
    if (size == initialSize) return wantedMB;
    return size >> 20;
}

AutoAttachJVM::AutoAttachJVM(JavaVM* jvm, JNIWrapperLog* log) : m_pLog(log) {
    try {
        if (!jvm) {
            LogError(m_pLog, u"JVM is passed as a NULL");
            return;
        }
        m_pJVM = jvm;
        // A thread the host or Java attached already keeps its attachment.
        if (jvm->GetEnv(reinterpret_cast<void**>(&m_pEnv), JNI_VERSION_1_6) == JNI_OK && m_pEnv) return;
        m_pEnv = nullptr;
        if (jvm->AttachCurrentThreadAsDaemon(reinterpret_cast<void**>(&m_pEnv), nullptr) == JNI_OK) {
            m_bAttached = 1;
        } else {
            LogError(m_pLog, u"Thread is not attached properly..");
            m_pEnv = nullptr;
        }
    } catch (...) {
        LogError(m_pLog, u"Exception is occured in the AutoAttachJVM");
    }
}

AutoAttachJVM::~AutoAttachJVM() {
    if (m_pEnv && m_pEnv->ExceptionCheck()) m_pEnv->ExceptionClear();
    if (m_bAttached == 1) m_pJVM->DetachCurrentThread();
}
