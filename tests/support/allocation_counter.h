// Counts the allocations made through operator new, per thread, so that a
// test can prove a path allocates nothing.
#ifndef QUILLON_TESTS_ALLOCATION_COUNTER_H
#define QUILLON_TESTS_ALLOCATION_COUNTER_H

#include <cstdint>

namespace AllocationCounter {

// Allocations made so far on the calling thread.
uint64_t OnThisThread();
// Allocations made so far on all threads.
uint64_t Total();

}  // namespace AllocationCounter

#endif
