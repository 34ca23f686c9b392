#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <thread>

#include "driver/kernels.h"
#include "driver/registry.h"
#include "driver/wait.h"
#include "failure/builder.h"
#include "failure/exceptions.h"
#include "fakes/fake_wasapi.h"
#include "platform/clock.h"
#include "platform/threads.h"
#include "support/allocation_counter.h"
#include "support/realtime_watch.h"
#include "support/storage_fixture.h"
#include "wasapi/wasapi_driver.h"
#include "wasapi/wasapi_family.h"

using namespace NSWasapi;
using NSFerrand::CRegisteredSoundDriverInfo;
using NSFerrand::CSoundDriverSettings;

namespace {

// Writes a known value per channel, records the times it is given, and
// watches its thread between two calls.
class ToneRenderer final : public NSFerrand::MSoundRenderer {
 public:
  uint32_t Render(uint32_t frames, const NSFerrand::CChannelPointers& inputs,
                  NSFerrand::CChannelPointers& outputs, uint64_t, uint64_t,
                  uint64_t outputSystemTime, uint64_t outputSamplePosition) override {
    watch.OnRender();
    inputCount = inputs.size();
    outputCount = outputs.size();
    for (size_t c = 0; c < outputs.size(); ++c) {
      for (uint32_t f = 0; f < frames; ++f) {
        outputs[c][f] = c == 0 ? left : c == 1 ? right : 0.0f;
      }
    }
    lastFrames = frames;
    if (positions.size() < positions.capacity()) {
      std::lock_guard<std::mutex> hold(mutex);
      positions.push_back(outputSamplePosition);
      times.push_back(outputSystemTime);
    }
    ++calls;
    if (raiseNext.exchange(false)) throw std::runtime_error("render");
    return 0;
  }
  ToneRenderer() {
    positions.reserve(4096);
    times.reserve(4096);
  }
  float left = 0.5f;
  float right = -0.25f;
  std::atomic<uint64_t> calls{0};
  std::atomic<uint32_t> lastFrames{0};
  std::atomic<size_t> inputCount{9};
  std::atomic<size_t> outputCount{0};
  CRealtimeWatch watch;
  std::atomic<bool> raiseNext{false};
  std::mutex mutex;
  std::vector<uint64_t> positions;
  std::vector<uint64_t> times;
};

class WasapiTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    registry.reset(new NSFerrand::CRegistryRef());
  }
  void TearDown() override {
    registry.reset();
    StorageTest::TearDown();
  }
  // The WASAPI drivers in the registry, key to name.
  std::map<std::u16string, std::u16string> Registered() {
    NSFerrand::CRegisteredDriverList drivers;
    NSFerrand::GetRegisteredDrivers(drivers);
    std::map<std::u16string, std::u16string> found;
    for (const auto& driver : drivers) {
      CRegisteredSoundDriverInfo info;
      driver->GetInfo(info);
      if (info.family == u"WASAPI") found[info.key] = info.name;
    }
    return found;
  }
  std::unique_ptr<COpenWasapiSoundDriver> Open(EShareMode mode,
                                               const CSoundDriverSettings* settings = nullptr) {
    registered.reset(new CWasapiRegisteredSoundDriver(fake, Endpoint(), mode));
    return std::unique_ptr<COpenWasapiSoundDriver>(
        new COpenWasapiSoundDriver(*registered, &renderer, settings));
  }
  SEndpoint Endpoint() const { return {fake.endpoints[0].id, fake.endpoints[0].name}; }
  static CSoundDriverSettings Settings(uint32_t rate, uint32_t frames) {
    CSoundDriverSettings s;
    s.sampleRate = rate;
    s.bufferFrames = frames;
    s.outputPairs = NSFerrand::CChannelBitVector(1);
    s.outputPairs.Set(0, true);
    return s;
  }
  // Sixty blocks from the stream's own thread, one after the other, with
  // times that never go back, neither allocating nor waiting; then closed.
  void ExpectPlayedAtPace(std::unique_ptr<COpenWasapiSoundDriver> driver, uint64_t block) {
    ASSERT_TRUE(WaitFor([&] { return renderer.watch.Watched() >= 60; }));
    driver.reset();
    EXPECT_EQ(renderer.watch.Allocations(), 0u);
    EXPECT_EQ(renderer.watch.BlockingWaits(), 0u);
    std::lock_guard<std::mutex> hold(renderer.mutex);
    for (size_t i = 1; i < renderer.positions.size(); ++i) {
      EXPECT_EQ(renderer.positions[i], renderer.positions[i - 1] + block);
      EXPECT_GE(renderer.times[i], renderer.times[i - 1]);
    }
    EXPECT_EQ(fake.LiveClients(), 0);
  }
  // The pump alone, as a test drives it.
  void Still() {
    fake.ticking = false;
    fake.realTime = false;
  }

  std::unique_ptr<NSFerrand::CRegistryRef> registry;
  Fakes::CFakeWasapi fake;
  ToneRenderer renderer;
  std::unique_ptr<CWasapiRegisteredSoundDriver> registered;
};

TEST_F(WasapiTest, EachEndpointIsListedSharedAndExclusiveWithItsKeys) {
  Fakes::SFakeEndpoint second;
  second.id = u"{0.0.0.00000000}.{second}";
  second.name = u"Headphones";
  fake.endpoints.push_back(second);
  CWasapiFamilyScope scope(fake);
  const std::map<std::u16string, std::u16string> expected = {
      {u"Ferrand WASAPI Default output", u"Default output"},
      {u"Ferrand WASAPI Shared {0.0.0.00000000}.{fake-endpoint-1}", u"Fake Speakers"},
      {u"Ferrand WASAPI Exclusive {0.0.0.00000000}.{fake-endpoint-1}",
       u"Fake Speakers (exclusive)"},
      {u"Ferrand WASAPI Shared {0.0.0.00000000}.{second}", u"Headphones"},
      {u"Ferrand WASAPI Exclusive {0.0.0.00000000}.{second}", u"Headphones (exclusive)"}};
  EXPECT_EQ(Registered(), expected);
  CWasapiRegisteredSoundDriver driver(fake, Endpoint(), kShareModeExclusive);
  CRegisteredSoundDriverInfo info;
  driver.GetInfo(info);
  EXPECT_EQ(info.family, u"WASAPI");
  EXPECT_TRUE(info.version.empty());
  EXPECT_TRUE(info.manufacturer.empty());
  EXPECT_EQ(info.flags[0], 1);
  EXPECT_EQ(info.flags[1], 0);
  EXPECT_EQ(info.flags[2], 0);
  EXPECT_EQ(info.flags[3], 0);
  // Listing opened no client.
  EXPECT_EQ(fake.Calls(Fakes::kWasActivate), 0u);
}

TEST_F(WasapiTest, TheFamilyAndItsDriversDoTheirCOMWorkOnAThreadOfTheirOwn) {
  {
    CWasapiFamilyScope scope(fake);
    NSFerrand::CRegisteredDriverList drivers;
    NSFerrand::GetRegisteredDrivers(drivers);
    size_t opened = 0;
    for (const auto& driver : drivers) {
      CRegisteredSoundDriverInfo info;
      driver->GetInfo(info);
      if (info.family != u"WASAPI") continue;
      std::unique_ptr<NSFerrand::CABCOpenSoundDriver> open(
          driver->OpenWithDefaults(&renderer, nullptr));
      ASSERT_TRUE(WaitFor([&] { return renderer.calls.load() > 0; }));
      CSoundDriverSettings settings;
      open->GetSettings(settings);
      settings.bufferFrames = settings.bufferFrames == 128 ? 256 : 128;
      open->ApplySettings(settings);
      NSFerrand::COpenSoundDriverInfo about;
      open->GetDriverInfo(about);
      EXPECT_GT(open->GetOutputLatency(), 0);
      open->CheckAlive();
      ++opened;
    }
    // "Default output", shared and exclusive.
    EXPECT_EQ(opened, 3u);
    fake.NotifyFromAnotherThread();
    scope.RefreshIfChanged();
    EXPECT_GT(fake.Calls(Fakes::kWasCoInitialize), 0u);
  }
  // Neither listing, opening, setting, asking nor closing touched COM, or
  // the engine, on this thread; what was brought up elsewhere is put down.
  EXPECT_FALSE(fake.CalledOn(std::this_thread::get_id()));
  EXPECT_GT(fake.Calls(Fakes::kWasActivate), 0u);
  EXPECT_EQ(fake.ComBalance(), 0);
  EXPECT_EQ(fake.LiveClients(), 0);
}

TEST_F(WasapiTest, AnOpenDriverKeepsItsCOMThreadAfterTheFamilyHasGone) {
  // Held as a client holds its driver's entry.
  NSFerrand::CRegisteredDriverList drivers;
  std::unique_ptr<NSFerrand::CABCOpenSoundDriver> open;
  {
    CWasapiFamilyScope scope(fake);
    NSFerrand::GetRegisteredDrivers(drivers);
    for (const auto& driver : drivers) {
      CRegisteredSoundDriverInfo info;
      driver->GetInfo(info);
      if (info.family == u"WASAPI" && info.name == u"Fake Speakers") {
        open.reset(driver->OpenWithDefaults(&renderer, nullptr));
      }
    }
    ASSERT_NE(open, nullptr);
  }
  // The family's thread, and the stream's, once it has begun.
  ASSERT_TRUE(WaitFor([&] { return renderer.calls.load() > 0; }));
  EXPECT_EQ(fake.ComBalance(), 2);
  CSoundDriverSettings settings;
  open->GetSettings(settings);
  settings.bufferFrames = 128;
  open->ApplySettings(settings);
  open->GetSettings(settings);
  EXPECT_EQ(settings.bufferFrames, 128u);
  open.reset();
  EXPECT_EQ(fake.LiveClients(), 0);
  // The last entry held lets the thread go.
  EXPECT_EQ(fake.ComBalance(), 1);
  drivers.clear();
  EXPECT_EQ(fake.ComBalance(), 0);
  EXPECT_FALSE(fake.CalledOn(std::this_thread::get_id()));
}

TEST_F(WasapiTest, DefaultOutputFollowsTheSystemsDefaultAndItsPositionsGoOn) {
  Still();
  Fakes::SFakeEndpoint second;
  second.id = u"{0.0.0.00000000}.{second}";
  second.name = u"Headphones";
  second.mix = StereoFormat(44100, kSampleFloat32);
  second.client3 = false;
  fake.endpoints.push_back(second);
  Fakes::SFakeEndpoint third = second;
  third.id = u"{0.0.0.00000000}.{third}";
  fake.endpoints.push_back(third);
  CWasapiFamilyScope scope(fake);
  NSFerrand::CRegisteredDriverList drivers;
  NSFerrand::GetRegisteredDrivers(drivers);
  NSFerrand::CRegisteredDriverPtr entry;
  for (const auto& driver : drivers) {
    CRegisteredSoundDriverInfo info;
    driver->GetInfo(info);
    if (info.key == u"Ferrand WASAPI Default output") entry = driver;
  }
  ASSERT_NE(entry, nullptr);
  std::unique_ptr<NSFerrand::CABCOpenSoundDriver> open(entry->OpenWithDefaults(&renderer, nullptr));
  auto* driver = static_cast<COpenWasapiSoundDriver*>(open.get());
  EXPECT_EQ(driver->EndpointId(), fake.endpoints[0].id);
  EXPECT_TRUE(open->TakeSettingsChanged());
  CSoundDriverSettings before;
  open->GetSettings(before);
  EXPECT_EQ(before.sampleRate, 48000u);
  EXPECT_EQ(before.bufferFrames, 480u);
  fake.QueuePaddings({0, 480});
  driver->StreamPump();
  driver->StreamPump();
  const uint64_t rendered = driver->FramesRendered();
  ASSERT_EQ(rendered, 1440u);
  // Another default: the stream moves at the next look, nothing is lost,
  // and the rate and size the host has are kept.
  fake.SetDefault(second.id);
  EXPECT_NO_THROW(open->CheckAlive());
  EXPECT_EQ(driver->EndpointId(), second.id);
  EXPECT_EQ(fake.LastStream().id, second.id);
  EXPECT_EQ(fake.LastStream().format.samplesPerSecond, 48000u);
  EXPECT_FALSE(open->TakeSettingsChanged());
  EXPECT_EQ(fake.LiveClients(), 1);
  fake.QueuePaddings({0});
  driver->StreamPump();
  {
    std::lock_guard<std::mutex> hold(renderer.mutex);
    std::vector<uint64_t> expected;
    for (uint64_t p = 0; p < 1440 + 960; p += 480) expected.push_back(p);
    EXPECT_EQ(renderer.positions, expected);
  }
  // The default's device goes and the system picks the first again.
  fake.Remove(second.id);
  driver->StreamPump();
  EXPECT_TRUE(driver->Failed());
  fake.SetDefault(u"");
  EXPECT_NO_THROW(open->CheckAlive());
  EXPECT_EQ(driver->EndpointId(), fake.endpoints[0].id);
  EXPECT_FALSE(driver->Failed());
  // A new default that cannot be opened: the host hears of the loss, and
  // nothing of the stream stays behind.
  fake.Fail(Fakes::kWasActivate, kHResultFail, 1);
  fake.SetDefault(third.id);
  EXPECT_THROW(open->CheckAlive(), NSMarlet::XNotReady);
  EXPECT_EQ(fake.LiveClients(), 0);
  // The system goes back to the first: the stream follows it again.
  fake.SetDefault(fake.endpoints[0].id);
  EXPECT_NO_THROW(open->CheckAlive());
  EXPECT_EQ(driver->EndpointId(), fake.endpoints[0].id);
  // No device at all: now the host hears of the loss.
  fake.Remove(fake.endpoints[0].id);
  driver->StreamPump();
  EXPECT_THROW(open->CheckAlive(), NSMarlet::XNotReady);
  open.reset();
  EXPECT_EQ(fake.LiveClients(), 0);
}

TEST_F(WasapiTest, WithoutAnEngineOrAListTheFamilyListsNothingAndDoesNotFail) {
  fake.engine = false;
  { CWasapiFamilyScope scope(fake); EXPECT_TRUE(Registered().empty()); }
  fake.engine = true;
  fake.Fail(Fakes::kWasCreateEnumerator, kHResultFail, 1);
  { CWasapiFamilyScope scope(fake); EXPECT_TRUE(Registered().empty()); }
  fake.Fail(Fakes::kWasList, kAudioServiceNotRunning, 1);
  { CWasapiFamilyScope scope(fake); EXPECT_TRUE(Registered().empty()); }
  EXPECT_EQ(fake.ComBalance(), 0);
}

TEST_F(WasapiTest, EndpointChangesAreNotedOnTheirThreadAndRegisteredAtTheRefresh) {
  CWasapiFamilyScope scope(fake);
  NSFerrand::TakeDriverListChanged();
  EXPECT_EQ(Registered().size(), 3u);
  fake.Remove(fake.endpoints[0].id);
  fake.NotifyFromAnotherThread();
  EXPECT_TRUE(scope.ChangePending());
  // Nothing changed in the registry on the notifying thread.
  EXPECT_EQ(Registered().size(), 3u);
  EXPECT_FALSE(NSFerrand::TakeDriverListChanged());
  scope.RefreshIfChanged();
  EXPECT_TRUE(Registered().empty());
  EXPECT_TRUE(NSFerrand::TakeDriverListChanged());
  // A second refresh without news lists nothing again.
  const uint64_t lists = fake.Calls(Fakes::kWasList);
  scope.RefreshIfChanged();
  EXPECT_EQ(fake.Calls(Fakes::kWasList), lists);
}

TEST_F(WasapiTest, SharedModeOffersEveryRateTheEngineConvertingAllButItsOwn) {
  Still();
  const CSoundDriverSettings wanted = Settings(44100, 100);
  auto driver = Open(kShareModeShared, &wanted);
  CSoundDriverSettings kept;
  driver->GetSettings(kept);
  EXPECT_EQ(kept.sampleRate, 44100u);
  EXPECT_EQ(kept.bufferFrames, 128u);
  EXPECT_EQ(kept.outputPairs.Count(), 1u);
  EXPECT_TRUE(driver->TakeSettingsChanged());
  Fakes::SFakeStream stream = fake.LastStream();
  EXPECT_FALSE(stream.initialisedBy3);
  EXPECT_EQ(stream.format.samplesPerSecond, 44100u);
  EXPECT_EQ(stream.format.averageBytesPerSecond, 44100u * 8);
  EXPECT_EQ(stream.flags, kStreamFlagEventCallback | kStreamFlagAutoConvertPcm |
                              kStreamFlagSrcDefaultQuality);
  // The engine's default period, at the stream's rate.
  EXPECT_EQ(stream.periodFrames, 441u);
  EXPECT_EQ(driver->EnginePeriod(), 441u);
  NSFerrand::COpenSoundDriverInfo info;
  driver->GetDriverInfo(info);
  EXPECT_EQ(info.sampleRates, (std::vector<uint32_t>{44100, 48000, 88200, 96000, 192000}));
  EXPECT_EQ(info.bufferSizes, (std::vector<uint32_t>{64, 128, 256, 441, 512, 1024, 2048, 4096}));
  EXPECT_EQ(info.outputNames, (std::vector<std::u16string>{u"Left", u"Right"}));
  // The mix rate keeps the low-latency periods, without conversion.
  driver->ApplySettings(Settings(48000, 128));
  driver->GetSettings(kept);
  EXPECT_EQ(kept.sampleRate, 48000u);
  EXPECT_EQ(kept.bufferFrames, 128u);
  stream = fake.LastStream();
  EXPECT_TRUE(stream.initialisedBy3);
  EXPECT_EQ(stream.periodFrames, 128u);
  EXPECT_EQ(stream.flags, kStreamFlagEventCallback);
  // A rate that is not offered: the nearest, and said so.
  driver->ApplySettings(Settings(100000, 256));
  driver->GetSettings(kept);
  EXPECT_EQ(kept.sampleRate, 96000u);
  EXPECT_EQ(kept.bufferFrames, 256u);
  EXPECT_TRUE(driver->TakeSettingsChanged());
  EXPECT_EQ(fake.LiveClients(), 1);
}

TEST_F(WasapiTest, BlocksThatDoNotDivideThePeriodGoThroughTheCarryWithoutALostFrame) {
  Still();
  fake.endpoints[0].client3 = false;
  // A ramp on the left channel, counting frames from the first.
  struct Ramp final : NSFerrand::MSoundRenderer {
    uint32_t Render(uint32_t frames, const NSFerrand::CChannelPointers&,
                    NSFerrand::CChannelPointers& outputs, uint64_t, uint64_t, uint64_t,
                    uint64_t position) override {
      positions.push_back(position);
      for (uint32_t f = 0; f < frames; ++f) {
        outputs[0][f] = static_cast<float>(position + f);
        outputs[1][f] = 0.0f;
      }
      return 0;
    }
    std::vector<uint64_t> positions;
  } ramp;
  ramp.positions.reserve(64);
  registered.reset(new CWasapiRegisteredSoundDriver(fake, Endpoint(), kShareModeShared));
  const CSoundDriverSettings wanted = Settings(48000, 256);
  std::unique_ptr<COpenWasapiSoundDriver> driver(
      new COpenWasapiSoundDriver(*registered, &ramp, &wanted));
  ASSERT_EQ(driver->EnginePeriod(), 480u);
  ASSERT_EQ(driver->BufferFrames(), 960u);
  // The whole buffer, then a period, then a little, then nothing.
  fake.QueuePaddings({0, 480, 900, 960, 300});
  for (int i = 0; i < 5; ++i) driver->StreamPump();
  EXPECT_FALSE(driver->Failed());
  EXPECT_EQ(fake.Blocks(), (std::vector<uint32_t>{960, 480, 60, 660}));
  EXPECT_EQ(driver->FramesWritten(), 2160u);
  EXPECT_EQ(driver->FramesRendered(), 2304u);
  EXPECT_EQ(driver->CarriedFrames(), 144u);
  EXPECT_EQ(ramp.positions, (std::vector<uint64_t>{0, 256, 512, 768, 1024, 1280, 1536, 1792, 2048}));
  const std::vector<uint8_t> bytes = fake.AllBytes();
  ASSERT_EQ(bytes.size(), 2160u * 8);
  for (uint32_t f = 0; f < 2160; ++f) {
    float left = 0.0f;
    std::memcpy(&left, bytes.data() + f * 8, 4);
    ASSERT_EQ(left, static_cast<float>(f)) << f;
  }
  // The latency counts what waits in the carry: the last block rendered,
  // at 2048, waited behind the clock's 1200.
  EXPECT_EQ(driver->GetOutputLatency(), NSFerrand::LatencyMicroseconds(848, 48000));
}

TEST_F(WasapiTest, AnEngineWithoutTheLowLatencyOperationsUsesItsDefaultPeriod) {
  Still();
  fake.endpoints[0].client3 = false;
  auto driver = Open(kShareModeShared);
  EXPECT_FALSE(fake.LastStream().initialisedBy3);
  EXPECT_EQ(fake.LastStream().duration, 0);
  CSoundDriverSettings kept;
  driver->GetSettings(kept);
  EXPECT_EQ(kept.bufferFrames, 480u);
  NSFerrand::COpenSoundDriverInfo info;
  driver->GetDriverInfo(info);
  EXPECT_EQ(info.bufferSizes, (std::vector<uint32_t>{64, 128, 256, 480, 512, 1024, 2048, 4096}));
}

TEST_F(WasapiTest, ExclusiveRatesAndFormatsAreFoundByTrial) {
  Still();
  const CSoundDriverSettings wanted = Settings(96000, 0);
  auto driver = Open(kShareModeExclusive, &wanted);
  NSFerrand::COpenSoundDriverInfo info;
  driver->GetDriverInfo(info);
  EXPECT_EQ(info.sampleRates, (std::vector<uint32_t>{44100, 48000, 96000}));
  // 44100: five tries; 48000: three; 88200: five; 96000: three; 192000: five.
  EXPECT_EQ(fake.Calls(Fakes::kWasIsFormatSupported), 21u);
  EXPECT_EQ(driver->SampleFormat(), kSampleInt24In32);
  const Fakes::SFakeStream stream = fake.LastStream();
  EXPECT_EQ(stream.mode, kShareModeExclusive);
  EXPECT_EQ(stream.format.samplesPerSecond, 96000u);
  EXPECT_EQ(stream.format.validBitsPerSample, 24);
  EXPECT_EQ(stream.format.bitsPerSample, 32);
  EXPECT_EQ(stream.duration, stream.periodicity);
  // The nearest rate for one it does not take, with its own format.
  driver->ApplySettings(Settings(44000, 0));
  EXPECT_EQ(driver->SampleFormat(), kSampleInt16);
  CSoundDriverSettings kept;
  driver->GetSettings(kept);
  EXPECT_EQ(kept.sampleRate, 44100u);
}

TEST_F(WasapiTest, EachExclusiveFormatGetsTheKernelsBytes) {
  Still();
  const struct {
    ESampleFormat format;
  } cases[] = {{kSampleFloat32}, {kSampleInt32}, {kSampleInt24In32}, {kSampleInt24Packed},
               {kSampleInt16}};
  for (const auto& c : cases) {
    fake.endpoints[0].exclusive = {{48000, c.format}};
    auto driver = Open(kShareModeExclusive);
    ASSERT_EQ(driver->SampleFormat(), c.format);
    driver->StreamPump();
    const uint32_t frames = driver->BufferFrames();
    const std::vector<uint8_t> bytes = fake.LastBytes();
    const float left[1] = {renderer.left};
    const float right[1] = {renderer.right};
    std::vector<uint8_t> expected;
    for (uint32_t f = 0; f < frames; ++f) {
      for (const float* sample : {left, right}) {
        uint8_t unit[4] = {};
        size_t size = 4;
        if (c.format == kSampleFloat32) {
          std::memcpy(unit, sample, 4);
        } else if (c.format == kSampleInt16) {
          int16_t value = 0;
          NSFerrand::FloatToInt16(sample, &value, 1);
          std::memcpy(unit, &value, 2);
          size = 2;
        } else if (c.format == kSampleInt24Packed) {
          int32_t value = 0;
          NSFerrand::FloatToInt32(sample, &value, 1);
          const uint32_t bits = static_cast<uint32_t>(value);
          unit[0] = static_cast<uint8_t>(bits >> 8);
          unit[1] = static_cast<uint8_t>(bits >> 16);
          unit[2] = static_cast<uint8_t>(bits >> 24);
          size = 3;
        } else {
          int32_t value = 0;
          NSFerrand::FloatToInt32(sample, &value, 1);
          if (c.format == kSampleInt24In32) value &= ~0xFF;
          std::memcpy(unit, &value, 4);
        }
        expected.insert(expected.end(), unit, unit + size);
      }
    }
    EXPECT_EQ(bytes, expected) << c.format;
  }
}

TEST_F(WasapiTest, TheDevicesOwnFormatIsTriedFirstAndShapesTheOtherTrials) {
  Still();
  // Six channels at 44100 in packed 24-bit; at 96000 the same shape takes
  // 16-bit.
  Fakes::SFakeEndpoint& device = fake.endpoints[0];
  device.tellsDeviceFormat = true;
  device.deviceFormat = DeviceShapedFormat(44100, kSampleInt24Packed, 6, 0x3F);
  device.deviceChannels = 6;
  device.exclusive = {{96000, kSampleInt16}};
  const CSoundDriverSettings wanted = Settings(44100, 0);
  auto driver = Open(kShareModeExclusive, &wanted);
  NSFerrand::COpenSoundDriverInfo info;
  driver->GetDriverInfo(info);
  EXPECT_EQ(info.sampleRates, (std::vector<uint32_t>{44100, 96000}));
  EXPECT_EQ(driver->SampleFormat(), kSampleInt24Packed);
  EXPECT_EQ(driver->Channels(), 6u);
  Fakes::SFakeStream stream = fake.LastStream();
  EXPECT_EQ(std::memcmp(&stream.format, &device.deviceFormat, sizeof stream.format), 0);
  CSoundDriverSettings kept;
  driver->GetSettings(kept);
  EXPECT_EQ(kept.outputPairs.Count(), 3u);
  EXPECT_EQ(info.outputNames.size(), 6u);
  driver->StreamPump();
  EXPECT_EQ(renderer.outputCount.load(), 6u);
  EXPECT_EQ(fake.LastBytes().size(), size_t{driver->BufferFrames()} * 18);
  // The other rate in the device's shape.
  driver->ApplySettings(Settings(96000, 0));
  stream = fake.LastStream();
  EXPECT_EQ(stream.format.samplesPerSecond, 96000u);
  EXPECT_EQ(stream.format.channels, 6);
  EXPECT_EQ(stream.format.channelMask, 0x3Fu);
  EXPECT_EQ(stream.format.bitsPerSample, 16);
  EXPECT_EQ(driver->SampleFormat(), kSampleInt16);
}

TEST_F(WasapiTest, AnEngineFormatWhoseFramesDoNotAddUpIsNeverPlayed) {
  Still();
  // A mix format whose frame is shorter than its channels' samples.
  fake.endpoints[0].mix.blockAlign = 4;
  EXPECT_THROW(Open(kShareModeShared), NSMarlet::XOpen);
  EXPECT_EQ(fake.LiveClients(), 0);
  // A device format of no channels is passed over for the trials.
  fake.endpoints[0].tellsDeviceFormat = true;
  fake.endpoints[0].deviceFormat.channels = 0;
  auto driver = Open(kShareModeExclusive);
  EXPECT_EQ(driver->Channels(), 2u);
}

TEST_F(WasapiTest, AnUnalignedExclusivePeriodIsAskedForAgainAligned) {
  Still();
  fake.endpoints[0].alignment = 96;
  fake.endpoints[0].exclusive = {{48000, kSampleInt16}};
  const CSoundDriverSettings wanted = Settings(48000, 100);
  auto driver = Open(kShareModeExclusive, &wanted);
  EXPECT_EQ(driver->BufferFrames(), 192u);
  const Fakes::SFakeStream stream = fake.LastStream();
  EXPECT_EQ(stream.bufferFrames, 192u);
  EXPECT_EQ(stream.periodicity, 40000);
  // The trial, the refused try and the aligned one.
  EXPECT_EQ(fake.Calls(Fakes::kWasActivate), 3u);
  EXPECT_EQ(fake.LiveClients(), 1);
}

TEST_F(WasapiTest, ADeviceThatRefusesTheAlignedPeriodTooIsAskedAgainWithItsNextSize) {
  Still();
  fake.endpoints[0].alignment = 96;
  fake.endpoints[0].misalignedTries = 1;
  fake.endpoints[0].exclusive = {{48000, kSampleInt16}};
  const CSoundDriverSettings wanted = Settings(48000, 100);
  auto driver = Open(kShareModeExclusive, &wanted);
  EXPECT_EQ(driver->BufferFrames(), 288u);
  EXPECT_EQ(fake.Calls(Fakes::kWasInitialize), 3u);
  EXPECT_EQ(fake.LiveClients(), 1);
}

TEST_F(WasapiTest, TheAlignedSizeIsOfferedSoThatApplyingTheSettingsInForceChangesNothing) {
  Still();
  fake.endpoints[0].alignment = 96;
  fake.endpoints[0].exclusive = {{48000, kSampleInt16}};
  const CSoundDriverSettings wanted = Settings(48000, 100);
  auto driver = Open(kShareModeExclusive, &wanted);
  ASSERT_EQ(driver->BufferFrames(), 192u);
  NSFerrand::COpenSoundDriverInfo info;
  driver->GetDriverInfo(info);
  EXPECT_NE(std::find(info.bufferSizes.begin(), info.bufferSizes.end(), 192u),
            info.bufferSizes.end());
  EXPECT_TRUE(std::is_sorted(info.bufferSizes.begin(), info.bufferSizes.end()));
  EXPECT_TRUE(driver->TakeSettingsChanged());
  CSoundDriverSettings inForce;
  driver->GetSettings(inForce);
  const uint64_t activations = fake.Calls(Fakes::kWasActivate);
  driver->ApplySettings(inForce);
  EXPECT_FALSE(driver->TakeSettingsChanged());
  EXPECT_EQ(fake.Calls(Fakes::kWasActivate), activations);
}

TEST_F(WasapiTest, TheSmallestExclusivePeriodIsRoundedUpToTheDeviceMinimum) {
  EXPECT_EQ(FramesOfDurationUp(30000, 44100), 133u);
  EXPECT_EQ(FramesOfDuration(30000, 44100), 132u);
  EXPECT_EQ(FramesOfDurationUp(30000, 48000), 144u);
  EXPECT_EQ(FramesOfDurationUp(0, 48000), 0u);
  EXPECT_EQ(DurationOfFrames(133, 44100), 30159);
  EXPECT_EQ(DurationOfFrames(192, 48000), 40000);
  Still();
  fake.endpoints[0].exclusive = {{44100, kSampleInt16}};
  const CSoundDriverSettings wanted = Settings(44100, 1);
  auto driver = Open(kShareModeExclusive, &wanted);
  EXPECT_EQ(driver->BufferFrames(), 133u);
  EXPECT_GE(fake.LastStream().periodicity, fake.endpoints[0].minimumPeriod);
  NSFerrand::COpenSoundDriverInfo info;
  driver->GetDriverInfo(info);
  ASSERT_FALSE(info.bufferSizes.empty());
  EXPECT_EQ(info.bufferSizes.front(), 133u);
}

TEST_F(WasapiTest, APeriodOrSizeTheDeviceRefusesIsAskedForAgainAtItsDefault) {
  Still();
  fake.endpoints[0].exclusive = {{48000, kSampleInt16}};
  for (HResult refusal : {kAudioInvalidDevicePeriod, kAudioBufferSizeError}) {
    fake.Fail(Fakes::kWasInitialize, refusal, 1);
    const CSoundDriverSettings wanted = Settings(48000, 1024);
    auto driver = Open(kShareModeExclusive, &wanted);
    // The device's default period: 10 ms.
    EXPECT_EQ(driver->BufferFrames(), 480u) << std::hex << refusal;
    EXPECT_EQ(fake.LastStream().periodicity, 100000);
    EXPECT_EQ(fake.LiveClients(), 1);
  }
  // Refused at the default as well: the opening fails, and holds nothing.
  fake.Fail(Fakes::kWasInitialize, kAudioBufferSizeError, 2);
  EXPECT_THROW(Open(kShareModeExclusive), std::exception);
  EXPECT_EQ(fake.LiveClients(), 0);
}

TEST_F(WasapiTest, AnExclusiveStreamFillsTheWholeBufferOnEveryEventWhateverThePadding) {
  Still();
  fake.endpoints[0].exclusive = {{48000, kSampleInt16}};
  auto driver = Open(kShareModeExclusive);
  const uint32_t frames = driver->BufferFrames();
  // The engine still counts part of the buffer before as queued.
  fake.fixedPadding = frames / 2;
  driver->StreamPump();
  driver->StreamPump();
  EXPECT_FALSE(driver->Failed());
  // The silence of the opening, then a whole buffer for each event.
  EXPECT_EQ(fake.Blocks(), (std::vector<uint32_t>{frames, frames, frames}));
  std::lock_guard<std::mutex> hold(renderer.mutex);
  EXPECT_EQ(renderer.positions, (std::vector<uint64_t>{0, frames}));
}

TEST_F(WasapiTest, ExclusiveTimesCountTheSilenceBeforeTheHostsFirstFrame) {
  Still();
  fake.clockTime = 1000000;
  fake.endpoints[0].exclusive = {{48000, kSampleInt16}};
  auto driver = Open(kShareModeExclusive);
  const uint32_t frames = driver->BufferFrames();
  // Nothing played yet: the host's first frame sounds after the silence.
  driver->StreamPump();
  std::lock_guard<std::mutex> hold(renderer.mutex);
  ASSERT_EQ(renderer.times.size(), 1u);
  EXPECT_EQ(renderer.times[0], 100000000u + uint64_t{frames} * 1000000000u / 48000u);
  EXPECT_EQ(renderer.positions[0], 0u);
}

TEST_F(WasapiTest, AnOddChannelCountGetsAPartnerThatIsRenderedAndNeverPlayed) {
  Still();
  for (uint16_t channels : {uint16_t{1}, uint16_t{3}}) {
    fake.endpoints[0].mix = StereoFormat(48000, kSampleFloat32);
    fake.endpoints[0].mix.channels = channels;
    fake.endpoints[0].mix.blockAlign = static_cast<uint16_t>(4 * channels);
    fake.endpoints[0].mix.averageBytesPerSecond = 48000u * 4 * channels;
    fake.endpoints[0].mix.channelMask = channels == 1 ? 4u : 7u;
    auto driver = Open(kShareModeShared);
    CSoundDriverSettings kept;
    driver->GetSettings(kept);
    const uint64_t pairs = (channels + 1) / 2;
    EXPECT_EQ(kept.outputPairs.Count(), pairs);
    driver->StreamPump();
    // As many channels as the pairs tell: the host may write them all.
    EXPECT_EQ(renderer.outputCount.load(), 2 * pairs);
    const std::vector<uint8_t> bytes = fake.LastBytes();
    ASSERT_EQ(bytes.size() % (4u * channels), 0u);
    ASSERT_FALSE(bytes.empty());
    float first[3] = {};
    std::memcpy(first, bytes.data(), 4u * channels);
    EXPECT_EQ(first[0], renderer.left);
    if (channels == 3) {
      EXPECT_EQ(first[1], renderer.right);
      EXPECT_EQ(first[2], 0.0f);
    }
  }
}

TEST_F(WasapiTest, TheEngineKeepsItsDefaultPeriodUnlessTheHostAsksForLess) {
  Still();
  fake.endpoints[0].defaultFrames = 256;
  // The engine's period, and the host's block of the size it asked for.
  const struct {
    uint32_t asked;
    uint32_t period;
    uint32_t block;
  } cases[] = {{0, 256, 256},   {1000, 256, 1024}, {256, 256, 256},
               {200, 224, 224}, {100, 128, 128},   {1, 128, 64}};
  for (const auto& c : cases) {
    const CSoundDriverSettings wanted = Settings(48000, c.asked);
    auto driver = Open(kShareModeShared, c.asked != 0 ? &wanted : nullptr);
    EXPECT_EQ(fake.LastStream().periodFrames, c.period) << c.asked;
    CSoundDriverSettings kept;
    driver->GetSettings(kept);
    EXPECT_EQ(kept.bufferFrames, c.block) << c.asked;
  }
  // Another application holds the engine at its own period: the stream
  // joins it rather than failing.
  fake.endpoints[0].lockedFrames = 192;
  const CSoundDriverSettings wanted = Settings(48000, 128);
  auto driver = Open(kShareModeShared, &wanted);
  EXPECT_TRUE(fake.LastStream().initialisedBy3);
  EXPECT_EQ(fake.LastStream().periodFrames, 192u);
  EXPECT_EQ(driver->EnginePeriod(), 192u);
  CSoundDriverSettings kept;
  driver->GetSettings(kept);
  EXPECT_EQ(kept.bufferFrames, 128u);
  EXPECT_EQ(fake.LiveClients(), 1);
}

TEST_F(WasapiTest, AFailureOnTheStreamThreadOnlySetsTheFlag) {
  Still();
  const Fakes::EWasapiCall calls[] = {Fakes::kWasPadding, Fakes::kWasGetBuffer,
                                      Fakes::kWasReleaseBuffer};
  for (Fakes::EWasapiCall call : calls) {
    auto driver = Open(kShareModeShared);
    fake.Fail(call, kAudioDeviceInvalidated, 1);
    const uint64_t before = AllocationCounter::OnThisThread();
    EXPECT_NO_THROW(driver->StreamPump());
    EXPECT_EQ(AllocationCounter::OnThisThread(), before) << call;
    EXPECT_TRUE(driver->Failed()) << call;
    EXPECT_THROW(driver->CheckAlive(), NSMarlet::XNotReady);
  }
}

TEST_F(WasapiTest, AStalledEngineWhoseDeviceIsGoneFailsTheDriverWithoutWaitingForTheWatchdog) {
  fake.ticking = false;
  auto driver = Open(kShareModeShared);
  // Stalled with its device present: the stream waits on.
  NSPlatform::SleepMilliseconds(600);
  EXPECT_FALSE(driver->Failed());
  EXPECT_GT(fake.Calls(Fakes::kWasPadding), 0u);
  fake.Remove(fake.endpoints[0].id);
  const uint32_t started = NSPlatform::MillisecondTicks();
  ASSERT_TRUE(WaitFor([&] { return driver->Failed(); }, 5000));
  // The watchdog would take 10 s; the probe at the next missed event, well under.
  EXPECT_LT(NSPlatform::MillisecondTicks() - started, 5000u);
}

TEST_F(WasapiTest, AnExclusiveClientAtTheSmallestPeriodLosesNoPeriod) {
  fake.endpoints[0].exclusive = {{48000, kSampleInt16}};
  const CSoundDriverSettings wanted = Settings(48000, 1);
  auto driver = Open(kShareModeExclusive, &wanted);
  const uint32_t frames = driver->BufferFrames();
  EXPECT_EQ(frames, 144u);
  ASSERT_TRUE(WaitFor([&] { return fake.EventsFired() >= 300; }));
  driver.reset();
  const uint64_t events = fake.EventsFired();
  const std::vector<uint32_t> blocks = fake.Blocks();
  // The silence first, then one whole buffer for every event but perhaps
  // the last, which may have come as the stream stopped.
  ASSERT_GE(blocks.size(), 1u);
  const uint64_t written = blocks.size() - 1;
  EXPECT_GE(written + 1, events);
  EXPECT_LE(written, events);
  for (uint32_t block : blocks) EXPECT_EQ(block, frames);
  std::lock_guard<std::mutex> hold(renderer.mutex);
  for (size_t i = 1; i < renderer.positions.size(); ++i) {
    EXPECT_EQ(renderer.positions[i], renderer.positions[i - 1] + frames);
  }
}

TEST_F(WasapiTest, ThePumpFillsExactlyTheRoomInWholeBlocks) {
  Still();
  EXPECT_EQ(FramesToWrite(256, 0, 128), 256u);
  EXPECT_EQ(FramesToWrite(256, 200, 128), 0u);
  EXPECT_EQ(FramesToWrite(256, 300, 128), 0u);
  EXPECT_EQ(FramesToWrite(256, 0, 0), 0u);
  const CSoundDriverSettings wanted = Settings(48000, 128);
  auto driver = Open(kShareModeShared, &wanted);
  fake.QueuePaddings({0, 128, 200, 256, 50});
  for (int i = 0; i < 5; ++i) driver->StreamPump();
  EXPECT_EQ(fake.Blocks(), (std::vector<uint32_t>{128, 128, 128, 128}));
  EXPECT_EQ(driver->FramesWritten(), 512u);
  std::lock_guard<std::mutex> hold(renderer.mutex);
  EXPECT_EQ(renderer.positions, (std::vector<uint64_t>{0, 128, 256, 384}));
  EXPECT_EQ(renderer.inputCount.load(), 0u);
}

TEST_F(WasapiTest, TheOutputLatencyIsWhatTheClockShowsWhereTheEngineHasOne) {
  Still();
  const CSoundDriverSettings wanted = Settings(48000, 128);
  auto driver = Open(kShareModeShared, &wanted);
  ASSERT_EQ(driver->BufferFrames(), 256u);
  // Before a block was written: the engine's buffer and the stream's own
  // latency, 3 ms.
  EXPECT_EQ(driver->GetOutputLatency(), NSFerrand::LatencyMicroseconds(256, 48000) + 3000);
  // The clock stands at the start while two blocks go in, then one more
  // when it has played one: a block waited at most one block behind it.
  fake.QueuePaddings({0, 128});
  driver->StreamPump();
  driver->StreamPump();
  EXPECT_EQ(driver->GetOutputLatency(), NSFerrand::LatencyMicroseconds(128, 48000));
  // Without a clock, the buffer and the stream's latency again.
  fake.Fail(Fakes::kWasClock, kHResultFail, 1);
  auto clockless = Open(kShareModeShared, &wanted);
  fake.QueuePaddings({0});
  clockless->StreamPump();
  EXPECT_EQ(clockless->GetOutputLatency(), NSFerrand::LatencyMicroseconds(256, 48000) + 3000);
}

TEST_F(WasapiTest, ARemovedEndpointFailsTheDriverForGood) {
  Still();
  auto driver = Open(kShareModeShared);
  EXPECT_NO_THROW(driver->CheckAlive());
  fake.Remove(fake.endpoints[0].id);
  driver->StreamPump();
  EXPECT_TRUE(driver->Failed());
  try {
    driver->CheckAlive();
    ADD_FAILURE() << "no failure";
  } catch (const NSMarlet::XNotReady& e) {
    EXPECT_TRUE(NSMarlet::TargetObjectTypeIs(NSMarlet::BodyFromException(&e, {}), "audio_driver"));
  }
}

TEST_F(WasapiTest, ARendererThatRaisesFailsTheDriverAndTheBlockGoesOutSilent) {
  Still();
  auto driver = Open(kShareModeShared);
  renderer.raiseNext = true;
  driver->StreamPump();
  EXPECT_TRUE(driver->Failed());
  const std::vector<uint8_t> bytes = fake.LastBytes();
  EXPECT_FALSE(bytes.empty());
  for (uint8_t b : bytes) EXPECT_EQ(b, 0);
}

TEST_F(WasapiTest, ExclusiveModeHeldByAnotherApplicationIsAnOpenFailure) {
  fake.endpoints[0].inUse = true;
  const NSMarlet::CFailureEntry* none = nullptr;
  (void)none;
  try {
    Open(kShareModeExclusive);
    ADD_FAILURE() << "opened";
  } catch (const NSMarlet::XOpen& e) {
    EXPECT_TRUE(NSMarlet::TargetObjectTypeIs(NSMarlet::BodyFromException(&e, {}), "audio_driver"));
  }
  fake.endpoints[0].inUse = false;
  fake.endpoints[0].exclusive.clear();
  EXPECT_THROW(Open(kShareModeExclusive), NSMarlet::XOpen);
  EXPECT_EQ(fake.LiveClients(), 0);
  EXPECT_EQ(fake.ComBalance(), 0);
}

// Every call of the opening, failing once, leaves nothing behind.
TEST_F(WasapiTest, AFailureAtEachStepOfTheOpeningReleasesEverything) {
  Still();
  const Fakes::EWasapiCall steps[] = {
      Fakes::kWasCoInitialize, Fakes::kWasCreateEnumerator, Fakes::kWasActivate,
      Fakes::kWasMixFormat,    Fakes::kWasInitialize,       Fakes::kWasBufferSize,
      Fakes::kWasSetEvent,     Fakes::kWasRenderClient,     Fakes::kWasStart,
      Fakes::kWasGetBuffer,    Fakes::kWasReleaseBuffer,    Fakes::kWasDevicePeriod,
      Fakes::kWasDeviceFormat, Fakes::kWasDefaultEndpoint};
  for (EShareMode mode : {kShareModeShared, kShareModeExclusive}) {
    for (Fakes::EWasapiCall step : steps) {
      fake.Fail(step, kHResultFail, 1);
      try {
        auto driver = Open(mode);
        // Some steps are not taken in this mode: the open then succeeds.
      } catch (const std::exception&) {
      }
      fake.Fail(step, kHResultFail, 0);
      EXPECT_EQ(fake.LiveClients(), 0) << mode << " " << step;
      EXPECT_EQ(fake.ComBalance(), 0) << mode << " " << step;
    }
  }
  // A clock that cannot be had leaves positions without times, not a failure.
  fake.Fail(Fakes::kWasClock, kHResultFail, 1);
  auto driver = Open(kShareModeShared);
  driver->StreamPump();
  std::lock_guard<std::mutex> hold(renderer.mutex);
  ASSERT_FALSE(renderer.times.empty());
  EXPECT_EQ(renderer.times.back(), 0u);
}

TEST_F(WasapiTest, HostileSettingsAreReplacedByTheNearestKept) {
  Still();
  for (EShareMode mode : {kShareModeExclusive, kShareModeShared}) {
    auto driver = Open(mode);
    for (uint32_t rate : {0u, 1u, 44099u, 0xFFFFFFFFu}) {
      for (uint32_t frames : {0u, 1u, 4095u, 0xFFFFFFFFu}) {
        driver->ApplySettings(Settings(rate, frames));
        CSoundDriverSettings kept;
        driver->GetSettings(kept);
        EXPECT_NE(kept.sampleRate, 0u);
        EXPECT_GT(kept.bufferFrames, 0u);
        EXPECT_LE(kept.bufferFrames, kWasapiMaxBlockFrames);
        // Whatever was kept plays.
        driver->StreamPump();
        EXPECT_FALSE(driver->Failed()) << mode << " " << rate << " " << frames;
      }
    }
  }
}

TEST_F(WasapiTest, TheCarryPlaysAtPaceNeitherAllocatingNorWaiting) {
  fake.endpoints[0].client3 = false;
  const CSoundDriverSettings wanted = Settings(48000, 256);
  auto driver = Open(kShareModeShared, &wanted);
  ASSERT_EQ(driver->EnginePeriod(), 480u);
  ExpectPlayedAtPace(std::move(driver), 256);
}

TEST_F(WasapiTest, TheEventThreadPlaysAtPaceWithTimesNeitherAllocatingNorWaiting) {
  const CSoundDriverSettings wanted = Settings(48000, 480);
  ExpectPlayedAtPace(Open(kShareModeShared, &wanted), 480);
}

}  // namespace
