// Drivers whose calls never return, through the boundary: the host's
// threads come back within the call's deadline, the client goes silent as
// for any lost driver, and the driver is never called again in the process.
#include <chrono>
#include <thread>

#include "asio/asio_call_thread.h"
#include "e2e/e2e_support.h"
#include "fakes/fake_asio.h"
#include "fakes/fake_dsound.h"
#include "fakes/fake_wasapi.h"
#include "support/usable_window.h"

namespace {

using Clock = std::chrono::steady_clock;

// What a hung call may add to its deadline on a loaded machine, and the
// most any boundary call may take.
constexpr int64_t kMarginMs = 2500;
constexpr int64_t kMostMs = 8000;

int64_t Since(Clock::time_point started) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
}

class ASIOContainmentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A quarantine lasts as long as the process: every test has classes of
    // its own.
    static uint32_t nextClass = 0x7000;
    hung = platform.AddDriver(u"Hang Box", Fakes::FakeClsidText(nextClass++), u"ASIO Hang Box");
    other = platform.AddDriver(u"Other Box", Fakes::FakeClsidText(nextClass++), u"ASIO Other Box");
    noDirectSound.libraryPresent = false;
    SetPlatformProvider(&provider);
    const SLibraryParams params = {UsableWindow(), 0};
    uint32_t status = 0;
    library = Quillon_Create("IQuillon2", &params, &status);
    ASSERT_NE(library, nullptr);
    specs = library->GetDriverSpecs(&status);
    ASSERT_EQ(status, kStatusOk);
    hangSpec = NamedSpec(specs, u"Hang Box");
    otherSpec = NamedSpec(specs, u"Other Box");
    nullSpec = NamedSpec(specs, u"No Sound");
    ASSERT_NE(hangSpec, nullptr);
    ASSERT_NE(otherSpec, nullptr);
    ASSERT_NE(nullSpec, nullptr);
  }
  void TearDown() override {
    const auto started = Clock::now();
    QuillonDestroy(specs);
    QuillonDestroy(library);
    EXPECT_LT(Since(started), kMostMs);
    SetPlatformProvider(nullptr);
  }
  IClient* Open(const IDriverSpec* spec, TestHost& to, uint32_t& running) {
    uint32_t status = 0;
    IClient* client = library->CreateClient(&to, nullptr, spec, &running, &status);
    EXPECT_EQ(status, kStatusOk);
    return client;
  }
  void Destroy(IClient* client) {
    const auto started = Clock::now();
    QuillonDestroy(client);
    EXPECT_LT(Since(started), kMostMs);
  }
  // At least one silent block in each of three seconds.
  void ExpectSilentEverySecond(TestHost& on) {
    for (int second = 0; second < 3; ++second) {
      const uint64_t before = on.silentBlocks.load();
      std::this_thread::sleep_for(std::chrono::seconds(1));
      EXPECT_GT(on.silentBlocks.load(), before) << "second " << second;
    }
  }
  // The quarantined driver opens no more; the other ASIO driver does, and
  // so does the silent one.
  void ExpectTheOthersStillOpen() {
    const int32_t created = hung->createdObjects.load();
    TestHost again;
    uint32_t running = 9;
    const auto started = Clock::now();
    IClient* refused = Open(hangSpec, again, running);
    EXPECT_LT(Since(started), 1000);
    EXPECT_EQ(running, 0u);
    EXPECT_EQ(hung->createdObjects.load(), created);
    Destroy(refused);

    TestHost second;
    IClient* box = Open(otherSpec, second, running);
    EXPECT_EQ(running, 1u);
    EXPECT_TRUE(WaitFor([&] { return second.drivenBlocks.load() >= 3; }));
    Destroy(box);

    TestHost third;
    IClient* silent = Open(nullSpec, third, running);
    EXPECT_EQ(running, 1u);
    EXPECT_TRUE(WaitFor([&] { return third.drivenBlocks.load() + third.silentBlocks.load() >= 2; }));
    Destroy(silent);
  }

  Fakes::CFakeWaveOut noWaveOut;
  Fakes::CFakeASIOPlatform platform;
  Fakes::CFakeDirectSound noDirectSound;
  Fakes::CNoWasapi noWasapi;
  SPlatformProvider provider{&noWaveOut, &platform, &noDirectSound, nullptr, &noWasapi};
  std::shared_ptr<Fakes::SFakeASIODevice> hung;
  std::shared_ptr<Fakes::SFakeASIODevice> other;
  IQuillon* library = nullptr;
  IVector<const IDriverSpec*>* specs = nullptr;
  const IDriverSpec* hangSpec = nullptr;
  const IDriverSpec* otherSpec = nullptr;
  const IDriverSpec* nullSpec = nullptr;
  TestHost host;
};

struct SOpeningHang {
  Fakes::EASIOCall call;
  uint32_t deadlineMs;
  const char* name;
};

class ASIOOpeningHangTest : public ASIOContainmentTest,
                            public ::testing::WithParamInterface<SOpeningHang> {};

TEST_P(ASIOOpeningHangTest, AnOpeningThatNeverReturnsGivesSilenceWithinItsDeadline) {
  const SOpeningHang& hang = GetParam();
  hung->Hang(hang.call);
  const uint32_t quarantinedBefore = NSASIO::QuarantinedCount();
  uint32_t running = 9;
  const auto started = Clock::now();
  IClient* client = Open(hangSpec, host, running);
  const int64_t took = Since(started);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(running, 0u);
  EXPECT_EQ(hung->hanging.load(), 1);
  EXPECT_GE(took, static_cast<int64_t>(hang.deadlineMs) - 100);
  EXPECT_LT(took, std::min<int64_t>(hang.deadlineMs + kMarginMs, kMostMs));
  EXPECT_EQ(NSASIO::QuarantinedCount(), quarantinedBefore + 1);
  EXPECT_TRUE(WaitFor([&] { return host.silentBlocks.load() >= 3; }));
  EXPECT_EQ(client->Idle(), kStatusOk);
  // Silence from the start is told by running 0, not as a loss.
  EXPECT_EQ(host.lost.load(), 0);
  Destroy(client);
  ExpectTheOthersStillOpen();
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, ASIOOpeningHangTest,
    ::testing::Values(SOpeningHang{Fakes::kAsioCreate, NSASIO::kCreateCallMs, "Create"},
                      SOpeningHang{Fakes::kAsioInit, NSASIO::kCreateCallMs, "Init"},
                      SOpeningHang{Fakes::kAsioGetChannels, NSASIO::kQueryCallMs, "GetChannels"},
                      SOpeningHang{Fakes::kAsioGetBufferSize, NSASIO::kQueryCallMs,
                                   "GetBufferSize"},
                      SOpeningHang{Fakes::kAsioCreateBuffers, NSASIO::kStreamCallMs,
                                   "CreateBuffers"},
                      SOpeningHang{Fakes::kAsioStart, NSASIO::kStreamCallMs, "Start"}),
    [](const ::testing::TestParamInfo<SOpeningHang>& step) { return step.param.name; });

TEST_F(ASIOContainmentTest, ADriverThatThrowsOutOfACallIsQuarantinedAtOnce) {
  hung->Crash(Fakes::kAsioCreateBuffers);
  uint32_t running = 9;
  const auto started = Clock::now();
  IClient* client = Open(hangSpec, host, running);
  EXPECT_LT(Since(started), kMarginMs);
  EXPECT_EQ(running, 0u);
  EXPECT_EQ(hung->Calls(Fakes::kAsioDisposeBuffers), 0u);
  EXPECT_TRUE(WaitFor([&] { return host.silentBlocks.load() >= 3; }));
  Destroy(client);
  // Never released: its state after the fault is unknown.
  EXPECT_EQ(hung->liveObjects.load(), 1);
  ExpectTheOthersStillOpen();
}

TEST_F(ASIOContainmentTest, ARatePollThatNeverReturnsIsALossToldOnce) {
  uint32_t running = 9;
  IClient* client = Open(hangSpec, host, running);
  ASSERT_EQ(running, 1u);
  EXPECT_EQ(client->Idle(), kStatusOk);
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() >= 3; }));
  hung->Hang(Fakes::kAsioGetSampleRate);
  // The poll comes every 3 s; the Idle that meets the hung call comes back
  // after the question's deadline.
  int64_t longestIdle = 0;
  ASSERT_TRUE(WaitFor([&] {
    const auto started = Clock::now();
    EXPECT_EQ(client->Idle(), kStatusOk);
    longestIdle = std::max(longestIdle, Since(started));
    return host.lost.load() == 1;
  }, 20000));
  EXPECT_EQ(hung->hanging.load(), 1);
  EXPECT_LT(longestIdle, NSASIO::kQueryCallMs + kMarginMs);
  ExpectSilentEverySecond(host);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  Destroy(client);
  ExpectTheOthersStillOpen();
}

// A stop that never returns, on a driver whose thread goes on calling back:
// those calls reach nobody, not even the next ASIO driver's client.
TEST_F(ASIOContainmentTest, AStopThatNeverReturnsLeavesItsCallbacksReachingNobody) {
  uint32_t running = 9;
  IClient* client = Open(hangSpec, host, running);
  ASSERT_EQ(running, 1u);
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() >= 3; }));
  hung->Hang(Fakes::kAsioStop);
  other->stopCalling = true;
  const auto started = Clock::now();
  EXPECT_EQ(client->SetDriver(otherSpec, &running), kStatusOk);
  EXPECT_LT(Since(started), NSASIO::kStreamCallMs + kMarginMs);
  EXPECT_EQ(running, 1u);
  EXPECT_EQ(hung->hanging.load(), 1);
  const uint64_t driven = host.drivenBlocks.load();
  const uint64_t switches = hung->switches.load();
  ASSERT_TRUE(WaitFor([&] { return hung->switches.load() >= switches + 10; }));
  EXPECT_EQ(host.drivenBlocks.load(), driven);
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 0);
  Destroy(client);
  EXPECT_EQ(host.drivenBlocks.load(), driven);
}

TEST_F(ASIOContainmentTest, ADisposalThatNeverReturnsStillLetsTheClientSwitch) {
  uint32_t running = 9;
  IClient* client = Open(hangSpec, host, running);
  ASSERT_EQ(running, 1u);
  hung->Hang(Fakes::kAsioDisposeBuffers);
  const auto started = Clock::now();
  EXPECT_EQ(client->SetDriver(nullSpec, &running), kStatusOk);
  EXPECT_LT(Since(started), NSASIO::kStreamCallMs + kMarginMs);
  EXPECT_EQ(running, 1u);
  EXPECT_EQ(hung->hanging.load(), 1);
  const uint64_t before = host.drivenBlocks.load() + host.silentBlocks.load();
  EXPECT_TRUE(WaitFor([&] { return host.drivenBlocks.load() + host.silentBlocks.load() >= before + 2; }));
  Destroy(client);
  ExpectTheOthersStillOpen();
}

TEST_F(ASIOContainmentTest, AReleaseThatNeverReturnsStillEndsTheClientAndTheLibrary) {
  uint32_t running = 9;
  IClient* client = Open(hangSpec, host, running);
  ASSERT_EQ(running, 1u);
  hung->Hang(Fakes::kAsioRelease);
  const auto started = Clock::now();
  QuillonDestroy(client);
  const int64_t took = Since(started);
  EXPECT_GE(took, static_cast<int64_t>(NSASIO::kStreamCallMs) - 100);
  EXPECT_LT(took, NSASIO::kStreamCallMs + kMarginMs);
  EXPECT_EQ(hung->hanging.load(), 1);
  ExpectTheOthersStillOpen();
}

}  // namespace
