// The object handle operations (CreateObject in both forms, OpenObject in
// both forms, CreateCachedObject, CloseObject) against the real JVM and the
// Java test double.
#include <gtest/gtest.h>

#include <functional>
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
using jnitest::OperationPaths;
using jnitest::OperationPathsTest;
using jnitest::PathOutcome;
using jnitest::Shown;
using jnitest::StartedBridgeFixture;
using jnitest::TestDouble;

namespace {

constexpr const char16_t* kKeptHandle = u"handle kept by the host";

// One handle-returning operation, as the tests drive it.
struct HandleOperation {
    std::string label;      // for the test names
    std::string javaName;   // the Java method
    std::string signature;  // its JNI signature
    std::function<uint32_t(JNIBridge&, const WideString& name, WideString& handle)> run;
    // The canonical text of the Java call for a name given as quoted text.
    std::function<std::string(const std::string& quotedName)> callText;
    const char16_t* exceptionLine;
    bool logsAroundTheCall;  // CreateObject: the name before the call, the handle and the end line after it
};

ObjectMetaData OneProperty() {
    ObjectMetaData metaData;
    metaData[u"size"] = MetaDataValue{u"12", 0};
    return metaData;
}

std::vector<HandleOperation> HandleOperations() {
    return {
        {"CreateObject", "CreateObject", "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CCreateFnValue;",
         [](JNIBridge& bridge, const WideString& name, WideString& handle) {
             return bridge.CreateObject(name, handle);
         },
         [](const std::string& name) { return "CreateObject(" + name + ")"; },
         u"CreateObject::Exception is occured...", true},
        {"CreateObjectWithMetaData", "CreateObject",
         "(Ljava/lang/String;[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/AzureLibrary/CCreateFnValue;",
         [](JNIBridge& bridge, const WideString& name, WideString& handle) {
             ObjectMetaData metaData = OneProperty();
             return bridge.CreateObject(name, &metaData, handle);
         },
         [](const std::string& name) { return "CreateObject(" + name + ", {\"size\"=\"12\"})"; },
         u"CreateObject::Exception is occured...", true},
        {"OpenObject", "OpenObject", "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CCreateFnValue;",
         [](JNIBridge& bridge, const WideString& name, WideString& handle) {
             return bridge.OpenObject(name, handle);
         },
         [](const std::string& name) { return "OpenObject(" + name + ")"; }, u"OpenObject::Exception is occured...",
         false},
        {"OpenObjectWithFlag", "OpenObject", "(Ljava/lang/String;Z)Lcom/qv/AzureLibrary/CCreateFnValue;",
         [](JNIBridge& bridge, const WideString& name, WideString& handle) {
             return bridge.OpenObject(name, handle, true);
         },
         [](const std::string& name) { return "OpenObject(" + name + ", true)"; },
         u"OpenObject::Exception is occured...", false},
        {"CreateCachedObject", "CreateCachedObject", "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CCreateFnValue;",
         [](JNIBridge& bridge, const WideString& name, WideString& handle) {
             return bridge.CreateCachedObject(name, handle);
         },
         [](const std::string& name) { return "CreateCachedObject(" + name + ")"; },
         u"CreateCachedObject::Exception is occured...", false},
    };
}

// Test names show the operation's label rather than the record's bytes.
void PrintTo(const HandleOperation& operation, std::ostream* out) { *out << operation.label; }

// ---- the paths every operation shares (OperationPaths.h)

std::vector<OperationPaths> ObjectHandlePaths() {
    std::vector<OperationPaths> rows;
    // Once Java has been called the handle is always overwritten (empty for a null result); a missing
    // method ends with 0 and leaves it.
    for (const HandleOperation& operation : HandleOperations()) {
        const auto run = operation.run;
        std::vector<WideString> before;
        std::vector<WideString> afterNull;
        if (operation.logsAroundTheCall) {
            before = {u"obj"};
            afterNull = {u"obj", u"", u"CreateObject::is ended..."};
        }
        rows.push_back(OperationPaths(
                           operation.label, operation.javaName, operation.signature,
                           [run](JNIBridge& bridge) {
                               WideString handle = kKeptHandle;
                               const uint32_t code = run(bridge, u"obj", handle);
                               return PathOutcome{code, Shown(handle)};
                           },
                           Shown(WideString(kKeptHandle)), operation.exceptionLine)
                           .OnMissingMethod(MissingMethodRule::ReturnSuccess)
                           .BeforeCall(before)
                           .OnNullResult(0, afterNull, Shown(WideString())));
    }
    rows.push_back(OperationPaths(
                       "CloseObject", "CloseObject", "(Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;",
                       [](JNIBridge& bridge) { return PathOutcome{bridge.CloseObject(u"handle:obj"), ""}; }, "",
                       u"CloseObject::Exception is occured...")
                       .OnMissingMethod(MissingMethodRule::ReturnSuccess)
                       .OnNullResult(40, {}));
    return rows;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(ObjectHandles, OperationPathsTest, ::testing::ValuesIn(ObjectHandlePaths()),
                         jnitest::OperationName);

// A started bridge whose log lines are counted from the start on.
class ObjectHandlesTest : public StartedBridgeFixture {};

// ---- what every handle-returning operation shares

class ObjectHandlesOperationTest : public ObjectHandlesTest,
                                   public ::testing::WithParamInterface<HandleOperation> {
protected:
    uint32_t Run(const WideString& name, WideString& handle) { return GetParam().run(*m_bridge, name, handle); }
    // The lines the operation writes around a call that was made.
    std::vector<WideString> LinesAroundCall(const WideString& name, const WideString& handle) const {
        if (!GetParam().logsAroundTheCall) return {};
        return {name, handle, u"CreateObject::is ended..."};
    }
};

TEST_P(ObjectHandlesOperationTest, SuccessWritesJavasHandleAndReturns0) {
    WideString handle = kKeptHandle;
    EXPECT_EQ(Run(u"backup/chunk-1", handle), 0u);
    // The double's handles are "handle:" + the object's name.
    EXPECT_EQ(handle, u"handle:backup/chunk-1");
    ASSERT_EQ(TestDouble::CallCount(GetParam().javaName), 1u);
    EXPECT_EQ(TestDouble::DescribeCall(GetParam().javaName, 0), GetParam().callText("\"backup/chunk-1\""));
    EXPECT_EQ(NewLines(), LinesAroundCall(u"backup/chunk-1", u"handle:backup/chunk-1"));
}

TEST_P(ObjectHandlesOperationTest, JavaErrorOrdinalIsMappedAndTheHandleIsStillWritten) {
    const std::pair<int, uint32_t> ordinalsAndCodes[] = {{1, 1}, {3, 7}, {22, 23}, {27, 30}, {38, 1},
                                                         {40, 47}, {46, 49}, {47, 45}, {48, 46}};
    for (const auto& [ordinal, code] : ordinalsAndCodes) {
        TestDouble::ReturnErrorOrdinal(GetParam().javaName, ordinal);
        TestDouble::SetString(GetParam().javaName, "objHandle", u"partial-handle");
        WideString handle = kKeptHandle;
        EXPECT_EQ(Run(u"obj", handle), code) << "ordinal " << ordinal;
        EXPECT_EQ(handle, u"partial-handle") << "ordinal " << ordinal;
    }
}

TEST_P(ObjectHandlesOperationTest, JavaErrorWithoutAHandleLeavesTheHandleEmpty) {
    TestDouble::ReturnErrorOrdinal(GetParam().javaName, 5);
    TestDouble::SetNullField(GetParam().javaName, "objHandle");
    WideString handle = kKeptHandle;
    EXPECT_EQ(Run(u"obj", handle), 5u);
    EXPECT_EQ(handle, u"");
}

TEST_P(ObjectHandlesOperationTest, NullErrorValueReadsAsOrdinal40AndGives47) {
    TestDouble::ReturnNullErrorValue(GetParam().javaName);
    WideString handle = kKeptHandle;
    EXPECT_EQ(Run(u"obj", handle), 47u);
    EXPECT_EQ(handle, u"handle:obj");
}






TEST_P(ObjectHandlesOperationTest, ExceptionBeforeTheLookupWritesTheOperationsLineAndGives40) {
    Interposer().ThrowCppExceptionIn("GetObjectClass");
    WideString handle = kKeptHandle;
    EXPECT_EQ(Run(u"obj", handle), 40u);
    EXPECT_EQ(handle, kKeptHandle);
    EXPECT_EQ(NewLines(), std::vector<WideString>{GetParam().exceptionLine});
}


TEST_P(ObjectHandlesOperationTest, EmptyNameReachesJavaAsAnEmptyString) {
    WideString handle = kKeptHandle;
    EXPECT_EQ(Run(u"", handle), 0u);
    ASSERT_EQ(TestDouble::CallCount(GetParam().javaName), 1u);
    EXPECT_EQ(TestDouble::DescribeCall(GetParam().javaName, 0), GetParam().callText("\"\""));
    EXPECT_EQ(handle, u"handle:");
}

TEST_P(ObjectHandlesOperationTest, NameWithNonAsciiUnitsReachesJavaUnchanged) {
    WideString handle;
    EXPECT_EQ(Run(u"caf\u00e9/\u4e2d", handle), 0u);
    ASSERT_EQ(TestDouble::CallCount(GetParam().javaName), 1u);
    EXPECT_EQ(TestDouble::DescribeCall(GetParam().javaName, 0), GetParam().callText("\"caf\\u00e9/\\u4e2d\""));
    EXPECT_EQ(handle, u"handle:caf\u00e9/\u4e2d");
}

TEST_P(ObjectHandlesOperationTest, AFreshThreadIsAttachedForTheCallAndDetachedAfterIt) {
    uint32_t code = 99;
    WideString handle;
    std::thread([&] { code = Run(u"obj", handle); }).join();
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(handle, u"handle:obj");
    EXPECT_EQ(Interposer().Attaches(), 1);
    EXPECT_EQ(Interposer().Detaches(), 1);
}

TEST_P(ObjectHandlesOperationTest, RepeatedCallsLeaveNoLocalReference) {
    for (int i = 0; i < 3; ++i) {
        WideString handle;
        EXPECT_EQ(Run(u"obj", handle), 0u);
        EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    }
    EXPECT_GT(Interposer().LocalRefsMade(), 0);
}

INSTANTIATE_TEST_SUITE_P(ObjectHandles, ObjectHandlesOperationTest, ::testing::ValuesIn(HandleOperations()),
                         [](const ::testing::TestParamInfo<HandleOperation>& info) { return info.param.label; });

// ---- CreateObject with metadata

TEST_F(ObjectHandlesTest, CreateObjectWithoutMetaDataLogsTheNullMetaDataLineAndCallsJavaWithANullArray) {
    WideString handle = kKeptHandle;
    EXPECT_EQ(m_bridge->CreateObject(u"obj-7", nullptr, handle), 0u);
    EXPECT_EQ(handle, u"handle:obj-7");
    ASSERT_EQ(TestDouble::CallCount("CreateObject"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("CreateObject", 0), "CreateObject(\"obj-7\", null)");
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"obj-7", u"CreateObject::is called wih null metadata...obj-7",
                                                   u"handle:obj-7", u"CreateObject::is ended..."}));
}

TEST_F(ObjectHandlesTest, CreateObjectWithEmptyMetaDataPassesAnArrayOfLength0) {
    ObjectMetaData empty;
    WideString handle;
    EXPECT_EQ(m_bridge->CreateObject(u"obj", &empty, handle), 0u);
    ASSERT_EQ(TestDouble::CallCount("CreateObject"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("CreateObject", 0), "CreateObject(\"obj\", {})");
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"obj", u"handle:obj", u"CreateObject::is ended..."}));
}

TEST_F(ObjectHandlesTest, CreateObjectWithMetaDataPassesEveryEntryInNameOrder) {
    ObjectMetaData metaData;
    metaData[u"zone"] = MetaDataValue{u"north", 0};
    metaData[u"author"] = MetaDataValue{u"", 0};
    metaData[u"size"] = MetaDataValue{u"12", 0};
    WideString handle;
    EXPECT_EQ(m_bridge->CreateObject(u"obj", &metaData, handle), 0u);
    ASSERT_EQ(TestDouble::CallCount("CreateObject"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("CreateObject", 0),
              "CreateObject(\"obj\", {\"author\"=\"\", \"size\"=\"12\", \"zone\"=\"north\"})");
    EXPECT_EQ(metaData.size(), 3u);
}

TEST_F(ObjectHandlesTest, CreateObjectWhoseMetaDataArrayCannotBeMadeCallsJavaWithANullArray) {
    Interposer().FailFindClass("com/qv/AzureLibrary/CPluginMetaData", -1);
    ObjectMetaData metaData = OneProperty();
    WideString handle = kKeptHandle;
    EXPECT_EQ(m_bridge->CreateObject(u"obj", &metaData, handle), 0u);
    EXPECT_EQ(handle, u"handle:obj");
    ASSERT_EQ(TestDouble::CallCount("CreateObject"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("CreateObject", 0), "CreateObject(\"obj\", null)");
    // Not the null-metadata line: metadata was given.
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"obj", u"handle:obj", u"CreateObject::is ended..."}));
}

TEST_F(ObjectHandlesTest, CreateObjectWithoutMetaDataAndAMissingMethodWritesNoNullMetaDataLine) {
    Interposer().FailGetMethodID(
        "CreateObject",
        "(Ljava/lang/String;[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/AzureLibrary/CCreateFnValue;");
    WideString handle = kKeptHandle;
    EXPECT_EQ(m_bridge->CreateObject(u"obj", nullptr, handle), 0u);
    EXPECT_EQ(handle, kKeptHandle);
    EXPECT_EQ(NewLines().size(), 5u);
}

// ---- OpenObject with flag

TEST_F(ObjectHandlesTest, OpenObjectPassesAFalseFlagAsFalse) {
    WideString handle;
    EXPECT_EQ(m_bridge->OpenObject(u"obj", handle, false), 0u);
    ASSERT_EQ(TestDouble::CallCount("OpenObject"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("OpenObject", 0), "OpenObject(\"obj\", false)");
    EXPECT_EQ(handle, u"handle:obj");
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ObjectHandlesTest, OpenObjectWithoutFlagCallsTheOneArgumentMethod) {
    WideString handle;
    EXPECT_EQ(m_bridge->OpenObject(u"obj", handle), 0u);
    EXPECT_EQ(Interposer().CountOf("GetMethodID", "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CCreateFnValue;"), 1u);
    EXPECT_EQ(Interposer().CountOf("GetMethodID", "(Ljava/lang/String;Z)"), 0u);
}

// ---- CloseObject

TEST_F(ObjectHandlesTest, CloseObjectPassesTheHandleAndReturns0) {
    EXPECT_EQ(m_bridge->CloseObject(u"handle:obj"), 0u);
    ASSERT_EQ(TestDouble::CallCount("CloseObject"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("CloseObject", 0), "CloseObject(\"handle:obj\")");
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(ObjectHandlesTest, CloseObjectOfAnUnknownHandleReturnsJavasErrorMapped) {
    const std::pair<int, uint32_t> ordinalsAndCodes[] = {{3, 7}, {22, 23}, {29, 30}, {40, 47}, {46, 49}};
    for (const auto& [ordinal, code] : ordinalsAndCodes) {
        TestDouble::ReturnErrorOrdinal("CloseObject", ordinal);
        EXPECT_EQ(m_bridge->CloseObject(u"handle:gone"), code) << "ordinal " << ordinal;
    }
}







TEST_F(ObjectHandlesTest, CloseObjectOnAFreshThreadAttachesAndDetachesIt) {
    uint32_t code = 99;
    std::thread([&] { code = m_bridge->CloseObject(u"handle:obj"); }).join();
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(Interposer().Attaches(), 1);
    EXPECT_EQ(Interposer().Detaches(), 1);
}

TEST_F(ObjectHandlesTest, CloseObjectKeepsNoStateBetweenCalls) {
    // The bridge neither counts nor checks opens and closes: closing twice,
    // or closing a handle never opened, is whatever Java answers.
    EXPECT_EQ(m_bridge->CloseObject(u"handle:never-opened"), 0u);
    EXPECT_EQ(m_bridge->CloseObject(u"handle:never-opened"), 0u);
    EXPECT_EQ(TestDouble::CallCount("CloseObject"), 2u);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
}

TEST_F(ObjectHandlesTest, AHandleFromCreateObjectOpensAndClosesTheSameObject) {
    WideString created;
    ASSERT_EQ(m_bridge->CreateObject(u"round-trip", created), 0u);
    WideString opened;
    ASSERT_EQ(m_bridge->OpenObject(u"round-trip", opened), 0u);
    EXPECT_EQ(opened, created);
    EXPECT_EQ(m_bridge->CloseObject(opened), 0u);
    EXPECT_EQ(TestDouble::DescribeCall("CloseObject", 0), "CloseObject(\"handle:round-trip\")");
}
