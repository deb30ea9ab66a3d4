// The real JVM of a test process, and the JNI interposer that the plug-in is
// given instead of it.
//
// `TestJvm()` starts the one Java virtual machine of the test process with
// JNI_CreateJavaVM (libjvm is linked by the tests only), with the contract
// and test-double jars on its class path. `JniInterposer` wraps it: its
// `JavaVM` and per-thread `JNIEnv` function tables forward every call to the
// real ones, and on the way they
//   - record each call (function name and a short detail such as the class,
//     method or field name and signature),
//   - count the local references made and deleted,
//   - fail chosen calls on demand, the way a real JVM fails them,
//   - in strict mode, refuse any null handed to a JNI function that needs a
//     non-null argument: the call is not forwarded (so the JVM does not
//     crash), a violation is recorded, and the call answers null/0/JNI_ERR.
// The plug-in receives `Vm()` (through CloudPluginCreateInfo::jvmRef) and
// never knows that it is not talking to the JVM directly.
//
// Details of the interposer's behaviour:
//   - Each thread gets its own wrapped JNIEnv from AttachCurrentThread(AsDaemon)
//     or GetEnv. GetEnv answers JNI_EDETACHED for a thread that is not attached
//     to the real JVM. GetJavaVM on a wrapped JNIEnv answers Vm(), not the real
//     VM. DestroyJavaVM is refused (JNI_ERR; a violation in strict mode).
//   - The record holds the JavaVM calls too ("AttachCurrentThread",
//     "AttachCurrentThreadAsDaemon", "DetachCurrentThread", "GetEnv",
//     "DestroyJavaVM"). Calls are recorded under the name of the table entry
//     that was called. The C++ member functions of jni.h's JNIEnv_ call the
//     va_list entries: env->CallObjectMethod(...) is recorded (and planned
//     failures match it) as "CallObjectMethodV", env->NewObject(...) as
//     "NewObjectV". The variadic entries themselves (reached from C code, as
//     env->functions->CallObjectMethod(env, ...)) are recorded under their own
//     names and forwarded through their va_list twins.
//   - A wrapped JNIEnv used on a thread other than its own, or after its thread
//     detached, is always refused and recorded as a violation (forwarding it
//     would corrupt the JVM), whether or not strict mode is on.
//   - Strict mode also refuses a JNI call made while an exception is pending
//     (except the exception, release, delete-reference, MonitorExit and local
//     frame functions) and any JNI call inside a critical region other than
//     the Get/Release*Critical functions.
//   - Local references: every call that answers a new local reference counts
//     one made when the answer is non-null; DeleteLocalRef of a non-null
//     reference counts one deleted. PushLocalFrame/PopLocalFrame balance: the
//     references made inside a frame and not deleted there count as deleted
//     when it is popped, and PopLocalFrame's answer counts as made. A frame
//     pushed before Reset and popped after it may leave the count negative.
#pragma once

#include <jni.h>

#include <cstdint>
#include <string>
#include <vector>

namespace jnitest {

// The real JVM, started on first use (once per process). Its class path is
// the one compiled into the test support library (the contract jar and the
// test double jar). Never destroyed: a JVM cannot be restarted in a process.
JavaVM* TestJvm();
// The real JNIEnv of the calling thread, attaching it (as a daemon) when
// needed. For test code that sets up Java objects directly.
JNIEnv* TestEnv();

struct JniCall {
    std::string function;  // the JNI function's name, e.g. "GetMethodID"
    std::string detail;    // e.g. "AzureInit (Ljava/lang/String;...)L...;" or a class name; may be empty
    uint32_t threadId;     // qvplatform::CurrentThreadId() of the caller
};

class JniInterposer {
public:
    // The process-wide interposer over TestJvm().
    static JniInterposer& Instance();

    // The wrapping JavaVM to hand to the plug-in.
    JavaVM* Vm();
    // Clears the record, the counters, the violations and every planned fault; strict mode stays as set.
    void Reset();

    // ---- record
    std::vector<JniCall> Calls() const;
    // How many calls of `function` were made (optionally only those whose detail contains `detailPart`).
    size_t CountOf(const std::string& function, const std::string& detailPart = std::string()) const;

    // ---- local references (made through the wrapped JNIEnv, any thread)
    int64_t LocalRefsMade() const;
    int64_t LocalRefsDeleted() const;
    // Made minus deleted: what an operation left behind.
    int64_t LocalRefsLeft() const { return LocalRefsMade() - LocalRefsDeleted(); }

    // ---- attach and detach (through the wrapped JavaVM)
    int64_t Attaches() const;  // successful AttachCurrentThread / AttachCurrentThreadAsDaemon
    int64_t Detaches() const;  // DetachCurrentThread calls

    // ---- faults. `times` = how many matching calls fail (-1: all until Reset).
    // AttachCurrentThread(AsDaemon) answers JNI_ERR with no environment.
    void FailAttach(int times = 1);
    // FindClass of `className` ("" = any) answers null with a pending NoClassDefFoundError.
    void FailFindClass(const std::string& className, int times = 1);
    // GetMethodID (and GetStaticMethodID) of `name`/`signature` ("" = any) answers null with a pending
    // NoSuchMethodError.
    void FailGetMethodID(const std::string& name, const std::string& signature = std::string(), int times = 1);
    // GetFieldID (and GetStaticFieldID) of `name`/`signature` ("" = any) answers null with a pending
    // NoSuchFieldError.
    void FailGetFieldID(const std::string& name, const std::string& signature = std::string(), int times = 1);
    // GetObjectClass answers null with nothing pending (a real JVM never fails it; this reaches the
    // plug-in's paths for an object whose class cannot be had).
    void FailGetObjectClass(int times = 1);
    // GetObjectClass answers null with a pending OutOfMemoryError.
    void FailGetObjectClassWithException(int times = 1);
    // NewByteArray answers null with a pending OutOfMemoryError.
    void FailNewByteArray(int times = 1);
    // EnsureLocalCapacity answers JNI_ERR (-1) with a pending OutOfMemoryError.
    void FailEnsureLocalCapacity(int times = 1);
    // Element access: GetByteArrayRegion / SetByteArrayRegion raise a pending
    // ArrayIndexOutOfBoundsException and copy nothing; GetObjectArrayElement answers null with the same
    // exception pending; GetByteArrayElements answers null.
    void FailElementAccess(int times = 1);
    // The next call(s) of the named JNI function ("" = any) throw a C++ std::runtime_error out of the JNI
    // call (for the plug-in's catch-all paths). Nothing is forwarded to the JVM. The name is matched
    // exactly: "CallObjectMethod" does not cover "CallObjectMethodV". JavaVM functions ("GetEnv",
    // "AttachCurrentThread", "AttachCurrentThreadAsDaemon", "DetachCurrentThread") can be named too.
    void ThrowCppExceptionIn(const std::string& function, int times = 1);

    // ---- strict mode (on by default)
    void SetStrict(bool strict);
    bool IsStrict() const;
    std::vector<std::string> StrictViolations() const;

private:
    JniInterposer();
};

// A GoogleTest-friendly check for fixtures: no strict violation and, when `expectBalanced`, no local
// reference left since the last Reset.
std::string InterposerProblems(bool expectBalanced);

}  // namespace jnitest
