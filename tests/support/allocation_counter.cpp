#include "support/allocation_counter.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
thread_local uint64_t tCount = 0;
thread_local uint64_t tRefuseAbove = ~uint64_t{0};
// Requests until the one refused: 0 when none is armed, 1 for the next.
thread_local uint64_t tRefuseIn = 0;
thread_local bool tRefusedNth = false;
std::atomic<uint64_t> gTotal{0};
std::atomic<int64_t> gLiveBytes{0};

int64_t UsableSize(void* p) {
#if defined(_WIN32)
  return static_cast<int64_t>(_msize(p));
#else
  return static_cast<int64_t>(malloc_usable_size(p));
#endif
}

void Free(void* p) {
  if (p == nullptr) return;
  gLiveBytes.fetch_sub(UsableSize(p), std::memory_order_relaxed);
  std::free(p);
}

void* Allocate(size_t size) {
  if (size > tRefuseAbove) throw std::bad_alloc();
  if (tRefuseIn != 0 && --tRefuseIn == 0) {
    tRefusedNth = true;
    throw std::bad_alloc();
  }
  ++tCount;
  gTotal.fetch_add(1, std::memory_order_relaxed);
  for (;;) {
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
      gLiveBytes.fetch_add(UsableSize(p), std::memory_order_relaxed);
      return p;
    }
    std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) throw std::bad_alloc();
    handler();
  }
}
}  // namespace

uint64_t AllocationCounter::OnThisThread() { return tCount; }
uint64_t AllocationCounter::Total() { return gTotal.load(); }
int64_t AllocationCounter::LiveBytes() { return gLiveBytes.load(); }

AllocationCounter::CFailAbove::CFailAbove(uint64_t bytes) : former_(tRefuseAbove) {
  tRefuseAbove = bytes;
}
AllocationCounter::CFailAbove::~CFailAbove() { tRefuseAbove = former_; }

AllocationCounter::CRefuseNth::CRefuseNth(uint64_t n) : formerLeft_(tRefuseIn) {
  tRefuseIn = n;
  tRefusedNth = false;
}
AllocationCounter::CRefuseNth::~CRefuseNth() { tRefuseIn = formerLeft_; }
bool AllocationCounter::CRefuseNth::Refused() const { return tRefusedNth; }

void* operator new(size_t size) { return Allocate(size); }
void* operator new[](size_t size) { return Allocate(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  try {
    return Allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  try {
    return Allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void operator delete(void* p) noexcept { Free(p); }
void operator delete[](void* p) noexcept { Free(p); }
void operator delete(void* p, size_t) noexcept { Free(p); }
void operator delete[](void* p, size_t) noexcept { Free(p); }
// The partners of the nothrow forms, used when a constructor raises.
void operator delete(void* p, const std::nothrow_t&) noexcept { Free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { Free(p); }
