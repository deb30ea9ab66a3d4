// The process-wide record of the host's Java virtual machine, and the
// per-call thread guard.
//
// The plug-in never starts or stops a JVM: the host hands its own in through
// CloudPluginCreateInfo, every JNI bridge copies it here, and each bridge
// call attaches its thread for the length of the call (AutoAttachJVM).
#pragma once

#include <jni.h>

#include <cstdint>
#include <memory>
#include <string>

#include "log/JNIWrapperLog.h"
#include "platform/Platform.h"

// The Java archives of the plug-in's Java side, in class-path order. Each
// name ends in ";", the class-path separator.
struct JarFileRecord {
    uint32_t ordinal;
    const char16_t* fileName;
};
constexpr int kJarFileCount = 11;
extern const JarFileRecord JarFileTable[kJarFileCount];

class JVMHost {
public:
    JVMHost();
    ~JVMHost();
    JVMHost(const JVMHost&) = delete;
    JVMHost& operator=(const JVMHost&) = delete;

    // The one instance of the process.
    static JVMHost& Instance();

    // Called by every JNI bridge's constructor: the last bridge wins.
    void SetHostJVM(JavaVM* jvm, JavaVM** hostJvmRef);

    // 0 and *jvmOut := the host's JVM when the creation path has produced a
    // machine before (the count is above 0); otherwise builds the class path
    // for `hostFolder`, runs the creation path (which never starts a
    // machine) and answers 40, leaving *jvmOut untouched.
    uint32_t AttachToJVM(const WideString& hostFolder, JavaVM** jvmOut);
    // Prepares the creation arguments for `classPathOption` and answers the
    // machine made, which is always none: the plug-in only uses the host's.
    JavaVM* CreateJVM(const WideString& classPathOption);
    // Traces "Deinitialized to JVM.\n" when no attach was counted; changes nothing.
    void ReleaseJVM();

    // What the last creation path prepared (for diagnostics and tests).
    struct CreationArguments {
        jint version = 0;
        jint optionCount = 0;
        jboolean ignoreUnrecognized = JNI_TRUE;
        bool hasOptionString = false;
        std::string optionString;  // the class-path option in the system's 8-bit code page
    };
    CreationArguments LastCreationArguments() const;

    JavaVM* HostJVM() const { return m_pJVM; }
    JavaVM** HostJVMRef() const { return m_ppHostJVM; }
    uint32_t RefCount() const { return m_nRefCount; }
    WideString PluginFolder() const { return m_strPluginFolder; }
    WideString ClassPathOption() const { return m_strClassPathOption; }

private:
    friend class JVMHostTestAccess;

    JavaVM* m_pCreatedJVM = nullptr;
    WideString m_strPluginFolder;
    WideString m_strClassPathOption;
    uint32_t m_nRefCount = 0;
    std::unique_ptr<qvplatform::CriticalSection> m_lock;
    JavaVM** m_ppHostJVM = nullptr;
    JavaVM* m_pJVM = nullptr;
    std::unique_ptr<qvplatform::NamedMutex> m_hMutex;
    CreationArguments m_lastCreation;
};

// How much of `wantedMB` megabytes of heap can still be reserved above
// `baseMB`, in steps of 512 pages: wantedMB when the first reservation
// succeeds, 0 when no step can be reserved, else the size that could be.
// All arithmetic is 32-bit unsigned, as it always was. `tryReserve` answers
// whether an address range of that many bytes can be reserved (and releases
// it again); by default it asks the operating system.
uint32_t GetMaxHeapSize(uint32_t baseMB, uint32_t wantedMB, bool (*tryReserve)(size_t bytes) = nullptr);

// Attaches the calling thread to `jvm` for the life of the guard. A thread
// that is not attached yet is attached as a daemon and detached when the
// guard ends; a thread that was already attached (by the host or by Java)
// is left attached. A Java exception still pending when the guard ends is
// cleared, so no stack trace is dispatched on detach.
class AutoAttachJVM {
public:
    AutoAttachJVM(JavaVM* jvm, JNIWrapperLog* log);
    ~AutoAttachJVM();
    AutoAttachJVM(const AutoAttachJVM&) = delete;
    AutoAttachJVM& operator=(const AutoAttachJVM&) = delete;

    // The thread's environment; null when attaching failed.
    JNIEnv* GetJNIEnv() const { return m_pEnv; }
    // Whether this guard attached the thread (and so detaches it).
    bool Attached() const { return m_bAttached != 0; }

private:
    JavaVM* m_pJVM = nullptr;
    JNIWrapperLog* m_pLog = nullptr;
    JNIEnv* m_pEnv = nullptr;
    int32_t m_bAttached = 0;
};
