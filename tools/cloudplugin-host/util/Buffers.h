// Checks on the buffers callers hand to the crypto and compression code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace qvhost {

// Whether [data, data + size) lies at least partly inside [base, base + extent): std::less gives the total
// order on pointers that the built-in comparison does not promise for unrelated objects.
inline bool Overlaps(const uint8_t* data, size_t size, const uint8_t* base, size_t extent) {
    if (!data || !base || size == 0 || extent == 0) return false;
    const std::less<const uint8_t*> before;
    return before(data, base + extent) && before(base, data + size);
}

}  // namespace qvhost
