// The resolution of the system timer.
#ifndef QUILLON_PLATFORM_TIMER_RESOLUTION_H
#define QUILLON_PLATFORM_TIMER_RESOLUTION_H

#include <cstdint>

namespace NSPlatform {

// The answer of a system that cannot give that period.
constexpr uint32_t kTimerNoCanDo = 97;

// 0 on success. Systems without a settable timer resolution always succeed.
uint32_t BeginTimerPeriod(uint32_t milliseconds);
uint32_t EndTimerPeriod(uint32_t milliseconds);

}  // namespace NSPlatform

#endif
