#include "platform/timer_resolution.h"

#include <windows.h>
#include <mmsystem.h>

namespace NSPlatform {

uint32_t BeginTimerPeriod(uint32_t milliseconds) { return timeBeginPeriod(milliseconds); }
uint32_t EndTimerPeriod(uint32_t milliseconds) { return timeEndPeriod(milliseconds); }

}  // namespace NSPlatform
