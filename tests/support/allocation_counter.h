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
// Bytes that operator new gave out and delete has not taken back, on all
// threads (as the heap counts them, with its rounding).
int64_t LiveBytes();

// While one lives, operator new on the constructing thread refuses every
// request above that many bytes with std::bad_alloc, as a full heap would.
class CFailAbove {
 public:
  explicit CFailAbove(uint64_t bytes);
  ~CFailAbove();
  CFailAbove(const CFailAbove&) = delete;
  CFailAbove& operator=(const CFailAbove&) = delete;

 private:
  uint64_t former_;
};

// While one lives, the Nth request to operator new on the constructing thread
// (counting from 1 at construction) is refused with std::bad_alloc, once; the
// others are served. Walking N up from 1 fails each allocation of a path in
// turn, whatever its size.
class CRefuseNth {
 public:
  explicit CRefuseNth(uint64_t n);
  ~CRefuseNth();
  CRefuseNth(const CRefuseNth&) = delete;
  CRefuseNth& operator=(const CRefuseNth&) = delete;
  // Whether the Nth request came, and so was refused.
  bool Refused() const;

 private:
  uint64_t formerLeft_;
};

}  // namespace AllocationCounter

#endif
