// Native text and buffers to Java strings and arrays and back, the boxing
// helpers and the exception report, on the real JVM through the interposer.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "bridge/BridgeLog.h"
#include "bridge/LocalRef.h"
#include "marshal/JniValues.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;

namespace {

class JniValuesTest : public BridgeFixture {
protected:
    void TearDown() override {
        SetStdoutTraceSink(nullptr);
        BridgeFixture::TearDown();
    }

    // A Java string of exactly these units, made on the JVM's own environment (not counted).
    LocalRef<jstring> JavaString(const std::u16string& units) {
        JNIEnv* real = jnitest::TestEnv();
        return LocalRef<jstring>(real, real->NewString(reinterpret_cast<const jchar*>(units.data()),
                                                       static_cast<jsize>(units.size())));
    }

    // The units of a Java string, read on the JVM's own environment.
    std::u16string Units(jstring text) {
        JNIEnv* real = jnitest::TestEnv();
        const jsize length = real->GetStringLength(text);
        std::u16string out(static_cast<size_t>(length), u'\0');
        real->GetStringRegion(text, 0, length, reinterpret_cast<jchar*>(&out[0]));
        return out;
    }

    // Collects what the bridge traces to standard output into m_traces.
    void CaptureTraces() {
        SetStdoutTraceSink([this](const std::string& text) { m_traces.push_back(text); });
    }

    std::vector<std::string> m_traces;
};

}  // namespace

// ---- GetWideStringFromJString

TEST_F(JniValuesTest, JavaStringWithEmbeddedNulIsCutAtTheNul) {
    LocalRef<jstring> text = JavaString(std::u16string(u"ab\0cd", 5));
    const std::optional<WideString> copy = GetWideStringFromJString(Env(), text.get());
    ASSERT_TRUE(copy);
    EXPECT_EQ(*copy, u"ab");
}

TEST_F(JniValuesTest, JavaStringKeepsNonAsciiUnitsAndSurrogatePairs) {
    const std::u16string units = u"\u00e9\u4e2d\U0001F600x";
    LocalRef<jstring> text = JavaString(units);
    const std::optional<WideString> copy = GetWideStringFromJString(Env(), text.get());
    ASSERT_TRUE(copy);
    EXPECT_EQ(*copy, units);
    EXPECT_EQ(Interposer().CountOf("GetStringChars"), 1u);
    EXPECT_EQ(Interposer().CountOf("ReleaseStringChars"), 1u);
}

TEST_F(JniValuesTest, EmptyJavaStringGivesAnEmptyCopy) {
    LocalRef<jstring> text = JavaString(u"");
    const std::optional<WideString> copy = GetWideStringFromJString(Env(), text.get());
    ASSERT_TRUE(copy);
    EXPECT_TRUE(copy->empty());
}

TEST_F(JniValuesTest, NullJavaStringGivesNoCopy) {
    EXPECT_FALSE(GetWideStringFromJString(Env(), nullptr));
    EXPECT_EQ(Interposer().CountOf("GetStringLength") + Interposer().CountOf("GetStringChars"), 0u);
}

// ---- GetJStringFromWideString

TEST_F(JniValuesTest, NullNativeStringReachesJavaAsEmptyString) {
    const LocalRef<jstring> text = GetJStringFromWideString(Env(), static_cast<const char16_t*>(nullptr));
    ASSERT_TRUE(text);
    EXPECT_EQ(Units(text.get()), u"");
}

TEST_F(JniValuesTest, NativeStringReachesJavaUnitForUnit) {
    const WideString units = u"name \u00e9\U0001F600";
    const LocalRef<jstring> fromPointer = GetJStringFromWideString(Env(), units.c_str());
    const LocalRef<jstring> fromString = GetJStringFromWideString(Env(), units);
    ASSERT_TRUE(fromPointer);
    ASSERT_TRUE(fromString);
    EXPECT_EQ(Units(fromPointer.get()), units);
    EXPECT_EQ(Units(fromString.get()), units);
}

TEST_F(JniValuesTest, NativeStringWithEmbeddedNulReachesJavaCutAtTheNul) {
    const WideString units(u"ab\0cd", 5);
    const LocalRef<jstring> fromPointer = GetJStringFromWideString(Env(), units.c_str());
    const LocalRef<jstring> fromString = GetJStringFromWideString(Env(), units);
    ASSERT_TRUE(fromPointer);
    ASSERT_TRUE(fromString);
    EXPECT_EQ(Units(fromPointer.get()), u"ab");
    EXPECT_EQ(Units(fromString.get()), u"ab");
}

TEST_F(JniValuesTest, EmptyNativeStringReachesJavaAsEmptyString) {
    const LocalRef<jstring> text = GetJStringFromWideString(Env(), WideString());
    ASSERT_TRUE(text);
    EXPECT_EQ(Units(text.get()), u"");
}

TEST_F(JniValuesTest, NativeStringWithoutEnvironmentGivesNoJavaString) {
    EXPECT_FALSE(GetJStringFromWideString(nullptr, u"text"));
    EXPECT_FALSE(GetJStringFromWideString(nullptr, WideString(u"text")));
}

// ---- CreateJStringArray and ReleaseJObjectArray

TEST_F(JniValuesTest, CreateJStringArrayWithCountZeroYieldsNull) {
    const WideString strings[] = {u"a"};
    EXPECT_FALSE(CreateJStringArray(Env(), 0, strings));
    EXPECT_FALSE(CreateJStringArray(Env(), -3, strings));
    EXPECT_EQ(Interposer().CountOf("NewObjectArray"), 0u);
}

TEST_F(JniValuesTest, CreateJStringArrayHoldsEachStringInOrder) {
    const WideString strings[] = {u"first", u"", WideString(u"th\0ird", 6)};
    const LocalRef<jobjectArray> array = CreateJStringArray(Env(), 3, strings);
    ASSERT_TRUE(array);
    JNIEnv* real = jnitest::TestEnv();
    ASSERT_EQ(real->GetArrayLength(array.get()), 3);
    const std::u16string expected[] = {u"first", u"", u"th"};
    for (jsize i = 0; i < 3; ++i) {
        LocalRef<jstring> element(real, static_cast<jstring>(real->GetObjectArrayElement(array.get(), i)));
        ASSERT_TRUE(element) << i;
        EXPECT_EQ(Units(element.get()), expected[i]) << i;
    }
}

TEST_F(JniValuesTest, ReleaseJObjectArrayDeletesTheArraysReference) {
    const WideString strings[] = {u"a", u"b"};
    LocalRef<jobjectArray> array = CreateJStringArray(Env(), 2, strings);
    ASSERT_TRUE(array);
    EXPECT_GT(Interposer().LocalRefsLeft(), 0);
    ReleaseJObjectArray(array);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
}

// ---- CreateJByteArrayFromBuffer and CreateJByteArray

TEST_F(JniValuesTest, CreateJByteArrayFromBufferCopiesTheWholeBuffer) {
    std::vector<uint8_t> buffer(1000);
    for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<uint8_t>(i * 7);
    const LocalRef<jbyteArray> array =
        CreateJByteArrayFromBuffer(Env(), buffer.data(), static_cast<uint32_t>(buffer.size()));
    ASSERT_TRUE(array);
    JNIEnv* real = jnitest::TestEnv();
    ASSERT_EQ(real->GetArrayLength(array.get()), 1000);
    std::vector<uint8_t> back(buffer.size());
    real->GetByteArrayRegion(array.get(), 0, 1000, reinterpret_cast<jbyte*>(back.data()));
    EXPECT_EQ(back, buffer);
    EXPECT_EQ(Interposer().CountOf("EnsureLocalCapacity"), 1u);
}

TEST_F(JniValuesTest, CreateJByteArrayFromNullBufferWithNonZeroLengthIsNull) {
    EXPECT_FALSE(CreateJByteArrayFromBuffer(Env(), nullptr, 16));
    EXPECT_EQ(Interposer().CountOf("NewByteArray"), 0u);
}

TEST_F(JniValuesTest, CreateJByteArrayFromNullBufferWithZeroLengthIsAnEmptyArray) {
    const LocalRef<jbyteArray> array = CreateJByteArrayFromBuffer(Env(), nullptr, 0);
    ASSERT_TRUE(array);
    EXPECT_EQ(jnitest::TestEnv()->GetArrayLength(array.get()), 0);
}

TEST_F(JniValuesTest, CreateJByteArrayFromBufferWhenNewByteArrayFailsIsNullWithNoExceptionLeft) {
    const uint8_t buffer[4] = {1, 2, 3, 4};
    Interposer().FailNewByteArray();
    EXPECT_FALSE(CreateJByteArrayFromBuffer(Env(), buffer, 4));
    EXPECT_FALSE(Env()->ExceptionCheck());
}

TEST_F(JniValuesTest, CreateJByteArrayFromBufferWhenLocalCapacityFailsIsNullWithNoExceptionLeft) {
    const uint8_t buffer[4] = {1, 2, 3, 4};
    Interposer().FailEnsureLocalCapacity();
    EXPECT_FALSE(CreateJByteArrayFromBuffer(Env(), buffer, 4));
    EXPECT_FALSE(Env()->ExceptionCheck());
    EXPECT_EQ(Interposer().CountOf("NewByteArray"), 0u);
}

TEST_F(JniValuesTest, CreateJByteArrayFromBufferWhenTheCopyFailsIsNullWithNoReferenceLeft) {
    const uint8_t buffer[4] = {1, 2, 3, 4};
    Interposer().FailElementAccess();
    EXPECT_FALSE(CreateJByteArrayFromBuffer(Env(), buffer, 4));
    EXPECT_FALSE(Env()->ExceptionCheck());
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
}

TEST_F(JniValuesTest, CreateJByteArrayMakesAZeroFilledArrayOfTheLength) {
    const LocalRef<jbyteArray> array = CreateJByteArray(Env(), 64);
    ASSERT_TRUE(array);
    JNIEnv* real = jnitest::TestEnv();
    ASSERT_EQ(real->GetArrayLength(array.get()), 64);
    std::vector<jbyte> back(64, 1);
    real->GetByteArrayRegion(array.get(), 0, 64, back.data());
    EXPECT_EQ(back, std::vector<jbyte>(64, 0));
    EXPECT_EQ(Interposer().CountOf("SetByteArrayRegion"), 0u);
}

TEST_F(JniValuesTest, ByteArraysOf2GiBOrMoreAreNotAskedForAndYieldNothing) {
    // No Java array holds 2^31 bytes or more: the JVM is not asked for a negative size.
    const uint8_t byte = 7;
    for (const uint32_t length : {0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_FALSE(CreateJByteArray(Env(), length)) << length;
        EXPECT_FALSE(CreateJByteArrayFromBuffer(Env(), &byte, length)) << length;
    }
    EXPECT_EQ(Interposer().CountOf("NewByteArray"), 0u);
    EXPECT_FALSE(Env()->ExceptionCheck());
}

// ---- boxing

namespace {

// The value a box holds, asked of the box through its `method`.
template <typename T>
T Unbox(jobject box, const char* method, const char* signature) {
    JNIEnv* real = jnitest::TestEnv();
    LocalRef<jclass> cls(real, real->GetObjectClass(box));
    const jmethodID id = real->GetMethodID(cls.get(), method, signature);
    if (!id) {
        real->ExceptionClear();
        ADD_FAILURE() << method << " not found";
        return T();
    }
    if constexpr (std::is_same_v<T, jboolean>) {
        return real->CallBooleanMethod(box, id);
    } else if constexpr (std::is_same_v<T, jbyte>) {
        return real->CallByteMethod(box, id);
    } else if constexpr (std::is_same_v<T, jshort>) {
        return real->CallShortMethod(box, id);
    } else if constexpr (std::is_same_v<T, jint>) {
        return real->CallIntMethod(box, id);
    } else if constexpr (std::is_same_v<T, jlong>) {
        return real->CallLongMethod(box, id);
    } else if constexpr (std::is_same_v<T, jfloat>) {
        return real->CallFloatMethod(box, id);
    } else {
        static_assert(std::is_same_v<T, jdouble>, "a Java primitive");
        return real->CallDoubleMethod(box, id);
    }
}

bool IsInstance(jobject object, const char* className) {
    JNIEnv* real = jnitest::TestEnv();
    LocalRef<jclass> cls(real, real->FindClass(className));
    return cls && real->IsInstanceOf(object, cls.get());
}

}  // namespace

TEST_F(JniValuesTest, BoxingHelpersMakeTheJavaBoxOfEachPrimitive) {
    const LocalRef<jobject> boolean = BoxBoolean(Env(), JNI_TRUE);
    const LocalRef<jobject> byte = BoxByte(Env(), -5);
    const LocalRef<jobject> shortBox = BoxShort(Env(), -30000);
    const LocalRef<jobject> intBox = BoxInt(Env(), -2000000000);
    const LocalRef<jobject> longBox = BoxLong(Env(), INT64_MIN + 1);
    const LocalRef<jobject> floatBox = BoxFloat(Env(), 1.5f);
    const LocalRef<jobject> doubleBox = BoxDouble(Env(), -2.25);
    ASSERT_TRUE(boolean && byte && shortBox && intBox && longBox && floatBox && doubleBox);
    EXPECT_TRUE(IsInstance(boolean.get(), "java/lang/Boolean"));
    EXPECT_TRUE(IsInstance(byte.get(), "java/lang/Byte"));
    EXPECT_TRUE(IsInstance(shortBox.get(), "java/lang/Short"));
    EXPECT_TRUE(IsInstance(intBox.get(), "java/lang/Integer"));
    EXPECT_TRUE(IsInstance(longBox.get(), "java/lang/Long"));
    EXPECT_TRUE(IsInstance(floatBox.get(), "java/lang/Float"));
    EXPECT_TRUE(IsInstance(doubleBox.get(), "java/lang/Double"));
    EXPECT_EQ(Unbox<jboolean>(boolean.get(), "booleanValue", "()Z"), JNI_TRUE);
    EXPECT_EQ(Unbox<jbyte>(byte.get(), "byteValue", "()B"), -5);
    EXPECT_EQ(Unbox<jshort>(shortBox.get(), "shortValue", "()S"), -30000);
    EXPECT_EQ(Unbox<jint>(intBox.get(), "intValue", "()I"), -2000000000);
    EXPECT_EQ(Unbox<jlong>(longBox.get(), "longValue", "()J"), INT64_MIN + 1);
    EXPECT_EQ(Unbox<jfloat>(floatBox.get(), "floatValue", "()F"), 1.5f);
    EXPECT_EQ(Unbox<jdouble>(doubleBox.get(), "doubleValue", "()D"), -2.25);
}

TEST_F(JniValuesTest, BoxingWithoutTheClassGivesNoBoxAndNoPendingException) {
    Interposer().FailFindClass("java/lang/Integer");
    EXPECT_FALSE(BoxInt(Env(), 1));
    EXPECT_FALSE(Env()->ExceptionCheck());
}

// ---- TracePendingException and GetMethodIdWithReport

TEST_F(JniValuesTest, TracePendingExceptionWithoutAPendingExceptionAnswersFalseAndTracesNothing) {
    CaptureTraces();
    EXPECT_FALSE(TracePendingException(Env()));
    EXPECT_TRUE(m_traces.empty());
}

TEST_F(JniValuesTest, TracePendingExceptionClearsAPendingExceptionAndTracesTheFixedLine) {
    CaptureTraces();
    JNIEnv* real = jnitest::TestEnv();
    LocalRef<jclass> cls(real, real->FindClass("java/lang/IllegalStateException"));
    ASSERT_TRUE(cls);
    real->ThrowNew(cls.get(), "boom");
    EXPECT_TRUE(TracePendingException(Env()));
    EXPECT_FALSE(Env()->ExceptionCheck());
    EXPECT_EQ(m_traces, std::vector<std::string>{"\nException in finding the WebServiceClient class\n"});
}

TEST_F(JniValuesTest, GetMethodIdWithReportOfAMissingMethodIsNoneAndClearsTheException) {
    CaptureTraces();
    JNIEnv* real = jnitest::TestEnv();
    LocalRef<jclass> cls(real, real->FindClass("java/lang/String"));
    ASSERT_TRUE(cls);
    EXPECT_EQ(GetMethodIdWithReport(Env(), cls.get(), "noSuchMethod", "()V"), nullptr);
    EXPECT_FALSE(Env()->ExceptionCheck());
    EXPECT_EQ(m_traces.size(), 1u);
    EXPECT_NE(GetMethodIdWithReport(Env(), cls.get(), "length", "()I"), nullptr);
    EXPECT_EQ(m_traces.size(), 1u);
}
