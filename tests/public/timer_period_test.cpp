#include <gtest/gtest.h>

#include <vector>

#include "public/timer_period_scope.h"

using namespace NSQuillon2;

namespace {

std::vector<uint32_t> gBegun;
std::vector<uint32_t> gEnded;
uint32_t gGrantFrom = 0;    // periods at or above are granted
uint32_t gOtherAnswer = 0;  // non-zero: answered instead of 97

uint32_t FakeBegin(uint32_t period) {
  gBegun.push_back(period);
  if (gOtherAnswer != 0) return gOtherAnswer;
  return period >= gGrantFrom ? 0 : 97;
}

uint32_t FakeEnd(uint32_t period) {
  gEnded.push_back(period);
  return 0;
}

const STimerPeriodCalls kFake = {&FakeBegin, &FakeEnd};

class TimerPeriodTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gBegun.clear();
    gEnded.clear();
    gGrantFrom = 0;
    gOtherAnswer = 0;
  }
};

}  // namespace

TEST_F(TimerPeriodTest, GrantedAtOnce) {
  {
    CTimerPeriodScope scope(5, kFake);
    EXPECT_EQ(scope.Period(), 5u);
  }
  EXPECT_EQ(gBegun, std::vector<uint32_t>{5});
  EXPECT_EQ(gEnded, std::vector<uint32_t>{5});
}

TEST_F(TimerPeriodTest, RetriesLongerPeriodsWhileTheSystemCannot) {
  gGrantFrom = 8;
  {
    CTimerPeriodScope scope(5, kFake);
    EXPECT_EQ(scope.Period(), 8u);
  }
  EXPECT_EQ(gBegun, (std::vector<uint32_t>{5, 6, 7, 8}));
  EXPECT_EQ(gEnded, std::vector<uint32_t>{8});
}

TEST_F(TimerPeriodTest, TriesUpToFiveTimesThePeriodThenRaises) {
  gGrantFrom = 26;
  EXPECT_THROW(CTimerPeriodScope(5, kFake), std::exception);
  ASSERT_EQ(gBegun.size(), 21u);
  EXPECT_EQ(gBegun.front(), 5u);
  EXPECT_EQ(gBegun.back(), 25u);
  EXPECT_TRUE(gEnded.empty());
}

TEST_F(TimerPeriodTest, TheLastTryMayStillBeGranted) {
  gGrantFrom = 25;
  CTimerPeriodScope scope(5, kFake);
  EXPECT_EQ(scope.Period(), 25u);
}

TEST_F(TimerPeriodTest, AnyOtherAnswerRaisesAtOnce) {
  gOtherAnswer = 96;
  EXPECT_THROW(CTimerPeriodScope(5, kFake), std::exception);
  EXPECT_EQ(gBegun, std::vector<uint32_t>{5});
}

TEST(SystemTimerPeriod, FiveMillisecondsIsGranted) {
  CTimerPeriodScope scope(5);
  EXPECT_EQ(scope.Period(), 5u);
}
