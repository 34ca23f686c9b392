#include "platform/timer_resolution.h"
#include "platform/fault_points.h"

#include <windows.h>
#include <mmsystem.h>

namespace NSPlatform {

uint32_t BeginTimerPeriod(uint32_t milliseconds) {
  if (FailNow(kCallBeginTimerPeriod)) return 97;  // no can do
  return timeBeginPeriod(milliseconds);
}
uint32_t EndTimerPeriod(uint32_t milliseconds) {
  if (FailNow(kCallEndTimerPeriod)) return 97;
  return timeEndPeriod(milliseconds);
}

}  // namespace NSPlatform
