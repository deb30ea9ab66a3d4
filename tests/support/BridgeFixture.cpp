#include "support/BridgeFixture.h"

#include "support/LogFiles.h"

#include "platform/Platform.h"

namespace jnitest {

void BridgeFixture::SetUp() {
    Interposer().SetStrict(true);
    TestDouble::Reset();
    Interposer().Reset();
    m_log = std::make_unique<JNIWrapperLog>(m_folder.Path(), false);
    m_vm = Interposer().Vm();
    m_createInfo.installFolder = m_folder.Path();
    m_createInfo.jvmRef = &m_vm;
    m_createInfo.logFolder = m_folder.Path();
}

void BridgeFixture::TearDown() {
    const std::string problems = InterposerProblems(m_expectBalancedRefs);
    if (problems.empty()) return;
    // The JNI calls since the last reset, to find where a reference was made or a null passed.
    std::string calls;
    for (const JniCall& call : Interposer().Calls()) calls += "  " + call.function + " " + call.detail + "\n";
    ADD_FAILURE() << problems << "\nJNI calls:\n" << calls;
}

JNIEnv* BridgeFixture::Env() {
    JNIEnv* env = nullptr;
    if (m_vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) == JNI_OK) return env;
    if (m_vm->AttachCurrentThreadAsDaemon(reinterpret_cast<void**>(&env), nullptr) != JNI_OK) return nullptr;
    return env;
}

std::vector<WideString> BridgeFixture::LogLines() const {
    return testsupport::LogMessages(m_log->CurrentFilePath());
}

std::vector<std::string> BridgeFixture::LogLinesUtf8() const {
    std::vector<std::string> out;
    for (const auto& line : LogLines()) out.push_back(qvplatform::ToUtf8(line));
    return out;
}

void StartedBridgeFixture::SetUp() {
    BridgeFixture::SetUp();
    m_bridge = std::make_unique<JNIBridge>(m_folder.Path(), &m_createInfo);
    m_bridge->SetLogger(Log());
    ASSERT_EQ(m_bridge->StartCommunication(), 0u);
    TestDouble::Reset();
    Interposer().Reset();
    MarkLines();
}

void StartedBridgeFixture::TearDown() {
    m_bridge->DeInit();
    BridgeFixture::TearDown();
}

std::vector<WideString> StartedBridgeFixture::NewLines() const {
    const auto lines = LogLines();
    return std::vector<WideString>(lines.begin() + static_cast<std::ptrdiff_t>(m_linesBefore), lines.end());
}

}  // namespace jnitest
