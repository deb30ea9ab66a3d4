// Conversions of the Java result objects that the storage methods return into
// the host's native outputs, one function per Java result class.
//
// Every conversion follows one shape:
//   - the outputs that have a preset get it (error id 0, strings emptied, ...);
//   - a null result stops there, so outputs without a preset keep whatever the
//     caller put into them;
//   - the result class is looked up by name and each field by name and JNI
//     signature; a field (or class) that is not found reads as absent and its
//     output keeps its preset;
//   - the errorValue object becomes the error id through ReadErrorOrdinal (a
//     null one gives 40 there), in the Java library's numbering;
//   - a native exception (an allocation failure, say) is caught: the error id
//     becomes 40 and outputs already written stay written.
// The result object stays owned by the caller; every other local reference
// made here is deleted before returning. Null output pointers are never
// written through.
#pragma once

#include <jni.h>

#include <cstdint>

#include "cloudplugin/ICloudPluginInterface.h"

// com/qv/AzureLibrary/CGDefaultObjSizeRangeValue: minValue, defaultValue, maxValue.
void ConvertCGDefaultObjSizeRangeValue(JNIEnv* env, jobject result, uint32_t* errorId,
                                       SizeRangeRecord* range);

// com/qv/AzureLibrary/CUniqueAccountValue: accountName.
void ConvertCUniqueAccountValue(JNIEnv* env, jobject result, uint32_t* errorId, WideString* accountName);

// com/qv/plugin/model/CInt: value (an int).
void ConvertCInt(JNIEnv* env, jobject result, uint32_t* errorId, int32_t* value);

// com/qv/AzureLibrary/CGetAccountSizeValue: size.
void ConvertCGetAccountSizeValue(JNIEnv* env, jobject result, uint32_t* errorId, int64_t* size);

// com/qv/AzureLibrary/QVListRegions: regionsList, appended to `regions`.
void ConvertQVListRegions(JNIEnv* env, jobject result, uint32_t* errorId, StringList* regions);

// com/qv/AzureLibrary/QVListContainers: the containerName of each container, appended to `containers`.
void ConvertQVListContainers(JNIEnv* env, jobject result, uint32_t* errorId, StringList* containers);

// com/qv/AzureLibrary/CCreateFnValue: objHandle.
void ConvertCCreateFnValue(JNIEnv* env, jobject result, uint32_t* errorId, WideString* handle);

// com/qv/AzureLibrary/CGetObjectMetaData: value (one property's text).
void ConvertCGetObjectMetaData(JNIEnv* env, jobject result, uint32_t* errorId, WideString* value);

// com/qv/AzureLibrary/CWObjectHandleFnValue: objHandle.
void ConvertCWObjectHandleFnValue(JNIEnv* env, jobject result, uint32_t* errorId, WideString* handle);

// com/qv/AzureLibrary/CIsObjectExistFnValue: isExist, as 0 or 1.
void ConvertCIsObjectExistFnValue(JNIEnv* env, jobject result, uint32_t* errorId, uint32_t* exists);

// com/qv/AzureLibrary/CGObjectMetaDataFnValue: values, looked up with a method-shaped signature that no
// field has, so the metadata is never touched; only the error id comes across.
void ConvertCGObjectMetaDataFnValue(JNIEnv* env, jobject result, uint32_t* errorId, ObjectMetaData* metaData);

// com/qv/AzureLibrary/CRObjectByNameFnValue: bytesRead, and the values metadata added to `metaData`.
void ConvertCRObjectByNameFnValue(JNIEnv* env, jobject result, uint32_t* errorId, uint64_t* bytesRead,
                                  ObjectMetaData* metaData);

// com/qv/AzureLibrary/CReadObjectFnValue: sizeRead.
void ConvertCReadObjectFnValue(JNIEnv* env, jobject result, uint32_t* errorId, uint64_t* sizeRead);

// com/qv/AzureLibrary/CRetGetSubMetaDataList: a new ObjectSubList (empty when metaDat is null) stored into
// *subList for every non-null result; the caller owns it (FreeObjectSubList).
void ConvertCRetGetSubMetaDataList(JNIEnv* env, jobject result, uint32_t* errorId, ObjectSubList** subList);

// com/qv/AzureLibrary/CGetAccountInfoFnValue: the account's texts and sizes (the record's leading reserved
// word is left alone).
void ConvertCGetAccountInfoFnValue(JNIEnv* env, jobject result, uint32_t* errorId, AccountInfoRecord* info);

// com/qv/plugin/model/CArrayOfString: arrayOfString, appended to `strings`.
void ConvertCArrayOfString(JNIEnv* env, jobject result, uint32_t* errorId, StringList* strings);

// com/qv/plugin/model/CString: value.
void ConvertCString(JNIEnv* env, jobject result, uint32_t* errorId, WideString* value);
