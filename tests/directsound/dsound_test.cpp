#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>

#include "directsound/dsound_driver.h"
#include "directsound/dsound_family.h"
#include "driver/registry.h"
#include "driver/wait.h"
#include "failure/builder.h"
#include "fakes/fake_dsound.h"
#include "support/allocation_counter.h"
#include "support/realtime_watch.h"
#include "support/storage_fixture.h"

using namespace NSDirectSound;
using NSFerrand::CRegisteredSoundDriverInfo;
using NSFerrand::CSoundDriverSettings;

namespace {

class ToneRenderer final : public NSFerrand::MSoundRenderer {
 public:
  uint32_t Render(uint32_t frames, const NSFerrand::CChannelPointers& inputs,
                  NSFerrand::CChannelPointers& outputs, uint64_t, uint64_t, uint64_t,
                  uint64_t) override {
    watch.OnRender();
    lastFrames = frames;
    totalFrames += frames;
    inputCount = inputs.size();
    const float leftValue = left.load();
    for (uint32_t f = 0; f < frames; ++f) {
      outputs[0][f] = leftValue;
      outputs[1][f] = -0.25f;
    }
    ++calls;
    if (raiseNext.exchange(false)) throw std::runtime_error("render");
    return 0;
  }
  std::atomic<uint64_t> calls{0};
  std::atomic<uint32_t> lastFrames{0};
  std::atomic<uint64_t> totalFrames{0};
  std::atomic<size_t> inputCount{9};
  std::atomic<bool> raiseNext{false};
  std::atomic<float> left{0.5f};
  CRealtimeWatch watch;
};

const int kSomeWindow = 0;

class DirectSoundTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    registry.reset(new NSFerrand::CRegistryRef());
  }
  void TearDown() override {
    family.reset();
    registry.reset();
    StorageTest::TearDown();
  }
  void MakeFamily() {
    family.reset(new CDirectSoundFamilyScope(api, const_cast<int*>(&kSomeWindow)));
  }
  std::vector<CRegisteredSoundDriverInfo> Listed() {
    NSFerrand::CRegisteredDriverList drivers;
    NSFerrand::GetRegisteredDrivers(drivers);
    std::vector<CRegisteredSoundDriverInfo> found;
    for (const auto& driver : drivers) {
      CRegisteredSoundDriverInfo info;
      driver->GetInfo(info);
      if (info.family == u"DX") found.push_back(info);
    }
    return found;
  }
  NSFerrand::CRegisteredDriverPtr First() {
    NSFerrand::CRegisteredDriverList drivers;
    NSFerrand::GetRegisteredDrivers(drivers);
    for (const auto& driver : drivers) {
      CRegisteredSoundDriverInfo info;
      driver->GetInfo(info);
      if (info.family == u"DX") return driver;
    }
    return NSFerrand::CRegisteredDriverPtr();
  }
  std::unique_ptr<COpenDirectSoundDriver> Open(const CSoundDriverSettings* settings = nullptr) {
    MakeFamily();
    NSFerrand::CRegisteredDriverPtr driver = First();
    EXPECT_TRUE(driver);
    auto* open = settings != nullptr ? driver->OpenWithSettings(*settings, &renderer, nullptr)
                                     : driver->OpenWithDefaults(&renderer, nullptr);
    return std::unique_ptr<COpenDirectSoundDriver>(static_cast<COpenDirectSoundDriver*>(open));
  }
  static CSoundDriverSettings Settings(uint32_t rate, uint32_t frames) {
    CSoundDriverSettings settings;
    settings.sampleRate = rate;
    settings.bufferFrames = frames;
    return settings;
  }
  // Waits until the pump has written that many blocks.
  bool WaitForWrites(size_t count) {
    return WaitFor([&] { return api.Writes().size() >= count; }, 10000);
  }

  Fakes::CFakeDirectSound api;
  std::unique_ptr<NSFerrand::CRegistryRef> registry;
  std::unique_ptr<CDirectSoundFamilyScope> family;
  ToneRenderer renderer;
};

// The failure class and whether the body names the driver layer.
template <class F>
std::pair<uint32_t, bool> FailureOf(F&& call) {
  try {
    call();
  } catch (const std::exception& e) {
    const bool word = NSMarlet::TargetObjectTypeIs(
        NSMarlet::BodyFromException(&e, NSMarlet::CSourcePosition()),
        NSMarlet::TargetWordAudioDriver());
    return {NSMarlet::ClassifyException(&e).failureCode, word};
  }
  return {0, false};
}

TEST_F(DirectSoundTest, EveryResultRaisesItsClass) {
  using namespace NSMarlet;
  const struct {
    uint32_t result;
    uint32_t code;
    bool word;
  } rows[] = {{0x80004001u, kFailureCode_LogicError_InvalidArgument, false},
              {0x80004002u, kFailureCode_RuntimeError_Open, true},
              {0x80004005u, kFailureCode_RuntimeError, true},
              {0x80040110u, kFailureCode_RuntimeError, true},
              {0x80070005u, kFailureCode_RuntimeError_Open, true},
              {0x8007000Eu, kFailureCode_BadAlloc, false},
              {0x80070057u, kFailureCode_LogicError_InvalidArgument, false},
              {0x8878000Au, kFailureCode_RuntimeError_Open, true},
              {0x8878001Eu, kFailureCode_RuntimeError_Open, true},
              {0x88780032u, kFailureCode_RuntimeError, true},
              {0x88780046u, kFailureCode_LogicError_InvalidArgument, false},
              {0x88780064u, kFailureCode_RuntimeError_Open, true},
              {0x88780078u, kFailureCode_RuntimeError_Open, true},
              {0x88780082u, kFailureCode_RuntimeError, true},
              {0x88780096u, kFailureCode_RuntimeError_NotReady, true},
              {0x887800A0u, kFailureCode_RuntimeError_Open, true},
              {0x887800AAu, kFailureCode_LogicError_InvalidArgument, false},
              {0x887800B4u, kFailureCode_RuntimeError_Open, true},
              {0x887800BEu, kFailureCode_RuntimeError_Open, true},
              {0x887800C8u, kFailureCode_RuntimeError_Open, true},
              {0x887800D2u, kFailureCode_RuntimeError_Open, true},
              {0x887800DCu, kFailureCode_RuntimeError_Open, true},
              {0x88781161u, kFailureCode_RuntimeError_Open, true},
              {0x80000000u, kFailureCode_RuntimeError_Open, true}};
  for (const auto& row : rows) {
    const auto failure = FailureOf([&] { ThrowOnDirectSoundResult(static_cast<HResult>(row.result)); });
    EXPECT_EQ(failure.first, row.code) << std::hex << row.result;
    EXPECT_EQ(failure.second, row.word) << std::hex << row.result;
  }
  // Every success is one, the informational codes too: what the call made
  // is handed out and kept.
  for (uint32_t success : {0u, 1u, 0x0878000Au, 0x7FFFFFFFu}) {
    EXPECT_EQ(FailureOf([&] { ThrowOnDirectSoundResult(static_cast<HResult>(success)); }).first,
              0u)
        << std::hex << success;
  }
}

TEST_F(DirectSoundTest, DisplayNamesAreCleanedByTheirOddRules) {
  const struct {
    const char16_t* description;
    const char16_t* shown;
  } rows[] = {{u"DirectX Sound", u"Sound"},
              {u"DirectSound DirectX Sound", u"DirectX Sound"},
              {u"(Foo)", u"(Foo)"},
              {u"(Foo)x", u"Foo"},
              {u"DirectSound (Foo)x", u"Foo"},
              {u"DirectSound ", u"DirectSound "},
              {u"DirectX ", u"DirectX "},
              {u"My DirectSound Card", u"My DirectSound Card"},
              {u"Primary Sound Driver", u"Primary Sound Driver"},
              {u"", u""}};
  for (const auto& row : rows) EXPECT_EQ(CleanDisplayName(row.description), row.shown);
  CWideString text = u"(a)b)c";
  EXPECT_FALSE(StripTrailingText(text, u")"));  // the first ")" decides
  text = u"ab";
  EXPECT_FALSE(StripLeadingText(text, u""));
}

TEST_F(DirectSoundTest, KeysComeFromTheGuidWithFixedWidths) {
  const SGuid guid = {0x0000ABCDu, 0x0001, 0x00F0, {0, 1, 2, 3, 0x0A, 0x0B, 0x0C, 0xFD}};
  EXPECT_EQ(MakeDirectSoundDriverName(&guid),
            u"Ferrand DirectSound 0000abcd-000100f0-00010203-0a0b0cfd");
  EXPECT_EQ(MakeDirectSoundDriverName(&guid), MakeDirectSoundDriverName(&guid));
  EXPECT_EQ(MakeDirectSoundDriverName(nullptr), u"Ferrand Default DirectSound Sound Output Driver");
}

TEST_F(DirectSoundTest, TheDefaultDeviceIsListedByItsCleanedDescription) {
  api.devices[0].description = u"DirectSound Primary";
  Fakes::SFakeDSDevice other;
  other.guid = {0x12345678u, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};
  other.description = u"DirectX (Card)x";
  api.devices.push_back(other);
  MakeFamily();
  const auto listed = Listed();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].key, u"Ferrand Default DirectSound Sound Output Driver");
  EXPECT_EQ(listed[0].name, u"Primary");
  EXPECT_EQ(listed[1].key, u"Ferrand DirectSound 12345678-9abcdef0-01020304-05060708");
  EXPECT_EQ(listed[1].name, u"Card");
  EXPECT_TRUE(listed[1].version.empty());
  EXPECT_TRUE(listed[1].manufacturer.empty());
  EXPECT_EQ(listed[1].flags[0], 1);
  EXPECT_EQ(listed[1].flags[1], 0);
  EXPECT_EQ(listed[1].flags[2], 0);
  EXPECT_EQ(listed[1].flags[3], 0);
  // Listing holds no device open.
  EXPECT_EQ(api.LiveDevices(), 0);
  family.reset();
  EXPECT_TRUE(Listed().empty());
}

TEST_F(DirectSoundTest, ADirectSoundThatWillNotServeListsNothingAndFailsNothing) {
  api.libraryPresent = false;
  MakeFamily();
  EXPECT_TRUE(Listed().empty());
  family.reset();
  api.libraryPresent = true;
  api.Fail(Fakes::kDSEnumerate, static_cast<HResult>(0x80004005u), 1);
  MakeFamily();
  EXPECT_TRUE(Listed().empty());
}

TEST_F(DirectSoundTest, OnlyTheCaptureEnumerationMayBeMissing) {
  api.missingEntries = {"DirectSoundCaptureEnumerateW"};
  MakeFamily();
  EXPECT_EQ(Listed().size(), 1u);
  for (const char* entry : {"DirectSoundCaptureCreate", "DirectSoundCreate", "DirectSoundEnumerateW"}) {
    family.reset();
    api.missingEntries = {entry};
    MakeFamily();
    EXPECT_TRUE(Listed().empty()) << entry;
  }
}

TEST_F(DirectSoundTest, DevicesThatCannotServeAreLeftOutSilently) {
  api.devices[0].inUse = true;
  const uint32_t flags[] = {kCapsPrimary16Bit | kCapsPrimaryStereo | kCapsEmulatedDriver,
                            kCapsPrimaryStereo, kCapsPrimary16Bit,
                            kCapsPrimary16Bit | kCapsPrimaryStereo | kCapsContinuousRate};
  uint8_t n = 1;
  for (uint32_t caps : flags) {
    Fakes::SFakeDSDevice device;
    device.guid = {n, 0, 0, {0, 0, 0, 0, 0, 0, 0, n}};
    device.capsFlags = caps;
    device.description = u"Device " + std::u16string(1, static_cast<char16_t>(u'0' + n));
    api.devices.push_back(device);
    ++n;
  }
  MakeFamily();
  const auto listed = Listed();
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].name, u"Device 4");
  EXPECT_EQ(api.LiveDevices(), 0);
}

TEST_F(DirectSoundTest, OneFailingDeviceNeverHidesTheOthers) {
  Fakes::SFakeDSDevice second;
  second.guid = {2, 0, 0, {0}};
  second.description = u"Second";
  api.devices.push_back(second);
  api.Fail(Fakes::kDSGetCaps, static_cast<HResult>(0x80004005u), 1);
  MakeFamily();
  const auto listed = Listed();
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].name, u"Second");
  EXPECT_EQ(api.LiveDevices(), 0);
}

TEST_F(DirectSoundTest, PumpArithmetic) {
  for (int32_t room = 128; room <= 191; ++room) EXPECT_EQ(WritableRoom(room, 0), 0) << room;
  EXPECT_EQ(WritableRoom(192, 0), 64);
  EXPECT_EQ(WritableRoom(256, 0), 256);
  EXPECT_EQ(WritableRoom(4096, 4096), 0);
  EXPECT_EQ(WritableRoom(256, 300), 0);
  EXPECT_EQ(WritableRoom(4096, 0), 4096);
  EXPECT_EQ(MinimumWrite(8192), 64);
  EXPECT_EQ(MinimumWrite(65536), 256);
  EXPECT_EQ(CursorDelta(10, 16380), 14);
  EXPECT_EQ(CursorDelta(100, 40), 60);
  EXPECT_EQ(CursorFrames(65536), 0);
  EXPECT_EQ(CursorFrames(65532), 16383);
  EXPECT_EQ(DirectSoundFramesFor(0), 256u);
  EXPECT_EQ(DirectSoundFramesFor(300), 320u);
  EXPECT_EQ(DirectSoundFramesFor(0xFFFFFFFFu), 8192u);
  EXPECT_EQ(DirectSoundFramesFor(4096), 4096u);
}

TEST_F(DirectSoundTest, ThePumpSleepsUntilAQuarterOfItsTargetIsDue) {
  EXPECT_EQ(WriteQuantum(256), 64);
  EXPECT_EQ(WriteQuantum(320), 64);
  EXPECT_EQ(WriteQuantum(1024), 256);
  EXPECT_EQ(WriteQuantum(8192), 2048);
  // Full: a quarter of the target is due, but never later than that.
  EXPECT_EQ(PumpWaitMs(1024, 1024, 48000), 5u);
  EXPECT_EQ(PumpWaitMs(8192, 8192, 44100), 46u);
  // Partly played: the rest of the quantum, rounded up.
  EXPECT_EQ(PumpWaitMs(1024, 900, 48000), 3u);
  // A quantum of room already: the next look comes at once, in 1 ms.
  EXPECT_EQ(PumpWaitMs(1024, 700, 48000), 1u);
  EXPECT_EQ(PumpWaitMs(1024, -50, 48000), 1u);
  // Small targets at high rates wait the shortest the clock keeps.
  EXPECT_EQ(PumpWaitMs(256, 256, 192000), 1u);
}

TEST_F(DirectSoundTest, ThePumpLooksAtTheCursorOnlyWhenAWriteCanBeDue) {
  api.realTime = true;
  const CSoundDriverSettings settings = Settings(48000, 1024);
  auto open = Open(&settings);
  ASSERT_TRUE(WaitForWrites(2));
  const uint64_t looks = api.Calls(Fakes::kDSGetPosition);
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  // A look every 1 ms would be one a millisecond; a quarter of 1024 frames
  // at 48000 Hz is 5 ms. A busy machine looks less often, never more.
  EXPECT_LE(static_cast<double>(api.Calls(Fakes::kDSGetPosition) - looks), ms * 0.4);
  EXPECT_FALSE(open->Failed());
}

TEST_F(DirectSoundTest, AFailureOnTheStreamingThreadOnlySetsTheFlag) {
  RealtimeWatch::Install();
  for (Fakes::EDSCall call : {Fakes::kDSGetPosition, Fakes::kDSLock, Fakes::kDSUnlock}) {
    const CSoundDriverSettings settings = Settings(48000, 1024);
    auto open = Open(&settings);
    ASSERT_TRUE(WaitForWrites(1));
    // The thread's allocations as it waits for a period, before and after.
    uint64_t periods = RealtimeWatch::PeriodWaitsBegun();
    ASSERT_TRUE(WaitFor([&] { return RealtimeWatch::PeriodWaitsBegun() > periods + 1; }));
    const uint64_t before = RealtimeWatch::AllocationsAtLatestPeriodWait();
    api.Fail(call, static_cast<HResult>(0x88780078u), 1);
    api.Advance(512);
    ASSERT_TRUE(WaitFor([&] { return open->Failed(); })) << call;
    periods = RealtimeWatch::PeriodWaitsBegun();
    ASSERT_TRUE(WaitFor([&] { return RealtimeWatch::PeriodWaitsBegun() > periods + 1; }));
    EXPECT_EQ(RealtimeWatch::AllocationsAtLatestPeriodWait(), before) << call;
    EXPECT_EQ(FailureOf([&] { open->CheckAlive(); }).first,
              static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_NotReady));
    open.reset();
    family.reset();
  }
}

TEST_F(DirectSoundTest, ATargetOf256WritesByTheMask) {
  const CSoundDriverSettings settings = Settings(48000, 256);
  auto open = Open(&settings);
  ASSERT_TRUE(WaitForWrites(1));
  EXPECT_EQ(api.Writes(), std::vector<uint32_t>{256});
  api.Advance(64);  // room 64
  ASSERT_TRUE(WaitForWrites(2));
  api.Advance(256);  // room 256
  ASSERT_TRUE(WaitForWrites(3));
  api.Advance(128);  // room 128: masked to nothing
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(api.Writes().size(), 3u);
  api.Advance(64);  // room 192: 64
  ASSERT_TRUE(WaitForWrites(4));
  EXPECT_EQ(api.Writes(), (std::vector<uint32_t>{256, 64, 256, 64}));
  EXPECT_EQ(renderer.lastFrames.load(), 64u);
  EXPECT_EQ(renderer.inputCount.load(), 0u);
  // What the renderer gave is in the ring, interleaved, left first.
  ASSERT_TRUE(WaitFor([&] { return api.Calls(Fakes::kDSUnlock) >= 5; }));
  EXPECT_EQ(api.RingFrame(0), std::make_pair(int16_t{16383}, int16_t{-8191}));
}

TEST_F(DirectSoundTest, TheCursorWrapsAcrossTheRingEnd) {
  // 8000 frames a step: the third block runs over the ring's end in two
  // regions, and the cursor passes the end while it is played.
  const CSoundDriverSettings settings = Settings(48000, 8192);
  auto open = Open(&settings);
  ASSERT_TRUE(WaitForWrites(1));
  EXPECT_EQ(api.Writes()[0], 8192u);
  // The end of the ring reads as its start: no frame played.
  api.SetCursorBytes(65536);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(api.Writes().size(), 1u);
  api.SetCursorBytes(0);
  api.Advance(8000);
  ASSERT_TRUE(WaitForWrites(2));
  EXPECT_EQ(api.Writes()[1], 8000u);
  const int16_t former = api.RingFrame(8191).first;
  renderer.left = 0.75f;
  api.Advance(8000);  // the cursor: from frame 16000 over the end to 7616
  ASSERT_TRUE(WaitForWrites(3));
  EXPECT_EQ(api.Writes()[2], 8000u);
  // Both regions of the block hold it: 192 frames at the end, 7808 from 0.
  const int16_t fresh = api.RingFrame(16383).first;
  EXPECT_NE(fresh, former);
  EXPECT_EQ(api.RingFrame(16192).first, fresh);
  EXPECT_EQ(api.RingFrame(0).first, fresh);
  EXPECT_EQ(api.RingFrame(7807).first, fresh);
  EXPECT_EQ(api.RingFrame(7808).first, former);
  EXPECT_EQ(api.RingFrame(16191).first, former);
  api.Advance(8000);
  ASSERT_TRUE(WaitForWrites(4));
  EXPECT_EQ(api.Writes()[3], 8000u);
  EXPECT_EQ(open->UnderrunCount(), 0u);
}

// The stream is set up as a priority client of the host's window, on a
// primary buffer of its own, and the ring starts silent beyond its first block.
TEST_F(DirectSoundTest, TheStreamIsSetUpOnThePrimaryAndStartsSilent) {
  const CSoundDriverSettings settings = Settings(48000, 256);
  auto open = Open(&settings);
  ASSERT_TRUE(WaitForWrites(1));
  EXPECT_EQ(api.CooperativeWindow(), static_cast<const void*>(&kSomeWindow));
  EXPECT_EQ(api.CooperativeLevel(), kCooperativePriority);
  const std::vector<uint32_t> flags = api.BufferFlagsAsked();
  ASSERT_GE(flags.size(), 2u);
  EXPECT_EQ(flags[flags.size() - 2], kBufferPrimary | kBufferGetCurrentPosition2);
  EXPECT_EQ(flags.back(), kBufferStatic | kBufferGlobalFocus | kBufferGetCurrentPosition2);
  // The fake's ring starts as 0x5A bytes: silence was written over all of it.
  EXPECT_EQ(api.RingFrame(256), std::make_pair(int16_t{0}, int16_t{0}));
  EXPECT_EQ(api.RingFrame(16383), std::make_pair(int16_t{0}, int16_t{0}));
  EXPECT_NE(api.RingFrame(0).first, 0);
}
TEST_F(DirectSoundTest, TheSameRateAnotherSizeChangesNoDeviceState) {
  auto open = Open();
  const uint64_t buffers = api.Calls(Fakes::kDSCreateBuffer);
  ASSERT_TRUE(open->TakeSettingsChanged());
  EXPECT_EQ(open->GetOutputLatency(), int64_t{4096} * 1000000 / 44100);
  open->ApplySettings(Settings(44100, 1024));
  EXPECT_EQ(open->GetOutputLatency(), int64_t{1024} * 1000000 / 44100);
  open->ApplySettings(Settings(44100, 2048));
  EXPECT_EQ(api.Calls(Fakes::kDSCreateBuffer), buffers);
  EXPECT_TRUE(open->TakeSettingsChanged());
  EXPECT_FALSE(open->TakeSettingsChanged());
  CSoundDriverSettings settings;
  open->GetSettings(settings);
  EXPECT_EQ(settings.bufferFrames, 2048u);
  EXPECT_EQ(settings.outputPairs.Count(), 1u);
  EXPECT_EQ(settings.inputPairs.Count(), 0u);
  // Another rate reopens; the device object of the first open stays behind.
  open->ApplySettings(Settings(96000, 2048));
  open->GetSettings(settings);
  EXPECT_EQ(settings.sampleRate, 96000u);
  EXPECT_EQ(api.LiveDevices(), 2);
  open.reset();
  EXPECT_EQ(api.LiveBuffers(), 0);
}

TEST_F(DirectSoundTest, RatesTheDeviceChangesAreDroppedAndDefaultsTakeTheNearest) {
  api.devices[0].changes[44100] = 48000;
  api.devices[0].rates = {44100, 48000, 96000};
  auto open = Open();
  EXPECT_EQ(open->SupportedRates(), (std::vector<uint32_t>{48000, 96000}));
  CSoundDriverSettings settings;
  open->GetSettings(settings);
  EXPECT_EQ(settings.sampleRate, 48000u);
  EXPECT_EQ(settings.bufferFrames, 4096u);
  NSFerrand::COpenSoundDriverInfo info;
  open->GetDriverInfo(info);
  EXPECT_EQ(info.bufferSizes.size(), 125u);
  EXPECT_EQ(info.bufferSizes.front(), 256u);
  EXPECT_EQ(info.bufferSizes.back(), 8192u);
  EXPECT_EQ(info.outputNames, (std::vector<CWideString>{u"Left", u"Right"}));
  EXPECT_TRUE(info.inputNames.empty());
  EXPECT_EQ(info.clockSourceNames, std::vector<CWideString>{u"Internal"});
}

TEST_F(DirectSoundTest, AContinuousRateDeviceOffersItsRange) {
  api.devices[0].capsFlags |= kCapsContinuousRate;
  api.devices[0].minRate = 48000;
  api.devices[0].maxRate = 96000;
  auto open = Open();
  EXPECT_EQ(open->SupportedRates(), (std::vector<uint32_t>{48000, 88200, 96000}));
}

TEST_F(DirectSoundTest, AnInUseDeviceHasNoRatesAndDoesNotOpen) {
  MakeFamily();
  NSFerrand::CRegisteredDriverPtr driver = First();
  api.devices[0].inUse = true;
  const uint64_t creates = api.Calls(Fakes::kDSCreate);
  EXPECT_EQ(FailureOf([&] { delete driver->OpenWithDefaults(&renderer, nullptr); }),
            std::make_pair(static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open), true));
  // The trial asked for the device once and stopped there: no rate was tried.
  EXPECT_EQ(api.Calls(Fakes::kDSCreate), creates + 1);
  EXPECT_EQ(api.Calls(Fakes::kDSSetFormat), 0u);
  EXPECT_EQ(api.LiveDevices(), 0);
  // A device failure that would raise another class is swallowed the same
  // way: the driver has no rates, and that is what stops it.
  api.devices[0].inUse = false;
  api.Fail(Fakes::kDSCreate, static_cast<HResult>(0x80004005u), 1);
  EXPECT_EQ(FailureOf([&] { delete driver->OpenWithDefaults(&renderer, nullptr); }),
            std::make_pair(static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open), true));
  EXPECT_EQ(api.Calls(Fakes::kDSCreate), creates + 2);
}
TEST_F(DirectSoundTest, OnlyDeviceFailuresAreSwallowedInTheRateTrial) {
  MakeFamily();
  NSFerrand::CRegisteredDriverPtr driver = First();
  // Out of memory and a bad argument are no device in use: they pass on.
  api.Fail(Fakes::kDSGetCaps, static_cast<HResult>(0x8007000Eu), 1);
  EXPECT_EQ(FailureOf([&] { delete driver->OpenWithDefaults(&renderer, nullptr); }).first,
            static_cast<uint32_t>(NSMarlet::kFailureCode_BadAlloc));
  api.Fail(Fakes::kDSCooperativeLevel, static_cast<HResult>(0x88780046u), 1);
  EXPECT_EQ(FailureOf([&] { delete driver->OpenWithDefaults(&renderer, nullptr); }).first,
            static_cast<uint32_t>(NSMarlet::kFailureCode_LogicError_InvalidArgument));
  // A refused format read drops that one rate and no more.
  api.Fail(Fakes::kDSGetFormat, static_cast<HResult>(0x80004005u), 1);
  auto open = std::unique_ptr<COpenDirectSoundDriver>(
      static_cast<COpenDirectSoundDriver*>(driver->OpenWithDefaults(&renderer, nullptr)));
  EXPECT_EQ(open->SupportedRates(), (std::vector<uint32_t>{48000, 88200, 96000, 192000}));
  EXPECT_EQ(api.LiveBuffers(), 2);  // the stream's primary and secondary
  open.reset();
  // A device failure is swallowed in the trial: no rates, so no open. Not
  // swallowed, this generic failure would raise a plain runtime failure.
  api.Fail(Fakes::kDSCreateBuffer, static_cast<HResult>(0x80004005u), 1);
  EXPECT_EQ(FailureOf([&] { delete driver->OpenWithDefaults(&renderer, nullptr); }),
            std::make_pair(static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open), true));
  EXPECT_EQ(api.LiveBuffers(), 0);
  // The same failure outside the trial is the driver's, and passes on as it is.
  auto again = std::unique_ptr<NSFerrand::CABCOpenSoundDriver>(
      driver->OpenWithDefaults(&renderer, nullptr));
  api.Fail(Fakes::kDSCreateBuffer, static_cast<HResult>(0x80004005u), 1);
  EXPECT_EQ(FailureOf([&] { again->ApplySettings(Settings(96000, 1024)); }),
            std::make_pair(static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError), true));
}

TEST_F(DirectSoundTest, AGlobalFocusRefusalIsRetriedWithout) {
  {
    auto open = Open();
    ASSERT_TRUE(WaitForWrites(1));
    // Asked with global focus, and given it: one secondary buffer.
    const std::vector<uint32_t> flags = api.BufferFlagsAsked();
    EXPECT_EQ(flags.back(), kBufferStatic | kBufferGlobalFocus | kBufferGetCurrentPosition2);
    EXPECT_EQ(flags[flags.size() - 2] & kBufferPrimary, kBufferPrimary);
  }
  api.refuseGlobalFocus = true;
  auto open = Open();
  const std::vector<uint32_t> flags = api.BufferFlagsAsked();
  ASSERT_GE(flags.size(), 2u);
  EXPECT_EQ(flags[flags.size() - 2], kBufferStatic | kBufferGlobalFocus | kBufferGetCurrentPosition2);
  EXPECT_EQ(flags.back(), kBufferStatic | kBufferGetCurrentPosition2);
  ASSERT_TRUE(WaitForWrites(1));
}
TEST_F(DirectSoundTest, EveryCallThatFailsAtOpeningLeavesNothingBehind) {
  const Fakes::EDSCall calls[] = {Fakes::kDSCreate, Fakes::kDSCooperativeLevel,
                                  Fakes::kDSCreateBuffer, Fakes::kDSGetCaps, Fakes::kDSLock,
                                  Fakes::kDSUnlock, Fakes::kDSPlay};
  MakeFamily();
  NSFerrand::CRegisteredDriverPtr driver = First();
  for (Fakes::EDSCall call : calls) {
    api.Fail(call, static_cast<HResult>(0x80004005u));
    EXPECT_NE(FailureOf([&] { delete driver->OpenWithDefaults(&renderer, nullptr); }).first, 0u)
        << call;
    api.Fail(call, 0, 0);
    EXPECT_EQ(api.LiveDevices(), 0) << call;
    EXPECT_EQ(api.LiveBuffers(), 0) << call;
  }
  // The second open of a rate change fails: the driver is gone, nothing
  // hangs, and its next check finds it lost.
  auto open = std::unique_ptr<COpenDirectSoundDriver>(
      static_cast<COpenDirectSoundDriver*>(driver->OpenWithDefaults(&renderer, nullptr)));
  EXPECT_FALSE(open->Failed());
  api.Fail(Fakes::kDSPlay, static_cast<HResult>(0x80004005u), 1);
  EXPECT_NE(FailureOf([&] { open->ApplySettings(Settings(96000, 1024)); }).first, 0u);
  EXPECT_TRUE(open->Failed());
  EXPECT_EQ(FailureOf([&] { open->CheckAlive(); }),
            std::make_pair(static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_NotReady),
                           true));
  EXPECT_EQ(api.LiveBuffers(), 0);
}

TEST_F(DirectSoundTest, ALostBufferIsRestoredAndBlocksGoOn) {
  const CSoundDriverSettings settings = Settings(48000, 256);
  auto open = Open(&settings);
  ASSERT_TRUE(WaitForWrites(1));
  api.LoseBuffer(3);
  const uint64_t calls = renderer.calls;
  for (int i = 0; i < 5; ++i) {
    api.Advance(256);
    ASSERT_TRUE(WaitFor([&] { return renderer.calls.load() > calls + static_cast<uint64_t>(i); }));
  }
  ASSERT_TRUE(WaitFor([&] { return !open->BufferLost(); }));
  EXPECT_FALSE(open->Failed());
  open->CheckAlive();
}

TEST_F(DirectSoundTest, ABufferLostForGoodFailsTheDriver) {
  const CSoundDriverSettings settings = Settings(48000, 256);
  auto open = Open(&settings);
  ASSERT_TRUE(WaitForWrites(1));
  api.LoseBuffer(-1);
  ASSERT_TRUE(WaitFor([&] {
    api.Advance(64);
    return open->Failed();
  }, 20000));
  EXPECT_TRUE(open->BufferLost());
  EXPECT_EQ(FailureOf([&] { open->CheckAlive(); }).first,
            static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_NotReady));
}

TEST_F(DirectSoundTest, ARenderThatRaisesFailsTheDriver) {
  auto open = Open();
  ASSERT_TRUE(WaitForWrites(1));
  renderer.raiseNext = true;
  api.Advance(1024);
  ASSERT_TRUE(WaitFor([&] { return open->Failed(); }));
  EXPECT_EQ(FailureOf([&] { open->CheckAlive(); }),
            std::make_pair(static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_NotReady),
                           true));
  const uint64_t calls = renderer.calls;
  api.Advance(1024);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(renderer.calls.load(), calls);
}

TEST_F(DirectSoundTest, TheCursorFailingFailsTheDriver) {
  auto open = Open();
  api.Fail(Fakes::kDSGetPosition, static_cast<HResult>(0x88780078u));
  ASSERT_TRUE(WaitFor([&] { return open->Failed(); }));
}

TEST_F(DirectSoundTest, ThePumpNeitherAllocatesNorWaitsAtRealTimePace) {
  api.realTime = true;
  const CSoundDriverSettings settings = Settings(48000, 512);
  auto open = Open(&settings);
  ASSERT_TRUE(WaitFor([&] { return renderer.watch.Watched() > 100; }, 20000));
  EXPECT_EQ(renderer.watch.Allocations(), 0u);
  EXPECT_EQ(renderer.watch.BlockingWaits(), 0u);
  EXPECT_FALSE(open->Failed());
}

}  // namespace
