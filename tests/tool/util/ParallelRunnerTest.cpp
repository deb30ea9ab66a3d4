// The jobs: every index run once on the threads given, the first failure
// stopping the rest.
#include <gtest/gtest.h>

#include <atomic>
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
    const std::optional<ErrorKind> status = KindOf([&] {
        RunInParallel(2, 100000, [&](size_t index, unsigned) {
            if (index == 10) throw PluginError("WriteObject", "x", 7);
            ++done;
        });
    });
    EXPECT_EQ(status, ErrorKind::Storage);
    EXPECT_LT(done.load(), 100000u - 1);
}

}  // namespace
