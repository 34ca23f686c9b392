// The library under load, through the boundary: thousands of clients made
// and destroyed, a thousand driver switches across every family while the
// host renders, suspend and resume storms, and the hardware library firing
// connection and button events from its own thread all the while. A
// watchdog fails a test that hangs; the host counts any two Render calls
// that overlap; the process's handles and threads come back to where they
// were. The address sanitizer's leak checker watches the native runs; the
// Windows build, run under Wine and with a tenth of the load, checks its
// handle count and private bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "e2e/e2e_support.h"
#include "e2e/fake_world.h"
#include "support/allocation_counter.h"
#include "support/process_stats.h"
#include "support/usable_window.h"

namespace {

#if defined(_WIN32)
constexpr int kScale = 10;  // Wine starts threads and handles slowly
#else
constexpr int kScale = 1;
#endif
constexpr int kCycles = 10000 / kScale;
constexpr int kSwitches = 1000 / kScale;
constexpr int kStorms = 1000 / kScale;
constexpr int kWatchdogSeconds = 600;

// Fails the test program, loudly, when the test has not ended in time.
class CWatchdog {
 public:
  CWatchdog(const char* what, int seconds)
      : thread_([this, what, seconds] {
          std::unique_lock<std::mutex> lock(mutex_);
          if (!ended_.wait_for(lock, std::chrono::seconds(seconds), [this] { return done_; })) {
            std::fprintf(stderr, "watchdog: %s did not end within %d s\n", what, seconds);
            std::fflush(stderr);
            std::abort();
          }
        }) {}
  ~CWatchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    ended_.notify_all();
    thread_.join();
  }
  CWatchdog(const CWatchdog&) = delete;
  CWatchdog& operator=(const CWatchdog&) = delete;

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  bool done_ = false;
  std::thread thread_;
};

struct SFigures {
  int64_t liveBefore;
  uint64_t memoryBefore;
  uint32_t handlesBefore;
  uint32_t threadsBefore;
  uint32_t peakHandles = 0;
  uint32_t peakThreads = 0;
};

class StressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    world.reset(new CFakeWorld());
    const SLibraryParams params = {UsableWindow(), kLibraryFlagUseHardware};
    uint32_t status = 0;
    library = Quillon_Create("IQuillon2", &params, &status);
    ASSERT_NE(library, nullptr);
    ASSERT_EQ(status, kStatusOk);
    specs = library->GetDriverSpecs(&status);
    ASSERT_EQ(status, kStatusOk);
    // Every family is there: the null driver, the fake, MME, DX, WASAPI
    // shared and exclusive, and the ASIO driver of the connected device.
    for (const char16_t* family : {u"Off", u"MME", u"DX", u"WASAPI", u"ASIO"}) {
      ASSERT_NE(FirstOf(specs, family), nullptr) << "no driver of a family";
    }
    for (int64_t i = 0; i < specs->GetSize(); ++i) rotation.push_back(specs->GetData()[i]);
    ASSERT_GE(rotation.size(), 7u);
  }
  void TearDown() override {
    QuillonDestroy(specs);
    QuillonDestroy(library);
    world.reset();
  }

  IClient* Create(const IDriverSpec* spec, uint32_t* running, uint32_t* status) {
    return library->CreateClient(&world->host, &world->sink, spec, running, status);
  }

  // Events from the hardware library's own thread, a few at a time.
  static void PostEvents() {
    ZEPFake_PostConnections(2);
    const uintptr_t device = ZEPFake_DeviceHandle("Dev A");
    if (device != 0) ZEPFake_PostButtons(device, 1, 2);
  }

  // One round of every driver, and events: what stays for the process's
  // life (the hardware library's event thread among it) is made by then.
  void WarmUp() {
    for (const IDriverSpec* spec : rotation) {
      uint32_t running = 0;
      uint32_t status = 0;
      IClient* client = Create(spec, &running, &status);
      PostEvents();
      ZEPFake_WaitEvents();
      QuillonDestroy(client);
    }
  }

  SFigures Before() {
    // What the fakes keep of the run goes first: only the library's own
    // memory is measured.
    world->Forget();
    SFigures figures;
    figures.liveBefore = AllocationCounter::LiveBytes();
    figures.memoryBefore = ProcessStats::MemoryBytes();
    figures.handlesBefore = ProcessStats::Handles();
    figures.threadsBefore = ProcessStats::Threads();
    figures.peakHandles = figures.handlesBefore;
    figures.peakThreads = figures.threadsBefore;
    return figures;
  }
  static void Sample(SFigures& figures) {
    figures.peakHandles = std::max(figures.peakHandles, ProcessStats::Handles());
    figures.peakThreads = std::max(figures.peakThreads, ProcessStats::Threads());
  }
  // Prints the figures, and checks that what the load took it gave back.
  void After(const char* what, int count, const SFigures& figures) {
    world->Forget();
    // Threads that were told to end may take a moment to be gone.
    WaitFor([&] { return ProcessStats::Threads() <= figures.threadsBefore; }, 10000);
    const int64_t live = AllocationCounter::LiveBytes();
    const uint64_t memory = ProcessStats::MemoryBytes();
    const uint32_t handles = ProcessStats::Handles();
    const uint32_t threads = ProcessStats::Threads();
    std::printf(
        "stress: %s x%d: heap in use %lld bytes before, %lld after; %s %.1f MB before, "
        "%.1f MB after; handles %u before, %u after, peak %u; threads %u before, %u after, "
        "peak %u\n",
        what, count, static_cast<long long>(figures.liveBefore), static_cast<long long>(live),
#if defined(_WIN32)
        "memory",
#else
        "RSS",
#endif
        static_cast<double>(figures.memoryBefore) / 1048576.0,
        static_cast<double>(memory) / 1048576.0, figures.handlesBefore, handles,
        figures.peakHandles, figures.threadsBefore, threads, figures.peakThreads);
    std::fflush(stdout);
    // What the library allocated, it gave back: one allocation lost per
    // cycle would show as tens of thousands of bytes.
    EXPECT_LE(live - figures.liveBefore, 4096);
    EXPECT_LE(threads, figures.threadsBefore);
#if defined(_WIN32)
    // Wine keeps a few handles of its own for a while; a leak per cycle
    // would show as hundreds.
    EXPECT_LE(handles, figures.handlesBefore + 16);
    EXPECT_LE(memory, figures.memoryBefore + 32 * 1048576ull);
#else
    EXPECT_LE(handles, figures.handlesBefore);
#endif
  }

  std::unique_ptr<CFakeWorld> world;
  IQuillon* library = nullptr;
  IVector<const IDriverSpec*>* specs = nullptr;
  std::vector<const IDriverSpec*> rotation;
};

TEST_F(StressTest, ClientsMadeAndDestroyedAcrossEveryFamily) {
  CWatchdog watchdog("the create and destroy cycles", kWatchdogSeconds);
  WarmUp();
  SFigures figures = Before();
  int notRunning = 0;
  for (int i = 0; i < kCycles; ++i) {
    if (i % 50 == 0) PostEvents();
    uint32_t running = 0;
    uint32_t status = 0;
    IClient* client = Create(rotation[i % rotation.size()], &running, &status);
    ASSERT_NE(client, nullptr) << "cycle " << i << " status " << status;
    ASSERT_EQ(status, kStatusOk);
    if (running != 1) ++notRunning;
    ASSERT_EQ(client->Idle(), kStatusOk);
    QuillonDestroy(client);
    if (i % 100 == 0) Sample(figures);
  }
  After("create and destroy", kCycles, figures);
  EXPECT_EQ(notRunning, 0);
  EXPECT_EQ(world->host.overlaps.load(), 0u);
  EXPECT_EQ(world->host.lost.load(), 0);
  EXPECT_GT(ZEPFake_DeliveredEvents(), 0u);
}

TEST_F(StressTest, DriverSwitchesAcrossEveryFamilyWhileRendering) {
  CWatchdog watchdog("the driver switches", kWatchdogSeconds);
  uint32_t running = 0;
  uint32_t status = 0;
  WarmUp();
  IClient* client = Create(rotation[0], &running, &status);
  ASSERT_NE(client, nullptr);
  SFigures figures = Before();
  int notRunning = 0;
  for (int i = 1; i <= kSwitches; ++i) {
    if (i % 10 == 0) PostEvents();
    const uint64_t blocks = world->host.drivenBlocks.load();
    ASSERT_EQ(client->SetDriver(rotation[i % rotation.size()], &running), kStatusOk);
    if (running != 1) ++notRunning;
    // Every tenth driver plays before the next switch (the null driver's
    // blocks are 93 ms apart; the others' a few ms).
    if (i % 10 == 0) {
      EXPECT_TRUE(WaitFor([&] { return world->host.drivenBlocks.load() > blocks; }));
    }
    ASSERT_EQ(client->Idle(), kStatusOk);
    if (i % 20 == 0) Sample(figures);
  }
  QuillonDestroy(client);
  After("driver switches", kSwitches, figures);
  EXPECT_EQ(notRunning, 0);
  EXPECT_EQ(world->host.overlaps.load(), 0u);
  EXPECT_EQ(world->host.lost.load(), 0);
  EXPECT_GT(world->host.drivenBlocks.load(), static_cast<uint64_t>(kSwitches / 10));
}

TEST_F(StressTest, SuspendAndResumeStormsOnEveryFamily) {
  CWatchdog watchdog("the suspend and resume storms", kWatchdogSeconds);
  WarmUp();
  SFigures figures = Before();
  int notRunning = 0;
  const int perDriver = kStorms / static_cast<int>(rotation.size()) + 1;
  for (const IDriverSpec* spec : rotation) {
    uint32_t running = 0;
    uint32_t status = 0;
    IClient* client = Create(spec, &running, &status);
    ASSERT_NE(client, nullptr);
    for (int i = 0; i < perDriver; ++i) {
      if (i % 20 == 0) PostEvents();
      ASSERT_EQ(client->SuspendDriver(), kStatusOk);
      if (i % 2 == 1) {
        // Suspensions are counted: the inner resume leaves it suspended.
        ASSERT_EQ(client->SuspendDriver(), kStatusOk);
        ASSERT_EQ(client->Idle(), kStatusOk);
        ASSERT_EQ(client->ResumeDriver(&running), kStatusOk);
      }
      ASSERT_EQ(client->Idle(), kStatusOk);
      const uint64_t blocks = world->host.drivenBlocks.load();
      ASSERT_EQ(client->ResumeDriver(&running), kStatusOk);
      if (running != 1) ++notRunning;
      if (i % 10 == 0) {
        EXPECT_TRUE(WaitFor([&] { return world->host.drivenBlocks.load() > blocks; }));
      }
      ASSERT_EQ(client->Idle(), kStatusOk);
      if (i % 20 == 0) Sample(figures);
    }
    QuillonDestroy(client);
  }
  After("suspend and resume", perDriver * static_cast<int>(rotation.size()), figures);
  EXPECT_EQ(notRunning, 0);
  EXPECT_EQ(world->host.overlaps.load(), 0u);
  EXPECT_EQ(world->host.lost.load(), 0);
}

}  // namespace
