// The two-string Init of the plug-in object when the plug-in's own JVM path
// reports a machine, a state a host reaches only after an earlier attach
// through that path; the process's JVM record is set so here.
#include <gtest/gtest.h>

#include "plugin/QVAzureCommunicationMgr.h"
#include "support/BridgeFixture.h"
#include "support/JVMHostTestAccess.h"

namespace {

using jnitest::BridgeFixture;
using jnitest::TestDouble;

class ManagerInitTest : public BridgeFixture {
protected:
    void SetUp() override {
        BridgeFixture::SetUp();
        m_object = new QVAzureCommunicationMgr(&m_createInfo);
        JVMHostTestAccess::SetRefCount(JVMHost::Instance(), 1);
        TestDouble::Reset();
    }
    void TearDown() override {
        JVMHostTestAccess::SetRefCount(JVMHost::Instance(), 0);
        m_object->DeInit();
        m_object->Release();
        BridgeFixture::TearDown();
    }
    ICloudPluginInterface* m_object = nullptr;
};

TEST_F(ManagerInitTest, TwoStringInitStartsCommunicationAgainThenCallsAzureInit) {
    EXPECT_EQ(m_object->Init(u"init", u"other folder"), 0u);
    ASSERT_EQ(TestDouble::Calls().size(), 2u);
    EXPECT_EQ(TestDouble::Calls()[0].rfind("<init>(", 0), 0u);
    EXPECT_EQ(TestDouble::Calls()[1], "AzureInit(\"init\", \"other folder\")");
}

TEST_F(ManagerInitTest, TwoStringInitWhoseStartCommunicationFailsAnswersThatCodeWithoutAzureInit) {
    TestDouble::Throw("<init>", "no plug-in object today");
    const uint32_t result = m_object->Init(u"init", u"other folder");
    EXPECT_EQ(result, 40u);
    EXPECT_EQ(TestDouble::CallCount("AzureInit"), 0u);
}

TEST_F(ManagerInitTest, TwoStringInitPassesAzureInitsErrorThrough) {
    TestDouble::ReturnErrorOrdinal("AzureInit", 3);
    EXPECT_EQ(m_object->Init(u"init", u"other folder"), 7u);
}

}  // namespace
