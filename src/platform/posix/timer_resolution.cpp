#include "platform/timer_resolution.h"

namespace NSPlatform {

// The monotonic clock and sleeps have no global resolution to raise here.
uint32_t BeginTimerPeriod(uint32_t) { return 0; }
uint32_t EndTimerPeriod(uint32_t) { return 0; }

}  // namespace NSPlatform
