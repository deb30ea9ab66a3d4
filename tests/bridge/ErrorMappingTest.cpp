// Java error values to host result codes, and the lookups of the call frame.
#include <gtest/gtest.h>

#include "bridge/BridgeLog.h"
#include "bridge/CallFrame.h"
#include "bridge/ErrorMapping.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;
using jnitest::TestDouble;

TEST(MapErrorOrdinal, EveryOrdinalOfTheTableMapsToItsCode) {
    const uint32_t expected[49] = {0,  1,  2,  7,  4,  5,  6,  8,  9,  10, 11, 12, 13, 14, 15, 16, 17,
                                   18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 30, 29, 30, 31, 32, 33,
                                   34, 35, 36, 37, 38, 1,  1,  47, 1,  42, 43, 44, 23, 49, 45, 46};
    for (int32_t ordinal = 0; ordinal < 49; ++ordinal) EXPECT_EQ(MapErrorOrdinal(ordinal), expected[ordinal]) << ordinal;
}

TEST(MapErrorOrdinal, Ordinals22And45BothGive23) {
    EXPECT_EQ(MapErrorOrdinal(22), 23u);
    EXPECT_EQ(MapErrorOrdinal(45), 23u);
}

TEST(MapErrorOrdinal, OrdinalsOutsideTheTableGive23) {
    for (int32_t ordinal : {-1, -2, 49, 50, 1000, 0x7FFFFFFF, static_cast<int32_t>(0x80000000u)}) {
        EXPECT_EQ(MapErrorOrdinal(ordinal), 23u) << ordinal;
    }
}

TEST(MapErrorOrdinal, Ordinal40Gives47AndCodes3_28_39_40_41_48AreNeverProduced) {
    EXPECT_EQ(MapErrorOrdinal(40), 47u);
    for (int32_t ordinal = -5; ordinal < 60; ++ordinal) {
        const uint32_t code = MapErrorOrdinal(ordinal);
        for (uint32_t never : {3u, 28u, 39u, 40u, 41u, 48u}) EXPECT_NE(code, never) << ordinal;
    }
}

class ErrorValueTest : public BridgeFixture {
protected:
    // The CErrorValue that AzureDeInit would return now, made on the real
    // environment so that it stays out of the interposer's counts.
    LocalRef<jobject> ErrorValue(int ordinal) {
        TestDouble::ReturnErrorOrdinal("AzureDeInit", ordinal);
        return LocalRef<jobject>(jnitest::TestEnv(), TestDouble::NextResult(jnitest::TestEnv(), "AzureDeInit"));
    }
};

TEST_F(ErrorValueTest, GetErrorIdMapsTheOrdinalOfTheErrorValue) {
    for (int ordinal : {0, 3, 22, 40, 48}) {
        LocalRef<jobject> value = ErrorValue(ordinal);
        Interposer().Reset();
        EXPECT_EQ(GetErrorId(Env(), Log(), value.get()), MapErrorOrdinal(ordinal)) << ordinal;
        EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    }
    EXPECT_TRUE(LogLines().empty());
}

TEST_F(ErrorValueTest, GetErrorIdOnANullObjectGives40WithoutALine) {
    EXPECT_EQ(GetErrorId(Env(), Log(), nullptr), 40u);
    EXPECT_TRUE(LogLines().empty());
    EXPECT_EQ(Interposer().CountOf("FindClass"), 0u);
}

TEST_F(ErrorValueTest, GetErrorIdReadsTheOrdinalOfTheErrorValueItself) {
    LocalRef<jobject> value = ErrorValue(0);
    Interposer().Reset();
    EXPECT_EQ(GetErrorId(Env(), Log(), value.get()), 0u);
    // getErrorID is asked (for null), the ordinal comes from getOrdinalValue of the CErrorValue.
    EXPECT_EQ(Interposer().CountOf("CallObjectMethodV") + Interposer().CountOf("CallObjectMethod") +
                  Interposer().CountOf("CallObjectMethodA"),
              1u);
    EXPECT_EQ(Interposer().CountOf("CallIntMethodV") + Interposer().CountOf("CallIntMethod") +
                  Interposer().CountOf("CallIntMethodA"),
              1u);
}

TEST_F(ErrorValueTest, GetErrorIdOfOrdinal0GivesSuccessWhateverErrorIdItCarries) {
    // getOrdinalValue answers 0 while getErrorID answers another ERRORID (5, then 40): only the ordinal counts,
    // as long as the ERRORID is not null.
    for (const int errorId : {5, 40}) {
        TestDouble::ReturnErrorValue("AzureDeInit", errorId, 0);
        LocalRef<jobject> value(jnitest::TestEnv(), TestDouble::NextResult(jnitest::TestEnv(), "AzureDeInit"));
        ASSERT_TRUE(value);
        Interposer().Reset();
        EXPECT_EQ(GetErrorId(Env(), Log(), value.get()), 0u) << errorId;
        EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    }
    EXPECT_TRUE(LogLines().empty());
}

TEST_F(ErrorValueTest, GetErrorIdWithTheErrorValueClassMissingLogsAndGives40) {
    LocalRef<jobject> value = ErrorValue(5);
    Interposer().Reset();
    Interposer().FailFindClass("com/qv/QVCloudPluginInterface/CErrorValue");
    EXPECT_EQ(GetErrorId(Env(), Log(), value.get()), 40u);
    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), 3u) << ::testing::PrintToString(LogLinesUtf8());
    EXPECT_EQ(lines[0], u"Descrption is failed");
    EXPECT_NE(lines[1].find(u"NoClassDefFoundError"), WideString::npos);
    EXPECT_EQ(lines[2], u"Can't FindClass(com/qv/AzureLibrary/QVAzurePlugInLibrary)\n");
}

TEST_F(ErrorValueTest, GetErrorIdWithoutGetErrorIDLogsAndGives40) {
    LocalRef<jobject> value = ErrorValue(5);
    Interposer().Reset();
    Interposer().FailGetMethodID("getErrorID");
    EXPECT_EQ(GetErrorId(Env(), Log(), value.get()), 40u);
    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[1].find(u"NoSuchMethodError"), WideString::npos);
    EXPECT_EQ(lines[2], u"Can't GetMethod(com/qv/AzureLibrary/QVAzurePlugInLibrary)\n");
}

TEST_F(ErrorValueTest, GetErrorIdWithoutGetOrdinalValueLogsAndGives40) {
    LocalRef<jobject> value = ErrorValue(5);
    Interposer().Reset();
    Interposer().FailGetMethodID("getOrdinalValue");
    EXPECT_EQ(GetErrorId(Env(), Log(), value.get()), 40u);
    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[1].find(u"NoSuchMethodError"), WideString::npos);
    EXPECT_EQ(lines[2], u"Can't GetMethod(com/qv/AzureLibrary/QVAzurePlugInLibrary)\n");
}

TEST_F(ErrorValueTest, GetErrorIdWithANullErrorIdLogsWithoutLineFeedAndGives40) {
    // An ERRORID-less CErrorValue: the double's error value of a null ERRORID.
    TestDouble::ReturnErrorOrdinal("AzureDeInit", -1);
    LocalRef<jobject> value(jnitest::TestEnv(), TestDouble::NextResult(jnitest::TestEnv(), "AzureDeInit"));
    ASSERT_TRUE(value);
    Interposer().Reset();
    EXPECT_EQ(GetErrorId(Env(), Log(), value.get()), 40u);
    EXPECT_EQ(LogLines(), std::vector<WideString>{u"Can't FindClass(com/qv/AzureLibrary/QVAzurePlugInLibrary)"});
}

TEST_F(ErrorValueTest, GetErrorIdCatchesNativeExceptions) {
    LocalRef<jobject> value = ErrorValue(5);
    Interposer().Reset();
    Interposer().ThrowCppExceptionIn("FindClass");
    EXPECT_EQ(GetErrorId(Env(), Log(), value.get()), 40u);
    EXPECT_EQ(LogLines(), std::vector<WideString>{u"GetErrorId:: Exception is occured"});
}

TEST_F(ErrorValueTest, ReadErrorOrdinalGivesTheRawOrdinal) {
    for (int ordinal : {0, 3, 40, 48}) {
        LocalRef<jobject> value = ErrorValue(ordinal);
        Interposer().Reset();
        uint32_t read = 12345;
        ReadErrorOrdinal(Env(), value.get(), &read);
        EXPECT_EQ(read, static_cast<uint32_t>(ordinal));
        EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    }
}

TEST_F(ErrorValueTest, ReadErrorOrdinalOfANullObjectGives40) {
    uint32_t read = 7;
    ReadErrorOrdinal(Env(), nullptr, &read);
    EXPECT_EQ(read, 40u);
}

TEST_F(ErrorValueTest, ReadErrorOrdinalWithTheClassMissingTracesAndLeavesTheOrdinalUnwritten) {
    LocalRef<jobject> value = ErrorValue(5);
    Interposer().Reset();
    Interposer().FailFindClass("com/qv/QVCloudPluginInterface/CErrorValue");
    std::string traced;
    SetStdoutTraceSink([&](const std::string& text) { traced += text; });
    uint32_t read = 777;
    ReadErrorOrdinal(Env(), value.get(), &read);
    SetStdoutTraceSink(nullptr);
    EXPECT_EQ(read, 777u);
    EXPECT_EQ(traced, "\nException in finding the WebServiceClient class\n"
                      "Can't FindClass(com/qv/AzureLibrary/QVAzurePlugInLibrary)\n"
                      "Can't GetMethod(com/qv/AzureLibrary/QVAzurePlugInLibrary)\n");
    // Nothing is looked up on a null class (the one lookup is toString, describing the exception).
    EXPECT_EQ(Interposer().CountOf("GetMethodID", "getErrorID"), 0u);
    EXPECT_EQ(Interposer().CountOf("GetMethodID", "getOrdinalValue"), 0u);
    EXPECT_TRUE(LogLines().empty());
}

TEST_F(ErrorValueTest, ReadErrorOrdinalWithAMissingMethodTracesAndLeavesTheOrdinalUnwritten) {
    LocalRef<jobject> value = ErrorValue(5);
    Interposer().Reset();
    Interposer().FailGetMethodID("getOrdinalValue");
    std::string traced;
    SetStdoutTraceSink([&](const std::string& text) { traced += text; });
    uint32_t read = 777;
    ReadErrorOrdinal(Env(), value.get(), &read);
    SetStdoutTraceSink(nullptr);
    EXPECT_EQ(read, 777u);
    EXPECT_EQ(traced, "\nException in finding the WebServiceClient class\n"
                      "Can't GetMethod(com/qv/AzureLibrary/QVAzurePlugInLibrary)\n");
}

// ---------------------------------------------------------------- exceptions and lookups

class FrameLookupTest : public BridgeFixture {};

TEST_F(FrameLookupTest, DescribePendingExceptionAnswersFalseWhenNothingIsPending) {
    EXPECT_FALSE(DescribePendingException(Env(), Log()));
    EXPECT_TRUE(LogLines().empty());
}

TEST_F(FrameLookupTest, DescribePendingExceptionClearsAndLogsThePendingExceptionAtDetailLevel) {
    JNIEnv* env = Env();
    LocalRef<jclass> error(env, env->FindClass("java/lang/IllegalStateException"));
    env->ThrowNew(error.get(), "broken pipe");
    EXPECT_TRUE(DescribePendingException(env, Log()));
    EXPECT_FALSE(env->ExceptionCheck());
    EXPECT_EQ(LogLines(), (std::vector<WideString>{u"Descrption is failed",
                                                   u"java.lang.IllegalStateException: broken pipe"}));
}

TEST_F(FrameLookupTest, DescribePendingExceptionWithoutALogWriterClearsAndAnswersTrue) {
    JNIEnv* env = Env();
    LocalRef<jclass> error(env, env->FindClass("java/lang/IllegalStateException"));
    env->ThrowNew(error.get(), "quiet");
    EXPECT_TRUE(DescribePendingException(env, nullptr));
    EXPECT_FALSE(env->ExceptionCheck());
}

TEST_F(FrameLookupTest, GetAzurePlugInClassFindsThePluginClass) {
    const LocalRef<jclass> cls = GetAzurePlugInClass(Env(), Log());
    EXPECT_TRUE(cls);
    EXPECT_TRUE(LogLines().empty());
}

TEST_F(FrameLookupTest, GetAzurePlugInClassWhenMissingDescribesAndLogs) {
    Interposer().FailFindClass("com/qv/AzureLibrary/QVAzurePlugInLibrary");
    EXPECT_FALSE(GetAzurePlugInClass(Env(), Log()));
    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], u"Descrption is failed");
    EXPECT_EQ(lines[2], u"GetAzurePlugInClass::Class object is not got...");
}

TEST_F(FrameLookupTest, GetAzurePlugInObjectMethodWithANullClassLogsThreeLinesWithoutALookup) {
    EXPECT_EQ(GetAzurePlugInObjectMethod(Env(), Log(), nullptr, "AzureInit", "()V"), nullptr);
    EXPECT_EQ(Interposer().CountOf("GetMethodID"), 0u);
    EXPECT_EQ(LogLines(), (std::vector<WideString>{u"GetAzurePlugInObjectMethod::Method is not got... Method Name:- ",
                                                   NarrowBytesAsWide("AzureInit"), NarrowBytesAsWide("()V")}));
}

TEST_F(FrameLookupTest, GetAzurePlugInObjectMethodWithAMissingMethodDescribesAndLogs) {
    const LocalRef<jclass> cls = GetAzurePlugInClass(Env(), Log());
    EXPECT_EQ(GetAzurePlugInObjectMethod(Env(), Log(), cls.get(), "NoSuchMethod", "()V"), nullptr);
    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], u"Descrption is failed");
    EXPECT_NE(lines[1].find(u"NoSuchMethodError"), WideString::npos);
    EXPECT_EQ(lines[2], u"GetAzurePlugInObjectMethod::Method is not got... Method Name:- ");
    EXPECT_EQ(lines[3], NarrowBytesAsWide("NoSuchMethod"));
    EXPECT_EQ(lines[4], NarrowBytesAsWide("()V"));
}

TEST(NarrowBytesAsWide, PairsTheBytesWithinTheTextAndPadsAnOddLastByte) {
    EXPECT_EQ(NarrowBytesAsWide("AB"), WideString(1, static_cast<char16_t>(0x4241)));
    const WideString odd = NarrowBytesAsWide("ABC");
    ASSERT_EQ(odd.size(), 2u);
    EXPECT_EQ(odd[0], static_cast<char16_t>(0x4241));
    EXPECT_EQ(odd[1], static_cast<char16_t>(0x0043));
    EXPECT_TRUE(NarrowBytesAsWide("").empty());
    EXPECT_TRUE(NarrowBytesAsWide(nullptr).empty());
    EXPECT_EQ(NarrowBytesAsWide("AzureInit").size(), 5u);
}
