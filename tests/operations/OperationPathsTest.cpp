// The paths every storage operation shares, run for each row of each
// family's table (see OperationPaths.h; the rows are in the family's own
// test file).
#include "OperationPaths.h"

namespace jnitest {

namespace {

const WideString kDescribed = u"Descrption is failed";
const WideString kDescribeFailed = u"DescribeException::Exception is occured...";
const char* const kThrownMessage = "thrown by the test";
const WideString kThrownText = u"java.lang.RuntimeException: thrown by the test";
const WideString kClassFailureText =
    u"java.lang.OutOfMemoryError: no room for the class reference (failure planned by the JNI interposer)";

WideString NoSuchMethodText(const OperationPaths& row) {
    return u"java.lang.NoSuchMethodError: " + WideString(row.javaName.begin(), row.javaName.end()) +
           u" (failure planned by the JNI interposer)";
}

void Append(std::vector<WideString>& lines, const std::vector<WideString>& more) {
    lines.insert(lines.end(), more.begin(), more.end());
}

}  // namespace

void OperationPathsTest::ExpectPath(const PathOutcome& outcome, const PathExpectation& expected, size_t javaCalls) {
    EXPECT_EQ(outcome.code, expected.code);
    EXPECT_EQ(NewLines(), expected.lines);
    EXPECT_EQ(outcome.outputs, expected.outputs);
    EXPECT_EQ(TestDouble::CallCount(GetParam().javaName), javaCalls);
}

std::vector<WideString> OperationPathsTest::LookupLines(const OperationPaths& row) {
    return {u"GetAzurePlugInObjectMethod::Method is not got... Method Name:- ", NarrowBytesAsWide(row.javaName.c_str()),
            NarrowBytesAsWide(row.signature.c_str())};
}

PathExpectation OperationPathsTest::MissingMethodPath(const OperationPaths& row, std::vector<WideString> linesSoFar) {
    if (row.missingMethodLine) linesSoFar.push_back(row.missingMethodLine);
    PathExpectation expected;
    if (row.missingMethod == MissingMethodRule::ReturnSuccess) {
        expected.code = 0;
        expected.outputs = row.untouched;
    } else {
        // The operation goes on as on its null-result path, without calling Java.
        expected.code = row.nullResult.code;
        expected.outputs = row.nullResult.outputs;
        Append(linesSoFar, row.nullResult.lines);
    }
    expected.lines = std::move(linesSoFar);
    return expected;
}

TEST_P(OperationPathsTest, NullResult) {
    TestDouble::ReturnNull(GetParam().javaName);
    ExpectPath(Run(), GetParam().nullResult, 1);
}

TEST_P(OperationPathsTest, JavaException) {
    const OperationPaths& row = GetParam();
    TestDouble::Throw(row.javaName, kThrownMessage);
    // Read as a null result; described after its lines where the operation says so, else cleared silently.
    PathExpectation expected = row.nullResult;
    if (row.describesJavaException) Append(expected.lines, {kDescribed, kThrownText});
    ExpectPath(Run(), expected, 1);
}

TEST_P(OperationPathsTest, MissingMethod) {
    const OperationPaths& row = GetParam();
    Interposer().FailGetMethodID(row.javaName, row.signature);
    std::vector<WideString> lines{kDescribed, NoSuchMethodText(row)};
    Append(lines, LookupLines(row));
    ExpectPath(Run(), MissingMethodPath(row, lines), 0);
    EXPECT_EQ(Interposer().CountOf("CallObjectMethodA"), 0u);
}

TEST_P(OperationPathsTest, MissingMethodWithExceptionPending) {
    const OperationPaths& row = GetParam();
    Interposer().FailGetMethodID(row.javaName, row.signature);
    // The lookup's description breaks down, so the operation finds the exception still pending.
    Interposer().ThrowCppExceptionIn("ExceptionOccurred");
    PathExpectation expected;
    expected.code = 40;
    expected.outputs = row.untouched;
    expected.lines = {kDescribeFailed};
    Append(expected.lines, LookupLines(row));
    if (row.missingMethodLine) expected.lines.push_back(row.missingMethodLine);
    Append(expected.lines, {kDescribed, NoSuchMethodText(row)});
    if (row.pendingExceptionLine) expected.lines.push_back(row.pendingExceptionLine);
    ExpectPath(Run(), expected, 0);
}

TEST_P(OperationPathsTest, CppException) {
    const OperationPaths& row = GetParam();
    Interposer().ThrowCppExceptionIn("CallObjectMethodA");
    PathExpectation expected;
    expected.code = 40;
    expected.outputs = row.outputsBeforeCall.empty() ? row.untouched : row.outputsBeforeCall;
    expected.lines = row.linesBeforeCall;
    expected.lines.push_back(row.exceptionLine);
    ExpectPath(Run(), expected, 0);
}

TEST_P(OperationPathsTest, NullClass) {
    const OperationPaths& row = GetParam();
    Interposer().FailGetObjectClass();
    PathExpectation expected;
    if (row.missingClass == MissingClassRule::Fail) {
        expected.code = 40;
        expected.outputs = row.untouched;
        if (row.missingClassLine) expected.lines.push_back(row.missingClassLine);
    } else {
        // Nothing is pending: the lookup on the null class fails with its three lines.
        expected = MissingMethodPath(row, LookupLines(row));
    }
    ExpectPath(Run(), expected, 0);
    // Nothing is looked up on the null class.
    EXPECT_EQ(Interposer().CountOf("GetMethodID", GetParam().javaName), 0u);
}

TEST_P(OperationPathsTest, NullClassWithExceptionPending) {
    const OperationPaths& row = GetParam();
    Interposer().FailGetObjectClassWithException();
    PathExpectation expected;
    switch (row.missingClass) {
    case MissingClassRule::Fail:
        // Cleared without a trace.
        expected.code = 40;
        expected.outputs = row.untouched;
        if (row.missingClassLine) expected.lines.push_back(row.missingClassLine);
        break;
    case MissingClassRule::DescribeThenGoOn:
        expected.code = 40;
        expected.outputs = row.untouched;
        expected.lines = {kDescribed, kClassFailureText};
        break;
    case MissingClassRule::NotTested: {
        // The lookup on the null class describes the exception.
        std::vector<WideString> lines{kDescribed, kClassFailureText};
        Append(lines, LookupLines(row));
        expected = MissingMethodPath(row, lines);
        break;
    }
    case MissingClassRule::DescribeAndFail:
        FAIL() << "no storage operation describes a missing class and fails";
    }
    ExpectPath(Run(), expected, 0);
    // Nothing is looked up on the null class.
    EXPECT_EQ(Interposer().CountOf("GetMethodID", GetParam().javaName), 0u);
}

TEST_P(OperationPathsTest, NoPluginObject) {
    m_bridge->DeInit();
    TestDouble::Reset();
    Interposer().Reset();
    MarkLines();
    const PathOutcome outcome = Run();
    EXPECT_EQ(outcome.code, 40u);
    EXPECT_TRUE(NewLines().empty());
    EXPECT_EQ(outcome.outputs, GetParam().untouched);
    EXPECT_EQ(TestDouble::CallCount(GetParam().javaName), 0u);
    EXPECT_EQ(Interposer().CountOf("GetObjectClass"), 0u);
}

}  // namespace jnitest
