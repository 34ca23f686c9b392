#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

#include "driver/null_driver.h"
#include "driver/wait.h"
#include "failure/builder.h"
#include "support/allocation_counter.h"
#include "support/realtime_watch.h"
#include "support/storage_fixture.h"

using namespace NSFerrand;

namespace {

// Records what each render brings, raises on demand, and can be held.
class TestRenderer final : public MSoundRenderer {
 public:
  uint32_t Render(uint32_t frames, const CChannelPointers& inputs, CChannelPointers& outputs,
                  uint64_t a, uint64_t b, uint64_t c, uint64_t d) override {
    watch.OnRender();
    ++calls;
    lastFrames = frames;
    lastInputs = inputs.size();
    lastOutputs = outputs.size();
    nullInputs = 0;
    for (float* p : inputs) nullInputs += p == nullptr ? 1 : 0;
    silentInput = !inputs.empty() && inputs[0] != nullptr && inputs[0][0] == 0.0f &&
                  inputs[0][frames - 1] == 0.0f;
    if (!outputs.empty() && outputs[0] != nullptr) outputs[0][frames - 1] = 0.5f;
    zeroTimes = a == 0 && b == 0 && c == 0 && d == 0;
    if (hold.load()) {
      holding = true;
      while (hold.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      holding = false;
    }
    if (raiseNext.exchange(false)) throw std::runtime_error("render");
    return 0;
  }

  std::atomic<int> calls{0};
  std::atomic<bool> raiseNext{false};
  std::atomic<bool> hold{false};
  // A render is inside its hold now.
  std::atomic<bool> holding{false};
  std::atomic<uint32_t> lastFrames{0};
  std::atomic<size_t> lastInputs{0};
  std::atomic<size_t> lastOutputs{0};
  std::atomic<int> nullInputs{0};
  std::atomic<bool> silentInput{false};
  std::atomic<bool> zeroTimes{false};
  CRealtimeWatch watch;
};

CSoundDriverSettings Settings(uint32_t rate, uint32_t frames, uint64_t inputPairs,
                              uint64_t outputPairs, bool allSet = true) {
  CSoundDriverSettings s;
  s.sampleRate = rate;
  s.bufferFrames = frames;
  s.inputPairs.Resize(inputPairs);
  s.outputPairs.Resize(outputPairs);
  for (uint64_t p = 0; p < inputPairs; ++p) s.inputPairs.Set(p, allSet);
  for (uint64_t p = 0; p < outputPairs; ++p) s.outputPairs.Set(p, allSet);
  // What the driver reports back: a default record per input channel.
  s.monitors.assign(static_cast<size_t>(inputPairs) * 2, CInputMonitorSetting());
  return s;
}

class NullDriverTest : public StorageTest {
 protected:
  std::unique_ptr<CABCOpenSoundDriver> Open(const CSoundDriverSettings* settings) {
    CNullRegisteredDriver registered;
    return std::unique_ptr<CABCOpenSoundDriver>(
        settings != nullptr ? registered.OpenWithSettings(*settings, &renderer, nullptr)
                            : registered.OpenWithDefaults(&renderer, nullptr));
  }
  static uint32_t PeriodOf(const std::unique_ptr<CABCOpenSoundDriver>& driver) {
    return static_cast<CNullOpenSoundDriver*>(driver.get())->PeriodMs();
  }
  TestRenderer renderer;
};

}  // namespace

TEST_F(NullDriverTest, DefaultsRenderSilenceIn4096FrameBlocks) {
  auto driver = Open(nullptr);
  EXPECT_EQ(PeriodOf(driver), 92u);
  ASSERT_TRUE(WaitFor([&] { return renderer.calls.load() >= 2; }));
  EXPECT_EQ(renderer.lastFrames.load(), 4096u);
  EXPECT_EQ(renderer.lastInputs.load(), 2u);
  EXPECT_EQ(renderer.lastOutputs.load(), 2u);
  EXPECT_EQ(renderer.nullInputs.load(), 0);
  EXPECT_TRUE(renderer.silentInput.load());
  EXPECT_TRUE(renderer.zeroTimes.load());
  CSoundDriverSettings s;
  driver->GetSettings(s);
  EXPECT_EQ(s.sampleRate, 44100u);
  EXPECT_EQ(s.bufferFrames, 4096u);
  EXPECT_EQ(s.inputPairs.Count(), 1u);
  EXPECT_TRUE(s.inputPairs.Get(0));
  EXPECT_EQ(s.outputPairs.Count(), 1u);
  EXPECT_EQ(s.clockSource, 0u);
  EXPECT_FALSE(s.monitorsValid);
  EXPECT_EQ(s.monitors.size(), 2u);
  EXPECT_TRUE(driver->TakeSettingsChanged());
  EXPECT_FALSE(driver->TakeSettingsChanged());
  EXPECT_EQ(driver->GetInputLatency(), 4096 * 1000000LL / 44100);
  EXPECT_EQ(driver->GetOutputLatency(), 92879);
  driver->CheckAlive();
}

TEST_F(NullDriverTest, RendersAtThePaceOfItsPeriod) {
  auto driver = Open(nullptr);
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  const int calls = renderer.calls.load();
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  // One block every 92 ms, the first at once; bounds allow for a busy machine.
  EXPECT_GE(calls, static_cast<int>(ms / 92 * 0.5));
  EXPECT_LE(calls, static_cast<int>(ms / 92 * 1.5) + 2);
}

TEST_F(NullDriverTest, RatesSnapToTheNearestAndPeriodsFollow) {
  const uint32_t expected[][3] = {{46000, 44100, 92}, {46050, 44100, 92}, {46100, 48000, 85},
                                  {88200, 88200, 46}, {96000, 96000, 42}, {500000, 192000, 21},
                                  {1, 44100, 92}};
  for (const auto& row : expected) {
    CSoundDriverSettings request = Settings(row[0], 512, 3, 3);
    auto driver = Open(&request);
    CSoundDriverSettings s;
    driver->GetSettings(s);
    EXPECT_EQ(s.sampleRate, row[1]) << row[0];
    EXPECT_EQ(PeriodOf(driver), row[2]) << row[0];
    // All else of the request is ignored at opening.
    EXPECT_EQ(s.bufferFrames, 4096u);
    EXPECT_EQ(s.inputPairs.Count(), 1u);
  }
}

TEST_F(NullDriverTest, DriverInfoIsConstant) {
  auto driver = Open(nullptr);
  CSoundDriverSettings wide = Settings(44100, 256, 3, 2);
  driver->ApplySettings(wide);
  COpenSoundDriverInfo info;
  driver->GetDriverInfo(info);
  EXPECT_EQ(info.sampleRates, (std::vector<uint32_t>{44100, 48000, 88200, 96000, 192000}));
  EXPECT_EQ(info.inputNames, (std::vector<CWideString>{u"Left In", u"Right In"}));
  EXPECT_EQ(info.outputNames, (std::vector<CWideString>{u"Left Out", u"Right Out"}));
  EXPECT_EQ(info.bufferSizes, std::vector<uint32_t>{4096});
  EXPECT_EQ(info.clockSourceNames, std::vector<CWideString>{u"Built-in"});
  EXPECT_FALSE(driver->CanMonitorInputs());
  EXPECT_FALSE(driver->HasControlPanel());
  EXPECT_FALSE(driver->HasHardwareDevice());
  EXPECT_EQ(driver->GetHardwareDevice(), nullptr);
  EXPECT_TRUE(driver->ShowControlPanel());
}

TEST_F(NullDriverTest, ThreeInputPairsGiveSixEntriesAndTwoNamesStay) {
  auto driver = Open(nullptr);
  driver->TakeSettingsChanged();
  driver->ApplySettings(Settings(44100, 1000, 3, 1));
  const int before = renderer.calls.load();
  ASSERT_TRUE(WaitFor([&] { return renderer.calls.load() > before && renderer.lastFrames == 1000u; }));
  EXPECT_EQ(renderer.lastInputs.load(), 6u);
  EXPECT_EQ(renderer.lastOutputs.load(), 2u);
  CSoundDriverSettings s;
  driver->GetSettings(s);
  EXPECT_EQ(s.inputPairs.Count(), 3u);
  EXPECT_EQ(s.bufferFrames, 1000u);
  EXPECT_EQ(s.monitors.size(), 6u);
  COpenSoundDriverInfo info;
  EXPECT_EQ(driver->GetDriverInfo(info).inputNames.size(), 2u);
  // The rebuild gave what was asked: no change to report.
  EXPECT_FALSE(driver->TakeSettingsChanged());
  EXPECT_EQ(PeriodOf(driver), 1000u * 1000u / 44100u);
  // A request without its monitor records differs from what comes back.
  CSoundDriverSettings bare = Settings(44100, 900, 3, 1);
  bare.monitors.clear();
  driver->ApplySettings(bare);
  EXPECT_TRUE(driver->TakeSettingsChanged());
  EXPECT_EQ(PeriodOf(driver), 900u * 1000u / 44100u);
}

TEST_F(NullDriverTest, AnAllClearVectorRendersWithNullPointersOnly) {
  auto driver = Open(nullptr);
  driver->ApplySettings(Settings(44100, 4096, 2, 2, false));
  const int before = renderer.calls.load();
  ASSERT_TRUE(WaitFor([&] { return renderer.calls.load() > before + 1; }));
  EXPECT_EQ(renderer.lastInputs.load(), 4u);
  EXPECT_EQ(renderer.nullInputs.load(), 4);
}

TEST_F(NullDriverTest, ANewRateAloneKeepsThePeriod) {
  auto driver = Open(nullptr);
  driver->TakeSettingsChanged();
  CSoundDriverSettings s;
  driver->GetSettings(s);
  s.sampleRate = 96000;
  driver->ApplySettings(s);
  EXPECT_TRUE(driver->TakeSettingsChanged());
  EXPECT_EQ(PeriodOf(driver), 92u);
  CSoundDriverSettings now;
  driver->GetSettings(now);
  EXPECT_EQ(now.sampleRate, 96000u);
  // A rate off the list is kept as the nearest on it, and reported as a
  // change, each time it is asked for.
  s.sampleRate = 12345;
  s.clockSource = 3;
  driver->ApplySettings(s);
  driver->GetSettings(now);
  EXPECT_EQ(now.sampleRate, 44100u);
  EXPECT_EQ(now.clockSource, 3u);
  EXPECT_TRUE(driver->TakeSettingsChanged());
  driver->ApplySettings(s);
  EXPECT_TRUE(driver->TakeSettingsChanged());
  EXPECT_EQ(PeriodOf(driver), 92u);
  // What is in force, asked for again, is no change.
  driver->ApplySettings(now);
  EXPECT_FALSE(driver->TakeSettingsChanged());
}

TEST_F(NullDriverTest, MonitorsInARequestAlwaysReportAChange) {
  auto driver = Open(nullptr);
  driver->TakeSettingsChanged();
  CSoundDriverSettings s = Settings(44100, 2048, 1, 1);
  s.monitorsValid = true;
  s.monitors.assign(2, CInputMonitorSetting());
  driver->ApplySettings(s);
  EXPECT_TRUE(driver->TakeSettingsChanged());
}

TEST_F(NullDriverTest, ARendererThatRaisesIsNeverCalledAgain) {
  auto driver = Open(nullptr);
  ASSERT_TRUE(WaitFor([&] { return renderer.calls.load() >= 1; }));
  renderer.raiseNext = true;
  ASSERT_TRUE(WaitFor([&] { return !renderer.raiseNext.load(); }));
  const int calls = renderer.calls.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  EXPECT_EQ(renderer.calls.load(), calls);
  for (int i = 0; i < 3; ++i) {
    try {
      driver->CheckAlive();
      ADD_FAILURE() << "alive";
    } catch (const NSMarlet::XNotReady& e) {
      EXPECT_STREQ(e.what(), "");
      EXPECT_TRUE(NSMarlet::TargetObjectTypeIs(NSMarlet::BodyFromException(&e, {}),
                                               "audio_driver"));
    }
  }
}

TEST_F(NullDriverTest, ApplySettingsGivesUpAfterFiveSecondsOfARenderThatHolds) {
  auto driver = Open(nullptr);
  driver->TakeSettingsChanged();
  renderer.hold = true;
  // A render that began before the hold was asked for would let the
  // settings through: wait for one that holds.
  ASSERT_TRUE(WaitFor([&] { return renderer.holding.load(); }));
  CSoundDriverSettings s = Settings(48000, 2048, 1, 1);
  try {
    driver->ApplySettings(s);
    ADD_FAILURE() << "no failure";
  } catch (const NSMarlet::NSMarletDetails::XStdRuntimeError& e) {
    EXPECT_TRUE(NSMarlet::TargetObjectTypeIs(NSMarlet::BodyFromException(&e, {}), "audio_driver"));
  }
  renderer.hold = false;
  // The rate was stored and flagged before the lock was asked for.
  EXPECT_TRUE(driver->TakeSettingsChanged());
  CSoundDriverSettings now;
  driver->GetSettings(now);
  EXPECT_EQ(now.sampleRate, 48000u);
  EXPECT_EQ(now.bufferFrames, 4096u);
}

TEST_F(NullDriverTest, TheRenderPathNeitherAllocatesNorWaits) {
  auto driver = Open(nullptr);
  driver->ApplySettings(Settings(44100, 64, 2, 2));  // a period of 1 ms
  ASSERT_TRUE(WaitFor([&] { return renderer.watch.Watched() >= 200; }));
  driver.reset();
  EXPECT_EQ(renderer.watch.Allocations(), 0u);
  EXPECT_EQ(renderer.watch.BlockingWaits(), 0u);
}

TEST_F(NullDriverTest, ClosingWhileRenderingIsClean) {
  for (int i = 0; i < 20; ++i) {
    auto driver = Open(nullptr);
    driver->ApplySettings(Settings(44100, 64, 1, 1));
    // Every other driver is closed once it has rendered, the others at once.
    const int before = renderer.calls.load();
    if (i % 2 == 0) {
      ASSERT_TRUE(WaitFor([&] { return renderer.calls.load() > before; }));
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
  }
  EXPECT_GE(renderer.calls.load(), 10);
}

TEST_F(NullDriverTest, HostileRatesOpenAtTheNearestOfTheFive) {
  const uint32_t expected[][2] = {{0, 44100}, {7, 44100}, {0x7FFFFFFFu, 192000},
                                  {0x80000000u, 192000}, {0xFFFFFFFFu, 192000}};
  for (const auto& row : expected) {
    CSoundDriverSettings request = Settings(row[0], 512, 1, 1);
    auto driver = Open(&request);
    CSoundDriverSettings s;
    driver->GetSettings(s);
    EXPECT_EQ(s.sampleRate, row[1]) << row[0];
  }
}

TEST_F(NullDriverTest, SizesAreKeptBetweenAMillisecondAndASecondOrSo) {
  // Requested frames, frames kept, period at 44100 and at 192000.
  const uint32_t expected[][4] = {{0, 192, 4, 1},          {1, 192, 4, 1},
                                  {32, 192, 4, 1},         {192, 192, 4, 1},
                                  {20000, 20000, 453, 104}, {32768, 32768, 743, 170},
                                  {32769, 32768, 743, 170}, {0x80000000u, 32768, 743, 170},
                                  {0xFFFFFFFFu, 32768, 743, 170}};
  auto driver = Open(nullptr);
  for (const auto& row : expected) {
    for (uint32_t rate : {44100u, 192000u}) {
      driver->ApplySettings(Settings(rate, row[0], 1, 1));
      CSoundDriverSettings s;
      driver->GetSettings(s);
      EXPECT_EQ(s.bufferFrames, row[1]) << row[0];
      EXPECT_EQ(s.sampleRate, rate);
      // The period follows a rebuild; a rate change alone keeps it.
      driver->ApplySettings(Settings(rate, 4096, 1, 1));
      driver->ApplySettings(Settings(rate, row[0], 1, 1));
      EXPECT_EQ(PeriodOf(driver), rate == 44100u ? row[2] : row[3]) << row[0] << " " << rate;
    }
  }
  const int before = renderer.calls.load();
  ASSERT_TRUE(WaitFor([&] { return renderer.calls.load() > before; }));
  EXPECT_LE(renderer.lastFrames.load(), kNullDriverMaxFrames);
}

TEST_F(NullDriverTest, WhatIsKeptInsteadOfARequestIsAChange) {
  auto driver = Open(nullptr);
  driver->ApplySettings(Settings(48000, 1024, 1, 1));
  driver->TakeSettingsChanged();
  driver->ApplySettings(Settings(48000, 16, 1, 1));
  EXPECT_TRUE(driver->TakeSettingsChanged());
  driver->ApplySettings(Settings(48000, 192, 1, 1));
  EXPECT_FALSE(driver->TakeSettingsChanged());
  driver->ApplySettings(Settings(47000, 192, 1, 1));
  EXPECT_TRUE(driver->TakeSettingsChanged());
}

TEST_F(NullDriverTest, ASlowRenderDelaysARebuildAndAClosingByOneRenderAtMost) {
  // A period of 100 ms, and renders of 200.
  struct Slow final : MSoundRenderer {
    uint32_t Render(uint32_t, const CChannelPointers&, CChannelPointers&, uint64_t, uint64_t,
                    uint64_t, uint64_t) override {
      ++calls;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      return 0;
    }
    std::atomic<int> calls{0};
  };
  Slow slow;
  CNullRegisteredDriver registered;
  CSoundDriverSettings request = Settings(44100, 4410, 1, 1);
  std::unique_ptr<CABCOpenSoundDriver> slowDriver(registered.OpenWithSettings(request, &slow, nullptr));
  slowDriver->ApplySettings(request);
  ASSERT_TRUE(WaitFor([&] { return slow.calls.load() >= 3; }));
  const auto bound = std::chrono::milliseconds(200 + 1000);
  auto before = std::chrono::steady_clock::now();
  slowDriver->ApplySettings(Settings(44100, 2205, 1, 1));
  EXPECT_LT(std::chrono::steady_clock::now() - before, bound);
  ASSERT_TRUE(WaitFor([&] { return slow.calls.load() >= 6; }));
  before = std::chrono::steady_clock::now();
  slowDriver.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - before, bound);
}

TEST_F(NullDriverTest, ARebuildThatFailsRendersOnWithTheOldBuffers) {
  auto driver = Open(nullptr);
  driver->TakeSettingsChanged();
  {
    AllocationCounter::CFailAbove refuse(64 * 1024);
    EXPECT_THROW(driver->ApplySettings(Settings(44100, 32768, 1, 1)), std::bad_alloc);
  }
  CSoundDriverSettings s;
  driver->GetSettings(s);
  EXPECT_EQ(s.bufferFrames, 4096u);
  EXPECT_EQ(PeriodOf(driver), 92u);
  driver->CheckAlive();
  const int before = renderer.calls.load();
  ASSERT_TRUE(WaitFor([&] { return renderer.calls.load() > before; }));
  EXPECT_EQ(renderer.lastFrames.load(), 4096u);
}
