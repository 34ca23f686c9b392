// Watches an audio path from inside its render calls. The first block on a
// thread may set up what the path keeps; after it, the thread that renders
// allocates nothing and never waits for a lock, an event or another thread.
// Its wait for the next period, which the library marks, is the exception.
#ifndef QUILLON_TESTS_REALTIME_WATCH_H
#define QUILLON_TESTS_REALTIME_WATCH_H

#include <atomic>
#include <cstdint>
#include <thread>

#include "support/allocation_counter.h"

namespace RealtimeWatch {

// Installs the observer of the system's waits; once is enough.
void Install();
// Waits begun on the calling thread so far, its period waits left out.
uint64_t BlockingWaitsOnThisThread();
// Period waits begun on any thread, and the allocations of the thread that
// began the latest, counted as it began it: a streaming thread that goes on
// waiting for its periods after a failure shows what the failure cost it.
uint64_t PeriodWaitsBegun();
uint64_t AllocationsAtLatestPeriodWait();

}  // namespace RealtimeWatch

class CRealtimeWatch {
 public:
  CRealtimeWatch() { RealtimeWatch::Install(); }

  // On the thread that renders, at every block.
  void OnRender() {
    const uint64_t allocations = AllocationCounter::OnThisThread();
    const uint64_t waits = RealtimeWatch::BlockingWaitsOnThisThread();
    const std::thread::id thread = std::this_thread::get_id();
    if (thread_.load(std::memory_order_relaxed) == thread) {
      allocations_.fetch_add(allocations - lastAllocations_.load(std::memory_order_relaxed));
      waits_.fetch_add(waits - lastWaits_.load(std::memory_order_relaxed));
      watched_.fetch_add(1);
    } else {
      thread_.store(thread, std::memory_order_relaxed);
    }
    lastAllocations_.store(allocations, std::memory_order_relaxed);
    lastWaits_.store(waits, std::memory_order_relaxed);
    blocks_.fetch_add(1);
  }

  uint64_t Blocks() const { return blocks_.load(); }
  // Blocks that followed another on the same thread: the ones that count.
  uint64_t Watched() const { return watched_.load(); }
  // Allocations and waits between two blocks of one thread.
  uint64_t Allocations() const { return allocations_.load(); }
  uint64_t BlockingWaits() const { return waits_.load(); }

 private:
  std::atomic<std::thread::id> thread_{};
  std::atomic<uint64_t> lastAllocations_{0};
  std::atomic<uint64_t> lastWaits_{0};
  std::atomic<uint64_t> blocks_{0};
  std::atomic<uint64_t> watched_{0};
  std::atomic<uint64_t> allocations_{0};
  std::atomic<uint64_t> waits_{0};
};

#endif
