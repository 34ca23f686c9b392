// What the process holds now, for the stress tests' figures and their
// checks for leaks: memory, and the system handles (descriptors natively).
#ifndef QUILLON_TESTS_SUPPORT_PROCESS_STATS_H
#define QUILLON_TESTS_SUPPORT_PROCESS_STATS_H

#include <cstdint>

namespace ProcessStats {

// Resident memory natively; the private bytes under Windows.
uint64_t MemoryBytes();
// Open descriptors natively; the handle count under Windows.
uint32_t Handles();
// Threads of the process.
uint32_t Threads();

}  // namespace ProcessStats

#endif
