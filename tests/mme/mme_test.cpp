#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "driver/handle.h"
#include "driver/wait.h"
#include "failure/builder.h"
#include "fakes/fake_wave_out.h"
#include "mme/mme_driver.h"
#include "mme/mme_family.h"
#include "support/allocation_counter.h"
#include "support/realtime_watch.h"
#include "support/storage_fixture.h"

using namespace NSMME;
using namespace NSFerrand;

namespace {

class BlockRenderer final : public MSoundRenderer {
 public:
  uint32_t Render(uint32_t frames, const CChannelPointers& inputs, CChannelPointers& outputs,
                  uint64_t, uint64_t, uint64_t, uint64_t) override {
    watch.OnRender();
    ++calls;
    lastFrames = frames;
    if (frames > mostFrames.load()) mostFrames = frames;
    totalFrames += frames;
    lastInputs = inputs.size();
    lastOutputs = outputs.size();
    for (uint32_t f = 0; f < frames; ++f) {
      outputs[0][f] = 0.5f;
      outputs[1][f] = -0.5f;
    }
    if (raiseNext.exchange(false)) throw std::runtime_error("render");
    return 0;
  }
  std::atomic<uint64_t> calls{0};
  std::atomic<uint32_t> lastFrames{0};
  std::atomic<uint32_t> mostFrames{0};
  std::atomic<uint64_t> totalFrames{0};
  std::atomic<size_t> lastInputs{9};
  std::atomic<size_t> lastOutputs{9};
  std::atomic<bool> raiseNext{false};
  CRealtimeWatch watch;
};

class MMETest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    registry.reset(new CRegistryRef());
  }
  void TearDown() override {
    registry.reset();
    StorageTest::TearDown();
  }
  std::vector<CRegisteredSoundDriverInfo> MMEDrivers() {
    CRegisteredDriverList drivers;
    GetRegisteredDrivers(drivers);
    std::vector<CRegisteredSoundDriverInfo> infos;
    for (const CRegisteredDriverPtr& d : drivers) {
      CRegisteredSoundDriverInfo info;
      d->GetInfo(info);
      if (info.family == u"MME") infos.push_back(info);
    }
    return infos;
  }
  std::unique_ptr<COpenMMESoundDriver> Open(uint32_t device, const CSoundDriverSettings* settings) {
    registered.reset(new CMMESoundRegisteredSoundDriver(fake, device, u"Device", u"1.0"));
    CABCOpenSoundDriver* driver = settings != nullptr
                                      ? registered->OpenWithSettings(*settings, &renderer, nullptr)
                                      : registered->OpenWithDefaults(&renderer, nullptr);
    return std::unique_ptr<COpenMMESoundDriver>(static_cast<COpenMMESoundDriver*>(driver));
  }
  static CSoundDriverSettings Settings(uint32_t rate, uint32_t frames) {
    CSoundDriverSettings s;
    s.sampleRate = rate;
    s.bufferFrames = frames;
    return s;
  }

  std::unique_ptr<CRegistryRef> registry;
  Fakes::CFakeWaveOut fake;
  std::unique_ptr<CMMESoundRegisteredSoundDriver> registered;
  BlockRenderer renderer;
};

template <class X, class Call>
bool RaisesWithAudioDriver(Call call) {
  try {
    call();
  } catch (const X& e) {
    return NSMarlet::TargetObjectTypeIs(NSMarlet::BodyFromException(&e, {}), "audio_driver");
  } catch (...) {
    return false;
  }
  return false;
}

}  // namespace

TEST_F(MMETest, NoDevicesIsAnEmptyFamilyAndNoFailure) {
  CMMEFamilyScope scope(fake);
  EXPECT_TRUE(MMEDrivers().empty());
}

TEST_F(MMETest, TheScanKeepsDevicesThatPlay16BitStereo) {
  fake.devices.push_back(Fakes::StereoDevice(u"Speakers", {44100, 48000}));
  Fakes::SFakeWaveDevice eightBit = Fakes::StereoDevice(u"Eight", {44100});
  eightBit.caps.formats = 0x444;  // 8-bit and mono only
  fake.devices.push_back(eightBit);
  Fakes::SFakeWaveDevice mono = Fakes::StereoDevice(u"Mono", {44100});
  mono.caps.channels = 1;
  fake.devices.push_back(mono);
  Fakes::SFakeWaveDevice low = Fakes::StereoDevice(u"Low Rate", {48000}, 0x0105);
  low.caps.formats = 0x8;  // 16-bit stereo at 11025 Hz alone: listed all the same
  fake.devices.push_back(low);
  fake.devices.push_back(Fakes::StereoDevice(u"", {44100}));
  fake.devices.push_back(Fakes::StereoDevice(u"Broken Caps", {44100}));
  fake.Fail(Fakes::kWaveGetDevCaps, 0, 0);
  CMMEFamilyScope scope(fake);
  const auto drivers = MMEDrivers();
  ASSERT_EQ(drivers.size(), 3u);
  EXPECT_EQ(drivers[0].key, u"Ferrand MME 0:  Speakers 6.1");
  EXPECT_EQ(drivers[0].name, u"Speakers");
  EXPECT_EQ(drivers[0].version, u"6.1");
  EXPECT_EQ(drivers[0].manufacturer, u"");
  EXPECT_EQ(drivers[0].family, u"MME");
  EXPECT_EQ(std::vector<int>(drivers[0].flags, drivers[0].flags + 4),
            (std::vector<int>{1, 0, 0, 0}));
  EXPECT_EQ(drivers[1].key, u"Ferrand MME 3:  Low Rate 1.5");
  EXPECT_EQ(drivers[1].version, u"1.5");
  EXPECT_EQ(drivers[2].name, u"Broken Caps");
}

TEST_F(MMETest, ADeviceWhoseCapsFailIsSkipped) {
  fake.devices.push_back(Fakes::StereoDevice(u"A", {44100}));
  fake.devices.push_back(Fakes::StereoDevice(u"B", {44100}));
  fake.Fail(Fakes::kWaveGetDevCaps, kMMSysErrNoDriver, 1);
  CMMEFamilyScope scope(fake);
  const auto drivers = MMEDrivers();
  ASSERT_EQ(drivers.size(), 1u);
  EXPECT_EQ(drivers[0].key, u"Ferrand MME 1:  B 6.1");
}

TEST_F(MMETest, TheFamilyLeavesWithItsLastScope) {
  fake.devices.push_back(Fakes::StereoDevice(u"A", {44100}));
  {
    CMMEFamilyScope first(fake);
    {
      CMMEFamilyScope second(fake);
      EXPECT_EQ(MMEDrivers().size(), 1u);
    }
    EXPECT_EQ(MMEDrivers().size(), 1u);
  }
  EXPECT_TRUE(MMEDrivers().empty());
}

TEST_F(MMETest, TheResultTable) {
  auto openFailure = [](uint32_t r) {
    return RaisesWithAudioDriver<NSMarlet::XOpen>([r] { ThrowOnWaveResult(r); });
  };
  auto runtimeFailure = [](uint32_t r) {
    return RaisesWithAudioDriver<std::runtime_error>([r] { ThrowOnWaveResult(r); }) &&
           !RaisesWithAudioDriver<NSMarlet::XOpen>([r] { ThrowOnWaveResult(r); });
  };
  ThrowOnWaveResult(0);
  for (uint32_t r : {1u, 2u, 3u, 4u, 6u, 13u, 31u, 36u, 1000u}) EXPECT_TRUE(openFailure(r)) << r;
  for (uint32_t r : {5u, 8u, 9u, 10u, 11u, 12u, 32u, 33u, 34u, 35u}) {
    EXPECT_TRUE(runtimeFailure(r)) << r;
  }
  EXPECT_THROW(ThrowOnWaveResult(7), std::bad_alloc);
}

TEST_F(MMETest, TheFormatTrialFindsTheRates) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {48000, 96000}));
  auto driver = Open(0, nullptr);
  COpenSoundDriverInfo info;
  driver->GetDriverInfo(info);
  EXPECT_EQ(info.sampleRates, (std::vector<uint32_t>{48000, 96000}));
  EXPECT_TRUE(info.inputNames.empty());
  EXPECT_EQ(info.outputNames, (std::vector<CWideString>{u"Left", u"Right"}));
  ASSERT_EQ(info.bufferSizes.size(), 31u);
  EXPECT_EQ(info.bufferSizes.front(), 1024u);
  EXPECT_EQ(info.bufferSizes.back(), 16384u);
  EXPECT_EQ(info.clockSourceNames, std::vector<CWideString>{u"Internal"});
  // Defaults: the rate nearest 44100, 8192 frames, one output pair.
  CSoundDriverSettings s;
  driver->GetSettings(s);
  EXPECT_EQ(s.sampleRate, 48000u);
  EXPECT_EQ(s.bufferFrames, 8192u);
  EXPECT_EQ(s.outputPairs.Count(), 1u);
  EXPECT_TRUE(s.outputPairs.Get(0));
  EXPECT_EQ(s.inputPairs.Count(), 0u);
  EXPECT_EQ(driver->TargetBlockCount(), 16);
  EXPECT_EQ(driver->GetOutputLatency(), 8192 * 1000000LL / 48000);
  EXPECT_EQ(driver->GetInputLatency(), 0);
  EXPECT_TRUE(driver->TakeSettingsChanged());
  EXPECT_FALSE(driver->TakeSettingsChanged());
}

TEST_F(MMETest, NoRateOrADeviceInUseFailsTheOpening) {
  fake.devices.push_back(Fakes::StereoDevice(u"None", {22050}));
  EXPECT_TRUE(RaisesWithAudioDriver<NSMarlet::XOpen>([&] { Open(0, nullptr); }));
  fake.devices[0] = Fakes::StereoDevice(u"Busy", {44100, 48000});
  fake.devices[0].inUse = true;
  EXPECT_TRUE(RaisesWithAudioDriver<NSMarlet::XOpen>([&] { Open(0, nullptr); }));
  // Five refused rates, then the first trial of the busy device ends it.
  EXPECT_EQ(fake.Calls(Fakes::kWaveQuery), 6u);
}

TEST_F(MMETest, TargetBlocksRoundUp) {
  EXPECT_EQ(TargetBlocks(512), 1);
  EXPECT_EQ(TargetBlocks(1024), 2);
  EXPECT_EQ(TargetBlocks(1025), 3);
  EXPECT_EQ(TargetBlocks(16384), 32);
}

TEST_F(MMETest, TheDevicesPaceIsWeighedByTheShortestWaitOfARun) {
  // Two blocks at 48000 Hz play 21.3 ms; an eighth more is 24 ms.
  CDevicePaceWatch watch;
  for (uint32_t i = 1; i < kPaceWindowBlocks; ++i) EXPECT_FALSE(watch.HeaderDone(25, 2, 48000));
  EXPECT_TRUE(watch.HeaderDone(25, 2, 48000));
  // One header as quick as the queue: the device keeps pace, however late
  // the others came back.
  for (uint32_t i = 1; i < kPaceWindowBlocks; ++i) EXPECT_FALSE(watch.HeaderDone(400, 2, 48000));
  EXPECT_FALSE(watch.HeaderDone(23, 2, 48000));
  for (uint32_t i = 0; i < kPaceWindowBlocks; ++i) EXPECT_FALSE(watch.HeaderDone(24, 2, 48000));
  // A full ring grows no further.
  for (uint32_t i = 0; i < kPaceWindowBlocks; ++i) EXPECT_FALSE(watch.HeaderDone(9999, 32, 48000));
  // A reset starts the run anew.
  for (uint32_t i = 1; i < kPaceWindowBlocks; ++i) watch.HeaderDone(25, 2, 48000);
  watch.Reset();
  EXPECT_FALSE(watch.HeaderDone(25, 2, 48000));
}

TEST_F(MMETest, TheQueueDeepensForADeviceThatKeepsHeadersLongerThanItPlays) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {48000}));
  fake.realTime = false;
  CSoundDriverSettings wanted = Settings(48000, 1024);
  auto driver = Open(0, &wanted);
  ASSERT_EQ(driver->TargetBlockCount(), 2);
  // Each header comes back 30 ms after it went, later than the 21.3 ms the
  // queue plays: after a run of them, the queue holds one block more.
  auto giveBackLate = [&](uint32_t ms) {
    for (uint32_t i = 0; i < kPaceWindowBlocks; ++i) {
      const uint32_t written = driver->BlocksWritten();
      std::this_thread::sleep_for(std::chrono::milliseconds(ms));
      fake.Complete(1);
      ASSERT_TRUE(WaitFor([&] { return driver->BlocksWritten() > written; }));
    }
  };
  giveBackLate(30);
  EXPECT_EQ(driver->TargetBlockCount(), 3);
  ASSERT_TRUE(WaitFor([&] { return fake.Queued() == 3u; }));
  // Three blocks play 32 ms: 40 ms is still short.
  giveBackLate(40);
  EXPECT_EQ(driver->TargetBlockCount(), 4);
  EXPECT_EQ(driver->AskedBlockCount(), 2);
  // The size stays the host's; the latency is the queue's.
  CSoundDriverSettings s;
  driver->GetSettings(s);
  EXPECT_EQ(s.bufferFrames, 1024u);
  EXPECT_EQ(driver->GetOutputLatency(), 4 * 512 * 1000000LL / 48000);
  // A larger size asked is kept; a smaller one leaves the device's depth.
  driver->ApplySettings(Settings(48000, 8192));
  EXPECT_EQ(driver->TargetBlockCount(), 16);
  driver->ApplySettings(Settings(48000, 512));
  EXPECT_EQ(driver->TargetBlockCount(), 4);
}

TEST_F(MMETest, ADeviceWithAPipelineIsPlayedAtItsPace) {
  // A device that gives each header back no sooner than 30 ms after it went
  // plays two blocks of 512 frames at 48000 Hz at 0.71 of its rate.
  fake.devices.push_back(Fakes::StereoDevice(u"D", {48000}));
  fake.pipelineMs = 30;
  CSoundDriverSettings wanted = Settings(48000, 1024);
  auto driver = Open(0, &wanted);
  ASSERT_TRUE(WaitFor([&] { return driver->TargetBlockCount() >= 3; }, 10000));
  const uint64_t frames = renderer.totalFrames.load();
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(2000));
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double rate = static_cast<double>(renderer.totalFrames.load() - frames) / seconds;
  EXPECT_GT(rate, 48000 * 0.9);
  EXPECT_LT(rate, 48000 * 1.1);
}

TEST_F(MMETest, ThePumpWaitsForTheDevicesEventNotTheClock) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {48000}));
  CSoundDriverSettings wanted = Settings(48000, 1024);
  auto driver = Open(0, &wanted);
  ASSERT_TRUE(WaitFor([&] { return driver->BlocksWritten() > 4; }));
  const uint64_t wakes = driver->Wakes();
  const uint64_t told = fake.DoneEventsSet();
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  // A look every 1 ms would be one a millisecond. Here the device tells of
  // each block (10.7 ms) and the safety net is a quarter of the queue
  // (5.3 ms); a busy machine wakes less often, never more.
  EXPECT_GT(fake.DoneEventsSet(), told);
  EXPECT_LE(static_cast<double>(driver->Wakes() - wakes), ms * 0.4);
  EXPECT_EQ(driver->UnderrunCount(), 0u);
}

TEST_F(MMETest, ADeviceThatNeverTellsIsStillKeptFedByTheSafetyNet) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {48000}));
  fake.tells = false;
  CSoundDriverSettings wanted = Settings(48000, 2048);
  auto driver = Open(0, &wanted);
  const uint32_t blocks = driver->BlocksWritten();
  // Three quarters of the queue are left when the pump looks by itself.
  ASSERT_TRUE(WaitFor([&] { return driver->BlocksWritten() >= blocks + 40; }, 10000));
  EXPECT_EQ(fake.DoneEventsSet(), 0u);
  EXPECT_FALSE(RaisesWithAudioDriver<NSMarlet::XNotReady>([&] { driver->CheckAlive(); }));
}

TEST_F(MMETest, AFailureOnTheStreamingThreadOnlySetsTheFlag) {
  RealtimeWatch::Install();
  fake.devices.push_back(Fakes::StereoDevice(u"D", {48000}));
  fake.realTime = false;
  CSoundDriverSettings wanted = Settings(48000, 1024);
  auto driver = Open(0, &wanted);
  // The thread's allocations as it waits for its period, before and after.
  uint64_t periods = RealtimeWatch::PeriodWaitsBegun();
  ASSERT_TRUE(WaitFor([&] { return RealtimeWatch::PeriodWaitsBegun() > periods + 1; }));
  const uint64_t before = RealtimeWatch::AllocationsAtLatestPeriodWait();
  fake.Fail(Fakes::kWaveWrite, kMMSysErrNoMem, 1);
  fake.Complete(1);
  ASSERT_TRUE(WaitFor([&] {
    return RaisesWithAudioDriver<NSMarlet::XNotReady>([&] { driver->CheckAlive(); });
  }));
  periods = RealtimeWatch::PeriodWaitsBegun();
  ASSERT_TRUE(WaitFor([&] { return RealtimeWatch::PeriodWaitsBegun() > periods + 1; }));
  EXPECT_EQ(RealtimeWatch::AllocationsAtLatestPeriodWait(), before);
}

TEST_F(MMETest, OpeningPrimesTheQueueAndStreamsAtThePaceOfTheDevice) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {44100}));
  CSoundDriverSettings wanted = Settings(44100, 1100);  // not a multiple of 512
  auto driver = Open(0, &wanted);
  CSoundDriverSettings s;
  driver->GetSettings(s);
  EXPECT_EQ(s.bufferFrames, 1100u);
  EXPECT_EQ(driver->TargetBlockCount(), 3);
  // The latency is the queue's: three whole blocks.
  EXPECT_EQ(driver->GetOutputLatency(), 1536 * 1000000LL / 44100);
  EXPECT_EQ(fake.Calls(Fakes::kWavePrepare), 32u);
  const auto start = std::chrono::steady_clock::now();
  const uint64_t framesAtStart = renderer.totalFrames.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double rate = static_cast<double>(renderer.totalFrames.load() - framesAtStart) / seconds;
  EXPECT_GT(rate, 44100 * 0.8);
  EXPECT_LT(rate, 44100 * 1.2);
  EXPECT_EQ(renderer.lastInputs.load(), 0u);
  EXPECT_EQ(renderer.lastOutputs.load(), 2u);
  EXPECT_EQ(renderer.lastFrames.load() % 512, 0u);
  driver.reset();
  EXPECT_EQ(fake.OpenStreams(), 0u);
  EXPECT_EQ(fake.Calls(Fakes::kWaveUnprepare), 32u);
}

TEST_F(MMETest, AnEmptyQueueCountsAnUnderrunPerBlockOfThatTurn) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {48000}));
  fake.realTime = false;
  CSoundDriverSettings wanted = Settings(48000, 2048);
  auto driver = Open(0, &wanted);
  EXPECT_EQ(driver->BlocksWritten(), 4u);
  EXPECT_EQ(driver->UnderrunCount(), 0u);
  fake.Complete(4);  // the device played everything
  ASSERT_TRUE(WaitFor([&] { return driver->BlocksWritten() == 8u; }));
  EXPECT_EQ(driver->UnderrunCount(), 4u);
  fake.Complete(1);  // one played: refilled, not an underrun
  ASSERT_TRUE(WaitFor([&] { return driver->BlocksWritten() == 9u; }));
  EXPECT_EQ(driver->UnderrunCount(), 4u);
}

TEST_F(MMETest, AShrinkingTargetDrainsAndAGrowingOneFillsAtOnce) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {48000}));
  fake.realTime = false;
  CSoundDriverSettings wanted = Settings(48000, 8192);
  auto driver = Open(0, &wanted);
  EXPECT_EQ(driver->BlocksWritten(), 16u);
  driver->ApplySettings(Settings(48000, 1024));  // same rate: no reopen
  EXPECT_EQ(fake.Calls(Fakes::kWaveOpen), 1u);
  EXPECT_EQ(driver->TargetBlockCount(), 2);
  fake.Complete(14);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(driver->BlocksWritten(), 16u);  // two still queued: the target is met
  fake.Complete(1);
  ASSERT_TRUE(WaitFor([&] { return driver->BlocksWritten() == 17u; }));
  driver->ApplySettings(Settings(48000, 16384));
  ASSERT_TRUE(WaitFor([&] { return driver->BlocksWritten() == 17u + 30u; }));
  EXPECT_EQ(fake.Queued(), 32u);
}

TEST_F(MMETest, AnotherRateReopensTheStream) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {44100, 48000}));
  auto driver = Open(0, nullptr);
  driver->TakeSettingsChanged();
  driver->ApplySettings(Settings(48000, 4096));
  EXPECT_EQ(fake.Calls(Fakes::kWaveOpen), 2u);
  EXPECT_EQ(fake.LastOpenRate(), 48000u);
  EXPECT_EQ(fake.OpenStreams(), 1u);
  EXPECT_TRUE(driver->TakeSettingsChanged());
  CSoundDriverSettings s;
  driver->GetSettings(s);
  EXPECT_EQ(s.sampleRate, 48000u);
  EXPECT_EQ(s.bufferFrames, 4096u);
}

TEST_F(MMETest, AWriteThatFailsMidStreamMarksTheDriverDead) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {44100}));
  auto driver = Open(0, nullptr);
  driver->CheckAlive();
  fake.Fail(Fakes::kWaveWrite, kMMSysErrInvalidHandle);
  EXPECT_TRUE(WaitFor([&] {
    return RaisesWithAudioDriver<NSMarlet::XNotReady>([&] { driver->CheckAlive(); });
  }));
  fake.Fail(Fakes::kWaveWrite, 0, 0);
}

TEST_F(MMETest, ARenderThatRaisesMarksTheDriverDead) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {44100}));
  auto driver = Open(0, nullptr);
  renderer.raiseNext = true;
  EXPECT_TRUE(WaitFor([&] {
    return RaisesWithAudioDriver<NSMarlet::XNotReady>([&] { driver->CheckAlive(); });
  }));
}

TEST_F(MMETest, EveryFailingStepOfOpeningClosesWhatWasOpened) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {44100}));
  for (Fakes::EWaveCall call :
       {Fakes::kWaveOpen, Fakes::kWavePrepare, Fakes::kWavePause, Fakes::kWaveWrite,
        Fakes::kWaveRestart}) {
    fake.Fail(call, kMMSysErrNoDriver, 1);
    EXPECT_TRUE(RaisesWithAudioDriver<NSMarlet::XOpen>([&] { Open(0, nullptr); })) << call;
    EXPECT_EQ(fake.OpenStreams(), 0u) << call;
  }
  auto driver = Open(0, nullptr);
  EXPECT_TRUE(driver->StreamOpen());
}

TEST_F(MMETest, ClosingWaitsForAStuckDevice) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {44100}));
  fake.realTime = false;
  fake.stuck = true;
  auto driver = Open(0, nullptr);
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    fake.stuck = false;
    fake.Complete(32);
  });
  const auto start = std::chrono::steady_clock::now();
  driver.reset();
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  release.join();
  EXPECT_GE(ms, 250.0);  // headers are never unprepared while queued
  EXPECT_EQ(fake.OpenStreams(), 0u);
}

TEST_F(MMETest, TheStreamingThreadNeitherAllocatesNorWaits) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {192000}));
  CSoundDriverSettings wanted = Settings(192000, 1024);
  auto driver = Open(0, &wanted);
  ASSERT_TRUE(WaitFor([&] { return renderer.watch.Watched() >= 100; }));
  driver.reset();
  EXPECT_EQ(renderer.watch.Allocations(), 0u);
  EXPECT_EQ(renderer.watch.BlockingWaits(), 0u);
}

TEST_F(MMETest, AClientOnAFailingDeviceGoesOnSilently) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {44100}));
  CMMEFamilyScope scope(fake);
  CRegisteredDriverList drivers;
  GetRegisteredDrivers(drivers);
  ASSERT_EQ(drivers.size(), 2u);
  struct SilentCounter final : MSoundRenderer {
    uint32_t Render(uint32_t frames, const CChannelPointers&, CChannelPointers& outputs, uint64_t,
                    uint64_t, uint64_t, uint64_t) override {
      if (frames == 5120 && outputs.empty()) ++silent;
      return 0;
    }
    std::atomic<int> silent{0};
  } counter;
  COpenSoundDriverHandle handle(drivers[1], &counter, nullptr);
  EXPECT_EQ(handle.State(), kDriverOpen);
  fake.Fail(Fakes::kWaveWrite, kMMSysErrNoDriver);
  bool raised = false;
  ASSERT_TRUE(WaitFor([&] {
    try {
      handle.PollDriver();
    } catch (const NSMarlet::XNotReady&) {
      raised = true;
    }
    return raised;
  }));
  EXPECT_TRUE(handle.IsDriverLost());
  EXPECT_TRUE(WaitFor([&] { return counter.silent.load() > 0; }));
  fake.Fail(Fakes::kWaveWrite, 0, 0);
}

TEST_F(MMETest, HostileSizesAreKeptWithinTheRing) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {44100}));
  fake.realTime = false;
  const uint32_t expected[][2] = {{0, 1024},     {1, 1024},     {32, 1024},
                                  {1024, 1024},  {1100, 1100},  {16384, 16384},
                                  {20000, 16384}, {0x80000000u, 16384}, {0xFFFFFFFFu, 16384}};
  for (const auto& row : expected) {
    CSoundDriverSettings wanted = Settings(44100, row[0]);
    auto driver = Open(0, &wanted);
    CSoundDriverSettings s;
    driver->GetSettings(s);
    EXPECT_EQ(s.bufferFrames, row[1]) << row[0];
    EXPECT_EQ(driver->TargetBlockCount(), TargetBlocks(row[1])) << row[0];
  }
  // The same rate applied keeps the stream; the size is limited all the same.
  CSoundDriverSettings wanted = Settings(44100, 4096);
  auto driver = Open(0, &wanted);
  for (const auto& row : expected) {
    driver->ApplySettings(Settings(44100, row[0]));
    CSoundDriverSettings s;
    driver->GetSettings(s);
    EXPECT_EQ(s.bufferFrames, row[1]) << row[0];
    const uint64_t written = driver->BlocksWritten();
    fake.Complete(32);
    ASSERT_TRUE(WaitFor([&] { return driver->BlocksWritten() > written; }));
  }
  EXPECT_EQ(fake.Calls(Fakes::kWaveOpen), 10u);
  EXPECT_LE(renderer.mostFrames.load(), kMMEMaxFrames);
}

TEST_F(MMETest, HostileRatesOpenAtTheNearestSupportedRate) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {44100, 48000}));
  const uint32_t expected[][2] = {{0, 44100}, {7, 44100}, {46050, 44100}, {46051, 48000},
                                  {0xFFFFFFFFu, 48000}};
  for (const auto& row : expected) {
    CSoundDriverSettings wanted = Settings(row[0], 2048);
    auto driver = Open(0, &wanted);
    CSoundDriverSettings s;
    driver->GetSettings(s);
    EXPECT_EQ(s.sampleRate, row[1]) << row[0];
    EXPECT_EQ(fake.LastOpenRate(), row[1]) << row[0];
  }
  auto driver = Open(0, nullptr);
  driver->ApplySettings(Settings(0xFFFFFFFFu, 2048));
  EXPECT_EQ(fake.LastOpenRate(), 48000u);
  driver->ApplySettings(Settings(0, 0));
  EXPECT_EQ(fake.LastOpenRate(), 44100u);
  CSoundDriverSettings s;
  driver->GetSettings(s);
  EXPECT_EQ(s.bufferFrames, 1024u);
  driver->CheckAlive();
}

TEST_F(MMETest, ARateChangeWhoseReopenFailsClosesTheDeviceAndFails) {
  fake.devices.push_back(Fakes::StereoDevice(u"D", {44100, 48000}));
  for (Fakes::EWaveCall call :
       {Fakes::kWaveOpen, Fakes::kWavePrepare, Fakes::kWavePause, Fakes::kWaveWrite,
        Fakes::kWaveRestart}) {
    auto driver = Open(0, nullptr);
    fake.Fail(call, kMMSysErrNoDriver, 1);
    EXPECT_TRUE(RaisesWithAudioDriver<NSMarlet::XOpen>(
        [&] { driver->ApplySettings(Settings(48000, 4096)); }))
        << call;
    // Nothing is left open and paused without a thread, and the driver says so.
    EXPECT_FALSE(driver->StreamOpen()) << call;
    EXPECT_EQ(fake.OpenStreams(), 0u) << call;
    EXPECT_TRUE(RaisesWithAudioDriver<NSMarlet::XNotReady>([&] { driver->CheckAlive(); }))
        << call;
    driver.reset();
    EXPECT_EQ(fake.OpenStreams(), 0u) << call;
  }
}

TEST(MMEStreamingThread, AFailedWaitEndsTheThreadInsteadOfSpinning) {
  EXPECT_EQ(StopWaitStep(NSPlatform::kWaitTimeout), kPumpAgain);
  EXPECT_EQ(StopWaitStep(NSPlatform::kWaitObject), kStopAsked);
  EXPECT_EQ(StopWaitStep(NSPlatform::kWaitAbandoned), kStopAsked);
  EXPECT_EQ(StopWaitStep(NSPlatform::kWaitFailed), kWaitBroken);
}
