// How the bridge writes its lines: error lines through the log writer's
// unconditional Write, detail lines through WriteDetail; without a log
// writer nothing is written. Traces that go to standard output instead of
// the log pass through one replaceable sink, so that hosts without a console
// (and tests) can route them.
#pragma once

#include <functional>
#include <string>

#include "log/JNIWrapperLog.h"

inline void LogError(JNIWrapperLog* log, const WideString& text) {
    if (log) log->Write(text);
}

inline void LogDetail(JNIWrapperLog* log, const WideString& text) {
    if (log) log->WriteDetail(text);
}

// Writes `text` to standard output as it stands (no line break is added).
void TraceToStdout(const std::string& text);

// Replaces the sink of TraceToStdout; an empty function restores standard output.
void SetStdoutTraceSink(std::function<void(const std::string&)> sink);

// A narrow method name or signature shown in a wide log line the way the
// log has always shown it: its bytes paired into UTF-16 units (unit k is
// byte 2k | byte 2k+1 << 8, an odd last byte paired with 0), up to the first
// zero unit, never reading past the text's own bytes.
WideString NarrowBytesAsWide(const char* text);
