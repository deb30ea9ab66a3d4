// The plan that makes every part of every file a piece of work of its own,
// so that the parts of one large file are spread over all the jobs.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace qvhost::legacy {

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

}  // namespace qvhost::legacy
