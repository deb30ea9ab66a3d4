// Ownership of JNI local references.
//
// Every local reference that the bridge makes is held by a LocalRef, which
// deletes it on every path out of its scope, so that threads the host had
// attached before calling (and which therefore are not detached after the
// call) accumulate nothing.
#pragma once

#include <jni.h>

#include <utility>

template <typename T = jobject>
class LocalRef {
public:
    // An empty holder; give it an environment (by assignment) before it holds anything.
    LocalRef() = default;
    LocalRef(JNIEnv* env, T ref) : m_env(env), m_ref(ref) {}
    ~LocalRef() { reset(); }

    LocalRef(LocalRef&& other) noexcept : m_env(other.m_env), m_ref(other.release()) {}
    LocalRef& operator=(LocalRef&& other) noexcept {
        if (this != &other) {
            reset();
            m_env = other.m_env;
            m_ref = other.release();
        }
        return *this;
    }
    LocalRef(const LocalRef&) = delete;
    LocalRef& operator=(const LocalRef&) = delete;

    T get() const { return m_ref; }
    explicit operator bool() const { return m_ref != nullptr; }

    // Gives up ownership without deleting.
    T release() { return std::exchange(m_ref, nullptr); }

    // Deletes the reference held now (if any) and holds `ref` instead. A
    // holder without an environment cannot delete: it must not take one.
    void reset(T ref = nullptr) {
        if (m_ref && m_env) m_env->DeleteLocalRef(m_ref);
        m_ref = ref;
    }

private:
    JNIEnv* m_env = nullptr;
    T m_ref = nullptr;
};

template <typename T>
LocalRef<T> MakeLocal(JNIEnv* env, T ref) {
    return LocalRef<T>(env, ref);
}
