#include <chrono>
#include <cstring>
#include <limits>

#include "e2e/e2e_support.h"
#include "fakes/fake_wasapi.h"
#include "fakes/fake_asio.h"
#include "fakes/fake_dsound.h"
#include "support/usable_window.h"

using NSASIO::ASE_HWMalfunction;

namespace {

// The library with a fake ASIO driver in the machine's registry, and a host
// that gave its window.
class ASIOClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    noDirectSound.libraryPresent = false;
    device = platform.AddDriver(u"Fake Box", Fakes::FakeClsidText(1), u"ASIO Fake Box");
    device->inputs = 2;
    device->outputs = 4;
    device->rates = {44100, 48000};
    device->inputLatency = 480;
    device->outputLatency = 960;
    SetPlatformProvider(&provider);
    const SLibraryParams params = {UsableWindow(), 0};
    uint32_t status = 0;
    library = Quillon_Create("IQuillon2", &params, &status);
    ASSERT_NE(library, nullptr);
    ASSERT_EQ(status, kStatusOk);
    specs = library->GetDriverSpecs(&status);
    ASSERT_EQ(status, kStatusOk);
    asio = FirstOf(specs, u"ASIO");
    ASSERT_NE(asio, nullptr);
  }
  void TearDown() override {
    QuillonDestroy(specs);
    QuillonDestroy(library);
    SetPlatformProvider(nullptr);
  }
  IClient* Open(uint32_t expectRunning = 1) {
    uint32_t running = 9;
    uint32_t status = 0;
    IClient* client = library->CreateClient(&host, nullptr, asio, &running, &status);
    EXPECT_EQ(status, kStatusOk);
    EXPECT_EQ(running, expectRunning);
    EXPECT_EQ(client->Idle(), kStatusOk);
    return client;
  }

  Fakes::CFakeWaveOut noWaveOut;
  Fakes::CFakeASIOPlatform platform;
  Fakes::CFakeDirectSound noDirectSound;
  Fakes::CNoWasapi noWasapi;
  SPlatformProvider provider{&noWaveOut, &platform, &noDirectSound, nullptr, &noWasapi};
  std::shared_ptr<Fakes::SFakeASIODevice> device;
  IQuillon* library = nullptr;
  IVector<const IDriverSpec*>* specs = nullptr;
  const IDriverSpec* asio = nullptr;
  TestHost host;
};

TEST_F(ASIOClientTest, ListedUnderASIOWithItsKeyWithoutCreatingTheDriver) {
  SDriverSpecKey key;
  ASSERT_EQ(asio->GetKeyRecord(&key), kStatusOk);
  EXPECT_EQ(Text(key.name), u"Fake Box");
  EXPECT_EQ(Text(key.version), u"");
  EXPECT_EQ(Text(key.manufacturer), u"");
  for (uint32_t flag : key.flags) EXPECT_EQ(flag, 1u);
  MemorySink sink;
  uint64_t position = 0;
  ASSERT_EQ(library->SaveDriverSpec(asio, &sink, &position), kStatusOk);
  const std::u16string keyText = u"Ferrand ASIO ASIO Fake Box";
  const std::string keyBytes(reinterpret_cast<const char*>(keyText.data()), keyText.size() * 2);
  EXPECT_NE(sink.bytes.find(keyBytes), std::string::npos);
  EXPECT_EQ(device->createdObjects.load(), 0);
  // The null driver comes first, ASIO right after it.
  SDriverSpecKey second;
  specs->GetData()[1]->GetKeyRecord(&second);
  EXPECT_EQ(Text(second.family), u"ASIO");
}

TEST_F(ASIOClientTest, WithoutAWindowThereIsNoASIOFamily) {
  uint32_t status = 0;
  QuillonDestroy(specs);
  QuillonDestroy(library);
  library = Quillon_Create("IQuillon2", nullptr, &status);
  ASSERT_EQ(status, kStatusOk);
  specs = library->GetDriverSpecs(&status);
  for (int64_t i = 0; i < specs->GetSize(); ++i) {
    SDriverSpecKey key;
    specs->GetData()[i]->GetKeyRecord(&key);
    EXPECT_NE(Text(key.family), u"ASIO");
  }
}

TEST_F(ASIOClientTest, AClientPlaysAtTheDriversPace) {
  IClient* client = Open();
  const uint64_t startBlocks = host.drivenBlocks.load();
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() >= startBlocks + 100; }, 20000));
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  // 100 buffers of 256 frames at 48000 Hz take 0.53 s; a loaded machine
  // may be late, never early by much.
  EXPECT_GT(seconds, 0.3);
  EXPECT_EQ(host.lastFrames.load(), 256u);
  EXPECT_EQ(host.lastInputCount.load(), 2);
  EXPECT_EQ(host.lastOutputCount.load(), 4);
  EXPECT_EQ(host.lost.load(), 0);
  EXPECT_GE(device->Calls(Fakes::kAsioOutputReady), 100u);
  uint8_t can = 0;
  EXPECT_EQ(client->CanMonitorInputs(&can), kStatusOk);
  EXPECT_EQ(can, 1);
  uint64_t latency = 0;
  EXPECT_EQ(client->GetOutputLatency(&latency), kStatusOk);
  EXPECT_EQ(latency, 20000u);
  QuillonDestroy(client);
  EXPECT_EQ(device->liveObjects.load(), 0);
}

TEST_F(ASIOClientTest, TheFourTimesComeFromTheDriverMovedByTheLatencies) {
  device->stopCalling = true;
  IClient* client = Open();
  device->position = 100000;
  device->systemTimeNs = 7000000000ull;
  device->Live()->SwitchNow(0);
  // The fake moves on by one buffer and 1 ms before it calls.
  EXPECT_EQ(host.timings[0].load(), 100256u - 480u);
  EXPECT_EQ(host.timings[1].load(), 7001000000ull - 10000000ull);
  EXPECT_EQ(host.timings[2].load(), 100256u + 960u);
  EXPECT_EQ(host.timings[3].load(), 7001000000ull + 20000000ull);
  QuillonDestroy(client);
}

TEST_F(ASIOClientTest, AResetRequestRestartsAtTheNextIdle) {
  device->stopCalling = true;
  IClient* client = Open();
  host.Events();
  const size_t before = host.Events().size();
  device->preferredSize = 512;
  EXPECT_EQ(device->Live()->Message(NSASIO::kAsioResetRequest, 0), 1);
  EXPECT_EQ(device->Calls(Fakes::kAsioStop), 0u);
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(device->Calls(Fakes::kAsioStop), 1u);
  EXPECT_EQ(device->createdObjects.load(), 2);
  const std::vector<std::string> events = host.Events();
  ASSERT_EQ(events.size(), before + 1);
  EXPECT_EQ(events.back(), "settings");
  EXPECT_EQ(host.lastSettings.bufferFrames, 512u);
  EXPECT_EQ(host.lost.load(), 0);
  QuillonDestroy(client);
}

TEST_F(ASIOClientTest, ARefusedStartGivesSilence) {
  device->Fail(Fakes::kAsioStart, ASE_HWMalfunction);
  IClient* client = Open(0);
  ASSERT_TRUE(WaitFor([&] { return host.silentBlocks.load() >= 2; }));
  EXPECT_EQ(device->liveObjects.load(), 0);
  QuillonDestroy(client);
}

TEST_F(ASIOClientTest, AStartRefusedAtARestartIsALossToldOnce) {
  device->stopCalling = true;
  IClient* client = Open();
  device->Fail(Fakes::kAsioStart, ASE_HWMalfunction);
  device->Live()->Message(NSASIO::kAsioResetRequest, 0);
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  ASSERT_TRUE(WaitFor([&] { return host.silentBlocks.load() >= 2; }));
  EXPECT_EQ(device->liveObjects.load(), 0);
  QuillonDestroy(client);
}

TEST_F(ASIOClientTest, ADriverThatStopsCallingIsALossToldOnce) {
  IClient* client = Open();
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() >= 10; }));
  device->stopCalling = true;
  // The watchdog gives a silent driver 5 s.
  ASSERT_TRUE(WaitFor([&] {
    client->Idle();
    return host.lost.load() == 1;
  }, 20000));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  ASSERT_TRUE(WaitFor([&] { return host.silentBlocks.load() >= 2; }));
  QuillonDestroy(client);
  EXPECT_EQ(device->liveObjects.load(), 0);
}

TEST_F(ASIOClientTest, ASizeTheDriverDoesNotOfferKeepsThePreferredOne) {
  IClient* client = Open();
  SClientSettings flat = Stereo(48000, 300);
  uint32_t running = 0;
  EXPECT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  SClientSettings seen;
  ASSERT_EQ(client->GetClientSettings(&seen), kStatusOk);
  EXPECT_EQ(seen.bufferFrames, 256u);
  EXPECT_EQ(seen.sampleRate, 48000u);
  flat = Stereo(44100, 1024);
  flat.outputPairEnabled[1] = 1;
  EXPECT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  ASSERT_EQ(client->GetClientSettings(&seen), kStatusOk);
  EXPECT_EQ(seen.bufferFrames, 1024u);
  EXPECT_EQ(seen.sampleRate, 44100u);
  EXPECT_EQ(seen.outputPairEnabled[1], 1);
  IVector<QuillonULong>* sizes = client->GetBufferSizes(nullptr);
  ASSERT_NE(sizes, nullptr);
  EXPECT_EQ(sizes->GetSize(), 6);
  QuillonDestroy(sizes);
  QuillonDestroy(client);
}

TEST_F(ASIOClientTest, MonitoringRoundTripsThroughTheSettings) {
  // Monitoring comes in with the settings a client is opened with.
  SClientSettings flat = Stereo(48000, 256);
  flat.inputPairEnabled[0] = 1;
  flat.monitorsValid = 1;
  flat.monitors[1].enabled = 1;
  flat.monitors[1].gainDb = -100.0f;
  flat.monitors[1].pan = 0.0f;
  flat.monitors[1].outputPair = 0;
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client =
      library->CreateClientWithSettings(&host, nullptr, asio, &flat, &running, &status);
  ASSERT_EQ(status, kStatusOk);
  EXPECT_EQ(running, 1u);
  // Every record of an active pair is sent, switched off or not; the last
  // was channel 1's.
  EXPECT_EQ(device->monitorsSent.load(), 2);
  EXPECT_EQ(device->lastMonitor.input, 1);
  EXPECT_EQ(device->lastMonitor.output, 0);
  EXPECT_EQ(device->lastMonitor.gain, 5394);
  EXPECT_EQ(device->lastMonitor.pan, 1073741823);
  EXPECT_EQ(device->lastMonitor.state, 1);
  SClientSettings seen;
  ASSERT_EQ(client->GetClientSettings(&seen), kStatusOk);
  EXPECT_EQ(seen.monitorsValid, 0u);  // a record read back does not switch monitoring on
  EXPECT_EQ(seen.monitors[1].enabled, 1u);
  EXPECT_EQ(seen.monitors[1].gainDb, -100.0f);
  EXPECT_EQ(seen.monitors[0].enabled, 0u);
  // From then on the driver's monitors follow the client's records.
  seen.monitors[1].gainDb = 12.0f;
  seen.monitors[1].pan = 1.0f;
  ASSERT_EQ(client->ApplyClientSettings(&seen, &running), kStatusOk);
  EXPECT_EQ(device->lastMonitor.gain, 2147483647);
  EXPECT_EQ(device->lastMonitor.pan, 2147483647);
  SClientSettings again;
  ASSERT_EQ(client->GetClientSettings(&again), kStatusOk);
  EXPECT_EQ(again.monitors[1].gainDb, 12.0f);
  EXPECT_EQ(again.monitors[1].pan, 1.0f);
  QuillonDestroy(client);
}

TEST_F(ASIOClientTest, ThePanelRestartsTheStream) {
  device->panelPreferredSize = 128;
  IClient* client = Open();
  uint32_t has = 0;
  EXPECT_EQ(client->HasControlPanel(&has), kStatusOk);
  EXPECT_EQ(has, 1u);
  EXPECT_EQ(client->ShowControlPanel(), kStatusOk);
  SClientSettings seen;
  ASSERT_EQ(client->GetClientSettings(&seen), kStatusOk);
  EXPECT_EQ(seen.bufferFrames, 128u);
  QuillonDestroy(client);
}

TEST_F(ASIOClientTest, SwitchingAwayAndBackOpensTheDriverAgain) {
  IClient* client = Open();
  uint32_t running = 0;
  ASSERT_EQ(client->SetDriver(specs->GetData()[0], &running), kStatusOk);
  EXPECT_EQ(device->liveObjects.load(), 0);
  ASSERT_EQ(client->SetDriver(asio, &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  EXPECT_EQ(device->liveObjects.load(), 1);
  QuillonDestroy(client);
}

TEST_F(ASIOClientTest, HostileRecordsAreKeptWithinWhatTheDriverOffers) {
  const float kOdd[] = {std::numeric_limits<float>::quiet_NaN(),
                        std::numeric_limits<float>::infinity(),
                        -std::numeric_limits<float>::infinity(), 1e30f, -1e30f, 0.0f};
  SClientSettings flat;
  std::memset(&flat, 0, sizeof flat);
  flat.sampleRate = 0xFFFFFFFFu;
  flat.bufferFrames = 0x80000000u;
  flat.clockSource = 0xFFFFFFFFu;
  flat.monitorsValid = 0xFFFFFFFFu;
  for (int p = 0; p < 256; ++p) {
    flat.inputPairEnabled[p] = 1;
    flat.outputPairEnabled[p] = 1;
  }
  for (int m = 0; m < 512; ++m) {
    flat.monitors[m].enabled = static_cast<uint32_t>(m);
    flat.monitors[m].pan = kOdd[m % 6];
    flat.monitors[m].gainDb = kOdd[(m + 1) % 6];
    flat.monitors[m].outputPair = m % 3 == 0 ? 0xFFFFFFFFu : static_cast<uint32_t>(m);
  }
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client =
      library->CreateClientWithSettings(&host, nullptr, asio, &flat, &running, &status);
  ASSERT_EQ(status, kStatusOk);
  EXPECT_EQ(running, 1u);
  SClientSettings seen;
  ASSERT_EQ(client->GetClientSettings(&seen), kStatusOk);
  EXPECT_EQ(seen.sampleRate, 44100u);
  EXPECT_EQ(seen.bufferFrames, 256u);
  EXPECT_EQ(seen.inputPairEnabled[0], 1);
  EXPECT_EQ(seen.inputPairEnabled[1], 0);
  EXPECT_EQ(seen.outputPairEnabled[1], 1);
  EXPECT_EQ(seen.outputPairEnabled[2], 0);
  EXPECT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  const uint64_t blocks = host.drivenBlocks.load();
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() > blocks + 5; }));
  QuillonDestroy(client);
  EXPECT_EQ(device->liveObjects.load(), 0);
}

TEST_F(ASIOClientTest, ASecondClientCannotTakeTheDriverFromTheFirst) {
  IClient* first = Open();
  TestHost otherHost;
  uint32_t running = 9;
  uint32_t status = 0;
  IClient* second = library->CreateClient(&otherHost, nullptr, asio, &running, &status);
  ASSERT_EQ(status, kStatusOk);
  EXPECT_EQ(running, 0u);
  EXPECT_EQ(device->liveObjects.load(), 1);
  const uint64_t blocks = host.drivenBlocks.load();
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() > blocks + 10; }));
  ASSERT_TRUE(WaitFor([&] { return otherHost.silentBlocks.load() >= 1; }));
  QuillonDestroy(first);
  EXPECT_EQ(second->SetDriver(asio, &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  ASSERT_TRUE(WaitFor([&] { return otherHost.drivenBlocks.load() > 10; }));
  QuillonDestroy(second);
  EXPECT_EQ(device->liveObjects.load(), 0);
}

}  // namespace
