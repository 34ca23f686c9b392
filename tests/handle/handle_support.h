#ifndef QUILLON_TESTS_HANDLE_SUPPORT_H
#define QUILLON_TESTS_HANDLE_SUPPORT_H

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "driver/handle.h"
#include "driver/wait.h"
#include "fakes/fake_driver.h"
#include "support/allocation_counter.h"
#include "support/realtime_watch.h"
#include "support/storage_fixture.h"

// A renderer that counts blocks, tells silent ones from driven ones, and
// notices any two calls that overlap.
class CountingRenderer final : public NSFerrand::MSoundRenderer {
 public:
  uint32_t Render(uint32_t frames, const NSFerrand::CChannelPointers& inputs,
                  NSFerrand::CChannelPointers& outputs, uint64_t a, uint64_t b, uint64_t c,
                  uint64_t d) override {
    if (inside.fetch_add(1) != 0) ++overlaps;
    const bool silent = frames == 5120 && inputs.empty() && outputs.empty() && a == 0 && b == 0 &&
                        c == 0 && d == 0;
    if (silent) {
      const uint64_t allocations = AllocationCounter::OnThisThread();
      const uint64_t n = ++silentBlocks;
      if (n == 1) silentAllocationsAtFirst = allocations;
      silentAllocationsLatest = allocations;
      silentWatch.OnRender();
    } else {
      ++drivenBlocks;
    }
    if (frames == 5120 && !silent) ++oddBlocks;
    const int hold = holdMs.load();
    if (hold > 0) std::this_thread::sleep_for(std::chrono::milliseconds(hold));
    --inside;
    if (raiseNext.exchange(false)) throw std::runtime_error("render");
    return 0;
  }

  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::atomic<uint64_t> silentBlocks{0};
  std::atomic<uint64_t> drivenBlocks{0};
  std::atomic<uint64_t> oddBlocks{0};
  std::atomic<int> holdMs{0};
  std::atomic<bool> raiseNext{false};
  // Everything the silent thread allocated from its start to its first
  // block, and to its latest.
  std::atomic<uint64_t> silentAllocationsAtFirst{~uint64_t{0}};
  std::atomic<uint64_t> silentAllocationsLatest{0};
  CRealtimeWatch silentWatch;
};

class HandleTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    control = std::make_shared<Fakes::CFakeDriverControl>();
    registered.reset(new Fakes::CFakeRegisteredDriver(control, u"fake-1", u"MME", u"Fake One"));
    otherControl = std::make_shared<Fakes::CFakeDriverControl>();
    other.reset(new Fakes::CFakeRegisteredDriver(otherControl, u"fake-2", u"DX", u"Fake Two"));
  }
  void TearDown() override {
    EXPECT_EQ(renderer.overlaps.load(), 0);
    StorageTest::TearDown();
  }
  bool SilentBlocksFlow(uint64_t more = 1) {
    const uint64_t from = renderer.silentBlocks.load();
    return WaitFor([&] { return renderer.silentBlocks.load() >= from + more; });
  }

  CountingRenderer renderer;
  std::shared_ptr<Fakes::CFakeDriverControl> control;
  std::shared_ptr<Fakes::CFakeDriverControl> otherControl;
  NSFerrand::CRegisteredDriverPtr registered;
  NSFerrand::CRegisteredDriverPtr other;
};

#endif
