// The JNI interposer: a JavaVM and per-thread JNIEnv whose function tables
// forward to the real JVM of the test process, recording, counting, checking
// and failing calls on the way (see JniInterposer.h).
//
// How a call travels: the plug-in calls env->functions->X(env, ...). `env` is
// the calling thread's WrappedEnv (a thread_local object that begins with a
// JNIEnv_ whose table is kTable), so X lands in Forwarder<tag::X>::Call. That
// function hands its arguments to Intercept(), which
//   1. records the call (name, detail, thread id),
//   2. refuses an env that is not the calling thread's (or whose thread has
//      detached): HotSpot finds its thread from the env, so forwarding it
//      would corrupt the JVM,
//   3. throws a planned C++ exception,
//   4. in strict mode checks the arguments and the thread's state (pending
//      exception, critical region) and refuses a call that breaks a JNI rule,
//   5. answers a planned failure itself (or, for GetJavaVM, the wrapping VM),
//   6. otherwise calls the same function of the real env, and
//   7. counts the local references the call made or deleted.
// The behaviour that differs between JNI functions lives in small per-function
// trait templates (Details, Checks, Override, Accounting), keyed by one empty
// tag type per table entry; a function without its own version of a trait
// takes the default one.
#include "support/JniInterposer.h"

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/Platform.h"

namespace jnitest {
namespace {

// ============================================================== shared state

enum class FaultKind {
    Attach,
    FindClass,
    GetMethodID,
    GetFieldID,
    GetObjectClass,
    NewByteArray,
    EnsureLocalCapacity,
    ElementAccess,
    ThrowCpp,
    Count
};
constexpr size_t kFaultKinds = static_cast<size_t>(FaultKind::Count);

struct PlannedFault {
    std::string first;   // what the first argument must equal ("" = anything)
    std::string second;  // what the second must equal ("" = anything)
    int remaining;       // calls still to fail; -1 = until Reset
};

// One recorded call. The function name is a string literal, so recording
// copies only the (usually empty) detail.
struct CallRecord {
    const char* function;
    std::string detail;
    uint32_t threadId;
};

struct State {
    mutable std::mutex mutex;  // guards calls, violations and faults
    std::vector<CallRecord> calls;
    std::vector<std::string> violations;
    std::vector<PlannedFault> faults[kFaultKinds];
    // Lets calls skip the lock while no fault is planned.
    std::atomic<bool> faultsPlanned{false};

    std::atomic<int64_t> localRefsMade{0};
    std::atomic<int64_t> localRefsDeleted{0};
    std::atomic<int64_t> attaches{0};
    std::atomic<int64_t> detaches{0};
    std::atomic<bool> strict{true};

    // Global references to the exception classes that planned failures raise,
    // so that raising one needs no FindClass on the failing thread.
    jclass noClassDefFoundError = nullptr;
    jclass noSuchMethodError = nullptr;
    jclass noSuchFieldError = nullptr;
    jclass outOfMemoryError = nullptr;
    jclass arrayIndexOutOfBounds = nullptr;
};

// Never destroyed: threads may still call in while the process exits.
State& St() {
    static State* state = new State();
    return *state;
}

void Record(const char* function, std::string detail) {
    const uint32_t threadId = qvplatform::CurrentThreadId();
    State& st = St();
    std::lock_guard<std::mutex> lock(st.mutex);
    st.calls.push_back(CallRecord{function, std::move(detail), threadId});
}

void AddViolation(std::string text) {
    State& st = St();
    std::lock_guard<std::mutex> lock(st.mutex);
    st.violations.push_back(std::move(text));
}

bool Matches(const std::string& wanted, const char* actual) {
    return wanted.empty() || (actual != nullptr && wanted == actual);
}

// True when a planned fault of `kind` matches the call; uses up one of its times.
bool TakeFault(FaultKind kind, const char* first = nullptr, const char* second = nullptr) {
    State& st = St();
    if (!st.faultsPlanned.load(std::memory_order_acquire)) return false;
    std::lock_guard<std::mutex> lock(st.mutex);
    auto& planned = st.faults[static_cast<size_t>(kind)];
    for (auto it = planned.begin(); it != planned.end(); ++it) {
        if (!Matches(it->first, first) || !Matches(it->second, second)) continue;
        if (it->remaining > 0 && --it->remaining == 0) planned.erase(it);
        return true;
    }
    return false;
}

// Raises a real pending Java exception on the calling thread's real env.
void RaiseOn(JNIEnv* real, jclass exceptionClass, const std::string& message) {
    real->functions->ThrowNew(real, exceptionClass, message.c_str());
}

std::string Text(const char* text) {
    return text ? std::string(text) : std::string("(null)");
}

// ============================================================== per-thread state

// The JNIEnv handed to the plug-in. `env` comes first so that a pointer to it
// is a pointer to the whole object (both are standard layout); its table is
// kTable once handed out, and `real` is the thread's JNIEnv of the real JVM
// (null while the thread is not attached).
struct WrappedEnv {
    JNIEnv_ env;
    JNIEnv* real;
    int criticalDepth;  // open Get*Critical regions of this thread
};
static_assert(std::is_standard_layout_v<WrappedEnv>, "WrappedEnv must start with its JNIEnv_");
static_assert(offsetof(WrappedEnv, env) == 0, "WrappedEnv must start with its JNIEnv_");

thread_local WrappedEnv t_env{{nullptr}, nullptr, 0};

// Local frames pushed through the interposer on this thread, innermost last,
// each holding the local references made in it and not yet deleted. Popping
// a frame frees those references, so they are counted as deleted then.
thread_local std::vector<std::vector<jobject>> t_frames;

void MadeLocalRef(jobject ref) {
    St().localRefsMade.fetch_add(1, std::memory_order_relaxed);
    if (!t_frames.empty()) t_frames.back().push_back(ref);
}

void DeletedLocalRef(jobject ref) {
    St().localRefsDeleted.fetch_add(1, std::memory_order_relaxed);
    // A reference deleted inside a pushed frame may belong to that frame or to
    // an outer one; it is forgotten wherever it is found, innermost first.
    for (auto frame = t_frames.rbegin(); frame != t_frames.rend(); ++frame) {
        for (auto it = frame->rbegin(); it != frame->rend(); ++it) {
            if (*it == ref) {
                frame->erase(std::next(it).base());
                return;
            }
        }
    }
}

void ForgetThreadState() {
    t_env.real = nullptr;
    t_env.criticalDepth = 0;
    t_frames.clear();
}

// The calling thread's wrapped env over its real one (defined after the table).
JNIEnv* HandOutEnv(JNIEnv* real);

// ============================================================== the wrapping JavaVM

JavaVM* RealVm() {
    return TestJvm();
}

// A planned C++ exception of a JavaVM or JNIEnv function, thrown before anything is forwarded.
void ThrowIfPlanned(const char* function) {
    if (TakeFault(FaultKind::ThrowCpp, function)) {
        throw std::runtime_error(std::string(function) + ": C++ exception planned by the JNI interposer");
    }
}

// Only requests for a JNIEnv are wrapped; other interfaces (JVMTI, whose
// versions carry high bits) pass through untouched.
bool IsJniVersion(jint version) {
    return (static_cast<uint32_t>(version) >> 24) == 0;
}

jint JNICALL VmDestroyJavaVM(JavaVM*) {
    Record("DestroyJavaVM", std::string());
    ThrowIfPlanned("DestroyJavaVM");
    // The JVM belongs to the host (here: to the whole test process).
    if (St().strict.load()) AddViolation("DestroyJavaVM: the JVM is not the plug-in's to destroy");
    return JNI_ERR;
}

jint Attach(const char* function, jint(JNICALL* JNIInvokeInterface_::*realAttach)(JavaVM*, void**, void*),
            void** penv, void* args) {
    Record(function, std::string());
    ThrowIfPlanned(function);
    if (penv == nullptr) {
        AddViolation(std::string(function) + ": null environment pointer");
        return JNI_ERR;
    }
    *penv = nullptr;
    if (TakeFault(FaultKind::Attach)) return JNI_ERR;
    JavaVM* vm = RealVm();
    JNIEnv* real = nullptr;
    const jint result = (vm->functions->*realAttach)(vm, reinterpret_cast<void**>(&real), args);
    if (result != JNI_OK) return result;
    *penv = HandOutEnv(real);
    St().attaches.fetch_add(1, std::memory_order_relaxed);
    return JNI_OK;
}

jint JNICALL VmAttachCurrentThread(JavaVM*, void** penv, void* args) {
    return Attach("AttachCurrentThread", &JNIInvokeInterface_::AttachCurrentThread, penv, args);
}

jint JNICALL VmAttachCurrentThreadAsDaemon(JavaVM*, void** penv, void* args) {
    return Attach("AttachCurrentThreadAsDaemon", &JNIInvokeInterface_::AttachCurrentThreadAsDaemon, penv, args);
}

jint JNICALL VmDetachCurrentThread(JavaVM*) {
    Record("DetachCurrentThread", std::string());
    ThrowIfPlanned("DetachCurrentThread");
    JavaVM* vm = RealVm();
    const jint result = vm->functions->DetachCurrentThread(vm);
    if (result == JNI_OK) {
        ForgetThreadState();
        St().detaches.fetch_add(1, std::memory_order_relaxed);
    }
    return result;
}

jint JNICALL VmGetEnv(JavaVM*, void** penv, jint version) {
    Record("GetEnv", std::string());
    ThrowIfPlanned("GetEnv");
    if (penv == nullptr) {
        AddViolation("GetEnv: null environment pointer");
        return JNI_ERR;
    }
    JavaVM* vm = RealVm();
    if (!IsJniVersion(version)) return vm->functions->GetEnv(vm, penv, version);
    JNIEnv* real = nullptr;
    const jint result = vm->functions->GetEnv(vm, reinterpret_cast<void**>(&real), version);
    if (result != JNI_OK) {
        *penv = nullptr;
        // A thread that detached behind the interposer's back starts afresh.
        if (result == JNI_EDETACHED) ForgetThreadState();
        return result;
    }
    *penv = HandOutEnv(real);
    return JNI_OK;
}

const JNIInvokeInterface_ kInvokeTable = {
    nullptr,
    nullptr,
    nullptr,
    &VmDestroyJavaVM,
    &VmAttachCurrentThread,
    &VmDetachCurrentThread,
    &VmGetEnv,
    &VmAttachCurrentThreadAsDaemon,
};

JavaVM_ g_vm{&kInvokeTable};

// ============================================================== the table's entries

// The three result-type families of the Call*Method, Get/Set*Field and array
// functions, so that each family is one line below.
#define QV_JNI_CALL_TYPES(X, Head, Tail)                                                              \
    X(Head##Object##Tail) X(Head##Boolean##Tail) X(Head##Byte##Tail) X(Head##Char##Tail)             \
    X(Head##Short##Tail) X(Head##Int##Tail) X(Head##Long##Tail) X(Head##Float##Tail)                 \
    X(Head##Double##Tail) X(Head##Void##Tail)
#define QV_JNI_FIELD_TYPES(X, Head, Tail)                                                             \
    X(Head##Object##Tail) X(Head##Boolean##Tail) X(Head##Byte##Tail) X(Head##Char##Tail)             \
    X(Head##Short##Tail) X(Head##Int##Tail) X(Head##Long##Tail) X(Head##Float##Tail)                 \
    X(Head##Double##Tail)
#define QV_JNI_PRIMITIVE_TYPES(X, Head, Tail)                                                         \
    X(Head##Boolean##Tail) X(Head##Byte##Tail) X(Head##Char##Tail) X(Head##Short##Tail)              \
    X(Head##Int##Tail) X(Head##Long##Tail) X(Head##Float##Tail) X(Head##Double##Tail)

// Every entry with a fixed parameter list.
#define QV_JNI_FIXED_ENTRIES(X)                                                                       \
    X(GetVersion) X(DefineClass) X(FindClass) X(FromReflectedMethod) X(FromReflectedField)           \
    X(ToReflectedMethod) X(GetSuperclass) X(IsAssignableFrom) X(ToReflectedField) X(Throw)           \
    X(ThrowNew) X(ExceptionOccurred) X(ExceptionDescribe) X(ExceptionClear) X(FatalError)            \
    X(PushLocalFrame) X(PopLocalFrame) X(NewGlobalRef) X(DeleteGlobalRef) X(DeleteLocalRef)          \
    X(IsSameObject) X(NewLocalRef) X(EnsureLocalCapacity) X(AllocObject) X(NewObjectV)               \
    X(NewObjectA) X(GetObjectClass) X(IsInstanceOf) X(GetMethodID)                                   \
    QV_JNI_CALL_TYPES(X, Call, MethodV) QV_JNI_CALL_TYPES(X, Call, MethodA)                          \
    QV_JNI_CALL_TYPES(X, CallNonvirtual, MethodV) QV_JNI_CALL_TYPES(X, CallNonvirtual, MethodA)      \
    X(GetFieldID) QV_JNI_FIELD_TYPES(X, Get, Field) QV_JNI_FIELD_TYPES(X, Set, Field)                \
    X(GetStaticMethodID)                                                                              \
    QV_JNI_CALL_TYPES(X, CallStatic, MethodV) QV_JNI_CALL_TYPES(X, CallStatic, MethodA)              \
    X(GetStaticFieldID) QV_JNI_FIELD_TYPES(X, GetStatic, Field) QV_JNI_FIELD_TYPES(X, SetStatic, Field) \
    X(NewString) X(GetStringLength) X(GetStringChars) X(ReleaseStringChars) X(NewStringUTF)          \
    X(GetStringUTFLength) X(GetStringUTFChars) X(ReleaseStringUTFChars) X(GetArrayLength)            \
    X(NewObjectArray) X(GetObjectArrayElement) X(SetObjectArrayElement)                              \
    QV_JNI_PRIMITIVE_TYPES(X, New, Array) QV_JNI_PRIMITIVE_TYPES(X, Get, ArrayElements)              \
    QV_JNI_PRIMITIVE_TYPES(X, Release, ArrayElements) QV_JNI_PRIMITIVE_TYPES(X, Get, ArrayRegion)    \
    QV_JNI_PRIMITIVE_TYPES(X, Set, ArrayRegion)                                                       \
    X(RegisterNatives) X(UnregisterNatives) X(MonitorEnter) X(MonitorExit) X(GetJavaVM)              \
    X(GetStringRegion) X(GetStringUTFRegion) X(GetPrimitiveArrayCritical)                            \
    X(ReleasePrimitiveArrayCritical) X(GetStringCritical) X(ReleaseStringCritical)                   \
    X(NewWeakGlobalRef) X(DeleteWeakGlobalRef) X(ExceptionCheck) X(NewDirectByteBuffer)              \
    X(GetDirectBufferAddress) X(GetDirectBufferCapacity) X(GetObjectRefType) X(GetModule)

// Every entry taking C variadic arguments; each has a twin named ...V that
// takes a va_list, through which it is forwarded.
#define QV_JNI_VARIADIC_ENTRIES(X)                                                                    \
    X(NewObject) QV_JNI_CALL_TYPES(X, Call, Method) QV_JNI_CALL_TYPES(X, CallNonvirtual, Method)     \
    QV_JNI_CALL_TYPES(X, CallStatic, Method)

// One empty type per entry: its name, where the entry sits in the table and,
// for variadic entries, where its va_list twin sits.
namespace tag {
#define QV_JNI_FIXED_TAG(Name)                                       \
    struct Name {                                                     \
        static constexpr std::string_view name = #Name;               \
        static constexpr auto member = &JNINativeInterface_::Name;    \
    };
#define QV_JNI_VARIADIC_TAG(Name)                                     \
    struct Name {                                                     \
        static constexpr std::string_view name = #Name;               \
        static constexpr auto member = &JNINativeInterface_::Name;    \
        static constexpr auto vmember = &JNINativeInterface_::Name##V; \
    };
QV_JNI_FIXED_ENTRIES(QV_JNI_FIXED_TAG)
QV_JNI_VARIADIC_ENTRIES(QV_JNI_VARIADIC_TAG)
#undef QV_JNI_FIXED_TAG
#undef QV_JNI_VARIADIC_TAG
}  // namespace tag

#define QV_JNI_COUNT_ENTRY(Name) +1
constexpr int kWrappedEntries = 0 QV_JNI_FIXED_ENTRIES(QV_JNI_COUNT_ENTRY) QV_JNI_VARIADIC_ENTRIES(QV_JNI_COUNT_ENTRY);
#undef QV_JNI_COUNT_ENTRY
// Four reserved slots, then one function pointer per entry: every entry of
// this JDK's table is listed above (a duplicate would not compile).
static_assert(sizeof(JNINativeInterface_) == (4 + kWrappedEntries) * sizeof(void*),
              "every entry of JNINativeInterface_ must be wrapped");

// ============================================================== rules by function

constexpr bool AllowedWhileExceptionPending(std::string_view f) {
    // Every Release* function (string chars, array elements, critical regions)
    // may be called with an exception pending, and so may these.
    return f.substr(0, 7) == "Release" || f == "ExceptionOccurred" || f == "ExceptionDescribe" ||
           f == "ExceptionClear" || f == "ExceptionCheck" || f == "DeleteLocalRef" || f == "DeleteGlobalRef" ||
           f == "DeleteWeakGlobalRef" || f == "MonitorExit" || f == "PushLocalFrame" || f == "PopLocalFrame";
}

// Between Get*Critical and Release*Critical no other JNI function may be called.
constexpr bool AllowedInCriticalRegion(std::string_view f) {
    return f == "GetPrimitiveArrayCritical" || f == "ReleasePrimitiveArrayCritical" || f == "GetStringCritical" ||
           f == "ReleaseStringCritical";
}

// Functions whose failure answer is JNI_ERR (-1) rather than 0/null.
constexpr bool AnswersStatus(std::string_view f) {
    return f == "Throw" || f == "ThrowNew" || f == "PushLocalFrame" || f == "EnsureLocalCapacity" ||
           f == "RegisterNatives" || f == "UnregisterNatives" || f == "MonitorEnter" || f == "MonitorExit" ||
           f == "GetJavaVM" || f == "GetDirectBufferCapacity";
}

template <class T>
constexpr bool kIsReference = std::is_convertible_v<T, jobject>;
template <class T>
constexpr bool kIsHandle = kIsReference<T> || std::is_same_v<T, jmethodID> || std::is_same_v<T, jfieldID>;

template <class T>
constexpr const char* HandleWord() {
    if constexpr (std::is_same_v<T, jclass>) return "class";
    else if constexpr (std::is_same_v<T, jstring>) return "string";
    else if constexpr (std::is_same_v<T, jthrowable>) return "throwable";
    else if constexpr (std::is_convertible_v<T, jarray>) return "array";
    else if constexpr (std::is_same_v<T, jmethodID>) return "method ID";
    else if constexpr (std::is_same_v<T, jfieldID>) return "field ID";
    else return "object";
}

// ---- Details: the short text recorded with a call.
template <class Tag>
struct Details {
    template <class... A>
    static std::string Of(const A&...) {
        return std::string();
    }
};
template <>
struct Details<tag::FindClass> {
    static std::string Of(const char* name) { return Text(name); }
};
struct MemberDetails {
    static std::string Of(jclass, const char* name, const char* signature) {
        return Text(name) + " " + Text(signature);
    }
};
template <>
struct Details<tag::GetMethodID> : MemberDetails {};
template <>
struct Details<tag::GetStaticMethodID> : MemberDetails {};
template <>
struct Details<tag::GetFieldID> : MemberDetails {};
template <>
struct Details<tag::GetStaticFieldID> : MemberDetails {};

// ---- Checks: what strict mode demands of the arguments. By default every
// reference, method ID and field ID argument must be non-null; kNullable marks
// (bit i = argument i after the env) those that JNI lets be null, and Extra()
// checks what is not a handle (names, buffers, lengths).
struct NoChecks {
    static constexpr unsigned kNullable = 0;
    template <class... A>
    static const char* Extra(const A&...) {
        return nullptr;
    }
};
template <class Tag>
struct Checks : NoChecks {};

#define QV_JNI_NULLABLE(Name, mask)                \
    template <>                                    \
    struct Checks<tag::Name> : NoChecks {          \
        static constexpr unsigned kNullable = mask; \
    };
QV_JNI_NULLABLE(PopLocalFrame, 1u << 0)
QV_JNI_NULLABLE(NewGlobalRef, 1u << 0)
QV_JNI_NULLABLE(DeleteGlobalRef, 1u << 0)
QV_JNI_NULLABLE(DeleteLocalRef, 1u << 0)
QV_JNI_NULLABLE(NewLocalRef, 1u << 0)
QV_JNI_NULLABLE(NewWeakGlobalRef, 1u << 0)
QV_JNI_NULLABLE(DeleteWeakGlobalRef, 1u << 0)
QV_JNI_NULLABLE(GetObjectRefType, 1u << 0)
QV_JNI_NULLABLE(IsSameObject, (1u << 0) | (1u << 1))
QV_JNI_NULLABLE(IsInstanceOf, 1u << 0)  // a null object is an instance of every class
QV_JNI_NULLABLE(SetObjectField, 1u << 2)
QV_JNI_NULLABLE(SetStaticObjectField, 1u << 2)
QV_JNI_NULLABLE(SetObjectArrayElement, 1u << 2)
#undef QV_JNI_NULLABLE

template <>
struct Checks<tag::DefineClass> : NoChecks {
    static constexpr unsigned kNullable = 1u << 1;  // the bootstrap loader is null
    static const char* Extra(const char*, jobject, const jbyte* buf, jsize len) {
        return (len > 0 && buf == nullptr) ? "null class bytes" : nullptr;
    }
};
template <>
struct Checks<tag::FindClass> : NoChecks {
    static const char* Extra(const char* name) { return name ? nullptr : "null class name"; }
};
struct MemberLookupChecks : NoChecks {
    static const char* Extra(jclass, const char* name, const char* signature) {
        if (name == nullptr) return "null name";
        if (signature == nullptr) return "null signature";
        return nullptr;
    }
};
template <>
struct Checks<tag::GetMethodID> : MemberLookupChecks {};
template <>
struct Checks<tag::GetStaticMethodID> : MemberLookupChecks {};
template <>
struct Checks<tag::GetFieldID> : MemberLookupChecks {};
template <>
struct Checks<tag::GetStaticFieldID> : MemberLookupChecks {};
template <>
struct Checks<tag::NewString> : NoChecks {
    static const char* Extra(const jchar* chars, jsize len) {
        if (len < 0) return "negative length";
        return (len > 0 && chars == nullptr) ? "null characters" : nullptr;
    }
};
template <>
struct Checks<tag::NewStringUTF> : NoChecks {
    static const char* Extra(const char* utf) { return utf ? nullptr : "null characters"; }
};
template <>
struct Checks<tag::NewObjectArray> : NoChecks {
    static constexpr unsigned kNullable = 1u << 2;  // the initial element
    static const char* Extra(jsize len, jclass, jobject) { return len < 0 ? "negative length" : nullptr; }
};
struct NewArrayChecks : NoChecks {
    static const char* Extra(jsize len) { return len < 0 ? "negative length" : nullptr; }
};
// Get/Set<Type>ArrayRegion, GetStringRegion, GetStringUTFRegion: (handle, start, len, buffer).
struct RegionChecks : NoChecks {
    template <class Handle, class T>
    static const char* Extra(Handle, jsize, jsize len, const T* buf) {
        return (len > 0 && buf == nullptr) ? "null buffer" : nullptr;
    }
};
// Release<Type>ArrayElements, ReleasePrimitiveArrayCritical: (array, elements, mode).
struct ReleaseElementsChecks : NoChecks {
    template <class Array, class T>
    static const char* Extra(Array, const T* elements, jint) {
        return elements ? nullptr : "null elements";
    }
};
// ReleaseStringChars, ReleaseStringUTFChars, ReleaseStringCritical: (string, characters).
struct ReleaseCharsChecks : NoChecks {
    template <class T>
    static const char* Extra(jstring, const T* chars) {
        return chars ? nullptr : "null characters";
    }
};
#define QV_JNI_CHECKS(Name, Base) \
    template <>                   \
    struct Checks<tag::Name> : Base {};
#define QV_JNI_NEW_ARRAY_CHECKS(Name) QV_JNI_CHECKS(Name, NewArrayChecks)
#define QV_JNI_REGION_CHECKS(Name) QV_JNI_CHECKS(Name, RegionChecks)
#define QV_JNI_RELEASE_ELEMENTS_CHECKS(Name) QV_JNI_CHECKS(Name, ReleaseElementsChecks)
QV_JNI_PRIMITIVE_TYPES(QV_JNI_NEW_ARRAY_CHECKS, New, Array)
QV_JNI_PRIMITIVE_TYPES(QV_JNI_REGION_CHECKS, Get, ArrayRegion)
QV_JNI_PRIMITIVE_TYPES(QV_JNI_REGION_CHECKS, Set, ArrayRegion)
QV_JNI_PRIMITIVE_TYPES(QV_JNI_RELEASE_ELEMENTS_CHECKS, Release, ArrayElements)
QV_JNI_CHECKS(GetStringRegion, RegionChecks)
QV_JNI_CHECKS(GetStringUTFRegion, RegionChecks)
QV_JNI_CHECKS(ReleasePrimitiveArrayCritical, ReleaseElementsChecks)
QV_JNI_CHECKS(ReleaseStringChars, ReleaseCharsChecks)
QV_JNI_CHECKS(ReleaseStringUTFChars, ReleaseCharsChecks)
QV_JNI_CHECKS(ReleaseStringCritical, ReleaseCharsChecks)
#undef QV_JNI_NEW_ARRAY_CHECKS
#undef QV_JNI_REGION_CHECKS
#undef QV_JNI_RELEASE_ELEMENTS_CHECKS
#undef QV_JNI_CHECKS
template <>
struct Checks<tag::RegisterNatives> : NoChecks {
    static const char* Extra(jclass, const JNINativeMethod* methods, jint count) {
        if (count < 0) return "negative method count";
        return (count > 0 && methods == nullptr) ? "null methods" : nullptr;
    }
};
template <>
struct Checks<tag::GetJavaVM> : NoChecks {
    static const char* Extra(JavaVM** vm) { return vm ? nullptr : "null JavaVM pointer"; }
};
template <>
struct Checks<tag::NewDirectByteBuffer> : NoChecks {
    static const char* Extra(void*, jlong capacity) { return capacity < 0 ? "negative capacity" : nullptr; }
};

// The first handle argument that is null where JNI requires an object.
template <unsigned Nullable, class... A>
const char* NullHandleProblem(const A&... args) {
    const char* problem = nullptr;
    unsigned index = 0;
    [[maybe_unused]] auto check = [&](const auto& arg) {  // unused by functions without arguments
        using T = std::decay_t<decltype(arg)>;
        if constexpr (kIsHandle<T>) {
            if (problem == nullptr && arg == nullptr && (Nullable & (1u << index)) == 0) {
                problem = HandleWord<T>();
            }
        }
        ++index;
    };
    (check(args), ...);
    return problem;
}

// ---- Override: answers that the interposer gives instead of the JVM
// (planned failures, and the wrapping VM for GetJavaVM). Apply() returns true
// when it answered; `out` then holds the answer.
struct Nothing {};  // the answer of a void function

template <class Tag>
struct Override {
    template <class Out, class... A>
    static bool Apply(JNIEnv*, Out&, const A&...) {
        return false;
    }
};
template <>
struct Override<tag::FindClass> {
    static bool Apply(JNIEnv* real, jclass& out, const char* name) {
        if (!TakeFault(FaultKind::FindClass, name)) return false;
        RaiseOn(real, St().noClassDefFoundError, Text(name) + " (failure planned by the JNI interposer)");
        out = nullptr;
        return true;
    }
};
struct MethodLookupFault {
    static bool Apply(JNIEnv* real, jmethodID& out, jclass, const char* name, const char* signature) {
        if (!TakeFault(FaultKind::GetMethodID, name, signature)) return false;
        RaiseOn(real, St().noSuchMethodError, Text(name) + " (failure planned by the JNI interposer)");
        out = nullptr;
        return true;
    }
};
template <>
struct Override<tag::GetMethodID> : MethodLookupFault {};
template <>
struct Override<tag::GetStaticMethodID> : MethodLookupFault {};
struct FieldLookupFault {
    static bool Apply(JNIEnv* real, jfieldID& out, jclass, const char* name, const char* signature) {
        if (!TakeFault(FaultKind::GetFieldID, name, signature)) return false;
        RaiseOn(real, St().noSuchFieldError, Text(name) + " (failure planned by the JNI interposer)");
        out = nullptr;
        return true;
    }
};
template <>
struct Override<tag::GetFieldID> : FieldLookupFault {};
template <>
struct Override<tag::GetStaticFieldID> : FieldLookupFault {};
// The fault's first argument says whether an exception is raised with the null class.
constexpr const char* kRaiseOutOfMemory = "OutOfMemoryError";
template <>
struct Override<tag::GetObjectClass> {
    static bool Apply(JNIEnv* real, jclass& out, jobject) {
        if (TakeFault(FaultKind::GetObjectClass, "")) {
            out = nullptr;
            return true;
        }
        if (TakeFault(FaultKind::GetObjectClass, kRaiseOutOfMemory)) {
            RaiseOn(real, St().outOfMemoryError, "no room for the class reference (failure planned by the JNI interposer)");
            out = nullptr;
            return true;
        }
        return false;
    }
};
template <>
struct Override<tag::NewByteArray> {
    static bool Apply(JNIEnv* real, jbyteArray& out, jsize) {
        if (!TakeFault(FaultKind::NewByteArray)) return false;
        RaiseOn(real, St().outOfMemoryError, "Java heap space (failure planned by the JNI interposer)");
        out = nullptr;
        return true;
    }
};
template <>
struct Override<tag::EnsureLocalCapacity> {
    static bool Apply(JNIEnv* real, jint& out, jint) {
        if (!TakeFault(FaultKind::EnsureLocalCapacity)) return false;
        RaiseOn(real, St().outOfMemoryError, "no room for local references (failure planned by the JNI interposer)");
        out = JNI_ERR;
        return true;
    }
};
bool TakeElementAccessFault(JNIEnv* real, bool raise) {
    if (!TakeFault(FaultKind::ElementAccess)) return false;
    if (raise) RaiseOn(real, St().arrayIndexOutOfBounds, "failure planned by the JNI interposer");
    return true;
}
template <>
struct Override<tag::GetByteArrayRegion> {
    static bool Apply(JNIEnv* real, Nothing&, jbyteArray, jsize, jsize, jbyte*) {
        return TakeElementAccessFault(real, true);
    }
};
template <>
struct Override<tag::SetByteArrayRegion> {
    static bool Apply(JNIEnv* real, Nothing&, jbyteArray, jsize, jsize, const jbyte*) {
        return TakeElementAccessFault(real, true);
    }
};
template <>
struct Override<tag::GetObjectArrayElement> {
    static bool Apply(JNIEnv* real, jobject& out, jobjectArray, jsize) {
        if (!TakeElementAccessFault(real, true)) return false;
        out = nullptr;
        return true;
    }
};
template <>
struct Override<tag::GetByteArrayElements> {
    static bool Apply(JNIEnv* real, jbyte*& out, jbyteArray, jboolean* isCopy) {
        if (!TakeElementAccessFault(real, false)) return false;
        if (isCopy) *isCopy = JNI_FALSE;
        out = nullptr;
        return true;
    }
};
// The plug-in must keep talking to the interposer after asking its env for the VM.
template <>
struct Override<tag::GetJavaVM> {
    static bool Apply(JNIEnv*, jint& out, JavaVM** vm) {
        *vm = &g_vm;
        out = JNI_OK;
        return true;
    }
};

// ---- Accounting: local references made and deleted by a forwarded call.
// By default a call whose answer is a reference made a new local reference
// when the answer is non-null.
template <class Tag>
struct Accounting {
    static constexpr bool kAnswerIsNewLocalRef = true;
    template <class Out, class... A>
    static void After(const Out&, const A&...) {}
};
template <>
struct Accounting<tag::NewGlobalRef> {
    static constexpr bool kAnswerIsNewLocalRef = false;
    static void After(jobject, jobject) {}
};
template <>
struct Accounting<tag::NewWeakGlobalRef> {
    static constexpr bool kAnswerIsNewLocalRef = false;
    static void After(jweak, jobject) {}
};
template <>
struct Accounting<tag::DeleteLocalRef> {
    static constexpr bool kAnswerIsNewLocalRef = false;
    static void After(Nothing, jobject ref) {
        if (ref) DeletedLocalRef(ref);
    }
};
// PushLocalFrame/PopLocalFrame balance: the references made inside a frame and
// not deleted there count as deleted when the frame is popped; the answer of
// PopLocalFrame is a new local reference in the outer frame.
template <>
struct Accounting<tag::PushLocalFrame> {
    static constexpr bool kAnswerIsNewLocalRef = false;
    static void After(jint status, jint) {
        if (status == JNI_OK) t_frames.emplace_back();
    }
};
template <>
struct Accounting<tag::PopLocalFrame> {
    static constexpr bool kAnswerIsNewLocalRef = false;
    static void After(jobject answer, jobject) {
        if (!t_frames.empty()) {
            St().localRefsDeleted.fetch_add(static_cast<int64_t>(t_frames.back().size()), std::memory_order_relaxed);
            t_frames.pop_back();
        }
        if (answer) MadeLocalRef(answer);
    }
};
template <>
struct Accounting<tag::GetPrimitiveArrayCritical> {
    static constexpr bool kAnswerIsNewLocalRef = false;
    static void After(void* elements, jarray, jboolean*) {
        if (elements) ++t_env.criticalDepth;
    }
};
template <>
struct Accounting<tag::GetStringCritical> {
    static constexpr bool kAnswerIsNewLocalRef = false;
    static void After(const jchar* chars, jstring, jboolean*) {
        if (chars) ++t_env.criticalDepth;
    }
};
struct CriticalReleaseAccounting {
    static constexpr bool kAnswerIsNewLocalRef = false;
    template <class... A>
    static void After(const A&...) {
        if (t_env.criticalDepth > 0) --t_env.criticalDepth;
    }
};
template <>
struct Accounting<tag::ReleasePrimitiveArrayCritical> : CriticalReleaseAccounting {};
template <>
struct Accounting<tag::ReleaseStringCritical> : CriticalReleaseAccounting {};

// ============================================================== the forwarding core

template <class Tag, class R>
R Refusal() {
    if constexpr (std::is_void_v<R>) {
        return;
    } else if constexpr (AnswersStatus(Tag::name)) {
        return static_cast<R>(JNI_ERR);
    } else {
        return R{};
    }
}

// The JNI rule a call breaks in strict mode, or an empty text.
template <class Tag, class... A>
std::string StrictProblem(JNIEnv* real, const A&... args) {
    const std::string name(Tag::name);
    if constexpr (!AllowedInCriticalRegion(Tag::name)) {
        if (t_env.criticalDepth > 0) return name + " inside a critical region (Get*Critical not yet released)";
    }
    if constexpr (!AllowedWhileExceptionPending(Tag::name)) {
        // No JNI call may be made inside a critical region, ExceptionCheck included.
        if (t_env.criticalDepth == 0 && real->functions->ExceptionCheck(real)) {
            return name + " while an exception is pending";
        }
    }
    if (const char* problem = NullHandleProblem<Checks<Tag>::kNullable>(args...)) return name + ": null " + problem;
    if (const char* problem = Checks<Tag>::Extra(args...)) return name + ": " + problem;
    return std::string();
}

// Steps 1-7 of the file comment. `forward` calls the real function with the
// thread's real env; `args` are the call's arguments after the env (for a
// variadic entry, its named ones).
template <class Tag, class R, class Forward, class... A>
R Intercept(JNIEnv* env, Forward&& forward, const A&... args) {
    State& st = St();
    Record(Tag::name.data(), Details<Tag>::Of(args...));
    if (env != &t_env.env) {
        AddViolation(std::string(Tag::name) + ": called with a JNIEnv that is not the calling thread's");
        return Refusal<Tag, R>();
    }
    JNIEnv* real = t_env.real;
    if (real == nullptr) {
        AddViolation(std::string(Tag::name) + ": called on a thread that is no longer attached");
        return Refusal<Tag, R>();
    }
    ThrowIfPlanned(Tag::name.data());
    if (st.strict.load(std::memory_order_relaxed)) {
        std::string problem = StrictProblem<Tag>(real, args...);
        if (!problem.empty()) {
            AddViolation(std::move(problem));
            return Refusal<Tag, R>();
        }
    }
    using Out = std::conditional_t<std::is_void_v<R>, Nothing, R>;
    Out out{};
    if (Override<Tag>::Apply(real, out, args...)) {
        if constexpr (std::is_void_v<R>) return;
        else return out;
    }
    if constexpr (std::is_void_v<R>) {
        forward(real);
    } else {
        out = forward(real);
    }
    if constexpr (kIsReference<Out> && Accounting<Tag>::kAnswerIsNewLocalRef) {
        if (out) MadeLocalRef(out);
    }
    Accounting<Tag>::After(out, args...);
    if constexpr (std::is_void_v<R>) return;
    else return out;
}

template <class T>
struct MemberType;
template <class C, class T>
struct MemberType<T C::*> {
    using type = T;
};
template <class Tag>
using EntryType = typename MemberType<std::remove_cv_t<decltype(Tag::member)>>::type;

template <class Tag, class Fn = EntryType<Tag>>
struct Forwarder;

// An entry with a fixed parameter list: the same function of the real env.
template <class Tag, class R, class... A>
struct Forwarder<Tag, R(JNICALL*)(JNIEnv*, A...)> {
    static R JNICALL Call(JNIEnv* env, A... args) {
        return Intercept<Tag, R>(
            env, [&](JNIEnv* real) -> R { return (real->functions->*Tag::member)(real, args...); }, args...);
    }
};

// Variadic entries end in a method ID; the va_list twin of the real env takes
// the rest. Call<Type>Method, CallStatic<Type>Method and NewObject:
template <class Tag, class R, class P>
struct Forwarder<Tag, R(JNICALL*)(JNIEnv*, P, jmethodID, ...)> {
    static R JNICALL Call(JNIEnv* env, P target, jmethodID methodID, ...) {
        va_list rest;
        va_start(rest, methodID);
        auto forward = [&](JNIEnv* real) -> R { return (real->functions->*Tag::vmember)(real, target, methodID, rest); };
        try {
            if constexpr (std::is_void_v<R>) {
                Intercept<Tag, R>(env, forward, target, methodID);
                va_end(rest);
            } else {
                R result = Intercept<Tag, R>(env, forward, target, methodID);
                va_end(rest);
                return result;
            }
        } catch (...) {
            va_end(rest);
            throw;
        }
    }
};
// CallNonvirtual<Type>Method:
template <class Tag, class R, class P1, class P2>
struct Forwarder<Tag, R(JNICALL*)(JNIEnv*, P1, P2, jmethodID, ...)> {
    static R JNICALL Call(JNIEnv* env, P1 object, P2 clazz, jmethodID methodID, ...) {
        va_list rest;
        va_start(rest, methodID);
        auto forward = [&](JNIEnv* real) -> R {
            return (real->functions->*Tag::vmember)(real, object, clazz, methodID, rest);
        };
        try {
            if constexpr (std::is_void_v<R>) {
                Intercept<Tag, R>(env, forward, object, clazz, methodID);
                va_end(rest);
            } else {
                R result = Intercept<Tag, R>(env, forward, object, clazz, methodID);
                va_end(rest);
                return result;
            }
        } catch (...) {
            va_end(rest);
            throw;
        }
    }
};

constexpr JNINativeInterface_ MakeTable() {
    JNINativeInterface_ table{};
#define QV_JNI_SET_ENTRY(Name) table.Name = &Forwarder<tag::Name>::Call;
    QV_JNI_FIXED_ENTRIES(QV_JNI_SET_ENTRY)
    QV_JNI_VARIADIC_ENTRIES(QV_JNI_SET_ENTRY)
#undef QV_JNI_SET_ENTRY
    return table;
}

constexpr JNINativeInterface_ kTable = MakeTable();

JNIEnv* HandOutEnv(JNIEnv* real) {
    // A new real env means the thread was detached and attached again since.
    if (t_env.real != real) ForgetThreadState();
    t_env.env.functions = &kTable;
    t_env.real = real;
    return &t_env.env;
}

#undef QV_JNI_CALL_TYPES
#undef QV_JNI_FIELD_TYPES
#undef QV_JNI_PRIMITIVE_TYPES
#undef QV_JNI_FIXED_ENTRIES
#undef QV_JNI_VARIADIC_ENTRIES

jclass GlobalClass(JNIEnv* env, const char* name) {
    jclass local = env->FindClass(name);
    if (local == nullptr) {
        std::fprintf(stderr, "the JNI interposer cannot find %s\n", name);
        std::abort();
    }
    auto global = static_cast<jclass>(env->NewGlobalRef(local));
    env->DeleteLocalRef(local);
    return global;
}

}  // namespace

// ============================================================== JniInterposer

JniInterposer& JniInterposer::Instance() {
    static JniInterposer* instance = new JniInterposer();
    return *instance;
}

JniInterposer::JniInterposer() {
    JNIEnv* env = TestEnv();
    if (env == nullptr) {
        std::fprintf(stderr, "the JNI interposer cannot attach to the test JVM\n");
        std::abort();
    }
    State& st = St();
    st.noClassDefFoundError = GlobalClass(env, "java/lang/NoClassDefFoundError");
    st.noSuchMethodError = GlobalClass(env, "java/lang/NoSuchMethodError");
    st.noSuchFieldError = GlobalClass(env, "java/lang/NoSuchFieldError");
    st.outOfMemoryError = GlobalClass(env, "java/lang/OutOfMemoryError");
    st.arrayIndexOutOfBounds = GlobalClass(env, "java/lang/ArrayIndexOutOfBoundsException");
}

JavaVM* JniInterposer::Vm() {
    return &g_vm;
}

void JniInterposer::Reset() {
    State& st = St();
    std::lock_guard<std::mutex> lock(st.mutex);
    st.calls.clear();
    st.violations.clear();
    for (auto& planned : st.faults) planned.clear();
    st.faultsPlanned.store(false, std::memory_order_release);
    st.localRefsMade.store(0);
    st.localRefsDeleted.store(0);
    st.attaches.store(0);
    st.detaches.store(0);
}

std::vector<JniCall> JniInterposer::Calls() const {
    const State& st = St();
    std::lock_guard<std::mutex> lock(st.mutex);
    std::vector<JniCall> calls;
    calls.reserve(st.calls.size());
    for (const CallRecord& call : st.calls) calls.push_back(JniCall{call.function, call.detail, call.threadId});
    return calls;
}

size_t JniInterposer::CountOf(const std::string& function, const std::string& detailPart) const {
    const State& st = St();
    std::lock_guard<std::mutex> lock(st.mutex);
    size_t count = 0;
    for (const CallRecord& call : st.calls) {
        if (function == call.function && call.detail.find(detailPart) != std::string::npos) ++count;
    }
    return count;
}

int64_t JniInterposer::LocalRefsMade() const {
    return St().localRefsMade.load();
}

int64_t JniInterposer::LocalRefsDeleted() const {
    return St().localRefsDeleted.load();
}

int64_t JniInterposer::Attaches() const {
    return St().attaches.load();
}

int64_t JniInterposer::Detaches() const {
    return St().detaches.load();
}

namespace {
void Plan(FaultKind kind, const std::string& first, const std::string& second, int times) {
    if (times == 0) return;
    State& st = St();
    std::lock_guard<std::mutex> lock(st.mutex);
    st.faults[static_cast<size_t>(kind)].push_back(PlannedFault{first, second, times < 0 ? -1 : times});
    st.faultsPlanned.store(true, std::memory_order_release);
}
}  // namespace

void JniInterposer::FailAttach(int times) {
    Plan(FaultKind::Attach, std::string(), std::string(), times);
}

void JniInterposer::FailFindClass(const std::string& className, int times) {
    Plan(FaultKind::FindClass, className, std::string(), times);
}

void JniInterposer::FailGetMethodID(const std::string& name, const std::string& signature, int times) {
    Plan(FaultKind::GetMethodID, name, signature, times);
}

void JniInterposer::FailGetFieldID(const std::string& name, const std::string& signature, int times) {
    Plan(FaultKind::GetFieldID, name, signature, times);
}

void JniInterposer::FailGetObjectClass(int times) {
    Plan(FaultKind::GetObjectClass, std::string(), std::string(), times);
}

void JniInterposer::FailGetObjectClassWithException(int times) {
    Plan(FaultKind::GetObjectClass, kRaiseOutOfMemory, std::string(), times);
}

void JniInterposer::FailNewByteArray(int times) {
    Plan(FaultKind::NewByteArray, std::string(), std::string(), times);
}

void JniInterposer::FailEnsureLocalCapacity(int times) {
    Plan(FaultKind::EnsureLocalCapacity, std::string(), std::string(), times);
}

void JniInterposer::FailElementAccess(int times) {
    Plan(FaultKind::ElementAccess, std::string(), std::string(), times);
}

void JniInterposer::ThrowCppExceptionIn(const std::string& function, int times) {
    Plan(FaultKind::ThrowCpp, function, std::string(), times);
}

void JniInterposer::SetStrict(bool strict) {
    St().strict.store(strict);
}

bool JniInterposer::IsStrict() const {
    return St().strict.load();
}

std::vector<std::string> JniInterposer::StrictViolations() const {
    const State& st = St();
    std::lock_guard<std::mutex> lock(st.mutex);
    return st.violations;
}

std::string InterposerProblems(bool expectBalanced) {
    JniInterposer& interposer = JniInterposer::Instance();
    std::string text;
    for (const std::string& violation : interposer.StrictViolations()) {
        text += "JNI misuse: " + violation + "\n";
    }
    if (expectBalanced) {
        const int64_t made = interposer.LocalRefsMade();
        const int64_t deleted = interposer.LocalRefsDeleted();
        if (made != deleted) {
            text += "local references left: " + std::to_string(made - deleted) + " (made " + std::to_string(made) +
                    ", deleted " + std::to_string(deleted) + ")\n";
        }
    }
    return text;
}

}  // namespace jnitest
