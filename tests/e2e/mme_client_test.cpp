// A client on an MME device whose wave-out fails in the middle of the stream.
#include "e2e/e2e_support.h"
#include "fakes/fake_wasapi.h"

TEST(MMEClient, ADeviceThatFailsMidStreamIsReportedOnceAndTheClientGoesOnSilently) {
  Fakes::CFakeWaveOut fake;
  fake.devices.push_back(Fakes::StereoDevice(u"Speakers", {44100, 48000}));
  Fakes::CNoWasapi noWasapi;
  const SPlatformProvider provider{&fake, nullptr, nullptr, nullptr, &noWasapi};
  SetPlatformProvider(&provider);
  uint32_t status = 0;
  IQuillon* library = Quillon_Create("IQuillon2", nullptr, &status);
  SetPlatformProvider(nullptr);
  ASSERT_NE(library, nullptr);
  IVector<const IDriverSpec*>* specs = library->GetDriverSpecs(&status);
  ASSERT_EQ(specs->GetSize(), 2);
  TestHost host;
  uint32_t running = 0;
  IClient* client = library->CreateClient(&host, nullptr, specs->GetData()[1], &running, &status);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(running, 1u);
  ASSERT_TRUE(WaitFor([&] { return host.drivenBlocks.load() >= 3; }));
  EXPECT_EQ(host.lastOutputCount.load(), 2);
  EXPECT_EQ(host.lastInputCount.load(), 0);
  EXPECT_TRUE(host.lastInputsNull.load());
  fake.Fail(Fakes::kWaveWrite, 6);  // the device went away
  ASSERT_TRUE(WaitFor([&] {
    EXPECT_EQ(client->Idle(), kStatusOk);
    return host.lost.load() > 0;
  }));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  EXPECT_TRUE(WaitFor([&] { return host.silentBlocks.load() >= 1; }));
  fake.Fail(Fakes::kWaveWrite, 0, 0);
  QuillonDestroy(client);
  QuillonDestroy(specs);
  QuillonDestroy(library);
  EXPECT_EQ(fake.OpenStreams(), 0u);
}
