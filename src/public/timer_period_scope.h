// Raises the resolution of the system timer while the library lives.
#ifndef QUILLON_PUBLIC_TIMER_PERIOD_SCOPE_H
#define QUILLON_PUBLIC_TIMER_PERIOD_SCOPE_H

#include <cstdint>

namespace NSQuillon2 {

struct STimerPeriodCalls {
  uint32_t (*begin)(uint32_t milliseconds);
  uint32_t (*end)(uint32_t milliseconds);
};

// The system's own timer calls.
const STimerPeriodCalls& SystemTimerPeriodCalls();

class CTimerPeriodScope {
 public:
  // Where the system cannot give the period, tries longer ones up to five
  // times the period asked for. Raises when none is granted.
  explicit CTimerPeriodScope(uint32_t period,
                             const STimerPeriodCalls& calls = SystemTimerPeriodCalls());
  ~CTimerPeriodScope();
  CTimerPeriodScope(const CTimerPeriodScope&) = delete;
  CTimerPeriodScope& operator=(const CTimerPeriodScope&) = delete;

  uint32_t Period() const { return period_; }

 private:
  uint32_t period_;
  const STimerPeriodCalls& calls_;
};

}  // namespace NSQuillon2

#endif
