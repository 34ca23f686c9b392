#include <gtest/gtest.h>

#include "failure/report.h"
#include "handle/handle_support.h"

using namespace NSFerrand;
using Fakes::EOperation;

namespace {

std::unique_ptr<COpenSoundDriverHandle> Open(const CRegisteredDriverPtr& registered,
                                             MSoundRenderer* renderer) {
  return std::unique_ptr<COpenSoundDriverHandle>(
      new COpenSoundDriverHandle(registered, renderer, nullptr));
}

bool IsAudioDriverNotReady(const std::exception& e) {
  return dynamic_cast<const NSMarlet::XNotReady*>(&e) != nullptr &&
         NSMarlet::TargetObjectTypeIs(NSMarlet::BodyFromException(&e, {}), "audio_driver");
}

}  // namespace

TEST_F(HandleTest, OpensAndReadsEverythingBack) {
  auto handle = Open(registered, &renderer);
  EXPECT_EQ(handle->State(), kDriverOpen);
  EXPECT_FALSE(handle->IsDriverLost());
  EXPECT_FALSE(handle->HasSilentThread());
  EXPECT_EQ(control->Calls(Fakes::kOpenWithDefaults), 1u);
  CSoundDriverSettings s;
  handle->ReadDriverSettings(s);
  EXPECT_EQ(s.sampleRate, 48000u);
  COpenSoundDriverInfo info;
  handle->ReadDriverInfo(info);
  EXPECT_EQ(info.outputNames.size(), 4u);
  EXPECT_EQ(handle->GetInputLatency(), 1000);
  EXPECT_EQ(handle->GetOutputLatency(), 2000);
  CRegisteredDriverPtr current;
  handle->GetRegisteredDriver(current);
  EXPECT_EQ(current, registered);
  ASSERT_TRUE(WaitFor([&] { return renderer.drivenBlocks.load() >= 3; }));
  EXPECT_EQ(renderer.silentBlocks.load(), 0u);
}

TEST_F(HandleTest, AnOpenThatRaisesLeavesAStandingSilentHandle) {
  control->Raise(Fakes::kOpenWithDefaults, 30);
  auto handle = Open(registered, &renderer);
  EXPECT_TRUE(handle->IsDriverLost());
  EXPECT_TRUE(handle->HasSilentThread());
  COpenSoundDriverInfo info;
  handle->ReadDriverInfo(info);
  EXPECT_EQ(info, COpenSoundDriverInfo());
  CSoundDriverSettings s;
  handle->ReadDriverSettings(s);
  EXPECT_EQ(s.sampleRate, 44100u);
  EXPECT_EQ(s.bufferFrames, 5120u);
  EXPECT_TRUE(SilentBlocksFlow(2));
  EXPECT_EQ(renderer.drivenBlocks.load(), 0u);
  EXPECT_EQ(control->openDrivers.load(), 0);
}

TEST_F(HandleTest, TheSettingsFormOpensWithTheSettings) {
  CSoundDriverSettings wanted;
  wanted.sampleRate = 44100;
  wanted.bufferFrames = 128;
  wanted.outputPairs.Resize(1);
  wanted.outputPairs.Set(0, true);
  std::unique_ptr<COpenSoundDriverHandle> handle(
      new COpenSoundDriverHandle(registered, wanted, &renderer, nullptr));
  EXPECT_EQ(control->Calls(Fakes::kOpenWithSettings), 1u);
  CSoundDriverSettings s;
  handle->ReadDriverSettings(s);
  EXPECT_EQ(s, wanted);
  control->Raise(Fakes::kOpenWithSettings, 17);
  std::unique_ptr<COpenSoundDriverHandle> lost(
      new COpenSoundDriverHandle(registered, wanted, &renderer, nullptr));
  EXPECT_TRUE(lost->IsDriverLost());
  lost->ReadDriverSettings(s);
  EXPECT_EQ(s, wanted);  // the starting settings are the given ones
}

TEST_F(HandleTest, TheThirdFormOpensTheFirstDriverOfTheRegistry) {
  std::unique_ptr<COpenSoundDriverHandle> handle(new COpenSoundDriverHandle(&renderer, nullptr));
  EXPECT_EQ(handle->State(), kDriverOpen);
  CRegisteredDriverPtr current;
  handle->GetRegisteredDriver(current);
  CRegisteredSoundDriverInfo info;
  EXPECT_EQ(current->GetInfo(info).name, u"No Sound");
  ASSERT_TRUE(WaitFor([&] { return renderer.drivenBlocks.load() >= 1; }));
}

TEST_F(HandleTest, SettingsChangedIsTrueOnceAfterConstruction) {
  auto handle = Open(registered, &renderer);
  EXPECT_TRUE(handle->TakeHandleSettingsChanged());
  EXPECT_FALSE(handle->TakeHandleSettingsChanged());
  // A change the driver reports comes through once.
  CSoundDriverSettings s;
  handle->ReadDriverSettings(s);
  s.bufferFrames = 512;
  handle->ApplyDriverSettings(s);
  EXPECT_TRUE(handle->TakeHandleSettingsChanged());
  EXPECT_FALSE(handle->TakeHandleSettingsChanged());
}

TEST_F(HandleTest, ApplyingSettingsWhileLostDoesNothing) {
  auto handle = Open(registered, &renderer);
  CSoundDriverSettings before;
  handle->ReadDriverSettings(before);
  handle->EnterSilentMode();
  CSoundDriverSettings changed = before;
  changed.bufferFrames = 64;
  handle->ApplyDriverSettings(changed);
  CSoundDriverSettings after;
  handle->ReadDriverSettings(after);
  EXPECT_EQ(after, before);
  EXPECT_EQ(control->Calls(Fakes::kApplySettings), 0u);
}

TEST_F(HandleTest, PollRaisesNotReadyWhenTheDriverDied) {
  auto handle = Open(registered, &renderer);
  handle->PollDriver();
  renderer.raiseNext = true;
  ASSERT_TRUE(WaitFor([&] { return control->renderRaised.load(); }));
  try {
    handle->PollDriver();
    ADD_FAILURE() << "no failure";
  } catch (const std::exception& e) {
    EXPECT_TRUE(IsAudioDriverNotReady(e));
    EXPECT_STREQ(e.what(), "");
    std::u16string detail;
    NSMarlet::GetParameterText(NSMarlet::BodyFromException(&e, {}), NSMarlet::kParamErrorString,
                               detail);
    EXPECT_EQ(detail, u"");  // the driver's own XNotReady had empty text too
  }
  EXPECT_TRUE(handle->IsDriverLost());
  EXPECT_TRUE(SilentBlocksFlow(2));
  handle->PollDriver();  // nothing to poll now
}

TEST_F(HandleTest, SuspendNestsAndTheLastResumeReopensWithTheSettingsOfTheSuspension) {
  auto handle = Open(registered, &renderer);
  CSoundDriverSettings atSuspension;
  handle->ReadDriverSettings(atSuspension);
  handle->SuspendDriver();
  handle->SuspendDriver();
  EXPECT_EQ(handle->State(), kDriverSuspended);
  EXPECT_EQ(handle->SuspendCount(), 2u);
  EXPECT_EQ(control->openDrivers.load(), 0);
  EXPECT_TRUE(SilentBlocksFlow());
  handle->ResumeDriver(nullptr);
  EXPECT_EQ(handle->State(), kDriverSuspended);
  EXPECT_EQ(control->openDrivers.load(), 0);
  {
    std::lock_guard<std::mutex> lock(control->lock);
    control->settings = CSoundDriverSettings();  // the fake forgets; the handle must not
  }
  handle->ResumeDriver(nullptr);
  EXPECT_EQ(handle->State(), kDriverOpen);
  EXPECT_EQ(handle->SuspendCount(), 0u);
  EXPECT_FALSE(handle->HasSilentThread());
  EXPECT_EQ(control->Calls(Fakes::kOpenWithSettings), 1u);
  CSoundDriverSettings reopened;
  handle->ReadDriverSettings(reopened);
  EXPECT_EQ(reopened, atSuspension);
}

TEST_F(HandleTest, ResumeWithoutSuspendWrapsTheCount) {
  auto handle = Open(registered, &renderer);
  handle->ResumeDriver(nullptr);
  EXPECT_EQ(handle->SuspendCount(), 0xFFFFFFFFu);
  EXPECT_EQ(handle->State(), kDriverOpen);
  handle->SuspendDriver();  // step 1 still happens: it closes the driver
  EXPECT_EQ(handle->SuspendCount(), 0u);
  EXPECT_EQ(handle->State(), kDriverSuspended);
  handle->ResumeDriver(nullptr);  // not the last: the count was not 1
  EXPECT_EQ(handle->State(), kDriverSuspended);
  EXPECT_EQ(handle->SuspendCount(), 0xFFFFFFFFu);
}

TEST_F(HandleTest, AResumeWhoseOpenFailsGoesSilentAndRaises) {
  auto handle = Open(registered, &renderer);
  handle->SuspendDriver();
  control->Raise(Fakes::kOpenWithSettings, 30);
  EXPECT_THROW(handle->ResumeDriver(nullptr), NSMarlet::XOpen);
  EXPECT_TRUE(handle->IsDriverLost());
  EXPECT_TRUE(SilentBlocksFlow());
}

TEST_F(HandleTest, ASuspendWhoseReadsFailPassesTheFailureAndKeepsTheState) {
  auto handle = Open(registered, &renderer);
  control->Raise(Fakes::kGetDriverInfo, 17);
  EXPECT_THROW(handle->SuspendDriver(), std::runtime_error);
  EXPECT_EQ(handle->State(), kDriverOpen);
  EXPECT_EQ(handle->SuspendCount(), 0u);
}

TEST_F(HandleTest, SwitchingMovesBetweenDriversAndOutOfLoss) {
  auto handle = Open(registered, &renderer);
  handle->TakeHandleSettingsChanged();
  handle->SwitchDriver(other, nullptr);
  EXPECT_EQ(handle->State(), kDriverOpen);
  EXPECT_TRUE(handle->TakeHandleSettingsChanged());
  EXPECT_EQ(control->openDrivers.load(), 0);
  EXPECT_EQ(otherControl->openDrivers.load(), 1);
  handle->EnterSilentMode();
  EXPECT_TRUE(handle->IsDriverLost());
  CSoundDriverSettings wanted = control->settings;
  wanted.bufferFrames = 1024;
  handle->SwitchDriverWithSettings(registered, wanted, nullptr);
  EXPECT_EQ(handle->State(), kDriverOpen);
  EXPECT_FALSE(handle->HasSilentThread());
  CSoundDriverSettings s;
  handle->ReadDriverSettings(s);
  EXPECT_EQ(s.bufferFrames, 1024u);
  // A switch to a driver that fails to open swallows the failure.
  otherControl->Raise(Fakes::kOpenWithDefaults, 30);
  handle->SwitchDriver(other, nullptr);
  EXPECT_TRUE(handle->IsDriverLost());
  EXPECT_TRUE(SilentBlocksFlow());
}

TEST_F(HandleTest, ASwitchFromSuspensionEndsTheSilentThreadBeforeTheNewDriverOpens) {
  auto handle = Open(registered, &renderer);
  handle->SuspendDriver();
  ASSERT_TRUE(SilentBlocksFlow());
  handle->SwitchDriver(other, nullptr);
  EXPECT_EQ(handle->State(), kDriverOpen);
  EXPECT_FALSE(handle->HasSilentThread());
  const uint64_t silent = renderer.silentBlocks.load();
  const uint64_t driven = renderer.drivenBlocks.load();
  EXPECT_TRUE(WaitFor([&] { return renderer.drivenBlocks.load() > driven + 2; }));
  EXPECT_EQ(renderer.silentBlocks.load(), silent);
  // The suspension still counts: the matching resume finds a driver open
  // and only counts down.
  handle->ResumeDriver(nullptr);
  EXPECT_EQ(handle->SuspendCount(), 0u);
  EXPECT_EQ(handle->State(), kDriverOpen);
}

TEST_F(HandleTest, ASwitchGivesUpWhenTheSilentThreadHoldsItsMutex) {
  control->Raise(Fakes::kOpenWithDefaults, 30);
  auto handle = Open(registered, &renderer);
  ASSERT_TRUE(SilentBlocksFlow());
  renderer.holdMs = 7000;  // the next silent block holds the mutex that long
  ASSERT_TRUE(SilentBlocksFlow());
  try {
    handle->SwitchDriver(other, nullptr);
    ADD_FAILURE() << "no failure";
  } catch (const NSMarlet::NSMarletDetails::XStdRuntimeError& e) {
    EXPECT_TRUE(NSMarlet::TargetObjectTypeIs(NSMarlet::BodyFromException(&e, {}), "audio_driver"));
  }
  renderer.holdMs = 0;
  EXPECT_TRUE(handle->IsDriverLost());
  EXPECT_EQ(otherControl->Calls(Fakes::kOpenWithDefaults), 0u);
}

TEST_F(HandleTest, ClosingInEveryState) {
  { auto open = Open(registered, &renderer); }
  {
    auto lost = Open(registered, &renderer);
    lost->EnterSilentMode();
    ASSERT_TRUE(SilentBlocksFlow());
  }
  {
    auto suspended = Open(registered, &renderer);
    suspended->SuspendDriver();
    ASSERT_TRUE(SilentBlocksFlow());
  }
  const uint64_t silent = renderer.silentBlocks.load();
  const uint64_t driven = renderer.drivenBlocks.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(renderer.silentBlocks.load(), silent);
  EXPECT_EQ(renderer.drivenBlocks.load(), driven);
  EXPECT_EQ(control->openDrivers.load(), 0);
}

TEST_F(HandleTest, TheSilentThreadNeitherAllocatesNorWaitsFromItsFirstBlock) {
  control->Raise(Fakes::kOpenWithDefaults, 30);
  auto handle = Open(registered, &renderer);
  ASSERT_TRUE(WaitFor([&] { return renderer.silentBlocks.load() >= 6; }));
  handle.reset();
  // Counted from the thread's start: its failure table was made beforehand,
  // on the thread that started it.
  EXPECT_EQ(renderer.silentAllocationsAtFirst.load(), 0u);
  EXPECT_EQ(renderer.silentAllocationsLatest.load(), 0u);
  EXPECT_GE(renderer.silentWatch.Watched(), 5u);
  EXPECT_EQ(renderer.silentWatch.Allocations(), 0u);
  EXPECT_EQ(renderer.silentWatch.BlockingWaits(), 0u);
}

TEST_F(HandleTest, SuspensionsComeAndGoWithoutNewFailureTables) {
  auto handle = Open(registered, &renderer);
  handle->SuspendDriver();
  ASSERT_TRUE(SilentBlocksFlow());
  handle->ResumeDriver(nullptr);
  const uint32_t tables = storage->GetTableCount();
  for (int i = 0; i < 100; ++i) {
    handle->SuspendDriver();
    handle->ResumeDriver(nullptr);
  }
  EXPECT_EQ(handle->State(), kDriverOpen);
  EXPECT_EQ(storage->GetTableCount(), tables);
}

// A host whose Render is slower than the silent period: every control
// operation still returns within one Render and a second.
TEST_F(HandleTest, ASlowHostNeverHoldsTheControlThread) {
  control->Raise(Fakes::kOpenWithDefaults, 30);
  auto handle = Open(registered, &renderer);
  ASSERT_TRUE(SilentBlocksFlow());
  renderer.holdMs = 400;
  ASSERT_TRUE(SilentBlocksFlow(2));
  const auto bound = std::chrono::milliseconds(400 + 1000);
  auto timed = [&](auto operation) {
    const auto before = std::chrono::steady_clock::now();
    operation();
    return std::chrono::steady_clock::now() - before;
  };
  control->Succeed(Fakes::kOpenWithDefaults);
  EXPECT_LT(timed([&] { handle->SwitchDriver(registered, nullptr); }), bound);
  EXPECT_EQ(handle->State(), kDriverOpen);
  EXPECT_LT(timed([&] { handle->SuspendDriver(); }), bound);
  ASSERT_TRUE(SilentBlocksFlow());
  EXPECT_LT(timed([&] { handle->ResumeDriver(nullptr); }), bound);
  EXPECT_LT(timed([&] { handle->EnterSilentMode(); }), bound);
  ASSERT_TRUE(SilentBlocksFlow());
  EXPECT_LT(timed([&] { handle.reset(); }), bound);
}

TEST(SilentPayOut, AStopRequestEndsThePayOutBetweenBlocks) {
  struct Stopper final : MSoundRenderer {
    uint32_t Render(uint32_t, const CChannelPointers&, CChannelPointers&, uint64_t, uint64_t,
                    uint64_t, uint64_t) override {
      if (++calls == 2) stop = true;
      return 0;
    }
    int calls = 0;
    std::atomic<bool> stop{false};
  } renderer;
  uint64_t last = 0;
  // Ten seconds owed: 86 blocks, of which two are paid before the stop.
  EXPECT_EQ(COpenSoundDriverHandle::PaySilence(last, 10000, &renderer, &renderer.stop), 2u);
  EXPECT_EQ(renderer.calls, 2);
  EXPECT_EQ(last, 10000u);
}

TEST(SilentPayOut, WholeBlocksAndTheRestDropped) {
  CountingRenderer renderer;
  uint64_t last = 1000;
  // 130 ms: 5733 samples, one block; the 14 ms left over are forgotten.
  EXPECT_EQ(COpenSoundDriverHandle::PaySilence(last, 1130, &renderer), 1u);
  EXPECT_EQ(last, 1130u);
  EXPECT_EQ(renderer.silentBlocks.load(), 1u);
  // 116 ms: 5115 samples, just under a block: nothing paid, the tick kept.
  EXPECT_EQ(COpenSoundDriverHandle::PaySilence(last, 1246, &renderer), 0u);
  EXPECT_EQ(last, 1130u);
  // So the time is paid in the next tick.
  EXPECT_EQ(COpenSoundDriverHandle::PaySilence(last, 1256, &renderer), 1u);
  EXPECT_EQ(last, 1256u);
  EXPECT_EQ(COpenSoundDriverHandle::PaySilence(last, 1256 + 233, &renderer), 2u);
  EXPECT_EQ(COpenSoundDriverHandle::PaySilence(last, last, &renderer), 0u);
  // Across the wrap of the 32-bit clock.
  last = 0xFFFFFF9Cu;
  EXPECT_EQ(COpenSoundDriverHandle::PaySilence(last, 0x64, &renderer), 1u);
  EXPECT_EQ(renderer.silentBlocks.load(), 5u);
}

TEST(SilentPayOut, ARaisingRenderIsSwallowed) {
  CountingRenderer renderer;
  renderer.raiseNext = true;
  uint64_t last = 0;
  EXPECT_EQ(COpenSoundDriverHandle::PaySilence(last, 240, &renderer), 2u);
  EXPECT_EQ(renderer.silentBlocks.load(), 2u);
}
