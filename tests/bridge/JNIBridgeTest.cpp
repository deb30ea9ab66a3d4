// The bridge's life cycle against the real JVM and the Java test double:
// construction, StartCommunication, both Init forms and DeInit.
#include <gtest/gtest.h>

#include <thread>

#include "bridge/JNIBridge.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;
using jnitest::TestDouble;

namespace {
std::string Quoted(const WideString& text) {
    std::string out = "\"";
    for (char16_t c : text) {
        if (c == u'\\' || c == u'"') {
            out.push_back('\\');
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out + "\"";
}
}  // namespace

class JNIBridgeTest : public BridgeFixture {
protected:
    void SetUp() override {
        BridgeFixture::SetUp();
        m_bridge = std::make_unique<JNIBridge>(u"host-folder", &m_createInfo);
        m_bridge->SetLogger(Log());
    }
    void Start() {
        ASSERT_EQ(m_bridge->StartCommunication(), 0u);
        ASSERT_NE(m_bridge->PluginObject(), nullptr);
    }
    std::unique_ptr<JNIBridge> m_bridge;
};

TEST_F(JNIBridgeTest, ConstructionTakesTheHostMachineAndHandsItToTheHostRecord) {
    EXPECT_EQ(m_bridge->Jvm(), m_vm);
    EXPECT_EQ(m_bridge->PluginObject(), nullptr);
    EXPECT_EQ(JVMHost::Instance().HostJVM(), m_vm);
    EXPECT_EQ(JVMHost::Instance().HostJVMRef(), &m_vm);
    EXPECT_EQ(TestDouble::CallCount("<init>"), 0u);
}

TEST_F(JNIBridgeTest, InitialiseCommunicationReturns0OnAFirstCallEvenWithAWorkingMachine) {
    std::string traced;
    SetStdoutTraceSink([&](const std::string& text) { traced += text; });
    EXPECT_EQ(m_bridge->InitialiseCommunication(u"host-folder"), 0u);
    SetStdoutTraceSink(nullptr);
    EXPECT_EQ(m_bridge->Jvm(), m_vm);
    EXPECT_EQ(LogLines(), std::vector<WideString>{u"InitialiseCommunication::JVM is not intailzed properly..."});
    EXPECT_NE(traced.find("Attempting to create JVM."), std::string::npos);
}

TEST_F(JNIBridgeTest, StartCommunicationMakesThePluginObjectFromTheHostsTwoStrings) {
    Start();
    EXPECT_TRUE(LogLines().empty());
    ASSERT_EQ(TestDouble::CallCount("<init>"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("<init>", 0),
              "<init>(" + Quoted(m_createInfo.installFolder) + ", " + Quoted(m_createInfo.logFolder) + ")");
    EXPECT_EQ(Interposer().CountOf("FindClass", "com/qv/AmazonLibrary/CPluginInitData"), 1u);
    m_bridge->DeInit();
}

TEST_F(JNIBridgeTest, StartCommunicationWithoutThePluginClassLogsAndGives40) {
    Interposer().FailFindClass("com/qv/AzureLibrary/QVAzurePlugInLibrary");
    EXPECT_EQ(m_bridge->StartCommunication(), 40u);
    EXPECT_EQ(m_bridge->PluginObject(), nullptr);
    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[2], u"GetAzurePlugInClass::Class object is not got...");
}

TEST_F(JNIBridgeTest, StartCommunicationWithoutAConstructorTakesTheFailedObjectPath) {
    Interposer().FailGetMethodID("<init>", "(Lcom/qv/AzureLibrary/CPluginInitData;)V");
    EXPECT_EQ(m_bridge->StartCommunication(), 40u);
    EXPECT_EQ(m_bridge->PluginObject(), nullptr);
    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), 6u) << ::testing::PrintToString(LogLinesUtf8());
    EXPECT_EQ(lines[2], u"GetAzurePlugInObjectMethod::Method is not got... Method Name:- ");
    EXPECT_EQ(lines[5], u"StartCommunication::Failed to Create plugin Object...");
    EXPECT_EQ(TestDouble::CallCount("<init>"), 0u);
}

TEST_F(JNIBridgeTest, StartCommunicationWithoutInitDataLogsFailedToJstring) {
    Interposer().FailFindClass("com/qv/AmazonLibrary/CPluginInitData");
    EXPECT_EQ(m_bridge->StartCommunication(), 40u);
    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], u"Descrption is failed");
    EXPECT_NE(lines[1].find(u"NoClassDefFoundError"), WideString::npos);
    EXPECT_EQ(lines[2], u"StartCommunication::Failed to jstring...");
}

TEST_F(JNIBridgeTest, StartCommunicationWhoseJavaConstructorThrowsLogsFailedToCreate) {
    TestDouble::Throw("<init>", "no storage account");
    EXPECT_EQ(m_bridge->StartCommunication(), 40u);
    EXPECT_EQ(m_bridge->PluginObject(), nullptr);
    EXPECT_EQ(LogLines(), (std::vector<WideString>{u"Descrption is failed",
                                                   u"java.lang.RuntimeException: no storage account",
                                                   u"StartCommunication::Failed to Create plugin Object..."}));
}

TEST_F(JNIBridgeTest, StartCommunicationCatchesNativeExceptions) {
    Interposer().ThrowCppExceptionIn("NewGlobalRef");
    EXPECT_EQ(m_bridge->StartCommunication(), 40u);
    EXPECT_EQ(LogLines(), std::vector<WideString>{u"StartCommunication::Exception is occured..."});
}

TEST_F(JNIBridgeTest, StartCommunicationTwiceNeverReleasesTheFirstReference) {
    Start();
    const jobject first = m_bridge->PluginObject();
    Start();
    EXPECT_NE(m_bridge->PluginObject(), first);
    EXPECT_EQ(Interposer().CountOf("NewGlobalRef"), 2u);
    EXPECT_EQ(Interposer().CountOf("DeleteGlobalRef"), 0u);
    m_bridge->DeInit();
}

TEST_F(JNIBridgeTest, InitWithTwoStringsPassesBothToAzureInit) {
    Start();
    EXPECT_EQ(m_bridge->Init(u"init string", u"install"), 0u);
    ASSERT_EQ(TestDouble::CallCount("AzureInit"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("AzureInit", 0), "AzureInit(\"init string\", \"install\")");
    m_bridge->DeInit();
}

TEST_F(JNIBridgeTest, InitWithOneStringPassesTheHostFolderSecond) {
    Start();
    EXPECT_EQ(m_bridge->Init(u"init string"), 0u);
    ASSERT_EQ(TestDouble::CallCount("AzureInit"), 1u);
    EXPECT_EQ(TestDouble::DescribeCall("AzureInit", 0), "AzureInit(\"init string\", \"host-folder\")");
    m_bridge->DeInit();
}

TEST_F(JNIBridgeTest, InitMapsTheJavaErrorOrdinal) {
    Start();
    TestDouble::ReturnErrorOrdinal("AzureInit", 40);
    EXPECT_EQ(m_bridge->Init(u"a", u"b"), 47u);
    TestDouble::ReturnErrorOrdinal("AzureInit", 3);
    EXPECT_EQ(m_bridge->Init(u"a"), 7u);
    m_bridge->DeInit();
}

TEST_F(JNIBridgeTest, WithoutAzureInitTheTwoStringInitSucceedsAndTheOneStringInitFails) {
    Start();
    Interposer().FailGetMethodID("AzureInit", "", -1);
    EXPECT_EQ(m_bridge->Init(u"a", u"b"), 0u);
    const size_t linesAfterTwoStringInit = LogLines().size();
    EXPECT_EQ(m_bridge->Init(u"a"), 40u);
    const auto lines = LogLines();
    ASSERT_GT(lines.size(), linesAfterTwoStringInit);
    EXPECT_EQ(lines.back(), u"Init:: Could not get the error object");
    EXPECT_EQ(TestDouble::CallCount("AzureInit"), 0u);
    m_bridge->DeInit();
}

TEST_F(JNIBridgeTest, NullAzureInitResultGives40) {
    Start();
    TestDouble::ReturnNull("AzureInit");
    EXPECT_EQ(m_bridge->Init(u"a", u"b"), 40u);
    EXPECT_TRUE(LogLines().empty());
    TestDouble::ReturnNull("AzureInit");
    EXPECT_EQ(m_bridge->Init(u"a"), 40u);
    EXPECT_EQ(LogLines(), std::vector<WideString>{u"Init:: Could not get the error object"});
    m_bridge->DeInit();
}

TEST_F(JNIBridgeTest, AzureInitThatThrowsGives40AndTheOneStringFormDescribesIt) {
    Start();
    TestDouble::Throw("AzureInit", "bad connection string");
    EXPECT_EQ(m_bridge->Init(u"a", u"b"), 40u);
    EXPECT_TRUE(LogLines().empty());
    TestDouble::Throw("AzureInit", "bad connection string");
    EXPECT_EQ(m_bridge->Init(u"a"), 40u);
    EXPECT_EQ(LogLines(), (std::vector<WideString>{u"Descrption is failed",
                                                   u"java.lang.RuntimeException: bad connection string",
                                                   u"Init:: Could not get the error object"}));
    m_bridge->DeInit();
}

TEST_F(JNIBridgeTest, InitWithoutAMachineLogsAndGives40) {
    JavaVM* none = nullptr;
    CloudPluginCreateInfo info = m_createInfo;
    info.jvmRef = &none;
    JNIBridge bridge(u"host", &info);
    bridge.SetLogger(Log());
    EXPECT_EQ(bridge.Init(u"a", u"b"), 40u);
    EXPECT_EQ(bridge.Init(u"a"), 40u);
    EXPECT_EQ(LogLines(), (std::vector<WideString>{u"JVM is not created properly..", u"JVM is not created properly.."}));
}

TEST_F(JNIBridgeTest, OperationsWithoutAPluginObjectGive40WithoutALine) {
    EXPECT_EQ(m_bridge->Init(u"a", u"b"), 40u);
    EXPECT_EQ(m_bridge->Init(u"a"), 40u);
    EXPECT_EQ(m_bridge->DeInit(), 40u);
    EXPECT_TRUE(LogLines().empty());
}

TEST_F(JNIBridgeTest, WithoutThePluginObjectsClassTheTwoStringInitAndDeInitGive40WithoutALine) {
    Start();
    TestDouble::Reset();
    Interposer().Reset();
    for (const bool withException : {false, true}) {
        if (withException) {
            Interposer().FailGetObjectClassWithException(2);
        } else {
            Interposer().FailGetObjectClass(2);
        }
        EXPECT_EQ(m_bridge->Init(u"a", u"b"), 40u);
        // DeInit ends at once and keeps the plug-in object.
        EXPECT_EQ(m_bridge->DeInit(), 40u);
        EXPECT_NE(m_bridge->PluginObject(), nullptr);
    }
    EXPECT_TRUE(LogLines().empty());
    EXPECT_EQ(Interposer().CountOf("GetMethodID"), 0u);
    EXPECT_TRUE(TestDouble::Calls().empty());
    m_bridge->DeInit();
}

TEST_F(JNIBridgeTest, WithoutThePluginObjectsClassTheOneStringInitDescribesAndWritesItsLine) {
    Start();
    TestDouble::Reset();
    Interposer().Reset();
    Interposer().FailGetObjectClass();
    EXPECT_EQ(m_bridge->Init(u"a"), 40u);
    EXPECT_EQ(LogLines(), std::vector<WideString>{u"jclsQVAzurePlugInLibrary is NULL"});
    Interposer().FailGetObjectClassWithException();
    EXPECT_EQ(m_bridge->Init(u"a"), 40u);
    EXPECT_EQ(LogLines(),
              (std::vector<WideString>{u"jclsQVAzurePlugInLibrary is NULL", u"Descrption is failed",
                                       u"java.lang.OutOfMemoryError: no room for the class reference (failure planned "
                                       u"by the JNI interposer)",
                                       u"jclsQVAzurePlugInLibrary is NULL"}));
    EXPECT_EQ(Interposer().CountOf("GetMethodID", "AzureInit"), 0u);
    EXPECT_EQ(TestDouble::CallCount("AzureInit"), 0u);
    m_bridge->DeInit();
}

TEST_F(JNIBridgeTest, InitCatchesNativeExceptions) {
    Start();
    Interposer().ThrowCppExceptionIn("GetObjectClass", 2);
    EXPECT_EQ(m_bridge->Init(u"a", u"b"), 40u);
    EXPECT_EQ(m_bridge->Init(u"a"), 40u);
    EXPECT_EQ(LogLines(), (std::vector<WideString>{u"Init::Exception is occured...", u"Init::Exception is occured..."}));
    m_bridge->DeInit();
}

TEST_F(JNIBridgeTest, DeInitCallsAzureDeInitAndReleasesThePluginObject) {
    Start();
    EXPECT_EQ(m_bridge->DeInit(), 0u);
    EXPECT_EQ(TestDouble::CallCount("AzureDeInit"), 1u);
    EXPECT_EQ(m_bridge->PluginObject(), nullptr);
    EXPECT_EQ(Interposer().CountOf("DeleteGlobalRef"), 1u);
    EXPECT_EQ(LogLines(), std::vector<WideString>{u"DeInit Vm called..."});
}

TEST_F(JNIBridgeTest, SecondDeInitFindsNoPluginObjectAndGives40WithoutALine) {
    Start();
    EXPECT_EQ(m_bridge->DeInit(), 0u);
    EXPECT_EQ(m_bridge->DeInit(), 40u);
    EXPECT_EQ(m_bridge->Init(u"a"), 40u);
    EXPECT_EQ(TestDouble::CallCount("AzureDeInit"), 1u);
    EXPECT_EQ(Interposer().CountOf("DeleteGlobalRef"), 1u);
    EXPECT_EQ(LogLines(), std::vector<WideString>{u"DeInit Vm called..."});
}

TEST_F(JNIBridgeTest, DeInitMapsTheJavaErrorOrdinal) {
    Start();
    TestDouble::ReturnErrorOrdinal("AzureDeInit", 46);
    EXPECT_EQ(m_bridge->DeInit(), 49u);
}

TEST_F(JNIBridgeTest, DeInitWithANullResultGives40AndStillReleases) {
    Start();
    TestDouble::ReturnNull("AzureDeInit");
    EXPECT_EQ(m_bridge->DeInit(), 40u);
    EXPECT_EQ(m_bridge->PluginObject(), nullptr);
    EXPECT_EQ(LogLines(), std::vector<WideString>{u"DeInit Vm called..."});
}

TEST_F(JNIBridgeTest, DeInitWhoseJavaMethodThrowsDescribesItAndGives40) {
    Start();
    TestDouble::Throw("AzureDeInit", "still busy");
    EXPECT_EQ(m_bridge->DeInit(), 40u);
    // Described once, so "DeInit Vm called..." is not written.
    EXPECT_EQ(LogLines(), (std::vector<WideString>{u"Descrption is failed", u"java.lang.RuntimeException: still busy"}));
    EXPECT_EQ(m_bridge->PluginObject(), nullptr);
}

TEST_F(JNIBridgeTest, DeInitWithoutAzureDeInitSucceedsAndReleases) {
    Start();
    Interposer().FailGetMethodID("AzureDeInit");
    EXPECT_EQ(m_bridge->DeInit(), 0u);
    EXPECT_EQ(m_bridge->PluginObject(), nullptr);
    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[5], u"DeInit Vm called...");
}

TEST_F(JNIBridgeTest, DeInitCatchesNativeExceptions) {
    Start();
    Interposer().ThrowCppExceptionIn("GetObjectClass");
    EXPECT_EQ(m_bridge->DeInit(), 40u);
    EXPECT_EQ(LogLines(), std::vector<WideString>{u"DeInit::Exception is occured..."});
    EXPECT_EQ(m_bridge->DeInit(), 0u);
}

TEST_F(JNIBridgeTest, LifeCycleLeavesNoLocalReferenceAndDetachesItsThread) {
    // A host thread that was never attached: each operation attaches and detaches it.
    std::thread([&] {
        Start();
        EXPECT_EQ(m_bridge->Init(u"a", u"b"), 0u);
        EXPECT_EQ(m_bridge->Init(u"a"), 0u);
        EXPECT_EQ(m_bridge->DeInit(), 0u);
    }).join();
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
    EXPECT_GT(Interposer().LocalRefsMade(), 0);
    EXPECT_EQ(Interposer().Attaches(), 4);
    EXPECT_EQ(Interposer().Detaches(), 4);
}

TEST_F(JNIBridgeTest, CreatePluginInitDataIsAnAmazonLibraryObjectThatIsAnAzureLibraryOne) {
    JNIEnv* env = Env();
    const LocalRef<jobject> data = m_bridge->CreatePluginInitData(env, &m_createInfo);
    ASSERT_TRUE(data);
    LocalRef<jclass> amazon(env, env->FindClass("com/qv/AmazonLibrary/CPluginInitData"));
    LocalRef<jclass> azure(env, env->FindClass("com/qv/AzureLibrary/CPluginInitData"));
    EXPECT_TRUE(env->IsInstanceOf(data.get(), amazon.get()));
    EXPECT_TRUE(env->IsInstanceOf(data.get(), azure.get()));
    EXPECT_FALSE(m_bridge->CreatePluginInitData(env, nullptr));
}
