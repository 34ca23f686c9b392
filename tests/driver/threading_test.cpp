#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "driver/periodic_thread.h"
#include "driver/system_sync.h"
#include "driver/threading.h"
#include "driver/wait.h"
#include "platform/clock.h"
#include "support/allocation_counter.h"
#include "support/realtime_watch.h"
#include "support/storage_fixture.h"

using namespace NSFerrand;

class ThreadingTest : public StorageTest {};

TEST_F(ThreadingTest, TryLockAndTimedLockAgainstAnotherOwner) {
  CLockableMutex mutex(true);
  std::atomic<int> tried{-1};
  std::atomic<int> timed{-1};
  std::thread other([&] {
    tried = mutex.TryLock() ? 1 : 0;
    timed = mutex.TimedLock(0) ? 1 : 0;
  });
  other.join();
  EXPECT_EQ(tried, 0);
  EXPECT_EQ(timed, 0);
  mutex.Unlock();
  std::thread again([&] {
    tried = mutex.TryLock() ? 1 : 0;
    if (tried == 1) mutex.Unlock();
  });
  again.join();
  EXPECT_EQ(tried, 1);
}

TEST_F(ThreadingTest, TimedLockWaitsForARelease) {
  CLockableMutex mutex(false);
  std::atomic<bool> held{false};
  std::atomic<bool> release{false};
  std::thread owner([&] {
    mutex.Lock();
    held = true;
    WaitFor([&] { return release.load(); });
    mutex.Unlock();
  });
  ASSERT_TRUE(WaitFor([&] { return held.load(); }));
  EXPECT_FALSE(mutex.TimedLock(30));
  release = true;
  EXPECT_TRUE(mutex.TimedLock(10000));
  mutex.Unlock();
  owner.join();
}

TEST_F(ThreadingTest, AMutexWhoseOwnerDiedCountsAsTaken) {
  CLockableMutex mutex(false);
  std::thread owner([&] { EXPECT_TRUE(mutex.TryLock()); });
  owner.join();
  EXPECT_TRUE(mutex.TryLock());
  mutex.Unlock();
}

TEST_F(ThreadingTest, OnlyTheOwnerReleases) {
  CLockableMutex mutex(true);
  bool raised = false;
  std::thread other([&] {
    try {
      mutex.Unlock();
    } catch (const std::exception&) {
      raised = true;
    }
  });
  other.join();
  EXPECT_TRUE(raised);
  // The owner may take it again, and must give back each time.
  EXPECT_TRUE(mutex.TryLock());
  mutex.Unlock();
  mutex.Unlock();
  EXPECT_THROW(mutex.Unlock(), std::exception);
}

TEST_F(ThreadingTest, ScopedLocks) {
  CLockableMutex mutex(false);
  {
    CScopedLock lock(&mutex);
    std::atomic<int> got{-1};
    std::thread other([&] {
      CTryScopedLock attempt(&mutex);
      got = attempt.Locked() ? 1 : 0;
    });
    other.join();
    EXPECT_EQ(got, 0);
  }
  std::atomic<int> got{-1};
  std::thread other([&] {
    CTryScopedLock attempt(&mutex);
    got = attempt.Locked() ? 1 : 0;
  });
  other.join();
  EXPECT_EQ(got, 1);
}

TEST(ThreadPriorities, CodesMapToSystemValues) {
  EXPECT_EQ(SystemPriorityOf(kPriorityLowest), -2);
  EXPECT_EQ(SystemPriorityOf(kPriorityBelowNormal), -1);
  EXPECT_EQ(SystemPriorityOf(kPriorityNormal), 0);
  EXPECT_EQ(SystemPriorityOf(kPriorityAboveNormal), 1);
  EXPECT_EQ(SystemPriorityOf(kPriorityTimeCritical), 15);
  EXPECT_EQ(SystemPriorityOf(78), 0);
  EXPECT_EQ(SystemPriorityOf(84), 0);
  EXPECT_EQ(kPriorityLowest, 79u);
  EXPECT_EQ(kPriorityTimeCritical, 83u);
}

namespace {

struct Body : IThreadFunction {
  std::atomic<int> runs{0};
  bool raise = false;
  // Set before the thread starts: wait for an event handed over later.
  bool waits = false;
  std::atomic<NSPlatform::SEvent*> waitOn{nullptr};
  void Run() override {
    ++runs;
    if (waits && WaitFor([&] { return waitOn.load() != nullptr; })) {
      NSPlatform::WaitEvent(waitOn.load(), 20000);
    }
    if (raise) throw std::runtime_error("body");
  }
};

}  // namespace

TEST_F(ThreadingTest, ARaisingBodyEndsItsThreadQuietly) {
  Body body;
  body.raise = true;
  {
    CTimedThread thread(&body, kPriorityNormal, "raising");
    thread.Join();
    EXPECT_FALSE(thread.Running());
    EXPECT_TRUE(thread.Ended());
    EXPECT_EQ(thread.Name(), "raising");
  }
  EXPECT_EQ(body.runs, 1);
}

TEST_F(ThreadingTest, TheDestructorSignalsAThreadStillRunning) {
  Body body;
  body.waits = true;
  CTimedThread* thread = new CTimedThread(&body, kPriorityAboveNormal, "waiting");
  body.waitOn = thread->StopEvent();
  ASSERT_TRUE(WaitFor([&] { return body.runs.load() == 1; }));
  delete thread;  // sets the stop event, which ends the wait
  SUCCEED();
}

TEST_F(ThreadingTest, PeriodicCallsComeAtTheirPace) {
  struct State {
    std::atomic<int> calls{0};
  } state;
  auto callback = [](CPeriodicCallbackThread* t) {
    ++static_cast<State*>(t->UserData())->calls;
  };
  const auto start = std::chrono::steady_clock::now();
  {
    CPeriodicCallbackThread periodic(25, callback, &state);
    EXPECT_EQ(periodic.PeriodMs(), 25u);
    EXPECT_EQ(periodic.Thread().PriorityCode(), kPriorityTimeCritical);
    EXPECT_EQ(periodic.Thread().Name(), "CPeriodicCallbackThread");
    // The first call comes at once.
    ASSERT_TRUE(WaitFor([&] { return state.calls.load() >= 1; }, 2000));
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  // About 40 a second; generous bounds for a loaded machine.
  EXPECT_GE(state.calls.load(), static_cast<int>(seconds * 40 * 0.4));
  EXPECT_LE(state.calls.load(), static_cast<int>(seconds * 40 * 1.5) + 2);
}

TEST_F(ThreadingTest, PeriodZeroCallsInALoopAndAStopStillEndsIt) {
  std::atomic<int> calls{0};
  auto callback = [](CPeriodicCallbackThread* t) { ++*static_cast<std::atomic<int>*>(t->UserData()); };
  CPeriodicCallbackThread* periodic = new CPeriodicCallbackThread(0, callback, &calls);
  ASSERT_TRUE(WaitFor([&] { return calls.load() > 1000; }));
  // Every call is overdue, and the stop is seen between two of them all the
  // same: no call has to end the loop by raising.
  const auto before = std::chrono::steady_clock::now();
  delete periodic;
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
  const int after = calls.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(calls.load(), after);
}

TEST_F(ThreadingTest, AStopWakesTheThreadFromItsWait) {
  std::atomic<int> calls{0};
  auto callback = [](CPeriodicCallbackThread* t) { ++*static_cast<std::atomic<int>*>(t->UserData()); };
  // A period of ten minutes: only the stop signal can end the wait.
  CPeriodicCallbackThread* periodic = new CPeriodicCallbackThread(600000, callback, &calls);
  ASSERT_TRUE(WaitFor([&] { return calls.load() == 1; }));
  const auto before = std::chrono::steady_clock::now();
  delete periodic;
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
  EXPECT_EQ(calls.load(), 1);
}

TEST_F(ThreadingTest, ACallbackSlowerThanThePeriodDelaysAStopByOneCallAtMost) {
  struct State {
    std::atomic<int> calls{0};
    std::atomic<bool> stopAsked{false};
    std::atomic<int> afterStop{0};
  } state;
  auto callback = [](CPeriodicCallbackThread* t) {
    State* s = static_cast<State*>(t->UserData());
    ++s->calls;
    if (s->stopAsked) ++s->afterStop;
    // 200 ms against a period of 20: every call is overdue.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  };
  CPeriodicCallbackThread* periodic = new CPeriodicCallbackThread(20, callback, &state);
  ASSERT_TRUE(WaitFor([&] { return state.calls.load() >= 3; }));
  state.stopAsked = true;
  delete periodic;
  EXPECT_LE(state.afterStop.load(), 1);
}

TEST_F(ThreadingTest, ARaisingCallbackEndsTheThreadAndDestructionReturns) {
  std::atomic<int> calls{0};
  auto callback = [](CPeriodicCallbackThread* t) {
    ++*static_cast<std::atomic<int>*>(t->UserData());
    throw std::runtime_error("callback");
  };
  CPeriodicCallbackThread* periodic = new CPeriodicCallbackThread(5, callback, &calls);
  ASSERT_TRUE(WaitFor([&] { return periodic->Thread().Ended(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(calls.load(), 1);
  delete periodic;
}

TEST_F(ThreadingTest, ThePeriodicLoopNeitherAllocatesNorWaitsButForItsPeriod) {
  CRealtimeWatch watch;
  auto callback = [](CPeriodicCallbackThread* t) {
    static_cast<CRealtimeWatch*>(t->UserData())->OnRender();
  };
  {
    CPeriodicCallbackThread periodic(1, callback, &watch);
    ASSERT_TRUE(WaitFor([&] { return watch.Watched() >= 100; }));
  }
  // Between the first call and the last, the thread's own loop (clock
  // reads, stop tests, its waits for the period) allocated nothing and
  // waited for nothing else.
  EXPECT_EQ(watch.Allocations(), 0u);
  EXPECT_EQ(watch.BlockingWaits(), 0u);
}

// The watch itself: a lock taken or a sleep between two blocks is seen;
// the wait for the period is not.
TEST_F(ThreadingTest, TheRealtimeWatchSeesEveryWaitButThePeriod) {
  CRealtimeWatch watch;
  CLockableMutex mutex(false);
  CSystemEvent event;
  watch.OnRender();
  mutex.WaitForPeriod(1);
  mutex.Unlock();
  watch.OnRender();
  EXPECT_EQ(watch.BlockingWaits(), 0u);
  EXPECT_TRUE(mutex.TryLock());
  mutex.Unlock();
  watch.OnRender();
  EXPECT_EQ(watch.BlockingWaits(), 0u);
  mutex.Lock();
  mutex.Unlock();
  watch.OnRender();
  EXPECT_EQ(watch.BlockingWaits(), 1u);
  NSPlatform::SleepMilliseconds(1);
  EXPECT_TRUE(mutex.TimedLock(5));
  mutex.Unlock();
  event.Set();
  event.Wait();
  watch.OnRender();
  EXPECT_EQ(watch.BlockingWaits(), 3u);
  EXPECT_EQ(watch.Watched(), 4u);
  std::vector<int> grown(4);
  watch.OnRender();
  EXPECT_EQ(watch.Allocations(), 1u);
}

TEST_F(ThreadingTest, SystemMutexAndEvent) {
  CSystemMutex mutex;
  mutex.Lock();
  std::atomic<int> got{-1};
  std::thread other([&] { got = mutex.TimedLock(10) ? 1 : 0; });
  other.join();
  EXPECT_EQ(got, 0);
  mutex.Unlock();
  EXPECT_TRUE(mutex.TryLock());
  mutex.Unlock();

  CSystemEvent event;
  EXPECT_FALSE(event.TryWait());
  EXPECT_FALSE(event.TimedWait(10));
  event.Set();
  EXPECT_TRUE(event.TryWait());
  EXPECT_FALSE(event.TryWait());  // auto-reset
  std::thread setter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    event.Set();
  });
  event.Wait();
  setter.join();
}

TEST_F(ThreadingTest, SystemThreadWithAffinity) {
  CThreadAffinity a;
  CThreadAffinity b;
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.idealProcessor, -1);
  EXPECT_EQ(a.mask, 0xFFFFFFFFu);
  b.maskGiven = true;
  EXPECT_NE(a, b);
  // Within the process's mask, the intersection, or the process's mask.
  CThreadAffinity m;
  m.maskGiven = true;
  m.mask = 0x2;
  EXPECT_EQ(m.EffectiveMask(0x3), 0x2u);
  m.mask = 0x6;
  EXPECT_EQ(m.EffectiveMask(0x3), 0x2u);
  m.mask = 0x8;
  EXPECT_EQ(m.EffectiveMask(0x3), 0x3u);
  EXPECT_EQ(CThreadAffinity().EffectiveMask(0x5), 0x5u);
  Body body;
  NSPlatform::SEvent* hold = NSPlatform::NewEvent(true, false);
  body.waits = true;
  body.waitOn = hold;
  {
    CSystemThread thread(&body, kPriorityNormal, "affine");
    CThreadAffinity first;
    first.mask = 1;
    first.maskGiven = true;
    EXPECT_TRUE(thread.ApplyAffinity(first));
    EXPECT_TRUE(thread.ApplyAffinity(CThreadAffinity()));
    NSPlatform::SetEvent(hold);
  }
  NSPlatform::DestroyEvent(hold);
  EXPECT_EQ(body.runs, 1);
}
