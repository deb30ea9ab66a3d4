// The fixture of the suites that talk to the real JVM through the
// interposer: a clean interposer (strict mode on), a reset test double, a
// log writer of its own in a temporary folder, and a host creation record
// whose jvmRef points at the interposer's JavaVM.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "bridge/JNIBridge.h"
#include "cloudplugin/ICloudPluginInterface.h"
#include "log/JNIWrapperLog.h"
#include "support/JniInterposer.h"
#include "support/TempFolder.h"
#include "support/TestDouble.h"

namespace jnitest {

class BridgeFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The calling thread's environment through the interposer (the thread is
    // attached by the interposer's JavaVM when it was not).
    JNIEnv* Env();
    JniInterposer& Interposer() { return JniInterposer::Instance(); }
    JNIWrapperLog* Log() { return m_log.get(); }
    // The messages written to the log so far, in order (the text after " :"
    // of each record).
    std::vector<WideString> LogLines() const;
    // Log lines as UTF-8, for readable failure messages.
    std::vector<std::string> LogLinesUtf8() const;

    // Whether TearDown insists that no local reference is left over since the
    // last Interposer().Reset(); tests that keep references on purpose turn it
    // off.
    bool m_expectBalancedRefs = true;

    testsupport::TempFolder m_folder;
    std::unique_ptr<JNIWrapperLog> m_log;
    JavaVM* m_vm = nullptr;  // the interposer's JavaVM, what jvmRef points at
    CloudPluginCreateInfo m_createInfo;
};

// A BridgeFixture with a started bridge: its Java plug-in object made, the
// test double and the interposer reset afterwards, and the log lines written
// so far set aside. TearDown de-initialises the bridge.
class StartedBridgeFixture : public BridgeFixture {
protected:
    void SetUp() override;
    void TearDown() override;

    // The log lines written since SetUp (or since the last MarkLines).
    std::vector<WideString> NewLines() const;
    // Lines written from here on are the new ones.
    void MarkLines() { m_linesBefore = LogLines().size(); }

    std::unique_ptr<JNIBridge> m_bridge;
    size_t m_linesBefore = 0;
};

}  // namespace jnitest
