// The --jobs threads: runs one piece of work per index on a fixed number of
// host threads.
#pragma once

#include <cstddef>
#include <functional>

namespace qvhost {

// Runs work(index, worker) for every index in 0..count-1 on `jobs` threads
// (worker 0..jobs-1 names the thread, for per-thread buffers); indexes are
// taken in order. The first failure, or an interrupt, stops the others
// after the item in hand and is rethrown (an interrupt as an Error of kind Interrupted).
void RunInParallel(unsigned jobs, size_t count, const std::function<void(size_t index, unsigned worker)>& work);

}  // namespace qvhost
