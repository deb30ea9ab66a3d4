#include "marshal/JniValues.h"

#include "bridge/BridgeLog.h"

bool ClearPendingException(JNIEnv* env) {
    if (!env || !env->ExceptionCheck()) return false;
    env->ExceptionClear();
    return true;
}

std::optional<WideString> GetWideStringFromJString(JNIEnv* env, jstring text) {
    if (!env || !text) return std::nullopt;
    const jsize length = env->GetStringLength(text);
    const jchar* chars = env->GetStringChars(text, nullptr);
    if (!chars) {
        ClearPendingException(env);
        return std::nullopt;
    }
    jsize end = 0;
    while (end < length && chars[end] != 0) ++end;
    WideString copy(reinterpret_cast<const char16_t*>(chars), static_cast<size_t>(end));
    env->ReleaseStringChars(text, chars);
    return copy;
}

LocalRef<jstring> GetJStringFromWideString(JNIEnv* env, const char16_t* text) {
    if (!env) return LocalRef<jstring>(env, nullptr);
    jstring result = nullptr;
    if (!text) {
        result = env->NewStringUTF("");
    } else {
        size_t length = 0;
        while (text[length] != 0) ++length;
        result = env->NewString(reinterpret_cast<const jchar*>(text), static_cast<jsize>(length));
    }
    if (!result) ClearPendingException(env);
    return LocalRef<jstring>(env, result);
}

LocalRef<jstring> GetJStringFromWideString(JNIEnv* env, const WideString& text) {
    if (!env) return LocalRef<jstring>(env, nullptr);
    const size_t nul = text.find(u'\0');
    const size_t length = nul == WideString::npos ? text.size() : nul;
    jstring result = env->NewString(reinterpret_cast<const jchar*>(text.data()), static_cast<jsize>(length));
    if (!result) ClearPendingException(env);
    return LocalRef<jstring>(env, result);
}

namespace {
LocalRef<jbyteArray> MakeByteArray(JNIEnv* env, const uint8_t* buffer, uint32_t length, bool copy) {
    LocalRef<jbyteArray> none(env, nullptr);
    if (!env) return none;
    if (copy && !buffer && length != 0) return none;
    if (env->EnsureLocalCapacity(2) < 0) {
        ClearPendingException(env);
        return none;
    }
    // The JVM takes a signed 32-bit length: a length of 2 GiB or more
    // cannot be made.
    if (length > 0x7FFFFFFFu) return none;
    LocalRef<jbyteArray> array(env, env->NewByteArray(static_cast<jsize>(length)));
    if (!array) {
        ClearPendingException(env);
        return none;
    }
    if (copy && length != 0) {
        env->SetByteArrayRegion(array.get(), 0, static_cast<jsize>(length), reinterpret_cast<const jbyte*>(buffer));
        if (ClearPendingException(env)) return none;
    }
    return array;
}
}  // namespace

LocalRef<jbyteArray> CreateJByteArrayFromBuffer(JNIEnv* env, const uint8_t* buffer, uint32_t length) {
    return MakeByteArray(env, buffer, length, true);
}

LocalRef<jbyteArray> CreateJByteArray(JNIEnv* env, uint32_t length) {
    return MakeByteArray(env, nullptr, length, false);
}

LocalRef<jobjectArray> CreateJStringArray(JNIEnv* env, int32_t count, const WideString* strings) {
    LocalRef<jobjectArray> none(env, nullptr);
    if (!env || count < 1 || !strings) return none;
    const LocalRef<jclass> stringClass(env, env->FindClass("java/lang/String"));
    if (!stringClass) {
        ClearPendingException(env);
        return none;
    }
    const LocalRef<jstring> initial(env, env->NewStringUTF(""));
    LocalRef<jobjectArray> array(env, env->NewObjectArray(count, stringClass.get(), initial.get()));
    if (!array) {
        ClearPendingException(env);
        return none;
    }
    for (int32_t i = 0; i < count; ++i) {
        const LocalRef<jstring> element = GetJStringFromWideString(env, strings[i]);
        env->SetObjectArrayElement(array.get(), i, element.get());
    }
    return array;
}

void ReleaseJObjectArray(LocalRef<jobjectArray>& array) { array.reset(); }

bool TracePendingException(JNIEnv* env) {
    if (!env->ExceptionCheck()) return false;
    const LocalRef<jthrowable> thrown(env, env->ExceptionOccurred());
    env->ExceptionClear();
    if (thrown) {
        const LocalRef<jclass> cls(env, env->GetObjectClass(thrown.get()));
        const jmethodID toString =
            cls ? env->GetMethodID(cls.get(), "toString", "()Ljava/lang/String;") : nullptr;
        if (toString) {
            const LocalRef<jstring> text(env, static_cast<jstring>(env->CallObjectMethod(thrown.get(), toString)));
            // The text is read (and dropped): only the fixed line is traced.
            if (!ClearPendingException(env)) (void)GetWideStringFromJString(env, text.get());
        } else {
            ClearPendingException(env);
        }
    }
    TraceToStdout("\nException in finding the WebServiceClient class\n");
    return true;
}

jmethodID GetMethodIdWithReport(JNIEnv* env, jclass cls, const char* name, const char* signature) {
    if (!cls) return nullptr;
    const jmethodID id = env->GetMethodID(cls, name, signature);
    if (!id) TracePendingException(env);
    return id;
}

namespace {
template <typename T>
LocalRef<jobject> Box(JNIEnv* env, const char* className, const char* signature, T value) {
    LocalRef<jobject> none(env, nullptr);
    if (!env) return none;
    const LocalRef<jclass> cls(env, env->FindClass(className));
    if (!cls) {
        ClearPendingException(env);
        return none;
    }
    const jmethodID constructor = env->GetMethodID(cls.get(), "<init>", signature);
    if (!constructor) {
        ClearPendingException(env);
        return none;
    }
    LocalRef<jobject> boxed(env, env->NewObject(cls.get(), constructor, value));
    if (!boxed) ClearPendingException(env);
    return boxed;
}
}  // namespace

// Values narrower than int travel through the variadic call promoted to int
// (and float to double), as the JNI calling convention expects.
LocalRef<jobject> BoxBoolean(JNIEnv* env, jboolean value) {
    return Box(env, "java/lang/Boolean", "(Z)V", static_cast<jint>(value));
}
LocalRef<jobject> BoxByte(JNIEnv* env, jbyte value) {
    return Box(env, "java/lang/Byte", "(B)V", static_cast<jint>(value));
}
LocalRef<jobject> BoxShort(JNIEnv* env, jshort value) {
    return Box(env, "java/lang/Short", "(S)V", static_cast<jint>(value));
}
LocalRef<jobject> BoxInt(JNIEnv* env, jint value) { return Box(env, "java/lang/Integer", "(I)V", value); }
LocalRef<jobject> BoxLong(JNIEnv* env, jlong value) { return Box(env, "java/lang/Long", "(J)V", value); }
LocalRef<jobject> BoxFloat(JNIEnv* env, jfloat value) {
    return Box(env, "java/lang/Float", "(F)V", static_cast<jdouble>(value));
}
LocalRef<jobject> BoxDouble(JNIEnv* env, jdouble value) { return Box(env, "java/lang/Double", "(D)V", value); }
