// The fixture of the suites that talk to the real JVM through the
// interposer: a clean interposer (strict mode on), a reset test double, a
// log writer of its own in a temporary folder, and a host creation record
// whose jvmRef points at the interposer's JavaVM.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "bridge/BridgeLog.h"
#include "bridge/JNIBridge.h"
#include "cloudplugin/ICloudPluginInterface.h"
#include "log/JNIWrapperLog.h"
#include "marshal/MetaData.h"
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

    // The method's lookup fails; describing that failure breaks down before the Java exception is
    // cleared, so the exception is still pending when the operation checks for it.
    void FailLookupLeavingTheExceptionPending(const std::string& javaName) {
        Interposer().FailGetMethodID(javaName);
        Interposer().ThrowCppExceptionIn("ExceptionClear");
    }

    // The lines of a failed lookup (its exception described, then the method's name and signature),
    // followed by `operationLines`.
    void ExpectLookupFailureLines(const char* javaName, const char* signature,
                                  const std::vector<WideString>& operationLines) {
        const auto lines = NewLines();
        ASSERT_EQ(lines.size(), 5u + operationLines.size());
        EXPECT_EQ(lines[0], u"Descrption is failed");
        EXPECT_TRUE(lines[1].rfind(u"java.lang.NoSuchMethodError", 0) == 0);
        EXPECT_EQ(lines[2], u"GetAzurePlugInObjectMethod::Method is not got... Method Name:- ");
        EXPECT_EQ(lines[3], NarrowBytesAsWide(javaName));
        EXPECT_EQ(lines[4], NarrowBytesAsWide(signature));
        EXPECT_EQ(std::vector<WideString>(lines.begin() + 5, lines.end()), operationLines);
    }

    // The lines of a lookup whose exception stayed pending, then described by the operation.
    void ExpectPendingExceptionLines(const char* javaName, const char* signature,
                                     const std::vector<WideString>& linesBeforeTheCheck) {
        const auto lines = NewLines();
        ASSERT_EQ(lines.size(), 6u + linesBeforeTheCheck.size());
        EXPECT_EQ(lines[0], u"DescribeException::Exception is occured...");
        EXPECT_EQ(lines[1], u"GetAzurePlugInObjectMethod::Method is not got... Method Name:- ");
        EXPECT_EQ(lines[2], NarrowBytesAsWide(javaName));
        EXPECT_EQ(lines[3], NarrowBytesAsWide(signature));
        EXPECT_EQ(std::vector<WideString>(lines.begin() + 4, lines.end() - 2), linesBeforeTheCheck);
        EXPECT_EQ(lines[lines.size() - 2], u"Descrption is failed");
        EXPECT_TRUE(lines.back().rfind(u"java.lang.NoSuchMethodError", 0) == 0);
    }

    std::unique_ptr<JNIBridge> m_bridge;
    size_t m_linesBefore = 0;
};

// Frees a sub-list (one a conversion handed over, or one the test made)
// when the test ends.
struct SubListOwner {
    ObjectSubList* list = nullptr;
    ~SubListOwner() { FreeObjectSubList(list); }
};

}  // namespace jnitest
