#include "e2e/e2e_support.h"
#include "public/client.h"

class IdleTest : public LibraryFixture {
 protected:
  IClient* Open() {
    uint32_t running = 0;
    uint32_t status = 0;
    IClient* client = Create(FakeSpec(), &running, &status);
    EXPECT_EQ(running, 1u);
    EXPECT_EQ(client->Idle(), kStatusOk);  // takes the report of the opening
    return client;
  }
};

TEST_F(IdleTest, AHostWhoseRenderRaisesHearsOfTheLossOnceAndGetsSilence) {
  IClient* client = Open();
  host.Events();
  host.raiseInRender = true;
  ASSERT_TRUE(WaitFor([&] { return control->renderRaised.load(); }));
  EXPECT_EQ(host.lost.load(), 0);  // nothing on the audio thread
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  ASSERT_TRUE(WaitFor([&] { return host.silentBlocks.load() >= 2; }));
  EXPECT_TRUE(host.lastInputsNull.load());
  EXPECT_TRUE(host.lastOutputsNull.load());
  EXPECT_EQ(host.lastInputCount.load(), 0);
  EXPECT_EQ(host.lastOutputCount.load(), 0);
  EXPECT_EQ(host.lastFrames.load(), 5120u);
  EXPECT_TRUE(host.zeroTimings.load());
  // A later switch resets the report: a new loss is told again.
  uint32_t running = 0;
  EXPECT_EQ(client->SetDriver(OtherSpec(), &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  otherControl->Raise(Fakes::kCheckAlive, 39);
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 2);
  QuillonDestroy(client);
}

TEST_F(IdleTest, SettingsChangedComesBeforeDriverLostInOneIdle) {
  IClient* client = Open();
  {
    std::lock_guard<std::mutex> lock(control->lock);
    control->settingsChanged = true;
  }
  control->Raise(Fakes::kCheckAlive, 39);
  const size_t before = host.Events().size();
  EXPECT_EQ(client->Idle(), kStatusOk);
  const std::vector<std::string> events = host.Events();
  ASSERT_EQ(events.size(), before + 2);
  EXPECT_EQ(events[before], "settings");
  EXPECT_EQ(events[before + 1], "lost");
  QuillonDestroy(client);
}

TEST_F(IdleTest, GuardedOperationsWorkFromInsideTheReports) {
  IClient* client = Open();
  uint32_t inner = 0;
  SClientSettings seen;
  host.onSettings = [&](IClient* c) { inner = c->GetClientSettings(&seen); };
  uint32_t switched = 0;
  host.onLost = [&](IClient* c) {
    uint32_t running = 0;
    switched = c->SetDriver(NullSpec(), &running);
  };
  SClientSettings flat;
  client->GetClientSettings(&flat);
  flat.bufferFrames = 512;
  uint32_t running = 0;
  ASSERT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(inner, kStatusOk);
  EXPECT_EQ(seen.bufferFrames, 512u);
  EXPECT_EQ(host.lastSettings.bufferFrames, 512u);
  control->Raise(Fakes::kCheckAlive, 39);
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(switched, kStatusOk);  // the host fell back to "No Sound" from the report
  host.onSettings = nullptr;
  host.onLost = nullptr;
  QuillonDestroy(client);
}

TEST_F(IdleTest, TheDriverListChangeIsReported) {
  IClient* client = Open();
  auto extra = std::make_shared<Fakes::CFakeDriverControl>();
  ASSERT_TRUE(NSFerrand::AddRegisteredDriver(
      new Fakes::CFakeRegisteredDriver(extra, u"fake-key-3", u"MME", u"Fake Three")));
  const size_t before = host.Events().size();
  EXPECT_EQ(client->Idle(), kStatusOk);
  const std::vector<std::string> events = host.Events();
  ASSERT_EQ(events.size(), before + 1);
  EXPECT_EQ(events.back(), "list");
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.Events().size(), before + 1);
  QuillonDestroy(client);
}

TEST_F(IdleTest, TheWatchdogArmsAfterFiveSecondsAndGivesUpAfterTen) {
  IClient* client = Open();
  auto* impl = static_cast<CQuillonClient*>(client);
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() > 0; }));
  // A driver that stops calling without a word.
  control->rendering = false;
  std::this_thread::sleep_for(std::chrono::milliseconds(5600));
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_TRUE(impl->WatchdogArmed());
  // It calls again in time: disarmed.
  control->rendering = true;
  ASSERT_TRUE(WaitFor([&] {
    const uint64_t n = host.drivenBlocks.load();
    return WaitFor([&] { return host.drivenBlocks.load() > n; }, 1000);
  }));
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_FALSE(impl->WatchdogArmed());
  // It stops for good: armed after 5 s, given up after 5 s more.
  control->rendering = false;
  const auto start = std::chrono::steady_clock::now();
  bool armed = false;
  while (host.lost.load() == 0 &&
         std::chrono::steady_clock::now() - start < std::chrono::seconds(20)) {
    EXPECT_EQ(client->Idle(), kStatusOk);
    armed = armed || impl->WatchdogArmed();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_TRUE(armed);
  EXPECT_EQ(host.lost.load(), 1);
  EXPECT_GT(seconds, 9.5);
  EXPECT_LT(seconds, 15.0);
  // The silent thread keeps the host's clock going.
  EXPECT_TRUE(WaitFor([&] { return host.silentBlocks.load() > 0; }));
  QuillonDestroy(client);
}
