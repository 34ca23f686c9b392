#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "e2e/e2e_support.h"
#include "fakes/fake_asio.h"
#include "fakes/fake_dsound.h"
#include "fakes/fake_wasapi.h"

namespace {

// The library with a fake audio engine of one endpoint, and nothing else.
class WasapiClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetPlatformProvider(&provider);
    uint32_t status = 0;
    library = Quillon_Create("IQuillon2", nullptr, &status);
    ASSERT_NE(library, nullptr);
    Relist();
  }
  void TearDown() override {
    QuillonDestroy(specs);
    QuillonDestroy(library);
    SetPlatformProvider(nullptr);
  }
  void Relist() {
    QuillonDestroy(specs);
    uint32_t status = 0;
    specs = library->GetDriverSpecs(&status);
    ASSERT_EQ(status, kStatusOk);
  }
  const IDriverSpec* Named(const std::u16string& name) { return NamedSpec(specs, name); }
  IClient* Open(const std::u16string& name, uint32_t expectRunning = 1) {
    uint32_t running = 9;
    uint32_t status = 0;
    IClient* client = library->CreateClient(&host, nullptr, Named(name), &running, &status);
    EXPECT_EQ(status, kStatusOk);
    EXPECT_EQ(running, expectRunning);
    return client;
  }

  Fakes::CFakeWaveOut noWaveOut;
  Fakes::CFakeWasapi engine;
  SPlatformProvider provider{&noWaveOut, nullptr, nullptr, nullptr, &engine};
  IQuillon* library = nullptr;
  IVector<const IDriverSpec*>* specs = nullptr;
  TestHost host;
};

TEST_F(WasapiClientTest, EndpointsAreListedAfterTheOtherFamilies) {
  ASSERT_EQ(specs->GetSize(), 4);
  SDriverSpecKey key;
  specs->GetData()[1]->GetKeyRecord(&key);
  EXPECT_EQ(Text(key.family), u"WASAPI");
  EXPECT_EQ(Text(key.name), u"Default output");
  specs->GetData()[2]->GetKeyRecord(&key);
  EXPECT_EQ(Text(key.name), u"Fake Speakers");
  specs->GetData()[3]->GetKeyRecord(&key);
  EXPECT_EQ(Text(key.name), u"Fake Speakers (exclusive)");
}

TEST_F(WasapiClientTest, DefaultOutputMovesToANewDefaultWithoutALoss) {
  Fakes::SFakeEndpoint second;
  second.id = u"{0.0.0.00000000}.{second}";
  second.name = u"Headphones";
  engine.endpoints.push_back(second);
  IClient* client = Open(u"Default output");
  ASSERT_TRUE(WaitFor([&] {
    client->Idle();
    return host.drivenBlocks.load() >= 10;
  }));
  auto settingsEvents = [&] {
    const std::vector<std::string> events = host.Events();
    return std::count(events.begin(), events.end(), std::string("settings"));
  };
  const auto settingsBefore = settingsEvents();
  const uint64_t positionBefore = host.timings[2].load();
  engine.SetDefault(second.id);
  ASSERT_TRUE(WaitFor([&] {
    client->Idle();
    return engine.LastStream().id == second.id;
  }));
  const uint64_t blocks = host.drivenBlocks.load();
  ASSERT_TRUE(WaitFor([&] {
    client->Idle();
    return host.drivenBlocks.load() >= blocks + 10;
  }));
  // The host's clock goes on from where it was, and it heard of nothing.
  EXPECT_GT(host.timings[2].load(), positionBefore);
  EXPECT_EQ(host.lost.load(), 0);
  EXPECT_EQ(settingsEvents(), settingsBefore);
  EXPECT_EQ(host.silentBlocks.load(), 0u);
  QuillonDestroy(client);
  EXPECT_EQ(engine.LiveClients(), 0);
}

TEST_F(WasapiClientTest, AClientPlaysInSharedModeAtTheEnginesPace) {
  IClient* client = Open(u"Fake Speakers");
  SClientSettings settings;
  ASSERT_EQ(client->GetClientSettings(&settings), kStatusOk);
  EXPECT_EQ(settings.sampleRate, 48000u);
  // The engine's default period: the machine's engine is left as it runs.
  EXPECT_EQ(settings.bufferFrames, 480u);
  const uint64_t start = host.framesRendered.load();
  const auto began = std::chrono::steady_clock::now();
  ASSERT_TRUE(WaitFor([&] { return host.framesRendered.load() >= start + 48000; }, 20000));
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  // A second of frames cannot come much before a second has passed.
  EXPECT_GT(seconds, 0.8);
  EXPECT_EQ(host.lastFrames.load(), 480u);
  EXPECT_EQ(host.lastOutputCount.load(), 2);
  EXPECT_EQ(host.lost.load(), 0);
  QuillonDestroy(client);
  EXPECT_EQ(engine.LiveClients(), 0);
}

TEST_F(WasapiClientTest, AnInvalidatedDeviceIsToldOnceAndTheClientGoesOnSilent) {
  IClient* client = Open(u"Fake Speakers");
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() >= 10; }));
  engine.Remove(engine.endpoints[0].id);
  ASSERT_TRUE(WaitFor([&] {
    client->Idle();
    return host.lost.load() == 1;
  }));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  const uint64_t silent = host.silentBlocks.load();
  EXPECT_TRUE(WaitFor([&] { return host.silentBlocks.load() > silent; }));
  QuillonDestroy(client);
}

TEST_F(WasapiClientTest, EndpointsThatGoAndComeAreAListChangeAtTheNextIdle) {
  IClient* client = Open(u"No Sound");
  ASSERT_EQ(client->Idle(), kStatusOk);
  auto lists = [&] {
    const std::vector<std::string> events = host.Events();
    return std::count(events.begin(), events.end(), std::string("list"));
  };
  EXPECT_EQ(lists(), 0);
  Fakes::SFakeEndpoint second;
  second.id = u"{0.0.0.00000000}.{usb}";
  second.name = u"USB Box";
  engine.endpoints.push_back(second);
  engine.NotifyFromAnotherThread();
  Relist();
  EXPECT_EQ(Named(u"USB Box"), nullptr);
  ASSERT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(lists(), 1);
  Relist();
  EXPECT_NE(Named(u"USB Box"), nullptr);
  engine.Remove(second.id);
  engine.NotifyFromAnotherThread();
  ASSERT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(lists(), 2);
  Relist();
  EXPECT_EQ(Named(u"USB Box"), nullptr);
  QuillonDestroy(client);
}

// Another application holds the device: the driver does not start, and the
// host is told by `running`, as for any driver that fails to open.
TEST_F(WasapiClientTest, AnExclusiveDeviceInAnothersHandsDoesNotStartAndNothingElseChanges) {
  engine.endpoints[0].inUse = true;
  IClient* client = Open(u"Fake Speakers (exclusive)", 0);
  EXPECT_EQ(engine.LiveClients(), 0);
  uint32_t running = 0;
  EXPECT_EQ(client->SetDriver(Named(u"Fake Speakers"), &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  QuillonDestroy(client);
}

}  // namespace

namespace {

// The system's audio engine: under Wine the test scripts give it a device
// (ALSA into a JACK server at real-time pace) and say so; natively there is
// no engine, and the tests skip.
class RealWasapiTest : public RealFamilyFixture {
 protected:
  RealWasapiTest() : RealFamilyFixture(u"WASAPI", "audio engine endpoint") {}
  void SetUp() override {
    RealFamilyFixture::SetUp();
    // The family's first entry follows the default; the endpoint's own
    // shared entry comes next.
    defaultOutput = device;
    for (int64_t i = 0; specs != nullptr && i < specs->GetSize(); ++i) {
      SDriverSpecKey key;
      specs->GetData()[i]->GetKeyRecord(&key);
      if (Text(key.family) == u"WASAPI" && Text(key.name) != u"Default output") {
        shared = specs->GetData()[i];
        break;
      }
    }
  }
  // Idles as a host does, every 20 ms, for that long.
  void Play(IClient* client, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
      client->Idle();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  // A client of that entry, which must start; null after a failed check.
  IClient* Start(const IDriverSpec* spec) {
    uint32_t running = 0;
    uint32_t status = 0;
    IClient* client = library->CreateClient(&host, nullptr, spec, &running, &status);
    EXPECT_EQ(status, kStatusOk);
    EXPECT_EQ(running, 1u);
    if (client != nullptr && running != 1) {
      QuillonDestroy(client);
      return nullptr;
    }
    return client;
  }

  const IDriverSpec* defaultOutput = nullptr;
  const IDriverSpec* shared = nullptr;
  TestHost host;
};

TEST_F(RealWasapiTest, DefaultOutputPlaysOnTheSystemsDefault) {
  SDriverSpecKey key;
  ASSERT_EQ(defaultOutput->GetKeyRecord(&key), kStatusOk);
  EXPECT_EQ(Text(key.name), u"Default output");
  IClient* client = Start(defaultOutput);
  ASSERT_NE(client, nullptr);
  EXPECT_TRUE(WaitFor([&] {
    client->Idle();
    return host.drivenBlocks.load() > 20;
  }));
  EXPECT_EQ(host.lost.load(), 0);
  QuillonDestroy(client);
}

TEST_F(RealWasapiTest, SharedModePlaysTenSecondsAtTheRateInForce) {
  ASSERT_NE(shared, nullptr);
  SDriverSpecKey key;
  ASSERT_EQ(shared->GetKeyRecord(&key), kStatusOk);
  EXPECT_EQ(Text(key.family), u"WASAPI");
  IClient* client = Start(shared);
  ASSERT_NE(client, nullptr);
  SClientSettings settings;
  ASSERT_EQ(client->GetClientSettings(&settings), kStatusOk);
  // Past the filling of the engine's buffer.
  Play(client, 1.0);
  const uint64_t startFrames = host.framesRendered.load();
  const auto start = std::chrono::steady_clock::now();
  Play(client, 10.0);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double rate = static_cast<double>(host.framesRendered.load() - startFrames) / seconds;
  EXPECT_NEAR(rate, settings.sampleRate, settings.sampleRate * 0.02);
  EXPECT_EQ(host.lost.load(), 0);
  uint64_t latency = 0;
  EXPECT_EQ(client->GetOutputLatency(&latency), kStatusOk);
  EXPECT_GT(latency, 0u);
  QuillonDestroy(client);
}

// Exclusive mode plays where the engine allows it; where it refuses, the
// driver does not start, the client goes on in silence, and nothing else
// changes: the shared driver of the same device still plays.
TEST_F(RealWasapiTest, ExclusiveModePlaysOrIsRefusedCleanly) {
  ASSERT_NE(shared, nullptr);
  SDriverSpecKey key;
  shared->GetKeyRecord(&key);
  const std::u16string exclusiveName = Text(key.name) + u" (exclusive)";
  const IDriverSpec* exclusive = NamedSpec(specs, exclusiveName);
  ASSERT_NE(exclusive, nullptr);
  uint32_t running = 9;
  uint32_t status = 0;
  IClient* client = library->CreateClient(&host, nullptr, exclusive, &running, &status);
  ASSERT_EQ(status, kStatusOk);
  Play(client, 2.0);
  if (running == 1) {
    EXPECT_GT(host.drivenBlocks.load(), 0u);
    EXPECT_EQ(host.lost.load(), 0);
  } else {
    EXPECT_GT(host.silentBlocks.load(), 0u);
  }
  ASSERT_EQ(client->SetDriver(shared, &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  const uint64_t blocks = host.drivenBlocks.load();
  EXPECT_TRUE(WaitFor([&] {
    client->Idle();
    return host.drivenBlocks.load() > blocks + 10;
  }));
  QuillonDestroy(client);
}

}  // namespace

namespace {

// An endpoint that comes back under a new id is found again by its name.
TEST_F(WasapiClientTest, ASavedSpecFindsItsEndpointByNameWhenItsIdChanged) {
  MemorySink sink;
  uint64_t position = 0;
  ASSERT_EQ(library->SaveDriverSpec(Named(u"Fake Speakers"), &sink, &position), kStatusOk);
  QuillonDestroy(specs);
  specs = nullptr;
  QuillonDestroy(library);
  engine.endpoints[0].id = u"{0.0.0.00000000}.{renumbered}";
  uint32_t status = 0;
  library = Quillon_Create("IQuillon2", nullptr, &status);
  ASSERT_NE(library, nullptr);
  Relist();
  MemorySource source(sink.bytes);
  position = 0;
  IDriverSpec* saved = library->LoadDriverSpec(&source, &position, &status);
  ASSERT_NE(saved, nullptr);
  uint32_t running = 0;
  IClient* client = library->CreateClient(&host, nullptr, saved, &running, &status);
  ASSERT_EQ(status, kStatusOk);
  EXPECT_EQ(running, 1u);
  IDriverSpec* now = client->GetDriverSpec(&status);
  ASSERT_NE(now, nullptr);
  uint32_t same = 0;
  ASSERT_EQ(now->IsSameDriver(Named(u"Fake Speakers"), &same), kStatusOk);
  EXPECT_EQ(same, 1u);
  QuillonDestroy(now);
  QuillonDestroy(client);
  QuillonDestroy(saved);
}

}  // namespace
