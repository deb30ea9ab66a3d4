#include "util/ParallelRunner.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>

#include "util/Interrupt.h"
#include "util/Error.h"

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
    if (Interrupted()) throw Error(ErrorKind::Interrupted, "interrupted");
}

}  // namespace qvhost
