// The --jobs threads: runs one piece of work per index on a fixed number of
// host threads, or the items one thread finds on others while it finds them.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "util/Error.h"
#include "util/Interrupt.h"

namespace qvhost {

// Runs work(index, worker) for every index in 0..count-1 on `jobs` threads
// (worker 0..jobs-1 names the thread, for per-thread buffers); indexes are
// taken in order. The first failure, or an interrupt, stops the others
// after the item in hand and is rethrown (an interrupt as an Error of kind Interrupted).
void RunInParallel(unsigned jobs, size_t count, const std::function<void(size_t index, unsigned worker)>& work);

// Runs produce(push) on the calling thread while `jobs` threads of their own
// run consume(item, worker) on what it pushes, in the order pushed; push
// waits while `capacity` items wait. The first failure on either side, or an
// interrupt, stops both (push then throws, to end the producer) and is
// rethrown once every thread has ended.
template <class Item>
void RunWhileProducing(unsigned jobs, size_t capacity,
                       const std::function<void(const std::function<void(Item&&)>& push)>& produce,
                       const std::function<void(Item& item, unsigned worker)>& consume) {
    struct Stopped {};
    std::mutex mutex;
    std::condition_variable work, space;  // items to take; room to push
    std::deque<Item> waiting;
    bool produced = false, stop = false;
    std::exception_ptr failure;
    auto fail = [&](std::exception_ptr error) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (!failure) failure = error;
            stop = true;
        }
        work.notify_all();
        space.notify_all();
    };
    auto run = [&](unsigned worker) {
        for (;;) {
            Item item;
            {
                std::unique_lock<std::mutex> lock(mutex);
                work.wait(lock, [&] { return stop || produced || !waiting.empty(); });
                if (stop || waiting.empty()) return;
                item = std::move(waiting.front());
                waiting.pop_front();
            }
            space.notify_one();
            try {
                if (Interrupted()) throw Error(ErrorKind::Interrupted, "interrupted");
                consume(item, worker);
            } catch (...) {
                return fail(std::current_exception());
            }
        }
    };
    std::vector<std::thread> threads;
    for (unsigned worker = 0; worker < std::max(1u, jobs); ++worker) threads.emplace_back(run, worker);
    try {
        produce([&](Item&& item) {
            if (Interrupted()) throw Error(ErrorKind::Interrupted, "interrupted");
            std::unique_lock<std::mutex> lock(mutex);
            space.wait(lock, [&] { return stop || waiting.size() < capacity; });
            if (stop) throw Stopped{};
            waiting.push_back(std::move(item));
            lock.unlock();
            work.notify_one();
        });
    } catch (const Stopped&) {
        // a job failed: its failure is the one to report
    } catch (...) {
        fail(std::current_exception());
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        produced = true;
    }
    work.notify_all();
    for (std::thread& thread : threads) thread.join();
    if (failure) std::rethrow_exception(failure);
    if (Interrupted()) throw Error(ErrorKind::Interrupted, "interrupted");
}

}  // namespace qvhost
