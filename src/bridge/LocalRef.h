// Ownership of JNI references.
//
// Every local reference that the bridge makes is held by a LocalRef, which
// deletes it on every path out of its scope, so that threads the host had
// attached before calling (and which therefore are not detached after the
// call) accumulate nothing. Functions that make a local reference hand back
// its owner, never the bare reference.
//
// The one global reference of the bridge (the Java plug-in object) is held
// by a GlobalRef.
#pragma once

#include <jni.h>

#include <utility>

template <typename T = jobject>
class LocalRef {
public:
    // Owns `ref`, a local reference of `env` (null holds nothing). There is
    // no empty holder without an environment: a holder can always delete
    // what it is given.
    LocalRef(JNIEnv* env, T ref) noexcept : m_env(env), m_ref(ref) {}
    ~LocalRef() { reset(); }

    LocalRef(LocalRef&& other) noexcept : m_env(other.m_env), m_ref(std::exchange(other.m_ref, nullptr)) {}
    LocalRef& operator=(LocalRef&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.m_ref, nullptr));
            m_env = other.m_env;
        }
        return *this;
    }
    LocalRef(const LocalRef&) = delete;
    LocalRef& operator=(const LocalRef&) = delete;

    T get() const { return m_ref; }
    JNIEnv* env() const { return m_env; }
    explicit operator bool() const { return m_ref != nullptr; }

    // Gives up ownership without deleting; the caller owns the reference from
    // here on.
    [[nodiscard]] T release() { return std::exchange(m_ref, nullptr); }

    // Deletes the reference held now (if any) and holds `ref` instead.
    // Resetting to the reference already held changes nothing.
    void reset(T ref = nullptr) {
        if (ref == m_ref) return;
        const T old = std::exchange(m_ref, ref);
        if (old && m_env) m_env->DeleteLocalRef(old);
    }

private:
    JNIEnv* m_env;
    T m_ref;
};

// The holder of one JNI global reference.
//
// A global reference outlives the thread that made it, and the JVM may be
// gone, or the destroying thread unattached, when its owner ends. So a
// GlobalRef never touches JNI by itself: the reference is made and deleted
// with an environment of the calling thread, and one still held when the
// holder ends is left to the JVM (the bridge keeps its plug-in object until
// DeInit releases it).
class GlobalRef {
public:
    GlobalRef() = default;
    GlobalRef(const GlobalRef&) = delete;
    GlobalRef& operator=(const GlobalRef&) = delete;

    jobject get() const { return m_ref; }
    explicit operator bool() const { return m_ref != nullptr; }

    // Holds a new global reference to `object` (none for a null object). A
    // reference held before is not deleted: whoever still uses it keeps a
    // valid reference (a second StartCommunication leaves the first plug-in
    // object alive, as hosts have always had it).
    void Hold(JNIEnv* env, jobject object) { m_ref = object ? env->NewGlobalRef(object) : nullptr; }

    // Deletes the reference held (if any); the holder holds none afterwards.
    void Delete(JNIEnv* env) {
        if (const jobject old = std::exchange(m_ref, nullptr)) env->DeleteGlobalRef(old);
    }

private:
    jobject m_ref = nullptr;
};
