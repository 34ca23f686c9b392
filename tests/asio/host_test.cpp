#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>

#include "asio/asio_host.h"
#include "asio/asio_rules.h"
#include "asio_support.h"
#include "driver/wait.h"
#include "platform/fault_points.h"

using namespace NSASIO;
using NSFerrand::CChannelBitVector;
using NSFerrand::CSoundDriverSettings;

namespace {

class HostTest : public ASIOTest {
 protected:
  // A driver whose thread never calls on its own: the test switches.
  std::shared_ptr<Fakes::SFakeASIODevice> Quiet(int32_t inputs = 2, int32_t outputs = 2) {
    auto device = Add(u"Fake", 1);
    device->inputs = inputs;
    device->outputs = outputs;
    device->stopCalling = true;
    Load();
    return device;
  }
  std::unique_ptr<CASIODriverHost> Open(const CSoundDriverSettings* settings = nullptr) {
    return std::unique_ptr<CASIODriverHost>(new CASIODriverHost(u"Fake", &renderer, nullptr,
                                                                settings));
  }
  static CChannelBitVector Pairs(std::initializer_list<int> bits, uint64_t count) {
    CChannelBitVector pairs(count);
    for (int bit : bits) pairs.Set(static_cast<uint64_t>(bit), true);
    return pairs;
  }
};

TEST_F(HostTest, DefaultsTakeTheFirstPairsAndThePreferredSize) {
  auto device = Quiet(4, 6);
  auto host = Open();
  EXPECT_EQ(asioState, kASIOStateRunning);
  EXPECT_EQ(activeHost.load(), host.get());
  EXPECT_EQ(host->InputPairs(), Pairs({0}, 2));
  EXPECT_EQ(host->OutputPairs(), Pairs({0}, 3));
  EXPECT_EQ(host->BufferFrames(), 256u);
  EXPECT_EQ(host->EffectiveRate(), 48000u);
  EXPECT_EQ(host->SampleRates(), (std::vector<uint32_t>{44100, 48000}));
  EXPECT_EQ(host->BufferSizes(), (std::vector<uint32_t>{64, 128, 256, 512, 1024, 2048}));
  EXPECT_EQ(host->InputNames(), (std::vector<CWideString>{u"In 1", u"In 2", u"In 3", u"In 4"}));
  EXPECT_EQ(host->OutputNames().size(), 6u);
  EXPECT_EQ(host->InputLatency(), 32);
  EXPECT_EQ(host->OutputLatency(), 64);
  EXPECT_EQ(host->Monitors().size(), 4u);
  EXPECT_FALSE(host->MonitorsValid());
  // The renderer ran once before the driver started, on this thread.
  EXPECT_EQ(renderer.calls.load(), 1u);
  EXPECT_EQ(device->Calls(Fakes::kAsioOutputReady), 1u);
  EXPECT_EQ(device->Log(), (std::vector<std::string>{"init", "createBuffers 4 256", "start"}));
  EXPECT_TRUE(host->TakeSettingsChanged());
  EXPECT_FALSE(host->TakeSettingsChanged());
}

TEST_F(HostTest, TwoOutputsAndNoInputsOpen) {
  Quiet(0, 2);
  auto host = Open();
  EXPECT_EQ(host->InputPairs().Count(), 0u);
  EXPECT_EQ(host->OutputPairs(), Pairs({0}, 1));
  EXPECT_TRUE(host->Monitors().empty());
}

TEST_F(HostTest, OneOutputOrThreeInputsCannotOpen) {
  auto device = Quiet(2, 1);
  EXPECT_EQ(FailureCodeOf([&] { Open(); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
  device->outputs = 0;
  EXPECT_EQ(FailureCodeOf([&] { Open(); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open));
  device->outputs = 2;
  device->inputs = 3;
  EXPECT_EQ(FailureCodeOf([&] { Open(); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
  EXPECT_EQ(asioState, kASIOStateLoaded);
  EXPECT_EQ(activeHost.load(), nullptr);
  EXPECT_EQ(device->liveObjects.load(), 0);
}

// A driver that claims more channels than a host can be given is refused
// before anything is asked of each channel; 256 pairs each way open.
TEST_F(HostTest, AHugeChannelCountIsRefusedBeforeAnyChannelIsAsked) {
  auto device = Quiet(0x7FFFFFFE, 2);
  const SRaised raised = RaisedBy([&] { Open(); });
  EXPECT_EQ(raised.code, static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open));
  EXPECT_EQ(raised.word, "audio_driver");
  EXPECT_EQ(device->Calls(Fakes::kAsioGetChannelInfo), 0u);
  EXPECT_EQ(device->liveObjects.load(), 0);
  device->inputs = 512;
  device->outputs = 512;
  auto host = Open();
  EXPECT_EQ(host->InputNames().size(), 512u);
  EXPECT_EQ(host->OutputPairs().Count(), 256u);
  // A refused size question carries no text either.
  host.reset();
  device->Fail(Fakes::kAsioGetBufferSize, ASE_HWMalfunction, 1);
  const SRaised refused = RaisedBy([&] { Open(); });
  EXPECT_EQ(refused.code, static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
  EXPECT_EQ(refused.text, "");
}

TEST_F(HostTest, AnUnknownDriverOrARefusedInitFailsToOpen) {
  auto device = Quiet();
  EXPECT_EQ(FailureCodeOf([&] { CASIODriverHost host(u"Nobody", &renderer, nullptr, nullptr); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open));
  device->initResult = 0;
  EXPECT_EQ(FailureCodeOf([&] { Open(); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open));
  EXPECT_EQ(asioState, kASIOStateLoaded);
  EXPECT_EQ(device->liveObjects.load(), 0);
}

TEST_F(HostTest, ARefusedStartTearsDownEverything) {
  auto device = Quiet();
  device->Fail(Fakes::kAsioStart, ASE_HWMalfunction);
  EXPECT_EQ(FailureCodeOf([&] { Open(); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open));
  EXPECT_EQ(asioState, kASIOStateLoaded);
  EXPECT_EQ(device->liveObjects.load(), 0);
  EXPECT_EQ(device->Log(), (std::vector<std::string>{"init", "createBuffers 4 256", "start",
                                                     "disposeBuffers"}));
}

TEST_F(HostTest, EveryRefusedQueryDuringTheBuildTearsDown) {
  const struct {
    Fakes::EASIOCall call;
    uint32_t code;
  } cases[] = {{Fakes::kAsioGetBufferSize, NSMarlet::kFailureCode_Exception},
               {Fakes::kAsioGetChannels, NSMarlet::kFailureCode_Exception},
               {Fakes::kAsioGetLatencies, NSMarlet::kFailureCode_Exception},
               {Fakes::kAsioGetClockSources, NSMarlet::kFailureCode_Exception},
               {Fakes::kAsioGetChannelInfo, NSMarlet::kFailureCode_Exception},
               {Fakes::kAsioGetSampleRate, NSMarlet::kFailureCode_RuntimeError},
               {Fakes::kAsioCreateBuffers, NSMarlet::kFailureCode_RuntimeError_Open}};
  auto device = Quiet();
  for (const auto& c : cases) {
    device->Fail(c.call, ASE_HWMalfunction);
    EXPECT_EQ(FailureCodeOf([&] { Open(); }), c.code) << c.call;
    device->Fail(c.call, ASE_OK, 0);
    EXPECT_EQ(asioState, kASIOStateLoaded) << c.call;
    EXPECT_EQ(activeHost.load(), nullptr) << c.call;
    EXPECT_EQ(device->liveObjects.load(), 0) << c.call;
  }
  auto host = Open();
  EXPECT_EQ(asioState, kASIOStateRunning);
}

TEST_F(HostTest, TeardownStopsDisposesAndReleasesInThatOrder) {
  auto device = Quiet();
  {
    auto host = Open();
  }
  EXPECT_EQ(device->Log(), (std::vector<std::string>{"init", "createBuffers 4 256", "start",
                                                     "stop", "disposeBuffers"}));
  EXPECT_EQ(asioState, kASIOStateLoaded);
  EXPECT_EQ(activeHost.load(), nullptr);
  EXPECT_EQ(device->liveObjects.load(), 0);
}

TEST_F(HostTest, RequestedSizesAndRatesOutsideTheListsFallBack) {
  Quiet(2, 4);
  CSoundDriverSettings settings;
  settings.sampleRate = 96000;
  settings.bufferFrames = 300;
  settings.outputPairs = Pairs({1}, 2);
  auto host = Open(&settings);
  EXPECT_EQ(host->BufferFrames(), 256u);
  EXPECT_EQ(host->EffectiveRate(), 44100u);
  EXPECT_EQ(host->OutputPairs(), Pairs({1}, 2));
  settings.sampleRate = 48000;
  settings.bufferFrames = 1024;
  host->ApplyNewSettings(settings);
  EXPECT_EQ(host->BufferFrames(), 1024u);
  EXPECT_EQ(host->EffectiveRate(), 48000u);
}

TEST_F(HostTest, NewSettingsThatFailKeepTheFormerOnes) {
  auto device = Quiet();
  auto host = Open();
  CSoundDriverSettings settings = host->ReadCurrentSettings();
  settings.bufferFrames = 512;
  device->Fail(Fakes::kAsioStart, ASE_HWMalfunction, 1);
  host->ApplyNewSettings(settings);
  EXPECT_EQ(host->BufferFrames(), 256u);
  EXPECT_EQ(asioState, kASIOStateRunning);
  // When the former ones fail too, the failure goes on and the driver is gone.
  device->Fail(Fakes::kAsioStart, ASE_HWMalfunction, 2);
  EXPECT_EQ(FailureCodeOf([&] { host->ApplyNewSettings(settings); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open));
  EXPECT_EQ(asioState, kASIOStateLoaded);
}

// New settings while a render is inside, with every wait for the run lock
// refused: the buffers are freed only once the render has left, and the host
// starts again with its run lock given up and renders with the new size.
TEST_F(HostTest, ARefusedRunLockWaitStillKeepsEveryRenderOutOfFreedBuffers) {
  auto device = Quiet();
  auto host = Open();
  renderer.holdInside = true;
  std::thread driver([live = device->Live()] { live->SwitchNow(0); });
  ASSERT_TRUE(WaitFor([&] { return renderer.inside.load(); }));
  struct SDisarm {
    ~SDisarm() { NSPlatform::DisarmFaults(); }
  } disarm;
  NSPlatform::ArmFault(NSPlatform::kCallWaitMutex, 0, 0xFFFFFFFFu);
  // The render is let go well after the 5 s of refused waits.
  std::atomic<bool> disposedWhileInside{false};
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(7000));
    for (const std::string& entry : device->Log()) {
      if (entry == "disposeBuffers") disposedWhileInside = true;
    }
    renderer.holdInside = false;
  });
  CSoundDriverSettings settings = host->ReadCurrentSettings();
  settings.bufferFrames = 512;
  host->ApplyNewSettings(settings);
  releaser.join();
  driver.join();
  NSPlatform::DisarmFaults();
  EXPECT_FALSE(disposedWhileInside.load());
  EXPECT_GT(NSPlatform::FaultsTaken(NSPlatform::kCallWaitMutex), 0u);
  EXPECT_EQ(host->BufferFrames(), 512u);
  EXPECT_EQ(asioState, kASIOStateRunning);
  const uint64_t calls = renderer.driverThreadCalls.load();
  std::thread again([live = device->Live()] { live->SwitchNow(1); });
  again.join();
  EXPECT_EQ(renderer.driverThreadCalls.load(), calls + 1);
  EXPECT_EQ(renderer.lastFrames.load(), 512u);
  // And it stops again as it should, the lock taken this time.
  host.reset();
  EXPECT_EQ(device->liveObjects.load(), 0);
}

TEST_F(HostTest, AClockSourceIsChosenByIndexWhenNotCurrent) {
  auto device = Quiet();
  ASIOClockSource internal = {0, -1, 0, 1, "Internal"};
  ASIOClockSource word = {7, -1, 0, 0, ""};
  device->clocks = {internal, word};
  CSoundDriverSettings settings;
  settings.clockSource = 1;
  auto host = Open(&settings);
  EXPECT_EQ(device->lastClockSet.load(), 7);
  EXPECT_EQ(host->CurrentClockSource(), 1u);
  EXPECT_EQ(host->ClockSourceNames(), (std::vector<CWideString>{u"Internal", u"Clock Source 1"}));
  device->lastClockSet = -1;
  settings.clockSource = 9;  // not there: the first, current already
  host->ApplyNewSettings(settings);
  EXPECT_EQ(device->lastClockSet.load(), 0);
  device->Fail(Fakes::kAsioSetClockSource, ASE_HWMalfunction);
  settings.clockSource = 1;
  device->clocks[0].isCurrentSource = 1;
  device->clocks[1].isCurrentSource = 0;
  host->ApplyNewSettings(settings);  // falls back to the former settings
  EXPECT_EQ(host->CurrentClockSource(), 0u);
}

TEST_F(HostTest, ClockSourceListRules) {
  auto device = Quiet();
  ASIOClockSource only = {3, -1, 0, 0, "Only"};
  device->clocks = {only};
  Open().reset();
  ASSERT_TRUE(driverList->LoadDriverByName(u"Fake"));
  std::vector<ASIOClockSource> clocks = ListClockSources();
  ASSERT_EQ(clocks.size(), 1u);
  EXPECT_EQ(clocks[0].isCurrentSource, 1);
  device->clockCount = 101;
  device->clocks = {only, only};
  clocks = ListClockSources();
  ASSERT_EQ(clocks.size(), 1u);
  EXPECT_EQ(clocks[0].isCurrentSource, 1);
  device->clockCount = 0;
  EXPECT_TRUE(ListClockSources().empty());
  device->clockCount = -4;
  EXPECT_TRUE(ListClockSources().empty());
  device->clockCount = 2;
  device->clockResult = 1;
  EXPECT_EQ(ListClockSources().size(), 2u);
  device->clockResult = 2;
  EXPECT_EQ(FailureCodeOf([] { ListClockSources(); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
}

TEST_F(HostTest, SampleRateReadsAndWrites) {
  auto device = Quiet();
  Load();
  ASSERT_TRUE(driverList->LoadDriverByName(u"Fake"));
  EXPECT_EQ(ReadSampleRate(), 48000u);
  device->rate = 250000.0;
  EXPECT_EQ(ReadSampleRate(), 0u);
  device->rate = -5.0;
  EXPECT_EQ(ReadSampleRate(), 0u);
  device->rate = 44100.9;
  EXPECT_EQ(ReadSampleRate(), 44100u);
  device->rateWritesNothing = true;
  EXPECT_EQ(ReadSampleRate(), 666u);
  device->rateWritesNothing = false;
  device->Fail(Fakes::kAsioGetSampleRate, ASE_NoClock, 1);
  EXPECT_EQ(ReadSampleRate(), 0u);
  device->Fail(Fakes::kAsioGetSampleRate, ASE_HWMalfunction, 1);
  EXPECT_EQ(FailureCodeOf([] { ReadSampleRate(); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError));
  device->rate = 44100.0;
  EXPECT_EQ(WriteSampleRate(48000), 48000u);
  for (ASIOError accepted : {ASE_NoClock, ASE_InvalidMode}) {
    device->Fail(Fakes::kAsioSetSampleRate, accepted, 1);
    EXPECT_EQ(WriteSampleRate(44100), 48000u);
  }
  device->Fail(Fakes::kAsioSetSampleRate, ASE_HWMalfunction, 1);
  EXPECT_EQ(FailureCodeOf([] { WriteSampleRate(44100); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
  device->lastRateSet = 0.0;
  WriteSampleRate(48000);  // already so: not set
  EXPECT_EQ(device->lastRateSet.load(), 0.0);
}

TEST_F(HostTest, SampleRateListRules) {
  auto device = Quiet();
  Load();
  ASSERT_TRUE(driverList->LoadDriverByName(u"Fake"));
  device->rates = {48000, 96000, 192000};
  device->rate = 48000.0;
  const uint64_t asked = device->Calls(Fakes::kAsioCanSampleRate);
  EXPECT_EQ(ListSampleRates(), (std::vector<uint32_t>{48000, 96000, 192000}));
  EXPECT_EQ(device->Calls(Fakes::kAsioCanSampleRate) - asked, 4u);  // the current is not asked
  device->rate = 32000.0;
  EXPECT_EQ(ListSampleRates(), (std::vector<uint32_t>{32000, 48000, 96000, 192000}));
  device->rates.clear();
  device->Fail(Fakes::kAsioGetSampleRate, ASE_HWMalfunction);
  EXPECT_EQ(ListSampleRates(), (std::vector<uint32_t>{44100}));
}

TEST_F(HostTest, ADriverWithoutClockRunsAt44100) {
  auto device = Quiet();
  device->rates = {44100, 48000};
  device->Fail(Fakes::kAsioGetSampleRate, ASE_NoClock);
  auto host = Open();
  EXPECT_EQ(host->EffectiveRate(), 44100u);
  EXPECT_EQ(host->ReportedRate(), 0u);
  EXPECT_EQ(device->lastRateSet.load(), 44100.0);
}

TEST_F(HostTest, RateReportsMoveTheEffectiveRateToTheNearestOffered) {
  auto device = Quiet();
  device->rates = {44100, 48000, 88200, 96000, 192000};
  auto host = Open();
  ASSERT_TRUE(host->TakeSettingsChanged());
  auto* live = device->Live();
  live->ReportRate(50000.0);
  EXPECT_EQ(host->EffectiveRate(), 48000u);
  EXPECT_EQ(host->ReportedRate(), 50000u);
  EXPECT_TRUE(host->TakeSettingsChanged());
  live->ReportRate(0.0);
  EXPECT_EQ(host->ReportedRate(), 0u);
  EXPECT_EQ(host->EffectiveRate(), 48000u);
  EXPECT_TRUE(host->TakeSettingsChanged());
  live->ReportRate(0.0);
  EXPECT_FALSE(host->TakeSettingsChanged());
  live->ReportRate(std::nan(""));
  live->ReportRate(-1e300);
  live->ReportRate(1e300);
  EXPECT_EQ(host->EffectiveRate(), 48000u);
  live->ReportRate(90000.7);
  EXPECT_EQ(host->EffectiveRate(), 88200u);
  // Through the time info, when its flags say the rate is there.
  device->timeInfo = true;
  device->timeRate = 191000.0;
  device->timeFlags = kSystemTimeValid;
  live->SwitchNow(0);
  EXPECT_EQ(host->EffectiveRate(), 88200u);
  device->timeFlags = kSampleRateChanged;
  live->SwitchNow(1);
  EXPECT_EQ(host->EffectiveRate(), 192000u);
  device->timeRate = 96000.0;
  device->timeFlags = kSampleRateValid;
  live->SwitchNow(0);
  EXPECT_EQ(host->EffectiveRate(), 96000u);
}

uint32_t gTestTicks = 0;
uint32_t TestTicks() { return gTestTicks; }

// Against a clock of the test's own: the first check polls, the next poll
// comes only after 3000 ms have passed, and the clock's wraps, of its sign
// and of its 32 bits, change nothing.
TEST_F(HostTest, ThePeriodicCheckPollsTheRateEveryThreeSeconds) {
  auto device = Quiet();
  for (uint32_t start : {0x7FFFF000u, 0xFFFFF000u, 1000u}) {
    auto host = Open();
    host->SetTickSource(&TestTicks);
    gTestTicks = start;
    host->TakeSettingsChanged();
    device->rate = 44100.0;
    const uint64_t reads = device->Calls(Fakes::kAsioGetSampleRate);
    auto polls = [&] { return device->Calls(Fakes::kAsioGetSampleRate) - reads; };
    host->PeriodicCheck();
    EXPECT_EQ(polls(), 1u) << start;
    EXPECT_EQ(host->EffectiveRate(), 44100u);
    EXPECT_TRUE(host->TakeSettingsChanged());
    uint64_t expected = 1;
    for (int round = 0; round < 3; ++round) {
      // Checks every 500 ms: some fall after a poll and before the clock
      // wraps, where a plain comparison with the next time would poll.
      for (int step = 0; step < 6; ++step) {
        gTestTicks += 500;
        host->PeriodicCheck();
        EXPECT_EQ(polls(), expected) << start << " " << round << ": 3000 ms is not past";
      }
      gTestTicks += 1;
      host->PeriodicCheck();
      EXPECT_EQ(polls(), ++expected) << start << " " << round;
    }
    EXPECT_FALSE(host->TakeSettingsChanged());
    // A refusal from the poll reaches the caller.
    device->Fail(Fakes::kAsioGetSampleRate, ASE_HWMalfunction, 1);
    gTestTicks += 3001;
    EXPECT_EQ(FailureCodeOf([&] { host->PeriodicCheck(); }),
              static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError));
    device->rate = 48000.0;
  }
}

TEST_F(HostTest, AResetRequestRestartsAtTheNextCheck) {
  auto device = Quiet();
  auto host = Open();
  host->TakeSettingsChanged();
  device->preferredSize = 512;
  auto* live = device->Live();
  EXPECT_EQ(live->Message(kAsioResetRequest, 0), 1);
  EXPECT_EQ(device->Calls(Fakes::kAsioStop), 0u);
  host->PeriodicCheck();
  EXPECT_EQ(host->BufferFrames(), 512u);
  EXPECT_TRUE(host->TakeSettingsChanged());
  EXPECT_EQ(asioState, kASIOStateRunning);
  EXPECT_EQ(device->Calls(Fakes::kAsioStop), 1u);
  host->PeriodicCheck();
  EXPECT_EQ(device->Calls(Fakes::kAsioStop), 1u);
}

TEST_F(HostTest, AResetRequestWhileStoppedIsForgotten) {
  auto device = Quiet();
  auto host = Open();
  auto* live = device->Live();
  asioState = kASIOStatePrepared;  // as if the stream had stopped
  live->Message(kAsioResetRequest, 0);
  host->PeriodicCheck();
  asioState = kASIOStateRunning;
  host->PeriodicCheck();
  EXPECT_EQ(device->Calls(Fakes::kAsioStop), 0u);
  // And teardown forgets one too.
  device->Live()->Message(kAsioResetRequest, 0);
  host.reset();
  EXPECT_EQ(device->Calls(Fakes::kAsioStop), 1u);
}

TEST_F(HostTest, RestartRunsFirstAndAFailedRenderStillRaises) {
  auto device = Quiet();
  auto host = Open();
  auto* live = device->Live();
  renderer.raiseNext = true;
  live->SwitchNow(0);
  EXPECT_TRUE(host->RenderFailed());
  device->Live()->Message(kAsioResetRequest, 0);
  EXPECT_EQ(FailureCodeOf([&] { host->PeriodicCheck(); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_NotReady));
  EXPECT_EQ(device->Calls(Fakes::kAsioStop), 1u);
  EXPECT_TRUE(host->RenderFailed());
  // After a failed render the driver hears outputReady and nothing renders.
  const uint64_t calls = renderer.calls;
  const uint64_t ready = device->Calls(Fakes::kAsioOutputReady);
  device->Live()->SwitchNow(1);
  EXPECT_EQ(renderer.calls.load(), calls);
  EXPECT_EQ(device->Calls(Fakes::kAsioOutputReady), ready + 1);
}

TEST_F(HostTest, MessagesAnswerAsTheTableSays) {
  auto device = Quiet();
  auto host = Open();
  auto* live = device->Live();
  const int32_t supported[] = {0, 0, 1, 1, 0, 1, 1, 0, 0, 0};
  for (int32_t value = 0; value < 10; ++value) {
    EXPECT_EQ(live->Message(kAsioSelectorSupported, value), supported[value]) << value;
  }
  EXPECT_EQ(live->Message(kAsioEngineVersion, 0), 2);
  EXPECT_EQ(live->Message(kAsioBufferSizeChange, 128), 0);
  EXPECT_EQ(live->Message(kAsioResyncRequest, 0), 0);
  EXPECT_EQ(live->Message(kAsioLatenciesChanged, 0), 0);
  EXPECT_EQ(live->Message(kAsioSupportsTimeInfo, 0), 1);
  EXPECT_EQ(live->Message(kAsioSupportsTimeCode, 0), 0);
  EXPECT_EQ(live->Message(99, 0), 0);
  EXPECT_EQ(live->Message(-3, 0), 0);
  host.reset();
  // Without an active host every message is answered 0.
  EXPECT_EQ(CASIODriverHost::OnAsioMessage(kAsioEngineVersion, 0, nullptr, nullptr), 0);
  EXPECT_EQ(CASIODriverHost::OnAsioMessage(kAsioSupportsTimeInfo, 0, nullptr, nullptr), 0);
  CASIODriverHost::OnBufferSwitch(0, 1);
  CASIODriverHost::OnSampleRateDidChange(44100.0);
  EXPECT_EQ(CASIODriverHost::OnBufferSwitchTimeInfo(nullptr, 0, 1), nullptr);
}

TEST_F(HostTest, TheFourTimesAreMovedByTheLatencies) {
  auto device = Quiet();
  device->inputLatency = 480;
  device->outputLatency = 960;
  device->rates = {48000};
  auto host = Open();
  // The priming pass at time 0: the input side lies before it.
  EXPECT_EQ(renderer.times[0].load(), uint64_t{0} - 10000000u);
  EXPECT_EQ(renderer.times[1].load(), uint64_t{0} - 480u);
  EXPECT_EQ(renderer.times[2].load(), 20000000u);
  EXPECT_EQ(renderer.times[3].load(), 960u);
  device->position = 10000;
  device->systemTimeNs = 5000000000ull;
  device->Live()->SwitchNow(0);
  // The fake moves its clock by one buffer and 1 ms before it calls.
  EXPECT_EQ(renderer.times[0].load(), 5001000000ull - 10000000ull);
  EXPECT_EQ(renderer.times[1].load(), 10256u - 480u);
  EXPECT_EQ(renderer.times[2].load(), 5001000000ull + 20000000ull);
  EXPECT_EQ(renderer.times[3].load(), 10256u + 960u);
  EXPECT_EQ(renderer.lastFrames.load(), 256u);
  // A driver that refuses the position gives zeros.
  device->Fail(Fakes::kAsioGetSamplePosition, ASE_SPNotAdvancing);
  device->Live()->SwitchNow(1);
  EXPECT_EQ(renderer.times[3].load(), 960u);
  // The time info carries its own stamps.
  device->timeInfo = true;
  device->Live()->SwitchNow(0);
  EXPECT_EQ(renderer.times[1].load(), device->position.load() - 480u);
  EXPECT_EQ(renderer.times[0].load(), device->systemTimeNs.load() - 10000000ull);
}

TEST_F(HostTest, EachBufferTellsOutputReadyOnceAndConvertsBothWays) {
  auto device = Quiet(2, 2);
  device->defaultType = ASIOSTInt16LSB;
  renderer.value = 0.5f;
  auto host = Open();
  auto* live = device->Live();
  const uint64_t ready = device->Calls(Fakes::kAsioOutputReady);
  static_cast<int16_t*>(live->Buffer(0, 1))[0] = 16384;
  live->SwitchNow(1);
  EXPECT_EQ(device->Calls(Fakes::kAsioOutputReady), ready + 1);
  EXPECT_EQ(renderer.firstInput.load(), 0.5f);
  EXPECT_EQ(static_cast<int16_t*>(live->Buffer(2, 1))[255], 16383);
  EXPECT_EQ(static_cast<int16_t*>(live->Buffer(3, 1))[0], 16383);
  // Before the start the output halves hold silence in the driver's format.
  EXPECT_EQ(renderer.inputCount.load(), 2u);
  EXPECT_EQ(renderer.outputCount.load(), 2u);
}

TEST_F(HostTest, WithTheRunLockHeldASwitchReturnsAtOnceAndStillTellsOutputReady) {
  auto device = Quiet();
  auto host = Open();
  auto* live = device->Live();
  host->RunLock().Lock();
  const uint64_t calls = renderer.calls;
  const uint64_t ready = device->Calls(Fakes::kAsioOutputReady);
  std::thread driver([&] { live->SwitchNow(0); });
  driver.join();
  EXPECT_EQ(renderer.calls.load(), calls);
  EXPECT_EQ(device->Calls(Fakes::kAsioOutputReady), ready + 1);
  // The time info form skips the buffer, and tells nothing.
  device->timeInfo = true;
  std::thread timed([&] { live->SwitchNow(1); });
  timed.join();
  EXPECT_EQ(device->Calls(Fakes::kAsioOutputReady), ready + 1);
  host->RunLock().Unlock();
  live->SwitchNow(0);
  EXPECT_EQ(renderer.calls.load(), calls + 1);
}

TEST_F(HostTest, TheBufferSwitchNeitherAllocatesNorWaits) {
  auto device = Add(u"Fake", 1);
  device->inputs = 8;
  device->outputs = 8;
  device->periodMs = 1;
  Load();
  CSoundDriverSettings settings;
  settings.inputPairs = Pairs({0, 1, 2, 3}, 4);
  settings.outputPairs = Pairs({0, 1, 2, 3}, 4);
  auto host = Open(&settings);
  ASSERT_TRUE(WaitFor([&] { return renderer.driverThreadCalls.load() > 50; }, 10000));
  device->Live()->ReportRate(96000.0);
  device->Live()->Message(kAsioResetRequest, 0);
  device->timeInfo = true;
  const uint64_t seen = renderer.driverThreadCalls;
  ASSERT_TRUE(WaitFor([&] { return renderer.driverThreadCalls.load() > seen + 50; }, 10000));
  EXPECT_GT(renderer.watch.Watched(), 100u);
  EXPECT_EQ(renderer.watch.Allocations(), 0u);
  EXPECT_EQ(renderer.watch.BlockingWaits(), 0u);
}

TEST_F(HostTest, ACallbackInsideStartFindsNoHost) {
  auto device = Quiet();
  device->callInsideStart = true;
  auto host = Open();
  // Only the priming pass rendered; the driver's early call found no host.
  EXPECT_EQ(renderer.calls.load(), 1u);
  EXPECT_EQ(device->switches.load(), 1u);
  EXPECT_EQ(device->Calls(Fakes::kAsioOutputReady), 1u);
}

TEST_F(HostTest, ThePanelRestartsAStreamThatRuns) {
  auto device = Quiet();
  device->panelPreferredSize = 1024;
  auto host = Open();
  host->TakeSettingsChanged();
  EXPECT_TRUE(host->ShowPanel());
  EXPECT_EQ(host->BufferFrames(), 1024u);
  EXPECT_TRUE(host->TakeSettingsChanged());
  device->Fail(Fakes::kAsioControlPanel, ASE_NotPresent, 1);
  EXPECT_TRUE(host->ShowPanel());  // its answer is not read
  asioState = kASIOStatePrepared;
  activeHost.store(nullptr);
  EXPECT_FALSE(host->ShowPanel());
  activeHost.store(host.get());
  asioState = kASIOStateRunning;
}

TEST_F(HostTest, MonitorRecordsGoToTheDriverOnlyForActivePairs) {
  auto device = Quiet(4, 4);
  CSoundDriverSettings settings;
  settings.inputPairs = Pairs({1}, 2);
  settings.outputPairs = Pairs({1}, 2);
  settings.monitorsValid = true;
  settings.monitors.resize(4);
  settings.monitors[0].enabled = true;  // pair 0 is off: not sent
  settings.monitors[2].enabled = true;
  settings.monitors[2].outputPair = 1;
  settings.monitors[2].gainDb = 0.0f;
  settings.monitors[2].pan = -1.0f;
  settings.monitors[3].outputPair = 0;  // output pair 0 is off: not sent
  auto host = Open(&settings);
  EXPECT_EQ(device->monitorsSent.load(), 1);
  EXPECT_EQ(device->lastMonitor.input, 0);
  EXPECT_EQ(device->lastMonitor.output, 0);
  EXPECT_EQ(device->lastMonitor.state, 1);
  EXPECT_EQ(device->lastMonitor.gain, 539423503);
  EXPECT_EQ(device->lastMonitor.pan, 0);
  EXPECT_TRUE(host->MonitorsValid());
  EXPECT_TRUE(host->Monitors()[2].enabled);
  EXPECT_FALSE(host->Monitors()[0].enabled);
  // A refused record leaves the table alone.
  device->monitorAnswer = ASE_InvalidParameter;
  NSFerrand::CInputMonitorSetting record;
  record.enabled = false;
  host->SetInputMonitor(2, record);
  EXPECT_TRUE(host->Monitors()[2].enabled);
  host->SetInputMonitor(4000, record);
  device->monitorAnswer = ASE_SUCCESS;
  host->SetInputMonitor(4000, record);  // no such channel: sent as input -1
  EXPECT_EQ(device->lastMonitor.input, -1);
  EXPECT_EQ(host->Monitors().size(), 4u);
}

TEST_F(HostTest, CanMonitorInputsAsksTheDriver) {
  auto device = Quiet();
  auto host = Open();
  EXPECT_TRUE(host->CanMonitorInputs());
  device->canMonitor = false;
  EXPECT_FALSE(host->CanMonitorInputs());
}

TEST_F(HostTest, AHostCanBeBuiltAgainAfterTeardown) {
  auto device = Quiet();
  for (int i = 0; i < 3; ++i) {
    auto host = Open();
    EXPECT_EQ(activeHost.load(), host.get());
  }
  EXPECT_EQ(device->liveObjects.load(), 0);
  EXPECT_EQ(device->createdObjects.load(), 3);
}

TEST_F(HostTest, RefusalsInTheTeardownAndOnTheDriversThreadLoseNothing) {
  auto device = Quiet();
  auto host = Open();
  auto* live = device->Live();
  device->Fail(Fakes::kAsioOutputReady, ASE_HWMalfunction);
  device->Fail(Fakes::kAsioGetSamplePosition, ASE_NotPresent);
  device->Fail(Fakes::kAsioFuture, ASE_HWMalfunction);
  const uint64_t calls = renderer.calls;
  live->SwitchNow(0);
  live->SwitchNow(1);
  EXPECT_EQ(renderer.calls.load(), calls + 2);
  EXPECT_FALSE(host->RenderFailed());
  EXPECT_FALSE(host->CanMonitorInputs());
  device->Fail(Fakes::kAsioStop, ASE_HWMalfunction);
  device->Fail(Fakes::kAsioDisposeBuffers, ASE_HWMalfunction);
  host.reset();
  EXPECT_EQ(asioState, kASIOStateLoaded);
  EXPECT_EQ(activeHost.load(), nullptr);
  EXPECT_EQ(device->liveObjects.load(), 0);
}

TEST_F(HostTest, ARefusedCOMInitialisationStillListsAndOpens) {
  Add(u"Fake", 1)->stopCalling = true;
  platform.Fail(Fakes::kPlatformCoInitialize, static_cast<int32_t>(0x80010106u));
  Load();
  EXPECT_EQ(driverList->NumDrivers(), 1);
  auto host = Open();
  EXPECT_EQ(asioState, kASIOStateRunning);
}

uint32_t farTicks = 0;
uint32_t FarTicks() { return farTicks; }

TEST_F(HostTest, WhileThePanelIsOpenThePeriodicCheckAsksNothingAndNeverWaits) {
  auto device = Quiet();
  auto host = Open();
  host->SetTickSource(&FarTicks);
  host->PeriodicCheck();
  const uint64_t ratesAsked = device->Calls(Fakes::kAsioGetSampleRate);
  device->holdPanel = true;
  std::thread panel([&] { host->ShowPanel(); });
  ASSERT_TRUE(WaitFor([&] { return device->panelOpen.load(); }));
  // Every check is due for the rate poll; a panel left open for longer than
  // any deadline is still a healthy driver.
  for (int i = 0; i < 30; ++i) {
    farTicks += 3001;
    const auto started = std::chrono::steady_clock::now();
    host->PeriodicCheck();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(1000));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(device->Calls(Fakes::kAsioGetSampleRate), ratesAsked);
  EXPECT_FALSE(CASIOCallLayer::Quarantined());
  device->holdPanel = false;
  panel.join();
  EXPECT_FALSE(CASIOCallLayer::Quarantined());
  farTicks += 3001;
  host->PeriodicCheck();
  EXPECT_GT(device->Calls(Fakes::kAsioGetSampleRate), ratesAsked);
  EXPECT_EQ(asioState, kASIOStateRunning);
}

}  // namespace
