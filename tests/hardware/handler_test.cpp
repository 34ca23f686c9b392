#include <atomic>
#include <chrono>
#include <thread>

#include "hardware_support.h"
#include "public/zep_handler.h"

using namespace NSZEPGlue;
using NSQuillon2::CZEPLibHandler;
using NSQuillon2::IHardwareEventSink;

namespace {

class HandlerTest : public HardwareTest {
 protected:
  void SetUp() override {
    HardwareTest::SetUp();
    PlaceBeside("v1_999_999");
    ZEPFake_SetDevices("Dev A\nDev B");
  }
  RecordingEventSink sink;
};

TEST_F(HandlerTest, ThreeConnectionEventsAreTakenThreeTimes) {
  CZEPLibHandler handler(platform);
  EXPECT_FALSE(handler.TakeConnectionChange());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ZEPFake_FireConnection(), 0u);
  EXPECT_TRUE(handler.TakeConnectionChange());
  EXPECT_TRUE(handler.TakeConnectionChange());
  EXPECT_TRUE(handler.TakeConnectionChange());
  EXPECT_FALSE(handler.TakeConnectionChange());
}

TEST_F(HandlerTest, ButtonsOneAndTwoOfTheBoundDeviceReachTheHost) {
  CZEPLibHandler handler(platform);
  CSharedDeviceImpl a(*handler.GetGlue(), "Dev A");
  CSharedDeviceImpl b(*handler.GetGlue(), "Dev B");
  handler.SetButtonContext(&sink);
  handler.SetBoundDevice(&a);
  ZEPFake_FireButton(a.GetDeviceHandle(), 1);
  ZEPFake_FireButton(a.GetDeviceHandle(), 2);
  ZEPFake_FireButton(a.GetDeviceHandle(), 3);
  ZEPFake_FireButton(a.GetDeviceHandle(), 0);
  // A second connected device is not the bound one.
  ZEPFake_FireButton(b.GetDeviceHandle(), 1);
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1, 2}));
  handler.SetBoundDevice(&b);
  ZEPFake_FireButton(b.GetDeviceHandle(), 2);
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1, 2, 2}));
}

TEST_F(HandlerTest, ABoundDeviceOfZeroMatchesAHandleOfZero) {
  CZEPLibHandler handler(platform);
  handler.SetButtonContext(&sink);
  handler.SetBoundDevice(nullptr);
  ZEPFake_FireButton(0, 1);
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1}));
}

TEST_F(HandlerTest, WithoutAContextAButtonGoesNowhere) {
  CZEPLibHandler handler(platform);
  CSharedDeviceImpl a(*handler.GetGlue(), "Dev A");
  handler.SetBoundDevice(&a);
  EXPECT_EQ(ZEPFake_FireButton(a.GetDeviceHandle(), 1), 0u);
  handler.SetButtonContext(&sink);
  handler.SetButtonContext(nullptr);
  EXPECT_EQ(ZEPFake_FireButton(a.GetDeviceHandle(), 2), 0u);
  EXPECT_TRUE(sink.Events().empty());
}

// One event holds the lock inside the host's receiver; another that cannot
// have it within 50 ms is dropped, and nothing says so.
TEST_F(HandlerTest, AButtonThatCannotHaveTheLockIn50MsIsLost) {
  CZEPLibHandler handler(platform);
  handler.SetButtonContext(&sink);
  std::atomic<bool> release{false};
  sink.holdUntil = &release;
  ZEPFake_PostButtons(0, 1, 1);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!sink.entered.load() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_TRUE(sink.entered.load());
  const auto before = std::chrono::steady_clock::now();
  handler.OnButton(0, 2);
  const auto waited = std::chrono::steady_clock::now() - before;
  release = true;
  ZEPFake_WaitEvents();
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1}));
  EXPECT_GE(waited, std::chrono::milliseconds(45));
}

TEST_F(HandlerTest, AConnectionThatSaysItIsThereAlreadyRaisesAndLeavesNothing) {
  ZEPFake_SetResult("ZEP_Create", 1);
  const SFailureSeen seen = FailureOf([&] { CZEPLibHandler handler(platform); });
  EXPECT_EQ(seen.code, NSMarlet::kFailureCode_RuntimeError_AlreadyExists);
  EXPECT_FALSE(NSPrivate::ZEPLoaderExists());
  EXPECT_EQ(ZEPFake_LoadedCopies(), 0);
}

// The library's thread counts and calls in while the control thread binds
// and unbinds over and over: nothing waits for ever, no count is lost.
TEST_F(HandlerTest, EventsRaceTheControlThreadWithoutLoss) {
  constexpr uint32_t kEvents = 1000;
  CZEPLibHandler handler(platform);
  CSharedDeviceImpl a(*handler.GetGlue(), "Dev A");
  ZEPFake_PostConnections(kEvents);
  ZEPFake_PostButtons(a.GetDeviceHandle(), 1, kEvents);
  uint32_t taken = 0;
  for (uint32_t i = 0; i < kEvents; ++i) {
    handler.SetBoundDevice(&a);
    handler.SetButtonContext(&sink);
    if (handler.TakeConnectionChange()) ++taken;
    handler.SetBoundDevice(nullptr);
    handler.SetButtonContext(nullptr);
  }
  ZEPFake_WaitEvents();
  while (handler.TakeConnectionChange()) ++taken;
  EXPECT_EQ(taken, kEvents);
  EXPECT_EQ(ZEPFake_DeliveredEvents(), 2 * kEvents);
  for (uint32_t event : sink.Events()) EXPECT_EQ(event, 1u);
}

}  // namespace
