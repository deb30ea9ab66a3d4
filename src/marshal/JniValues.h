// Conversions between native values and Java strings and arrays, shared by
// every result conversion and storage operation. Each function that makes a
// local reference hands back its owner (LocalRef), which holds nothing when
// the reference could not be made.
#pragma once

#include <jni.h>

#include <cstdint>
#include <optional>

#include "bridge/LocalRef.h"
#include "cloudplugin/ICloudPluginInterface.h"

// The text of a Java string, cut at its first NUL unit (the search stays
// within the string's length). Nothing for a null string or when the
// characters cannot be had.
std::optional<WideString> GetWideStringFromJString(JNIEnv* env, jstring text);

// A new Java string holding `text` up to its first NUL unit. A missing text
// (null pointer) reaches Java as "", never as null. Nothing without an
// environment or when the JVM cannot make the string (its exception is
// cleared).
LocalRef<jstring> GetJStringFromWideString(JNIEnv* env, const char16_t* text);
LocalRef<jstring> GetJStringFromWideString(JNIEnv* env, const WideString& text);

// A new byte[] of `length` bytes (the low 32 bits of the host's length),
// after making room for two local references; with `buffer`, the bytes are
// copied in. Nothing when room or array cannot be made, or when a non-zero
// length comes without a buffer (the JVM's exception is cleared).
LocalRef<jbyteArray> CreateJByteArrayFromBuffer(JNIEnv* env, const uint8_t* buffer, uint32_t length);
LocalRef<jbyteArray> CreateJByteArray(JNIEnv* env, uint32_t length);

// A new String[count] whose element i is the Java string of strings[i];
// nothing when count is below 1 or the array cannot be made.
LocalRef<jobjectArray> CreateJStringArray(JNIEnv* env, int32_t count, const WideString* strings);

// Releases a Java object array early, before its owner would (the elements
// were never held as references of their own).
void ReleaseJObjectArray(LocalRef<jobjectArray>& array);

// How the conversions report a failed lookup. Whether a Java exception was
// pending: false when none was. Otherwise it is cleared, asked for its text,
// "\nException in finding the WebServiceClient class\n" is traced to
// standard output (the text itself is not) and the answer is true.
bool TracePendingException(JNIEnv* env);

// GetMethodID; when the method is not found, TracePendingException reports
// and clears the exception. Null for a null class (nothing is looked up then).
jmethodID GetMethodIdWithReport(JNIEnv* env, jclass cls, const char* name, const char* signature);

// Java boxes of primitives (java.lang.Boolean etc.); nothing when the class
// or constructor cannot be had.
LocalRef<jobject> BoxBoolean(JNIEnv* env, jboolean value);
LocalRef<jobject> BoxByte(JNIEnv* env, jbyte value);
LocalRef<jobject> BoxShort(JNIEnv* env, jshort value);
LocalRef<jobject> BoxInt(JNIEnv* env, jint value);
LocalRef<jobject> BoxLong(JNIEnv* env, jlong value);
LocalRef<jobject> BoxFloat(JNIEnv* env, jfloat value);
LocalRef<jobject> BoxDouble(JNIEnv* env, jdouble value);

// Whether a Java exception was pending: false when none was; otherwise it is
// cleared without a trace and the answer is true. For failures whose
// handling has no line of its own.
bool ClearPendingException(JNIEnv* env);
