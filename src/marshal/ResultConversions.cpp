#include "marshal/ResultConversions.h"

#include <optional>
#include <utility>

#include "bridge/ErrorMapping.h"
#include "bridge/LocalRef.h"
#include "marshal/JniValues.h"
#include "marshal/MetaData.h"

namespace {

constexpr const char* kErrorValueSignature = "Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kStringArraySignature = "[Ljava/lang/String;";
constexpr const char* kLongSignature = "J";

// One Java result object and the fields of its class. A class that is
// missing, or that the result is not an instance of, makes every field read
// as absent.
class ResultFields {
public:
    ResultFields(JNIEnv* env, jobject result, const char* className)
        : m_env(env), m_result(result), m_class(JavaClassFields::ForInstance(env, className, result)) {}

    jfieldID Id(const char* name, const char* signature) const { return m_class.Id(name, signature); }
    jfieldID ErrorValueId() const { return Id("errorValue", kErrorValueSignature); }

    LocalRef<jobject> Object(jfieldID id) const { return m_class.Object(m_result, id); }
    std::optional<WideString> String(jfieldID id) const { return m_class.String(m_result, id); }
    std::optional<int64_t> Long(jfieldID id) const { return m_class.Long(m_result, id); }
    std::optional<bool> Boolean(jfieldID id) const { return m_class.Boolean(m_result, id); }
    std::optional<int32_t> Int(jfieldID id) const { return m_class.Int(m_result, id); }

    std::optional<WideString> String(const char* name) const {
        return String(Id(name, kJavaStringSignature));
    }
    std::optional<int64_t> Long(const char* name) const { return Long(Id(name, kLongSignature)); }

    // The error id of a CErrorValue (40 for a null one), in the Java library's numbering.
    void ExtractErrorId(jobject errorValue, uint32_t* errorId) const {
        ReadErrorOrdinal(m_env, errorValue, errorId);
    }
    // The error id of the errorValue field; a missing field leaves the error id as it was.
    void ReadErrorId(uint32_t* errorId) const {
        const jfieldID id = ErrorValueId();
        if (id) ExtractErrorId(Object(id).get(), errorId);
    }

private:
    JNIEnv* m_env;
    jobject m_result;
    JavaClassFields m_class;
};

template <typename T>
void Preset(T* out, T value) {
    if (out) *out = std::move(value);
}

// Writes a value that was read; a value that was not read leaves the output as it was.
template <typename T, typename V>
void Store(T* out, std::optional<V> value) {
    if (out && value) *out = static_cast<T>(std::move(*value));
}

// The shape every conversion shares: nothing for a null result; otherwise
// `reads` runs on the result's fields, and a native exception out of it gives
// error id 40 (the local references made so far are released on the way).
template <typename Reads>
void ConvertResult(JNIEnv* env, jobject result, const char* className, uint32_t* errorId, Reads&& reads) {
    if (!env || !result) return;
    try {
        const ResultFields fields(env, result, className);
        reads(fields);
    } catch (...) {
        Preset(errorId, kResultBridgeFailure);
    }
}

// Appends to `list`, in array order, the text that `textOf` finds in each
// non-null element of `array`; an element without text adds nothing. Nothing
// is appended without a list.
template <typename TextOf>
void AppendTexts(JNIEnv* env, jobject array, StringList* list, TextOf&& textOf) {
    if (!list) return;
    ForEachArrayElement(env, array, [&](jobject element) {
        if (std::optional<WideString> text = textOf(element)) list->push_back(std::move(*text));
    });
}

// A result of an error value and one string that is emptied first (account names, object handles,
// property values).
void ConvertStringResult(JNIEnv* env, jobject result, const char* className, const char* field,
                         uint32_t* errorId, WideString* text) {
    Preset(errorId, 0u);
    if (text) text->clear();
    ConvertResult(env, result, className, errorId, [&](const ResultFields& fields) {
        fields.ReadErrorId(errorId);
        Store(text, fields.String(field));
    });
}

// A result of an error value and a String[] appended to a list. Both fields must be found; the error id
// comes before the array.
void ConvertStringArrayResult(JNIEnv* env, jobject result, const char* className, const char* field,
                              uint32_t* errorId, StringList* list) {
    Preset(errorId, 0u);
    ConvertResult(env, result, className, errorId, [&](const ResultFields& fields) {
        const jfieldID errorValueId = fields.ErrorValueId();
        const jfieldID arrayId = fields.Id(field, kStringArraySignature);
        if (!errorValueId || !arrayId) return;
        fields.ExtractErrorId(fields.Object(errorValueId).get(), errorId);
        const LocalRef<jobject> array = fields.Object(arrayId);
        AppendTexts(env, array.get(), list, [env](jobject element) {
            return GetWideStringFromJString(env, static_cast<jstring>(element));
        });
    });
}

}  // namespace

void ConvertCGDefaultObjSizeRangeValue(JNIEnv* env, jobject result, uint32_t* errorId,
                                       SizeRangeRecord* range) {
    ConvertResult(env, result, "com/qv/AzureLibrary/CGDefaultObjSizeRangeValue", errorId,
                  [&](const ResultFields& fields) {
                      fields.ReadErrorId(errorId);
                      if (!range) return;
                      Store(&range->minimum, fields.Long("minValue"));
                      Store(&range->defaultSize, fields.Long("defaultValue"));
                      Store(&range->maximum, fields.Long("maxValue"));
                  });
}

void ConvertCUniqueAccountValue(JNIEnv* env, jobject result, uint32_t* errorId, WideString* accountName) {
    ConvertStringResult(env, result, "com/qv/AzureLibrary/CUniqueAccountValue", "accountName", errorId,
                        accountName);
}

void ConvertCInt(JNIEnv* env, jobject result, uint32_t* errorId, int32_t* value) {
    Preset(errorId, 0u);
    ConvertResult(env, result, "com/qv/plugin/model/CInt", errorId, [&](const ResultFields& fields) {
        const jfieldID valueId = fields.Id("value", "I");
        const jfieldID errorValueId = fields.ErrorValueId();
        if (!valueId || !errorValueId) return;
        // A null error value is no error here: the id stays 0 and the value still counts.
        const LocalRef<jobject> errorValue = fields.Object(errorValueId);
        if (errorValue) fields.ExtractErrorId(errorValue.get(), errorId);
        Store(value, fields.Int(valueId));
    });
}

void ConvertCGetAccountSizeValue(JNIEnv* env, jobject result, uint32_t* errorId, int64_t* size) {
    Preset(errorId, 0u);
    Preset(size, int64_t{0});
    ConvertResult(env, result, "com/qv/AzureLibrary/CGetAccountSizeValue", errorId,
                  [&](const ResultFields& fields) {
                      fields.ReadErrorId(errorId);
                      Store(size, fields.Long("size"));
                  });
}

void ConvertQVListRegions(JNIEnv* env, jobject result, uint32_t* errorId, StringList* regions) {
    ConvertStringArrayResult(env, result, "com/qv/AzureLibrary/QVListRegions", "regionsList", errorId,
                             regions);
}

void ConvertQVListContainers(JNIEnv* env, jobject result, uint32_t* errorId, StringList* containers) {
    Preset(errorId, 0u);
    ConvertResult(
        env, result, "com/qv/AzureLibrary/QVListContainers", errorId, [&](const ResultFields& fields) {
            // The error value is optional here, but a result that has the field and leaves it null carries no
            // containers either.
            if (const jfieldID errorValueId = fields.ErrorValueId()) {
                const LocalRef<jobject> errorValue = fields.Object(errorValueId);
                if (!errorValue) return;
                fields.ExtractErrorId(errorValue.get(), errorId);
            }
            const LocalRef<jobject> array =
                fields.Object(fields.Id("containers", "[Lcom/qv/AzureLibrary/QVAzureContainer;"));
            if (!array || !containers) return;
            const JavaClassFields containerClass(env, "com/qv/AzureLibrary/QVAzureContainer");
            const jfieldID nameId = containerClass.Id("containerName", kJavaStringSignature);
            AppendTexts(env, array.get(), containers,
                        [&](jobject container) { return containerClass.String(container, nameId); });
        });
}

void ConvertCCreateFnValue(JNIEnv* env, jobject result, uint32_t* errorId, WideString* handle) {
    ConvertStringResult(env, result, "com/qv/AzureLibrary/CCreateFnValue", "objHandle", errorId, handle);
}

void ConvertCGetObjectMetaData(JNIEnv* env, jobject result, uint32_t* errorId, WideString* value) {
    ConvertStringResult(env, result, "com/qv/AzureLibrary/CGetObjectMetaData", "value", errorId, value);
}

void ConvertCWObjectHandleFnValue(JNIEnv* env, jobject result, uint32_t* errorId, WideString* handle) {
    ConvertStringResult(env, result, "com/qv/AzureLibrary/CWObjectHandleFnValue", "objHandle", errorId,
                        handle);
}

void ConvertCIsObjectExistFnValue(JNIEnv* env, jobject result, uint32_t* errorId, uint32_t* exists) {
    Preset(errorId, 0u);
    ConvertResult(env, result, "com/qv/AzureLibrary/CIsObjectExistFnValue", errorId,
                  [&](const ResultFields& fields) {
                      fields.ReadErrorId(errorId);
                      Store(exists, fields.Boolean(fields.Id("isExist", "Z")));
                  });
}

void ConvertCGObjectMetaDataFnValue(JNIEnv* env, jobject result, uint32_t* errorId,
                                    ObjectMetaData* metaData) {
    ConvertResult(
        env, result, "com/qv/AzureLibrary/CGObjectMetaDataFnValue", errorId, [&](const ResultFields& fields) {
            fields.ReadErrorId(errorId);
            if (!metaData) return;
            // The field is named with this method-shaped signature, as hosts have always had it:
            // no field matches it, so it reads as absent and the metadata stays as it was.
            const LocalRef<jobject> values =
                fields.Object(fields.Id("values", "()[Lcom/qv/AzureLibrary/CGObjectMetaDataFnValue;"));
            ReadPluginMetaDataArray(env, static_cast<jobjectArray>(values.get()), metaData);
        });
}

void ConvertCRObjectByNameFnValue(JNIEnv* env, jobject result, uint32_t* errorId, uint64_t* bytesRead,
                                  ObjectMetaData* metaData) {
    ConvertResult(env, result, "com/qv/AzureLibrary/CRObjectByNameFnValue", errorId,
                  [&](const ResultFields& fields) {
                      fields.ReadErrorId(errorId);
                      const LocalRef<jobject> values =
                          fields.Object(fields.Id("values", "[Lcom/qv/AzureLibrary/CPluginMetaData;"));
                      Store(bytesRead, fields.Long("bytesRead"));
                      ReadPluginMetaDataArray(env, static_cast<jobjectArray>(values.get()), metaData);
                  });
}

void ConvertCReadObjectFnValue(JNIEnv* env, jobject result, uint32_t* errorId, uint64_t* sizeRead) {
    ConvertResult(env, result, "com/qv/AzureLibrary/CReadObjectFnValue", errorId,
                  [&](const ResultFields& fields) {
                      fields.ReadErrorId(errorId);
                      Store(sizeRead, fields.Long("sizeRead"));
                  });
}

void ConvertCRetGetSubMetaDataList(JNIEnv* env, jobject result, uint32_t* errorId, ObjectSubList** subList) {
    ConvertResult(env, result, "com/qv/AzureLibrary/CRetGetSubMetaDataList", errorId,
                  [&](const ResultFields& fields) {
                      // Only a present error value sets the error id.
                      const LocalRef<jobject> errorValue = fields.Object(fields.ErrorValueId());
                      if (errorValue) fields.ExtractErrorId(errorValue.get(), errorId);
                      if (!subList) return;
                      // The host always receives a sub-list, empty when Java has no entries; it owns it
                      // from here on.
                      *subList = new ObjectSubList();
                      const LocalRef<jobject> elements =
                          fields.Object(fields.Id("metaDat", "[Lcom/qv/AzureLibrary/CObjectSubListElement;"));
                      ReadObjectSubList(env, static_cast<jobjectArray>(elements.get()), *subList);
                  });
}

void ConvertCGetAccountInfoFnValue(JNIEnv* env, jobject result, uint32_t* errorId, AccountInfoRecord* info) {
    ConvertResult(env, result, "com/qv/AzureLibrary/CGetAccountInfoFnValue", errorId,
                  [&](const ResultFields& fields) {
                      fields.ReadErrorId(errorId);
                      if (!info) return;
                      // Each value is written as soon as it is read, in this order, so a failure part way
                      // leaves the earlier ones written.
                      Store(&info->accountIndentity, fields.String("accountIndentity"));
                      Store(&info->accountType, fields.String("accountType"));
                      Store(&info->displayName, fields.String("displayName"));
                      Store(&info->emailAddress, fields.String("emailAddress"));
                      Store(&info->usedSizeInByteTotal, fields.Long("usedSizeInByteTotal"));
                      Store(&info->remainedSizeInByteTotal, fields.Long("remainedSizeInByteTotal"));
                  });
}

void ConvertCArrayOfString(JNIEnv* env, jobject result, uint32_t* errorId, StringList* strings) {
    ConvertStringArrayResult(env, result, "com/qv/plugin/model/CArrayOfString", "arrayOfString", errorId,
                             strings);
}

void ConvertCString(JNIEnv* env, jobject result, uint32_t* errorId, WideString* value) {
    Preset(errorId, 0u);
    ConvertResult(env, result, "com/qv/plugin/model/CString", errorId, [&](const ResultFields& fields) {
        const jfieldID errorValueId = fields.ErrorValueId();
        const jfieldID valueId = fields.Id("value", kJavaStringSignature);
        if (!errorValueId || !valueId) return;
        fields.ExtractErrorId(fields.Object(errorValueId).get(), errorId);
        Store(value, fields.String(valueId));
    });
}
