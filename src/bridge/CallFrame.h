// The call frame that every bridge operation follows, written once.
//
// An operation calls one method of the Java plug-in object and turns what
// comes back into a result code:
//   attach guard -> environment and plug-in object present -> the object's
//   class (with the operation's rule for a missing class) -> method lookup
//   (with its rule for a missing method) -> argument conversion -> one
//   CallObjectMethod -> conversion of the result -> local references
//   released -> thread detached.
// Storage operations differ only in the data of their OperationTraits (Java
// name and signature, class and missing-method rules, extra lines, exception
// line) and in two small functions: the arguments they pass and the
// conversion of the result. The life-cycle operations and
// GetObjectActualSize, whose steps after the lookup are their own, open the
// frame with the same FrameOpening.
#pragma once

#include <jni.h>

#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "bridge/BridgeLog.h"
#include "bridge/ErrorMapping.h"
#include "bridge/JVMHost.h"
#include "bridge/LocalRef.h"
#include "cloudplugin/ICloudPluginInterface.h"
#include "marshal/JniValues.h"

// The class of the Java plug-in object, looked up by name (FindClass). When
// it is missing, the exception is described and
// "GetAzurePlugInClass::Class object is not got..." is written.
LocalRef<jclass> GetAzurePlugInClass(JNIEnv* env, JNIWrapperLog* log);

// GetMethodID on `cls`. When the class is null (nothing is looked up then)
// or the method is missing, the exception is described and three lines are
// written: "GetAzurePlugInObjectMethod::Method is not got... Method Name:- ",
// the name and the signature (narrow texts shown as the log always showed
// them, see NarrowBytesAsWide).
jmethodID GetAzurePlugInObjectMethod(JNIEnv* env, JNIWrapperLog* log, jclass cls, const char* name,
                                     const char* signature);

// What an operation does when the plug-in object's class cannot be had.
enum class MissingClassRule {
    // The class is not tested: the method lookup runs on the null class and
    // fails (describing a pending exception and writing its lines), and the
    // missing-method rule follows.
    NotTested,
    // 40, after the operation's missing-class line when it has one; a pending
    // exception is cleared without a trace.
    Fail,
    // A pending exception is described, the missing-class line follows, 40.
    DescribeAndFail,
    // A pending exception is described and gives 40; with none pending the
    // operation goes on as NotTested.
    DescribeThenGoOn,
};

// What an operation does when its method is missing and no Java exception
// is pending (a pending one always gives 40).
enum class MissingMethodRule {
    // Ends at once with 0: a missing method counts as success.
    ReturnSuccess,
    // Goes on as if the method had returned null (the call itself is not
    // made, since there is nothing to call).
    TakeNullResult,
};

// What becomes of a Java exception thrown by the method, which always comes
// back as a null result.
enum class JavaExceptionRule {
    // Cleared without a trace before the conversion: it reads as a null
    // result.
    Clear,
    // Left pending for the conversion, whose null-result path describes it
    // (DescribePendingException) before any other JNI call.
    DescribeOnNullResult,
};

// What one operation declares about itself. Made by a constexpr builder:
//   constexpr OperationTraits kX =
//       Operation("JavaName", "(...)L...;", MissingMethodRule::..., u"X::Exception is occured...")
//           .CalledLine(u"...").EndedLine(u"...");
struct OperationTraits {
    const char* javaName;
    const char* signature;
    MissingMethodRule missingMethod;
    // "<Operation>::Exception is occured..." (some operations borrow another's name).
    const char16_t* exceptionLine;
    MissingClassRule missingClass = MissingClassRule::NotTested;
    // Written by the Fail and DescribeAndFail rules (null: none).
    const char16_t* missingClassLine = nullptr;
    // Written when the method is missing, before the exception check.
    const char16_t* missingMethodLine = nullptr;
    // Written when the method is missing with an exception pending.
    const char16_t* pendingExceptionLine = nullptr;
    // Error lines written right before and right after the call.
    const char16_t* calledLine = nullptr;
    const char16_t* endedLine = nullptr;
    JavaExceptionRule javaException = JavaExceptionRule::Clear;

private:
    // A copy of these traits with one member set: the frame every builder
    // step shares. Defined before the steps that call it: Clang 14 does not
    // evaluate a member template in a constant expression when its definition
    // comes later in the class ("undefined function ... cannot be used in a
    // constant expression").
    template <typename T>
    constexpr OperationTraits With(T OperationTraits::*member, T value) const {
        OperationTraits copy = *this;
        copy.*member = value;
        return copy;
    }

public:
    // A null class of the plug-in object gives 40 (after `line`, when given).
    constexpr OperationTraits FailingWithoutClass(const char16_t* line = nullptr) const {
        return WithoutClass(MissingClassRule::Fail, line);
    }
    // A null class of the plug-in object applies `rule` (with `line`, where the rule writes one).
    constexpr OperationTraits WithoutClass(MissingClassRule rule, const char16_t* line = nullptr) const {
        return With(&OperationTraits::missingClass, rule).With(&OperationTraits::missingClassLine, line);
    }
    constexpr OperationTraits MissingMethodLine(const char16_t* line) const {
        return With(&OperationTraits::missingMethodLine, line);
    }
    constexpr OperationTraits PendingExceptionLine(const char16_t* line) const {
        return With(&OperationTraits::pendingExceptionLine, line);
    }
    constexpr OperationTraits CalledLine(const char16_t* line) const { return With(&OperationTraits::calledLine, line); }
    constexpr OperationTraits EndedLine(const char16_t* line) const { return With(&OperationTraits::endedLine, line); }
    // A Java exception thrown by the method stays pending for the conversion's null-result path.
    constexpr OperationTraits DescribingJavaExceptions() const {
        return With(&OperationTraits::javaException, JavaExceptionRule::DescribeOnNullResult);
    }
};

// The start of every declaration: what each operation has.
constexpr OperationTraits Operation(const char* javaName, const char* signature, MissingMethodRule missingMethod,
                                    const char16_t* exceptionLine) {
    return OperationTraits{javaName, signature, missingMethod, exceptionLine};
}

// The line of the operations whose Fail rule names the missing class.
constexpr const char16_t* kMissingPluginClassLine = u"m_ObjQVAzurePlugInLibrary is failed...";

// The arguments of one call, converted for JNI. The Java objects made for
// them are owned by it and released with it.
class JavaArguments {
public:
    explicit JavaArguments(JNIEnv* env) : m_env(env) {}

    void AddString(const WideString& text) { AddObject(GetJStringFromWideString(m_env, text)); }
    void AddLong(int64_t value) {
        jvalue v;
        v.j = static_cast<jlong>(value);
        m_values.push_back(v);
    }
    // A Java int parameter reads the jvalue's `i` member; the rest of the
    // jvalue is zeroed.
    void AddInt(int32_t value) {
        jvalue v;
        v.j = 0;
        v.i = static_cast<jint>(value);
        m_values.push_back(v);
    }
    void AddBoolean(bool value) {
        jvalue v;
        v.j = 0;
        v.z = value ? JNI_TRUE : JNI_FALSE;
        m_values.push_back(v);
    }
    // Takes the object (which may hold nothing: Java then receives null);
    // answers the reference, which the arguments own.
    template <typename T>
    jobject AddObject(LocalRef<T> object) {
        const jobject reference = object.get();
        m_owned.emplace_back(m_env, static_cast<jobject>(object.release()));
        jvalue v;
        v.l = reference;
        m_values.push_back(v);
        return reference;
    }
    // A null object argument.
    void AddNull() { AddObject(LocalRef<jobject>(m_env, nullptr)); }
    // Deletes the reference of an argument added above at once (after the
    // call), rather than with the arguments; it is not deleted again.
    void ReleaseNow(jobject object) {
        if (!object) return;
        for (LocalRef<jobject>& owned : m_owned) {
            if (owned.get() == object) {
                owned.reset();
                return;
            }
        }
    }
    // The environment of the call, for arguments that need more than one JNI step.
    JNIEnv* Env() const { return m_env; }
    const jvalue* Values() const { return m_values.empty() ? nullptr : m_values.data(); }
    size_t Count() const { return m_values.size(); }

private:
    JNIEnv* m_env;
    std::vector<jvalue> m_values;
    std::vector<LocalRef<jobject>> m_owned;
};

// What the frame needs of the bridge.
struct BridgeContext {
    JavaVM* jvm;
    JNIWrapperLog* log;
    jobject plugin;  // the global reference of the Java plug-in object; null when there is none
};

// The opening steps of every call into Java, written once: the attach guard
// (the calling thread is attached for the call and detached after it, when
// it was not attached before), the environment, the plug-in object, its
// class and the method lookup. Declare it before the operation's try block:
// the guard must outlive the catch-all.
class FrameOpening {
public:
    explicit FrameOpening(const BridgeContext& bridge)
        : m_bridge(bridge), m_guard(bridge.jvm, bridge.log), m_env(m_guard.GetJNIEnv()), m_class(m_env, nullptr) {}
    FrameOpening(const FrameOpening&) = delete;
    FrameOpening& operator=(const FrameOpening&) = delete;

    // The calling thread's environment; null when it could not be attached.
    JNIEnv* Env() const { return m_env; }
    // The environment and the plug-in object are there. Otherwise the
    // operation answers 40 without a line of its own.
    bool Ready() const { return m_env && m_bridge.plugin; }

    // The plug-in object's class (GetObjectClass). When there is none,
    // `rule` decides: the answer is the code that ends the operation, or
    // nothing when it goes on (with a null class).
    std::optional<uint32_t> TakePluginClass(MissingClassRule rule, const char16_t* missingClassLine);
    // The plug-in class by name (GetAzurePlugInClass); false when it is missing.
    bool FindPluginClass();
    jclass Class() const { return m_class.get(); }

    // GetAzurePlugInObjectMethod on the class taken; null when missing.
    jmethodID LookUpMethod(const char* name, const char* signature) const {
        return GetAzurePlugInObjectMethod(m_env, m_bridge.log, m_class.get(), name, signature);
    }

private:
    BridgeContext m_bridge;
    AutoAttachJVM m_guard;
    JNIEnv* m_env;
    LocalRef<jclass> m_class;
};

// Runs one operation through the frame. `buildArguments(JavaArguments&)`
// adds the call's arguments; it may return std::optional<uint32_t>, and a
// code returned so ends the operation there, without the call (for an
// argument that could not be made). `convert(JNIEnv*, jobject result)` turns
// the result (null when Java returned null, threw, or the method was missing
// under TakeNullResult) into the operation's result code. Both run inside
// the frame's catch-all. `lineSuffix` follows each of the operation's
// called/ended lines (most operations name their object there).
template <typename BuildArguments, typename Convert>
uint32_t RunCallFrame(const BridgeContext& bridge, const OperationTraits& op, const WideString& lineSuffix,
                      BuildArguments&& buildArguments, Convert&& convert) {
    FrameOpening frame(bridge);
    if (!frame.Ready()) return kResultBridgeFailure;
    JNIEnv* const env = frame.Env();
    try {
        if (const std::optional<uint32_t> end = frame.TakePluginClass(op.missingClass, op.missingClassLine))
            return *end;
        const jmethodID method = frame.LookUpMethod(op.javaName, op.signature);
        if (!method) {
            if (op.missingMethodLine) LogError(bridge.log, op.missingMethodLine);
            if (DescribePendingException(env, bridge.log)) {
                if (op.pendingExceptionLine) LogError(bridge.log, op.pendingExceptionLine);
                return kResultBridgeFailure;
            }
            if (op.missingMethod == MissingMethodRule::ReturnSuccess) return kResultSuccess;
        }
        JavaArguments arguments(env);
        if constexpr (std::is_void_v<decltype(buildArguments(arguments))>) {
            buildArguments(arguments);
        } else {
            const std::optional<uint32_t> early = buildArguments(arguments);
            if (early) return *early;
        }
        if (op.calledLine) LogError(bridge.log, op.calledLine + lineSuffix);
        const LocalRef<jobject> result(
            env, method ? env->CallObjectMethodA(bridge.plugin, method, arguments.Values()) : nullptr);
        // A Java exception out of the method comes back as a null result;
        // it is cleared here unless the conversion describes it.
        if (!result && op.javaException == JavaExceptionRule::Clear) ClearPendingException(env);
        if (op.endedLine) LogError(bridge.log, op.endedLine + lineSuffix);
        return convert(env, result.get());
    } catch (...) {
        ClearPendingException(env);
        LogError(bridge.log, op.exceptionLine);
        return kResultBridgeFailure;
    }
}

// The same for operations whose lines carry no suffix.
template <typename BuildArguments, typename Convert>
uint32_t RunCallFrame(const BridgeContext& bridge, const OperationTraits& op, BuildArguments&& buildArguments,
                      Convert&& convert) {
    return RunCallFrame(bridge, op, WideString(), std::forward<BuildArguments>(buildArguments),
                        std::forward<Convert>(convert));
}
