// The conversions of the Java result objects into the host's outputs, run on
// results of the real Java test double through the JNI interposer.
#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "bridge/LocalRef.h"
#include "marshal/MetaData.h"
#include "marshal/ResultConversions.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;
using jnitest::MetaEntry;
using jnitest::OptText;
using jnitest::SubListEntry;
using jnitest::SubListOwner;
using jnitest::TestDouble;

namespace {

// A value no conversion produces, to see which outputs were left alone.
constexpr uint32_t kUntouched = 0xC0FFEEu;

constexpr const char* kGetObjectMetaDataByHandle =
    "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CGObjectMetaDataFnValue;";

class ResultConversionsTest : public BridgeFixture {
protected:
    // The result that the double's `method` would return now, as a local reference of the interposer's
    // environment.
    LocalRef<jobject> Result(const std::string& method, const std::string& signature = std::string()) {
        JNIEnv* env = Env();
        jobject result = signature.empty() ? TestDouble::NextResult(env, method)
                                           : TestDouble::NextResult(env, method, signature);
        return LocalRef<jobject>(env, result);
    }
};

}  // namespace

// ---- CGDefaultObjSizeRangeValue

TEST_F(ResultConversionsTest, CGDefaultObjSizeRangeValueCopiesTheThreeSizesAndTheErrorId) {
    TestDouble::ReturnErrorOrdinal("GetDefaultObjectSizeRange", 7);
    TestDouble::SetLong("GetDefaultObjectSizeRange", "minValue", -5);
    TestDouble::SetLong("GetDefaultObjectSizeRange", "defaultValue", 0x123456789LL);
    TestDouble::SetLong("GetDefaultObjectSizeRange", "maxValue", INT64_MAX);
    LocalRef<jobject> result = Result("GetDefaultObjectSizeRange");
    uint32_t errorId = kUntouched;
    SizeRangeRecord range;
    ConvertCGDefaultObjSizeRangeValue(Env(), result.get(), &errorId, &range);
    EXPECT_EQ(errorId, 7u);
    EXPECT_EQ(range.minimum, -5);
    EXPECT_EQ(range.defaultSize, 0x123456789LL);
    EXPECT_EQ(range.maximum, INT64_MAX);
}

TEST_F(ResultConversionsTest, CGDefaultObjSizeRangeValueNullResultLeavesEveryOutputAsTheCallerSetIt) {
    TestDouble::ReturnNull("GetDefaultObjectSizeRange");
    LocalRef<jobject> result = Result("GetDefaultObjectSizeRange");
    ASSERT_FALSE(result);
    uint32_t errorId = kUntouched;
    SizeRangeRecord range{1, 2, 3};
    ConvertCGDefaultObjSizeRangeValue(Env(), result.get(), &errorId, &range);
    EXPECT_EQ(errorId, kUntouched);
    EXPECT_EQ(range.minimum, 1);
    EXPECT_EQ(range.defaultSize, 2);
    EXPECT_EQ(range.maximum, 3);
    EXPECT_EQ(Interposer().CountOf("FindClass"), 0u);
}

TEST_F(ResultConversionsTest, CGDefaultObjSizeRangeValueWithNullErrorValueGives40AndStillCopiesTheSizes) {
    TestDouble::ReturnNullErrorValue("GetDefaultObjectSizeRange");
    TestDouble::SetLong("GetDefaultObjectSizeRange", "maxValue", 99);
    LocalRef<jobject> result = Result("GetDefaultObjectSizeRange");
    uint32_t errorId = 0;
    SizeRangeRecord range;
    ConvertCGDefaultObjSizeRangeValue(Env(), result.get(), &errorId, &range);
    EXPECT_EQ(errorId, 40u);
    EXPECT_EQ(range.maximum, 99);
}

TEST_F(ResultConversionsTest, CGDefaultObjSizeRangeValueWithAMissingFieldKeepsThatOutput) {
    TestDouble::SetLong("GetDefaultObjectSizeRange", "minValue", 10);
    TestDouble::SetLong("GetDefaultObjectSizeRange", "defaultValue", 20);
    TestDouble::SetLong("GetDefaultObjectSizeRange", "maxValue", 30);
    LocalRef<jobject> result = Result("GetDefaultObjectSizeRange");
    Interposer().FailGetFieldID("maxValue");
    uint32_t errorId = kUntouched;
    SizeRangeRecord range{-1, -1, -1};
    ConvertCGDefaultObjSizeRangeValue(Env(), result.get(), &errorId, &range);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(range.minimum, 10);
    EXPECT_EQ(range.defaultSize, 20);
    EXPECT_EQ(range.maximum, -1);
}

TEST_F(ResultConversionsTest, CGDefaultObjSizeRangeValueWithoutItsClassWritesNothing) {
    TestDouble::ReturnErrorOrdinal("GetDefaultObjectSizeRange", 5);
    LocalRef<jobject> result = Result("GetDefaultObjectSizeRange");
    Interposer().FailFindClass("com/qv/AzureLibrary/CGDefaultObjSizeRangeValue");
    uint32_t errorId = kUntouched;
    SizeRangeRecord range{1, 2, 3};
    ConvertCGDefaultObjSizeRangeValue(Env(), result.get(), &errorId, &range);
    EXPECT_EQ(errorId, kUntouched);
    EXPECT_EQ(range.minimum, 1);
    EXPECT_EQ(range.defaultSize, 2);
    EXPECT_EQ(range.maximum, 3);
    EXPECT_EQ(Interposer().CountOf("GetFieldID"), 0u);
}

TEST_F(ResultConversionsTest, CGDefaultObjSizeRangeValueNativeExceptionGives40) {
    LocalRef<jobject> result = Result("GetDefaultObjectSizeRange");
    Interposer().ThrowCppExceptionIn("GetLongField");
    uint32_t errorId = kUntouched;
    SizeRangeRecord range{1, 2, 3};
    ConvertCGDefaultObjSizeRangeValue(Env(), result.get(), &errorId, &range);
    EXPECT_EQ(errorId, 40u);
    EXPECT_EQ(range.minimum, 1);
}

// ---- CInt

TEST_F(ResultConversionsTest, CIntReadsTheIntValue) {
    TestDouble::ReturnErrorOrdinal("canBackup", 2);
    TestDouble::SetInt("canBackup", "value", -7);
    LocalRef<jobject> result = Result("canBackup");
    uint32_t errorId = kUntouched;
    int32_t value = 0;
    ConvertCInt(Env(), result.get(), &errorId, &value);
    EXPECT_EQ(errorId, 2u);
    EXPECT_EQ(value, -7);
    EXPECT_EQ(Interposer().CountOf("GetIntField"), 1u);
    EXPECT_EQ(Interposer().CountOf("GetLongField"), 0u);
}

TEST_F(ResultConversionsTest, CIntWithNullErrorValueKeepsErrorIdZeroAndStillReadsTheValue) {
    TestDouble::ReturnNullErrorValue("canBackup");
    TestDouble::SetInt("canBackup", "value", 0x7FFFFFFF);
    LocalRef<jobject> result = Result("canBackup");
    uint32_t errorId = kUntouched;
    int32_t value = 0;
    ConvertCInt(Env(), result.get(), &errorId, &value);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(value, 0x7FFFFFFF);
}

TEST_F(ResultConversionsTest, CIntWithTheValueFieldMissingWritesOnlyThePreset) {
    TestDouble::ReturnErrorOrdinal("canBackup", 5);
    LocalRef<jobject> result = Result("canBackup");
    Interposer().FailGetFieldID("value", "I");
    uint32_t errorId = kUntouched;
    int32_t value = 1234;
    ConvertCInt(Env(), result.get(), &errorId, &value);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(value, 1234);
}

TEST_F(ResultConversionsTest, CIntNullResultGivesErrorIdZeroAndKeepsTheValue) {
    TestDouble::ReturnNull("canBackup");
    LocalRef<jobject> result = Result("canBackup");
    uint32_t errorId = kUntouched;
    int32_t value = 1234;
    ConvertCInt(Env(), result.get(), &errorId, &value);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(value, 1234);
}

// ---- CGetAccountSizeValue

TEST_F(ResultConversionsTest, CGetAccountSizeValueCopiesTheSize) {
    TestDouble::ReturnErrorOrdinal("GetAllObjectsSize", 31);
    TestDouble::SetLong("GetAllObjectsSize", "size", 1LL << 40);
    LocalRef<jobject> result = Result("GetAllObjectsSize");
    uint32_t errorId = kUntouched;
    int64_t size = -1;
    ConvertCGetAccountSizeValue(Env(), result.get(), &errorId, &size);
    EXPECT_EQ(errorId, 31u);
    EXPECT_EQ(size, 1LL << 40);
}

TEST_F(ResultConversionsTest, CGetAccountSizeValueNullResultGivesZeroes) {
    TestDouble::ReturnNull("GetAllObjectsSize");
    LocalRef<jobject> result = Result("GetAllObjectsSize");
    uint32_t errorId = kUntouched;
    int64_t size = -1;
    ConvertCGetAccountSizeValue(Env(), result.get(), &errorId, &size);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(size, 0);
}

TEST_F(ResultConversionsTest, CGetAccountSizeValueNativeExceptionGives40AndKeepsTheSizePreset) {
    TestDouble::SetLong("GetAllObjectsSize", "size", 77);
    LocalRef<jobject> result = Result("GetAllObjectsSize");
    Interposer().ThrowCppExceptionIn("GetLongField");
    uint32_t errorId = kUntouched;
    int64_t size = -1;
    ConvertCGetAccountSizeValue(Env(), result.get(), &errorId, &size);
    EXPECT_EQ(errorId, 40u);
    EXPECT_EQ(size, 0);
}

// ---- QVListRegions and CArrayOfString

TEST_F(ResultConversionsTest, QVListRegionsSkipsNullElementsAndAppendsAfterExistingEntries) {
    TestDouble::ReturnErrorOrdinal("GetRegions", 44);
    TestDouble::SetStringArray("GetRegions", "regionsList",
                               {u"eastus", std::nullopt, u"westeurope", std::nullopt});
    LocalRef<jobject> result = Result("GetRegions");
    uint32_t errorId = kUntouched;
    StringList regions{u"existing"};
    ConvertQVListRegions(Env(), result.get(), &errorId, &regions);
    EXPECT_EQ(errorId, 44u);
    EXPECT_EQ(regions, (StringList{u"existing", u"eastus", u"westeurope"}));
}

TEST_F(ResultConversionsTest, QVListRegionsOfTheDoubleGivesItsRegionsInOrder) {
    LocalRef<jobject> result = Result("GetRegions");
    uint32_t errorId = kUntouched;
    StringList regions;
    ConvertQVListRegions(Env(), result.get(), &errorId, &regions);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(regions, (StringList{u"eastus", u"westeurope"}));
}

TEST_F(ResultConversionsTest, QVListRegionsWithNullArrayAppendsNothingButSetsTheErrorId) {
    TestDouble::ReturnErrorOrdinal("GetRegions", 12);
    TestDouble::SetNullField("GetRegions", "regionsList");
    LocalRef<jobject> result = Result("GetRegions");
    uint32_t errorId = kUntouched;
    StringList regions{u"existing"};
    ConvertQVListRegions(Env(), result.get(), &errorId, &regions);
    EXPECT_EQ(errorId, 12u);
    EXPECT_EQ(regions, StringList{u"existing"});
}

TEST_F(ResultConversionsTest, QVListRegionsWithoutAListStillSetsTheErrorId) {
    TestDouble::ReturnErrorOrdinal("GetRegions", 13);
    LocalRef<jobject> result = Result("GetRegions");
    uint32_t errorId = kUntouched;
    ConvertQVListRegions(Env(), result.get(), &errorId, nullptr);
    EXPECT_EQ(errorId, 13u);
}

TEST_F(ResultConversionsTest, QVListRegionsWithTheArrayFieldMissingWritesOnlyThePreset) {
    TestDouble::ReturnErrorOrdinal("GetRegions", 13);
    LocalRef<jobject> result = Result("GetRegions");
    Interposer().FailGetFieldID("regionsList");
    uint32_t errorId = kUntouched;
    StringList regions;
    ConvertQVListRegions(Env(), result.get(), &errorId, &regions);
    EXPECT_EQ(errorId, 0u);
    EXPECT_TRUE(regions.empty());
}

TEST_F(ResultConversionsTest, QVListRegionsNullResultGivesErrorIdZeroAndKeepsTheList) {
    TestDouble::ReturnNull("GetRegions");
    LocalRef<jobject> result = Result("GetRegions");
    uint32_t errorId = kUntouched;
    StringList regions{u"existing"};
    ConvertQVListRegions(Env(), result.get(), &errorId, &regions);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(regions, StringList{u"existing"});
}

TEST_F(ResultConversionsTest, QVListRegionsElementThatCannotBeHadIsSkipped) {
    TestDouble::SetStringArray("GetRegions", "regionsList", {u"first", u"second", u"third"});
    LocalRef<jobject> result = Result("GetRegions");
    Interposer().FailElementAccess(1);
    uint32_t errorId = kUntouched;
    StringList regions;
    ConvertQVListRegions(Env(), result.get(), &errorId, &regions);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(regions, (StringList{u"second", u"third"}));
}

TEST_F(ResultConversionsTest, CArrayOfStringWithThousandsOfNamesKeepsThemAllInOrder) {
    std::vector<OptText> names;
    StringList expected;
    for (int i = 0; i < 3000; ++i) {
        const std::string text = "server-" + std::to_string(i);
        names.push_back(WideString(text.begin(), text.end()));
        expected.push_back(WideString(text.begin(), text.end()));
    }
    TestDouble::SetStringArray("getServerNameList", "arrayOfString", names);
    LocalRef<jobject> result = Result("getServerNameList");
    uint32_t errorId = kUntouched;
    StringList servers;
    ConvertCArrayOfString(Env(), result.get(), &errorId, &servers);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(servers, expected);
}

TEST_F(ResultConversionsTest, CArrayOfStringSkipsNullElementsAndAppends) {
    TestDouble::ReturnErrorOrdinal("getServerNameList", 1);
    TestDouble::SetStringArray("getServerNameList", "arrayOfString", {std::nullopt, u"server-9"});
    LocalRef<jobject> result = Result("getServerNameList");
    uint32_t errorId = kUntouched;
    StringList servers{u"server-0"};
    ConvertCArrayOfString(Env(), result.get(), &errorId, &servers);
    EXPECT_EQ(errorId, 1u);
    EXPECT_EQ(servers, (StringList{u"server-0", u"server-9"}));
}

TEST_F(ResultConversionsTest, CArrayOfStringWithTheErrorValueFieldMissingWritesOnlyThePreset) {
    LocalRef<jobject> result = Result("getServerNameList");
    Interposer().FailGetFieldID("errorValue");
    uint32_t errorId = kUntouched;
    StringList servers;
    ConvertCArrayOfString(Env(), result.get(), &errorId, &servers);
    EXPECT_EQ(errorId, 0u);
    EXPECT_TRUE(servers.empty());
}

TEST_F(ResultConversionsTest, CArrayOfStringWithNullErrorValueGives40AndStillAppends) {
    TestDouble::ReturnNullErrorValue("getServerNameList");
    LocalRef<jobject> result = Result("getServerNameList");
    uint32_t errorId = kUntouched;
    StringList servers;
    ConvertCArrayOfString(Env(), result.get(), &errorId, &servers);
    EXPECT_EQ(errorId, 40u);
    EXPECT_EQ(servers, (StringList{u"server-1", u"server-2"}));
}

// ---- QVListContainers

TEST_F(ResultConversionsTest, QVListContainersSkipsNullContainersAndNullNamesAndAppends) {
    TestDouble::ReturnErrorOrdinal("GetListContainers", 8);
    TestDouble::SetContainers("GetListContainers", {u"c1", std::nullopt, u"c3", u"c4", u"c5"}, {3});
    LocalRef<jobject> result = Result("GetListContainers");
    uint32_t errorId = kUntouched;
    StringList containers{u"existing"};
    ConvertQVListContainers(Env(), result.get(), &errorId, &containers);
    EXPECT_EQ(errorId, 8u);
    EXPECT_EQ(containers, (StringList{u"existing", u"c1", u"c3", u"c5"}));
}

TEST_F(ResultConversionsTest, QVListContainersOfTheArchiveSetGivesItsContainer) {
    LocalRef<jobject> result = Result("GetArchiveSet");
    uint32_t errorId = kUntouched;
    StringList containers;
    ConvertQVListContainers(Env(), result.get(), &errorId, &containers);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(containers, StringList{u"qv-archive"});
}

TEST_F(ResultConversionsTest, QVListContainersWithNullErrorValueEndsAtOnceWithErrorIdZero) {
    TestDouble::ReturnNullErrorValue("GetListContainers");
    TestDouble::SetContainers("GetListContainers", {u"c1"});
    LocalRef<jobject> result = Result("GetListContainers");
    uint32_t errorId = kUntouched;
    StringList containers;
    ConvertQVListContainers(Env(), result.get(), &errorId, &containers);
    EXPECT_EQ(errorId, 0u);
    EXPECT_TRUE(containers.empty());
}

TEST_F(ResultConversionsTest, QVListContainersWithoutTheErrorValueFieldStillReadsTheNames) {
    TestDouble::ReturnErrorOrdinal("GetListContainers", 8);
    TestDouble::SetContainers("GetListContainers", {u"c1", u"c2"});
    LocalRef<jobject> result = Result("GetListContainers");
    Interposer().FailGetFieldID("errorValue");
    uint32_t errorId = kUntouched;
    StringList containers;
    ConvertQVListContainers(Env(), result.get(), &errorId, &containers);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(containers, (StringList{u"c1", u"c2"}));
}

TEST_F(ResultConversionsTest, QVListContainersWithNullArrayKeepsTheListAndSetsTheErrorId) {
    TestDouble::ReturnErrorOrdinal("GetListContainers", 36);
    TestDouble::SetNullField("GetListContainers", "containers");
    LocalRef<jobject> result = Result("GetListContainers");
    uint32_t errorId = kUntouched;
    StringList containers{u"existing"};
    ConvertQVListContainers(Env(), result.get(), &errorId, &containers);
    EXPECT_EQ(errorId, 36u);
    EXPECT_EQ(containers, StringList{u"existing"});
}

TEST_F(ResultConversionsTest, QVListContainersWithoutTheContainerNameFieldAppendsNothing) {
    TestDouble::SetContainers("GetListContainers", {u"c1", u"c2"});
    LocalRef<jobject> result = Result("GetListContainers");
    Interposer().FailGetFieldID("containerName");
    uint32_t errorId = kUntouched;
    StringList containers;
    ConvertQVListContainers(Env(), result.get(), &errorId, &containers);
    EXPECT_EQ(errorId, 0u);
    EXPECT_TRUE(containers.empty());
}

// ---- the conversions of one text: CUniqueAccountValue, CCreateFnValue, CGetObjectMetaData,
// CWObjectHandleFnValue, CString

namespace {

using TextConversion = void (*)(JNIEnv*, jobject, uint32_t*, WideString*);

// What happens to the result on its way to the conversion.
enum class Fault {
    None,
    NullResult,         // the method returns null
    FieldMissing,       // GetFieldID fails for `faultAt`
    NativeExceptionIn,  // the JNI function `faultAt` throws a C++ exception
};

struct TextConversionCase {
    const char* name;
    TextConversion convert;
    const char* method;  // the double's method whose result is converted
    std::optional<int> errorOrdinal;
    const char* field;  // the text field set on the result (null: none)
    OptText value;      // what it is set to (nullopt: a Java null)
    Fault fault;
    const char* faultAt;
    WideString before;  // the output's text before the conversion
    uint32_t errorId;   // the error id after it
    WideString after;   // the output's text after it
};

// Names the case in test output (instead of its bytes).
void PrintTo(const TextConversionCase& c, std::ostream* out) { *out << c.name; }

const TextConversionCase kTextConversionCases[] = {
    {"CUniqueAccountValueCopiesTheAccountNameAndTheErrorId", ConvertCUniqueAccountValue, "GetUniqueAccountName", 3,
     "accountName", u"account \u00e9\u4e2d", Fault::None, nullptr, u"old", 3, u"account \u00e9\u4e2d"},
    {"CUniqueAccountValueNullResultGivesErrorIdZeroAndAnEmptyName", ConvertCUniqueAccountValue, "GetOwnerName",
     std::nullopt, nullptr, std::nullopt, Fault::NullResult, nullptr, u"old", 0, u""},
    {"CUniqueAccountValueWithNullNameLeavesTheNameEmpty", ConvertCUniqueAccountValue, "GetContainerName",
     std::nullopt, "accountName", std::nullopt, Fault::None, nullptr, u"old", 0, u""},
    {"JavaStringWithEmbeddedNulIsCutAtTheNul", ConvertCUniqueAccountValue, "GetUniqueAccountName", std::nullopt,
     "accountName", std::u16string(u"ab\0cd", 5), Fault::None, nullptr, u"", 0, u"ab"},
    {"CUniqueAccountValueNativeExceptionAfterTheErrorIdGives40", ConvertCUniqueAccountValue, "GetUniqueAccountName",
     9, nullptr, std::nullopt, Fault::NativeExceptionIn, "GetStringChars", u"old", 40, u""},
    {"CCreateFnValueCopiesTheHandle", ConvertCCreateFnValue, "CreateObject", std::nullopt, "objHandle",
     u"handle:folder/object", Fault::None, nullptr, u"", 0, u"handle:folder/object"},
    {"CCreateFnValueWithNullHandleLeavesHandleEmpty", ConvertCCreateFnValue, "OpenObject", 12, "objHandle",
     std::nullopt, Fault::None, nullptr, u"previous handle", 12, u""},
    {"CCreateFnValueNullResultGivesErrorIdZeroAndAnEmptyHandle", ConvertCCreateFnValue, "GetBucketRegion",
     std::nullopt, nullptr, std::nullopt, Fault::NullResult, nullptr, u"previous handle", 0, u""},
    {"CGetObjectMetaDataCopiesThePropertyValue", ConvertCGetObjectMetaData, "GetObjectMetaData", 17, "value",
     u"property value", Fault::None, nullptr, u"old", 17, u"property value"},
    {"CGetObjectMetaDataNullResultGivesErrorIdZeroAndAnEmptyValue", ConvertCGetObjectMetaData, "GetObjectMetaData",
     std::nullopt, nullptr, std::nullopt, Fault::NullResult, nullptr, u"old", 0, u""},
    {"CWObjectHandleFnValueCopiesTheHandle", ConvertCWObjectHandleFnValue, "WriteCachedObject", 15, "objHandle",
     u"handle:cached", Fault::None, nullptr, u"", 15, u"handle:cached"},
    {"CWObjectHandleFnValueWithTheHandleFieldMissingLeavesTheHandleEmpty", ConvertCWObjectHandleFnValue,
     "WriteObject", std::nullopt, "objHandle", u"handle:x", Fault::FieldMissing, "objHandle", u"old", 0, u""},
    {"CStringCopiesTheValue", ConvertCString, "getStorageKey", 39, "value", u"key-7", Fault::None, nullptr, u"", 39,
     u"key-7"},
    {"CStringWithNullValueKeepsTheCallersText", ConvertCString, "updateStorageKey", std::nullopt, "value",
     std::nullopt, Fault::None, nullptr, u"caller's", 0, u"caller's"},
    {"CStringNullResultGivesErrorIdZeroAndKeepsTheText", ConvertCString, "updateStorageKey", std::nullopt, nullptr,
     std::nullopt, Fault::NullResult, nullptr, u"caller's", 0, u"caller's"},
    {"CStringWithTheErrorValueFieldMissingReadsNothing", ConvertCString, "getStorageKey", std::nullopt, "value",
     u"key-7", Fault::FieldMissing, "errorValue", u"caller's", 0, u"caller's"},
};

class TextConversionTest : public ResultConversionsTest, public ::testing::WithParamInterface<TextConversionCase> {};

}  // namespace

TEST_P(TextConversionTest, ConvertsAsTheCaseSays) {
    const TextConversionCase& c = GetParam();
    if (c.errorOrdinal) TestDouble::ReturnErrorOrdinal(c.method, *c.errorOrdinal);
    if (c.field != nullptr) TestDouble::SetString(c.method, c.field, c.value);
    if (c.fault == Fault::NullResult) TestDouble::ReturnNull(c.method);
    LocalRef<jobject> result = Result(c.method);
    if (c.fault == Fault::FieldMissing) Interposer().FailGetFieldID(c.faultAt);
    if (c.fault == Fault::NativeExceptionIn) Interposer().ThrowCppExceptionIn(c.faultAt);
    uint32_t errorId = kUntouched;
    WideString text = c.before;
    c.convert(Env(), result.get(), &errorId, &text);
    EXPECT_EQ(errorId, c.errorId);
    EXPECT_EQ(text, c.after);
}

INSTANTIATE_TEST_SUITE_P(OneText, TextConversionTest, ::testing::ValuesIn(kTextConversionCases),
                         [](const ::testing::TestParamInfo<TextConversionCase>& info) { return info.param.name; });

// ---- a result of the wrong class

TEST_F(ResultConversionsTest, ResultOfAnotherClassReadsAsAbsent) {
    // A CString where a CCreateFnValue is expected: its fields are not read from it.
    TestDouble::ReturnErrorOrdinal("updateStorageKey", 5);
    LocalRef<jobject> result = Result("updateStorageKey");
    uint32_t errorId = kUntouched;
    WideString handle = u"old";
    ConvertCCreateFnValue(Env(), result.get(), &errorId, &handle);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(handle, u"");
    EXPECT_EQ(Interposer().CountOf("GetFieldID"), 0u);
}

// ---- CIsObjectExistFnValue

TEST_F(ResultConversionsTest, CIsObjectExistFnValueGivesOneForTrueAndZeroForFalse) {
    for (bool exists : {true, false}) {
        TestDouble::ReturnErrorOrdinal("IsObjectExist", 3);
        TestDouble::SetBoolean("IsObjectExist", "isExist", exists);
        LocalRef<jobject> result = Result("IsObjectExist");
        uint32_t errorId = kUntouched;
        uint32_t flag = kUntouched;
        ConvertCIsObjectExistFnValue(Env(), result.get(), &errorId, &flag);
        EXPECT_EQ(errorId, 3u);
        EXPECT_EQ(flag, exists ? 1u : 0u);
    }
}

TEST_F(ResultConversionsTest, CIsObjectExistFnValueReadsTheAmazonLibrarySubclass) {
    // IsContainerExists answers com.qv.AmazonLibrary.CIsObjectExistFnValue, a subclass.
    TestDouble::SetBoolean("IsContainerExists", "isExist", true);
    LocalRef<jobject> result = Result("IsContainerExists");
    uint32_t errorId = kUntouched;
    uint32_t flag = kUntouched;
    ConvertCIsObjectExistFnValue(Env(), result.get(), &errorId, &flag);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(flag, 1u);
}

TEST_F(ResultConversionsTest, CIsObjectExistFnValueNullResultGivesErrorIdZeroAndKeepsTheFlag) {
    TestDouble::ReturnNull("IsSameAccount");
    LocalRef<jobject> result = Result("IsSameAccount");
    uint32_t errorId = kUntouched;
    uint32_t flag = kUntouched;
    ConvertCIsObjectExistFnValue(Env(), result.get(), &errorId, &flag);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(flag, kUntouched);
}

// ---- CGObjectMetaDataFnValue

TEST_F(ResultConversionsTest, CGObjectMetaDataFnValueLeavesMetadataUntouched) {
    TestDouble::ReturnErrorOrdinal("GetObjectMetaData", 9);
    TestDouble::SetMetaData("GetObjectMetaData", "values", {{u"name", u"value"}});
    LocalRef<jobject> result = Result("GetObjectMetaData", kGetObjectMetaDataByHandle);
    uint32_t errorId = kUntouched;
    ObjectMetaData metaData{{u"existing", MetaDataValue{u"kept", 4}}};
    ConvertCGObjectMetaDataFnValue(Env(), result.get(), &errorId, &metaData);
    EXPECT_EQ(errorId, 9u);
    ASSERT_EQ(metaData.size(), 1u);
    EXPECT_EQ(metaData.begin()->first, u"existing");
    EXPECT_EQ(metaData.begin()->second.szProperty, u"kept");
    EXPECT_EQ(metaData.begin()->second.prpType, 4u);
    EXPECT_EQ(Interposer().CountOf("GetFieldID", "values ()[Lcom/qv/AzureLibrary/CGObjectMetaDataFnValue;"),
              1u);
}

TEST_F(ResultConversionsTest, CGObjectMetaDataFnValueNullResultLeavesTheErrorIdAsTheCallerSetIt) {
    TestDouble::ReturnNull("GetObjectMetaData");
    LocalRef<jobject> result = Result("GetObjectMetaData", kGetObjectMetaDataByHandle);
    uint32_t errorId = kUntouched;
    ObjectMetaData metaData;
    ConvertCGObjectMetaDataFnValue(Env(), result.get(), &errorId, &metaData);
    EXPECT_EQ(errorId, kUntouched);
    EXPECT_TRUE(metaData.empty());
}

// ---- CRObjectByNameFnValue

TEST_F(ResultConversionsTest, CRObjectByNameFnValueCopiesBytesReadAndAddsTheMetadata) {
    TestDouble::ReturnErrorOrdinal("ReadObjectByName", 14);
    TestDouble::SetLong("ReadObjectByName", "bytesRead", 1234);
    TestDouble::SetMetaData("ReadObjectByName", "values", {{u"b", u"2"}, {u"a", u"1"}});
    LocalRef<jobject> result = Result("ReadObjectByName");
    uint32_t errorId = kUntouched;
    uint64_t bytesRead = 0;
    ObjectMetaData metaData{{u"z", MetaDataValue{u"host", 0}}};
    ConvertCRObjectByNameFnValue(Env(), result.get(), &errorId, &bytesRead, &metaData);
    EXPECT_EQ(errorId, 14u);
    EXPECT_EQ(bytesRead, 1234u);
    ASSERT_EQ(metaData.size(), 3u);
    EXPECT_EQ(metaData[u"a"].szProperty, u"1");
    EXPECT_EQ(metaData[u"b"].szProperty, u"2");
    EXPECT_EQ(metaData[u"z"].szProperty, u"host");
}

TEST_F(ResultConversionsTest, CRObjectByNameFnValueWithNullValuesStillStoresBytesRead) {
    TestDouble::SetLong("ReadObjectByHandle", "bytesRead", -1);
    TestDouble::SetNullField("ReadObjectByHandle", "values");
    LocalRef<jobject> result = Result("ReadObjectByHandle");
    uint32_t errorId = kUntouched;
    uint64_t bytesRead = 0;
    ObjectMetaData metaData{{u"z", MetaDataValue{u"host", 0}}};
    ConvertCRObjectByNameFnValue(Env(), result.get(), &errorId, &bytesRead, &metaData);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(bytesRead, UINT64_MAX);  // the same 64 bits as Java's -1
    EXPECT_EQ(metaData.size(), 1u);
}

TEST_F(ResultConversionsTest, CRObjectByNameFnValueNullResultLeavesEveryOutput) {
    TestDouble::ReturnNull("ReadObjectByName");
    LocalRef<jobject> result = Result("ReadObjectByName");
    uint32_t errorId = kUntouched;
    uint64_t bytesRead = 55;
    ObjectMetaData metaData;
    ConvertCRObjectByNameFnValue(Env(), result.get(), &errorId, &bytesRead, &metaData);
    EXPECT_EQ(errorId, kUntouched);
    EXPECT_EQ(bytesRead, 55u);
    EXPECT_TRUE(metaData.empty());
}

TEST_F(ResultConversionsTest, CRObjectByNameFnValueNativeExceptionInTheMetadataGives40AfterBytesRead) {
    TestDouble::SetLong("ReadObjectByName", "bytesRead", 10);
    TestDouble::SetMetaData("ReadObjectByName", "values", {{u"a", u"1"}});
    LocalRef<jobject> result = Result("ReadObjectByName");
    Interposer().ThrowCppExceptionIn("GetObjectArrayElement");
    uint32_t errorId = kUntouched;
    uint64_t bytesRead = 0;
    ObjectMetaData metaData;
    ConvertCRObjectByNameFnValue(Env(), result.get(), &errorId, &bytesRead, &metaData);
    EXPECT_EQ(errorId, 40u);
    EXPECT_EQ(bytesRead, 10u);
    EXPECT_TRUE(metaData.empty());
}

// ---- CReadObjectFnValue

TEST_F(ResultConversionsTest, CReadObjectFnValueCopiesTheSizeRead) {
    TestDouble::ReturnErrorOrdinal("ReadObject", 21);
    TestDouble::SetLong("ReadObject", "sizeRead", 4096);
    LocalRef<jobject> result = Result("ReadObject");
    uint32_t errorId = kUntouched;
    uint64_t sizeRead = 0;
    ConvertCReadObjectFnValue(Env(), result.get(), &errorId, &sizeRead);
    EXPECT_EQ(errorId, 21u);
    EXPECT_EQ(sizeRead, 4096u);
}

TEST_F(ResultConversionsTest, CReadObjectFnValueNullResultLeavesBothOutputs) {
    TestDouble::ReturnNull("ReadObject");
    LocalRef<jobject> result = Result("ReadObject");
    uint32_t errorId = kUntouched;
    uint64_t sizeRead = 77;
    ConvertCReadObjectFnValue(Env(), result.get(), &errorId, &sizeRead);
    EXPECT_EQ(errorId, kUntouched);
    EXPECT_EQ(sizeRead, 77u);
}

// ---- CRetGetSubMetaDataList

TEST_F(ResultConversionsTest, CRetGetSubMetaDataListBuildsTheSubListWithEachFilesMetadata) {
    TestDouble::ReturnErrorOrdinal("GetObjectSubList", 16);
    TestDouble::SetSubList("GetObjectSubList", {SubListEntry{u"f2", {{u"size", u"20"}}},
                                                SubListEntry{u"f1", {{u"size", u"10"}, {u"kind", u"file"}}}});
    LocalRef<jobject> result = Result("GetObjectSubList");
    uint32_t errorId = kUntouched;
    SubListOwner owner;
    ConvertCRetGetSubMetaDataList(Env(), result.get(), &errorId, &owner.list);
    EXPECT_EQ(errorId, 16u);
    ASSERT_NE(owner.list, nullptr);
    ASSERT_EQ(owner.list->size(), 2u);
    const ObjectMetaData* first = owner.list->at(u"f1");
    const ObjectMetaData* second = owner.list->at(u"f2");
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(first->size(), 2u);
    EXPECT_EQ(first->at(u"kind").szProperty, u"file");
    EXPECT_EQ(first->at(u"size").szProperty, u"10");
    EXPECT_EQ(second->at(u"size").szProperty, u"20");
}

TEST_F(ResultConversionsTest, CRetGetSubMetaDataListWithNullMetaDatStillYieldsEmptySubList) {
    TestDouble::ReturnErrorOrdinal("GetObjectSubList", 3);
    TestDouble::SetNullField("GetObjectSubList", "metaDat");
    LocalRef<jobject> result = Result("GetObjectSubList");
    uint32_t errorId = kUntouched;
    SubListOwner owner;
    ConvertCRetGetSubMetaDataList(Env(), result.get(), &errorId, &owner.list);
    EXPECT_EQ(errorId, 3u);
    ASSERT_NE(owner.list, nullptr);
    EXPECT_TRUE(owner.list->empty());
}

TEST_F(ResultConversionsTest, CRetGetSubMetaDataListWithNullErrorValueLeavesTheErrorIdAsTheCallerSetIt) {
    TestDouble::ReturnNullErrorValue("GetObjectSubList");
    TestDouble::SetSubList("GetObjectSubList", {SubListEntry{u"f1", {{u"a", u"b"}}}});
    LocalRef<jobject> result = Result("GetObjectSubList");
    uint32_t errorId = kUntouched;
    SubListOwner owner;
    ConvertCRetGetSubMetaDataList(Env(), result.get(), &errorId, &owner.list);
    EXPECT_EQ(errorId, kUntouched);
    ASSERT_NE(owner.list, nullptr);
    EXPECT_EQ(owner.list->size(), 1u);
}

TEST_F(ResultConversionsTest, CRetGetSubMetaDataListNullResultMakesNoSubList) {
    TestDouble::ReturnNull("GetObjectSubList");
    LocalRef<jobject> result = Result("GetObjectSubList");
    uint32_t errorId = kUntouched;
    SubListOwner owner;
    ConvertCRetGetSubMetaDataList(Env(), result.get(), &errorId, &owner.list);
    EXPECT_EQ(errorId, kUntouched);
    EXPECT_EQ(owner.list, nullptr);
}

TEST_F(ResultConversionsTest, CRetGetSubMetaDataListNativeExceptionGives40AndHandsOverTheListMadeSoFar) {
    TestDouble::SetSubList("GetObjectSubList", {SubListEntry{u"f1", {{u"a", u"b"}}}});
    LocalRef<jobject> result = Result("GetObjectSubList");
    Interposer().ThrowCppExceptionIn("GetArrayLength");
    uint32_t errorId = kUntouched;
    SubListOwner owner;
    ConvertCRetGetSubMetaDataList(Env(), result.get(), &errorId, &owner.list);
    EXPECT_EQ(errorId, 40u);
    ASSERT_NE(owner.list, nullptr);
    EXPECT_TRUE(owner.list->empty());
}

// ---- CGetAccountInfoFnValue

TEST_F(ResultConversionsTest, CGetAccountInfoFnValueCopiesEveryFieldAndLeavesTheReservedWord) {
    TestDouble::ReturnErrorOrdinal("GetAccountInfo", 37);
    TestDouble::SetString("GetAccountInfo", "accountIndentity", u"identity");
    TestDouble::SetString("GetAccountInfo", "accountType", u"type");
    TestDouble::SetString("GetAccountInfo", "displayName", u"display");
    TestDouble::SetString("GetAccountInfo", "emailAddress", u"mail@example.com");
    TestDouble::SetLong("GetAccountInfo", "usedSizeInByteTotal", 100);
    TestDouble::SetLong("GetAccountInfo", "remainedSizeInByteTotal", -200);
    LocalRef<jobject> result = Result("GetAccountInfo");
    uint32_t errorId = kUntouched;
    AccountInfoRecord info;
    info.reserved = 0xABCDEFu;
    ConvertCGetAccountInfoFnValue(Env(), result.get(), &errorId, &info);
    EXPECT_EQ(errorId, 37u);
    EXPECT_EQ(info.reserved, 0xABCDEFu);
    EXPECT_EQ(info.accountIndentity, u"identity");
    EXPECT_EQ(info.accountType, u"type");
    EXPECT_EQ(info.displayName, u"display");
    EXPECT_EQ(info.emailAddress, u"mail@example.com");
    EXPECT_EQ(info.usedSizeInByteTotal, 100);
    EXPECT_EQ(info.remainedSizeInByteTotal, -200);
}

TEST_F(ResultConversionsTest, CGetAccountInfoFnValueNullTextKeepsTheCallersText) {
    TestDouble::SetString("GetAccountInfo", "displayName", std::nullopt);
    LocalRef<jobject> result = Result("GetAccountInfo");
    uint32_t errorId = kUntouched;
    AccountInfoRecord info;
    info.displayName = u"caller's";
    ConvertCGetAccountInfoFnValue(Env(), result.get(), &errorId, &info);
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(info.displayName, u"caller's");
    EXPECT_EQ(info.accountIndentity, u"qvstorageaccount");
}

TEST_F(ResultConversionsTest, CGetAccountInfoFnValueNativeExceptionKeepsWhatWasWrittenBeforeIt) {
    TestDouble::SetString("GetAccountInfo", "emailAddress", u"mail@example.com");
    LocalRef<jobject> result = Result("GetAccountInfo");
    Interposer().ThrowCppExceptionIn("GetLongField");
    uint32_t errorId = kUntouched;
    AccountInfoRecord info;
    info.usedSizeInByteTotal = -1;
    ConvertCGetAccountInfoFnValue(Env(), result.get(), &errorId, &info);
    EXPECT_EQ(errorId, 40u);
    EXPECT_EQ(info.emailAddress, u"mail@example.com");
    EXPECT_EQ(info.usedSizeInByteTotal, -1);
}

TEST_F(ResultConversionsTest, CGetAccountInfoFnValueNullResultWritesNothing) {
    TestDouble::ReturnNull("GetAccountInfo");
    LocalRef<jobject> result = Result("GetAccountInfo");
    uint32_t errorId = kUntouched;
    AccountInfoRecord info;
    info.accountType = u"caller's";
    ConvertCGetAccountInfoFnValue(Env(), result.get(), &errorId, &info);
    EXPECT_EQ(errorId, kUntouched);
    EXPECT_EQ(info.accountType, u"caller's");
}

// ---- every conversion

TEST_F(ResultConversionsTest, ErrorIdStaysInTheJavaLibrarysNumbering) {
    // Ordinal 22 maps to the host code 23; the conversion hands over 22.
    TestDouble::ReturnErrorOrdinal("CreateObject", 22);
    LocalRef<jobject> result = Result("CreateObject");
    uint32_t errorId = kUntouched;
    WideString handle;
    ConvertCCreateFnValue(Env(), result.get(), &errorId, &handle);
    EXPECT_EQ(errorId, 22u);
}

TEST_F(ResultConversionsTest, NullOutputPointersAreNeverWrittenThrough) {
    struct Case {
        const char* method;
        void (*convert)(JNIEnv*, jobject);
    };
    const Case cases[] = {
        {"GetDefaultObjectSizeRange",
         [](JNIEnv* env, jobject r) { ConvertCGDefaultObjSizeRangeValue(env, r, nullptr, nullptr); }},
        {"GetOwnerName",
         [](JNIEnv* env, jobject r) { ConvertCUniqueAccountValue(env, r, nullptr, nullptr); }},
        {"canBackup", [](JNIEnv* env, jobject r) { ConvertCInt(env, r, nullptr, nullptr); }},
        {"GetAllObjectsSize",
         [](JNIEnv* env, jobject r) { ConvertCGetAccountSizeValue(env, r, nullptr, nullptr); }},
        {"GetRegions", [](JNIEnv* env, jobject r) { ConvertQVListRegions(env, r, nullptr, nullptr); }},
        {"GetListContainers",
         [](JNIEnv* env, jobject r) { ConvertQVListContainers(env, r, nullptr, nullptr); }},
        {"CreateObject", [](JNIEnv* env, jobject r) { ConvertCCreateFnValue(env, r, nullptr, nullptr); }},
        {"GetObjectMetaData",
         [](JNIEnv* env, jobject r) { ConvertCGetObjectMetaData(env, r, nullptr, nullptr); }},
        {"WriteObject",
         [](JNIEnv* env, jobject r) { ConvertCWObjectHandleFnValue(env, r, nullptr, nullptr); }},
        {"IsObjectExist",
         [](JNIEnv* env, jobject r) { ConvertCIsObjectExistFnValue(env, r, nullptr, nullptr); }},
        {"ReadObjectByName",
         [](JNIEnv* env, jobject r) { ConvertCRObjectByNameFnValue(env, r, nullptr, nullptr, nullptr); }},
        {"ReadObject", [](JNIEnv* env, jobject r) { ConvertCReadObjectFnValue(env, r, nullptr, nullptr); }},
        {"GetObjectSubList",
         [](JNIEnv* env, jobject r) { ConvertCRetGetSubMetaDataList(env, r, nullptr, nullptr); }},
        {"GetAccountInfo",
         [](JNIEnv* env, jobject r) { ConvertCGetAccountInfoFnValue(env, r, nullptr, nullptr); }},
        {"getServerNameList",
         [](JNIEnv* env, jobject r) { ConvertCArrayOfString(env, r, nullptr, nullptr); }},
        {"getStorageKey", [](JNIEnv* env, jobject r) { ConvertCString(env, r, nullptr, nullptr); }},
    };
    for (const Case& c : cases) {
        TestDouble::SetMetaData("ReadObjectByName", "values", {{u"a", u"1"}});
        TestDouble::SetSubList("GetObjectSubList", {SubListEntry{u"f", {{u"a", u"1"}}}});
        // Made on the JVM's own environment, so that only the conversion's references are counted.
        JNIEnv* real = jnitest::TestEnv();
        LocalRef<jobject> result(real, TestDouble::NextResult(real, c.method));
        ASSERT_TRUE(result) << c.method;
        Interposer().Reset();
        c.convert(Env(), result.get());
        // The conversion ran (it asked for its class) and made no mess of the JVM.
        EXPECT_GE(Interposer().CountOf("FindClass"), 1u) << c.method;
        EXPECT_EQ(Interposer().LocalRefsLeft(), 0) << c.method;
        EXPECT_TRUE(Interposer().StrictViolations().empty()) << c.method;
        EXPECT_FALSE(Env()->ExceptionCheck()) << c.method;
        TestDouble::Reset();
    }
}

TEST_F(ResultConversionsTest, ConversionsLeaveNoJavaExceptionPendingAfterAFailedLookup) {
    TestDouble::SetString("GetOwnerName", "accountName", u"owner");
    LocalRef<jobject> result = Result("GetOwnerName");
    Interposer().FailGetFieldID("accountName");
    uint32_t errorId = kUntouched;
    WideString name = u"old";
    ConvertCUniqueAccountValue(Env(), result.get(), &errorId, &name);
    EXPECT_FALSE(Env()->ExceptionCheck());
    EXPECT_EQ(errorId, 0u);
    EXPECT_EQ(name, u"");
    EXPECT_TRUE(Interposer().StrictViolations().empty());
}
