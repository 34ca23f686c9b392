// The render bridge, as a host sees it: from one block to the next, the
// thread that calls the host's Render neither allocates nor waits, whether
// a driver or the silent thread drives it.
#include <gtest/gtest.h>

#include "driver/wait.h"
#include "e2e/e2e_support.h"

namespace {

class RealtimeTest : public LibraryFixture {};

TEST_F(RealtimeTest, TheBridgeOnTheNullDriverNeitherAllocatesNorWaits) {
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = Create(NullSpec(), &running, &status);
  ASSERT_NE(client, nullptr);
  ASSERT_EQ(running, 1u);
  // Its one size, 4096 frames at 44100 Hz: a block every 93 ms.
  EXPECT_TRUE(WaitFor([&] { return host.watch.Watched() >= 12; }, 20000));
  QuillonDestroy(client);
  EXPECT_EQ(host.watch.Allocations(), 0u);
  EXPECT_EQ(host.watch.BlockingWaits(), 0u);
  EXPECT_EQ(host.overlaps.load(), 0u);
}

TEST_F(RealtimeTest, TheBridgeOnTheSilentThreadNeitherAllocatesNorWaits) {
  control->Raise(Fakes::kOpenWithDefaults, 30);
  uint32_t running = 7;
  uint32_t status = 0;
  IClient* client = Create(FakeSpec(), &running, &status);
  ASSERT_NE(client, nullptr);
  ASSERT_EQ(running, 0u);
  // A block of 5120 frames at 44100 Hz every 116 ms.
  EXPECT_TRUE(WaitFor([&] { return host.watch.Watched() >= 5; }, 20000));
  QuillonDestroy(client);
  EXPECT_GE(host.silentBlocks.load(), 6u);
  EXPECT_EQ(host.watch.Allocations(), 0u);
  EXPECT_EQ(host.watch.BlockingWaits(), 0u);
}

TEST_F(RealtimeTest, TheBridgeOnADriversThreadNeitherAllocatesNorWaits) {
  control->renderPeriodMs = 1;
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = Create(FakeSpec(), &running, &status);
  ASSERT_NE(client, nullptr);
  ASSERT_EQ(running, 1u);
  EXPECT_TRUE(WaitFor([&] { return host.watch.Watched() >= 200; }));
  QuillonDestroy(client);
  EXPECT_EQ(host.watch.Allocations(), 0u);
  EXPECT_EQ(host.watch.BlockingWaits(), 0u);
}

}  // namespace
