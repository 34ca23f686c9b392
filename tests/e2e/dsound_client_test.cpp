// The DirectSound family through the boundary: on a fake DirectSound in
// both builds, and on Wine's own under Wine, where the test scripts give it
// a sound device.
#include <chrono>
#include <cstdlib>

#include "e2e/e2e_support.h"
#include "fakes/fake_wasapi.h"
#include "fakes/fake_asio.h"
#include "fakes/fake_dsound.h"
#include "support/usable_window.h"

namespace {

class DirectSoundClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakeWaveOut.devices.resize(1);
    fakeWaveOut.devices[0].caps.productName = u"Fake Out";
    fakeWaveOut.devices[0].caps.formats = NSMME::kStereo16Formats;
    fakeWaveOut.devices[0].caps.channels = 2;
    fakeWaveOut.devices[0].rates = {44100, 48000};
    noASIO.RemoveASIOKey();
    SetPlatformProvider(&provider);
  }
  void Make(void* window) {
    const SLibraryParams params = {window, 0};
    uint32_t status = 0;
    library = Quillon_Create("IQuillon2", &params, &status);
    ASSERT_NE(library, nullptr);
    specs = library->GetDriverSpecs(&status);
    ASSERT_NE(specs, nullptr);
  }
  void TearDown() override {
    QuillonDestroy(specs);
    QuillonDestroy(library);
    SetPlatformProvider(nullptr);
  }

  Fakes::CFakeWaveOut fakeWaveOut;
  Fakes::CFakeASIOPlatform noASIO;
  Fakes::CFakeDirectSound directSound;
  Fakes::CNoWasapi noWasapi;
  SPlatformProvider provider{&fakeWaveOut, &noASIO, &directSound, nullptr, &noWasapi};
  IQuillon* library = nullptr;
  IVector<const IDriverSpec*>* specs = nullptr;
  TestHost host;
};

TEST_F(DirectSoundClientTest, ListedUnderDXBetweenASIOAndMMEOnlyWithAWindow) {
  Make(nullptr);
  EXPECT_EQ(FirstOf(specs, u"DX"), nullptr);
  QuillonDestroy(specs);
  QuillonDestroy(library);
  specs = nullptr;
  library = nullptr;
  Make(UsableWindow());
  int64_t dx = -1;
  int64_t mme = -1;
  const IDriverSpec* spec = FirstOf(specs, u"DX", &dx);
  ASSERT_NE(spec, nullptr);
  ASSERT_NE(FirstOf(specs, u"MME", &mme), nullptr);
  EXPECT_LT(dx, mme);
  SDriverSpecKey key;
  spec->GetKeyRecord(&key);
  EXPECT_EQ(Text(key.name), u"Primary Sound Driver");
  EXPECT_EQ(key.flags[0], 1u);
  EXPECT_EQ(key.flags[1], 0u);
}

TEST_F(DirectSoundClientTest, ABufferLostForGoodIsToldOnceAndTheClientGoesOnInSilence) {
  Make(UsableWindow());
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client =
      library->CreateClient(&host, nullptr, FirstOf(specs, u"DX"), &running, &status);
  ASSERT_EQ(status, kStatusOk);
  ASSERT_EQ(running, 1u);
  EXPECT_EQ(client->Idle(), kStatusOk);
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() >= 1; }));
  EXPECT_EQ(host.lastFrames.load(), 4096u);
  directSound.LoseBuffer(-1);
  ASSERT_TRUE(WaitFor([&] {
    directSound.Advance(256);
    client->Idle();
    return host.lost.load() == 1;
  }, 20000));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  ASSERT_TRUE(WaitFor([&] { return host.silentBlocks.load() >= 2; }));
  QuillonDestroy(client);
  EXPECT_EQ(directSound.LiveBuffers(), 0);
}

TEST_F(DirectSoundClientTest, SettingsKeepTheSizesAndRatesTheDriverOffers) {
  Make(UsableWindow());
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client =
      library->CreateClient(&host, nullptr, FirstOf(specs, u"DX"), &running, &status);
  ASSERT_EQ(running, 1u);
  SClientSettings flat = Stereo(47000, 300);
  EXPECT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  SClientSettings seen;
  ASSERT_EQ(client->GetClientSettings(&seen), kStatusOk);
  EXPECT_EQ(seen.sampleRate, 48000u);
  EXPECT_EQ(seen.bufferFrames, 320u);
  flat = Stereo(0xFFFFFFFFu, 0xFFFFFFFFu);
  EXPECT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  ASSERT_EQ(client->GetClientSettings(&seen), kStatusOk);
  EXPECT_EQ(seen.sampleRate, 192000u);
  EXPECT_EQ(seen.bufferFrames, 8192u);
  QuillonDestroy(client);
}

// Wine's own DirectSound, playing into the session's JACK server.
class RealDirectSoundTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetPlatformProvider(nullptr);
    const SLibraryParams params = {UsableWindow(), 0};
    uint32_t status = 0;
    library = Quillon_Create("IQuillon2", &params, &status);
    ASSERT_NE(library, nullptr);
    specs = library->GetDriverSpecs(&status);
    ASSERT_NE(specs, nullptr);
    dx = FirstOf(specs, u"DX");
    if (dx == nullptr) {
      const char* expected = std::getenv("QUILLON_EXPECT_WAVE_OUT");
      ASSERT_FALSE(expected != nullptr && expected[0] == '1') << "no DirectSound device is listed";
      GTEST_SKIP() << "this system has no DirectSound device";
    }
  }
  void TearDown() override {
    QuillonDestroy(specs);
    QuillonDestroy(library);
  }
  IQuillon* library = nullptr;
  IVector<const IDriverSpec*>* specs = nullptr;
  const IDriverSpec* dx = nullptr;
  TestHost host;
};

TEST_F(RealDirectSoundTest, TheDefaultDeviceIsListedWithItsFixedKey) {
  MemorySink sink;
  uint64_t position = 0;
  ASSERT_EQ(library->SaveDriverSpec(dx, &sink, &position), kStatusOk);
  const std::u16string key = u"Ferrand Default DirectSound Sound Output Driver";
  EXPECT_NE(sink.bytes.find(std::string(reinterpret_cast<const char*>(key.data()), key.size() * 2)),
            std::string::npos);
}

TEST_F(RealDirectSoundTest, PlaysTenSecondsAtPaceAndTakesNewSettings) {
  SClientSettings flat = Stereo(48000, 4096);
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client =
      library->CreateClientWithSettings(&host, nullptr, dx, &flat, &running, &status);
  ASSERT_EQ(status, kStatusOk);
  ASSERT_EQ(running, 1u);
  SClientSettings seen;
  ASSERT_EQ(client->GetClientSettings(&seen), kStatusOk);
  const double rate = seen.sampleRate;
  EXPECT_EQ(seen.bufferFrames, 4096u);
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() >= 5; }));
  // Frames asked for over wall time are the device's pace, within one
  // target latency over the whole run.
  const uint64_t startFrames = host.framesRendered;
  const auto start = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - start < std::chrono::seconds(10)) {
    client->Idle();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double pace = static_cast<double>(host.framesRendered.load() - startFrames) / seconds;
  EXPECT_NEAR(pace, rate, rate * 0.02);
  EXPECT_EQ(host.lost.load(), 0);

  // The same rate and another size: the latency changes at once, and the
  // stream goes on without a gap.
  uint64_t latency = 0;
  ASSERT_EQ(client->GetOutputLatency(&latency), kStatusOk);
  EXPECT_EQ(latency, static_cast<uint64_t>(4096 * 1000000.0 / rate));
  host.longestGapMs = 0;
  flat = Stereo(seen.sampleRate, 2048);
  ASSERT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  ASSERT_EQ(client->GetOutputLatency(&latency), kStatusOk);
  EXPECT_EQ(latency, static_cast<uint64_t>(2048 * 1000000.0 / rate));
  const uint64_t blocks = host.drivenBlocks;
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() >= blocks + 20; }));
  EXPECT_LT(host.longestGapMs.load(), 1000);

  // Another rate reopens the stream, and it plays on.
  const uint32_t other = seen.sampleRate == 44100 ? 48000 : 44100;
  flat = Stereo(other, 2048);
  ASSERT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  ASSERT_EQ(client->GetClientSettings(&seen), kStatusOk);
  const uint64_t after = host.drivenBlocks;
  ASSERT_TRUE(WaitFor([&] {
    client->Idle();
    return host.drivenBlocks.load() >= after + 20;
  }));
  EXPECT_EQ(host.lost.load(), 0);
  QuillonDestroy(client);
}

}  // namespace
