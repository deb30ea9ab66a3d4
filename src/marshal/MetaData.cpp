#include "marshal/MetaData.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <utility>

namespace {

constexpr const char* kPluginMetaDataClass = "com/qv/AzureLibrary/CPluginMetaData";
constexpr const char* kPluginValueClass = "com/qv/AzureLibrary/CPluginValue";
constexpr const char* kObjectSubListElementClass = "com/qv/AzureLibrary/CObjectSubListElement";
constexpr const char* kPluginValueSignature = "Lcom/qv/AzureLibrary/CPluginValue;";
constexpr const char* kPropertyTypeSignature = "Lcom/qv/AzureLibrary/CPropertyTYPE;";
constexpr const char* kPluginMetaDataArraySignature = "[Lcom/qv/AzureLibrary/CPluginMetaData;";

}  // namespace

// ---- metadata

LocalRef<jobject> CreatePluginMetaDataObject(JNIEnv* env) {
    LocalRef<jobject> none(env, nullptr);
    if (!env) return none;
    const LocalRef<jclass> cls(env, env->FindClass(kPluginMetaDataClass));
    if (!cls) {
        ClearPendingException(env);
        return none;
    }
    const jmethodID constructor = GetMethodIdWithReport(env, cls.get(), "<init>", "()V");
    if (!constructor) {
        // The lookup has traced and cleared the exception already, so this second report finds none;
        // without a constructor there is nothing to make.
        TracePendingException(env);
        return none;
    }
    LocalRef<jobject> element(env, env->NewObject(cls.get(), constructor));
    if (!element) ClearPendingException(env);
    return element;
}

LocalRef<jobjectArray> CreatePluginMetaDataArray(JNIEnv* env, int32_t count, jclass elementClass,
                                                 jobject initialElement) {
    LocalRef<jobjectArray> none(env, nullptr);
    if (!env) return none;
    if (env->EnsureLocalCapacity(2) < 0) {
        ClearPendingException(env);
        return none;
    }
    if (!elementClass || count < 0) return none;
    LocalRef<jobjectArray> array(env, env->NewObjectArray(count, elementClass, initialElement));
    if (!array) ClearPendingException(env);
    return array;
}

void FillPluginMetaDataArray(JNIEnv* env, jobjectArray array, const ObjectMetaData* metaData) {
    if (!env || !array || !metaData) return;
    const JavaClassFields metaDataClass(env, kPluginMetaDataClass);
    const jfieldID valId = metaDataClass.Id("val", kPluginValueSignature);
    const jfieldID nameId = metaDataClass.Id("szPropertyName", kJavaStringSignature);
    // Slot i belongs to the i-th entry in name order; a slot whose element cannot be made keeps the
    // array's initial element.
    jsize index = 0;
    for (const auto& entry : *metaData) {
        const jsize slot = index++;
        const LocalRef<jobject> element = CreatePluginMetaDataObject(env);
        if (!element) continue;
        const JavaClassFields elementClass = JavaClassFields::OfObject(env, element.get());
        if (!elementClass.Found()) continue;
        // The constructor made the val object; only its text is filled in, so its prpType stays the
        // constructor's.
        const LocalRef<jobject> val =
            elementClass.Object(element.get(), elementClass.Id("val", kPluginValueSignature));
        WritePluginValue(env, val.get(), entry.second);
        const LocalRef<jstring> name = GetJStringFromWideString(env, entry.first);
        metaDataClass.SetObject(element.get(), nameId, name.get());
        metaDataClass.SetObject(element.get(), valId, val.get());
        env->SetObjectArrayElement(array, slot, element.get());
        // An array shorter than the map refuses the slot; the entry is then simply not sent.
        ClearPendingException(env);
    }
}

void ReadPluginMetaDataArray(JNIEnv* env, jobjectArray array, ObjectMetaData* metaData) {
    if (!env || !array) return;
    const JavaClassFields metaDataClass(env, kPluginMetaDataClass);
    const jfieldID valId = metaDataClass.Id("val", kPluginValueSignature);
    const jfieldID nameId = metaDataClass.Id("szPropertyName", kJavaStringSignature);
    if (!metaData) return;
    ForEachArrayElement(env, array, [&](jobject element) {
        const LocalRef<jobject> name = metaDataClass.Object(element, nameId);
        const LocalRef<jobject> val = metaDataClass.Object(element, valId);
        if (!name) return;
        MetaDataValue value;
        ReadPluginValue(env, val.get(), &value);
        std::optional<WideString> text = GetWideStringFromJString(env, static_cast<jstring>(name.get()));
        // emplace keeps an entry already present: the first element of a name wins.
        metaData->emplace(text ? std::move(*text) : WideString(), std::move(value));
    });
}

void ReadPluginValue(JNIEnv* env, jobject value, MetaDataValue* out) {
    if (!env || !value || !out) return;
    const JavaClassFields valueClass(env, kPluginValueClass);
    const jfieldID typeId = valueClass.Id("prpType", kPropertyTypeSignature);
    const jfieldID textId = valueClass.Id("szProperty", kJavaStringSignature);
    if (typeId) {
        // Hosts receive the property type as the low 32 bits of the reference to the Java enum constant,
        // as they always have: an opaque word that no one on the native side interprets.
        const LocalRef<jobject> type = valueClass.Object(value, typeId);
        out->prpType = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(type.get()));
    }
    if (std::optional<WideString> text = valueClass.String(value, textId)) out->szProperty = std::move(*text);
}

void WritePluginValue(JNIEnv* env, jobject value, const MetaDataValue& in) {
    if (!env || !value) return;
    const JavaClassFields valueClass(env, kPluginValueClass);
    // prpType is looked up but never written: the Java value keeps the type its constructor gave it.
    (void)valueClass.Id("prpType", kPropertyTypeSignature);
    const jfieldID textId = valueClass.Id("szProperty", kJavaStringSignature);
    if (!textId) return;
    const LocalRef<jstring> text = GetJStringFromWideString(env, in.szProperty);
    valueClass.SetObject(value, textId, text.get());
}

LocalRef<jobjectArray> MakePluginMetaDataArray(JNIEnv* env, const ObjectMetaData* metaData) {
    LocalRef<jobjectArray> none(env, nullptr);
    if (!env || !metaData) return none;
    if (metaData->size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return none;
    const LocalRef<jobject> initial = CreatePluginMetaDataObject(env);
    const LocalRef<jclass> cls(env, env->FindClass(kPluginMetaDataClass));
    if (!cls) {
        ClearPendingException(env);
        return none;
    }
    LocalRef<jobjectArray> array =
        CreatePluginMetaDataArray(env, static_cast<int32_t>(metaData->size()), cls.get(), initial.get());
    FillPluginMetaDataArray(env, array.get(), metaData);
    return array;
}

// ---- object sub-lists

void ReadObjectSubList(JNIEnv* env, jobjectArray array, ObjectSubList* subList) {
    if (!env || !array || !subList) return;
    // One lookup serves every element: nothing can change the class within one conversion.
    const JavaClassFields elementClass(env, kObjectSubListElementClass);
    const jfieldID metaDataId = elementClass.Id("metaDat", kPluginMetaDataArraySignature);
    const jfieldID fileNameId = elementClass.Id("szFileName", kJavaStringSignature);
    ForEachArrayElement(env, array, [&](jobject element) {
        const LocalRef<jobject> fileName = elementClass.Object(element, fileNameId);
        const LocalRef<jobject> metaDat = elementClass.Object(element, metaDataId);
        if (!fileName || !metaDat) return;
        auto metaData = std::make_unique<ObjectMetaData>();
        ReadPluginMetaDataArray(env, static_cast<jobjectArray>(metaDat.get()), metaData.get());
        std::optional<WideString> text = GetWideStringFromJString(env, static_cast<jstring>(fileName.get()));
        // A file name already present keeps its first entry; the new record is then freed here.
        if (subList->emplace(text ? std::move(*text) : WideString(), metaData.get()).second)
            metaData.release();
    });
}

void FreeObjectSubList(ObjectSubList* subList) {
    if (!subList) return;
    for (auto& entry : *subList) delete entry.second;
    subList->clear();
    delete subList;
}
