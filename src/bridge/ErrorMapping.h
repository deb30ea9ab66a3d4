// The Java side's error values and how they become the host's result codes.
#pragma once

#include <jni.h>

#include <cstdint>

#include "bridge/ResultCodes.h"
#include "log/JNIWrapperLog.h"

// The host's result code for an ERRORID ordinal of the Java library; 23 for
// any ordinal outside the table (negative ones and all above 48 included).
uint32_t MapErrorOrdinal(int32_t ordinal);

// Whether a Java exception was pending: false when none was. Otherwise it is
// cleared, "Descrption is failed" and the exception's text are written as
// detail lines (when there is a log writer) and the answer is true. A
// failure while describing writes "DescribeException::Exception is
// occured..." and also answers true. (Its log line calls it
// DescribeException.)
bool DescribePendingException(JNIEnv* env, JNIWrapperLog* log);

// The result code of a CErrorValue object: MapErrorOrdinal of its
// getOrdinalValue(), provided getErrorID() is not null. 40 for a null
// object (no line) and, with a line, for each failed step.
uint32_t GetErrorId(JNIEnv* env, JNIWrapperLog* log, jobject errorValue);

// The raw ordinal of a CErrorValue into *ordinalOut (40 for a null object).
// A failed class lookup is traced to standard output and does not stop the
// method lookups; a failed method lookup is traced and leaves *ordinalOut
// unwritten.
void ReadErrorOrdinal(JNIEnv* env, jobject errorValue, uint32_t* ordinalOut);
