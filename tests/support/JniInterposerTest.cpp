// The JNI interposer against the real test JVM: forwarding, the record, local
// reference counting, planned failures, strict mode, attach/detach and use from
// several threads. Only JDK classes are used.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/Platform.h"
#include "support/JniInterposer.h"

namespace {

using jnitest::InterposerProblems;
using jnitest::JniCall;
using jnitest::JniInterposer;

struct PendingException {
    std::string className;  // empty when none was pending
    std::string message;
};

std::string Utf(JNIEnv* real, jstring text) {
    if (text == nullptr) return std::string();
    const char* chars = real->GetStringUTFChars(text, nullptr);
    std::string result(chars);
    real->ReleaseStringUTFChars(text, chars);
    return result;
}

// Takes and clears the calling thread's pending Java exception through the
// real env, so that inspecting it leaves the interposer's record untouched.
PendingException TakePendingException() {
    JNIEnv* real = jnitest::TestEnv();
    jthrowable thrown = real->ExceptionOccurred();
    if (thrown == nullptr) return PendingException{};
    real->ExceptionClear();
    jclass thrownClass = real->GetObjectClass(thrown);
    jclass classClass = real->FindClass("java/lang/Class");
    jclass throwableClass = real->FindClass("java/lang/Throwable");
    jmethodID getName = real->GetMethodID(classClass, "getName", "()Ljava/lang/String;");
    jmethodID getMessage = real->GetMethodID(throwableClass, "getMessage", "()Ljava/lang/String;");
    auto name = static_cast<jstring>(real->CallObjectMethod(thrownClass, getName));
    auto message = static_cast<jstring>(real->CallObjectMethod(thrown, getMessage));
    PendingException result{Utf(real, name), Utf(real, message)};
    for (jobject ref : {static_cast<jobject>(thrown), static_cast<jobject>(thrownClass),
                        static_cast<jobject>(classClass), static_cast<jobject>(throwableClass),
                        static_cast<jobject>(name), static_cast<jobject>(message)}) {
        real->DeleteLocalRef(ref);
    }
    return result;
}

// The bytes of a function table, one pointer-sized slot each.
template <class Table>
std::vector<uintptr_t> Slots(const Table* table) {
    std::vector<uintptr_t> slots(sizeof(Table) / sizeof(uintptr_t));
    std::memcpy(slots.data(), table, sizeof(Table));
    return slots;
}

bool HasViolation(const std::string& text) {
    for (const std::string& violation : JniInterposer::Instance().StrictViolations()) {
        if (violation == text) return true;
    }
    return false;
}

class JniInterposerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(jnitest::TestEnv(), nullptr);  // the test thread is attached to the real JVM
        interposer.SetStrict(true);
        ASSERT_EQ(JNI_OK, interposer.Vm()->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_8));
        ASSERT_NE(env, nullptr);
        interposer.Reset();
    }

    void TearDown() override {
        TakePendingException();
        interposer.SetStrict(true);
        interposer.Reset();
    }

    std::string Text(jstring text) { return Utf(jnitest::TestEnv(), text); }

    JniInterposer& interposer = JniInterposer::Instance();
    JNIEnv* env = nullptr;
};

// ---------------------------------------------------------------- the tables

TEST_F(JniInterposerTest, EveryFunctionOfBothTablesIsWrapped) {
    const std::vector<uintptr_t> mine = Slots(env->functions);
    const std::vector<uintptr_t> real = Slots(jnitest::TestEnv()->functions);
    ASSERT_EQ(mine.size(), real.size());
    // Four reserved slots, then the functions.
    for (size_t i = 4; i < mine.size(); ++i) {
        EXPECT_NE(mine[i], 0u) << "JNIEnv slot " << i;
        EXPECT_NE(mine[i], real[i]) << "JNIEnv slot " << i << " goes straight to the JVM";
    }
    const std::vector<uintptr_t> myVm = Slots(interposer.Vm()->functions);
    const std::vector<uintptr_t> realVm = Slots(jnitest::TestJvm()->functions);
    for (size_t i = 3; i < myVm.size(); ++i) {
        EXPECT_NE(myVm[i], 0u) << "JavaVM slot " << i;
        EXPECT_NE(myVm[i], realVm[i]) << "JavaVM slot " << i << " goes straight to the JVM";
    }
    EXPECT_NE(env, jnitest::TestEnv());
}

// ---------------------------------------------------------------- forwarding

// The C++ member functions of JNIEnv (env->CallObjectMethod(...)) reach the
// table through the va_list entries (CallObjectMethodV); the variadic entries
// themselves are reached through env->functions, as C code does.
TEST_F(JniInterposerTest, ForwardsLookupsStringsAndCallsOfTheCppInterface) {
    jclass stringClass = env->FindClass("java/lang/String");
    ASSERT_NE(stringClass, nullptr);
    jmethodID concat = env->GetMethodID(stringClass, "concat", "(Ljava/lang/String;)Ljava/lang/String;");
    ASSERT_NE(concat, nullptr);
    jstring hello = env->NewStringUTF("Hello, ");
    jstring jni = env->NewStringUTF("JNI");
    ASSERT_NE(hello, nullptr);
    ASSERT_NE(jni, nullptr);

    auto joined = static_cast<jstring>(env->CallObjectMethod(hello, concat, jni));
    ASSERT_NE(joined, nullptr);
    const char* chars = env->GetStringUTFChars(joined, nullptr);
    ASSERT_NE(chars, nullptr);
    EXPECT_STREQ(chars, "Hello, JNI");
    env->ReleaseStringUTFChars(joined, chars);
    EXPECT_EQ(env->GetStringUTFLength(joined), 10);

    jmethodID length = env->GetMethodID(stringClass, "length", "()I");
    EXPECT_EQ(env->CallIntMethod(joined, length), 10);
    jmethodID equals = env->GetMethodID(stringClass, "equals", "(Ljava/lang/Object;)Z");
    EXPECT_EQ(env->CallBooleanMethod(joined, equals, hello), JNI_FALSE);
    EXPECT_EQ(env->CallBooleanMethod(joined, equals, joined), JNI_TRUE);

    jvalue argument;
    argument.l = hello;
    auto twice = static_cast<jstring>(env->CallObjectMethodA(hello, concat, &argument));
    EXPECT_EQ(Text(twice), "Hello, Hello, ");

    jmethodID valueOfInt = env->GetStaticMethodID(stringClass, "valueOf", "(I)Ljava/lang/String;");
    auto fortyTwo = static_cast<jstring>(env->CallStaticObjectMethod(stringClass, valueOfInt, jint{42}));
    EXPECT_EQ(Text(fortyTwo), "42");

    jclass builderClass = env->FindClass("java/lang/StringBuilder");
    jmethodID construct = env->GetMethodID(builderClass, "<init>", "(Ljava/lang/String;)V");
    jobject builder = env->NewObject(builderClass, construct, joined);
    ASSERT_NE(builder, nullptr);
    jmethodID toString = env->GetMethodID(builderClass, "toString", "()Ljava/lang/String;");
    EXPECT_EQ(Text(static_cast<jstring>(env->CallNonvirtualObjectMethod(builder, builderClass, toString))),
              "Hello, JNI");

    EXPECT_FALSE(env->ExceptionCheck());
    EXPECT_EQ(interposer.CountOf("CallObjectMethodV"), 1u);
    EXPECT_EQ(interposer.CountOf("CallObjectMethodA"), 1u);
    EXPECT_EQ(interposer.CountOf("CallBooleanMethodV"), 2u);
    EXPECT_EQ(interposer.CountOf("CallStaticObjectMethodV"), 1u);
    EXPECT_EQ(interposer.CountOf("CallNonvirtualObjectMethodV"), 1u);
    EXPECT_EQ(interposer.CountOf("NewObjectV"), 1u);
    EXPECT_EQ(interposer.CountOf("GetStringUTFChars"), 1u);
    EXPECT_EQ(interposer.CountOf("ReleaseStringUTFChars"), 1u);
    EXPECT_EQ(InterposerProblems(false), "");
}

TEST_F(JniInterposerTest, ForwardsTheVariadicEntriesThroughTheirVaListForms) {
    const JNINativeInterface_* table = env->functions;
    jclass stringClass = env->FindClass("java/lang/String");
    jmethodID concat = env->GetMethodID(stringClass, "concat", "(Ljava/lang/String;)Ljava/lang/String;");
    jmethodID length = env->GetMethodID(stringClass, "length", "()I");
    jmethodID equals = env->GetMethodID(stringClass, "equals", "(Ljava/lang/Object;)Z");
    jstring left = env->NewStringUTF("va");
    jstring right = env->NewStringUTF("list");

    auto joined = static_cast<jstring>(table->CallObjectMethod(env, left, concat, right));
    EXPECT_EQ(Text(joined), "valist");
    EXPECT_EQ(table->CallIntMethod(env, joined, length), 6);
    EXPECT_EQ(table->CallBooleanMethod(env, joined, equals, joined), JNI_TRUE);

    // Static calls with int, double, float (promoted to double) and long arguments.
    jmethodID valueOfInt = table->GetStaticMethodID(env, stringClass, "valueOf", "(I)Ljava/lang/String;");
    EXPECT_EQ(Text(static_cast<jstring>(table->CallStaticObjectMethod(env, stringClass, valueOfInt, jint{-17}))),
              "-17");
    jclass mathClass = env->FindClass("java/lang/Math");
    jmethodID maxDouble = env->GetStaticMethodID(mathClass, "max", "(DD)D");
    EXPECT_EQ(table->CallStaticDoubleMethod(env, mathClass, maxDouble, 1.5, 2.5), 2.5);
    jclass floatClass = env->FindClass("java/lang/Float");
    jmethodID sumFloat = env->GetStaticMethodID(floatClass, "sum", "(FF)F");
    EXPECT_EQ(table->CallStaticFloatMethod(env, floatClass, sumFloat, 1.25f, 2.5f), 3.75f);
    jclass longClass = env->FindClass("java/lang/Long");
    jmethodID sumLong = env->GetStaticMethodID(longClass, "sum", "(JJ)J");
    EXPECT_EQ(table->CallStaticLongMethod(env, longClass, sumLong, jlong{1} << 40, jlong{3}), (jlong{1} << 40) + 3);

    // A static void method that fills an array.
    jclass arraysClass = env->FindClass("java/util/Arrays");
    jmethodID fill = env->GetStaticMethodID(arraysClass, "fill", "([II)V");
    jintArray numbers = env->NewIntArray(3);
    table->CallStaticVoidMethod(env, arraysClass, fill, numbers, jint{7});
    jint filled[3] = {0, 0, 0};
    env->GetIntArrayRegion(numbers, 0, 3, filled);
    EXPECT_EQ(filled[0], 7);
    EXPECT_EQ(filled[2], 7);

    // A constructor, an instance void method and a non-virtual call.
    jclass builderClass = env->FindClass("java/lang/StringBuilder");
    jmethodID construct = env->GetMethodID(builderClass, "<init>", "(Ljava/lang/String;)V");
    jobject builder = table->NewObject(env, builderClass, construct, joined);
    ASSERT_NE(builder, nullptr);
    jmethodID setLength = env->GetMethodID(builderClass, "setLength", "(I)V");
    table->CallVoidMethod(env, builder, setLength, jint{2});
    jmethodID toString = env->GetMethodID(builderClass, "toString", "()Ljava/lang/String;");
    auto built = static_cast<jstring>(table->CallNonvirtualObjectMethod(env, builder, builderClass, toString));
    EXPECT_EQ(Text(built), "va");

    EXPECT_FALSE(env->ExceptionCheck());
    for (const char* function :
         {"CallObjectMethod", "CallIntMethod", "CallBooleanMethod", "CallStaticObjectMethod", "CallStaticDoubleMethod",
          "CallStaticFloatMethod", "CallStaticLongMethod", "CallStaticVoidMethod", "NewObject", "CallVoidMethod",
          "CallNonvirtualObjectMethod"}) {
        EXPECT_EQ(interposer.CountOf(function), 1u) << function;
        EXPECT_EQ(interposer.CountOf(std::string(function) + "V"), 0u) << function;
    }
    EXPECT_EQ(InterposerProblems(false), "");
}

TEST_F(JniInterposerTest, GetJavaVMAnswersTheWrappingVm) {
    JavaVM* vm = nullptr;
    EXPECT_EQ(env->GetJavaVM(&vm), JNI_OK);
    EXPECT_EQ(vm, interposer.Vm());
    EXPECT_NE(vm, jnitest::TestJvm());
}

TEST_F(JniInterposerTest, LargeByteArraysPassThroughTheRegionFunctions) {
    const jsize size = 32 << 20;
    jbyteArray array = env->NewByteArray(size);
    ASSERT_NE(array, nullptr);
    std::vector<jbyte> written(static_cast<size_t>(size));
    for (size_t i = 0; i < written.size(); ++i) written[i] = static_cast<jbyte>(i * 31 + 7);
    env->SetByteArrayRegion(array, 0, size, written.data());
    std::vector<jbyte> read(static_cast<size_t>(size), 0);
    env->GetByteArrayRegion(array, 0, size, read.data());
    EXPECT_TRUE(read == written);
    env->DeleteLocalRef(array);
    EXPECT_EQ(InterposerProblems(true), "");
}

// ---------------------------------------------------------------- the record

TEST_F(JniInterposerTest, RecordsEachCallWithItsDetailAndThread) {
    jclass integerClass = env->FindClass("java/lang/Integer");
    ASSERT_NE(integerClass, nullptr);
    EXPECT_NE(env->GetMethodID(integerClass, "intValue", "()I"), nullptr);
    EXPECT_NE(env->GetStaticMethodID(integerClass, "valueOf", "(I)Ljava/lang/Integer;"), nullptr);
    EXPECT_NE(env->GetFieldID(integerClass, "value", "I"), nullptr);
    EXPECT_NE(env->GetStaticFieldID(integerClass, "MAX_VALUE", "I"), nullptr);
    jstring text = env->NewStringUTF("x");
    env->DeleteLocalRef(text);
    env->DeleteLocalRef(integerClass);

    const std::vector<JniCall> calls = interposer.Calls();
    ASSERT_EQ(calls.size(), 8u);
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"FindClass", "java/lang/Integer"},
        {"GetMethodID", "intValue ()I"},
        {"GetStaticMethodID", "valueOf (I)Ljava/lang/Integer;"},
        {"GetFieldID", "value I"},
        {"GetStaticFieldID", "MAX_VALUE I"},
        {"NewStringUTF", ""},
        {"DeleteLocalRef", ""},
        {"DeleteLocalRef", ""},
    };
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].function, expected[i].first) << i;
        EXPECT_EQ(calls[i].detail, expected[i].second) << i;
        EXPECT_EQ(calls[i].threadId, qvplatform::CurrentThreadId()) << i;
    }
    EXPECT_EQ(interposer.CountOf("DeleteLocalRef"), 2u);
    EXPECT_EQ(interposer.CountOf("GetStaticMethodID", "valueOf"), 1u);
    EXPECT_EQ(interposer.CountOf("GetStaticMethodID", "intValue"), 0u);
    EXPECT_EQ(interposer.CountOf("GetMethodID", "()I"), 1u);
}

// ---------------------------------------------------------------- local references

TEST_F(JniInterposerTest, CountsLocalReferencesMadeAndDeleted) {
    jclass stringClass = env->FindClass("java/lang/String");
    jstring text = env->NewStringUTF("abc");
    jbyteArray bytes = env->NewByteArray(4);
    jclass sameClass = env->GetObjectClass(text);
    EXPECT_EQ(interposer.LocalRefsMade(), 4);

    // Global references are not local ones, and deleting null deletes nothing.
    jobject global = env->NewGlobalRef(text);
    env->DeleteGlobalRef(global);
    env->DeleteLocalRef(nullptr);
    EXPECT_EQ(interposer.LocalRefsMade(), 4);
    EXPECT_EQ(interposer.LocalRefsDeleted(), 0);

    // A lookup that fails makes nothing.
    EXPECT_EQ(env->FindClass("no/such/Class"), nullptr);
    EXPECT_EQ(TakePendingException().className, "java.lang.NoClassDefFoundError");
    EXPECT_EQ(interposer.LocalRefsMade(), 4);

    env->DeleteLocalRef(stringClass);
    env->DeleteLocalRef(bytes);
    env->DeleteLocalRef(sameClass);
    EXPECT_EQ(interposer.LocalRefsDeleted(), 3);
    EXPECT_EQ(interposer.LocalRefsLeft(), 1);
    env->DeleteLocalRef(text);
    EXPECT_EQ(interposer.LocalRefsLeft(), 0);
    EXPECT_EQ(InterposerProblems(true), "");
}

TEST_F(JniInterposerTest, PoppingALocalFrameCountsItsReferencesAsDeleted) {
    ASSERT_EQ(env->PushLocalFrame(8), JNI_OK);
    jstring first = env->NewStringUTF("first");
    jstring second = env->NewStringUTF("second");
    env->NewStringUTF("third");
    env->DeleteLocalRef(first);
    auto kept = static_cast<jstring>(env->PopLocalFrame(second));
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(Text(kept), "second");
    // Three made inside, one deleted there, two freed by the pop; the kept one is new.
    EXPECT_EQ(interposer.LocalRefsMade(), 4);
    EXPECT_EQ(interposer.LocalRefsDeleted(), 3);
    EXPECT_EQ(interposer.LocalRefsLeft(), 1);
    env->DeleteLocalRef(kept);

    // A reference of the outer frame deleted inside an inner one stays the outer frame's.
    jstring outer = env->NewStringUTF("outer");
    ASSERT_EQ(env->PushLocalFrame(4), JNI_OK);
    ASSERT_EQ(env->PushLocalFrame(4), JNI_OK);
    env->DeleteLocalRef(outer);
    env->NewStringUTF("inner");
    EXPECT_EQ(env->PopLocalFrame(nullptr), nullptr);
    EXPECT_EQ(env->PopLocalFrame(nullptr), nullptr);
    EXPECT_EQ(interposer.LocalRefsMade(), 6);
    EXPECT_EQ(interposer.LocalRefsDeleted(), 6);
    EXPECT_EQ(InterposerProblems(true), "");
}

// ---------------------------------------------------------------- planned failures

TEST_F(JniInterposerTest, FailFindClassAnswersNullWithAPendingNoClassDefFoundError) {
    interposer.FailFindClass("java/lang/Integer");
    jclass stringClass = env->FindClass("java/lang/String");  // another class is not affected
    EXPECT_NE(stringClass, nullptr);
    EXPECT_EQ(env->FindClass("java/lang/Integer"), nullptr);
    EXPECT_TRUE(env->ExceptionCheck());
    const PendingException pending = TakePendingException();
    EXPECT_EQ(pending.className, "java.lang.NoClassDefFoundError");
    EXPECT_NE(pending.message.find("java/lang/Integer"), std::string::npos) << pending.message;
    jclass integerClass = env->FindClass("java/lang/Integer");  // the failure was planned once
    EXPECT_NE(integerClass, nullptr);
    EXPECT_EQ(interposer.LocalRefsMade(), 2);
    EXPECT_EQ(interposer.CountOf("FindClass", "java/lang/Integer"), 2u);
}

TEST_F(JniInterposerTest, FailFindClassCountsItsTimes) {
    interposer.FailFindClass("", 2);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(env->FindClass("java/lang/String"), nullptr) << i;
        EXPECT_EQ(TakePendingException().className, "java.lang.NoClassDefFoundError") << i;
    }
    EXPECT_NE(env->FindClass("java/lang/String"), nullptr);
}

TEST_F(JniInterposerTest, AFailureForeverLastsUntilReset) {
    interposer.FailFindClass("", -1);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(env->FindClass("java/lang/Object"), nullptr) << i;
        EXPECT_EQ(TakePendingException().className, "java.lang.NoClassDefFoundError") << i;
    }
    interposer.Reset();
    EXPECT_NE(env->FindClass("java/lang/Object"), nullptr);
}

TEST_F(JniInterposerTest, FailGetMethodIDMatchesNameAndSignature) {
    jclass stringClass = env->FindClass("java/lang/String");
    interposer.FailGetMethodID("indexOf", "(I)I");
    EXPECT_NE(env->GetMethodID(stringClass, "indexOf", "(Ljava/lang/String;)I"), nullptr);
    EXPECT_NE(env->GetMethodID(stringClass, "isEmpty", "()Z"), nullptr);
    EXPECT_EQ(env->GetMethodID(stringClass, "indexOf", "(I)I"), nullptr);
    const PendingException pending = TakePendingException();
    EXPECT_EQ(pending.className, "java.lang.NoSuchMethodError");
    EXPECT_NE(pending.message.find("indexOf"), std::string::npos) << pending.message;
    EXPECT_NE(env->GetMethodID(stringClass, "indexOf", "(I)I"), nullptr);

    // Any signature of the name, for static methods as well.
    interposer.FailGetMethodID("valueOf");
    EXPECT_EQ(env->GetStaticMethodID(stringClass, "valueOf", "(J)Ljava/lang/String;"), nullptr);
    EXPECT_EQ(TakePendingException().className, "java.lang.NoSuchMethodError");
}

TEST_F(JniInterposerTest, FailGetFieldIDAnswersNullWithAPendingNoSuchFieldError) {
    jclass integerClass = env->FindClass("java/lang/Integer");
    interposer.FailGetFieldID("value", "I");
    EXPECT_EQ(env->GetFieldID(integerClass, "value", "I"), nullptr);
    const PendingException pending = TakePendingException();
    EXPECT_EQ(pending.className, "java.lang.NoSuchFieldError");
    EXPECT_NE(pending.message.find("value"), std::string::npos) << pending.message;
    EXPECT_NE(env->GetFieldID(integerClass, "value", "I"), nullptr);

    interposer.FailGetFieldID("");
    EXPECT_EQ(env->GetStaticFieldID(integerClass, "MAX_VALUE", "I"), nullptr);
    EXPECT_EQ(TakePendingException().className, "java.lang.NoSuchFieldError");
}

TEST_F(JniInterposerTest, FailGetObjectClassAnswersNullWithNothingPendingForItsTimes) {
    jstring text = env->NewStringUTF("text");
    interposer.FailGetObjectClass(2);
    EXPECT_EQ(env->GetObjectClass(text), nullptr);
    EXPECT_FALSE(env->ExceptionCheck());
    EXPECT_EQ(env->GetObjectClass(text), nullptr);
    jclass cls = env->GetObjectClass(text);
    ASSERT_NE(cls, nullptr);
    EXPECT_TRUE(env->IsSameObject(cls, jnitest::TestEnv()->FindClass("java/lang/String")));
    EXPECT_EQ(interposer.CountOf("GetObjectClass"), 3u);
    // The failed calls made no reference.
    EXPECT_EQ(interposer.LocalRefsMade(), 2);
}

TEST_F(JniInterposerTest, FailGetObjectClassWithExceptionAnswersNullWithAPendingOutOfMemoryError) {
    jstring text = env->NewStringUTF("text");
    interposer.FailGetObjectClassWithException();
    EXPECT_EQ(env->GetObjectClass(text), nullptr);
    const PendingException pending = TakePendingException();
    EXPECT_EQ(pending.className, "java.lang.OutOfMemoryError");
    EXPECT_NE(pending.message.find("planned by the JNI interposer"), std::string::npos) << pending.message;
    EXPECT_NE(env->GetObjectClass(text), nullptr);
    EXPECT_FALSE(env->ExceptionCheck());
}

TEST_F(JniInterposerTest, FailNewByteArrayAnswersNullWithAPendingOutOfMemoryError) {
    interposer.FailNewByteArray();
    EXPECT_EQ(env->NewByteArray(16), nullptr);
    EXPECT_EQ(TakePendingException().className, "java.lang.OutOfMemoryError");
    EXPECT_EQ(interposer.LocalRefsMade(), 0);
    jbyteArray array = env->NewByteArray(16);
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(env->GetArrayLength(array), 16);
}

TEST_F(JniInterposerTest, FailEnsureLocalCapacityAnswersMinusOneWithAPendingOutOfMemoryError) {
    interposer.FailEnsureLocalCapacity();
    EXPECT_EQ(env->EnsureLocalCapacity(16), -1);
    EXPECT_EQ(TakePendingException().className, "java.lang.OutOfMemoryError");
    EXPECT_EQ(env->EnsureLocalCapacity(16), 0);
    EXPECT_FALSE(env->ExceptionCheck());
}

TEST_F(JniInterposerTest, FailElementAccessFailsRegionsElementsAndObjectElements) {
    JNIEnv* real = jnitest::TestEnv();
    jbyteArray bytes = env->NewByteArray(4);
    const jbyte original[4] = {1, 2, 3, 4};
    env->SetByteArrayRegion(bytes, 0, 4, original);
    jclass objectClass = env->FindClass("java/lang/Object");
    jstring element = env->NewStringUTF("element");
    jobjectArray objects = env->NewObjectArray(1, objectClass, element);
    interposer.FailElementAccess(4);

    jbyte read[4] = {9, 9, 9, 9};
    env->GetByteArrayRegion(bytes, 0, 4, read);
    EXPECT_EQ(TakePendingException().className, "java.lang.ArrayIndexOutOfBoundsException");
    EXPECT_EQ(read[0], 9);  // nothing copied
    EXPECT_EQ(read[3], 9);

    const jbyte sevens[4] = {7, 7, 7, 7};
    env->SetByteArrayRegion(bytes, 0, 4, sevens);
    EXPECT_EQ(TakePendingException().className, "java.lang.ArrayIndexOutOfBoundsException");
    jbyte stored[4] = {0, 0, 0, 0};
    real->GetByteArrayRegion(bytes, 0, 4, stored);
    EXPECT_EQ(stored[0], 1);  // the array was not written
    EXPECT_EQ(stored[3], 4);

    EXPECT_EQ(env->GetObjectArrayElement(objects, 0), nullptr);
    EXPECT_EQ(TakePendingException().className, "java.lang.ArrayIndexOutOfBoundsException");

    EXPECT_EQ(env->GetByteArrayElements(bytes, nullptr), nullptr);
    EXPECT_FALSE(env->ExceptionCheck());

    // The four planned failures are used up.
    env->GetByteArrayRegion(bytes, 0, 4, read);
    EXPECT_EQ(read[3], 4);
    jobject fetched = env->GetObjectArrayElement(objects, 0);
    EXPECT_TRUE(env->IsSameObject(fetched, element));
    EXPECT_EQ(InterposerProblems(false), "");
}

TEST_F(JniInterposerTest, ThrowCppExceptionInThrowsWithoutForwarding) {
    interposer.ThrowCppExceptionIn("FindClass");
    EXPECT_THROW(env->FindClass("java/lang/String"), std::runtime_error);
    EXPECT_FALSE(env->ExceptionCheck());
    EXPECT_EQ(interposer.LocalRefsMade(), 0);
    EXPECT_EQ(interposer.CountOf("FindClass"), 1u);
    jclass stringClass = env->FindClass("java/lang/String");
    ASSERT_NE(stringClass, nullptr);

    // A variadic entry, by its exact name: its va_list and array forms are not affected.
    jmethodID trim = env->GetMethodID(stringClass, "trim", "()Ljava/lang/String;");
    jstring padded = env->NewStringUTF(" x ");
    interposer.ThrowCppExceptionIn("CallObjectMethod", 2);
    EXPECT_THROW(env->functions->CallObjectMethod(env, padded, trim), std::runtime_error);
    EXPECT_EQ(Text(static_cast<jstring>(env->CallObjectMethodA(padded, trim, nullptr))), "x");
    EXPECT_EQ(Text(static_cast<jstring>(env->CallObjectMethod(padded, trim))), "x");  // the va_list entry
    EXPECT_THROW(env->functions->CallObjectMethod(env, padded, trim), std::runtime_error);
    EXPECT_EQ(Text(static_cast<jstring>(env->functions->CallObjectMethod(env, padded, trim))), "x");

    // What C++ callers of env->CallObjectMethod(...) reach.
    interposer.ThrowCppExceptionIn("CallObjectMethodV");
    EXPECT_THROW(env->CallObjectMethod(padded, trim), std::runtime_error);
    EXPECT_FALSE(env->ExceptionCheck());

    try {
        interposer.ThrowCppExceptionIn("NewStringUTF");
        env->NewStringUTF("never");
        ADD_FAILURE() << "NewStringUTF did not throw";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("NewStringUTF"), std::string::npos) << error.what();
    }
}

TEST_F(JniInterposerTest, ThrowCppExceptionInCoversTheJavaVMFunctions) {
    JavaVM* vm = interposer.Vm();
    bool getEnvThrew = false, attachThrew = false, detachThrew = false;
    jint attached = JNI_ERR, detached = JNI_ERR;
    std::thread worker([&] {
        interposer.ThrowCppExceptionIn("GetEnv");
        interposer.ThrowCppExceptionIn("AttachCurrentThread");
        interposer.ThrowCppExceptionIn("DetachCurrentThread");
        JNIEnv* workerEnv = nullptr;
        try {
            vm->GetEnv(reinterpret_cast<void**>(&workerEnv), JNI_VERSION_1_8);
        } catch (const std::runtime_error&) {
            getEnvThrew = true;
        }
        try {
            vm->AttachCurrentThread(reinterpret_cast<void**>(&workerEnv), nullptr);
        } catch (const std::runtime_error&) {
            attachThrew = true;
        }
        attached = vm->AttachCurrentThread(reinterpret_cast<void**>(&workerEnv), nullptr);
        try {
            vm->DetachCurrentThread();
        } catch (const std::runtime_error&) {
            detachThrew = true;
        }
        detached = vm->DetachCurrentThread();
    });
    worker.join();
    EXPECT_TRUE(getEnvThrew);
    EXPECT_TRUE(attachThrew);
    EXPECT_TRUE(detachThrew);
    EXPECT_EQ(attached, JNI_OK);
    EXPECT_EQ(detached, JNI_OK);
    EXPECT_EQ(interposer.Attaches(), 1);  // the calls that threw did nothing
    EXPECT_EQ(interposer.Detaches(), 1);
}

// ---------------------------------------------------------------- strict mode

TEST_F(JniInterposerTest, StrictModeRefusesNullArgumentsWithoutCrashing) {
    EXPECT_EQ(env->GetMethodID(nullptr, "length", "()I"), nullptr);
    EXPECT_FALSE(env->ExceptionCheck());
    EXPECT_TRUE(HasViolation("GetMethodID: null class"));

    jclass stringClass = env->FindClass("java/lang/String");
    EXPECT_EQ(env->GetMethodID(stringClass, nullptr, "()I"), nullptr);
    EXPECT_TRUE(HasViolation("GetMethodID: null name"));
    jmethodID length = env->GetMethodID(stringClass, "length", "()I");
    EXPECT_EQ(env->CallIntMethod(nullptr, length), 0);
    EXPECT_TRUE(HasViolation("CallIntMethodV: null object"));
    EXPECT_EQ(env->functions->CallIntMethod(env, stringClass, nullptr), 0);
    EXPECT_TRUE(HasViolation("CallIntMethod: null method ID"));
    EXPECT_EQ(env->GetStringUTFChars(nullptr, nullptr), nullptr);
    EXPECT_TRUE(HasViolation("GetStringUTFChars: null string"));
    EXPECT_EQ(env->NewStringUTF(nullptr), nullptr);
    EXPECT_TRUE(HasViolation("NewStringUTF: null characters"));
    EXPECT_EQ(env->NewByteArray(-1), nullptr);
    EXPECT_TRUE(HasViolation("NewByteArray: negative length"));
    jbyteArray bytes = env->NewByteArray(4);
    env->GetByteArrayRegion(bytes, 0, 4, nullptr);
    EXPECT_TRUE(HasViolation("GetByteArrayRegion: null buffer"));
    EXPECT_EQ(env->GetArrayLength(nullptr), 0);
    EXPECT_TRUE(HasViolation("GetArrayLength: null array"));
    EXPECT_EQ(env->Throw(nullptr), JNI_ERR);
    EXPECT_TRUE(HasViolation("Throw: null throwable"));
    EXPECT_EQ(interposer.StrictViolations().size(), 10u);

    // JNI allows these nulls.
    env->DeleteLocalRef(nullptr);
    EXPECT_EQ(env->NewGlobalRef(nullptr), nullptr);
    EXPECT_TRUE(env->IsSameObject(nullptr, nullptr));
    EXPECT_TRUE(env->IsInstanceOf(nullptr, stringClass));
    EXPECT_EQ(interposer.StrictViolations().size(), 10u);
    EXPECT_FALSE(env->ExceptionCheck());

    const std::string problems = InterposerProblems(false);
    EXPECT_NE(problems.find("GetMethodID: null class"), std::string::npos) << problems;
}

TEST_F(JniInterposerTest, StrictModeRefusesCallsWhileAnExceptionIsPending) {
    jclass stringClass = env->FindClass("java/lang/String");
    jmethodID trim = env->GetMethodID(stringClass, "trim", "()Ljava/lang/String;");
    jstring text = env->NewStringUTF(" y ");
    jclass stateClass = env->FindClass("java/lang/IllegalStateException");
    ASSERT_EQ(env->ThrowNew(stateClass, "boom"), JNI_OK);

    EXPECT_EQ(env->CallObjectMethod(text, trim), nullptr);  // reaches CallObjectMethodV
    EXPECT_TRUE(HasViolation("CallObjectMethodV while an exception is pending"));
    EXPECT_EQ(env->FindClass("java/lang/Object"), nullptr);
    EXPECT_TRUE(HasViolation("FindClass while an exception is pending"));
    EXPECT_EQ(interposer.StrictViolations().size(), 2u);

    // The functions JNI allows while an exception is pending are forwarded.
    EXPECT_TRUE(env->ExceptionCheck());
    jthrowable thrown = env->ExceptionOccurred();
    EXPECT_NE(thrown, nullptr);
    env->DeleteLocalRef(thrown);
    EXPECT_EQ(env->PushLocalFrame(4), JNI_OK);
    EXPECT_EQ(env->PopLocalFrame(nullptr), nullptr);
    EXPECT_EQ(interposer.StrictViolations().size(), 2u);

    // The refused calls did not disturb the pending exception.
    const PendingException pending = TakePendingException();
    EXPECT_EQ(pending.className, "java.lang.IllegalStateException");
    EXPECT_EQ(pending.message, "boom");
    EXPECT_EQ(Text(static_cast<jstring>(env->CallObjectMethod(text, trim))), "y");
}

TEST_F(JniInterposerTest, StrictModeRefusesCallsInsideACriticalRegion) {
    jbyteArray bytes = env->NewByteArray(8);
    void* elements = env->GetPrimitiveArrayCritical(bytes, nullptr);
    ASSERT_NE(elements, nullptr);
    EXPECT_EQ(env->GetArrayLength(bytes), 0);
    env->ReleasePrimitiveArrayCritical(bytes, elements, 0);
    EXPECT_EQ(interposer.StrictViolations(),
              std::vector<std::string>{"GetArrayLength inside a critical region (Get*Critical not yet released)"});
    EXPECT_EQ(env->GetArrayLength(bytes), 8);
    EXPECT_EQ(interposer.StrictViolations().size(), 1u);
}

TEST_F(JniInterposerTest, WithoutStrictModeCallsAreForwardedUnchecked) {
    interposer.SetStrict(false);
    EXPECT_FALSE(interposer.IsStrict());
    jclass stateClass = env->FindClass("java/lang/IllegalStateException");
    ASSERT_EQ(env->ThrowNew(stateClass, "pending"), JNI_OK);
    EXPECT_GE(env->GetVersion(), JNI_VERSION_1_8);  // forwarded despite the pending exception
    EXPECT_TRUE(interposer.StrictViolations().empty());
    EXPECT_EQ(TakePendingException().className, "java.lang.IllegalStateException");
}

TEST_F(JniInterposerTest, AnEnvUsedOnAnotherThreadIsRefused) {
    JNIEnv* mainEnv = env;
    bool answeredNull = false;
    std::thread other([&] { answeredNull = mainEnv->FindClass("java/lang/String") == nullptr; });
    other.join();
    EXPECT_TRUE(answeredNull);
    EXPECT_TRUE(HasViolation("FindClass: called with a JNIEnv that is not the calling thread's"));
    EXPECT_EQ(interposer.LocalRefsMade(), 0);
}

TEST_F(JniInterposerTest, AnEnvUsedAfterItsThreadDetachedIsRefused) {
    bool answeredNull = false;
    jint detached = JNI_ERR;
    std::thread worker([&] {
        JNIEnv* workerEnv = nullptr;
        if (interposer.Vm()->AttachCurrentThread(reinterpret_cast<void**>(&workerEnv), nullptr) != JNI_OK) return;
        detached = interposer.Vm()->DetachCurrentThread();
        answeredNull = workerEnv->FindClass("java/lang/String") == nullptr;
    });
    worker.join();
    EXPECT_EQ(detached, JNI_OK);
    EXPECT_TRUE(answeredNull);
    EXPECT_TRUE(HasViolation("FindClass: called on a thread that is no longer attached"));
}

TEST_F(JniInterposerTest, DestroyJavaVMIsRefused) {
    EXPECT_EQ(interposer.Vm()->DestroyJavaVM(), JNI_ERR);
    EXPECT_EQ(interposer.CountOf("DestroyJavaVM"), 1u);
    EXPECT_EQ(interposer.StrictViolations().size(), 1u);
    EXPECT_NE(env->FindClass("java/lang/String"), nullptr);  // the JVM still runs
}

TEST_F(JniInterposerTest, InterposerProblemsReportsViolationsAndReferencesLeft) {
    EXPECT_EQ(InterposerProblems(true), "");
    jstring left = env->NewStringUTF("left");
    EXPECT_EQ(InterposerProblems(false), "");
    EXPECT_EQ(InterposerProblems(true), "local references left: 1 (made 1, deleted 0)\n");
    env->DeleteLocalRef(left);
    EXPECT_EQ(InterposerProblems(true), "");
    EXPECT_EQ(env->GetObjectClass(nullptr), nullptr);
    EXPECT_EQ(InterposerProblems(true), "JNI misuse: GetObjectClass: null object\n");
}

// ---------------------------------------------------------------- attach and detach

TEST_F(JniInterposerTest, GetEnvAnswersDetachedOnAThreadNotAttached) {
    jint answer = JNI_OK;
    void* threadEnv = &answer;  // anything but null, overwritten by GetEnv
    std::thread other([&] { answer = interposer.Vm()->GetEnv(&threadEnv, JNI_VERSION_1_8); });
    other.join();
    EXPECT_EQ(answer, JNI_EDETACHED);
    EXPECT_EQ(threadEnv, nullptr);
}

TEST_F(JniInterposerTest, AttachAndDetachFromANewThreadAreWrappedAndCounted) {
    JavaVM* vm = interposer.Vm();
    jint before = JNI_OK, attached = JNI_ERR, again = JNI_ERR, detached = JNI_ERR, after = JNI_OK;
    JNIEnv* threadEnv = nullptr;
    JNIEnv* fromGetEnv = nullptr;
    bool foundClass = false;
    uint32_t threadId = 0;
    std::thread worker([&] {
        threadId = qvplatform::CurrentThreadId();
        void* unused = nullptr;
        before = vm->GetEnv(&unused, JNI_VERSION_1_8);
        attached = vm->AttachCurrentThread(reinterpret_cast<void**>(&threadEnv), nullptr);
        if (attached != JNI_OK) return;
        again = vm->GetEnv(reinterpret_cast<void**>(&fromGetEnv), JNI_VERSION_1_8);
        jclass found = threadEnv->FindClass("java/lang/Thread");
        foundClass = found != nullptr;
        threadEnv->DeleteLocalRef(found);
        detached = vm->DetachCurrentThread();
        after = vm->GetEnv(&unused, JNI_VERSION_1_8);
    });
    worker.join();
    EXPECT_EQ(before, JNI_EDETACHED);
    ASSERT_EQ(attached, JNI_OK);
    ASSERT_NE(threadEnv, nullptr);
    EXPECT_NE(threadEnv, env);                         // each thread has its own wrapped env
    EXPECT_EQ(threadEnv->functions, env->functions);  // with the same wrapping table
    EXPECT_EQ(again, JNI_OK);
    EXPECT_EQ(fromGetEnv, threadEnv);
    EXPECT_TRUE(foundClass);
    EXPECT_EQ(detached, JNI_OK);
    EXPECT_EQ(after, JNI_EDETACHED);
    EXPECT_EQ(interposer.Attaches(), 1);
    EXPECT_EQ(interposer.Detaches(), 1);
    EXPECT_EQ(interposer.CountOf("AttachCurrentThread"), 1u);
    bool recordedOnWorker = false;
    for (const JniCall& call : interposer.Calls()) {
        if (call.function == "FindClass") recordedOnWorker = call.threadId == threadId;
    }
    EXPECT_TRUE(recordedOnWorker);

    // The daemon form is counted too.
    jint daemon = JNI_ERR;
    std::thread daemonWorker([&] {
        JNIEnv* daemonEnv = nullptr;
        daemon = vm->AttachCurrentThreadAsDaemon(reinterpret_cast<void**>(&daemonEnv), nullptr);
        if (daemon == JNI_OK) vm->DetachCurrentThread();
    });
    daemonWorker.join();
    EXPECT_EQ(daemon, JNI_OK);
    EXPECT_EQ(interposer.Attaches(), 2);
    EXPECT_EQ(interposer.Detaches(), 2);
    EXPECT_EQ(InterposerProblems(true), "");
}

TEST_F(JniInterposerTest, FailAttachAnswersJniErrWithoutAnEnv) {
    interposer.FailAttach();
    JavaVM* vm = interposer.Vm();
    jint failed = JNI_OK, stillDetached = JNI_OK, second = JNI_ERR;
    JNIEnv* failedEnv = env;  // anything but null, overwritten by the attach
    std::thread worker([&] {
        failed = vm->AttachCurrentThread(reinterpret_cast<void**>(&failedEnv), nullptr);
        void* unused = nullptr;
        stillDetached = vm->GetEnv(&unused, JNI_VERSION_1_8);
        JNIEnv* secondEnv = nullptr;
        second = vm->AttachCurrentThreadAsDaemon(reinterpret_cast<void**>(&secondEnv), nullptr);
        if (second == JNI_OK) vm->DetachCurrentThread();
    });
    worker.join();
    EXPECT_EQ(failed, JNI_ERR);
    EXPECT_EQ(failedEnv, nullptr);
    EXPECT_EQ(stillDetached, JNI_EDETACHED);
    EXPECT_EQ(second, JNI_OK);
    EXPECT_EQ(interposer.Attaches(), 1);
    EXPECT_EQ(interposer.Detaches(), 1);
}

// ---------------------------------------------------------------- reset and threads

TEST_F(JniInterposerTest, ResetClearsRecordCountersViolationsAndFaults) {
    env->NewStringUTF("left behind");
    EXPECT_EQ(env->GetObjectClass(nullptr), nullptr);
    interposer.FailFindClass("", -1);
    interposer.ThrowCppExceptionIn("NewStringUTF", -1);
    std::thread worker([&] {
        JNIEnv* workerEnv = nullptr;
        if (interposer.Vm()->AttachCurrentThread(reinterpret_cast<void**>(&workerEnv), nullptr) == JNI_OK) {
            interposer.Vm()->DetachCurrentThread();
        }
    });
    worker.join();
    ASSERT_FALSE(interposer.Calls().empty());
    ASSERT_EQ(interposer.LocalRefsMade(), 1);
    ASSERT_EQ(interposer.StrictViolations().size(), 1u);
    ASSERT_EQ(interposer.Attaches(), 1);
    ASSERT_EQ(interposer.Detaches(), 1);

    interposer.Reset();
    EXPECT_TRUE(interposer.Calls().empty());
    EXPECT_EQ(interposer.LocalRefsMade(), 0);
    EXPECT_EQ(interposer.LocalRefsDeleted(), 0);
    EXPECT_TRUE(interposer.StrictViolations().empty());
    EXPECT_EQ(interposer.Attaches(), 0);
    EXPECT_EQ(interposer.Detaches(), 0);
    EXPECT_TRUE(interposer.IsStrict());  // strict mode stays as set
    EXPECT_NE(env->FindClass("java/lang/String"), nullptr);
    EXPECT_NO_THROW(env->NewStringUTF("fine"));
    EXPECT_EQ(InterposerProblems(false), "");
}

TEST_F(JniInterposerTest, SeveralThreadsUseTheInterposerAtOnce) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 1000;
    JavaVM* vm = interposer.Vm();
    std::vector<std::thread> threads;
    std::vector<int> completed(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            JNIEnv* threadEnv = nullptr;
            if (vm->AttachCurrentThread(reinterpret_cast<void**>(&threadEnv), nullptr) != JNI_OK) return;
            for (int round = 0; round < kRounds; ++round) {
                jclass integerClass = threadEnv->FindClass("java/lang/Integer");
                jstring text = threadEnv->NewStringUTF("thread");
                if (integerClass == nullptr || text == nullptr || threadEnv->GetStringUTFLength(text) != 6) break;
                threadEnv->DeleteLocalRef(text);
                threadEnv->DeleteLocalRef(integerClass);
                if (threadEnv->PushLocalFrame(2) != JNI_OK) break;
                threadEnv->NewStringUTF("in a frame");
                threadEnv->PopLocalFrame(nullptr);
                ++completed[static_cast<size_t>(t)];
            }
            vm->DetachCurrentThread();
        });
    }
    for (std::thread& thread : threads) thread.join();

    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(completed[static_cast<size_t>(t)], kRounds) << t;
    EXPECT_EQ(interposer.Attaches(), kThreads);
    EXPECT_EQ(interposer.Detaches(), kThreads);
    EXPECT_EQ(interposer.CountOf("NewStringUTF"), static_cast<size_t>(2 * kThreads * kRounds));
    EXPECT_EQ(interposer.CountOf("FindClass", "java/lang/Integer"), static_cast<size_t>(kThreads * kRounds));
    EXPECT_EQ(interposer.LocalRefsMade(), 3 * kThreads * kRounds);
    EXPECT_EQ(InterposerProblems(true), "");
    std::set<uint32_t> threadIds;
    for (const JniCall& call : interposer.Calls()) threadIds.insert(call.threadId);
    EXPECT_EQ(threadIds.size(), static_cast<size_t>(kThreads));
}

}  // namespace
