// Object metadata between the host and the Java library.
//
// On the Java side metadata is a CPluginMetaData[] (szPropertyName and a
// CPluginValue val holding szProperty and a CPropertyTYPE prpType); on the
// native side an ObjectMetaData map from name to MetaDataValue. The object
// sub-list is a CObjectSubListElement[] (szFileName and a CPluginMetaData[]
// metaDat) on the Java side and an ObjectSubList on the native side.
//
// These conversions do not catch native exceptions: they reach the
// enclosing result conversion or operation, which turns them into error id
// 40. Their local references are deleted on every path all the same.
#pragma once

#include <jni.h>

#include <cstdint>
#include <optional>

#include "bridge/LocalRef.h"
#include "cloudplugin/ICloudPluginInterface.h"
#include "marshal/JavaFields.h"
#include "marshal/JniValues.h"

// ---- metadata

// A new CPluginMetaData made with its no-argument constructor (which also makes its val); nothing when
// the class or the constructor is missing (a missing constructor is traced by TracePendingException).
LocalRef<jobject> CreatePluginMetaDataObject(JNIEnv* env);

// A new array of `count` elements of `elementClass`, each slot holding `initialElement`; nothing when
// room for two local references cannot be made, or without a class.
LocalRef<jobjectArray> CreatePluginMetaDataArray(JNIEnv* env, int32_t count, jclass elementClass,
                                                 jobject initialElement);

// Native to Java: walks `metaData` in name order and stores, at index 0 up, a new CPluginMetaData with
// the entry's name and its val's szProperty set to the entry's text. The val's prpType is left as the
// constructor made it. An entry whose element or element class cannot be had leaves its slot as it was.
void FillPluginMetaDataArray(JNIEnv* env, jobjectArray array, const ObjectMetaData* metaData);

// Java to native: adds each element of a CPluginMetaData[] that has a property name to `metaData` (a
// name already present keeps its first value). Nothing for a null array or without a map.
void ReadPluginMetaDataArray(JNIEnv* env, jobjectArray array, ObjectMetaData* metaData);

// Java CPluginValue to native: szProperty's text (when it has one) and, as prpType, the low 32 bits of
// the local reference that reading the Java prpType field gives: an opaque word, never an enum ordinal.
void ReadPluginValue(JNIEnv* env, jobject value, MetaDataValue* out);

// Native to Java CPluginValue: sets szProperty to the value's text (an empty text gives ""); prpType is
// not written.
void WritePluginValue(JNIEnv* env, jobject value, const MetaDataValue& in);

// The CPluginMetaData[] that a storage method receives for `metaData`: nothing for no map, an empty array
// for an empty map, else one filled element per entry in name order.
LocalRef<jobjectArray> MakePluginMetaDataArray(JNIEnv* env, const ObjectMetaData* metaData);

// ---- object sub-lists

// Java CObjectSubListElement[] to native: each element with a file name and metadata becomes an entry of
// `subList` owning a new ObjectMetaData (a file name already present keeps its first entry). Nothing for
// a null array or without a sub-list.
void ReadObjectSubList(JNIEnv* env, jobjectArray array, ObjectSubList* subList);

// Frees a sub-list made by the conversions: each entry's ObjectMetaData, then the list itself.
void FreeObjectSubList(ObjectSubList* subList);
