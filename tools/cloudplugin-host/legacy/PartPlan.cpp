#include "legacy/PartPlan.h"

#include <algorithm>

namespace qvhost::legacy {

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

}  // namespace qvhost::legacy
