// Field and array access shared by every value conversion: a class whose
// fields are looked up once and read as absent when missing, and a walk over
// the non-null elements of a Java object array.
#pragma once

#include <jni.h>

#include <cstdint>
#include <optional>

#include "bridge/LocalRef.h"
#include "cloudplugin/ICloudPluginInterface.h"
#include "marshal/JniValues.h"

constexpr const char* kJavaStringSignature = "Ljava/lang/String;";

// The fields of one Java class. A class or field that is not found reads as
// absent (the JVM's exception is cleared without a trace): reading it
// answers nothing or null, writing it does nothing. The class reference is
// owned and deleted with this object.
class JavaClassFields {
public:
    // FindClass of `className` (JNI form).
    JavaClassFields(JNIEnv* env, const char* className);
    // GetObjectClass of `object` (nothing for a null object).
    static JavaClassFields OfObject(JNIEnv* env, jobject object);
    // FindClass of `className`, kept only when `object` is one of its instances: the fields of a class
    // are read from an object only when the object has them.
    static JavaClassFields ForInstance(JNIEnv* env, const char* className, jobject object);

    bool Found() const { return static_cast<bool>(m_class); }
    jclass Class() const { return m_class.get(); }

    // GetFieldID; null for a missing class or field.
    jfieldID Id(const char* name, const char* signature) const;

    // Reads of `object`'s field `id`; nothing (or a null reference) for a null id or object.
    LocalRef<jobject> Object(jobject object, jfieldID id) const;
    std::optional<WideString> String(jobject object, jfieldID id) const;
    std::optional<int64_t> Long(jobject object, jfieldID id) const;
    std::optional<bool> Boolean(jobject object, jfieldID id) const;
    std::optional<int32_t> Int(jobject object, jfieldID id) const;

    // SetObjectField; nothing for a null id or object.
    void SetObject(jobject object, jfieldID id, jobject value) const;

private:
    JavaClassFields(JNIEnv* env, LocalRef<jclass> cls);

    JNIEnv* m_env;
    LocalRef<jclass> m_class;
};

// Calls `visit` with each non-null element of a Java object array, from index 0 up. A null array visits
// nothing; an element that cannot be had is skipped (its exception cleared). Each element's reference is
// deleted right after its visit, so long arrays do not pile up references.
template <typename Visit>
void ForEachArrayElement(JNIEnv* env, jobject array, Visit&& visit) {
    if (!env || !array) return;
    const auto elements = static_cast<jobjectArray>(array);
    const jsize length = env->GetArrayLength(elements);
    for (jsize index = 0; index < length; ++index) {
        LocalRef<jobject> element(env, env->GetObjectArrayElement(elements, index));
        if (!element) {
            ClearPendingException(env);
            continue;
        }
        visit(element.get());
    }
}

