// How much memory this machine can give a piece of work now: what bounds
// the memory a key object from storage may ask of the key derivation.
#pragma once

#include <cstdint>

namespace qvhost {

// The memory available without swapping (Linux: MemAvailable of
// /proc/meminfo; elsewhere the free physical pages); 0 when unknown.
uint64_t AvailableMemoryBytes();

}  // namespace qvhost
