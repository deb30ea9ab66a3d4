// Object metadata and object sub-lists between native records and the Java
// CPluginMetaData / CObjectSubListElement arrays, on the real JVM through the
// interposer.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "bridge/BridgeLog.h"
#include "bridge/LocalRef.h"
#include "marshal/MetaData.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;
using jnitest::MetaEntry;
using jnitest::OptText;
using jnitest::SubListEntry;
using jnitest::SubListOwner;
using jnitest::TestDouble;

namespace {

constexpr const char* kPropertyTypeClass = "com/qv/AzureLibrary/CPropertyTYPE";
constexpr const char* kPropertyTypeSignature = "Lcom/qv/AzureLibrary/CPropertyTYPE;";
constexpr const char* kPluginValueSignature = "Lcom/qv/AzureLibrary/CPluginValue;";

// One element of a Java CPluginMetaData[] as the test reads it back.
struct JavaEntry {
    OptText name;
    OptText value;
    std::string type;  // the name of val.prpType's constant, "null" for none
    bool operator==(const JavaEntry& other) const {
        return name == other.name && value == other.value && type == other.type;
    }
};

std::ostream& operator<<(std::ostream& out, const JavaEntry& e) {
    auto text = [](const OptText& t) { return t ? std::string(t->begin(), t->end()) : std::string("null"); };
    return out << "{" << text(e.name) << "=" << text(e.value) << " " << e.type << "}";
}

// Everything the tests set up or read back goes through the JVM's own
// environment, so the interposer counts only what the code under test does.
class MetaDataTest : public BridgeFixture {
protected:
    void SetUp() override {
        BridgeFixture::SetUp();
        // Missing constructors are described on standard output; the tests do not need to see it.
        SetStdoutTraceSink([this](const std::string& text) { m_traces.push_back(text); });
    }
    void TearDown() override {
        SetStdoutTraceSink(nullptr);
        BridgeFixture::TearDown();
    }

    static JNIEnv* Real() { return jnitest::TestEnv(); }

    // A field of `object` (by its class), read on the JVM's own environment.
    static LocalRef<jobject> ObjectField(jobject object, const char* name, const char* signature) {
        JNIEnv* real = Real();
        LocalRef<jclass> cls(real, real->GetObjectClass(object));
        const jfieldID id = real->GetFieldID(cls.get(), name, signature);
        if (!id) {
            real->ExceptionClear();
            ADD_FAILURE() << "no field " << name;
            return LocalRef<jobject>(real, nullptr);
        }
        return LocalRef<jobject>(real, real->GetObjectField(object, id));
    }

    static OptText Text(jobject text) {
        if (!text) return std::nullopt;
        JNIEnv* real = Real();
        const auto s = static_cast<jstring>(text);
        const jsize length = real->GetStringLength(s);
        std::u16string out(static_cast<size_t>(length), u'\0');
        real->GetStringRegion(s, 0, length, reinterpret_cast<jchar*>(&out[0]));
        return out;
    }

    static LocalRef<jobject> JavaText(const std::u16string& text) {
        JNIEnv* real = Real();
        return LocalRef<jobject>(real, real->NewString(reinterpret_cast<const jchar*>(text.data()),
                                                       static_cast<jsize>(text.size())));
    }

    static LocalRef<jobject> PropertyType(const char* constant) {
        JNIEnv* real = Real();
        LocalRef<jclass> cls(real, real->FindClass(kPropertyTypeClass));
        const jfieldID id = real->GetStaticFieldID(cls.get(), constant, kPropertyTypeSignature);
        return LocalRef<jobject>(real, real->GetStaticObjectField(cls.get(), id));
    }

    static std::string TypeName(jobject type) {
        if (!type) return "null";
        for (const char* constant : {"STRING", "INTEGER", "LONG", "BOOLEAN", "DATE_TIME"}) {
            if (Real()->IsSameObject(type, PropertyType(constant).get())) return constant;
        }
        return "?";
    }

    // A new Java CPluginValue(text, type).
    static LocalRef<jobject> JavaValue(const OptText& text, const char* typeConstant) {
        JNIEnv* real = Real();
        LocalRef<jclass> cls(real, real->FindClass("com/qv/AzureLibrary/CPluginValue"));
        const jmethodID constructor = real->GetMethodID(
            cls.get(), "<init>", "(Ljava/lang/String;Lcom/qv/AzureLibrary/CPropertyTYPE;)V");
        LocalRef<jobject> javaText = text ? JavaText(*text) : LocalRef<jobject>(real, nullptr);
        LocalRef<jobject> type = typeConstant ? PropertyType(typeConstant) : LocalRef<jobject>(real, nullptr);
        return LocalRef<jobject>(real, real->NewObject(cls.get(), constructor, javaText.get(), type.get()));
    }

    // The elements of a Java CPluginMetaData[].
    static std::vector<JavaEntry> ReadBack(jobject array) {
        std::vector<JavaEntry> out;
        JNIEnv* real = Real();
        const auto elements = static_cast<jobjectArray>(array);
        const jsize length = real->GetArrayLength(elements);
        for (jsize i = 0; i < length; ++i) {
            LocalRef<jobject> element(real, real->GetObjectArrayElement(elements, i));
            LocalRef<jobject> name = ObjectField(element.get(), "szPropertyName", kJavaStringSignature);
            LocalRef<jobject> val = ObjectField(element.get(), "val", kPluginValueSignature);
            JavaEntry entry{Text(name.get()), std::nullopt, "null"};
            if (val) {
                entry.value = Text(ObjectField(val.get(), "szProperty", kJavaStringSignature).get());
                entry.type = TypeName(ObjectField(val.get(), "prpType", kPropertyTypeSignature).get());
            }
            out.push_back(entry);
        }
        return out;
    }

    // A CPluginMetaData[] of these entries, made by the Java test double.
    static LocalRef<jobject> ScriptedMetaData(const std::vector<MetaEntry>& entries) {
        TestDouble::SetMetaData("ReadObjectByName", "values", entries);
        LocalRef<jobject> result(Real(), TestDouble::NextResult(Real(), "ReadObjectByName"));
        return ObjectField(result.get(), "values", "[Lcom/qv/AzureLibrary/CPluginMetaData;");
    }

    // A CObjectSubListElement[] of these entries, made by the Java test double.
    static LocalRef<jobject> ScriptedSubList(const std::vector<SubListEntry>& entries) {
        TestDouble::SetSubList("GetObjectSubList", entries);
        LocalRef<jobject> result(Real(), TestDouble::NextResult(Real(), "GetObjectSubList"));
        return ObjectField(result.get(), "metaDat", "[Lcom/qv/AzureLibrary/CObjectSubListElement;");
    }

    static jobjectArray AsArray(const LocalRef<jobject>& ref) { return static_cast<jobjectArray>(ref.get()); }
    static jobjectArray AsArray(const LocalRef<jobjectArray>& ref) { return ref.get(); }

    std::vector<std::string> m_traces;
};

}  // namespace

// ---- native to Java

TEST_F(MetaDataTest, MetadataReachesJavaInAscendingNameOrder) {
    ObjectMetaData metaData;
    metaData.emplace(u"b", MetaDataValue{u"vb", 1});
    metaData.emplace(u"C", MetaDataValue{u"vC", 2});
    metaData.emplace(u"a", MetaDataValue{u"va", 3});
    metaData.emplace(u"B", MetaDataValue{u"vB", 4});
    const LocalRef<jobjectArray> array = MakePluginMetaDataArray(Env(), &metaData);
    ASSERT_TRUE(array);
    // Code unit order: capitals come before small letters.
    const std::vector<JavaEntry> expected = {
        {u"B", u"vB", "STRING"}, {u"C", u"vC", "STRING"}, {u"a", u"va", "STRING"}, {u"b", u"vb", "STRING"}};
    EXPECT_EQ(ReadBack(array.get()), expected);
}

TEST_F(MetaDataTest, PrpTypeSentToJavaKeepsTheConstructorsValue) {
    // Types 1 and 3 are the ordinals of INTEGER and BOOLEAN; neither reaches Java.
    ObjectMetaData metaData{{u"count", MetaDataValue{u"12", 1}},
                            {u"flag", MetaDataValue{u"true", 3}},
                            {u"other", MetaDataValue{u"x", 0x12345678u}}};
    const LocalRef<jobjectArray> array = MakePluginMetaDataArray(Env(), &metaData);
    ASSERT_TRUE(array);
    const std::vector<JavaEntry> entries = ReadBack(array.get());
    ASSERT_EQ(entries.size(), 3u);
    for (const JavaEntry& entry : entries) EXPECT_EQ(entry.type, "STRING") << entry;
}

TEST_F(MetaDataTest, EmptyNativeTextReachesJavaAsEmptyString) {
    ObjectMetaData metaData{{u"empty", MetaDataValue{u"", 0}}};
    const LocalRef<jobjectArray> array = MakePluginMetaDataArray(Env(), &metaData);
    ASSERT_TRUE(array);
    EXPECT_EQ(ReadBack(array.get()), (std::vector<JavaEntry>{{u"empty", u"", "STRING"}}));
}

TEST_F(MetaDataTest, EmptyMetadataMapReachesJavaAsAnEmptyArray) {
    ObjectMetaData metaData;
    const LocalRef<jobjectArray> array = MakePluginMetaDataArray(Env(), &metaData);
    ASSERT_TRUE(array);
    EXPECT_EQ(Real()->GetArrayLength(AsArray(array)), 0);
}

TEST_F(MetaDataTest, NoMetadataMapReachesJavaAsANullArray) {
    EXPECT_FALSE(MakePluginMetaDataArray(Env(), nullptr));
    EXPECT_EQ(Interposer().CountOf("FindClass"), 0u);
}

TEST_F(MetaDataTest, MetadataRoundTripsThroughJava) {
    ObjectMetaData sent{{u"\u00e9t\u00e9", MetaDataValue{u"\u4e2d\U0001F600", 0}},
                        {u"plain", MetaDataValue{u"text", 0}},
                        {u"empty", MetaDataValue{u"", 0}}};
    const LocalRef<jobjectArray> array = MakePluginMetaDataArray(Env(), &sent);
    ASSERT_TRUE(array);
    ObjectMetaData received;
    ReadPluginMetaDataArray(Env(), AsArray(array), &received);
    ASSERT_EQ(received.size(), sent.size());
    for (const auto& [name, value] : sent) {
        ASSERT_EQ(received.count(name), 1u);
        EXPECT_EQ(received[name].szProperty, value.szProperty);
    }
}

TEST_F(MetaDataTest, ThousandsOfEntriesLeaveOnlyTheArraysReference) {
    ObjectMetaData metaData;
    for (int i = 0; i < 5000; ++i) {
        const std::string name = "property-" + std::to_string(100000 + i);
        metaData.emplace(WideString(name.begin(), name.end()), MetaDataValue{u"value", 0});
    }
    const LocalRef<jobjectArray> array = MakePluginMetaDataArray(Env(), &metaData);
    ASSERT_TRUE(array);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 1);
    const std::vector<JavaEntry> entries = ReadBack(array.get());
    ASSERT_EQ(entries.size(), 5000u);
    EXPECT_EQ(entries.front().name, OptText(u"property-100000"));
    EXPECT_EQ(entries.back().name, OptText(u"property-104999"));
}

TEST_F(MetaDataTest, CreatePluginMetaDataObjectMakesAnElementWithItsVal) {
    const LocalRef<jobject> element = CreatePluginMetaDataObject(Env());
    ASSERT_TRUE(element);
    LocalRef<jobject> val = ObjectField(element.get(), "val", kPluginValueSignature);
    EXPECT_TRUE(val);
    EXPECT_FALSE(ObjectField(element.get(), "szPropertyName", kJavaStringSignature));
}

TEST_F(MetaDataTest, CreatePluginMetaDataObjectWithoutTheConstructorYieldsNone) {
    Interposer().FailGetMethodID("<init>", "()V");
    EXPECT_FALSE(CreatePluginMetaDataObject(Env()));
    EXPECT_FALSE(Env()->ExceptionCheck());
    EXPECT_EQ(Interposer().CountOf("NewObject") + Interposer().CountOf("NewObjectV") +
                  Interposer().CountOf("NewObjectA"),
              0u);
    // The failed lookup was described once; the second description found nothing pending.
    EXPECT_EQ(m_traces, std::vector<std::string>{"\nException in finding the WebServiceClient class\n"});
}

TEST_F(MetaDataTest, CreatePluginMetaDataObjectWithoutTheClassYieldsNone) {
    Interposer().FailFindClass("com/qv/AzureLibrary/CPluginMetaData");
    EXPECT_FALSE(CreatePluginMetaDataObject(Env()));
    EXPECT_FALSE(Env()->ExceptionCheck());
    EXPECT_EQ(Interposer().CountOf("GetMethodID"), 0u);
}

TEST_F(MetaDataTest, CreatePluginMetaDataArraySlotsHoldTheInitialElement) {
    const LocalRef<jobject> initial = CreatePluginMetaDataObject(Env());
    LocalRef<jclass> cls(Env(), Env()->FindClass("com/qv/AzureLibrary/CPluginMetaData"));
    ASSERT_TRUE(initial && cls);
    const LocalRef<jobjectArray> array = CreatePluginMetaDataArray(Env(), 3, cls.get(), initial.get());
    ASSERT_TRUE(array);
    ASSERT_EQ(Real()->GetArrayLength(AsArray(array)), 3);
    for (jsize i = 0; i < 3; ++i) {
        LocalRef<jobject> slot(Real(), Real()->GetObjectArrayElement(AsArray(array), i));
        EXPECT_TRUE(Real()->IsSameObject(slot.get(), initial.get())) << i;
    }
}

TEST_F(MetaDataTest, CreatePluginMetaDataArrayWhenLocalCapacityFailsIsNull) {
    LocalRef<jclass> cls(Env(), Env()->FindClass("com/qv/AzureLibrary/CPluginMetaData"));
    ASSERT_TRUE(cls);
    Interposer().FailEnsureLocalCapacity();
    EXPECT_FALSE(CreatePluginMetaDataArray(Env(), 2, cls.get(), nullptr));
    EXPECT_FALSE(Env()->ExceptionCheck());
    EXPECT_EQ(Interposer().CountOf("NewObjectArray"), 0u);
}

TEST_F(MetaDataTest, FillLeavesTheSlotOfAnEntryWhoseElementCannotBeMade) {
    const LocalRef<jobject> initial = CreatePluginMetaDataObject(Env());
    LocalRef<jclass> cls(Env(), Env()->FindClass("com/qv/AzureLibrary/CPluginMetaData"));
    const LocalRef<jobjectArray> array = CreatePluginMetaDataArray(Env(), 2, cls.get(), initial.get());
    ASSERT_TRUE(array);
    const ObjectMetaData metaData{{u"first", MetaDataValue{u"1", 0}}, {u"second", MetaDataValue{u"2", 0}}};
    Interposer().FailGetMethodID("<init>", "()V", 1);
    FillPluginMetaDataArray(Env(), AsArray(array), &metaData);
    LocalRef<jobject> slot0(Real(), Real()->GetObjectArrayElement(AsArray(array), 0));
    EXPECT_TRUE(Real()->IsSameObject(slot0.get(), initial.get()));
    const std::vector<JavaEntry> entries = ReadBack(array.get());
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[1], (JavaEntry{u"second", u"2", "STRING"}));
}

TEST_F(MetaDataTest, FillIntoAShorterArrayDropsTheExtraEntries) {
    LocalRef<jclass> cls(Env(), Env()->FindClass("com/qv/AzureLibrary/CPluginMetaData"));
    const LocalRef<jobjectArray> array = CreatePluginMetaDataArray(Env(), 1, cls.get(), nullptr);
    ASSERT_TRUE(array);
    const ObjectMetaData metaData{{u"a", MetaDataValue{u"1", 0}}, {u"b", MetaDataValue{u"2", 0}}};
    FillPluginMetaDataArray(Env(), AsArray(array), &metaData);
    EXPECT_FALSE(Env()->ExceptionCheck());
    EXPECT_EQ(ReadBack(array.get()), (std::vector<JavaEntry>{{u"a", u"1", "STRING"}}));
}

TEST_F(MetaDataTest, WritePluginValueSetsTheTextAndLeavesTheType) {
    LocalRef<jobject> value = JavaValue(u"old", "INTEGER");
    ASSERT_TRUE(value);
    WritePluginValue(Env(), value.get(), MetaDataValue{u"new", 3});
    EXPECT_EQ(Text(ObjectField(value.get(), "szProperty", kJavaStringSignature).get()), OptText(u"new"));
    EXPECT_EQ(TypeName(ObjectField(value.get(), "prpType", kPropertyTypeSignature).get()), "INTEGER");
}

// ---- Java to native

TEST_F(MetaDataTest, ReadPluginMetaDataArrayAddsEachNamedElement) {
    LocalRef<jobject> array = ScriptedMetaData({{u"b", u"2"}, {u"a", u"1"}});
    ObjectMetaData metaData{{u"z", MetaDataValue{u"host", 9}}};
    ReadPluginMetaDataArray(Env(), AsArray(array), &metaData);
    ASSERT_EQ(metaData.size(), 3u);
    EXPECT_EQ(metaData[u"a"].szProperty, u"1");
    EXPECT_EQ(metaData[u"b"].szProperty, u"2");
    EXPECT_EQ(metaData[u"z"].szProperty, u"host");
    EXPECT_EQ(metaData[u"z"].prpType, 9u);
}

TEST_F(MetaDataTest, DuplicateJavaPropertyNamesKeepTheFirstValue) {
    LocalRef<jobject> array = ScriptedMetaData({{u"name", u"first"}, {u"name", u"second"}});
    ObjectMetaData metaData;
    ReadPluginMetaDataArray(Env(), AsArray(array), &metaData);
    ASSERT_EQ(metaData.size(), 1u);
    EXPECT_EQ(metaData[u"name"].szProperty, u"first");
}

TEST_F(MetaDataTest, JavaNameAlreadyInTheHostMapKeepsTheHostsValue) {
    LocalRef<jobject> array = ScriptedMetaData({{u"name", u"java"}});
    ObjectMetaData metaData{{u"name", MetaDataValue{u"host", 5}}};
    ReadPluginMetaDataArray(Env(), AsArray(array), &metaData);
    ASSERT_EQ(metaData.size(), 1u);
    EXPECT_EQ(metaData[u"name"].szProperty, u"host");
    EXPECT_EQ(metaData[u"name"].prpType, 5u);
}

TEST_F(MetaDataTest, NullPropertyNameYieldsNoEntry) {
    LocalRef<jobject> array = ScriptedMetaData({{std::nullopt, u"orphan"}, {u"named", u"kept"}});
    ObjectMetaData metaData;
    ReadPluginMetaDataArray(Env(), AsArray(array), &metaData);
    ASSERT_EQ(metaData.size(), 1u);
    EXPECT_EQ(metaData[u"named"].szProperty, u"kept");
}

TEST_F(MetaDataTest, NullElementIsSkippedAndTheOthersAreRead) {
    MetaEntry nullElement;
    nullElement.nullElement = true;
    LocalRef<jobject> array = ScriptedMetaData({{u"a", u"1"}, nullElement, {u"c", u"3"}});
    ObjectMetaData metaData;
    ReadPluginMetaDataArray(Env(), AsArray(array), &metaData);
    ASSERT_EQ(metaData.size(), 2u);
    EXPECT_EQ(metaData[u"a"].szProperty, u"1");
    EXPECT_EQ(metaData[u"c"].szProperty, u"3");
}

TEST_F(MetaDataTest, NullValYieldsAnEntryWithEmptyTextAndTypeZero) {
    MetaEntry withoutVal{u"bare", u"ignored"};
    withoutVal.nullVal = true;
    LocalRef<jobject> array = ScriptedMetaData({withoutVal});
    ObjectMetaData metaData;
    ReadPluginMetaDataArray(Env(), AsArray(array), &metaData);
    ASSERT_EQ(metaData.size(), 1u);
    EXPECT_EQ(metaData[u"bare"].szProperty, u"");
    EXPECT_EQ(metaData[u"bare"].prpType, 0u);
}

TEST_F(MetaDataTest, PrpTypeReadFromJavaIsAnOpaqueWordNotTheEnumOrdinal) {
    // STRING's ordinal is 0; the word the host receives comes from the reference to the constant.
    LocalRef<jobject> value = JavaValue(u"text", "STRING");
    MetaDataValue read;
    ReadPluginValue(Env(), value.get(), &read);
    EXPECT_EQ(read.szProperty, u"text");
    EXPECT_NE(read.prpType, 0u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
}

TEST_F(MetaDataTest, NullPrpTypeInJavaReadsAsZero) {
    LocalRef<jobject> value = JavaValue(u"text", nullptr);
    MetaDataValue read{u"old", 77};
    ReadPluginValue(Env(), value.get(), &read);
    EXPECT_EQ(read.szProperty, u"text");
    EXPECT_EQ(read.prpType, 0u);
}

TEST_F(MetaDataTest, MissingPrpTypeFieldKeepsThePresetType) {
    LocalRef<jobject> value = JavaValue(u"text", "LONG");
    Interposer().FailGetFieldID("prpType");
    MetaDataValue read{u"old", 77};
    ReadPluginValue(Env(), value.get(), &read);
    EXPECT_EQ(read.szProperty, u"text");
    EXPECT_EQ(read.prpType, 77u);
    EXPECT_FALSE(Env()->ExceptionCheck());
}

TEST_F(MetaDataTest, NullJavaTextKeepsThePresetText) {
    LocalRef<jobject> value = JavaValue(std::nullopt, "LONG");
    MetaDataValue read{u"old", 77};
    ReadPluginValue(Env(), value.get(), &read);
    EXPECT_EQ(read.szProperty, u"old");
    EXPECT_NE(read.prpType, 77u);
}

TEST_F(MetaDataTest, ReadPluginValueOfNullChangesNothing) {
    MetaDataValue read{u"old", 77};
    ReadPluginValue(Env(), nullptr, &read);
    EXPECT_EQ(read.szProperty, u"old");
    EXPECT_EQ(read.prpType, 77u);
    EXPECT_EQ(Interposer().CountOf("FindClass"), 0u);
}

TEST_F(MetaDataTest, ReadPluginMetaDataArrayWithoutAMapReadsNoElement) {
    LocalRef<jobject> array = ScriptedMetaData({{u"a", u"1"}});
    ReadPluginMetaDataArray(Env(), AsArray(array), nullptr);
    EXPECT_EQ(Interposer().CountOf("GetObjectArrayElement"), 0u);
    EXPECT_EQ(Interposer().CountOf("FindClass", "com/qv/AzureLibrary/CPluginMetaData"), 1u);
}

TEST_F(MetaDataTest, ReadPluginMetaDataArrayWithoutTheNameFieldYieldsNoEntry) {
    LocalRef<jobject> array = ScriptedMetaData({{u"a", u"1"}, {u"b", u"2"}});
    Interposer().FailGetFieldID("szPropertyName");
    ObjectMetaData metaData;
    ReadPluginMetaDataArray(Env(), AsArray(array), &metaData);
    EXPECT_TRUE(metaData.empty());
    EXPECT_FALSE(Env()->ExceptionCheck());
}

TEST_F(MetaDataTest, NativeExceptionWhileReadingMetadataReachesTheCallerWithNoReferenceLeft) {
    LocalRef<jobject> array = ScriptedMetaData({{u"a", u"1"}, {u"b", u"2"}});
    Interposer().ThrowCppExceptionIn("GetStringChars");
    ObjectMetaData metaData;
    EXPECT_THROW(ReadPluginMetaDataArray(Env(), AsArray(array), &metaData), std::runtime_error);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
}

// ---- object sub-lists

TEST_F(MetaDataTest, SubListElementWithoutFileNameIsDropped) {
    LocalRef<jobject> array =
        ScriptedSubList({SubListEntry{std::nullopt, {{u"a", u"1"}}}, SubListEntry{u"kept", {{u"b", u"2"}}}});
    SubListOwner owner{new ObjectSubList()};
    ReadObjectSubList(Env(), AsArray(array), owner.list);
    ASSERT_EQ(owner.list->size(), 1u);
    ASSERT_EQ(owner.list->count(u"kept"), 1u);
    EXPECT_EQ(owner.list->at(u"kept")->at(u"b").szProperty, u"2");
}

TEST_F(MetaDataTest, SubListElementWithNullMetadataIsDropped) {
    SubListEntry withoutMetaData{u"bare", {}};
    withoutMetaData.nullMetaData = true;
    LocalRef<jobject> array = ScriptedSubList({withoutMetaData, SubListEntry{u"kept", {}}});
    SubListOwner owner{new ObjectSubList()};
    ReadObjectSubList(Env(), AsArray(array), owner.list);
    ASSERT_EQ(owner.list->size(), 1u);
    ASSERT_EQ(owner.list->count(u"kept"), 1u);
    EXPECT_TRUE(owner.list->at(u"kept")->empty());
}

TEST_F(MetaDataTest, NullSubListElementIsSkipped) {
    SubListEntry nullElement;
    nullElement.nullElement = true;
    LocalRef<jobject> array = ScriptedSubList({nullElement, SubListEntry{u"f", {{u"a", u"1"}}}});
    SubListOwner owner{new ObjectSubList()};
    ReadObjectSubList(Env(), AsArray(array), owner.list);
    ASSERT_EQ(owner.list->size(), 1u);
    EXPECT_EQ(owner.list->count(u"f"), 1u);
}

TEST_F(MetaDataTest, DuplicateFileNameInTheSubListKeepsTheFirst) {
    LocalRef<jobject> array = ScriptedSubList(
        {SubListEntry{u"f", {{u"which", u"first"}}}, SubListEntry{u"f", {{u"which", u"second"}}}});
    SubListOwner owner{new ObjectSubList()};
    ReadObjectSubList(Env(), AsArray(array), owner.list);
    ASSERT_EQ(owner.list->size(), 1u);
    EXPECT_EQ(owner.list->at(u"f")->at(u"which").szProperty, u"first");
}

TEST_F(MetaDataTest, SubListFileMetadataFollowsTheMetadataRules) {
    MetaEntry nameless{std::nullopt, u"x"};
    LocalRef<jobject> array =
        ScriptedSubList({SubListEntry{u"f", {{u"k", u"first"}, {u"k", u"second"}, nameless}}});
    SubListOwner owner{new ObjectSubList()};
    ReadObjectSubList(Env(), AsArray(array), owner.list);
    ASSERT_EQ(owner.list->size(), 1u);
    const ObjectMetaData& metaData = *owner.list->at(u"f");
    ASSERT_EQ(metaData.size(), 1u);
    EXPECT_EQ(metaData.at(u"k").szProperty, u"first");
}

TEST_F(MetaDataTest, ReadObjectSubListWithoutASubListReadsNoElement) {
    LocalRef<jobject> array = ScriptedSubList({SubListEntry{u"f", {{u"a", u"1"}}}});
    ReadObjectSubList(Env(), AsArray(array), nullptr);
    EXPECT_EQ(Interposer().CountOf("GetObjectArrayElement"), 0u);
}
