// Real audio: the library's MME family over the system's wave-out functions.
// Under Wine the test scripts give it a device (ALSA into a JACK server with
// its dummy backend); natively there is none, and the test says so.
#include <cstdio>

#include "e2e/e2e_support.h"
#include "mme/mme_driver.h"
#include "public/client.h"

namespace {

class PacedHost final : public IClientHost {
 public:
  uint32_t Render(IClient*, uint32_t frames, const float* const*, int32_t, const SRenderTiming*,
                  float* const* outputs, int32_t outputCount, const SRenderTiming*) override {
    const auto now = std::chrono::steady_clock::now();
    // The pace counts the blocks after the first: the first only starts the
    // clock, whatever its size.
    if (!started.exchange(true)) {
      start = now;
    } else {
      framesSinceStart += frames;
    }
    last = now;
    frameCount += frames;
    for (int32_t c = 0; c < outputCount; ++c) {
      for (uint32_t f = 0; f < frames; ++f) outputs[c][f] = 0.1f;
    }
    return 0;
  }
  void OnDriverLost(IClient*) override { ++lost; }
  void OnSettingsChanged(IClient*, const SClientSettings*) override {}
  void OnDriverListChanged(IClient*) override {}

  void Reset() {
    started = false;
    frameCount = 0;
    framesSinceStart = 0;
  }
  // Frames after the first block, over the time since it.
  double Rate() const {
    const double seconds = std::chrono::duration<double>(last - start).count();
    return seconds > 0 ? static_cast<double>(framesSinceStart.load()) / seconds : 0.0;
  }

  std::atomic<bool> started{false};
  std::chrono::steady_clock::time_point start;
  std::chrono::steady_clock::time_point last;
  std::atomic<uint64_t> frameCount{0};
  std::atomic<uint64_t> framesSinceStart{0};
  std::atomic<int> lost{0};
};

class WaveOutTest : public RealWaveOutFixture {
 protected:
  static const NSMME::COpenMMESoundDriver* Driver(IClient* client) {
    return dynamic_cast<const NSMME::COpenMMESoundDriver*>(
        static_cast<CQuillonClient*>(client)->Handle().OpenDriver());
  }
  uint32_t Underruns(IClient* client) {
    const auto* driver = Driver(client);
    return driver != nullptr ? driver->UnderrunCount() : 0xFFFFFFFFu;
  }
  // What the library delivered over a window, beside the wall clock's rate.
  void Report(const char* label) {
    std::printf("wave-out %s: %llu frames delivered, %.1f frames/s\n", label,
                static_cast<unsigned long long>(host.framesSinceStart.load()), host.Rate());
    std::fflush(stdout);
  }
  // A window of play: the library's counts when it began.
  struct SWindow {
    uint32_t blocks;
    uint32_t underruns;
  };
  SWindow StartWindow(IClient* client) {
    host.Reset();
    return {Driver(client)->BlocksWritten(), Underruns(client)};
  }
  // The library's side of the pace over a window of `seconds`: it delivered
  // what the device took, no less than half of real time and never ahead of
  // it by more than its queue, and its queue ran dry for at most one block in
  // ten. How fast the device takes blocks is Wine's, whose threads run at
  // ordinary priority: on a machine busy with builds its own output underruns
  // and it gives back every header at once now and then, so an empty queue
  // found now and then is the machine's; the pump must fill it again at once.
  void ExpectDelivered(IClient* client, const SWindow& window, double seconds, uint32_t rate,
                       uint32_t queueFrames) {
    const double nominal = seconds * rate;
    const double delivered = static_cast<double>(host.framesSinceStart.load());
    EXPECT_GT(delivered, nominal / 2);
    EXPECT_LT(delivered, nominal * 1.25 + queueFrames);
    const uint32_t blocks = Driver(client)->BlocksWritten() - window.blocks;
    const uint32_t underruns = Underruns(client) - window.underruns;
    std::printf("wave-out: %u blocks written, %u into an empty queue\n", blocks, underruns);
    EXPECT_LE(underruns * 10, blocks);
    EXPECT_EQ(host.lost.load(), 0);
  }
  // The queue is kept at its target: the pump fills it again after each
  // block the device gives back.
  bool QueueReachesItsTarget(IClient* client) {
    return WaitFor([&] {
      const auto* driver = Driver(client);
      return driver != nullptr &&
             static_cast<int32_t>(driver->QueuedBlocks()) >= driver->TargetBlockCount();
    }, 10000);
  }
  // A client on the device with those settings, null unless it runs.
  IClient* OpenRunning(const SClientSettings& flat) {
    uint32_t running = 0;
    uint32_t status = 0;
    IClient* client =
        library->CreateClientWithSettings(&host, nullptr, mme, &flat, &running, &status);
    EXPECT_EQ(status, kStatusOk);
    EXPECT_EQ(running, 1u);
    if (client != nullptr && running != 1) {
      QuillonDestroy(client);
      return nullptr;
    }
    return client;
  }
  // Plays for that long with Idle every 20 ms, as a host does.
  void Play(IClient* client, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
      EXPECT_EQ(client->Idle(), kStatusOk);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  PacedHost host;
};

}  // namespace

TEST_F(WaveOutTest, TheDeviceIsListedUnderMMEWithItsKey) {
  SDriverSpecKey key;
  mme->GetKeyRecord(&key);
  EXPECT_FALSE(Text(key.name).empty());
  EXPECT_EQ(std::vector<uint32_t>(key.flags, key.flags + 4), (std::vector<uint32_t>{1, 0, 0, 0}));
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = library->CreateClient(&host, nullptr, mme, &running, &status);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(running, 1u);
  Play(client, 3.0);
  EXPECT_GT(host.frameCount.load(), 44100u * 2);
  QuillonDestroy(client);
}

TEST_F(WaveOutTest, TenSecondsAt1024FramesAtPace) {
  // Wine gives a header back about 30 ms after it was written, longer than
  // the 21.3 ms that two 512-frame headers play: the pump sees it in the
  // first headers and queues as deep as the device needs. The size stays
  // the host's; the latency reported is the queue's.
  IClient* client = OpenRunning(Stereo(48000, 1024));
  ASSERT_NE(client, nullptr);
  Play(client, 1.0);
  const SWindow window = StartWindow(client);
  Play(client, 10.0);
  Report("1024 frames at 48000 Hz, 10 s");
  const auto* driver = Driver(client);
  ASSERT_NE(driver, nullptr);
  uint64_t latency = 0;
  ASSERT_EQ(client->GetOutputLatency(&latency), kStatusOk);
  std::printf("wave-out: %d blocks queued for 1024 frames, latency %llu us, %llu wake-ups\n",
              driver->TargetBlockCount(), static_cast<unsigned long long>(latency),
              static_cast<unsigned long long>(driver->Wakes()));
  EXPECT_GE(driver->TargetBlockCount(), 3);
  EXPECT_EQ(latency, static_cast<uint64_t>(driver->TargetBlockCount()) * 512 * 1000000 / 48000);
  SClientSettings now;
  ASSERT_EQ(client->GetClientSettings(&now), kStatusOk);
  EXPECT_EQ(now.bufferFrames, 1024u);
  EXPECT_NEAR(host.Rate(), 48000.0, 48000 * 0.02);
  EXPECT_EQ(Underruns(client), window.underruns);
  EXPECT_EQ(host.lost.load(), 0);
  QuillonDestroy(client);
}

TEST_F(WaveOutTest, RealTimePaceAndSettingsThatKeepOrReopenTheStream) {
  SClientSettings flat = Stereo(44100, 2048);
  uint32_t running = 0;
  IClient* client = OpenRunning(flat);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(Driver(client)->TargetBlockCount(), 4);
  Play(client, 1.0);
  SWindow window = StartWindow(client);  // past the priming of the queue
  Play(client, 10.0);
  Report("2048 frames at 44100 Hz, 10 s");
  ExpectDelivered(client, window, 10.0, 44100, 2048);
  EXPECT_TRUE(QueueReachesItsTarget(client));

  // Another size keeps the stream going, and the deeper queue is filled.
  flat.bufferFrames = 4096;
  const uint32_t blocks = Driver(client)->BlocksWritten();
  ASSERT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  ASSERT_EQ(Driver(client)->TargetBlockCount(), 8);
  EXPECT_TRUE(QueueReachesItsTarget(client));
  EXPECT_GE(Driver(client)->BlocksWritten(), blocks + 4);
  Play(client, 0.5);
  window = StartWindow(client);
  Play(client, 5.0);
  Report("4096 frames at 44100 Hz, 5 s");
  ExpectDelivered(client, window, 5.0, 44100, 4096);
  EXPECT_TRUE(QueueReachesItsTarget(client));

  // Another rate reopens it.
  flat.sampleRate = 48000;
  ASSERT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  SClientSettings now;
  ASSERT_EQ(client->GetClientSettings(&now), kStatusOk);
  EXPECT_EQ(now.sampleRate, 48000u);
  EXPECT_EQ(now.bufferFrames, 4096u);
  EXPECT_TRUE(QueueReachesItsTarget(client));
  Play(client, 0.5);
  window = StartWindow(client);
  Play(client, 5.0);
  Report("4096 frames at 48000 Hz, 5 s");
  ExpectDelivered(client, window, 5.0, 48000, 4096);
  EXPECT_TRUE(QueueReachesItsTarget(client));
  QuillonDestroy(client);
}
