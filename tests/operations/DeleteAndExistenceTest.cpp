// The delete and existence operations (DeleteObjectByName,
// DeleteObjectByHandle in both forms, DeleteCachedObjectByName,
// IsObjectExist, IsObjectPathSupported) against the real JVM and the Java
// test double.
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "OperationPaths.h"
#include "bridge/BridgeLog.h"
#include "bridge/JNIBridge.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;
using jnitest::OperationPathsTest;
using jnitest::OperationPaths;
using jnitest::PathOutcome;
using jnitest::Shown;
using jnitest::StartedBridgeFixture;
using jnitest::TestDouble;

namespace {

constexpr const char* kErrorValueByStringSignature = "(Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kHandleListSignature = "([Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kIsObjectExistSignature = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;";
constexpr const char* kIsObjectPathSupportedSignature =
    "(Ljava/lang/String;I)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;";
constexpr const char16_t* kDeleteByNameLine = u"DeleteObjectByName::Exception is occured...";

// A flag value that no operation writes, to see whether the output was touched.
constexpr uint32_t kUntouchedFlag = 0xA5A5A5A5u;

// One operation that deletes by one text and answers GetErrorId of the CErrorValue.
struct DeleteOperation {
    std::string label;
    std::string javaName;
    std::function<uint32_t(JNIBridge&, const WideString&)> run;
    const char16_t* exceptionLine;
    bool tracesTheName;  // DeleteObjectByName: its exception text and the name before every call
};

std::vector<DeleteOperation> DeleteOperations() {
    return {
        {"DeleteObjectByName", "DeleteObjectByName",
         [](JNIBridge& bridge, const WideString& name) { return bridge.DeleteObjectByName(name); },
         kDeleteByNameLine, true},
        {"DeleteObjectByHandle", "DeleteObjectByHandle",
         [](JNIBridge& bridge, const WideString& handle) { return bridge.DeleteObjectByHandle(handle); },
         u"DeleteObjectByHandle::Exception is occured...", false},
        {"DeleteCachedObjectByName", "DeleteCachedObjectByName",
         [](JNIBridge& bridge, const WideString& name) { return bridge.DeleteCachedObjectByName(name); },
         u"DeleteCachedObjectByName::Exception is occured...", false},
    };
}

// One existence question answered by a CIsObjectExistFnValue.
struct ExistenceOperation {
    std::string label;
    std::string javaName;
    std::string signature;
    std::function<uint32_t(JNIBridge&, const WideString&, uint32_t*)> run;
    std::function<std::string(const std::string& quotedName)> callText;
};

std::vector<ExistenceOperation> ExistenceOperations() {
    return {
        {"IsObjectExist", "IsObjectExist", kIsObjectExistSignature,
         [](JNIBridge& bridge, const WideString& name, uint32_t* flag) { return bridge.IsObjectExist(name, flag); },
         [](const std::string& name) { return "IsObjectExist(" + name + ")"; }},
        {"IsObjectPathSupported", "IsObjectPathSupported", kIsObjectPathSupportedSignature,
         [](JNIBridge& bridge, const WideString& path, uint32_t* flag) {
             return bridge.IsObjectPathSupported(path, 3, flag);
         },
         [](const std::string& path) { return "IsObjectPathSupported(" + path + ", 3)"; }},
    };
}

// ---- the paths every operation shares (OperationPaths.h)

std::vector<OperationPaths> DeleteAndExistencePaths() {
    const auto deletion = [](uint32_t (JNIBridge::*operation)(const WideString&)) {
        return [operation](JNIBridge& bridge) { return PathOutcome{(bridge.*operation)(u"obj"), ""}; };
    };
    const auto question = [](bool path) {
        return [path](JNIBridge& bridge) {
            uint32_t flag = kUntouchedFlag;
            const uint32_t code = path ? bridge.IsObjectPathSupported(u"obj", 3, &flag) : bridge.IsObjectExist(u"obj", &flag);
            return PathOutcome{code, Shown("flag", flag)};
        };
    };
    const std::string untouchedFlag = Shown("flag", kUntouchedFlag);
    const WideString trace = WideString(kDeleteByNameLine) + u"obj";
    const char16_t* const missingClassLine = u"m_ObjQVAzurePlugInLibrary is failed...";
    return {
        // A null class describes a pending exception (40); with none pending the lookup fails (0).
        OperationPaths("DeleteObjectByName", "DeleteObjectByName", kErrorValueByStringSignature,
                       deletion(&JNIBridge::DeleteObjectByName), "", kDeleteByNameLine)
            .WithoutClass(MissingClassRule::DescribeThenGoOn)
            .OnMissingMethod(MissingMethodRule::ReturnSuccess)
            .BeforeCall({trace})
            .OnNullResult(40, {trace}),
        OperationPaths("DeleteObjectByHandle", "DeleteObjectByHandle", kErrorValueByStringSignature,
                       deletion(&JNIBridge::DeleteObjectByHandle), "",
                       u"DeleteObjectByHandle::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::ReturnSuccess)
            .OnNullResult(40, {}),
        // The ordinal of a null CErrorValue reads as 40, which maps to 47.
        OperationPaths(
            "DeleteObjectByHandleList", "DeleteObjectByHandle", kHandleListSignature,
            [](JNIBridge& bridge) {
                const WideString handles[] = {u"handle:a", u"handle:b"};
                return PathOutcome{bridge.DeleteObjectByHandle(handles, 2), ""};
            },
            "", u"DeleteObjectByHandle::Exception is occured...")
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(47, {}),
        OperationPaths("DeleteCachedObjectByName", "DeleteCachedObjectByName", kErrorValueByStringSignature,
                       deletion(&JNIBridge::DeleteCachedObjectByName), "",
                       u"DeleteCachedObjectByName::Exception is occured...")
            .WithoutClass(MissingClassRule::Fail, missingClassLine)
            .OnMissingMethod(MissingMethodRule::ReturnSuccess)
            .OnNullResult(40, {}),
        // IsObjectPathSupported writes IsObjectExist's exception line.
        OperationPaths("IsObjectExist", "IsObjectExist", kIsObjectExistSignature, question(false), untouchedFlag,
                       u"IsObjectExist::Exception is occured...")
            .WithoutClass(MissingClassRule::Fail, missingClassLine)
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(0, {}, Shown("flag", 0)),
        OperationPaths("IsObjectPathSupported", "IsObjectPathSupported", kIsObjectPathSupportedSignature,
                       question(true), untouchedFlag, u"IsObjectExist::Exception is occured...")
            .WithoutClass(MissingClassRule::Fail, missingClassLine)
            .OnMissingMethod(MissingMethodRule::TakeNullResult)
            .OnNullResult(0, {}, Shown("flag", 0)),
    };
}

// Test names show the operation's label rather than the record's bytes.
void PrintTo(const DeleteOperation& operation, std::ostream* out) { *out << operation.label; }
void PrintTo(const ExistenceOperation& operation, std::ostream* out) { *out << operation.label; }

}  // namespace

INSTANTIATE_TEST_SUITE_P(DeleteAndExistence, OperationPathsTest, ::testing::ValuesIn(DeleteAndExistencePaths()),
                         jnitest::OperationName);

// A started bridge whose log lines are counted from the start on.
class DeleteAndExistenceTest : public StartedBridgeFixture {
protected:
    // Makes an object in the double's store (through the plug-in's own CreateObject).
    void MakeObject(const WideString& name) {
        WideString handle;
        ASSERT_EQ(m_bridge->CreateObject(name, handle), 0u);
        Interposer().Reset();
        MarkLines();
    }
    // Ends the plug-in object's life, so that operations find none.
    void DropPluginObject() {
        m_bridge->DeInit();
        Interposer().Reset();
        MarkLines();
    }
};

// ---- the single-text deletions

class DeleteAndExistenceDeleteTest : public DeleteAndExistenceTest,
                                     public ::testing::WithParamInterface<DeleteOperation> {
protected:
    uint32_t Run(const WideString& text) { return GetParam().run(*m_bridge, text); }
    // The lines written by a call that reached Java.
    std::vector<WideString> CallLines(const WideString& text) const {
        if (!GetParam().tracesTheName) return {};
        return {kDeleteByNameLine + text};
    }
};

TEST_P(DeleteAndExistenceDeleteTest, SuccessDeletesTheObjectAndReturns0) {
    MakeObject(u"doomed");
    uint32_t exists = kUntouchedFlag;
    ASSERT_EQ(m_bridge->IsObjectExist(u"doomed", &exists), 0u);
    ASSERT_EQ(exists, 1u);
    MarkLines();

    EXPECT_EQ(Run(u"doomed"), 0u);
    ASSERT_EQ(TestDouble::CallCount(GetParam().javaName), 1u);
    EXPECT_EQ(TestDouble::DescribeCall(GetParam().javaName, 0), GetParam().javaName + "(\"doomed\")");
    EXPECT_EQ(NewLines(), CallLines(u"doomed"));
    ASSERT_EQ(m_bridge->IsObjectExist(u"doomed", &exists), 0u);
    EXPECT_EQ(exists, 0u);
}

TEST_P(DeleteAndExistenceDeleteTest, JavaErrorOrdinalIsMapped) {
    const std::pair<int, uint32_t> ordinalsAndCodes[] = {{1, 1}, {3, 7}, {22, 23}, {28, 29},
                                                         {40, 47}, {45, 23}, {46, 49}, {48, 46}};
    for (const auto& [ordinal, code] : ordinalsAndCodes) {
        TestDouble::ReturnErrorOrdinal(GetParam().javaName, ordinal);
        EXPECT_EQ(Run(u"obj"), code) << "ordinal " << ordinal;
    }
}

TEST_P(DeleteAndExistenceDeleteTest, OrdinalOutsideTheTableGives23) {
    TestDouble::ReturnErrorValue(GetParam().javaName, 3, 49);
    EXPECT_EQ(Run(u"obj"), 23u);
}







TEST_P(DeleteAndExistenceDeleteTest, EmptyTextReachesJavaAsAnEmptyString) {
    EXPECT_EQ(Run(u""), 0u);
    ASSERT_EQ(TestDouble::CallCount(GetParam().javaName), 1u);
    EXPECT_EQ(TestDouble::DescribeCall(GetParam().javaName, 0), GetParam().javaName + "(\"\")");
}

TEST_P(DeleteAndExistenceDeleteTest, AFreshThreadIsAttachedForTheCallAndDetachedAfterIt) {
    uint32_t code = 99;
    std::thread([&] { code = Run(u"obj"); }).join();
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(Interposer().Attaches(), 1);
    EXPECT_EQ(Interposer().Detaches(), 1);
}

INSTANTIATE_TEST_SUITE_P(DeleteAndExistence, DeleteAndExistenceDeleteTest, ::testing::ValuesIn(DeleteOperations()),
                         [](const ::testing::TestParamInfo<DeleteOperation>& info) { return info.param.label; });

TEST_F(DeleteAndExistenceTest, DeletingByNameWritesTheTraceLineWithTheNameEvenWhenItSucceeds) {
    EXPECT_EQ(m_bridge->DeleteObjectByName(u"archive/2024-01.bak"), 0u);
    EXPECT_EQ(NewLines(),
              std::vector<WideString>{u"DeleteObjectByName::Exception is occured...archive/2024-01.bak"});
}


TEST_F(DeleteAndExistenceTest, DeleteCachedObjectByNameLooksUpItsOwnMethod) {
    EXPECT_EQ(m_bridge->DeleteCachedObjectByName(u"cached"), 0u);
    EXPECT_EQ(Interposer().CountOf("GetMethodID", "DeleteCachedObjectByName"), 1u);
    EXPECT_EQ(TestDouble::CallCount("DeleteObjectByName"), 0u);
    EXPECT_EQ(TestDouble::CallCount("DeleteCachedObjectByName"), 1u);
}

// ---- DeleteObjectByHandle with a list

TEST_F(DeleteAndExistenceTest, DeleteByHandleListPassesEveryHandleInOrder) {
    MakeObject(u"a");
    MakeObject(u"b");
    const WideString handles[] = {u"handle:a", u"", u"handle:b"};
    EXPECT_EQ(m_bridge->DeleteObjectByHandle(handles, 3), 0u);
    ASSERT_EQ(TestDouble::CallCount("DeleteObjectByHandle"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("DeleteObjectByHandle", 0),
              "DeleteObjectByHandle([\"handle:a\", \"\", \"handle:b\"])");
    EXPECT_EQ(Interposer().CountOf("GetMethodID", kHandleListSignature), 1u);
    EXPECT_TRUE(NewLines().empty());
    uint32_t exists = kUntouchedFlag;
    EXPECT_EQ(m_bridge->IsObjectExist(u"b", &exists), 0u);
    EXPECT_EQ(exists, 0u);
}

TEST_F(DeleteAndExistenceTest, DeleteByHandleListPassesOnlyCountHandles) {
    const WideString handles[] = {u"handle:a", u"handle:b", u"handle:c"};
    EXPECT_EQ(m_bridge->DeleteObjectByHandle(handles, 2), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("DeleteObjectByHandle", 0), "DeleteObjectByHandle([\"handle:a\", \"handle:b\"])");
}

TEST_F(DeleteAndExistenceTest, DeleteByHandleListWithACountOf0CallsJavaWithANullArray) {
    const WideString handles[] = {u"handle:a"};
    EXPECT_EQ(m_bridge->DeleteObjectByHandle(handles, 0), 0u);
    ASSERT_EQ(TestDouble::CallCount("DeleteObjectByHandle"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("DeleteObjectByHandle", 0), "DeleteObjectByHandle(null)");
}

TEST_F(DeleteAndExistenceTest, DeleteByHandleListWithoutHandlesCallsJavaWithANullArray) {
    EXPECT_EQ(m_bridge->DeleteObjectByHandle(nullptr, 4), 0u);
    ASSERT_EQ(TestDouble::CallCount("DeleteObjectByHandle"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("DeleteObjectByHandle", 0), "DeleteObjectByHandle(null)");
}

TEST_F(DeleteAndExistenceTest, DeleteByHandleListWithACountBeyondAJavaArrayPassesANullArray) {
    const WideString handles[] = {u"handle:a"};
    EXPECT_EQ(m_bridge->DeleteObjectByHandle(handles, std::numeric_limits<uint32_t>::max()), 0u);
    ASSERT_EQ(TestDouble::CallCount("DeleteObjectByHandle"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("DeleteObjectByHandle", 0), "DeleteObjectByHandle(null)");
}

TEST_F(DeleteAndExistenceTest, DeleteByHandleListMapsJavasErrorOrdinal) {
    const std::pair<int, uint32_t> ordinalsAndCodes[] = {{2, 2}, {3, 7}, {27, 30}, {41, 1}, {47, 45}};
    const WideString handles[] = {u"handle:a"};
    for (const auto& [ordinal, code] : ordinalsAndCodes) {
        TestDouble::ReturnErrorOrdinal("DeleteObjectByHandle", ordinal);
        EXPECT_EQ(m_bridge->DeleteObjectByHandle(handles, 1), code) << "ordinal " << ordinal;
    }
}

TEST_F(DeleteAndExistenceTest, DeleteByHandleListReadsTheOrdinalEvenWithoutAnErrorId) {
    // The list form reads getOrdinalValue only; the single form also needs getErrorID.
    const WideString handles[] = {u"handle:a"};
    TestDouble::ReturnErrorValue("DeleteObjectByHandle", std::nullopt, 3);
    EXPECT_EQ(m_bridge->DeleteObjectByHandle(handles, 1), 7u);
    TestDouble::ReturnErrorValue("DeleteObjectByHandle", std::nullopt, 3);
    EXPECT_EQ(m_bridge->DeleteObjectByHandle(u"handle:a"), 40u);
}







TEST_F(DeleteAndExistenceTest, DeleteByHandleListLeavesNoLocalReference) {
    const WideString handles[] = {u"handle:a", u"handle:b", u"handle:c"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(m_bridge->DeleteObjectByHandle(handles, 3), 0u);
        EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    }
    EXPECT_GT(Interposer().LocalRefsMade(), 0);
}

// ---- the existence questions

class DeleteAndExistenceQuestionTest : public DeleteAndExistenceTest,
                                       public ::testing::WithParamInterface<ExistenceOperation> {
protected:
    uint32_t Run(const WideString& text, uint32_t* flag) { return GetParam().run(*m_bridge, text, flag); }
};

TEST_P(DeleteAndExistenceQuestionTest, TrueAnswerWritesFlag1AndReturns0) {
    TestDouble::SetBoolean(GetParam().javaName, "isExist", true);
    uint32_t flag = kUntouchedFlag;
    EXPECT_EQ(Run(u"dir/obj", &flag), 0u);
    EXPECT_EQ(flag, 1u);
    ASSERT_EQ(TestDouble::CallCount(GetParam().javaName), 1u);
    EXPECT_EQ(TestDouble::DescribeCall(GetParam().javaName, 0), GetParam().callText("\"dir/obj\""));
    EXPECT_TRUE(NewLines().empty());
}

TEST_P(DeleteAndExistenceQuestionTest, FalseAnswerWritesFlag0AndReturns0) {
    TestDouble::SetBoolean(GetParam().javaName, "isExist", false);
    uint32_t flag = kUntouchedFlag;
    EXPECT_EQ(Run(u"dir/obj", &flag), 0u);
    EXPECT_EQ(flag, 0u);
}

TEST_P(DeleteAndExistenceQuestionTest, JavaErrorIsMappedAndTheFlagIsStillWritten) {
    const std::pair<int, uint32_t> ordinalsAndCodes[] = {{3, 7}, {22, 23}, {29, 30}, {39, 1}, {40, 47}, {46, 49}};
    for (const auto& [ordinal, code] : ordinalsAndCodes) {
        TestDouble::ReturnErrorOrdinal(GetParam().javaName, ordinal);
        TestDouble::SetBoolean(GetParam().javaName, "isExist", true);
        uint32_t flag = kUntouchedFlag;
        EXPECT_EQ(Run(u"obj", &flag), code) << "ordinal " << ordinal;
        EXPECT_EQ(flag, 1u) << "ordinal " << ordinal;
    }
}

TEST_P(DeleteAndExistenceQuestionTest, NullErrorValueReadsAsOrdinal40AndGives47) {
    TestDouble::ReturnNullErrorValue(GetParam().javaName);
    TestDouble::SetBoolean(GetParam().javaName, "isExist", true);
    uint32_t flag = kUntouchedFlag;
    EXPECT_EQ(Run(u"obj", &flag), 47u);
    EXPECT_EQ(flag, 1u);
}







TEST_P(DeleteAndExistenceQuestionTest, NullFlagPointerIsNotWrittenThroughAndTheCallStillRuns) {
    TestDouble::ReturnErrorOrdinal(GetParam().javaName, 3);
    EXPECT_EQ(Run(u"obj", nullptr), 7u);
    EXPECT_EQ(TestDouble::CallCount(GetParam().javaName), 1u);
}

TEST_P(DeleteAndExistenceQuestionTest, EmptyTextReachesJavaAsAnEmptyString) {
    uint32_t flag = kUntouchedFlag;
    Run(u"", &flag);
    ASSERT_EQ(TestDouble::CallCount(GetParam().javaName), 1u);
    EXPECT_EQ(TestDouble::DescribeCall(GetParam().javaName, 0), GetParam().callText("\"\""));
}

TEST_P(DeleteAndExistenceQuestionTest, AFreshThreadIsAttachedForTheCallAndDetachedAfterIt) {
    TestDouble::SetBoolean(GetParam().javaName, "isExist", true);
    uint32_t flag = kUntouchedFlag;
    uint32_t code = 99;
    std::thread([&] { code = Run(u"obj", &flag); }).join();
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(flag, 1u);
    EXPECT_EQ(Interposer().Attaches(), 1);
    EXPECT_EQ(Interposer().Detaches(), 1);
}

INSTANTIATE_TEST_SUITE_P(DeleteAndExistence, DeleteAndExistenceQuestionTest,
                         ::testing::ValuesIn(ExistenceOperations()),
                         [](const ::testing::TestParamInfo<ExistenceOperation>& info) { return info.param.label; });

TEST_F(DeleteAndExistenceTest, IsObjectExistOnAMissingObjectReturns0WithFlag0) {
    uint32_t exists = kUntouchedFlag;
    EXPECT_EQ(m_bridge->IsObjectExist(u"never-made", &exists), 0u);
    EXPECT_EQ(exists, 0u);
    EXPECT_EQ(TestDouble::DescribeCall("IsObjectExist", 0), "IsObjectExist(\"never-made\")");
}

TEST_F(DeleteAndExistenceTest, IsObjectExistOnAStoredObjectReturns0WithFlag1) {
    MakeObject(u"kept");
    uint32_t exists = kUntouchedFlag;
    EXPECT_EQ(m_bridge->IsObjectExist(u"kept", &exists), 0u);
    EXPECT_EQ(exists, 1u);
}

TEST_F(DeleteAndExistenceTest, IsObjectPathSupportedPassesThePathTypeUnchanged) {
    const int32_t pathTypes[] = {0, 1, -7, std::numeric_limits<int32_t>::max(), std::numeric_limits<int32_t>::min()};
    for (size_t i = 0; i < sizeof pathTypes / sizeof pathTypes[0]; ++i) {
        uint32_t supported = kUntouchedFlag;
        EXPECT_EQ(m_bridge->IsObjectPathSupported(u"C:\\data", pathTypes[i], &supported), 0u);
        EXPECT_EQ(supported, 1u);
        ASSERT_EQ(TestDouble::CallCount("IsObjectPathSupported"), i + 1);
        EXPECT_EQ(TestDouble::DescribeCall("IsObjectPathSupported", i),
                  "IsObjectPathSupported(\"C:\\\\data\", " + std::to_string(pathTypes[i]) + ")");
    }
}

TEST_F(DeleteAndExistenceTest, IsObjectPathSupportedWithAnEmptyPathGetsJavasNo) {
    uint32_t supported = kUntouchedFlag;
    EXPECT_EQ(m_bridge->IsObjectPathSupported(u"", 1, &supported), 0u);
    EXPECT_EQ(supported, 0u);
}
