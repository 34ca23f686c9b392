#include "support/allocation_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
thread_local uint64_t tCount = 0;
thread_local uint64_t tRefuseAbove = ~uint64_t{0};
std::atomic<uint64_t> gTotal{0};

void* Allocate(size_t size) {
  if (size > tRefuseAbove) throw std::bad_alloc();
  ++tCount;
  gTotal.fetch_add(1, std::memory_order_relaxed);
  for (;;) {
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) throw std::bad_alloc();
    handler();
  }
}
}  // namespace

uint64_t AllocationCounter::OnThisThread() { return tCount; }
uint64_t AllocationCounter::Total() { return gTotal.load(); }

AllocationCounter::CFailAbove::CFailAbove(uint64_t bytes) : former_(tRefuseAbove) {
  tRefuseAbove = bytes;
}
AllocationCounter::CFailAbove::~CFailAbove() { tRefuseAbove = former_; }

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
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
// The partners of the nothrow forms, used when a constructor raises.
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
