#include "public/timer_period_scope.h"

#include <exception>

#include "platform/timer_resolution.h"

namespace NSQuillon2 {

const STimerPeriodCalls& SystemTimerPeriodCalls() {
  static const STimerPeriodCalls calls = {&NSPlatform::BeginTimerPeriod,
                                          &NSPlatform::EndTimerPeriod};
  return calls;
}

CTimerPeriodScope::CTimerPeriodScope(uint32_t period, const STimerPeriodCalls& calls)
    : period_(period), calls_(calls) {
  uint32_t answer = calls_.begin(period_);
  while (answer == NSPlatform::kTimerNoCanDo && period_ < 5 * period) {
    ++period_;
    answer = calls_.begin(period_);
  }
  if (answer != 0) throw std::exception();
}

CTimerPeriodScope::~CTimerPeriodScope() { calls_.end(period_); }

}  // namespace NSQuillon2
