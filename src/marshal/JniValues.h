// Conversions between native values and Java strings and arrays, shared by
// every result conversion and storage operation.
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
// (null pointer) reaches Java as "", never as null. Null without an
// environment or when the JVM cannot make the string (its exception is
// cleared).
jstring GetJStringFromWideString(JNIEnv* env, const char16_t* text);
jstring GetJStringFromWideString(JNIEnv* env, const WideString& text);

// A new byte[] of `length` bytes (the low 32 bits of the host's length),
// after making room for two local references; with `buffer`, the bytes are
// copied in. Null when room or array cannot be made, or when a non-zero
// length comes without a buffer (the JVM's exception is cleared).
jbyteArray CreateJByteArrayFromBuffer(JNIEnv* env, const uint8_t* buffer, uint32_t length);
jbyteArray CreateJByteArray(JNIEnv* env, uint32_t length);

// A new String[count] whose element i is the Java string of strings[i]; null
// when count is below 1 or the array cannot be made.
jobjectArray CreateJStringArray(JNIEnv* env, int32_t count, const WideString* strings);

// Deletes a Java object array's local reference (the elements were never
// held as references of their own).
void ReleaseJObjectArray(JNIEnv* env, jobjectArray array);

// 1 when no Java exception is pending; otherwise clears it, asks it for its
// text, traces "\nException in finding the WebServiceClient class\n" to
// standard output and answers 0.
uint32_t DescribeJavaObject(JNIEnv* env);

// GetMethodID; when the method is not found, DescribeJavaObject reports and
// clears the exception. Null for a null class (nothing is looked up then).
jmethodID GetMethodIdWithReport(JNIEnv* env, jclass cls, const char* name, const char* signature);

// Java boxes of primitives (java.lang.Boolean etc.); null when the class or
// constructor cannot be had.
jobject BoxBoolean(JNIEnv* env, jboolean value);
jobject BoxByte(JNIEnv* env, jbyte value);
jobject BoxShort(JNIEnv* env, jshort value);
jobject BoxInt(JNIEnv* env, jint value);
jobject BoxLong(JNIEnv* env, jlong value);
jobject BoxFloat(JNIEnv* env, jfloat value);
jobject BoxDouble(JNIEnv* env, jdouble value);

// Clears a pending Java exception without a trace, for failures whose
// handling has no line of its own. True when one was pending.
bool ClearPendingException(JNIEnv* env);
