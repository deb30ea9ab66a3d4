// Several host threads driving the bridge at once, each on objects of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bridge/JNIBridge.h"
#include "support/BridgeFixture.h"

using jnitest::StartedBridgeFixture;
using jnitest::TestDouble;

namespace {

constexpr int kThreads = 4;
constexpr int kOperationsPerThread = 2000;
constexpr int kOperationsPerRound = 5;  // write, exists, read, metadata, delete

WideString Widen(const std::string& text) { return WideString(text.begin(), text.end()); }

// The bytes of round `round` of thread `thread`: a length and content of their own.
std::vector<uint8_t> RoundBytes(int thread, int round) {
    std::vector<uint8_t> bytes(static_cast<size_t>(1 + (round * 997 + thread * 131) % 16384));
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 31 + thread * 7 + round);
    return bytes;
}

}  // namespace

class ConcurrencyTest : public StartedBridgeFixture {};

TEST_F(ConcurrencyTest, FourHostThreadsRunningMixedOperationsGetEveryResultAndByteRight) {
    std::atomic<int> failures{0};
    std::vector<std::string> firstFailure(kThreads);
    auto fail = [&](int thread, const std::string& what) {
        if (failures++ == 0 || firstFailure[static_cast<size_t>(thread)].empty()) {
            firstFailure[static_cast<size_t>(thread)] = what;
        }
    };

    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kOperationsPerThread / kOperationsPerRound; ++round) {
                const std::string id = "thread" + std::to_string(t) + "/object" + std::to_string(round % 7);
                const WideString name = Widen(id);
                const std::vector<uint8_t> bytes = RoundBytes(t, round);
                const WideString owner = Widen("owner of " + id + " in round " + std::to_string(round));

                ObjectMetaData metaData;
                metaData[u"owner"] = MetaDataValue{owner, 0};
                WideString handle;
                if (m_bridge->WriteObject(name, bytes.data(), bytes.size(), &metaData, handle) != 0) {
                    fail(t, "write of " + id);
                }

                uint32_t exists = 0;
                if (m_bridge->IsObjectExist(name, &exists) != 0 || exists != 1) fail(t, "exists of " + id);

                std::vector<uint8_t> read(bytes.size() + 16, 0xEE);
                uint64_t length = bytes.size();
                if (m_bridge->ReadObject(name, read.data(), 0, &length) != 0 || length != bytes.size() ||
                    !std::equal(bytes.begin(), bytes.end(), read.begin()) || read[bytes.size()] != 0xEE) {
                    fail(t, "read of " + id);
                }

                WideString value;
                if (m_bridge->GetObjectMetaData(name, u"owner", value) != 0 || value != owner) {
                    fail(t, "metadata of " + id);
                }

                if (m_bridge->DeleteObjectByName(name) != 0) fail(t, "delete of " + id);
            }
        });
    }
    for (auto& thread : threads) thread.join();

    for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(firstFailure[static_cast<size_t>(t)].empty()) << firstFailure[t];
    EXPECT_EQ(failures.load(), 0);
    // Every operation attached its (unattached) thread and detached it again.
    EXPECT_EQ(Interposer().Attaches(), kThreads * kOperationsPerThread);
    EXPECT_EQ(Interposer().Detaches(), kThreads * kOperationsPerThread);
    EXPECT_EQ(TestDouble::CallCount("ReadObject"), static_cast<size_t>(kThreads * kOperationsPerThread / 5));
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
}
