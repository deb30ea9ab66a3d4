// The paths that every storage operation shares, as one table per family.
//
// Each family of operations (one source file under src/operations/) lists
// its operations as rows of OperationPaths: how to run the operation on
// outputs set to recognisable values, and what it does on its null-result
// path, its rules for a missing class and a missing method, its lines around
// the call and its exception line. OperationPathsTest (OperationPathsTest.cpp)
// runs every row through the same paths:
//   NullResult                    Java returns null
//   JavaException                 the Java method throws
//   MissingMethod                 the method is not found, nothing pending
//   MissingMethodWithExceptionPending
//                                 the method is not found and describing
//                                 that fails, so the exception stays pending
//   CppException                  a native exception out of the call
//   NullClass                     the plug-in object's class cannot be had
//   NullClassWithExceptionPending the same, with an exception pending
//   NoPluginObject                the plug-in object is gone (after DeInit)
// Each family instantiates the suite with its rows; a test's name is the
// path and the operation, e.g. Account/OperationPathsTest.NullResult/GetOwnerName.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "bridge/CallFrame.h"
#include "bridge/JNIBridge.h"
#include "support/BridgeFixture.h"

namespace jnitest {

// What one run of an operation gave: its code and its outputs as text.
struct PathOutcome {
    uint32_t code;
    std::string outputs;
};

// What one path must give: the code, every log line written, in order, and
// the outputs as text.
struct PathExpectation {
    uint32_t code = 0;
    std::vector<WideString> lines;
    std::string outputs;
};

// One operation's row of the table.
struct OperationPaths {
    // Names the test case: the bridge operation, with its form where it has several.
    std::string operation;
    std::string javaName;
    std::string signature;
    // Runs the operation on fresh outputs set to recognisable values.
    std::function<PathOutcome(JNIBridge&)> run;
    // What `run` reports as outputs when the operation wrote none.
    std::string untouched;

    MissingClassRule missingClass = MissingClassRule::NotTested;
    const char16_t* missingClassLine = nullptr;
    MissingMethodRule missingMethod = MissingMethodRule::ReturnSuccess;
    const char16_t* missingMethodLine = nullptr;
    const char16_t* pendingExceptionLine = nullptr;
    // The lines written before Java is called, and the outputs by then.
    std::vector<WideString> linesBeforeCall;
    std::string outputsBeforeCall;  // empty: untouched
    // When Java returns null.
    PathExpectation nullResult;
    // A Java exception out of the method is described after the null-result lines.
    bool describesJavaException = false;
    const char16_t* exceptionLine = nullptr;

    OperationPaths(std::string operationName, std::string java, std::string javaSignature,
                   std::function<PathOutcome(JNIBridge&)> runOperation, std::string untouchedOutputs,
                   const char16_t* exceptionText)
        : operation(std::move(operationName)),
          javaName(std::move(java)),
          signature(std::move(javaSignature)),
          run(std::move(runOperation)),
          untouched(std::move(untouchedOutputs)),
          exceptionLine(exceptionText) {
        nullResult.outputs = untouched;
    }

    OperationPaths& WithoutClass(MissingClassRule rule, const char16_t* line = nullptr) {
        missingClass = rule;
        missingClassLine = line;
        return *this;
    }
    OperationPaths& OnMissingMethod(MissingMethodRule rule, const char16_t* line = nullptr) {
        missingMethod = rule;
        missingMethodLine = line;
        return *this;
    }
    OperationPaths& OnPendingException(const char16_t* line) {
        pendingExceptionLine = line;
        return *this;
    }
    OperationPaths& BeforeCall(std::vector<WideString> lines, std::string outputs = std::string()) {
        linesBeforeCall = std::move(lines);
        outputsBeforeCall = std::move(outputs);
        return *this;
    }
    // The null-result path; `outputs` empty: untouched.
    OperationPaths& OnNullResult(uint32_t code, std::vector<WideString> lines, std::string outputs = std::string()) {
        nullResult.code = code;
        nullResult.lines = std::move(lines);
        nullResult.outputs = outputs.empty() ? untouched : std::move(outputs);
        return *this;
    }
    OperationPaths& DescribingJavaExceptions() {
        describesJavaException = true;
        return *this;
    }
};

// Test names show the operation rather than the row's bytes.
inline void PrintTo(const OperationPaths& row, std::ostream* out) { *out << row.operation; }

inline std::string OperationName(const ::testing::TestParamInfo<OperationPaths>& info) {
    return info.param.operation;
}

// ---- outputs as text

inline std::string Shown(const WideString& text) {
    std::string out = "\"";
    for (const char16_t unit : text) {
        if (unit >= 0x20 && unit < 0x7F) {
            out.push_back(static_cast<char>(unit));
        } else {
            static const char digits[] = "0123456789abcdef";
            out += "\\u";
            for (int shift = 12; shift >= 0; shift -= 4) out.push_back(digits[(unit >> shift) & 0xF]);
        }
    }
    return out + "\"";
}

inline std::string Shown(const StringList& list) {
    std::string out = "[";
    for (const WideString& text : list) out += (out.size() > 1 ? ", " : "") + Shown(text);
    return out + "]";
}

inline std::string Shown(const ObjectMetaData& metaData) {
    std::string out = "{";
    for (const auto& [name, value] : metaData) {
        out += (out.size() > 1 ? ", " : "") + Shown(name) + "=" + Shown(value.szProperty);
    }
    return out + "}";
}

template <typename T>
std::string Shown(const char* name, const T& value) {
    std::ostringstream out;
    out << name << "=" << value;
    return out.str();
}

// ---- the fixture

class OperationPathsTest : public StartedBridgeFixture, public ::testing::WithParamInterface<OperationPaths> {
protected:
    PathOutcome Run() { return GetParam().run(*m_bridge); }
    // Checks a run against `expected`, and whether Java was called.
    void ExpectPath(const PathOutcome& outcome, const PathExpectation& expected, size_t javaCalls);
    // The three lines of a method lookup that failed.
    static std::vector<WideString> LookupLines(const OperationPaths& row);
    // What a missing method gives once the lookup has written its lines:
    // `linesSoFar` followed by the operation's own path.
    static PathExpectation MissingMethodPath(const OperationPaths& row, std::vector<WideString> linesSoFar);
};

}  // namespace jnitest
