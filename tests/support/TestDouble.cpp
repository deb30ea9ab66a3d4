// The C++ side of the test double's controls: each function calls one static
// method of com.qv.testdouble.DoubleControl on the real JVM. A Java exception
// raised by a control (an unknown method or field, a call index out of range)
// becomes a std::runtime_error carrying the exception's text, so a scripting
// mistake fails the test that made it.
#include "support/TestDouble.h"

#include <limits>
#include <stdexcept>

#include "support/JniInterposer.h"

namespace jnitest {
namespace {

constexpr const char* kControlClass = "com/qv/testdouble/DoubleControl";

// Owns one local reference of an environment and deletes it on every path.
template <typename T>
class Local {
public:
    Local(JNIEnv* env, T ref) : m_env(env), m_ref(ref) {}
    ~Local() {
        if (m_ref != nullptr) m_env->DeleteLocalRef(m_ref);
    }
    Local(const Local&) = delete;
    Local& operator=(const Local&) = delete;
    Local(Local&& other) noexcept : m_env(other.m_env), m_ref(other.m_ref) { other.m_ref = nullptr; }
    Local& operator=(Local&&) = delete;

    T get() const { return m_ref; }
    T release() {
        T ref = m_ref;
        m_ref = nullptr;
        return ref;
    }

private:
    JNIEnv* m_env;
    T m_ref;
};

JNIEnv* Env() {
    JNIEnv* env = TestEnv();
    if (env == nullptr) throw std::runtime_error("test double: this thread has no JNI environment");
    return env;
}

std::string JavaToUtf8(JNIEnv* env, jstring text) {
    if (text == nullptr) return "null";
    const char* chars = env->GetStringUTFChars(text, nullptr);
    if (chars == nullptr) {
        env->ExceptionClear();
        return "<text not readable>";
    }
    std::string out(chars);
    env->ReleaseStringUTFChars(text, chars);
    return out;
}

// Clears a pending Java exception and answers its toString text.
std::string TakePendingException(JNIEnv* env) {
    Local<jthrowable> thrown(env, env->ExceptionOccurred());
    env->ExceptionClear();
    Local<jclass> cls(env, env->GetObjectClass(thrown.get()));
    jmethodID toString = env->GetMethodID(cls.get(), "toString", "()Ljava/lang/String;");
    if (toString == nullptr) {
        env->ExceptionClear();
        return "<no description>";
    }
    Local<jstring> text(env, static_cast<jstring>(env->CallObjectMethod(thrown.get(), toString)));
    if (env->ExceptionCheck()) {
        env->ExceptionClear();
        return "<no description>";
    }
    return JavaToUtf8(env, text.get());
}

void Check(JNIEnv* env, const char* what) {
    if (env->ExceptionCheck()) {
        throw std::runtime_error(std::string("test double: ") + what + ": " + TakePendingException(env));
    }
}

// The control class and one of its static methods.
struct Control {
    Control(JNIEnv* e, const char* name, const char* signature)
        : env(e), cls(e, e->FindClass(kControlClass)), what(name) {
        Check(env, "DoubleControl is not on the class path");
        method = env->GetStaticMethodID(cls.get(), name, signature);
        Check(env, name);
    }
    JNIEnv* env;
    Local<jclass> cls;
    jmethodID method = nullptr;
    const char* what;

    template <typename... Args>
    void Void(Args... args) {
        env->CallStaticVoidMethod(cls.get(), method, args...);
        Check(env, what);
    }
    template <typename... Args>
    jint Int(Args... args) {
        jint value = env->CallStaticIntMethod(cls.get(), method, args...);
        Check(env, what);
        return value;
    }
    template <typename... Args>
    jobject Object(Args... args) {
        jobject value = env->CallStaticObjectMethod(cls.get(), method, args...);
        Check(env, what);
        return value;
    }
};

// UTF-8 (as C++ tests write it) to UTF-16.
std::u16string Utf16(const std::string& text) {
    std::u16string out;
    for (size_t i = 0; i < text.size();) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        uint32_t cp = lead;
        size_t extra = 0;
        if (lead >= 0xF0) {
            cp = lead & 0x07u;
            extra = 3;
        } else if (lead >= 0xE0) {
            cp = lead & 0x0Fu;
            extra = 2;
        } else if (lead >= 0xC0) {
            cp = lead & 0x1Fu;
            extra = 1;
        }
        ++i;
        for (size_t k = 0; k < extra && i < text.size(); ++k, ++i) {
            cp = (cp << 6) | (static_cast<unsigned char>(text[i]) & 0x3Fu);
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FFu)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
    }
    return out;
}

Local<jstring> Text(JNIEnv* env, const OptText& text) {
    if (!text) return Local<jstring>(env, nullptr);
    if (text->size() > static_cast<size_t>(std::numeric_limits<jsize>::max())) {
        throw std::runtime_error("test double: text too long");
    }
    Local<jstring> s(env, env->NewString(reinterpret_cast<const jchar*>(text->data()), static_cast<jsize>(text->size())));
    Check(env, "NewString");
    return s;
}

Local<jstring> Text(JNIEnv* env, const std::string& utf8) { return Text(env, OptText(Utf16(utf8))); }

jsize Size(size_t n) {
    if (n > static_cast<size_t>(std::numeric_limits<jsize>::max())) {
        throw std::runtime_error("test double: array too long");
    }
    return static_cast<jsize>(n);
}

Local<jobjectArray> Texts(JNIEnv* env, const std::vector<OptText>& texts) {
    Local<jclass> stringClass(env, env->FindClass("java/lang/String"));
    Check(env, "java/lang/String");
    Local<jobjectArray> array(env, env->NewObjectArray(Size(texts.size()), stringClass.get(), nullptr));
    Check(env, "NewObjectArray");
    for (size_t i = 0; i < texts.size(); ++i) {
        Local<jstring> s = Text(env, texts[i]);
        env->SetObjectArrayElement(array.get(), static_cast<jsize>(i), s.get());
        Check(env, "SetObjectArrayElement");
    }
    return array;
}

Local<jbooleanArray> Booleans(JNIEnv* env, const std::vector<bool>& values) {
    Local<jbooleanArray> array(env, env->NewBooleanArray(Size(values.size())));
    Check(env, "NewBooleanArray");
    for (size_t i = 0; i < values.size(); ++i) {
        const jboolean v = values[i] ? JNI_TRUE : JNI_FALSE;
        env->SetBooleanArrayRegion(array.get(), static_cast<jsize>(i), 1, &v);
    }
    Check(env, "SetBooleanArrayRegion");
    return array;
}

Local<jintArray> Ints(JNIEnv* env, const std::vector<int>& values) {
    Local<jintArray> array(env, env->NewIntArray(Size(values.size())));
    Check(env, "NewIntArray");
    for (size_t i = 0; i < values.size(); ++i) {
        const jint v = values[i];
        env->SetIntArrayRegion(array.get(), static_cast<jsize>(i), 1, &v);
    }
    Check(env, "SetIntArrayRegion");
    return array;
}

Local<jbyteArray> Bytes(JNIEnv* env, const std::string& bytes) {
    Local<jbyteArray> array(env, env->NewByteArray(Size(bytes.size())));
    Check(env, "NewByteArray");
    if (!bytes.empty()) {
        env->SetByteArrayRegion(array.get(), 0, static_cast<jsize>(bytes.size()),
                                reinterpret_cast<const jbyte*>(bytes.data()));
        Check(env, "SetByteArrayRegion");
    }
    return array;
}

jint Index(size_t index) {
    if (index > static_cast<size_t>(std::numeric_limits<jint>::max())) {
        throw std::runtime_error("test double: call index out of range");
    }
    return static_cast<jint>(index);
}

// Parallel arrays of metadata entries, as DoubleControl takes them.
struct MetaArrays {
    std::vector<OptText> names;
    std::vector<OptText> values;
    std::vector<bool> nullElements;
    std::vector<bool> nullVals;

    void Add(const MetaEntry& e) {
        names.push_back(e.name);
        values.push_back(e.value);
        nullElements.push_back(e.nullElement);
        nullVals.push_back(e.nullVal);
    }
};

std::vector<std::string> StringsOf(JNIEnv* env, jobjectArray array) {
    std::vector<std::string> out;
    if (array == nullptr) return out;
    const jsize n = env->GetArrayLength(array);
    for (jsize i = 0; i < n; ++i) {
        Local<jstring> s(env, static_cast<jstring>(env->GetObjectArrayElement(array, i)));
        Check(env, "GetObjectArrayElement");
        out.push_back(JavaToUtf8(env, s.get()));
    }
    return out;
}

}  // namespace

void TestDouble::Reset() {
    Control(Env(), "reset", "()V").Void();
}

void TestDouble::SetDataPassThrough(bool on) {
    Control(Env(), "setDataPassThrough", "(Z)V").Void(static_cast<jboolean>(on ? JNI_TRUE : JNI_FALSE));
}

void TestDouble::ReturnNull(const std::string& method) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Control(env, "returnNull", "(Ljava/lang/String;)V").Void(m.get());
}

void TestDouble::ReturnErrorOrdinal(const std::string& method, int ordinal) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Control(env, "returnErrorOrdinal", "(Ljava/lang/String;I)V").Void(m.get(), static_cast<jint>(ordinal));
}

void TestDouble::ReturnNullErrorValue(const std::string& method) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Control(env, "returnNullErrorValue", "(Ljava/lang/String;)V").Void(m.get());
}

void TestDouble::ReturnErrorValue(const std::string& method, std::optional<int> errorId, int ordinalValue) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Control(env, "returnErrorValue", "(Ljava/lang/String;ZII)V")
        .Void(m.get(), errorId ? JNI_TRUE : JNI_FALSE, static_cast<jint>(errorId.value_or(0)),
              static_cast<jint>(ordinalValue));
}

void TestDouble::Throw(const std::string& method, const std::string& message) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Local<jstring> text = Text(env, message);
    Control(env, "throwException", "(Ljava/lang/String;Ljava/lang/String;)V").Void(m.get(), text.get());
}

void TestDouble::ReturnLong(const std::string& method, int64_t value) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Control(env, "returnLong", "(Ljava/lang/String;J)V").Void(m.get(), static_cast<jlong>(value));
}

void TestDouble::SetString(const std::string& method, const std::string& field, const OptText& value) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Local<jstring> f = Text(env, field);
    Local<jstring> v = Text(env, value);
    Control(env, "setString", "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)V").Void(m.get(), f.get(), v.get());
}

void TestDouble::SetLong(const std::string& method, const std::string& field, int64_t value) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Local<jstring> f = Text(env, field);
    Control(env, "setLong", "(Ljava/lang/String;Ljava/lang/String;J)V").Void(m.get(), f.get(), static_cast<jlong>(value));
}

void TestDouble::SetInt(const std::string& method, const std::string& field, int32_t value) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Local<jstring> f = Text(env, field);
    Control(env, "setInt", "(Ljava/lang/String;Ljava/lang/String;I)V").Void(m.get(), f.get(), static_cast<jint>(value));
}

void TestDouble::SetBoolean(const std::string& method, const std::string& field, bool value) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Local<jstring> f = Text(env, field);
    Control(env, "setBoolean", "(Ljava/lang/String;Ljava/lang/String;Z)V")
        .Void(m.get(), f.get(), value ? JNI_TRUE : JNI_FALSE);
}

void TestDouble::SetNullField(const std::string& method, const std::string& field) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Local<jstring> f = Text(env, field);
    Control(env, "setNullField", "(Ljava/lang/String;Ljava/lang/String;)V").Void(m.get(), f.get());
}

void TestDouble::SetStringArray(const std::string& method, const std::string& field, const std::vector<OptText>& values) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Local<jstring> f = Text(env, field);
    Local<jobjectArray> a = Texts(env, values);
    Control(env, "setStringArray", "(Ljava/lang/String;Ljava/lang/String;[Ljava/lang/String;)V")
        .Void(m.get(), f.get(), a.get());
}

void TestDouble::SetMetaData(const std::string& method, const std::string& field, const std::vector<MetaEntry>& entries) {
    JNIEnv* env = Env();
    MetaArrays meta;
    for (const MetaEntry& e : entries) meta.Add(e);
    Local<jstring> m = Text(env, method);
    Local<jstring> f = Text(env, field);
    Local<jobjectArray> names = Texts(env, meta.names);
    Local<jobjectArray> values = Texts(env, meta.values);
    Local<jbooleanArray> nullElements = Booleans(env, meta.nullElements);
    Local<jbooleanArray> nullVals = Booleans(env, meta.nullVals);
    Control(env, "setMetaData",
            "(Ljava/lang/String;Ljava/lang/String;[Ljava/lang/String;[Ljava/lang/String;[Z[Z)V")
        .Void(m.get(), f.get(), names.get(), values.get(), nullElements.get(), nullVals.get());
}

void TestDouble::SetSubList(const std::string& method, const std::vector<SubListEntry>& entries) {
    JNIEnv* env = Env();
    std::vector<OptText> fileNames;
    std::vector<bool> nullElements;
    std::vector<bool> nullMetaData;
    std::vector<int> metaCounts;
    MetaArrays meta;
    for (const SubListEntry& e : entries) {
        fileNames.push_back(e.fileName);
        nullElements.push_back(e.nullElement);
        nullMetaData.push_back(e.nullMetaData);
        metaCounts.push_back(static_cast<int>(e.metaData.size()));
        for (const MetaEntry& m : e.metaData) meta.Add(m);
    }
    Local<jstring> m = Text(env, method);
    Local<jobjectArray> jFileNames = Texts(env, fileNames);
    Local<jbooleanArray> jNullElements = Booleans(env, nullElements);
    Local<jbooleanArray> jNullMetaData = Booleans(env, nullMetaData);
    Local<jintArray> jCounts = Ints(env, metaCounts);
    Local<jobjectArray> jNames = Texts(env, meta.names);
    Local<jobjectArray> jValues = Texts(env, meta.values);
    Local<jbooleanArray> jMetaNullElements = Booleans(env, meta.nullElements);
    Local<jbooleanArray> jMetaNullVals = Booleans(env, meta.nullVals);
    Control(env, "setSubList",
            "(Ljava/lang/String;[Ljava/lang/String;[Z[Z[I[Ljava/lang/String;[Ljava/lang/String;[Z[Z)V")
        .Void(m.get(), jFileNames.get(), jNullElements.get(), jNullMetaData.get(), jCounts.get(), jNames.get(),
              jValues.get(), jMetaNullElements.get(), jMetaNullVals.get());
}

void TestDouble::SetContainers(const std::string& method, const std::vector<OptText>& names,
                               const std::vector<int>& nullElements) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Local<jobjectArray> jNames = Texts(env, names);
    Local<jintArray> jNulls = Ints(env, nullElements);
    Control(env, "setContainers", "(Ljava/lang/String;[Ljava/lang/String;[I)V").Void(m.get(), jNames.get(), jNulls.get());
}

void TestDouble::SetCapabilities(const std::vector<std::pair<OptText, OptText>>& entries,
                                 const std::vector<std::u16string>& nonStringValueKeys) {
    JNIEnv* env = Env();
    std::vector<OptText> keys;
    std::vector<OptText> values;
    for (const auto& e : entries) {
        keys.push_back(e.first);
        values.push_back(e.second);
    }
    std::vector<OptText> integerKeys(nonStringValueKeys.begin(), nonStringValueKeys.end());
    Local<jobjectArray> jKeys = Texts(env, keys);
    Local<jobjectArray> jValues = Texts(env, values);
    Local<jobjectArray> jIntegerKeys = Texts(env, integerKeys);
    Control(env, "setCapabilities", "([Ljava/lang/String;[Ljava/lang/String;[Ljava/lang/String;)V")
        .Void(jKeys.get(), jValues.get(), jIntegerKeys.get());
}

void TestDouble::SetReadData(const std::string& method, const std::string& bytes, std::optional<int64_t> reportedCount) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Local<jbyteArray> data = Bytes(env, bytes);
    const jlong count = reportedCount ? static_cast<jlong>(*reportedCount) : static_cast<jlong>(bytes.size());
    Control(env, "setReadData", "(Ljava/lang/String;[BJ)V").Void(m.get(), data.get(), count);
}

size_t TestDouble::CallCount(const std::string& method) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    return static_cast<size_t>(Control(env, "callCount", "(Ljava/lang/String;)I").Int(m.get()));
}

std::string TestDouble::DescribeCall(const std::string& method, size_t index) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Local<jstring> text(env, static_cast<jstring>(
                                 Control(env, "describeCall", "(Ljava/lang/String;I)Ljava/lang/String;")
                                     .Object(m.get(), Index(index))));
    return JavaToUtf8(env, text.get());
}

std::vector<std::string> TestDouble::Calls() {
    JNIEnv* env = Env();
    Local<jobjectArray> texts(env, static_cast<jobjectArray>(Control(env, "calls", "()[Ljava/lang/String;").Object()));
    return StringsOf(env, texts.get());
}

std::string TestDouble::ByteArgument(const std::string& method, size_t index) {
    JNIEnv* env = Env();
    Local<jstring> m = Text(env, method);
    Local<jbyteArray> bytes(env, static_cast<jbyteArray>(
                                     Control(env, "byteArgument", "(Ljava/lang/String;I)[B").Object(m.get(), Index(index))));
    std::string out;
    if (bytes.get() == nullptr) return out;
    out.resize(static_cast<size_t>(env->GetArrayLength(bytes.get())));
    if (!out.empty()) {
        env->GetByteArrayRegion(bytes.get(), 0, static_cast<jsize>(out.size()), reinterpret_cast<jbyte*>(&out[0]));
        Check(env, "GetByteArrayRegion");
    }
    return out;
}

jobject TestDouble::NextResult(JNIEnv* env, const std::string& method) {
    return NextResult(env, method, std::string());
}

jobject TestDouble::NextResult(JNIEnv* env, const std::string& method, const std::string& signature) {
    JNIEnv* real = Env();
    Local<jstring> m = Text(real, method);
    Local<jstring> s = signature.empty() ? Local<jstring>(real, nullptr) : Text(real, signature);
    Local<jobject> result(real, Control(real, "nextResult", "(Ljava/lang/String;Ljava/lang/String;)Ljava/lang/Object;")
                                    .Object(m.get(), s.get()));
    if (result.get() == nullptr || env == real || env == nullptr) return result.release();
    // A reference of the caller's environment (the interposer's, say), made there and counted there.
    return env->NewLocalRef(result.get());
}

}  // namespace jnitest
