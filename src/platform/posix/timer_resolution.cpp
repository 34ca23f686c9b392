#include "platform/timer_resolution.h"
#include "platform/fault_points.h"

namespace NSPlatform {

// The monotonic clock and sleeps have no global resolution to raise here.
uint32_t BeginTimerPeriod(uint32_t) {
  if (FailNow(kCallBeginTimerPeriod)) return 97;  // no can do
  return 0;
}
uint32_t EndTimerPeriod(uint32_t) {
  if (FailNow(kCallEndTimerPeriod)) return 97;
  return 0;
}

}  // namespace NSPlatform
