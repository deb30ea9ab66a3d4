// The call frame that every bridge operation follows, written once.
//
// An operation calls one method of the Java plug-in object and turns what
// comes back into a result code:
//   attach guard -> environment and plug-in object present -> the object's
//   class -> method lookup (with the operation's rule for a missing method)
//   -> argument conversion -> one CallObjectMethod -> conversion of the
//   result -> local references released -> thread detached.
// Operations differ only in the data of their OperationTraits (Java name and
// signature, class test, missing-method rule, extra lines, exception line)
// and in two small functions: the arguments they pass and the conversion of
// the result.
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
jclass GetAzurePlugInClass(JNIEnv* env, JNIWrapperLog* log);

// GetMethodID on `cls`. When the class is null (nothing is looked up then)
// or the method is missing, the exception is described and three lines are
// written: "GetAzurePlugInObjectMethod::Method is not got... Method Name:- ",
// the name and the signature (narrow texts shown as the log always showed
// them, see NarrowBytesAsWide).
jmethodID GetAzurePlugInObjectMethod(JNIEnv* env, JNIWrapperLog* log, jclass cls, const char* name,
                                     const char* signature);

// What an operation does when its method is missing and no Java exception
// is pending (a pending one always gives 40).
enum class MissingMethodRule {
    // Ends at once with 0: a missing method counts as success.
    ReturnSuccess,
    // Goes on as if the method had returned null (the call itself is not
    // made, since there is nothing to call).
    TakeNullResult,
};

struct OperationTraits {
    const char* javaName;
    const char* signature;
    MissingMethodRule missingMethod;
    // "<Operation>::Exception is occured..." (some operations borrow another's name).
    const char16_t* exceptionLine;
    // When set, a null class of the plug-in object writes
    // "m_ObjQVAzurePlugInLibrary is failed..." and gives 40; otherwise the
    // lookup goes on with the null class (and fails).
    bool testClass = false;
    // Written when the method is missing, before the exception check.
    const char16_t* missingMethodLine = nullptr;
    // Written when the method is missing with an exception pending.
    const char16_t* pendingExceptionLine = nullptr;
    // Error lines written right before and right after the call.
    const char16_t* calledLine = nullptr;
    const char16_t* endedLine = nullptr;
    // With testClass: the line written for a null class (null: none).
    const char16_t* missingClassLine = u"m_ObjQVAzurePlugInLibrary is failed...";
};

// The arguments of one call, converted for JNI. The Java objects made for
// them are released with it.
class JavaArguments {
public:
    explicit JavaArguments(JNIEnv* env) : m_env(env) {}

    void AddString(const WideString& text) { AddObject(GetJStringFromWideString(m_env, text)); }
    void AddLong(int64_t value) {
        jvalue v;
        v.j = static_cast<jlong>(value);
        m_values.push_back(v);
    }
    void AddInt(int32_t value) {
        jvalue v;
        v.j = 0;
        v.i = static_cast<jint>(value);
        m_values.push_back(v);
    }
    void AddBoolean(bool value) {
        jvalue v;
        v.z = value ? JNI_TRUE : JNI_FALSE;
        m_values.push_back(v);
    }
    // Takes ownership of a new local reference (which may be null).
    void AddObject(jobject object) {
        m_owned.emplace_back(m_env, object);
        jvalue v;
        v.l = object;
        m_values.push_back(v);
    }
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
    AutoAttachJVM guard(bridge.jvm, bridge.log);
    JNIEnv* env = guard.GetJNIEnv();
    if (!env || !bridge.plugin) return kResultBridgeFailure;
    try {
        LocalRef<jclass> cls(env, env->GetObjectClass(bridge.plugin));
        if (!cls && op.testClass) {
            ClearPendingException(env);
            if (op.missingClassLine) LogError(bridge.log, op.missingClassLine);
            return kResultBridgeFailure;
        }
        const jmethodID method = GetAzurePlugInObjectMethod(env, bridge.log, cls.get(), op.javaName, op.signature);
        if (!method) {
            if (op.missingMethodLine) LogError(bridge.log, op.missingMethodLine);
            if (DescribeException(env, bridge.log) == 0) {
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
        LocalRef<jobject> result(env, method ? env->CallObjectMethodA(bridge.plugin, method, arguments.Values())
                                             : nullptr);
        // A Java exception out of the method reads as a null result.
        if (!result) ClearPendingException(env);
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
