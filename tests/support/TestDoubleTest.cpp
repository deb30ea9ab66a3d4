// The test bed itself: the contract classes have the shape the plug-in looks
// up, the test double has every method of the contract, scripts and records
// work, and the double's in-memory store behaves like a store.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/JniInterposer.h"
#include "support/TestDouble.h"

namespace jnitest {
namespace {

using namespace std::string_literals;

constexpr const char* kPlugin = "com/qv/AzureLibrary/QVAzurePlugInLibrary";
constexpr const char* kErrorValue = "com/qv/QVCloudPluginInterface/CErrorValue";
constexpr const char* kErrorValueSig = "Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kMetaSig = "[Lcom/qv/AzureLibrary/CPluginMetaData;";
const jobject kNull = nullptr;  // a null object argument of a variadic JNI call

// The JNI signatures the plug-in uses, by method.
constexpr const char* kAzureInit = "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kWritePlain = "(Ljava/lang/String;[BJ)Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kWriteMeta =
    "(Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/AzureLibrary/CWObjectHandleFnValue;";
constexpr const char* kWriteFlag =
    "(Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;J)Lcom/qv/AzureLibrary/CWObjectHandleFnValue;";
constexpr const char* kUpdate = "(Ljava/lang/String;Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)"
                                "Lcom/qv/AzureLibrary/CCreateFnValue;";
constexpr const char* kReadObject = "(Ljava/lang/String;[BJJ)Lcom/qv/AzureLibrary/CReadObjectFnValue;";
constexpr const char* kReadByName =
    "(Ljava/lang/String;[BJJ[Ljava/lang/String;)Lcom/qv/AzureLibrary/CRObjectByNameFnValue;";
constexpr const char* kNameToCreate = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CCreateFnValue;";
constexpr const char* kNameToError = "(Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kNameToExist = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;";
constexpr const char* kGetOneProperty = "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/AzureLibrary/CGetObjectMetaData;";
constexpr const char* kGetAllProperties = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CGObjectMetaDataFnValue;";

struct MethodSig {
    const char* name;
    const char* signature;
};

// Every method of QVAzurePlugInLibrary that the plug-in calls.
const std::vector<MethodSig>& ContractMethods() {
    static const std::vector<MethodSig> methods = {
        {"<init>", "(Lcom/qv/AzureLibrary/CPluginInitData;)V"},
        {"AzureInit", kAzureInit},
        {"AzureDeInit", "()Lcom/qv/QVCloudPluginInterface/CErrorValue;"},
        {"WriteObject", kWritePlain},
        {"WriteObject", kWriteMeta},
        {"WriteObject", kWriteFlag},
        {"WriteCachedObject", kWriteMeta},
        {"UpdateObject", kUpdate},
        {"UpdateObject", "(Ljava/lang/String;Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;J)"
                         "Lcom/qv/AzureLibrary/CCreateFnValue;"},
        {"UpdateCachedObjectByHandle", "(Ljava/lang/String;Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)"
                                       "Lcom/qv/QVCloudPluginInterface/CErrorValue;"},
        {"UpdateCachedObjectByName",
         "(Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/QVCloudPluginInterface/CErrorValue;"},
        {"ReadObject", kReadObject},
        {"ReadObjectByName", kReadByName},
        {"ReadObjectByHandle", kReadByName},
        {"CreateObject", kNameToCreate},
        {"CreateObject", "(Ljava/lang/String;[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/AzureLibrary/CCreateFnValue;"},
        {"OpenObject", kNameToCreate},
        {"OpenObject", "(Ljava/lang/String;Z)Lcom/qv/AzureLibrary/CCreateFnValue;"},
        {"CreateCachedObject", kNameToCreate},
        {"CloseObject", kNameToError},
        {"DeleteObjectByName", kNameToError},
        {"DeleteObjectByHandle", kNameToError},
        {"DeleteObjectByHandle", "([Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;"},
        {"DeleteCachedObjectByName", kNameToError},
        {"IsObjectExist", kNameToExist},
        {"IsObjectPathSupported", "(Ljava/lang/String;I)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;"},
        {"SetObjectMetaData",
         "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;"},
        {"GetObjectMetaData", kGetOneProperty},
        {"GetObjectMetaData", kGetAllProperties},
        {"GetObjectSubList", "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CRetGetSubMetaDataList;"},
        {"GetListContainers", "()Lcom/qv/AzureLibrary/QVListContainers;"},
        {"GetArchiveSet", "()Lcom/qv/AzureLibrary/QVListContainers;"},
        {"GetRegions", "()Lcom/qv/AzureLibrary/QVListRegions;"},
        {"IsValidContainer", kNameToExist},
        {"IsContainerExists", "(Ljava/lang/String;)Lcom/qv/AmazonLibrary/CIsObjectExistFnValue;"},
        {"DeleteContainer", "()Lcom/qv/QVCloudPluginInterface/CErrorValue;"},
        {"GetContainerName", "()Lcom/qv/AzureLibrary/CUniqueAccountValue;"},
        {"GetBucketRegion", kNameToCreate},
        {"GetAccountInfo", "()Lcom/qv/AzureLibrary/CGetAccountInfoFnValue;"},
        {"GetAllObjectsSize", "()Lcom/qv/AzureLibrary/CGetAccountSizeValue;"},
        {"GetUniqueAccountName", "()Lcom/qv/AzureLibrary/CUniqueAccountValue;"},
        {"GetOwnerName", "()Lcom/qv/AzureLibrary/CUniqueAccountValue;"},
        {"IsSameAccount", "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;"},
        {"getStorageKey", "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/plugin/model/CString;"},
        {"updateStorageKey", "()Lcom/qv/plugin/model/CString;"},
        {"getServerNameList", "()Lcom/qv/plugin/model/CArrayOfString;"},
        {"GetObjectActualSize", "(JJ)J"},
        {"canBackup", "()Lcom/qv/plugin/model/CInt;"},
        {"addJobInfo", "(JJJJJJ)Lcom/qv/QVCloudPluginInterface/CErrorValue;"},
        {"CheckConnectivity", "()Lcom/qv/QVCloudPluginInterface/CErrorValue;"},
        {"GetDefaultObjectSizeRange", "()Lcom/qv/AzureLibrary/CGDefaultObjSizeRangeValue;"},
        {"GetCloudPluginCapabilities", "()Lcom/qv/QVCloudPluginInterface/CloudPluginCapabilities;"},
    };
    return methods;
}

struct FieldSig {
    const char* cls;
    const char* name;
    const char* signature;
};

// Every field the plug-in reads or writes, with the signature it looks it up with.
const std::vector<FieldSig>& ContractFields() {
    static const std::vector<FieldSig> fields = {
        {"com/qv/AzureLibrary/CGDefaultObjSizeRangeValue", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CGDefaultObjSizeRangeValue", "minValue", "J"},
        {"com/qv/AzureLibrary/CGDefaultObjSizeRangeValue", "defaultValue", "J"},
        {"com/qv/AzureLibrary/CGDefaultObjSizeRangeValue", "maxValue", "J"},
        {"com/qv/AzureLibrary/CUniqueAccountValue", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CUniqueAccountValue", "accountName", "Ljava/lang/String;"},
        {"com/qv/plugin/model/CInt", "value", "I"},
        {"com/qv/plugin/model/CInt", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CGetAccountSizeValue", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CGetAccountSizeValue", "size", "J"},
        {"com/qv/AzureLibrary/QVListRegions", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/QVListRegions", "regionsList", "[Ljava/lang/String;"},
        {"com/qv/AzureLibrary/QVListContainers", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/QVListContainers", "containers", "[Lcom/qv/AzureLibrary/QVAzureContainer;"},
        {"com/qv/AzureLibrary/QVAzureContainer", "containerName", "Ljava/lang/String;"},
        {"com/qv/AzureLibrary/CCreateFnValue", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CCreateFnValue", "objHandle", "Ljava/lang/String;"},
        {"com/qv/AzureLibrary/CGetObjectMetaData", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CGetObjectMetaData", "value", "Ljava/lang/String;"},
        {"com/qv/AzureLibrary/CWObjectHandleFnValue", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CWObjectHandleFnValue", "objHandle", "Ljava/lang/String;"},
        {"com/qv/AzureLibrary/CIsObjectExistFnValue", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CIsObjectExistFnValue", "isExist", "Z"},
        {"com/qv/AmazonLibrary/CIsObjectExistFnValue", "errorValue", kErrorValueSig},
        {"com/qv/AmazonLibrary/CIsObjectExistFnValue", "isExist", "Z"},
        {"com/qv/AzureLibrary/CGObjectMetaDataFnValue", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CRObjectByNameFnValue", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CRObjectByNameFnValue", "values", kMetaSig},
        {"com/qv/AzureLibrary/CRObjectByNameFnValue", "bytesRead", "J"},
        {"com/qv/AzureLibrary/CReadObjectFnValue", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CReadObjectFnValue", "sizeRead", "J"},
        {"com/qv/AzureLibrary/CRetGetSubMetaDataList", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CRetGetSubMetaDataList", "metaDat", "[Lcom/qv/AzureLibrary/CObjectSubListElement;"},
        {"com/qv/AzureLibrary/CGetAccountInfoFnValue", "errorValue", kErrorValueSig},
        {"com/qv/AzureLibrary/CGetAccountInfoFnValue", "accountIndentity", "Ljava/lang/String;"},
        {"com/qv/AzureLibrary/CGetAccountInfoFnValue", "accountType", "Ljava/lang/String;"},
        {"com/qv/AzureLibrary/CGetAccountInfoFnValue", "displayName", "Ljava/lang/String;"},
        {"com/qv/AzureLibrary/CGetAccountInfoFnValue", "emailAddress", "Ljava/lang/String;"},
        {"com/qv/AzureLibrary/CGetAccountInfoFnValue", "usedSizeInByteTotal", "J"},
        {"com/qv/AzureLibrary/CGetAccountInfoFnValue", "remainedSizeInByteTotal", "J"},
        {"com/qv/plugin/model/CArrayOfString", "errorValue", kErrorValueSig},
        {"com/qv/plugin/model/CArrayOfString", "arrayOfString", "[Ljava/lang/String;"},
        {"com/qv/plugin/model/CString", "errorValue", kErrorValueSig},
        {"com/qv/plugin/model/CString", "value", "Ljava/lang/String;"},
        {"com/qv/QVCloudPluginInterface/CloudPluginCapabilities", "pluginCapabilities", "Ljava/util/Map;"},
        {"com/qv/AzureLibrary/CPluginMetaData", "szPropertyName", "Ljava/lang/String;"},
        {"com/qv/AzureLibrary/CPluginMetaData", "val", "Lcom/qv/AzureLibrary/CPluginValue;"},
        {"com/qv/AzureLibrary/CPluginValue", "szProperty", "Ljava/lang/String;"},
        {"com/qv/AzureLibrary/CPluginValue", "prpType", "Lcom/qv/AzureLibrary/CPropertyTYPE;"},
        {"com/qv/AzureLibrary/CObjectSubListElement", "szFileName", "Ljava/lang/String;"},
        {"com/qv/AzureLibrary/CObjectSubListElement", "metaDat", kMetaSig},
    };
    return fields;
}

// A local reference of the test's own environment, deleted at the end of its scope.
template <typename T>
class Ref {
public:
    Ref(JNIEnv* env, T ref) : m_env(env), m_ref(ref) {}
    Ref(JNIEnv* env, jobject ref, int) : m_env(env), m_ref(static_cast<T>(ref)) {}
    ~Ref() {
        if (m_ref != nullptr) m_env->DeleteLocalRef(m_ref);
    }
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    Ref(Ref&& other) noexcept : m_env(other.m_env), m_ref(other.m_ref) { other.m_ref = nullptr; }
    Ref& operator=(Ref&&) = delete;
    T get() const { return m_ref; }
    explicit operator bool() const { return m_ref != nullptr; }

private:
    JNIEnv* m_env;
    T m_ref;
};

std::string Utf8(const std::u16string& text) {
    std::string out;
    for (char16_t c : text) out.push_back(c < 0x80 ? static_cast<char>(c) : '?');
    return out;
}

class TestDoubleTest : public ::testing::Test {
protected:
    void SetUp() override {
        env = TestEnv();
        ASSERT_NE(env, nullptr);
        TestDouble::Reset();
    }

    void TearDown() override {
        if (env != nullptr && env->ExceptionCheck()) {
            ADD_FAILURE() << "a Java exception was left pending: " << TakeException();
        }
        TestDouble::Reset();
    }

    // Clears the pending exception and gives "class: message".
    std::string TakeException() {
        Ref<jthrowable> thrown(env, env->ExceptionOccurred());
        env->ExceptionClear();
        if (!thrown) return "";
        Ref<jclass> cls(env, env->GetObjectClass(thrown.get()));
        jmethodID toString = env->GetMethodID(cls.get(), "toString", "()Ljava/lang/String;");
        Ref<jstring> text(env, env->CallObjectMethod(thrown.get(), toString), 0);
        return Utf8(Text(text.get()).value_or(u"null"));
    }

    Ref<jclass> Class(const char* name) {
        Ref<jclass> cls(env, env->FindClass(name));
        if (!cls) ADD_FAILURE() << "class " << name << " not found: " << TakeException();
        return cls;
    }

    Ref<jstring> J(const std::u16string& text) {
        return Ref<jstring>(env, env->NewString(reinterpret_cast<const jchar*>(text.data()),
                                                static_cast<jsize>(text.size())));
    }

    std::optional<std::u16string> Text(jstring s) {
        if (s == nullptr) return std::nullopt;
        const jsize n = env->GetStringLength(s);
        std::u16string out(static_cast<size_t>(n), u'\0');
        env->GetStringRegion(s, 0, n, reinterpret_cast<jchar*>(&out[0]));
        return out;
    }

    // An instance of the double, made the way the plug-in makes it.
    Ref<jobject> MakeDouble() {
        Ref<jclass> initClass = Class("com/qv/AmazonLibrary/CPluginInitData");
        jmethodID initCtor = env->GetMethodID(initClass.get(), "<init>", "(Ljava/lang/String;Ljava/lang/String;)V");
        Ref<jstring> install = J(u"install");
        Ref<jstring> log = J(u"log");
        Ref<jobject> data(env, env->NewObject(initClass.get(), initCtor, install.get(), log.get()));
        Ref<jclass> plugin = Class(kPlugin);
        jmethodID ctor = env->GetMethodID(plugin.get(), "<init>", "(Lcom/qv/AzureLibrary/CPluginInitData;)V");
        Ref<jobject> obj(env, env->NewObject(plugin.get(), ctor, data.get()));
        if (!obj) ADD_FAILURE() << "the double was not made: " << TakeException();
        return obj;
    }

    // Calls an object-returning method of the double; a Java exception fails the test.
    Ref<jobject> Invoke(jobject target, const char* name, const char* signature, ...) {
        Ref<jclass> cls(env, env->GetObjectClass(target));
        jmethodID mid = env->GetMethodID(cls.get(), name, signature);
        if (mid == nullptr) {
            ADD_FAILURE() << name << signature << " not found: " << TakeException();
            return Ref<jobject>(env, nullptr);
        }
        va_list args;
        va_start(args, signature);
        jobject result = env->CallObjectMethodV(target, mid, args);
        va_end(args);
        if (env->ExceptionCheck()) ADD_FAILURE() << name << " threw " << TakeException();
        return Ref<jobject>(env, result);
    }

    jfieldID Field(jobject obj, const char* name, const char* signature) {
        Ref<jclass> cls(env, env->GetObjectClass(obj));
        jfieldID id = env->GetFieldID(cls.get(), name, signature);
        if (id == nullptr) ADD_FAILURE() << "field " << name << " " << signature << ": " << TakeException();
        return id;
    }
    Ref<jobject> ObjectField(jobject obj, const char* name, const char* signature) {
        return Ref<jobject>(env, env->GetObjectField(obj, Field(obj, name, signature)));
    }
    std::optional<std::u16string> StringField(jobject obj, const char* name) {
        Ref<jobject> s = ObjectField(obj, name, "Ljava/lang/String;");
        return Text(static_cast<jstring>(s.get()));
    }
    jlong LongField(jobject obj, const char* name) { return env->GetLongField(obj, Field(obj, name, "J")); }
    jint IntField(jobject obj, const char* name) { return env->GetIntField(obj, Field(obj, name, "I")); }
    bool BooleanField(jobject obj, const char* name) {
        return env->GetBooleanField(obj, Field(obj, name, "Z")) == JNI_TRUE;
    }

    // getOrdinalValue of a CErrorValue.
    int Ordinal(jobject errorValue) {
        Ref<jclass> cls = Class(kErrorValue);
        jmethodID mid = env->GetMethodID(cls.get(), "getOrdinalValue", "()I");
        return env->CallIntMethod(errorValue, mid);
    }
    // The ordinal of a result's errorValue; nullopt when it is null.
    std::optional<int> ErrorOrdinal(jobject result) {
        Ref<jobject> ev = ObjectField(result, "errorValue", kErrorValueSig);
        if (!ev) return std::nullopt;
        return Ordinal(ev.get());
    }

    // The strings of a String[] (nullopt for null elements).
    std::vector<std::optional<std::u16string>> Strings(jobject array) {
        std::vector<std::optional<std::u16string>> out;
        const jsize n = env->GetArrayLength(static_cast<jobjectArray>(array));
        for (jsize i = 0; i < n; ++i) {
            Ref<jstring> s(env, env->GetObjectArrayElement(static_cast<jobjectArray>(array), i), 0);
            out.push_back(Text(s.get()));
        }
        return out;
    }

    // A CPluginMetaData[] as text: name=value pairs, "#" for a null element, "~" for a null name or val.
    std::string MetaText(jobject array) {
        if (array == nullptr) return "null";
        std::string out;
        const jsize n = env->GetArrayLength(static_cast<jobjectArray>(array));
        for (jsize i = 0; i < n; ++i) {
            Ref<jobject> e(env, env->GetObjectArrayElement(static_cast<jobjectArray>(array), i));
            if (!out.empty()) out += ",";
            if (!e) {
                out += "#";
                continue;
            }
            out += Utf8(StringField(e.get(), "szPropertyName").value_or(u"~")) + "=";
            Ref<jobject> val = ObjectField(e.get(), "val", "Lcom/qv/AzureLibrary/CPluginValue;");
            out += val ? Utf8(StringField(val.get(), "szProperty").value_or(u"~")) : "~";
        }
        return out;
    }

    Ref<jbyteArray> Bytes(const std::string& bytes) {
        Ref<jbyteArray> a(env, env->NewByteArray(static_cast<jsize>(bytes.size())));
        env->SetByteArrayRegion(a.get(), 0, static_cast<jsize>(bytes.size()), reinterpret_cast<const jbyte*>(bytes.data()));
        return a;
    }
    std::string BytesOf(jbyteArray a) {
        std::string out(static_cast<size_t>(env->GetArrayLength(a)), '\0');
        env->GetByteArrayRegion(a, 0, static_cast<jsize>(out.size()), reinterpret_cast<jbyte*>(&out[0]));
        return out;
    }

    // A CPluginMetaData[] from name/value pairs.
    Ref<jobjectArray> Meta(const std::vector<std::pair<std::u16string, std::u16string>>& entries) {
        Ref<jclass> cls = Class("com/qv/AzureLibrary/CPluginMetaData");
        Ref<jobjectArray> array(env, env->NewObjectArray(static_cast<jsize>(entries.size()), cls.get(), nullptr));
        jmethodID ctor = env->GetMethodID(cls.get(), "<init>", "()V");
        for (size_t i = 0; i < entries.size(); ++i) {
            Ref<jobject> e(env, env->NewObject(cls.get(), ctor));
            Ref<jstring> name = J(entries[i].first);
            env->SetObjectField(e.get(), Field(e.get(), "szPropertyName", "Ljava/lang/String;"), name.get());
            Ref<jobject> val = ObjectField(e.get(), "val", "Lcom/qv/AzureLibrary/CPluginValue;");
            Ref<jstring> value = J(entries[i].second);
            env->SetObjectField(val.get(), Field(val.get(), "szProperty", "Ljava/lang/String;"), value.get());
            env->SetObjectArrayElement(array.get(), static_cast<jsize>(i), e.get());
        }
        return array;
    }

    Ref<jobjectArray> StringArray(const std::vector<std::optional<std::u16string>>& texts) {
        Ref<jclass> cls = Class("java/lang/String");
        Ref<jobjectArray> array(env, env->NewObjectArray(static_cast<jsize>(texts.size()), cls.get(), nullptr));
        for (size_t i = 0; i < texts.size(); ++i) {
            if (texts[i]) {
                Ref<jstring> s = J(*texts[i]);
                env->SetObjectArrayElement(array.get(), static_cast<jsize>(i), s.get());
            }
        }
        return array;
    }

    bool IsInstance(jobject obj, const char* className) {
        Ref<jclass> cls = Class(className);
        return env->IsInstanceOf(obj, cls.get()) == JNI_TRUE;
    }

    JNIEnv* env = nullptr;
};

// ------------------------------------------------------------------ the contract classes

TEST_F(TestDoubleTest, EveryContractFieldIsFoundWithItsJniSignature) {
    for (const FieldSig& f : ContractFields()) {
        Ref<jclass> cls = Class(f.cls);
        ASSERT_TRUE(cls) << f.cls;
        EXPECT_NE(env->GetFieldID(cls.get(), f.name, f.signature), nullptr) << f.cls << "." << f.name << " " << f.signature;
        if (env->ExceptionCheck()) ADD_FAILURE() << TakeException();
    }
}

TEST_F(TestDoubleTest, TheValuesFieldOfCGObjectMetaDataFnValueIsNotFoundWithTheMethodShapedSignature) {
    Ref<jclass> cls = Class("com/qv/AzureLibrary/CGObjectMetaDataFnValue");
    ASSERT_TRUE(cls);
    EXPECT_EQ(env->GetFieldID(cls.get(), "values", "()[Lcom/qv/AzureLibrary/CGObjectMetaDataFnValue;"), nullptr);
    ASSERT_TRUE(env->ExceptionCheck());
    EXPECT_NE(TakeException().find("NoSuchFieldError"), std::string::npos);
    // The field itself is there, as a metadata array.
    EXPECT_NE(env->GetFieldID(cls.get(), "values", kMetaSig), nullptr);
}

TEST_F(TestDoubleTest, ErrorValueHasItsTwoMethods) {
    Ref<jclass> cls = Class(kErrorValue);
    ASSERT_TRUE(cls);
    EXPECT_NE(env->GetMethodID(cls.get(), "getErrorID", "()Lcom/qv/QVCloudPluginInterface/ERRORID;"), nullptr);
    EXPECT_NE(env->GetMethodID(cls.get(), "getOrdinalValue", "()I"), nullptr);
}

TEST_F(TestDoubleTest, ErrorIdHas49ConstantsWithSuccessFirstAndErrorValueAnswersTheirOrdinals) {
    Ref<jclass> ids = Class("com/qv/QVCloudPluginInterface/ERRORID");
    ASSERT_TRUE(ids);
    jmethodID values = env->GetStaticMethodID(ids.get(), "values", "()[Lcom/qv/QVCloudPluginInterface/ERRORID;");
    jmethodID ordinal = env->GetMethodID(ids.get(), "ordinal", "()I");
    jmethodID name = env->GetMethodID(ids.get(), "name", "()Ljava/lang/String;");
    Ref<jobjectArray> all(env, env->CallStaticObjectMethod(ids.get(), values), 0);
    ASSERT_TRUE(all);
    ASSERT_EQ(env->GetArrayLength(all.get()), 49);
    Ref<jclass> errorValue = Class(kErrorValue);
    jmethodID ctor = env->GetMethodID(errorValue.get(), "<init>", "(Lcom/qv/QVCloudPluginInterface/ERRORID;)V");
    jmethodID getErrorID = env->GetMethodID(errorValue.get(), "getErrorID", "()Lcom/qv/QVCloudPluginInterface/ERRORID;");
    std::vector<std::u16string> names;
    for (jsize i = 0; i < 49; ++i) {
        Ref<jobject> id(env, env->GetObjectArrayElement(all.get(), i));
        EXPECT_EQ(env->CallIntMethod(id.get(), ordinal), i);
        Ref<jstring> n(env, env->CallObjectMethod(id.get(), name), 0);
        names.push_back(Text(n.get()).value_or(u""));
        Ref<jobject> ev(env, env->NewObject(errorValue.get(), ctor, id.get()));
        EXPECT_EQ(Ordinal(ev.get()), i);
        Ref<jobject> back(env, env->CallObjectMethod(ev.get(), getErrorID));
        EXPECT_TRUE(env->IsSameObject(back.get(), id.get()));
    }
    EXPECT_EQ(names[0], u"SUCCESS");
    EXPECT_EQ(names[3], u"NOT_FOUND");
    EXPECT_EQ(names[40], u"INTERNAL_ERROR");
}

TEST_F(TestDoubleTest, MetaDataConstructorMakesItsValue) {
    Ref<jclass> cls = Class("com/qv/AzureLibrary/CPluginMetaData");
    jmethodID ctor = env->GetMethodID(cls.get(), "<init>", "()V");
    ASSERT_NE(ctor, nullptr);
    Ref<jobject> meta(env, env->NewObject(cls.get(), ctor));
    ASSERT_TRUE(meta);
    Ref<jobject> val = ObjectField(meta.get(), "val", "Lcom/qv/AzureLibrary/CPluginValue;");
    ASSERT_TRUE(val);
    EXPECT_TRUE(IsInstance(val.get(), "com/qv/AzureLibrary/CPluginValue"));
    Ref<jobject> type = ObjectField(val.get(), "prpType", "Lcom/qv/AzureLibrary/CPropertyTYPE;");
    ASSERT_TRUE(type);
    EXPECT_TRUE(IsInstance(type.get(), "com/qv/AzureLibrary/CPropertyTYPE"));
    EXPECT_FALSE(StringField(meta.get(), "szPropertyName").has_value());
}

TEST_F(TestDoubleTest, TheAmazonClassesAreTheAzureOnesUnderAnotherName) {
    Ref<jclass> amazonInit = Class("com/qv/AmazonLibrary/CPluginInitData");
    Ref<jclass> azureInit = Class("com/qv/AzureLibrary/CPluginInitData");
    ASSERT_TRUE(amazonInit && azureInit);
    EXPECT_NE(env->GetMethodID(amazonInit.get(), "<init>", "(Ljava/lang/String;Ljava/lang/String;)V"), nullptr);
    EXPECT_NE(env->GetMethodID(azureInit.get(), "<init>", "(Ljava/lang/String;Ljava/lang/String;)V"), nullptr);
    EXPECT_TRUE(env->IsAssignableFrom(amazonInit.get(), azureInit.get()));
    EXPECT_FALSE(env->IsAssignableFrom(azureInit.get(), amazonInit.get()));

    Ref<jclass> amazonExist = Class("com/qv/AmazonLibrary/CIsObjectExistFnValue");
    Ref<jclass> azureExist = Class("com/qv/AzureLibrary/CIsObjectExistFnValue");
    ASSERT_TRUE(amazonExist && azureExist);
    EXPECT_TRUE(env->IsAssignableFrom(amazonExist.get(), azureExist.get()));
    // The Azure field ids read an Amazon object.
    Ref<jobject> double_ = MakeDouble();
    Ref<jstring> name = J(u"qv-backup");
    Ref<jobject> answer = Invoke(double_.get(), "IsContainerExists",
                                 "(Ljava/lang/String;)Lcom/qv/AmazonLibrary/CIsObjectExistFnValue;", name.get());
    ASSERT_TRUE(answer);
    EXPECT_TRUE(env->IsInstanceOf(answer.get(), amazonExist.get()));
    jfieldID isExist = env->GetFieldID(azureExist.get(), "isExist", "Z");
    EXPECT_EQ(env->GetBooleanField(answer.get(), isExist), JNI_TRUE);
}

TEST_F(TestDoubleTest, ThePluginClassHasEveryMethodOfTheContract) {
    Ref<jclass> cls = Class(kPlugin);
    ASSERT_TRUE(cls);
    for (const MethodSig& m : ContractMethods()) {
        EXPECT_NE(env->GetMethodID(cls.get(), m.name, m.signature), nullptr) << m.name << " " << m.signature;
        if (env->ExceptionCheck()) ADD_FAILURE() << TakeException();
    }
}

// ------------------------------------------------------------------ replies, through NextResult

TEST_F(TestDoubleTest, NextResultWithoutAScriptIsTheUsualAnswer) {
    Ref<jobject> list(env, TestDouble::NextResult(env, "GetListContainers"));
    ASSERT_TRUE(list);
    EXPECT_TRUE(IsInstance(list.get(), "com/qv/AzureLibrary/QVListContainers"));
    EXPECT_EQ(ErrorOrdinal(list.get()), 0);
    Ref<jobject> containers = ObjectField(list.get(), "containers", "[Lcom/qv/AzureLibrary/QVAzureContainer;");
    ASSERT_TRUE(containers);
    ASSERT_EQ(env->GetArrayLength(static_cast<jobjectArray>(containers.get())), 2);
    Ref<jobject> first(env, env->GetObjectArrayElement(static_cast<jobjectArray>(containers.get()), 0));
    EXPECT_EQ(StringField(first.get(), "containerName"), u"qv-backup");

    Ref<jobject> created(env, TestDouble::NextResult(env, "CreateObject"));
    ASSERT_TRUE(created);
    EXPECT_TRUE(IsInstance(created.get(), "com/qv/AzureLibrary/CCreateFnValue"));
    EXPECT_EQ(ErrorOrdinal(created.get()), 0);
    EXPECT_FALSE(StringField(created.get(), "objHandle").has_value());
    // Inspecting records no call.
    EXPECT_TRUE(TestDouble::Calls().empty());
}

TEST_F(TestDoubleTest, NextResultChoosesTheOverload) {
    Ref<jobject> write(env, TestDouble::NextResult(env, "WriteObject"));
    EXPECT_TRUE(IsInstance(write.get(), "com/qv/AzureLibrary/CWObjectHandleFnValue"));
    Ref<jobject> plainWrite(env, TestDouble::NextResult(env, "WriteObject", kWritePlain));
    EXPECT_TRUE(IsInstance(plainWrite.get(), kErrorValue));
    Ref<jobject> one(env, TestDouble::NextResult(env, "GetObjectMetaData"));
    EXPECT_TRUE(IsInstance(one.get(), "com/qv/AzureLibrary/CGetObjectMetaData"));
    Ref<jobject> all(env, TestDouble::NextResult(env, "GetObjectMetaData", kGetAllProperties));
    EXPECT_TRUE(IsInstance(all.get(), "com/qv/AzureLibrary/CGObjectMetaDataFnValue"));
    EXPECT_THROW(TestDouble::NextResult(env, "GetObjectMetaData", "(I)V"), std::runtime_error);
}

TEST_F(TestDoubleTest, ReturnNullAppliesToTheNextCallOnly) {
    TestDouble::ReturnNull("CreateObject");
    EXPECT_EQ(TestDouble::NextResult(env, "CreateObject"), nullptr);
    Ref<jobject> after(env, TestDouble::NextResult(env, "CreateObject"));
    EXPECT_TRUE(after);
}

TEST_F(TestDoubleTest, ReturnErrorOrdinalSetsTheErrorValueOfTheResult) {
    TestDouble::ReturnErrorOrdinal("CreateObject", 7);
    Ref<jobject> result(env, TestDouble::NextResult(env, "CreateObject"));
    ASSERT_TRUE(result);
    EXPECT_EQ(ErrorOrdinal(result.get()), 7);
    TestDouble::ReturnErrorOrdinal("AzureDeInit", 48);
    Ref<jobject> bare(env, TestDouble::NextResult(env, "AzureDeInit"));
    ASSERT_TRUE(bare);
    EXPECT_EQ(Ordinal(bare.get()), 48);
}

TEST_F(TestDoubleTest, OrdinalsThatNoErrorIdHasGiveANullErrorId) {
    Ref<jclass> cls = Class(kErrorValue);
    jmethodID getErrorID = env->GetMethodID(cls.get(), "getErrorID", "()Lcom/qv/QVCloudPluginInterface/ERRORID;");
    for (int ordinal : {-1, 49, 1000}) {
        TestDouble::ReturnErrorOrdinal("AzureDeInit", ordinal);
        Ref<jobject> value(env, TestDouble::NextResult(env, "AzureDeInit"));
        ASSERT_TRUE(value);
        EXPECT_EQ(Ordinal(value.get()), ordinal);
        Ref<jobject> id(env, env->CallObjectMethod(value.get(), getErrorID));
        EXPECT_FALSE(id) << ordinal;
    }
}

TEST_F(TestDoubleTest, ReturnErrorValueAnswersBothMethodsAsScripted) {
    Ref<jclass> cls = Class(kErrorValue);
    jmethodID getErrorID = env->GetMethodID(cls.get(), "getErrorID", "()Lcom/qv/QVCloudPluginInterface/ERRORID;");
    Ref<jclass> ids = Class("com/qv/QVCloudPluginInterface/ERRORID");
    jmethodID ordinal = env->GetMethodID(ids.get(), "ordinal", "()I");

    TestDouble::ReturnErrorValue("CloseObject", 5, 0);
    Ref<jobject> mismatched(env, TestDouble::NextResult(env, "CloseObject"));
    ASSERT_TRUE(mismatched);
    EXPECT_EQ(Ordinal(mismatched.get()), 0);
    Ref<jobject> id(env, env->CallObjectMethod(mismatched.get(), getErrorID));
    ASSERT_TRUE(id);
    EXPECT_EQ(env->CallIntMethod(id.get(), ordinal), 5);

    TestDouble::ReturnErrorValue("CloseObject", std::nullopt, 3);
    Ref<jobject> noId(env, TestDouble::NextResult(env, "CloseObject"));
    ASSERT_TRUE(noId);
    EXPECT_EQ(Ordinal(noId.get()), 3);
    Ref<jobject> none(env, env->CallObjectMethod(noId.get(), getErrorID));
    EXPECT_FALSE(none);
    EXPECT_THROW(TestDouble::ReturnErrorValue("CloseObject", 49, 0), std::runtime_error);
}

TEST_F(TestDoubleTest, ReturnNullErrorValueNullsTheField) {
    TestDouble::ReturnNullErrorValue("IsObjectExist");
    Ref<jobject> result(env, TestDouble::NextResult(env, "IsObjectExist"));
    ASSERT_TRUE(result);
    EXPECT_FALSE(ErrorOrdinal(result.get()).has_value());
    // A bare CErrorValue result becomes null.
    TestDouble::ReturnNullErrorValue("CloseObject");
    EXPECT_EQ(TestDouble::NextResult(env, "CloseObject"), nullptr);
}

TEST_F(TestDoubleTest, ThrowMakesNextResultFailWithTheMessage) {
    TestDouble::Throw("GetRegions", "region service down");
    try {
        TestDouble::NextResult(env, "GetRegions");
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("region service down"), std::string::npos) << e.what();
    }
    EXPECT_FALSE(env->ExceptionCheck());
}

TEST_F(TestDoubleTest, StringFieldsCarryEmbeddedNulsNonAsciiAndNull) {
    const std::u16string handle = u"a\0b\u00e9\U0001F600"s;
    TestDouble::SetString("CreateObject", "objHandle", handle);
    Ref<jobject> result(env, TestDouble::NextResult(env, "CreateObject"));
    ASSERT_TRUE(result);
    EXPECT_EQ(StringField(result.get(), "objHandle"), handle);
    EXPECT_EQ(ErrorOrdinal(result.get()), 0);

    TestDouble::SetString("GetUniqueAccountName", "accountName", std::nullopt);
    Ref<jobject> account(env, TestDouble::NextResult(env, "GetUniqueAccountName"));
    ASSERT_TRUE(account);
    EXPECT_FALSE(StringField(account.get(), "accountName").has_value());
}

TEST_F(TestDoubleTest, NumberAndBooleanFieldsAreSet) {
    TestDouble::SetLong("GetAllObjectsSize", "size", INT64_MIN);
    Ref<jobject> size(env, TestDouble::NextResult(env, "GetAllObjectsSize"));
    EXPECT_EQ(LongField(size.get(), "size"), INT64_MIN);

    TestDouble::SetInt("canBackup", "value", -7);
    Ref<jobject> can(env, TestDouble::NextResult(env, "canBackup"));
    EXPECT_EQ(IntField(can.get(), "value"), -7);

    TestDouble::SetBoolean("IsContainerExists", "isExist", false);
    Ref<jobject> exists(env, TestDouble::NextResult(env, "IsContainerExists"));
    EXPECT_TRUE(IsInstance(exists.get(), "com/qv/AmazonLibrary/CIsObjectExistFnValue"));
    EXPECT_FALSE(BooleanField(exists.get(), "isExist"));
    TestDouble::SetBoolean("IsObjectExist", "isExist", true);
    Ref<jobject> exists2(env, TestDouble::NextResult(env, "IsObjectExist"));
    EXPECT_TRUE(BooleanField(exists2.get(), "isExist"));

    TestDouble::SetLong("GetDefaultObjectSizeRange", "maxValue", 5);
    TestDouble::SetLong("GetDefaultObjectSizeRange", "minValue", 1);
    Ref<jobject> range(env, TestDouble::NextResult(env, "GetDefaultObjectSizeRange"));
    EXPECT_EQ(LongField(range.get(), "minValue"), 1);
    EXPECT_EQ(LongField(range.get(), "defaultValue"), 32 << 20);
    EXPECT_EQ(LongField(range.get(), "maxValue"), 5);
}

TEST_F(TestDoubleTest, SetNullFieldNullsAReferenceField) {
    TestDouble::SetNullField("GetAccountInfo", "accountType");
    Ref<jobject> info(env, TestDouble::NextResult(env, "GetAccountInfo"));
    ASSERT_TRUE(info);
    EXPECT_FALSE(StringField(info.get(), "accountType").has_value());
    EXPECT_EQ(StringField(info.get(), "accountIndentity"), u"qvstorageaccount");
    TestDouble::SetNullField("GetRegions", "regionsList");
    Ref<jobject> regions(env, TestDouble::NextResult(env, "GetRegions"));
    EXPECT_FALSE(ObjectField(regions.get(), "regionsList", "[Ljava/lang/String;"));
}

TEST_F(TestDoubleTest, StringArraysKeepTheirNullElements) {
    TestDouble::SetStringArray("GetRegions", "regionsList", {u"north", std::nullopt, u""});
    Ref<jobject> regions(env, TestDouble::NextResult(env, "GetRegions"));
    Ref<jobject> list = ObjectField(regions.get(), "regionsList", "[Ljava/lang/String;");
    ASSERT_TRUE(list);
    const auto texts = Strings(list.get());
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0], u"north");
    EXPECT_FALSE(texts[1].has_value());
    EXPECT_EQ(texts[2], u"");

    TestDouble::SetStringArray("getServerNameList", "arrayOfString", {});
    Ref<jobject> servers(env, TestDouble::NextResult(env, "getServerNameList"));
    Ref<jobject> none = ObjectField(servers.get(), "arrayOfString", "[Ljava/lang/String;");
    ASSERT_TRUE(none);
    EXPECT_EQ(env->GetArrayLength(static_cast<jobjectArray>(none.get())), 0);
}

TEST_F(TestDoubleTest, MetaDataArraysKeepNullElementsNamesAndValues) {
    MetaEntry plain{u"size", u"12"};
    MetaEntry nullElement;
    nullElement.nullElement = true;
    MetaEntry nullName{std::nullopt, u"x"};
    MetaEntry nullVal{u"k", u"ignored"};
    nullVal.nullVal = true;
    MetaEntry nullValue{u"v", std::nullopt};
    TestDouble::SetMetaData("ReadObjectByName", "values", {plain, nullElement, nullName, nullVal, nullValue});
    Ref<jobject> read(env, TestDouble::NextResult(env, "ReadObjectByName"));
    ASSERT_TRUE(read);
    Ref<jobject> values = ObjectField(read.get(), "values", kMetaSig);
    EXPECT_EQ(MetaText(values.get()), "size=12,#,~=x,k=~,v=~");

    TestDouble::SetMetaData("GetObjectMetaData", "values", {plain});
    Ref<jobject> all(env, TestDouble::NextResult(env, "GetObjectMetaData", kGetAllProperties));
    ASSERT_TRUE(all);
    Ref<jobject> allValues = ObjectField(all.get(), "values", kMetaSig);
    EXPECT_EQ(MetaText(allValues.get()), "size=12");
}

TEST_F(TestDoubleTest, SubListsKeepTheirShape) {
    SubListEntry a{u"dir/a", {MetaEntry{u"p", u"1"}, MetaEntry{u"q", u"2"}}};
    SubListEntry noName{std::nullopt, {MetaEntry{u"r", u"3"}}};
    SubListEntry noMeta{u"dir/c", {MetaEntry{u"lost", u"0"}}};
    noMeta.nullMetaData = true;
    SubListEntry nullElement;
    nullElement.nullElement = true;
    SubListEntry last{u"dir/d", {}};
    TestDouble::SetSubList("GetObjectSubList", {a, noName, noMeta, nullElement, last});
    Ref<jobject> result(env, TestDouble::NextResult(env, "GetObjectSubList"));
    ASSERT_TRUE(result);
    Ref<jobject> array = ObjectField(result.get(), "metaDat", "[Lcom/qv/AzureLibrary/CObjectSubListElement;");
    ASSERT_TRUE(array);
    auto* elements = static_cast<jobjectArray>(array.get());
    ASSERT_EQ(env->GetArrayLength(elements), 5);
    std::vector<std::string> seen;
    for (jsize i = 0; i < 5; ++i) {
        Ref<jobject> e(env, env->GetObjectArrayElement(elements, i));
        if (!e) {
            seen.push_back("#");
            continue;
        }
        Ref<jobject> meta = ObjectField(e.get(), "metaDat", kMetaSig);
        seen.push_back(Utf8(StringField(e.get(), "szFileName").value_or(u"~")) + ":" + MetaText(meta.get()));
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"dir/a:p=1,q=2", "~:r=3", "dir/c:null", "#", "dir/d:"}));
}

TEST_F(TestDoubleTest, ContainersKeepNullNamesAndNullElements) {
    TestDouble::SetContainers("GetArchiveSet", {u"x", std::nullopt, u"z"}, {2});
    Ref<jobject> result(env, TestDouble::NextResult(env, "GetArchiveSet"));
    ASSERT_TRUE(result);
    Ref<jobject> array = ObjectField(result.get(), "containers", "[Lcom/qv/AzureLibrary/QVAzureContainer;");
    auto* containers = static_cast<jobjectArray>(array.get());
    ASSERT_EQ(env->GetArrayLength(containers), 3);
    Ref<jobject> first(env, env->GetObjectArrayElement(containers, 0));
    Ref<jobject> second(env, env->GetObjectArrayElement(containers, 1));
    Ref<jobject> third(env, env->GetObjectArrayElement(containers, 2));
    EXPECT_EQ(StringField(first.get(), "containerName"), u"x");
    ASSERT_TRUE(second);
    EXPECT_FALSE(StringField(second.get(), "containerName").has_value());
    EXPECT_FALSE(third);
}

TEST_F(TestDoubleTest, CapabilitiesMapKeepsNullKeysNullValuesAndIntegerValues) {
    TestDouble::SetCapabilities({{u"a", u"1"}, {std::nullopt, u"v"}, {u"k", std::nullopt}, {u"n", u"42"}}, {u"n"});
    Ref<jobject> caps(env, TestDouble::NextResult(env, "GetCloudPluginCapabilities"));
    ASSERT_TRUE(caps);
    Ref<jobject> map = ObjectField(caps.get(), "pluginCapabilities", "Ljava/util/Map;");
    ASSERT_TRUE(map);
    Ref<jclass> mapClass = Class("java/util/Map");
    jmethodID get = env->GetMethodID(mapClass.get(), "get", "(Ljava/lang/Object;)Ljava/lang/Object;");
    jmethodID size = env->GetMethodID(mapClass.get(), "size", "()I");
    jmethodID containsKey = env->GetMethodID(mapClass.get(), "containsKey", "(Ljava/lang/Object;)Z");
    EXPECT_EQ(env->CallIntMethod(map.get(), size), 4);
    Ref<jstring> a = J(u"a");
    Ref<jstring> k = J(u"k");
    Ref<jstring> n = J(u"n");
    Ref<jstring> va(env, env->CallObjectMethod(map.get(), get, a.get()), 0);
    EXPECT_EQ(Text(va.get()), u"1");
    Ref<jstring> vnull(env, env->CallObjectMethod(map.get(), get, kNull), 0);
    EXPECT_EQ(Text(vnull.get()), u"v");
    EXPECT_TRUE(env->CallBooleanMethod(map.get(), containsKey, k.get()));
    Ref<jobject> vk(env, env->CallObjectMethod(map.get(), get, k.get()));
    EXPECT_FALSE(vk);
    Ref<jobject> vn(env, env->CallObjectMethod(map.get(), get, n.get()));
    ASSERT_TRUE(vn);
    ASSERT_TRUE(IsInstance(vn.get(), "java/lang/Integer"));
    Ref<jclass> integer = Class("java/lang/Integer");
    EXPECT_EQ(env->CallIntMethod(vn.get(), env->GetMethodID(integer.get(), "intValue", "()I")), 42);
}

TEST_F(TestDoubleTest, TheUsualCapabilitiesAreTextPairs) {
    Ref<jobject> caps(env, TestDouble::NextResult(env, "GetCloudPluginCapabilities"));
    Ref<jobject> map = ObjectField(caps.get(), "pluginCapabilities", "Ljava/util/Map;");
    Ref<jclass> mapClass = Class("java/util/Map");
    Ref<jstring> key = J(u"MaxObjectSize");
    Ref<jstring> value(env, env->CallObjectMethod(map.get(), env->GetMethodID(mapClass.get(), "get",
                                                  "(Ljava/lang/Object;)Ljava/lang/Object;"), key.get()), 0);
    EXPECT_EQ(Text(value.get()), u"268435456");
}

TEST_F(TestDoubleTest, RepliesQueueUpAndFieldSettersJoinTheLastReply) {
    Ref<jobject> plugin = MakeDouble();
    Ref<jstring> name = J(u"obj");
    TestDouble::ReturnErrorOrdinal("OpenObject", 3);
    TestDouble::SetString("OpenObject", "objHandle", u"first");
    TestDouble::ReturnErrorOrdinal("OpenObject", 4);
    TestDouble::ReturnNull("OpenObject");
    TestDouble::SetString("OpenObject", "objHandle", u"fourth");  // after a null reply: a reply of its own

    Ref<jobject> r1 = Invoke(plugin.get(), "OpenObject", kNameToCreate, name.get());
    Ref<jobject> r2 = Invoke(plugin.get(), "OpenObject", "(Ljava/lang/String;Z)Lcom/qv/AzureLibrary/CCreateFnValue;",
                             name.get(), JNI_TRUE);
    Ref<jobject> r3 = Invoke(plugin.get(), "OpenObject", kNameToCreate, name.get());
    Ref<jobject> r4 = Invoke(plugin.get(), "OpenObject", kNameToCreate, name.get());
    Ref<jobject> r5 = Invoke(plugin.get(), "OpenObject", kNameToCreate, name.get());
    ASSERT_TRUE(r1 && r2 && r4 && r5);
    EXPECT_EQ(ErrorOrdinal(r1.get()), 3);
    EXPECT_EQ(StringField(r1.get(), "objHandle"), u"first");
    EXPECT_EQ(ErrorOrdinal(r2.get()), 4);
    EXPECT_EQ(StringField(r2.get(), "objHandle"), u"handle:obj");
    EXPECT_FALSE(r3);
    EXPECT_EQ(ErrorOrdinal(r4.get()), 0);
    EXPECT_EQ(StringField(r4.get(), "objHandle"), u"fourth");
    EXPECT_EQ(ErrorOrdinal(r5.get()), 0);
    EXPECT_EQ(StringField(r5.get(), "objHandle"), u"handle:obj");
    EXPECT_EQ(TestDouble::CallCount("OpenObject"), 5u);
}

TEST_F(TestDoubleTest, ScriptsThroughJniReachThePlugInsCalls) {
    Ref<jobject> plugin = MakeDouble();
    Ref<jstring> name = J(u"obj");
    TestDouble::Throw("CloseObject", "handle expired");
    Ref<jclass> cls(env, env->GetObjectClass(plugin.get()));
    jmethodID close = env->GetMethodID(cls.get(), "CloseObject", kNameToError);
    Ref<jobject> none(env, env->CallObjectMethod(plugin.get(), close, name.get()));
    EXPECT_FALSE(none);
    ASSERT_TRUE(env->ExceptionCheck());
    const std::string thrown = TakeException();
    EXPECT_EQ(thrown, "java.lang.RuntimeException: handle expired");

    TestDouble::ReturnErrorOrdinal("DeleteObjectByName", 3);
    Ref<jobject> deleted = Invoke(plugin.get(), "DeleteObjectByName", kNameToError, name.get());
    ASSERT_TRUE(deleted);
    EXPECT_EQ(Ordinal(deleted.get()), 3);

    TestDouble::ReturnNull("GetAccountInfo");
    Ref<jobject> info = Invoke(plugin.get(), "GetAccountInfo", "()Lcom/qv/AzureLibrary/CGetAccountInfoFnValue;");
    EXPECT_FALSE(info);

    TestDouble::SetString("getStorageKey", "value", u"k\0ey"s);
    Ref<jobject> key = Invoke(plugin.get(), "getStorageKey",
                              "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/plugin/model/CString;", name.get(),
                              name.get());
    ASSERT_TRUE(key);
    EXPECT_EQ(StringField(key.get(), "value"), u"k\0ey"s);
    EXPECT_EQ(TestDouble::CallCount("CloseObject"), 1u);
    EXPECT_EQ(TestDouble::CallCount("GetAccountInfo"), 1u);
}

TEST_F(TestDoubleTest, ScriptedReadDataFillsTheArrayAndReportsTheCount) {
    Ref<jobject> plugin = MakeDouble();
    Ref<jstring> name = J(u"obj");
    Ref<jbyteArray> array(env, env->NewByteArray(8));
    TestDouble::SetReadData("ReadObject", "abc", 100);
    Ref<jobject> result = Invoke(plugin.get(), "ReadObject", kReadObject, name.get(), array.get(), jlong{8}, jlong{0});
    ASSERT_TRUE(result);
    EXPECT_EQ(LongField(result.get(), "sizeRead"), 100);
    EXPECT_EQ(BytesOf(array.get()), "abc\0\0\0\0\0"s);
    EXPECT_EQ(TestDouble::ByteArgument("ReadObject", 0), "abc");

    // More bytes than the array holds: as many as fit; the count defaults to the bytes' number.
    Ref<jbyteArray> small(env, env->NewByteArray(2));
    TestDouble::SetReadData("ReadObjectByHandle", "xyz");
    TestDouble::ReturnErrorOrdinal("ReadObjectByHandle", 14);  // a new reply: the read data belongs to the first
    Ref<jobject> byHandle = Invoke(plugin.get(), "ReadObjectByHandle", kReadByName, name.get(), small.get(), jlong{0},
                                   jlong{2}, kNull);
    ASSERT_TRUE(byHandle);
    EXPECT_EQ(LongField(byHandle.get(), "bytesRead"), 3);
    EXPECT_EQ(BytesOf(small.get()), "xy");
    EXPECT_EQ(ErrorOrdinal(byHandle.get()), 0);
    Ref<jobject> failed = Invoke(plugin.get(), "ReadObjectByHandle", kReadByName, name.get(), small.get(), jlong{0},
                                 jlong{2}, kNull);
    ASSERT_TRUE(failed);
    EXPECT_EQ(ErrorOrdinal(failed.get()), 14);
}

TEST_F(TestDoubleTest, GetObjectActualSizeAnswersAScriptedLong) {
    Ref<jobject> plugin = MakeDouble();
    Ref<jclass> cls(env, env->GetObjectClass(plugin.get()));
    jmethodID mid = env->GetMethodID(cls.get(), "GetObjectActualSize", "(JJ)J");
    EXPECT_EQ(env->CallLongMethod(plugin.get(), mid, jlong{1000}, jlong{512}), 1024);
    TestDouble::ReturnLong("GetObjectActualSize", -5);
    EXPECT_EQ(env->CallLongMethod(plugin.get(), mid, jlong{1000}, jlong{512}), -5);
    EXPECT_EQ(env->CallLongMethod(plugin.get(), mid, jlong{7}, jlong{0}), 7);
    EXPECT_EQ(TestDouble::DescribeCall("GetObjectActualSize", 1), "GetObjectActualSize(1000, 512)");
}

TEST_F(TestDoubleTest, ScriptingMistakesAreRefused) {
    EXPECT_THROW(TestDouble::ReturnNull("NoSuchMethod"), std::runtime_error);
    EXPECT_THROW(TestDouble::SetString("CreateObject", "noSuchField", u"x"), std::runtime_error);
    EXPECT_THROW(TestDouble::SetInt("GetAllObjectsSize", "size", 1), std::runtime_error);  // a long field
    EXPECT_THROW(TestDouble::SetString("CloseObject", "objHandle", u"x"), std::runtime_error);
    EXPECT_THROW(TestDouble::ReturnNull("GetObjectActualSize"), std::runtime_error);
    EXPECT_THROW(TestDouble::ReturnErrorOrdinal("GetCloudPluginCapabilities", 1), std::runtime_error);
    EXPECT_THROW(TestDouble::SetReadData("WriteObject", "x"), std::runtime_error);
    EXPECT_THROW(TestDouble::ReturnLong("CreateObject", 1), std::runtime_error);
    EXPECT_THROW(TestDouble::DescribeCall("CreateObject", 0), std::runtime_error);
    EXPECT_FALSE(env->ExceptionCheck());
    // None of them left a script behind.
    Ref<jobject> created(env, TestDouble::NextResult(env, "CreateObject"));
    EXPECT_EQ(ErrorOrdinal(created.get()), 0);
    EXPECT_FALSE(StringField(created.get(), "objHandle").has_value());
}

// ------------------------------------------------------------------ the record

TEST_F(TestDoubleTest, CallsAreRecordedWithTheirCanonicalText) {
    Ref<jobject> plugin = MakeDouble();
    Ref<jstring> init = J(u"init string");
    Ref<jstring> folder = J(u"C:\\folder");
    Invoke(plugin.get(), "AzureInit", kAzureInit, init.get(), folder.get());

    Ref<jstring> odd = J(u"a\0b\u00e9\"\\\n~"s);
    Ref<jbyteArray> data = Bytes("xyz");
    Ref<jobjectArray> meta = Meta({{u"b", u"2"}, {u"a", u"1"}});
    Invoke(plugin.get(), "WriteObject", kWriteFlag, odd.get(), data.get(), jlong{3}, meta.get(), jlong{4294967296LL});
    Invoke(plugin.get(), "OpenObject", "(Ljava/lang/String;Z)Lcom/qv/AzureLibrary/CCreateFnValue;", init.get(), JNI_TRUE);
    Invoke(plugin.get(), "IsObjectPathSupported", "(Ljava/lang/String;I)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;",
           kNull, jint{-2});
    Ref<jobjectArray> names = StringArray({u"x", std::nullopt});
    Ref<jbyteArray> buffer(env, env->NewByteArray(4));
    Invoke(plugin.get(), "ReadObjectByName", kReadByName, init.get(), buffer.get(), jlong{0}, jlong{4}, names.get());
    Invoke(plugin.get(), "ReadObjectByName", kReadByName, init.get(), kNull, jlong{-1}, jlong{0}, kNull);
    Invoke(plugin.get(), "addJobInfo", "(JJJJJJ)Lcom/qv/QVCloudPluginInterface/CErrorValue;", jlong{3}, jlong{4},
           jlong{1}, jlong{2}, jlong{6}, jlong{-5});
    Invoke(plugin.get(), "DeleteObjectByHandle", "([Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;",
           names.get());

    // Metadata with a null element, a null name and a null val.
    Ref<jobjectArray> odds = Meta({{u"n", u"v"}, {u"k", u"w"}, {u"z", u"z"}});
    Ref<jobject> second(env, env->GetObjectArrayElement(odds.get(), 1));
    env->SetObjectField(second.get(), Field(second.get(), "szPropertyName", "Ljava/lang/String;"), nullptr);
    Ref<jobject> third(env, env->GetObjectArrayElement(odds.get(), 2));
    env->SetObjectField(third.get(), Field(third.get(), "val", "Lcom/qv/AzureLibrary/CPluginValue;"), nullptr);
    env->SetObjectArrayElement(odds.get(), 0, nullptr);
    Invoke(plugin.get(), "CreateObject",
           "(Ljava/lang/String;[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/AzureLibrary/CCreateFnValue;", init.get(),
           odds.get());

    const std::vector<std::string> expected = {
        R"(<init>("install", "log"))",
        R"(AzureInit("init string", "C:\\folder"))",
        R"(WriteObject("a\u0000b\u00e9\"\\\u000a~", byte[3], 3, {"b"="2", "a"="1"}, 4294967296))",
        R"(OpenObject("init string", true))",
        R"(IsObjectPathSupported(null, -2))",
        R"(ReadObjectByName("init string", byte[4], 0, 4, ["x", null]))",
        R"(ReadObjectByName("init string", null, -1, 0, null))",
        R"(addJobInfo(3, 4, 1, 2, 6, -5))",
        R"(DeleteObjectByHandle(["x", null]))",
        R"(CreateObject("init string", {null, null="w", "z"=null}))",
    };
    EXPECT_EQ(TestDouble::Calls(), expected);
    EXPECT_EQ(TestDouble::CallCount("ReadObjectByName"), 2u);
    EXPECT_EQ(TestDouble::DescribeCall("ReadObjectByName", 1), expected[6]);
    EXPECT_EQ(TestDouble::CallCount("<init>"), 1u);
    EXPECT_EQ(TestDouble::CallCount("GetRegions"), 0u);
    EXPECT_EQ(TestDouble::ByteArgument("WriteObject", 0), "xyz");
    EXPECT_EQ(TestDouble::ByteArgument("AzureInit", 0), "");

    TestDouble::Reset();
    EXPECT_TRUE(TestDouble::Calls().empty());
    EXPECT_EQ(TestDouble::CallCount("WriteObject"), 0u);
}

TEST_F(TestDoubleTest, RecordedBytesAreACopyOfTheArgument) {
    Ref<jobject> plugin = MakeDouble();
    Ref<jstring> name = J(u"obj");
    Ref<jbyteArray> data = Bytes("before");
    Invoke(plugin.get(), "WriteObject", kWritePlain, name.get(), data.get(), jlong{6});
    const jbyte changed[] = {'X'};
    env->SetByteArrayRegion(data.get(), 0, 1, changed);
    EXPECT_EQ(TestDouble::ByteArgument("WriteObject", 0), "before");
}

// ------------------------------------------------------------------ the in-memory store

TEST_F(TestDoubleTest, TheStoreRoundTripsBytesAndMetaData) {
    Ref<jobject> plugin = MakeDouble();
    Ref<jstring> name = J(u"dir/a");
    Ref<jbyteArray> data = Bytes("hello world");
    Ref<jobjectArray> meta = Meta({{u"size", u"11"}, {u"kind", u"full"}});
    Ref<jobject> written = Invoke(plugin.get(), "WriteObject", kWriteMeta, name.get(), data.get(), jlong{11}, meta.get());
    ASSERT_TRUE(written);
    EXPECT_EQ(ErrorOrdinal(written.get()), 0);
    EXPECT_EQ(StringField(written.get(), "objHandle"), u"handle:dir/a");

    Ref<jobject> exists = Invoke(plugin.get(), "IsObjectExist", kNameToExist, name.get());
    EXPECT_TRUE(BooleanField(exists.get(), "isExist"));

    Ref<jbyteArray> five(env, env->NewByteArray(5));
    Ref<jobject> read = Invoke(plugin.get(), "ReadObject", kReadObject, name.get(), five.get(), jlong{5}, jlong{6});
    EXPECT_EQ(LongField(read.get(), "sizeRead"), 5);
    EXPECT_EQ(BytesOf(five.get()), "world");
    EXPECT_EQ(TestDouble::ByteArgument("ReadObject", 0), "world");

    Ref<jbyteArray> twenty(env, env->NewByteArray(20));
    Ref<jobjectArray> only = StringArray({u"kind"});
    Ref<jobject> byName = Invoke(plugin.get(), "ReadObjectByName", kReadByName, name.get(), twenty.get(), jlong{0},
                                 jlong{20}, only.get());
    EXPECT_EQ(LongField(byName.get(), "bytesRead"), 11);
    EXPECT_EQ(BytesOf(twenty.get()).substr(0, 11), "hello world");
    Ref<jobject> someValues = ObjectField(byName.get(), "values", kMetaSig);
    EXPECT_EQ(MetaText(someValues.get()), "kind=full");

    Ref<jstring> handle = J(u"handle:dir/a");
    Ref<jbyteArray> three(env, env->NewByteArray(3));
    Ref<jobject> byHandle = Invoke(plugin.get(), "ReadObjectByHandle", kReadByName, handle.get(), three.get(), jlong{2},
                                   jlong{3}, kNull);
    EXPECT_EQ(LongField(byHandle.get(), "bytesRead"), 3);
    EXPECT_EQ(BytesOf(three.get()), "llo");
    Ref<jobject> allValues = ObjectField(byHandle.get(), "values", kMetaSig);
    EXPECT_EQ(MetaText(allValues.get()), "size=11,kind=full");

    Ref<jstring> size = J(u"size");
    Ref<jobject> one = Invoke(plugin.get(), "GetObjectMetaData", kGetOneProperty, name.get(), size.get());
    EXPECT_EQ(StringField(one.get(), "value"), u"11");
    Ref<jstring> kind = J(u"kind");
    Ref<jstring> incremental = J(u"incremental");
    Invoke(plugin.get(), "SetObjectMetaData",
           "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;",
           name.get(), kind.get(), incremental.get());
    Ref<jobject> all = Invoke(plugin.get(), "GetObjectMetaData", kGetAllProperties, name.get());
    Ref<jobject> values = ObjectField(all.get(), "values", kMetaSig);
    EXPECT_EQ(MetaText(values.get()), "size=11,kind=incremental");

    Ref<jobject> total = Invoke(plugin.get(), "GetAllObjectsSize", "()Lcom/qv/AzureLibrary/CGetAccountSizeValue;");
    EXPECT_EQ(LongField(total.get(), "size"), 11);
    Ref<jobject> info = Invoke(plugin.get(), "GetAccountInfo", "()Lcom/qv/AzureLibrary/CGetAccountInfoFnValue;");
    EXPECT_EQ(LongField(info.get(), "usedSizeInByteTotal"), 11);
    EXPECT_EQ(LongField(info.get(), "remainedSizeInByteTotal"), (jlong{1} << 40) - 11);

    Invoke(plugin.get(), "DeleteObjectByName", kNameToError, name.get());
    Ref<jobject> gone = Invoke(plugin.get(), "IsObjectExist", kNameToExist, name.get());
    EXPECT_FALSE(BooleanField(gone.get(), "isExist"));
    Ref<jbyteArray> empty(env, env->NewByteArray(4));
    Ref<jobject> nothing = Invoke(plugin.get(), "ReadObject", kReadObject, name.get(), empty.get(), jlong{4}, jlong{0});
    EXPECT_EQ(LongField(nothing.get(), "sizeRead"), 0);
}

TEST_F(TestDoubleTest, TheStoreCreatesUpdatesListsAndDeletesByHandle) {
    Ref<jobject> plugin = MakeDouble();
    Ref<jstring> a = J(u"dir/a");
    Ref<jstring> b = J(u"dir/b");
    Ref<jstring> other = J(u"other");
    Ref<jobjectArray> meta = Meta({{u"p", u"1"}});
    Ref<jobject> created = Invoke(plugin.get(), "CreateObject",
                                  "(Ljava/lang/String;[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/AzureLibrary/CCreateFnValue;",
                                  a.get(), meta.get());
    EXPECT_EQ(StringField(created.get(), "objHandle"), u"handle:dir/a");
    Invoke(plugin.get(), "CreateCachedObject", kNameToCreate, b.get());
    Invoke(plugin.get(), "CreateObject", kNameToCreate, other.get());

    Ref<jstring> handle = J(u"handle:dir/b");
    Ref<jbyteArray> data = Bytes("0123456789");
    Ref<jobject> updated = Invoke(plugin.get(), "UpdateObject", kUpdate, handle.get(), other.get(), data.get(),
                                  jlong{4}, kNull);
    EXPECT_EQ(StringField(updated.get(), "objHandle"), u"handle:dir/b");
    Ref<jbyteArray> ten(env, env->NewByteArray(10));
    Ref<jobject> read = Invoke(plugin.get(), "ReadObject", kReadObject, b.get(), ten.get(), jlong{10}, jlong{0});
    EXPECT_EQ(LongField(read.get(), "sizeRead"), 4);
    EXPECT_EQ(TestDouble::ByteArgument("UpdateObject", 0), "0123456789");

    Ref<jstring> prefix = J(u"dir/");
    Ref<jobject> sub = Invoke(plugin.get(), "GetObjectSubList", "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CRetGetSubMetaDataList;",
                              prefix.get());
    Ref<jobject> elements = ObjectField(sub.get(), "metaDat", "[Lcom/qv/AzureLibrary/CObjectSubListElement;");
    ASSERT_TRUE(elements);
    std::vector<std::string> listed;
    for (jsize i = 0; i < env->GetArrayLength(static_cast<jobjectArray>(elements.get())); ++i) {
        Ref<jobject> e(env, env->GetObjectArrayElement(static_cast<jobjectArray>(elements.get()), i));
        Ref<jobject> m = ObjectField(e.get(), "metaDat", kMetaSig);
        listed.push_back(Utf8(StringField(e.get(), "szFileName").value_or(u"~")) + ":" + MetaText(m.get()));
    }
    EXPECT_EQ(listed, (std::vector<std::string>{"dir/a:p=1", "dir/b:"}));

    Ref<jobjectArray> handles = StringArray({u"handle:dir/a", std::nullopt, u"other"});
    Invoke(plugin.get(), "DeleteObjectByHandle", "([Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;",
           handles.get());
    for (jstring n : {a.get(), other.get()}) {
        Ref<jobject> exists = Invoke(plugin.get(), "IsObjectExist", kNameToExist, n);
        EXPECT_FALSE(BooleanField(exists.get(), "isExist"));
    }
    Ref<jobject> stays = Invoke(plugin.get(), "IsObjectExist", kNameToExist, b.get());
    EXPECT_TRUE(BooleanField(stays.get(), "isExist"));
}

TEST_F(TestDoubleTest, AccountAnswersAreConsistent) {
    Ref<jobject> plugin = MakeDouble();
    Ref<jstring> x = J(u"x");
    Ref<jstring> y = J(u"y");
    const char* sameSig = "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;";
    Ref<jobject> same = Invoke(plugin.get(), "IsSameAccount", sameSig, x.get(), x.get());
    Ref<jobject> different = Invoke(plugin.get(), "IsSameAccount", sameSig, x.get(), y.get());
    EXPECT_TRUE(BooleanField(same.get(), "isExist"));
    EXPECT_FALSE(BooleanField(different.get(), "isExist"));

    const char* keySig = "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/plugin/model/CString;";
    Ref<jobject> key1 = Invoke(plugin.get(), "getStorageKey", keySig, x.get(), y.get());
    Ref<jobject> key2 = Invoke(plugin.get(), "updateStorageKey", "()Lcom/qv/plugin/model/CString;");
    Ref<jobject> key3 = Invoke(plugin.get(), "getStorageKey", keySig, x.get(), y.get());
    EXPECT_EQ(StringField(key1.get(), "value"), u"key-1");
    EXPECT_EQ(StringField(key2.get(), "value"), u"key-2");
    EXPECT_EQ(StringField(key3.get(), "value"), u"key-2");

    Ref<jstring> backup = J(u"qv-backup");
    Ref<jstring> unknown = J(u"unknown");
    Ref<jobject> valid = Invoke(plugin.get(), "IsValidContainer", kNameToExist, backup.get());
    Ref<jobject> invalid = Invoke(plugin.get(), "IsValidContainer", kNameToExist, unknown.get());
    EXPECT_TRUE(BooleanField(valid.get(), "isExist"));
    EXPECT_FALSE(BooleanField(invalid.get(), "isExist"));
}

TEST_F(TestDoubleTest, ConcurrentCallsAreAllRecordedAndStored) {
    constexpr int kThreads = 4;
    constexpr int kWrites = 50;
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    Ref<jobject> plugin = MakeDouble();
    jobject shared = env->NewGlobalRef(plugin.get());
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, shared, &failures] {
            JNIEnv* e = TestEnv();
            jclass cls = e->GetObjectClass(shared);
            jmethodID write = e->GetMethodID(cls, "WriteObject", kWritePlain);
            for (int i = 0; i < kWrites; ++i) {
                const std::u16string name = u"t" + std::u16string(1, static_cast<char16_t>(u'0' + t)) + u"/" +
                                            std::u16string(1, static_cast<char16_t>(u'A' + i));
                jstring jname = e->NewString(reinterpret_cast<const jchar*>(name.data()), static_cast<jsize>(name.size()));
                jbyteArray data = e->NewByteArray(t + 1);
                jobject result = e->CallObjectMethod(shared, write, jname, data, jlong{t + 1});
                if (result == nullptr || e->ExceptionCheck()) ++failures[static_cast<size_t>(t)];
                e->ExceptionClear();
                e->DeleteLocalRef(result);
                e->DeleteLocalRef(data);
                e->DeleteLocalRef(jname);
            }
            e->DeleteLocalRef(cls);
            TestJvm()->DetachCurrentThread();
        });
    }
    for (std::thread& th : threads) th.join();
    env->DeleteGlobalRef(shared);
    EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
    EXPECT_EQ(TestDouble::CallCount("WriteObject"), static_cast<size_t>(kThreads * kWrites));
    Ref<jobject> total = Invoke(plugin.get(), "GetAllObjectsSize", "()Lcom/qv/AzureLibrary/CGetAccountSizeValue;");
    EXPECT_EQ(LongField(total.get(), "size"), kWrites * (1 + 2 + 3 + 4));
}

TEST_F(TestDoubleTest, AWriteOfHundredsOfMebibytesRoundTrips) {
    constexpr jsize kSize = 256 << 20;
    std::string bytes(static_cast<size_t>(kSize), '\0');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((i * 131u) >> 7);
    Ref<jobject> plugin = MakeDouble();
    Ref<jstring> name = J(u"big");
    {
        Ref<jbyteArray> data = Bytes(bytes);
        Ref<jobject> written = Invoke(plugin.get(), "WriteObject", kWritePlain, name.get(), data.get(), jlong{kSize});
        EXPECT_EQ(Ordinal(written.get()), 0);
    }
    EXPECT_TRUE(TestDouble::ByteArgument("WriteObject", 0) == bytes);
    Ref<jbyteArray> back(env, env->NewByteArray(kSize));
    ASSERT_TRUE(back);
    Ref<jobject> read = Invoke(plugin.get(), "ReadObject", kReadObject, name.get(), back.get(), jlong{kSize}, jlong{0});
    EXPECT_EQ(LongField(read.get(), "sizeRead"), kSize);
    EXPECT_TRUE(BytesOf(back.get()) == bytes);
}

}  // namespace
}  // namespace jnitest
