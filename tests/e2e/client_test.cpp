#include "e2e/e2e_support.h"
#include "public/globals.h"

namespace {

SClientSettings Flat(uint32_t rate, uint32_t frames) {
  SClientSettings s;
  std::memset(&s, 0, sizeof s);
  s.sampleRate = rate;
  s.bufferFrames = frames;
  return s;
}

}  // namespace

class ClientTest : public LibraryFixture {};

TEST_F(ClientTest, CreationChecksInTheirOrder) {
  uint32_t running = 7;
  uint32_t status = 0;
  EXPECT_EQ(library->CreateClient(nullptr, nullptr, FakeSpec(), &running, &status), nullptr);
  EXPECT_EQ(status, kStatusInvalidArgument);
  EXPECT_EQ(running, 7u);
  EXPECT_EQ(Create(nullptr, &running, &status), nullptr);
  EXPECT_EQ(status, kStatusInvalidArgument);
  SClientSettings unsound = Flat(48000, 0);
  EXPECT_EQ(library->CreateClientWithSettings(&host, nullptr, FakeSpec(), &unsound, &running,
                                              &status),
            nullptr);
  EXPECT_EQ(status, kStatusInvalidArgument);
  unsound = Flat(48000, 256);
  unsound.outputPairEnabled[3] = 2;
  EXPECT_EQ(library->CreateClientWithSettings(&host, nullptr, FakeSpec(), &unsound, &running,
                                              &status),
            nullptr);
  EXPECT_EQ(status, kStatusInvalidArgument);
  EXPECT_EQ(library->CreateClientWithSettings(nullptr, nullptr, FakeSpec(), &unsound, &running,
                                              &status),
            nullptr);
  EXPECT_EQ(status, kStatusInvalidArgument);
  EXPECT_EQ(control->opened.load(), 0);
}

TEST_F(ClientTest, ADriverThatFailsToOpenIsNoFailedCall) {
  control->Raise(Fakes::kOpenWithDefaults, 30);
  uint32_t running = 7;
  uint32_t status = 0;
  IClient* client = Create(FakeSpec(), &running, &status);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(status, kStatusOk);
  EXPECT_EQ(running, 0u);
  EXPECT_TRUE(WaitFor([&] { return host.silentBlocks.load() >= 1; }));
  QuillonDestroy(client);
}

TEST_F(ClientTest, RenderReachesTheHostWithTheDriversChannels) {
  uint32_t running = 0;
  uint32_t status = 0;
  const int32_t clientsBefore = gClientCount;
  IClient* client = Create(FakeSpec(), &running, &status);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(running, 1u);
  EXPECT_EQ(gClientCount, clientsBefore + 1);
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() >= 2; }));
  EXPECT_EQ(host.lastClient.load(), client);
  EXPECT_EQ(host.lastFrames.load(), 256u);
  EXPECT_EQ(host.lastInputCount.load(), 2);
  EXPECT_EQ(host.lastOutputCount.load(), 4);
  EXPECT_FALSE(host.lastInputsNull.load());
  EXPECT_TRUE(host.zeroTimings.load());
  QuillonDestroy(client);
  EXPECT_EQ(gClientCount, clientsBefore);
}

TEST_F(ClientTest, ADriverWithOutputsOnlyGivesNullInputs) {
  SClientSettings flat = Flat(48000, 128);
  flat.outputPairEnabled[0] = 1;
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client =
      library->CreateClientWithSettings(&host, nullptr, FakeSpec(), &flat, &running, &status);
  ASSERT_NE(client, nullptr);
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() >= 2; }));
  EXPECT_TRUE(host.lastInputsNull.load());
  EXPECT_EQ(host.lastInputCount.load(), 0);
  EXPECT_EQ(host.lastOutputCount.load(), 2);
  EXPECT_EQ(host.lastFrames.load(), 128u);
  QuillonDestroy(client);
}

TEST_F(ClientTest, TheSettingsRoundTrip) {
  SClientSettings flat = Flat(44100, 512);
  flat.inputPairEnabled[2] = 1;  // pairs 0 and 1 stay clear
  flat.monitorsValid = 1;
  flat.monitors[4].enabled = 1;
  flat.monitors[4].gainDb = -6.0f;
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client =
      library->CreateClientWithSettings(&host, nullptr, FakeSpec(), &flat, &running, &status);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(control->Calls(Fakes::kOpenWithSettings), 1u);
  {
    std::lock_guard<std::mutex> lock(control->lock);
    EXPECT_EQ(control->settings.inputPairs.Count(), 3u);
    EXPECT_FALSE(control->settings.inputPairs.Get(0));
    EXPECT_TRUE(control->settings.inputPairs.Get(2));
    // An all-zero output record opens with no output pairs at all.
    EXPECT_EQ(control->settings.outputPairs.Count(), 0u);
    EXPECT_TRUE(control->settings.monitorsValid);
    ASSERT_EQ(control->settings.monitors.size(), 6u);
    EXPECT_TRUE(control->settings.monitors[4].enabled);
    EXPECT_EQ(control->settings.monitors[4].gainDb, -6.0f);
  }
  SClientSettings read;
  std::memset(&read, 0xAB, sizeof read);
  ASSERT_EQ(client->GetClientSettings(&read), kStatusOk);
  EXPECT_EQ(read.sampleRate, 44100u);
  EXPECT_EQ(read.bufferFrames, 512u);
  EXPECT_EQ(read.inputPairEnabled[2], 1u);
  EXPECT_EQ(read.inputPairEnabled[3], 0u);
  EXPECT_EQ(read.monitorsValid, 0u);  // read back, it never switches monitoring on by itself
  EXPECT_EQ(read.monitors[4].enabled, 1u);
  EXPECT_EQ(read.monitors[6].enabled, 0u);
  EXPECT_EQ(client->GetClientSettings(nullptr), kStatusInvalidArgument);
  QuillonDestroy(client);
}

TEST_F(ClientTest, ApplyingSettingsChangesOnlyWhatTheDriverHas) {
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = Create(FakeSpec(), &running, &status);
  ASSERT_NE(client, nullptr);
  SClientSettings flat;
  ASSERT_EQ(client->GetClientSettings(&flat), kStatusOk);
  flat.bufferFrames = 128;
  flat.outputPairEnabled[1] = 0;
  flat.outputPairEnabled[5] = 1;  // beyond the driver's pairs: nothing happens
  flat.monitorsValid = 1;          // ignored here
  ASSERT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  {
    std::lock_guard<std::mutex> lock(control->lock);
    EXPECT_EQ(control->settings.bufferFrames, 128u);
    EXPECT_EQ(control->settings.outputPairs.Count(), 2u);
    EXPECT_TRUE(control->settings.outputPairs.Get(0));
    EXPECT_FALSE(control->settings.outputPairs.Get(1));
    EXPECT_FALSE(control->settings.monitorsValid);
  }
  EXPECT_EQ(client->ApplyClientSettings(nullptr, &running), kStatusInvalidArgument);
  // A driver that fails on the change: the call succeeds, the client runs on silently.
  control->Raise(Fakes::kApplySettings, 17);
  flat.bufferFrames = 64;
  EXPECT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  EXPECT_EQ(running, 0u);
  // In the lost state a change reaches no driver; the last settings stay.
  EXPECT_EQ(client->ApplyClientSettings(&flat, &running), kStatusOk);
  EXPECT_EQ(running, 0u);
  SClientSettings lost;
  ASSERT_EQ(client->GetClientSettings(&lost), kStatusOk);
  EXPECT_EQ(lost.bufferFrames, 128u);
  QuillonDestroy(client);
}

TEST_F(ClientTest, ListsLatenciesAndThePanel) {
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = Create(FakeSpec(), &running, &status);
  ASSERT_NE(client, nullptr);
  IVector<QuillonULong>* rates = client->GetSampleRates(&status);
  ASSERT_NE(rates, nullptr);
  ASSERT_EQ(rates->GetSize(), 2);
  EXPECT_EQ(rates->GetData()[1], 48000u);
  QuillonDestroy(rates);
  IVector<QuillonULong>* sizes = client->GetBufferSizes(&status);
  ASSERT_EQ(sizes->GetSize(), 3);
  QuillonDestroy(sizes);
  IVector<const unsigned short*>* names = client->GetOutputNames(&status);
  ASSERT_EQ(names->GetSize(), 4);
  EXPECT_EQ(Text(names->GetData()[3]), u"Out 4");
  EXPECT_EQ(names->IsValid(), 1u);
  QuillonDestroy(names);
  names = client->GetInputNames(&status);
  EXPECT_EQ(Text(names->GetData()[0]), u"In 1");
  QuillonDestroy(names);
  names = client->GetClockSourceNames(&status);
  EXPECT_EQ(Text(names->GetData()[1]), u"Word Clock");
  QuillonDestroy(names);
  uint64_t latency = 0;
  EXPECT_EQ(client->GetInputLatency(&latency), kStatusOk);
  EXPECT_EQ(latency, 1000u);
  EXPECT_EQ(client->GetOutputLatency(&latency), kStatusOk);
  EXPECT_EQ(latency, 2000u);
  EXPECT_EQ(client->GetOutputLatency(nullptr), kStatusInvalidArgument);
  uint8_t can = 9;
  EXPECT_EQ(client->CanMonitorInputs(&can), kStatusOk);
  EXPECT_EQ(can, 0u);
  uint32_t panel = 9;
  control->hasPanel = true;
  EXPECT_EQ(client->HasControlPanel(&panel), kStatusOk);
  EXPECT_EQ(panel, 1u);
  EXPECT_EQ(client->ShowControlPanel(), kStatusOk);
  EXPECT_EQ(control->Calls(Fakes::kShowControlPanel), 1u);
  IDriverSpec* spec = client->GetDriverSpec(&status);
  ASSERT_NE(spec, nullptr);
  uint32_t same = 0;
  spec->IsSameDriver(FakeSpec(), &same);
  EXPECT_EQ(same, 1u);
  QuillonDestroy(spec);
  QuillonDestroy(client);
}

TEST_F(ClientTest, AnEmptyListGivesNoData) {
  otherControl->info.inputNames.clear();
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = Create(OtherSpec(), &running, &status);
  IVector<const unsigned short*>* names = client->GetInputNames(&status);
  ASSERT_NE(names, nullptr);
  EXPECT_EQ(names->GetSize(), 0);
  EXPECT_EQ(names->GetData(), nullptr);
  EXPECT_EQ(names->IsValid(), 1u);
  QuillonDestroy(names);
  QuillonDestroy(client);
}

TEST_F(ClientTest, SwitchingDrivers) {
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = Create(NullSpec(), &running, &status);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(client->SetDriver(FakeSpec(), &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  EXPECT_EQ(control->openDrivers.load(), 1);
  SClientSettings flat = Flat(44100, 64);
  flat.outputPairEnabled[0] = 1;
  EXPECT_EQ(client->SetDriverWithSettings(OtherSpec(), &flat, &running), kStatusOk);
  EXPECT_EQ(running, 1u);
  EXPECT_EQ(control->openDrivers.load(), 0);
  EXPECT_EQ(otherControl->Calls(Fakes::kOpenWithSettings), 1u);
  control->Raise(Fakes::kOpenWithDefaults, 30);
  running = 9;
  EXPECT_EQ(client->SetDriver(FakeSpec(), &running), kStatusOk);
  EXPECT_EQ(running, 0u);
  running = 9;
  EXPECT_EQ(client->SetDriver(nullptr, &running), kStatusInvalidArgument);
  EXPECT_EQ(running, 9u);
  EXPECT_EQ(client->SetDriverWithSettings(FakeSpec(), nullptr, &running), kStatusInvalidArgument);
  QuillonDestroy(client);
}

TEST_F(ClientTest, SuspendingAndResuming) {
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = Create(FakeSpec(), &running, &status);
  EXPECT_EQ(client->SuspendDriver(), kStatusOk);
  EXPECT_EQ(client->SuspendDriver(), kStatusOk);
  EXPECT_EQ(control->openDrivers.load(), 0);
  EXPECT_EQ(client->ResumeDriver(&running), kStatusOk);
  EXPECT_EQ(control->openDrivers.load(), 0);
  EXPECT_EQ(client->ResumeDriver(&running), kStatusOk);
  EXPECT_EQ(running, 1u);
  EXPECT_EQ(control->openDrivers.load(), 1);
  QuillonDestroy(client);
}

TEST_F(ClientTest, HardwareOperationsWithoutADevice) {
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = Create(FakeSpec(), &running, &status);
  uint8_t has = 9;
  EXPECT_EQ(client->HasHardwareDevice(&has), kStatusOk);
  EXPECT_EQ(has, 0u);
  int32_t padded = 0;
  float db = 0;
  EXPECT_EQ(client->GetGainSafePaddedChannel(0, &padded), 570525530u);
  EXPECT_EQ(client->GetGainSafePaddingDb(0, &db), 570525530u);
  EXPECT_EQ(client->SetGainSafeRoutingEnable(0, 1), 570525530u);
  EXPECT_EQ(client->SetChannelActiveIndicator(1, 0), 570525530u);
  EXPECT_EQ(client->ClearDirectMonitoring(), 570525530u);
  // The selector is checked only after the device.
  EXPECT_EQ(client->SetGainSafeIndicator(776), 570525530u);
  EXPECT_EQ(client->SetGainSafeIndicator(780), 570525530u);
  EXPECT_EQ(client->SetGainSafeIndicator(kGainSafeIndicatorState1), 570525530u);
  QuillonDestroy(client);
}

TEST_F(ClientTest, AnOperationFromInsideTheClientsOwnWorkIsRefused) {
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = Create(FakeSpec(), &running, &status);
  ASSERT_NE(client, nullptr);
  uint32_t inner = 0;
  control->onEnter = [&](Fakes::EOperation op) {
    if (op == Fakes::kGetDriverInfo) inner = client->Idle();
  };
  IVector<QuillonULong>* rates = client->GetSampleRates(&status);
  control->onEnter = nullptr;
  EXPECT_EQ(inner, kStatusNotReady);
  EXPECT_EQ(status, kStatusOk);
  QuillonDestroy(rates);
  QuillonDestroy(client);
}
