// The jobs: every index run once on the threads given, the first failure
// stopping the rest.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "host/PluginSession.h"
#include "util/Error.h"
#include "util/ParallelRunner.h"

using namespace qvhost;

namespace {

std::optional<ErrorKind> KindOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Error& error) {
        return error.kind();
    }
    return std::nullopt;
}

TEST(RunInParallel, RunsEveryIndexOnceOnTheGivenThreads) {
    std::mutex mutex;
    std::multiset<size_t> seen;
    std::set<unsigned> workers;
    RunInParallel(3, 1000, [&](size_t index, unsigned worker) {
        std::lock_guard<std::mutex> lock(mutex);
        seen.insert(index);
        workers.insert(worker);
    });
    ASSERT_EQ(seen.size(), 1000u);
    for (size_t i = 0; i < 1000; ++i) EXPECT_EQ(seen.count(i), 1u);
    for (unsigned worker : workers) EXPECT_LT(worker, 3u);
}

TEST(RunInParallel, TheFirstFailureStopsTheRestAndIsRethrown) {
    std::atomic<size_t> done{0};
    std::atomic<bool> thrown{false};
    const std::optional<ErrorKind> status = KindOf([&] {
        RunInParallel(2, 100000, [&](size_t index, unsigned) {
            if (index == 10) {
                thrown = true;
                throw PluginError("WriteObject", "x", 7);
            }
            // Items after the failing one wait until it has thrown (at most
            // ten seconds), then take a millisecond each: a runner that did
            // not stop would take minutes, however the threads are scheduled.
            if (index > 10) {
                for (int i = 0; i < 10000 && !thrown; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            ++done;
        });
    });
    EXPECT_EQ(status, ErrorKind::Storage);
    EXPECT_LT(done.load(), 1000u);
}

TEST(RunWhileProducing, EveryItemPushedIsConsumedOnceAndThePushWaitsForRoom) {
    std::mutex mutex;
    std::multiset<int> seen;
    std::atomic<int> pushed{0}, consumed{0}, mostAhead{0};
    RunWhileProducing<int>(
        2, 8,
        [&](const std::function<void(int&&)>& push) {
            for (int i = 0; i < 5000; ++i) {
                push(int(i));
                const int ahead = ++pushed - consumed;
                if (ahead > mostAhead) mostAhead = ahead;
            }
        },
        [&](int& item, unsigned worker) {
            EXPECT_LT(worker, 2u);
            std::this_thread::yield();
            std::lock_guard<std::mutex> lock(mutex);
            seen.insert(item);
            ++consumed;
        });
    ASSERT_EQ(seen.size(), 5000u);
    for (int i = 0; i < 5000; ++i) EXPECT_EQ(seen.count(i), 1u);
    // At most 8 waiting and one in the hands of each of the 2 jobs.
    EXPECT_LE(mostAhead.load(), 8 + 2);
}

TEST(RunWhileProducing, AJobsFailureEndsTheProducerAndIsRethrown) {
    std::atomic<int> pushed{0};
    const std::optional<ErrorKind> status = KindOf([&] {
        RunWhileProducing<int>(
            2, 4,
            [&](const std::function<void(int&&)>& push) {
                for (int i = 0; i < 1000000; ++i) push(int(i)), ++pushed;
            },
            [&](int& item, unsigned) {
                if (item == 100) throw PluginError("WriteObject", "x", 7);
            });
    });
    EXPECT_EQ(status, ErrorKind::Storage);
    EXPECT_LT(pushed.load(), 1000000) << "the producer stopped";
}

TEST(RunWhileProducing, TheProducersFailureStopsTheJobsAndIsRethrown) {
    std::atomic<int> consumed{0};
    const std::optional<ErrorKind> status = KindOf([&] {
        RunWhileProducing<int>(
            2, 4,
            [&](const std::function<void(int&&)>& push) {
                for (int i = 0; i < 50; ++i) push(int(i));
                throw Error(ErrorKind::LocalFile, "the source went away");
            },
            [&](int&, unsigned) { ++consumed; });
    });
    EXPECT_EQ(status, ErrorKind::LocalFile);
    EXPECT_LE(consumed.load(), 50);
}

}  // namespace
