// The --jobs threads: runs one piece of work per index on a fixed number of
// host threads; and the plan that makes every part of every file a piece
// of work of its own, so that the parts of one large file are spread over
// all the jobs.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace qvhost {

// Runs work(index, worker) for every index in 0..count-1 on `jobs` threads
// (worker 0..jobs-1 names the thread, for per-thread buffers); indexes are
// taken in order. The first failure, or an interrupt, stops the others
// after the item in hand and is rethrown (an interrupt as ToolError 130).
void RunInParallel(unsigned jobs, size_t count, const std::function<void(size_t index, unsigned worker)>& work);

// The parts of a list of files as items, the parts of a file one after
// another and the files with most parts first: a file of n parts gives n
// items, an empty file one item with no part. Done() counts the items of a
// file, so that whoever does its last item finishes the file.
class PartPlan {
public:
    struct Item {
        size_t file = 0;
        uint64_t part = 0;
        bool hasPart = false;  // false: the one item of a file of no parts
    };

    explicit PartPlan(const std::vector<uint64_t>& partCounts);

    size_t size() const { return items_.size(); }
    const Item& operator[](size_t index) const { return items_[index]; }
    // Counts an item of `file` as done; true for the file's last one.
    bool Done(size_t file) { return --left_[file] == 0; }

private:
    std::vector<Item> items_;
    std::unique_ptr<std::atomic<uint64_t>[]> left_;
};

}  // namespace qvhost
