// The capability map of the storage back end, from the Java
// CloudPluginCapabilities into the host's CapabilityMap, on the real JVM
// through the interposer.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bridge/LocalRef.h"
#include "marshal/Capabilities.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;
using jnitest::OptText;
using jnitest::TestDouble;

namespace {

class CapabilitiesTest : public BridgeFixture {
protected:
    // The result of GetCloudPluginCapabilities as scripted, made on the JVM's own environment so that the
    // interposer counts only what the conversion does.
    LocalRef<jobject> Result() {
        JNIEnv* real = jnitest::TestEnv();
        return LocalRef<jobject>(real, TestDouble::NextResult(real, "GetCloudPluginCapabilities"));
    }

    // A java.util.HashMap holding these Java objects as keys and values.
    static LocalRef<jobject> JavaMap(const std::vector<std::pair<jobject, jobject>>& entries) {
        JNIEnv* real = jnitest::TestEnv();
        LocalRef<jclass> cls(real, real->FindClass("java/util/HashMap"));
        const jmethodID constructor = real->GetMethodID(cls.get(), "<init>", "()V");
        const jmethodID put =
            real->GetMethodID(cls.get(), "put", "(Ljava/lang/Object;Ljava/lang/Object;)Ljava/lang/Object;");
        LocalRef<jobject> map(real, real->NewObject(cls.get(), constructor));
        for (const auto& entry : entries) {
            LocalRef<jobject> previous(real,
                                       real->CallObjectMethod(map.get(), put, entry.first, entry.second));
        }
        return map;
    }

    static LocalRef<jobject> JavaString(const std::u16string& text) {
        JNIEnv* real = jnitest::TestEnv();
        return LocalRef<jobject>(real, real->NewString(reinterpret_cast<const jchar*>(text.data()),
                                                       static_cast<jsize>(text.size())));
    }

    static LocalRef<jobject> JavaInteger(int value) {
        JNIEnv* real = jnitest::TestEnv();
        LocalRef<jclass> cls(real, real->FindClass("java/lang/Integer"));
        const jmethodID valueOf = real->GetStaticMethodID(cls.get(), "valueOf", "(I)Ljava/lang/Integer;");
        return LocalRef<jobject>(real,
                                 real->CallStaticObjectMethod(cls.get(), valueOf, static_cast<jint>(value)));
    }
};

}  // namespace

TEST_F(CapabilitiesTest, CapabilitiesOfTheDoubleBecomeTheHostMap) {
    LocalRef<jobject> result = Result();
    CapabilityMap capabilities;
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    const CapabilityMap expected{{u"MaxObjectSize", u"268435456"},
                                 {u"SupportsCachedObjects", u"true"},
                                 {u"SupportsMetadata", u"true"}};
    EXPECT_EQ(capabilities, expected);
}

TEST_F(CapabilitiesTest, HostMapIsEmptiedBeforeItIsFilled) {
    TestDouble::SetCapabilities({{u"b", u"2"}, {u"a", u"1"}});
    LocalRef<jobject> result = Result();
    CapabilityMap capabilities{{u"old", u"entry"}, {u"a", u"host"}};
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_EQ(capabilities, (CapabilityMap{{u"a", u"1"}, {u"b", u"2"}}));
}

TEST_F(CapabilitiesTest, EmptyJavaMapEmptiesTheCapabilityMap) {
    TestDouble::SetCapabilities({});
    LocalRef<jobject> result = Result();
    CapabilityMap capabilities{{u"old", u"entry"}};
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_TRUE(capabilities.empty());
}

TEST_F(CapabilitiesTest, NullCapabilityValueIsDropped) {
    TestDouble::SetCapabilities({{u"present", u"yes"}, {u"absent", std::nullopt}});
    LocalRef<jobject> result = Result();
    CapabilityMap capabilities;
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_EQ(capabilities, (CapabilityMap{{u"present", u"yes"}}));
}

TEST_F(CapabilitiesTest, NullCapabilityKeyIsDropped) {
    TestDouble::SetCapabilities({{std::nullopt, u"orphan"}, {u"present", u"yes"}});
    LocalRef<jobject> result = Result();
    CapabilityMap capabilities;
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_EQ(capabilities, (CapabilityMap{{u"present", u"yes"}}));
}

TEST_F(CapabilitiesTest, NonStringCapabilityValueIsDropped) {
    TestDouble::SetCapabilities({{u"Count", u"12"}, {u"Name", u"azure"}}, {u"Count"});
    LocalRef<jobject> result = Result();
    CapabilityMap capabilities;
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_EQ(capabilities, (CapabilityMap{{u"Name", u"azure"}}));
}

TEST_F(CapabilitiesTest, NonStringCapabilityKeyIsDropped) {
    LocalRef<jobject> number = JavaInteger(7);
    LocalRef<jobject> seven = JavaString(u"seven");
    LocalRef<jobject> key = JavaString(u"key");
    LocalRef<jobject> value = JavaString(u"value");
    LocalRef<jobject> map = JavaMap({{number.get(), seven.get()}, {key.get(), value.get()}});
    CapabilityMap capabilities;
    ReadCapabilityMap(Env(), map.get(), &capabilities);
    EXPECT_EQ(capabilities, (CapabilityMap{{u"key", u"value"}}));
}

TEST_F(CapabilitiesTest, NullCapabilitiesObjectLeavesTheMapAsItWas) {
    TestDouble::ReturnNull("GetCloudPluginCapabilities");
    LocalRef<jobject> result = Result();
    ASSERT_FALSE(result);
    CapabilityMap capabilities{{u"old", u"entry"}};
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_EQ(capabilities, (CapabilityMap{{u"old", u"entry"}}));
    EXPECT_EQ(Interposer().CountOf("FindClass"), 0u);
}

TEST_F(CapabilitiesTest, MissingCapabilitiesFieldLeavesTheMapAsItWas) {
    LocalRef<jobject> result = Result();
    Interposer().FailGetFieldID("pluginCapabilities");
    CapabilityMap capabilities{{u"old", u"entry"}};
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_EQ(capabilities, (CapabilityMap{{u"old", u"entry"}}));
    EXPECT_FALSE(Env()->ExceptionCheck());
}

TEST_F(CapabilitiesTest, MissingCapabilitiesClassLeavesTheMapAsItWas) {
    LocalRef<jobject> result = Result();
    Interposer().FailFindClass("com/qv/QVCloudPluginInterface/CloudPluginCapabilities");
    CapabilityMap capabilities{{u"old", u"entry"}};
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_EQ(capabilities, (CapabilityMap{{u"old", u"entry"}}));
    EXPECT_EQ(Interposer().CountOf("GetFieldID"), 0u);
}

TEST_F(CapabilitiesTest, NullJavaMapEmptiesTheCapabilityMap) {
    TestDouble::SetNullField("GetCloudPluginCapabilities", "pluginCapabilities");
    LocalRef<jobject> result = Result();
    CapabilityMap capabilities{{u"old", u"entry"}};
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_TRUE(capabilities.empty());
    EXPECT_EQ(Interposer().CountOf("GetObjectClass"), 0u);
}

TEST_F(CapabilitiesTest, CapabilityMapIsOrderedByCodeUnits) {
    TestDouble::SetCapabilities({{u"b", u"1"}, {u"B", u"2"}, {u"a", u"3"}, {u"\u00e9", u"4"}, {u"A", u"5"}});
    LocalRef<jobject> result = Result();
    CapabilityMap capabilities;
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    std::vector<WideString> keys;
    for (const auto& entry : capabilities) keys.push_back(entry.first);
    EXPECT_EQ(keys, (std::vector<WideString>{u"A", u"B", u"a", u"b", u"\u00e9"}));
}

TEST_F(CapabilitiesTest, HasNextIsAskedWithTheBooleanCallOncePerEntryAndOnceMore) {
    TestDouble::SetCapabilities({{u"a", u"1"}, {u"b", u"2"}, {u"c", u"3"}});
    LocalRef<jobject> result = Result();
    CapabilityMap capabilities;
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_EQ(capabilities.size(), 3u);
    EXPECT_EQ(Interposer().CountOf("CallBooleanMethodV"), 4u);
}

TEST_F(CapabilitiesTest, ThousandsOfCapabilitiesLeaveNoLocalReference) {
    std::vector<std::pair<OptText, OptText>> entries;
    for (int i = 0; i < 4000; ++i) {
        const std::string key = "key-" + std::to_string(i);
        entries.emplace_back(WideString(key.begin(), key.end()), u"value");
    }
    TestDouble::SetCapabilities(entries);
    LocalRef<jobject> result = Result();
    CapabilityMap capabilities;
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_EQ(capabilities.size(), 4000u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
}

TEST_F(CapabilitiesTest, IteratorWithoutNextLeavesTheMapEmpty) {
    TestDouble::SetCapabilities({{u"a", u"1"}});
    LocalRef<jobject> result = Result();
    Interposer().FailGetMethodID("next", "()Ljava/lang/Object;");
    CapabilityMap capabilities{{u"old", u"entry"}};
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_TRUE(capabilities.empty());
    EXPECT_FALSE(Env()->ExceptionCheck());
}

TEST_F(CapabilitiesTest, EntryWithoutGetValueIsDropped) {
    TestDouble::SetCapabilities({{u"a", u"1"}, {u"b", u"2"}});
    LocalRef<jobject> result = Result();
    Interposer().FailGetMethodID("getValue");
    CapabilityMap capabilities;
    ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities);
    EXPECT_TRUE(capabilities.empty());
    EXPECT_EQ(Interposer().CountOf("CallBooleanMethodV"), 3u);
}

TEST_F(CapabilitiesTest, NativeExceptionDuringTheWalkReachesTheCallerWithNoReferenceLeft) {
    TestDouble::SetCapabilities({{u"a", u"1"}, {u"b", u"2"}});
    LocalRef<jobject> result = Result();
    Interposer().ThrowCppExceptionIn("CallBooleanMethodV");
    CapabilityMap capabilities{{u"old", u"entry"}};
    EXPECT_THROW(ConvertCloudPluginCapabilities(Env(), result.get(), &capabilities), std::runtime_error);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_TRUE(capabilities.empty());
}

TEST_F(CapabilitiesTest, NoHostMapReadsNothing) {
    LocalRef<jobject> result = Result();
    ConvertCloudPluginCapabilities(Env(), result.get(), nullptr);
    EXPECT_EQ(Interposer().CountOf("CallObjectMethodV"), 0u);
}
