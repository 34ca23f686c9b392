// What a host can pass, and how slowly it can render, without crashing or
// hanging the library: on "No Sound" in both builds, and on a real wave-out
// device under Wine.
#include <chrono>
#include <thread>

#include "e2e/e2e_support.h"

namespace {

using Clock = std::chrono::steady_clock;

// A host that renders as slowly as told, can raise in its first block, and
// keeps the largest block it was asked for.
class HostileHost final : public IClientHost {
 public:
  uint32_t Render(IClient*, uint32_t frames, const float* const*, int32_t, const SRenderTiming*,
                  float* const* outputs, int32_t outputCount, const SRenderTiming*) override {
    if (frames > mostFrames.load()) mostFrames = frames;
    // Writes every frame it was given: a block larger than the buffers would
    // be caught by the address sanitizer, not only by the count.
    for (int32_t c = 0; c < outputCount; ++c) {
      if (outputs[c] == nullptr) continue;
      for (uint32_t f = 0; f < frames; ++f) outputs[c][f] = 0.0f;
    }
    const uint64_t n = ++calls;
    if (raiseFirst && n == 1) throw std::runtime_error("first block");
    const uint32_t hold = renderMs.load();
    if (hold > 0) std::this_thread::sleep_for(std::chrono::milliseconds(hold));
    return 0;
  }
  void OnDriverLost(IClient*) override { ++lost; }
  void OnSettingsChanged(IClient*, const SClientSettings*) override { ++settingsReports; }
  void OnDriverListChanged(IClient*) override {}

  std::atomic<uint64_t> calls{0};
  std::atomic<uint32_t> mostFrames{0};
  std::atomic<uint32_t> renderMs{0};
  bool raiseFirst = false;
  std::atomic<int> lost{0};
  std::atomic<int> settingsReports{0};
};

const uint32_t kHostileSizes[] = {0, 1, 32, 20000, 0x80000000u, 0xFFFFFFFFu};
const uint32_t kHostileRates[] = {0, 7, 0xFFFFFFFFu};

// Every hostile size at a usual rate, and every hostile rate at a usual size.
std::vector<SClientSettings> HostileRecords() {
  std::vector<SClientSettings> records;
  for (uint32_t frames : kHostileSizes) records.push_back(Stereo(44100, frames));
  for (uint32_t rate : kHostileRates) records.push_back(Stereo(rate, 4096));
  return records;
}

bool Unsound(const SClientSettings& flat) { return flat.sampleRate == 0 || flat.bufferFrames == 0; }

// Milliseconds the operation took.
template <class Operation>
int64_t Took(Operation operation) {
  const Clock::time_point before = Clock::now();
  operation();
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - before).count();
}

std::string Describe(const SClientSettings& flat) {
  return std::to_string(flat.sampleRate) + " Hz, " + std::to_string(flat.bufferFrames) + " frames";
}

// Idle as a host does, until the host has rendered that many blocks.
bool IdleUntilRendered(IClient* client, HostileHost& host, uint64_t blocks) {
  return WaitFor([&] {
    client->Idle();
    return host.calls.load() >= blocks;
  });
}

// Each record through CreateClientWithSettings: a status always, a client that
// renders and idles for every sound record, blocks no larger than the family's
// buffers, and a destruction within a second.
void CreateWithEachHostileRecord(IQuillon* library, const IDriverSpec* spec, uint32_t mostFrames) {
  for (const SClientSettings& flat : HostileRecords()) {
    SCOPED_TRACE(Describe(flat));
    HostileHost host;
    uint32_t running = 9;
    uint32_t status = 0;
    IClient* client =
        library->CreateClientWithSettings(&host, nullptr, spec, &flat, &running, &status);
    if (Unsound(flat)) {
      EXPECT_EQ(status, kStatusInvalidArgument);
      EXPECT_EQ(client, nullptr);
      EXPECT_EQ(running, 9u);
      continue;
    }
    EXPECT_EQ(status, kStatusOk);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(running, 1u);
    EXPECT_TRUE(IdleUntilRendered(client, host, 2));
    EXPECT_EQ(client->Idle(), kStatusOk);
    SClientSettings now;
    ASSERT_EQ(client->GetClientSettings(&now), kStatusOk);
    EXPECT_GE(now.bufferFrames, 1u);
    EXPECT_LE(now.bufferFrames, mostFrames);
    EXPECT_NE(now.sampleRate, 0u);
    EXPECT_LE(now.sampleRate, 192000u);
    EXPECT_LT(Took([&] { QuillonDestroy(client); }), 1000);
    EXPECT_LE(host.mostFrames.load(), mostFrames);
    EXPECT_EQ(host.lost.load(), 0);
  }
}

// Each record through ApplyClientSettings on one running client: an unsound
// one changes nothing; a sound one is kept as near as the driver can, and the
// host is told what is in force.
void ApplyEachHostileRecord(IQuillon* library, const IDriverSpec* spec, uint32_t mostFrames) {
  HostileHost host;
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = library->CreateClient(&host, nullptr, spec, &running, &status);
  ASSERT_NE(client, nullptr);
  ASSERT_EQ(running, 1u);
  for (const SClientSettings& flat : HostileRecords()) {
    SCOPED_TRACE(Describe(flat));
    SClientSettings before;
    ASSERT_EQ(client->GetClientSettings(&before), kStatusOk);
    running = 9;
    if (Unsound(flat)) {
      EXPECT_EQ(client->ApplyClientSettings(&flat, &running), kStatusInvalidArgument);
      EXPECT_EQ(running, 9u);
      SClientSettings after;
      ASSERT_EQ(client->GetClientSettings(&after), kStatusOk);
      EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
      continue;
    }
    EXPECT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
    EXPECT_EQ(running, 1u);
    const int reports = host.settingsReports.load();
    const uint64_t blocks = host.calls.load();
    EXPECT_TRUE(IdleUntilRendered(client, host, blocks + 2));
    SClientSettings now;
    ASSERT_EQ(client->GetClientSettings(&now), kStatusOk);
    EXPECT_LE(now.bufferFrames, mostFrames);
    EXPECT_LE(now.sampleRate, 192000u);
    // What the driver kept instead of the request was told at Idle.
    if (now.sampleRate != flat.sampleRate || now.bufferFrames != flat.bufferFrames) {
      EXPECT_GT(host.settingsReports.load(), reports);
    }
  }
  EXPECT_LT(Took([&] { QuillonDestroy(client); }), 1000);
  EXPECT_LE(host.mostFrames.load(), mostFrames);
  EXPECT_EQ(host.lost.load(), 0);
}

// A host slower than the period, with or without a first block that raised:
// every control operation returns within a second plus one Render.
void ControlAgainstASlowHost(IQuillon* library, const IDriverSpec* spec, uint32_t renderMs,
                             bool raiseFirst) {
  HostileHost host;
  host.renderMs = renderMs;
  host.raiseFirst = raiseFirst;
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = library->CreateClient(&host, nullptr, spec, &running, &status);
  ASSERT_NE(client, nullptr);
  ASSERT_TRUE(IdleUntilRendered(client, host, 3));
  const int64_t bound = 1000 + renderMs;
  EXPECT_LT(Took([&] { EXPECT_EQ(client->SetDriver(spec, &running), kStatusOk); }), bound);
  EXPECT_EQ(running, 1u);
  ASSERT_TRUE(IdleUntilRendered(client, host, host.calls.load() + 1));
  EXPECT_LT(Took([&] { EXPECT_EQ(client->SuspendDriver(), kStatusOk); }), bound);
  ASSERT_TRUE(IdleUntilRendered(client, host, host.calls.load() + 1));
  EXPECT_LT(Took([&] { EXPECT_EQ(client->ResumeDriver(&running), kStatusOk); }), bound);
  ASSERT_TRUE(IdleUntilRendered(client, host, host.calls.load() + 1));
  const SClientSettings flat = Stereo(48000, 8192);
  EXPECT_LT(Took([&] { EXPECT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk); }),
            bound);
  ASSERT_TRUE(IdleUntilRendered(client, host, host.calls.load() + 1));
  EXPECT_LT(Took([&] { QuillonDestroy(client); }), bound);
}

}  // namespace

class HostileNullDriverTest : public LibraryFixture {};

TEST_F(HostileNullDriverTest, EveryHostileRecordAtCreation) {
  CreateWithEachHostileRecord(library, NullSpec(), 32768);
}

TEST_F(HostileNullDriverTest, EveryHostileRecordApplied) {
  ApplyEachHostileRecord(library, NullSpec(), 32768);
}

TEST_F(HostileNullDriverTest, AHostSlowerThanThePeriod) {
  ControlAgainstASlowHost(library, NullSpec(), 200, false);
}

TEST_F(HostileNullDriverTest, ASlowHostWhoseFirstBlockRaised) {
  ControlAgainstASlowHost(library, NullSpec(), 400, true);
}

class HostileWaveOutTest : public RealWaveOutFixture {};

TEST_F(HostileWaveOutTest, EveryHostileRecordAtCreation) {
  CreateWithEachHostileRecord(library, mme, 16384);
}

TEST_F(HostileWaveOutTest, EveryHostileRecordApplied) {
  ApplyEachHostileRecord(library, mme, 16384);
}

TEST_F(HostileWaveOutTest, AHostSlowerThanThePeriod) {
  ControlAgainstASlowHost(library, mme, 200, false);
}

TEST_F(HostileWaveOutTest, ASlowHostWhoseFirstBlockRaised) {
  ControlAgainstASlowHost(library, mme, 400, true);
}
