// A host's view of the plug-in with a JVM: a fresh copy of the built
// library loaded by file, a plug-in object made by its CreateInstance with
// the test JVM (through the interposer, strict mode on) and the test double
// as the Java storage library.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SlotCalls.h"
#include "support/JniInterposer.h"
#include "support/LogFiles.h"
#include "support/PluginLibrary.h"
#include "support/TempFolder.h"
#include "support/TestDouble.h"

namespace plugintest {

class LoadedPluginFixture : public ::testing::Test {
protected:
    void SetUp() override {
        jnitest::JniInterposer::Instance().SetStrict(true);
        jnitest::TestDouble::Reset();
        jnitest::JniInterposer::Instance().Reset();
        m_vm = jnitest::JniInterposer::Instance().Vm();
        m_createInfo.installFolder = m_install.Path();
        m_createInfo.logFolder = m_logs.Path();
        m_createInfo.jvmRef = &m_vm;
        ASSERT_NE(m_library.CreateInstance(), nullptr);
        m_object = m_library.CreateInstance()(&m_createInfo);
        ASSERT_NE(m_object, nullptr);
        ASSERT_EQ(jnitest::TestDouble::CallCount("<init>"), 1u);
        jnitest::TestDouble::Reset();
        m_linesBefore = Lines().size();
    }
    void TearDown() override {
        if (m_object) m_object->Release();
        const std::string problems = jnitest::InterposerProblems(true);
        if (!problems.empty()) ADD_FAILURE() << problems;
    }

    std::vector<std::u16string> Lines() const { return testsupport::LogMessagesIn(m_logs.Path()); }
    // The lines logged since SetUp (or the last call of NewLines).
    std::vector<std::u16string> NewLines() {
        const auto lines = Lines();
        std::vector<std::u16string> fresh(lines.begin() + static_cast<std::ptrdiff_t>(m_linesBefore), lines.end());
        m_linesBefore = lines.size();
        return fresh;
    }

    testsupport::PluginLibrary m_library;
    testsupport::TempFolder m_install;
    testsupport::TempFolder m_logs;
    JavaVM* m_vm = nullptr;
    CloudPluginCreateInfo m_createInfo;
    ICloudPluginInterface* m_object = nullptr;
    size_t m_linesBefore = 0;
};

}  // namespace plugintest
