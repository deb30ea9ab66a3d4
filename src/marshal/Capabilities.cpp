#include "marshal/Capabilities.h"

#include <optional>
#include <utility>

#include "bridge/LocalRef.h"
#include "marshal/JniValues.h"
#include "marshal/MetaData.h"

namespace {

LocalRef<jclass> FindClassOrNone(JNIEnv* env, const char* name) {
    LocalRef<jclass> cls(env, env->FindClass(name));
    if (!cls) ClearPendingException(env);
    return cls;
}

// A method of `cls`; none for a missing class or method.
jmethodID MethodOrNone(JNIEnv* env, jclass cls, const char* name, const char* signature) {
    if (!cls) return nullptr;
    const jmethodID method = env->GetMethodID(cls, name, signature);
    if (!method) ClearPendingException(env);
    return method;
}

// What an object-returning method answers; a missing object or method, or a
// Java exception (cleared), answers null.
LocalRef<jobject> CallOrNull(JNIEnv* env, jobject object, jmethodID method) {
    if (!object || !method) return LocalRef<jobject>(env, nullptr);
    LocalRef<jobject> answer(env, env->CallObjectMethod(object, method));
    ClearPendingException(env);
    return answer;
}

// The text of a key or value; none for null and for anything but a Java string.
std::optional<WideString> TextOf(JNIEnv* env, jobject object, jclass stringClass) {
    if (!object || !stringClass || !env->IsInstanceOf(object, stringClass)) return std::nullopt;
    return GetWideStringFromJString(env, static_cast<jstring>(object));
}

}  // namespace

void ReadCapabilityMap(JNIEnv* env, jobject map, CapabilityMap* capabilities) {
    if (!env || !capabilities) return;
    // A missing class or method answers as if Java had returned null, so a null map or a broken
    // collection ends with an empty walk.
    const LocalRef<jclass> mapClass(env, map ? env->GetObjectClass(map) : nullptr);
    const LocalRef<jobject> entrySet =
        CallOrNull(env, map, MethodOrNone(env, mapClass.get(), "entrySet", "()Ljava/util/Set;"));
    const LocalRef<jclass> setClass = FindClassOrNone(env, "java/util/Set");
    const LocalRef<jobject> iterator = CallOrNull(
        env, entrySet.get(), MethodOrNone(env, setClass.get(), "iterator", "()Ljava/util/Iterator;"));
    const LocalRef<jclass> iteratorClass = FindClassOrNone(env, "java/util/Iterator");
    const jmethodID hasNext = MethodOrNone(env, iteratorClass.get(), "hasNext", "()Z");
    const jmethodID next = MethodOrNone(env, iteratorClass.get(), "next", "()Ljava/lang/Object;");
    const LocalRef<jclass> entryClass = FindClassOrNone(env, "java/util/Map$Entry");
    const jmethodID getKey = MethodOrNone(env, entryClass.get(), "getKey", "()Ljava/lang/Object;");
    const jmethodID getValue = MethodOrNone(env, entryClass.get(), "getValue", "()Ljava/lang/Object;");
    const LocalRef<jclass> stringClass = FindClassOrNone(env, "java/lang/String");

    capabilities->clear();
    // Without next the iterator could never move on: there is nothing to walk.
    if (!iterator || !hasNext || !next) return;
    while (true) {
        const jboolean more = env->CallBooleanMethod(iterator.get(), hasNext);
        if (ClearPendingException(env) || more != JNI_TRUE) break;
        const LocalRef<jobject> entry(env, env->CallObjectMethod(iterator.get(), next));
        // An iterator that fails on next would fail again: the walk ends there.
        if (ClearPendingException(env)) break;
        const LocalRef<jobject> key = CallOrNull(env, entry.get(), getKey);
        const LocalRef<jobject> value = CallOrNull(env, entry.get(), getValue);
        std::optional<WideString> keyText = TextOf(env, key.get(), stringClass.get());
        std::optional<WideString> valueText = TextOf(env, value.get(), stringClass.get());
        // emplace keeps a key already present with its first value.
        if (keyText && valueText) capabilities->emplace(std::move(*keyText), std::move(*valueText));
    }
}

void ConvertCloudPluginCapabilities(JNIEnv* env, jobject result, CapabilityMap* capabilities) {
    if (!env || !result) return;
    const JavaClassFields resultClass =
        JavaClassFields::ForInstance(env, "com/qv/QVCloudPluginInterface/CloudPluginCapabilities", result);
    const jfieldID mapId = resultClass.Id("pluginCapabilities", "Ljava/util/Map;");
    // A field that is not found reads as absent: the host's map keeps what it held.
    if (!mapId) return;
    const LocalRef<jobject> map = resultClass.Object(result, mapId);
    ReadCapabilityMap(env, map.get(), capabilities);
}
