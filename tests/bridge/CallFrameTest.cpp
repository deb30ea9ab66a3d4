// The call frame that every storage operation runs through, driven with
// operations declared here against the Java test double.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "bridge/CallFrame.h"
#include "bridge/JNIBridge.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;
using jnitest::StartedBridgeFixture;
using jnitest::TestDouble;

namespace {

constexpr const char* kDeleteContainerSignature = "()Lcom/qv/QVCloudPluginInterface/CErrorValue;";
constexpr const char* kIsValidContainerSignature = "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;";

constexpr OperationTraits DeleteContainerTraits(MissingMethodRule rule) {
    return Operation("DeleteContainer", kDeleteContainerSignature, rule,
                     u"DeleteContainerFromQVCloud::Exception is occured...")
        .CalledLine(u"DeleteContainerFromQVCloud::Java called ...")
        .EndedLine(u"DeleteContainerFromQVCloud::Java ended ...");
}

}  // namespace

class CallFrameTest : public StartedBridgeFixture {
protected:
    BridgeContext Context() const { return {m_vm, m_log.get(), m_bridge->PluginObject()}; }
    // Runs DeleteContainer through the frame, converting its CErrorValue with GetErrorId.
    uint32_t RunDeleteContainer(const OperationTraits& op, int* conversions = nullptr, bool* sawNull = nullptr) {
        return RunCallFrame(
            Context(), op, [](JavaArguments&) {},
            [&](JNIEnv* env, jobject result) {
                if (conversions) ++*conversions;
                if (sawNull) *sawNull = result == nullptr;
                return GetErrorId(env, Log(), result);
            });
    }

};

TEST_F(CallFrameTest, SuccessfulCallConvertsTheResultAndWritesTheLinesAroundIt) {
    EXPECT_EQ(RunDeleteContainer(DeleteContainerTraits(MissingMethodRule::TakeNullResult)), 0u);
    EXPECT_EQ(TestDouble::CallCount("DeleteContainer"), 1u);
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"DeleteContainerFromQVCloud::Java called ...",
                                                   u"DeleteContainerFromQVCloud::Java ended ..."}));
}

TEST_F(CallFrameTest, JavaErrorOrdinalIsMapped) {
    TestDouble::ReturnErrorOrdinal("DeleteContainer", 3);
    EXPECT_EQ(RunDeleteContainer(DeleteContainerTraits(MissingMethodRule::TakeNullResult)), 7u);
}

TEST_F(CallFrameTest, NullResultReachesTheConversion) {
    TestDouble::ReturnNull("DeleteContainer");
    bool sawNull = false;
    EXPECT_EQ(RunDeleteContainer(DeleteContainerTraits(MissingMethodRule::TakeNullResult), nullptr, &sawNull), 40u);
    EXPECT_TRUE(sawNull);
}

TEST_F(CallFrameTest, JavaExceptionFromTheMethodReadsAsANullResultAndIsCleared) {
    TestDouble::Throw("DeleteContainer", "container locked");
    bool sawNull = false;
    bool pendingInConversion = true;
    const uint32_t cleared = RunCallFrame(
        Context(), DeleteContainerTraits(MissingMethodRule::TakeNullResult), [](JavaArguments&) {},
        [&](JNIEnv* env, jobject) {
            pendingInConversion = env->ExceptionCheck();
            return 40u;
        });
    EXPECT_EQ(cleared, 40u);
    EXPECT_FALSE(pendingInConversion);
    TestDouble::Throw("DeleteContainer", "container locked");
    MarkLines();
    EXPECT_EQ(RunDeleteContainer(DeleteContainerTraits(MissingMethodRule::TakeNullResult), nullptr, &sawNull), 40u);
    EXPECT_TRUE(sawNull);
    EXPECT_EQ(NewLines().size(), 2u);  // the called and ended lines only
}

TEST_F(CallFrameTest, ADescribingOperationGetsTheJavaExceptionStillPendingInItsConversion) {
    TestDouble::Throw("DeleteContainer", "container locked");
    bool pendingInConversion = false;
    const uint32_t code = RunCallFrame(
        Context(), DeleteContainerTraits(MissingMethodRule::TakeNullResult).DescribingJavaExceptions(),
        [](JavaArguments&) {},
        [&](JNIEnv* env, jobject result) {
            // The ended line is written before the conversion, and no JNI call comes between.
            pendingInConversion = result == nullptr && env->ExceptionCheck();
            return DescribePendingException(env, Log()) ? 40u : 0u;
        });
    EXPECT_EQ(code, 40u);
    EXPECT_TRUE(pendingInConversion);
    EXPECT_EQ(NewLines(), (std::vector<WideString>{u"DeleteContainerFromQVCloud::Java called ...",
                                                   u"DeleteContainerFromQVCloud::Java ended ...",
                                                   u"Descrption is failed",
                                                   u"java.lang.RuntimeException: container locked"}));
}

TEST_F(CallFrameTest, ArgumentsReachJavaInOrder) {
    constexpr OperationTraits op =
        Operation("IsValidContainer", kIsValidContainerSignature, MissingMethodRule::ReturnSuccess,
                  u"IsValidContainer::Exception is occured...")
            .FailingWithoutClass(kMissingPluginClassLine);
    const uint32_t code = RunCallFrame(
        Context(), op, [](JavaArguments& args) { args.AddString(u"container-\u00e9"); },
        [](JNIEnv*, jobject result) { return result ? 0u : 99u; });
    EXPECT_EQ(code, 0u);
    ASSERT_EQ(TestDouble::CallCount("IsValidContainer"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("IsValidContainer", 0), "IsValidContainer(\"container-\\u00e9\")");
}

TEST_F(CallFrameTest, MissingMethodWithReturnSuccessEndsWith0WithoutCallingOrConverting) {
    Interposer().FailGetMethodID("DeleteContainer");
    int conversions = 0;
    EXPECT_EQ(RunDeleteContainer(DeleteContainerTraits(MissingMethodRule::ReturnSuccess), &conversions), 0u);
    EXPECT_EQ(conversions, 0);
    EXPECT_EQ(TestDouble::CallCount("DeleteContainer"), 0u);
    const auto lines = NewLines();
    ASSERT_EQ(lines.size(), 5u);  // the exception described (2) and the three lookup lines
    EXPECT_EQ(lines[2], u"GetAzurePlugInObjectMethod::Method is not got... Method Name:- ");
}

TEST_F(CallFrameTest, MissingMethodWithTakeNullResultGoesOnAsIfJavaReturnedNull) {
    Interposer().FailGetMethodID("DeleteContainer");
    int conversions = 0;
    bool sawNull = false;
    EXPECT_EQ(RunDeleteContainer(DeleteContainerTraits(MissingMethodRule::TakeNullResult), &conversions, &sawNull),
              40u);
    EXPECT_EQ(conversions, 1);
    EXPECT_TRUE(sawNull);
    EXPECT_EQ(TestDouble::CallCount("DeleteContainer"), 0u);
    // (The frame calls with the A form; describing the lookup's exception uses the V form for toString.)
    EXPECT_EQ(Interposer().CountOf("CallObjectMethodA"), 0u);
    const auto lines = NewLines();
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[5], u"DeleteContainerFromQVCloud::Java called ...");
    EXPECT_EQ(lines[6], u"DeleteContainerFromQVCloud::Java ended ...");
}

TEST_F(CallFrameTest, MissingMethodLineIsWrittenBeforeTheExceptionCheck) {
    OperationTraits op = DeleteContainerTraits(MissingMethodRule::ReturnSuccess);
    op.missingMethodLine = u"GET_LIST_REGIONS_NAME::method is not found...";
    Interposer().FailGetMethodID("DeleteContainer");
    EXPECT_EQ(RunDeleteContainer(op), 0u);
    const auto lines = NewLines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[5], u"GET_LIST_REGIONS_NAME::method is not found...");
}

TEST_F(CallFrameTest, NoEnvironmentGives40WithoutALine) {
    std::thread([&] {
        Interposer().FailAttach();
        int conversions = 0;
        EXPECT_EQ(RunDeleteContainer(DeleteContainerTraits(MissingMethodRule::ReturnSuccess), &conversions), 40u);
        EXPECT_EQ(conversions, 0);
    }).join();
    EXPECT_EQ(NewLines(), std::vector<WideString>{u"Thread is not attached properly.."});
    EXPECT_EQ(TestDouble::CallCount("DeleteContainer"), 0u);
}

TEST_F(CallFrameTest, NoPluginObjectGives40WithoutALine) {
    BridgeContext context = Context();
    context.plugin = nullptr;
    const uint32_t code = RunCallFrame(
        context, DeleteContainerTraits(MissingMethodRule::ReturnSuccess), [](JavaArguments&) {},
        [](JNIEnv*, jobject) { return 0u; });
    EXPECT_EQ(code, 40u);
    EXPECT_TRUE(NewLines().empty());
}

TEST_F(CallFrameTest, NativeExceptionWritesTheOperationsExceptionLineAndGives40) {
    const uint32_t code = RunCallFrame(
        Context(), DeleteContainerTraits(MissingMethodRule::ReturnSuccess), [](JavaArguments&) {},
        [](JNIEnv*, jobject) -> uint32_t { throw std::runtime_error("conversion failed"); });
    EXPECT_EQ(code, 40u);
    const auto lines = NewLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), u"DeleteContainerFromQVCloud::Exception is occured...");
}

TEST_F(CallFrameTest, ExceptionInsideAJniCallOfTheFrameIsCaught) {
    Interposer().ThrowCppExceptionIn("GetObjectClass");
    EXPECT_EQ(RunDeleteContainer(DeleteContainerTraits(MissingMethodRule::ReturnSuccess)), 40u);
    EXPECT_EQ(NewLines(), std::vector<WideString>{u"DeleteContainerFromQVCloud::Exception is occured..."});
}

TEST_F(CallFrameTest, EveryLocalReferenceIsReleased) {
    for (int i = 0; i < 3; ++i) {
        RunDeleteContainer(DeleteContainerTraits(MissingMethodRule::TakeNullResult));
        EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    }
    EXPECT_GT(Interposer().LocalRefsMade(), 0);
}
