#include "marshal/JavaFields.h"

#include <utility>

JavaClassFields::JavaClassFields(JNIEnv* env, LocalRef<jclass> cls) : m_env(env), m_class(std::move(cls)) {}

JavaClassFields::JavaClassFields(JNIEnv* env, const char* className)
    : m_env(env), m_class(env, env ? env->FindClass(className) : nullptr) {
    if (!m_class) ClearPendingException(env);
}

JavaClassFields JavaClassFields::OfObject(JNIEnv* env, jobject object) {
    return JavaClassFields(env, LocalRef<jclass>(env, env && object ? env->GetObjectClass(object) : nullptr));
}

JavaClassFields JavaClassFields::ForInstance(JNIEnv* env, const char* className, jobject object) {
    JavaClassFields fields(env, className);
    if (fields.m_class && (!object || !env->IsInstanceOf(object, fields.m_class.get())))
        fields.m_class.reset();
    return fields;
}

jfieldID JavaClassFields::Id(const char* name, const char* signature) const {
    if (!m_env || !m_class) return nullptr;
    const jfieldID id = m_env->GetFieldID(m_class.get(), name, signature);
    if (!id) ClearPendingException(m_env);
    return id;
}

LocalRef<jobject> JavaClassFields::Object(jobject object, jfieldID id) const {
    if (!m_env || !object || !id) return LocalRef<jobject>(m_env, nullptr);
    return LocalRef<jobject>(m_env, m_env->GetObjectField(object, id));
}

std::optional<WideString> JavaClassFields::String(jobject object, jfieldID id) const {
    const LocalRef<jobject> text = Object(object, id);
    return GetWideStringFromJString(m_env, static_cast<jstring>(text.get()));
}

std::optional<int64_t> JavaClassFields::Long(jobject object, jfieldID id) const {
    if (!m_env || !object || !id) return std::nullopt;
    return static_cast<int64_t>(m_env->GetLongField(object, id));
}

std::optional<bool> JavaClassFields::Boolean(jobject object, jfieldID id) const {
    if (!m_env || !object || !id) return std::nullopt;
    return m_env->GetBooleanField(object, id) != JNI_FALSE;
}

std::optional<int32_t> JavaClassFields::Int(jobject object, jfieldID id) const {
    if (!m_env || !object || !id) return std::nullopt;
    return static_cast<int32_t>(m_env->GetIntField(object, id));
}

void JavaClassFields::SetObject(jobject object, jfieldID id, jobject value) const {
    if (!m_env || !object || !id) return;
    m_env->SetObjectField(object, id, value);
}

