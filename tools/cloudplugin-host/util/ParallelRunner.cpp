#include "util/ParallelRunner.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "util/Interrupt.h"
#include "util/ToolError.h"

namespace qvhost {

void RunInParallel(unsigned jobs, size_t count, const std::function<void(size_t index, unsigned worker)>& work) {
    std::atomic<size_t> next{0};
    std::atomic<bool> stop{false};
    std::exception_ptr failure;
    std::mutex failureMutex;
    auto run = [&](unsigned worker) {
        for (;;) {
            if (stop || Interrupted()) return;
            const size_t index = next++;
            if (index >= count) return;
            try {
                work(index, worker);
            } catch (...) {
                std::lock_guard<std::mutex> lock(failureMutex);
                if (!failure) failure = std::current_exception();
                stop = true;
                return;
            }
        }
    };
    jobs = std::max(1u, std::min<unsigned>(jobs, static_cast<unsigned>(std::max<size_t>(count, 1))));
    std::vector<std::thread> threads;
    for (unsigned worker = 1; worker < jobs; ++worker) threads.emplace_back(run, worker);
    run(0);
    for (std::thread& thread : threads) thread.join();
    if (failure) std::rethrow_exception(failure);
    if (Interrupted()) throw ToolError(kExitInterrupted, "interrupted");
}

PartPlan::PartPlan(const std::vector<uint64_t>& partCounts)
    : left_(std::make_unique<std::atomic<uint64_t>[]>(partCounts.size())) {
    // Files of many parts first: the small ones then fill the gaps at the
    // end, instead of one large file running on alone.
    std::vector<size_t> order(partCounts.size());
    for (size_t file = 0; file < order.size(); ++file) order[file] = file;
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return partCounts[a] > partCounts[b]; });
    for (const size_t file : order) {
        const uint64_t parts = partCounts[file];
        left_[file] = parts ? parts : 1;
        if (parts == 0) items_.push_back({file, 0, false});
        for (uint64_t part = 0; part < parts; ++part) items_.push_back({file, part, true});
    }
}

}  // namespace qvhost
