#include <gtest/gtest.h>

#include <thread>

#include "driver/clock.h"

using namespace NSFerrand;

TEST(Clock, TimerStartsOnceWithTheFinestPeriod) {
  TimerStart();
  const uint32_t period = TimerStartPeriod();
  EXPECT_GE(period, 1u);
  EXPECT_LT(period, 10u);
  TimerStart();
  EXPECT_EQ(TimerStartPeriod(), period);
}

TEST(Clock, TicksAdvanceInMilliseconds) {
  const uint32_t before = GetTickCount32();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const int32_t elapsed = static_cast<int32_t>(GetTickCount32() - before);
  EXPECT_GE(elapsed, 45);
  EXPECT_LT(elapsed, 5000);
}

TEST(Clock, Conversions) {
  EXPECT_EQ(TicksToMicroseconds(3), 3000);
  EXPECT_EQ(TicksToMicroseconds(-2), -2000);
  EXPECT_EQ(MillisecondsToSixtieths(1000), 60u);
  EXPECT_EQ(MillisecondsToSixtieths(16), 0u);
  EXPECT_EQ(SixtiethsToMilliseconds(60), 1000u);
  EXPECT_EQ(SixtiethsToMilliseconds(1), 16u);
  EXPECT_DOUBLE_EQ(MicrosecondsFromSeconds(1.5), 1500000.0);
  EXPECT_DOUBLE_EQ(SecondsFromMicroseconds(250000.0), 0.25);
  EXPECT_EQ(TickDifference(10, 3), 7);
  EXPECT_EQ(TickDifference(3, 10), -7);
  EXPECT_EQ(TickDifference(uint64_t{1} << 40, (uint64_t{1} << 40) - 5), 5);
  const uint64_t now = SixtiethsNow();
  EXPECT_LE(now, static_cast<uint64_t>(0xFFFFFFFFu) * 6 / 100);
}

namespace {
uint32_t gFakeTicks = 0;
uint32_t FakeTicks() { return gFakeTicks; }
}  // namespace

TEST(Clock, TheStampGoesOnPastTheWrapOfTheClock) {
  gFakeTicks = 0xFFFFFF00u;
  CMillisecondStamp64 stamp(&FakeTicks);
  EXPECT_EQ(stamp.Now(), 0u);
  gFakeTicks += 0x100;  // wraps to 0
  EXPECT_EQ(stamp.Now(), 0x100u);
  uint64_t expected = 0x100;
  // Walk 3 * 2^32 ms in steps below 2^31, reading every step.
  for (int step = 0; step < 12; ++step) {
    gFakeTicks += 0x40000000u;
    expected += 0x40000000u;
    ASSERT_EQ(stamp.Now(), expected) << step;
  }
}
